// Preconditioned conjugate gradient, one step per call.
//
// Every dot product of a step is summed from the last index down (NVector::dot's order). The
// loops that produce a vector therefore run downwards too and add each product to the sum as
// soon as its element is known: q = A p with p . q, the x and r updates with r . r, and the
// preconditioner solve with r . z. The sums are the same bits as separate dot() calls, and each
// vector is swept once instead of twice.
#include "qyGeom/ConjugateGradient.h"

#include <cmath>
#include <cstddef>
#include <utility>

#include "base/Linear.h"

namespace qyGeom
{
namespace
{

inline double rowTimes(const SparseMatrix::Row& row, const double* x)
{
    const SparseElement* e = row.data();
    const SparseElement* end = e + row.size();
    double s = 0.0;
    for (; e != end; ++e)
        s += e->value * x[e->column];
    return s;
}

// q = A p, returning p . q.
double productAndDot(const SparseMatrix& A, const double* p, double* q)
{
    double c = 0.0;
    for (int i = A.size() - 1; i >= 0; --i)
    {
        const double qi = rowTimes(A.row(i), p);
        q[i] = qi;
        c += p[i] * qi;
    }
    return c;
}

// r = b - A x, returning r . r.
double residualAndNorm(const SparseMatrix& A, const double* b, const double* x, double* r)
{
    double rr = 0.0;
    for (int i = A.size() - 1; i >= 0; --i)
    {
        const double ri = b[i] - rowTimes(A.row(i), x);
        r[i] = ri;
        rr += ri * ri;
    }
    return rr;
}

// One row of a triangular solve: (z[i] - sum of the off-diagonal v * z[c]) / the diagonal,
// with 0.0 as the diagonal when the row has none.
inline double solveRow(const SparseMatrix::Row& row, int i, double zi, const double* z)
{
    double pivot = 0.0;
    const SparseElement* e = row.data();
    const SparseElement* end = e + row.size();
    for (; e != end; ++e)
    {
        if (e->column != i)
            zi -= z[e->column] * e->value;
        else
            pivot = e->value;
    }
    return zi / pivot;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Preconditioners

Preconditioner::~Preconditioner() = default;

double Preconditioner::applyInverseDot(const NVector& r, NVector& z) const
{
    applyInverse(r, z);
    return r.dot(z);
}

DiagonalPreconditioner::DiagonalPreconditioner(const SparseMatrix& A) : m_inverseDiagonal(A.size())
{
    for (int i = 0; i < A.size(); ++i)
        m_inverseDiagonal[i] = 1.0 / A.getElement(i, i);
}

DiagonalPreconditioner::~DiagonalPreconditioner() = default;

void DiagonalPreconditioner::applyInverse(const NVector& r, NVector& z) const
{
    const double* pr = r.data();
    const double* d = m_inverseDiagonal.data();
    double* pz = z.data();
    for (int i = 0; i < r.size(); ++i)
        pz[i] = pr[i] * d[i];
}

double DiagonalPreconditioner::applyInverseDot(const NVector& r, NVector& z) const
{
    const double* pr = r.data();
    const double* d = m_inverseDiagonal.data();
    double* pz = z.data();
    double s = 0.0;
    for (int i = r.size() - 1; i >= 0; --i)
    {
        const double zi = pr[i] * d[i];
        pz[i] = zi;
        s += pr[i] * zi;
    }
    return s;
}

IncompleteCholeskyPreconditioner::IncompleteCholeskyPreconditioner(const SparseMatrix& A)
    : m_lower(A.size()), m_upper(A.size())
{
    const int n = A.size();
    A.getUpperTriangular(m_upper);

    // Row c of lower receives one entry per entry of column c of upper: reserve each row once,
    // in row order, so the factor's rows lie close together in memory.
    {
        qy::vector<int> columnCounts(std::size_t(n), 0);
        for (int i = 0; i < n; ++i)
            for (const SparseElement& e : m_upper.row(i))
                ++columnCounts[std::size_t(e.column)];
        for (int c = 0; c < n; ++c)
            m_lower.row(c).reserve(std::size_t(columnCounts[std::size_t(c)]));
    }

    for (int i = 0; i < n; ++i)
    {
        SparseMatrix::Row& row = m_upper.row(i);
        SparseElement* first = row.data();
        SparseElement* last = first + row.size();

        // Eliminate with every earlier row k, in increasing k, whose final row holds column i.
        // Those are exactly the entries (k, U(k, i)) that the earlier rows appended to row i of
        // lower, in the order of k. A row k without column i has U(k, i) = 0 and changes
        // nothing.
        const SparseMatrix& upper = m_upper;
        for (const SparseElement& lk : std::as_const(m_lower).row(i))
        {
            const double u = lk.value;
            const SparseMatrix::Row& rowK = upper.row(lk.column);
            const SparseElement* kFirst = rowK.data();
            for (SparseElement* e = first; e != last; ++e)
            {
                if (e->value == 0.0)
                    continue;
                double ukc = 0.0;
                for (const SparseElement* f = kFirst + rowK.size(); f != kFirst;)
                {
                    --f;
                    if (f->column == e->column)
                    {
                        ukc = f->value;
                        break;
                    }
                }
                e->value -= ukc * u;
            }
        }

        double d = 0.0;
        for (SparseElement* e = first; e != last; ++e)
            if (e->column == i)
            {
                e->value = std::sqrt(e->value);
                d = e->value;
                break;
            }

        for (SparseElement* e = first; e != last; ++e)
        {
            if (e->column != i)
                e->value /= d;
            m_lower.addToElement(e->column, i, e->value);
        }
    }
}

IncompleteCholeskyPreconditioner::~IncompleteCholeskyPreconditioner() = default;

void IncompleteCholeskyPreconditioner::applyInverse(const NVector& r, NVector& z) const
{
    const int n = m_lower.size();
    const double* pr = r.data();
    double* pz = z.data();
    for (int i = 0; i < n; ++i)
        pz[i] = solveRow(m_lower.row(i), i, pr[i], pz);
    for (int i = n - 1; i >= 0; --i)
        pz[i] = solveRow(m_upper.row(i), i, pz[i], pz);
}

double IncompleteCholeskyPreconditioner::applyInverseDot(const NVector& r, NVector& z) const
{
    const int n = m_lower.size();
    const double* pr = r.data();
    double* pz = z.data();
    for (int i = 0; i < n; ++i)
        pz[i] = solveRow(m_lower.row(i), i, pr[i], pz);
    // The backward sweep yields z from the last index down: the order of r . z.
    double s = 0.0;
    for (int i = n - 1; i >= 0; --i)
    {
        const double zi = solveRow(m_upper.row(i), i, pz[i], pz);
        pz[i] = zi;
        s += pr[i] * zi;
    }
    return s;
}

// ---------------------------------------------------------------------------------------------
// ConjugateGradient

ConjugateGradient::ConjugateGradient(int n) : m_A(n), m_b(n), m_x(n), m_p(n), m_r(n), m_q(n), m_z(n)
{
}

ConjugateGradient::~ConjugateGradient() = default;

void ConjugateGradient::initDiagonalPreconditioner()
{
    m_preconditioner.reset();
    m_preconditioner = std::make_unique<DiagonalPreconditioner>(m_A);
}

void ConjugateGradient::initIncompleteCholeskyPreconditioner()
{
    m_preconditioner.reset();
    m_preconditioner = std::make_unique<IncompleteCholeskyPreconditioner>(m_A);
}

void ConjugateGradient::initialize(const NVector& b, const NVector& x0)
{
    m_b = b;
    m_x = x0;
    m_A.getVectorMinusMatrixTimesVector(m_b, m_x, m_r);
    if (m_preconditioner)
        m_preconditioner->applyInverse(m_r, m_p);
    else
        m_p = m_r;
    m_rho = m_r.dot(m_p);
    m_rNormSquared = m_r.dot(m_r);
    m_bNormSquared = m_b.dot(m_b);
    if (qyLinear::epsilonTol > m_bNormSquared)
        m_bNormSquared = 1.0;
    m_iteration = 0;
}

ConjugateGradient::Status ConjugateGradient::iterate(double tolerance, double breakdown)
{
    ++m_iteration;
    if (m_iteration > m_x.size())
        return MaxIterations;
    if (tolerance * tolerance * m_bNormSquared >= m_rNormSquared)
        return Converged;

    double* x = m_x.data();
    double* p = m_p.data();
    double* r = m_r.data();
    double* q = m_q.data();
    const double c = productAndDot(m_A, p, q);
    if (c < 0.0 && m_iteration > 1)
        return NegativeCurvature;
    if (std::abs(c) < breakdown)
        return DegenerateDirection;

    const double alpha = m_rho / c;
    const int n = m_x.size();
    if (c < 0.0 || m_iteration % 50 == 0)
    {
        m_x.setToVectorPlusScalarTimesVector(m_x, alpha, m_p);
        // A negative curvature on the first step still moves x once before it is reported.
        if (c < 0.0)
            return NegativeCurvature;
        m_rNormSquared = residualAndNorm(m_A, m_b.data(), x, r);
    }
    else
    {
        double rr = 0.0;
        for (int i = n - 1; i >= 0; --i)
        {
            x[i] = p[i] * alpha + x[i];
            const double ri = q[i] * -alpha + r[i];
            r[i] = ri;
            rr += ri * ri;
        }
        m_rNormSquared = rr;
    }

    if (std::abs(m_rho) < breakdown)
        return DegenerateResidual;

    double rhoNew;
    const double* next;
    if (m_preconditioner)
    {
        rhoNew = m_preconditioner->applyInverseDot(m_r, m_z);
        next = m_z.data();
    }
    else
    {
        rhoNew = m_rNormSquared;
        next = r;
    }
    const double beta = rhoNew / m_rho;
    m_rho = rhoNew;
    for (int i = n - 1; i >= 0; --i)
        p[i] = p[i] * beta + next[i];
    return Running;
}

double ConjugateGradient::getConvergenceValue() const
{
    return std::sqrt(m_rNormSquared) / std::sqrt(m_bNormSquared);
}

double ConjugateGradient::getResidualInfinityNorm() const
{
    NVector residual(m_A.size());
    m_A.getVectorMinusMatrixTimesVector(m_b, m_x, residual);
    return residual.infinityNorm();
}

} // namespace qyGeom
