// Square sparse matrices stored as short per-row lists of (column, value), and dense vectors:
// the linear-algebra kit under the conjugate-gradient solver and the mesh parameterization.
#pragma once

#include <iosfwd>
#include <memory>

#include "base/Containers.h"
#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class Remap;

/// One stored entry of a sparse row: a column and its value.
struct SparseElement
{
    SparseElement() = default;
    SparseElement(int column_, double value_) : column(column_), value(value_) {}

    int column = -1;
    double value = 0.0;
};

/// A dense vector of doubles. Indexing is unchecked.
class QYGEOM_API NVector
{
public:
    /// Empty for n < 1, otherwise n zeros.
    explicit NVector(int n = 0);
    NVector(const NVector& other) = default;
    NVector(NVector&& other) noexcept = default;
    /// Copies the source's elements; self-assignment does nothing.
    NVector& operator=(const NVector& other);
    NVector& operator=(NVector&& other) noexcept = default;

    /// Resizes to n (n < 1: empty) and sets every element to 0.0.
    void setToZero(int n);
    int size() const { return m_size; }

    double& operator[](int i) { return m_data[std::size_t(i)]; }
    double operator[](int i) const { return m_data[std::size_t(i)]; }
    /// The element array (size() doubles; null or dangling when empty).
    double* data() { return m_data.data(); }
    const double* data() const { return m_data.data(); }

    /// Sum of this[i] * w[i], accumulated from the last index down to 0, over this vector's
    /// size; 0.0 when this vector is empty. The order is fixed, so results agree to the bit.
    /// @pre w.size() >= size()
    double dot(const NVector& w) const;
    /// The largest absolute value (0.0 when empty); NaN elements are passed over.
    double infinityNorm() const;
    /// this[i] = b[i] * s + a[i] for i from size() - 1 down to 0, over this vector's current
    /// size. this may be a or b.
    /// @pre a.size() >= size() and b.size() >= size()
    void setToVectorPlusScalarTimesVector(const NVector& a, double s, const NVector& b);

private:
    qy::vector<double> m_data;
    int m_size = 0;
};

/// Writes "(", every element in the stream's floating-point format followed by " ", then ")".
QYGEOM_API std::ostream& operator<<(std::ostream& os, const NVector& v);

/// A square matrix of doubles held row by row, each row an unsorted list of (column, value) in
/// the order the entries were first added. Lookups scan one row from its end: the matrices of
/// this library have a handful of entries per row, and during assembly the column touched last
/// is the likeliest to be touched again. There is no column index and no compressed form.
///
/// Not copyable by constructor or assignment (use the submatrix copy, or build anew); movable.
/// Threads: any number of readers, or one writer.
class QYGEOM_API SparseMatrix
{
public:
    using Row = qy::vector<SparseElement>;

    /// An n x n matrix without entries (n < 1: size 0, no rows).
    explicit SparseMatrix(int n = 0);
    SparseMatrix(const SparseMatrix&) = delete;
    SparseMatrix& operator=(const SparseMatrix&) = delete;
    SparseMatrix(SparseMatrix&& other) noexcept;
    SparseMatrix& operator=(SparseMatrix&& other) noexcept;
    ~SparseMatrix();

    /// Frees every row and makes the matrix n x n with empty rows (n < 1: size 0).
    void setToZero(int n);
    int size() const { return m_size; }
    /// The stored entries of row i in storage order. @pre 0 <= i < size()
    const Row& row(int i) const { return m_rows[std::size_t(i)]; }
    /// Row i for code that appends to it directly (factorizations that know their columns are
    /// new). Keep each column at most once per row: the lookups stop at the first hit.
    Row& row(int i) { return m_rows[std::size_t(i)]; }

    /// Adds v to entry (i, j), appending the entry to row i when the row does not hold column
    /// j yet (adding 0.0 still creates it). @pre 0 <= i < size()
    void addToElement(int i, int j, double v);
    /// The value of entry (i, j), 0.0 when not stored.
    double getElement(int i, int j) const;
    /// True and the value in `out` when (i, j) is stored; otherwise false, `out` untouched.
    bool getElement(int i, int j, double& out) const;
    /// Number of stored entries, zeros included.
    int nnz() const;

    /// y = A x, each row summed in storage order. @pre y.size() >= size(), x.size() >= size()
    void getMatrixTimesVector(const NVector& x, NVector& y) const;
    /// r = b - A x with the row sums of getMatrixTimesVector; r may be b. @pre r is sized
    void getVectorMinusMatrixTimesVector(const NVector& b, const NVector& x, NVector& r) const;
    /// Sum over rows i, in increasing order, of u[i] * (A v)[i]; 0.0 for an empty matrix.
    double vectorDotMatrixTimesVector(const NVector& u, const NVector& v) const;

    /// t = A^T, built by adding every entry (i, c, v) in row and storage order as (c, i, v).
    void transpose(SparseMatrix& t) const;
    /// Appends to row i of u every entry of row i whose column is >= i, in storage order.
    /// @pre u.size() == size(); u is normally empty
    void getUpperTriangular(SparseMatrix& u) const;

    /// Dense Cholesky factor L (A = L L^T, from A's upper triangle) into l, row i holding
    /// L(i, 0 .. i) including zeros. False at the first pivot that is not positive, leaving the
    /// entries made so far. Cost: O(n^3) lookups; meant for checks on small matrices.
    bool choleskyFactorization(SparseMatrix& l) const;
    /// True when choleskyFactorization succeeds.
    bool isPositiveDefinite() const;
    /// True when every off-diagonal entry differs from its mirror (0.0 when absent) by strictly
    /// less than 1e-6; a NaN makes the matrix non-symmetric. An empty matrix is symmetric.
    bool isSymmetric() const;
    /// A sufficient M-matrix test: every non-empty row has a positive diagonal, no positive
    /// off-diagonal entry and a non-negative sum, and at least one row has a positive sum.
    /// An empty matrix is not an M-matrix.
    bool isMMatrix() const;

    /// out = row i as a dense vector of size().
    void copyRow(int i, NVector& out) const;
    /// out = column j as a dense vector of size().
    void copyColumn(int j, NVector& out) const;

    /// This matrix becomes the principal submatrix of src without the rows and columns listed
    /// in `removed`; `remap` maps the old indices to the new (-1 for the removed ones).
    /// @pre the removed indices are distinct and inside [0, src.size()); this is not src
    void copy(const SparseMatrix& src, const qy::Array<int>& removed, Remap& remap);

    /// Writes the histogram of row lengths to standard output, as one run of text without
    /// line breaks: "  total rows: N" then "  length L: C rows" per length that occurs.
    void dumpRowLengths() const;
    /// The dense matrix as nested lists, one row per line, entries in "%.10f".
    qyString::CString toMmaString() const;

private:
    void copy(const SparseMatrix& src);

    std::unique_ptr<Row[]> m_rows;
    int m_size = 0;
};

/// Dense text dump: "SparseMatrix{", each row on a line of its own, every entry as "%.10f"
/// after a separator of one space (negative value) or two, then "\n}".
QYGEOM_API std::ostream& operator<<(std::ostream& os, const SparseMatrix& m);

} // namespace qyGeom
