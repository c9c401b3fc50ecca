// Preconditioned conjugate gradient for symmetric positive (semi-)definite sparse systems, one
// step per call, with Jacobi and zero fill-in incomplete Cholesky preconditioners.
#pragma once

#include <memory>

#include "qyGeom/SparseMatrix.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// An approximation M of a matrix whose inverse is cheap to apply.
class QYGEOM_API Preconditioner
{
public:
    virtual ~Preconditioner();
    /// z = M^-1 r. @pre z.size() == r.size()
    virtual void applyInverse(const NVector& r, NVector& z) const = 0;
    /// z = M^-1 r and returns r . z, summed as NVector::dot sums (from the last index down),
    /// so the result is the same bits as applyInverse followed by r.dot(z). Implementations
    /// override it to form the sum in the same sweep.
    virtual double applyInverseDot(const NVector& r, NVector& z) const;
};

/// Jacobi: M = diag(A).
class QYGEOM_API DiagonalPreconditioner : public Preconditioner
{
public:
    /// inverseDiagonal[i] = 1.0 / A(i, i); a missing or zero diagonal gives an infinite factor.
    explicit DiagonalPreconditioner(const SparseMatrix& A);
    ~DiagonalPreconditioner() override;
    /// z[i] = r[i] * inverseDiagonal[i] for i below r.size().
    void applyInverse(const NVector& r, NVector& z) const override;
    double applyInverseDot(const NVector& r, NVector& z) const override;

    const NVector& getInverseDiagonal() const { return m_inverseDiagonal; }

private:
    NVector m_inverseDiagonal;
};

/// Zero fill-in incomplete Cholesky, row oriented: U^T U approximates A on A's upper-triangle
/// pattern. Entries that become exactly 0.0 behave as if outside the pattern.
class QYGEOM_API IncompleteCholeskyPreconditioner : public Preconditioner
{
public:
    /// Factors A's upper triangle (A is read only here). A missing diagonal gives a 0.0 pivot
    /// and a negative one a NaN; neither is tested.
    explicit IncompleteCholeskyPreconditioner(const SparseMatrix& A);
    ~IncompleteCholeskyPreconditioner() override;
    /// Solves U^T U z = r: forward through lower, then backward through upper.
    void applyInverse(const NVector& r, NVector& z) const override;
    double applyInverseDot(const NVector& r, NVector& z) const override;

    /// L = U^T by rows, the diagonal included (stored last in each row).
    const SparseMatrix& getLower() const { return m_lower; }
    /// U by rows.
    const SparseMatrix& getUpper() const { return m_upper; }

private:
    SparseMatrix m_lower;
    SparseMatrix m_upper;
};

/// Solves A x = b by preconditioned conjugate gradient, one step per iterate() call, so that the
/// caller decides when to stop, reports progress and reads every step's status.
///
/// Use: construct with n; fill A(); optionally initDiagonalPreconditioner() or
/// initIncompleteCholeskyPreconditioner() once A is complete; initialize(b, x0); call
/// iterate(tolerance, breakdown) until the Status is done; read x().
/// Cost per step: one product with A, the preconditioner solve, three in-place vector updates
/// and three dot products, formed in as few sweeps as the fixed summation orders allow; no
/// allocation.
/// Threads: one object, one thread.
class QYGEOM_API ConjugateGradient
{
public:
    /// The result of one step. The values are printed by callers and never change.
    enum StatusCode
    {
        NegativeCurvature = -1,  ///< p . A p < 0: A is not positive definite along p
        Running = 0,             ///< step done, not finished
        Converged = 1,           ///< the residual met the tolerance before the step
        MaxIterations = 2,       ///< more steps than unknowns; nothing changed
        DegenerateDirection = 3, ///< |p . A p| below the breakdown floor; x unchanged
        DegenerateResidual = 4   ///< |rho| below the breakdown floor after x and r moved
    };

    class Status
    {
    public:
        Status(StatusCode code) : m_code(code) {}
        explicit Status(int code) : m_code(StatusCode(code)) {}
        StatusCode code() const { return m_code; }
        /// True for every code but Running.
        bool isDone() const { return m_code != Running; }
        bool operator==(const Status& o) const { return m_code == o.m_code; }

    private:
        StatusCode m_code;
    };

    /// Iteration 0, A n x n without entries, every vector n zeros, no preconditioner.
    explicit ConjugateGradient(int n);
    ConjugateGradient(const ConjugateGradient&) = delete;
    ConjugateGradient& operator=(const ConjugateGradient&) = delete;
    ~ConjugateGradient();

    /// The owned matrix, for filling.
    SparseMatrix& A() { return m_A; }
    const SparseMatrix& A() const { return m_A; }
    /// The current iterate.
    const NVector& x() const { return m_x; }
    /// Number of iterate() calls since construction or initialize().
    int getIteration() const { return m_iteration; }

    /// Replaces the preconditioner by a Jacobi one built from A as it stands.
    void initDiagonalPreconditioner();
    /// Replaces the preconditioner by an incomplete Cholesky one built from A as it stands.
    void initIncompleteCholeskyPreconditioner();

    /// Sets b and x = x0, the residual r = b - A x, the first direction p = M^-1 r (r without
    /// a preconditioner), and the iteration count to 0. A right-hand side with b . b below
    /// qyLinear::epsilonTol makes the convergence test absolute (b . b counts as 1.0).
    /// @pre b and x0 hold n elements
    void initialize(const NVector& b, const NVector& x0);

    /// One step. Tests, in order: the step limit (more than n calls: MaxIterations), the
    /// residual left by the previous step (tolerance^2 b.b >= r.r: Converged), negative
    /// curvature after the first step, |p . A p| < breakdown; then moves x (on the first step
    /// even when p . A p < 0, which is then reported), updates r (exactly, as b - A x, every
    /// 50th step), stops with DegenerateResidual when |rho| < breakdown, and builds the next
    /// direction.
    /// @param tolerance  relative to |b|
    /// @param breakdown  absolute floor on |p . A p| and |rho|
    Status iterate(double tolerance, double breakdown);

    /// |r| / |b|, the relative residual of the recursive update.
    double getConvergenceValue() const;
    double getResidualNormSquared() const { return m_rNormSquared; }
    /// max |b - A x|, computed exactly into a temporary vector.
    double getResidualInfinityNorm() const;

private:
    int m_iteration = 0;
    SparseMatrix m_A;
    NVector m_b;
    NVector m_x;
    NVector m_p;
    NVector m_r;
    NVector m_q;
    NVector m_z;
    double m_rho = 0.0;
    double m_bNormSquared = 0.0;
    double m_rNormSquared = 0.0;
    std::unique_ptr<Preconditioner> m_preconditioner;
};

} // namespace qyGeom
