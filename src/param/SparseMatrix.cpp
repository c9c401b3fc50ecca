// Sparse matrix and dense vector. Rows are plain arrays of (column, value); every product walks
// them through raw pointers, and every sum keeps the order that the interface fixes, so that a
// result never depends on how the loop was written.
#include "qyGeom/SparseMatrix.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <ostream>

#include "model/Remap.h"

namespace qyGeom
{
namespace
{

// The entry of `row` with column j, scanning from the end; null when absent.
inline const SparseElement* findInRow(const SparseMatrix::Row& row, int j)
{
    const SparseElement* first = row.data();
    for (const SparseElement* e = first + row.size(); e != first;)
    {
        --e;
        if (e->column == j)
            return e;
    }
    return nullptr;
}

inline double rowTimes(const SparseMatrix::Row& row, const double* x)
{
    const SparseElement* e = row.data();
    const SparseElement* end = e + row.size();
    double s = 0.0;
    for (; e != end; ++e)
        s += e->value * x[e->column];
    return s;
}

void formatEntry(char* buffer, std::size_t size, double v)
{
    std::snprintf(buffer, size, "%.10f", v);
}

} // namespace

// ---------------------------------------------------------------------------------------------
// NVector

NVector::NVector(int n)
{
    if (n >= 1)
        setToZero(n);
}

NVector& NVector::operator=(const NVector& other)
{
    if (this == &other)
        return *this;
    m_data.clear();
    m_size = 0;
    if (other.m_size > 0)
    {
        m_data.resize(std::size_t(other.m_size));
        std::memcpy(m_data.data(), other.m_data.data(), sizeof(double) * std::size_t(other.m_size));
        m_size = other.m_size;
    }
    return *this;
}

void NVector::setToZero(int n)
{
    m_size = std::max(n, 0);
    m_data.assign(std::size_t(m_size), 0.0);
}

double NVector::dot(const NVector& w) const
{
    const double* a = m_data.data();
    const double* b = w.m_data.data();
    double s = 0.0;
    for (std::ptrdiff_t i = std::ptrdiff_t(m_size) - 1; i >= 0; --i)
        s += a[i] * b[i];
    return s;
}

double NVector::infinityNorm() const
{
    double m = 0.0;
    for (int i = 0; i < m_size; ++i)
    {
        const double v = std::abs(m_data[std::size_t(i)]);
        if (v > m)
            m = v;
    }
    return m;
}

void NVector::setToVectorPlusScalarTimesVector(const NVector& a, double s, const NVector& b)
{
    double* out = m_data.data();
    const double* pa = a.m_data.data();
    const double* pb = b.m_data.data();
    for (std::ptrdiff_t i = std::ptrdiff_t(m_size) - 1; i >= 0; --i)
        out[i] = pb[i] * s + pa[i];
}

std::ostream& operator<<(std::ostream& os, const NVector& v)
{
    os << "(";
    for (int i = 0; i < v.size(); ++i)
        os << v[i] << " ";
    os << ")";
    return os;
}

// ---------------------------------------------------------------------------------------------
// SparseMatrix

SparseMatrix::SparseMatrix(int n)
{
    setToZero(n);
}

SparseMatrix::SparseMatrix(SparseMatrix&& other) noexcept
    : m_rows(std::move(other.m_rows)), m_size(other.m_size)
{
    other.m_size = 0;
}

SparseMatrix& SparseMatrix::operator=(SparseMatrix&& other) noexcept
{
    if (this != &other)
    {
        m_rows = std::move(other.m_rows);
        m_size = other.m_size;
        other.m_size = 0;
    }
    return *this;
}

SparseMatrix::~SparseMatrix() = default;

void SparseMatrix::setToZero(int n)
{
    m_rows.reset();
    m_size = 0;
    if (n > 0)
    {
        m_rows = std::make_unique<Row[]>(std::size_t(n));
        m_size = n;
    }
}

void SparseMatrix::addToElement(int i, int j, double v)
{
    Row& row = m_rows[std::size_t(i)];
    SparseElement* first = row.data();
    for (SparseElement* e = first + row.size(); e != first;)
    {
        --e;
        if (e->column == j)
        {
            e->value += v;
            return;
        }
    }
    row.emplace_back(j, v);
}

double SparseMatrix::getElement(int i, int j) const
{
    const SparseElement* e = findInRow(m_rows[std::size_t(i)], j);
    return e ? e->value : 0.0;
}

bool SparseMatrix::getElement(int i, int j, double& out) const
{
    const SparseElement* e = findInRow(m_rows[std::size_t(i)], j);
    if (!e)
        return false;
    out = e->value;
    return true;
}

int SparseMatrix::nnz() const
{
    int n = 0;
    for (int i = 0; i < m_size; ++i)
        n += int(m_rows[std::size_t(i)].size());
    return n;
}

void SparseMatrix::getMatrixTimesVector(const NVector& x, NVector& y) const
{
    const double* px = x.data();
    double* py = y.data();
    for (int i = 0; i < m_size; ++i)
        py[i] = rowTimes(m_rows[std::size_t(i)], px);
}

void SparseMatrix::getVectorMinusMatrixTimesVector(const NVector& b, const NVector& x,
                                                   NVector& r) const
{
    const double* px = x.data();
    const double* pb = b.data();
    double* pr = r.data();
    for (int i = 0; i < m_size; ++i)
        pr[i] = pb[i] - rowTimes(m_rows[std::size_t(i)], px);
}

double SparseMatrix::vectorDotMatrixTimesVector(const NVector& u, const NVector& v) const
{
    const double* pv = v.data();
    double s = 0.0;
    for (int i = 0; i < m_size; ++i)
        s += u[i] * rowTimes(m_rows[std::size_t(i)], pv);
    return s;
}

void SparseMatrix::transpose(SparseMatrix& t) const
{
    t.setToZero(m_size);
    for (int i = 0; i < m_size; ++i)
        for (const SparseElement& e : m_rows[std::size_t(i)])
            t.addToElement(e.column, i, e.value);
}

void SparseMatrix::getUpperTriangular(SparseMatrix& u) const
{
    for (int i = 0; i < m_size; ++i)
    {
        const Row& src = m_rows[std::size_t(i)];
        Row& dst = u.m_rows[std::size_t(i)];
        std::size_t count = 0;
        for (const SparseElement& e : src)
            count += e.column >= i;
        dst.reserve(dst.size() + count);
        for (const SparseElement& e : src)
            if (e.column >= i)
                dst.push_back(e);
    }
}

bool SparseMatrix::choleskyFactorization(SparseMatrix& l) const
{
    const int n = m_size;
    l.setToZero(n);
    for (int j = 0; j < n; ++j)
        for (int i = j; i < n; ++i)
        {
            double x = getElement(j, i);
            for (int k = j - 1; k >= 0; --k)
                x -= l.getElement(i, k) * l.getElement(j, k);
            double entry;
            if (i == j)
            {
                if (x <= 0.0)
                    return false;
                entry = std::sqrt(x);
            }
            else
            {
                entry = x / l.getElement(j, j);
            }
            l.addToElement(i, j, entry);
        }
    return true;
}

bool SparseMatrix::isPositiveDefinite() const
{
    SparseMatrix l;
    return choleskyFactorization(l);
}

bool SparseMatrix::isSymmetric() const
{
    for (int r = 0; r < m_size; ++r)
    {
        const Row& row = m_rows[std::size_t(r)];
        for (std::size_t k = row.size(); k-- > 0;)
        {
            const SparseElement& e = row[k];
            if (e.column == r)
                continue;
            if (!(std::abs(e.value - getElement(e.column, r)) < 1e-6))
                return false;
        }
    }
    return true;
}

bool SparseMatrix::isMMatrix() const
{
    if (m_size < 1)
        return false;
    bool strictRow = false;
    for (int i = 0; i < m_size; ++i)
    {
        const Row& row = m_rows[std::size_t(i)];
        if (row.empty())
            continue;
        double sum = 0.0;
        for (const SparseElement& e : row)
        {
            if (e.column == i ? !(e.value > 0.0) : !(e.value <= 0.0))
                return false;
            sum += e.value;
        }
        if (sum < 0.0)
            return false;
        if (sum > 0.0)
            strictRow = true;
    }
    return strictRow;
}

void SparseMatrix::copyRow(int i, NVector& out) const
{
    out.setToZero(m_size);
    for (const SparseElement& e : m_rows[std::size_t(i)])
        out[e.column] = e.value;
}

void SparseMatrix::copyColumn(int j, NVector& out) const
{
    out.setToZero(m_size);
    for (int i = 0; i < m_size; ++i)
        out[i] = getElement(i, j);
}

void SparseMatrix::copy(const SparseMatrix& src)
{
    setToZero(src.m_size);
    for (int i = 0; i < m_size; ++i)
        m_rows[std::size_t(i)] = src.m_rows[std::size_t(i)];
}

void SparseMatrix::copy(const SparseMatrix& src, const qy::Array<int>& removed, Remap& remap)
{
    qy::Array<int> sorted(removed);
    std::sort(sorted.begin(), sorted.end());
    const int oldSize = src.m_size;
    const int newSize = oldSize - int(sorted.size());
    setToZero(newSize);
    remap.resize(oldSize, newSize);

    std::size_t cursor = 0;
    int next = 0;
    for (int r = 0; r < oldSize; ++r)
    {
        if (cursor < sorted.size() && sorted[cursor] == r)
        {
            remap.set(r, -1);
            ++cursor;
        }
        else
        {
            remap.set(r, next++);
        }
    }

    for (int r = 0; r < oldSize; ++r)
    {
        const int newRow = remap(r);
        if (newRow < 0)
            continue;
        const Row& row = src.m_rows[std::size_t(r)];
        for (std::size_t k = row.size(); k-- > 0;)
        {
            const int newColumn = remap(row[k].column);
            if (newColumn != -1)
                addToElement(newRow, newColumn, row[k].value);
        }
    }
}

void SparseMatrix::dumpRowLengths() const
{
    int longest = -1;
    for (int i = 0; i < m_size; ++i)
        longest = std::max(longest, int(m_rows[std::size_t(i)].size()));
    qy::vector<int> counts(std::size_t(longest + 1), 0);
    for (int i = 0; i < m_size; ++i)
        ++counts[m_rows[std::size_t(i)].size()];
    std::cout << "  total rows: " << m_size;
    for (int length = 0; length <= longest; ++length)
        if (counts[std::size_t(length)] != 0)
            std::cout << "  length " << length << ": " << counts[std::size_t(length)] << " rows";
}

qyString::CString SparseMatrix::toMmaString() const
{
    qyString::CString text = "{\n";
    NVector dense;
    char buffer[512]; // "%.10f" of the largest double needs 320
    for (int i = 0; i < m_size; ++i)
    {
        copyRow(i, dense);
        text += "{";
        for (int j = 0; j < m_size; ++j)
        {
            formatEntry(buffer, sizeof buffer, dense[j]);
            text += buffer;
            if (j + 1 < m_size)
                text += ",";
            else if (i + 1 == m_size)
                text += "}\n";
            else
                text += "},\n";
        }
    }
    text += "}";
    return text;
}

std::ostream& operator<<(std::ostream& os, const SparseMatrix& m)
{
    os << "SparseMatrix{";
    NVector dense;
    char buffer[512]; // "%.10f" of the largest double needs 320
    for (int i = 0; i < m.size(); ++i)
    {
        os << std::endl;
        m.copyRow(i, dense);
        for (int j = 0; j < m.size(); ++j)
        {
            formatEntry(buffer, sizeof buffer, dense[j]);
            os << (dense[j] < 0.0 ? " " : "  ") << buffer;
        }
    }
    os << "\n}";
    return os;
}

} // namespace qyGeom
