// Preconditioned conjugate gradient, one step per call.
//
// Every dot product of a step is summed from the last index down (NVector::dot's order). The
// loops that produce a vector therefore run downwards too and add each product to the sum as
// soon as its element is known: q = A p with p . q, the x and r updates with r . r, and the
// preconditioner solve with r . z. The sums are the same bits as separate dot() calls, and each
// vector is swept once instead of twice.
//
// The incomplete Cholesky solves are chains of divisions along the mesh ordering; they run
// level by level (see packSweep) so that independent rows overlap, with the same bits.
#include "qyGeom/ConjugateGradient.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <utility>

#include "base/Linear.h"

namespace qyGeom
{
namespace
{

// A packed matrix: row i holds the entries [starts[i], starts[i + 1]).
struct Packed
{
    int n;
    const int* starts;
    const int* columns;
    const double* values;

    double rowTimes(int i, const double* x) const
    {
        double s = 0.0;
        for (int k = starts[i]; k < starts[i + 1]; ++k)
            s += values[k] * x[columns[k]];
        return s;
    }
};

// q = A p, returning p . q.
double productAndDot(const Packed& A, const double* p, double* q)
{
    double c = 0.0;
    for (int i = A.n - 1; i >= 0; --i)
    {
        const double qi = A.rowTimes(i, p);
        q[i] = qi;
        c += p[i] * qi;
    }
    return c;
}

// r = b - A x, returning r . r.
double residualAndNorm(const Packed& A, const double* b, const double* x, double* r)
{
    double rr = 0.0;
    for (int i = A.n - 1; i >= 0; --i)
    {
        const double ri = b[i] - A.rowTimes(i, x);
        r[i] = ri;
        rr += ri * ri;
    }
    return rr;
}

// Packs the rows of a triangular factor for the sweep that visits them in increasing
// (`forward`) or decreasing index order. A row's level is one more than the highest level of
// the rows it reads (0 when it reads none); steps run level by level, by index within a level.
void packSweep(const SparseMatrix& factor, bool forward,
               IncompleteCholeskyPreconditioner::Sweep& sweep)
{
    const int n = factor.size();
    qy::vector<int> level(std::size_t(n), 0);
    int numLevels = n > 0 ? 1 : 0;
    for (int s = 0; s < n; ++s)
    {
        const int i = forward ? s : n - 1 - s;
        int l = 0;
        for (const SparseElement& e : factor.row(i))
            if (e.column != i)
                l = std::max(l, level[std::size_t(e.column)] + 1);
        level[std::size_t(i)] = l;
        numLevels = std::max(numLevels, l + 1);
    }
    qy::vector<int> firstOfLevel(std::size_t(numLevels) + 1, 0);
    for (int i = 0; i < n; ++i)
        ++firstOfLevel[std::size_t(level[std::size_t(i)]) + 1];
    for (int l = 0; l < numLevels; ++l)
        firstOfLevel[std::size_t(l) + 1] += firstOfLevel[std::size_t(l)];
    sweep.order.assign(std::size_t(n), 0);
    for (int i = 0; i < n; ++i)
        sweep.order[std::size_t(firstOfLevel[std::size_t(level[std::size_t(i)])]++)] = i;

    sweep.starts.assign(std::size_t(n) + 1, 0);
    sweep.pivots.assign(std::size_t(n), 0.0);
    sweep.columns.clear();
    sweep.values.clear();
    sweep.columns.reserve(std::size_t(factor.nnz()));
    sweep.values.reserve(std::size_t(factor.nnz()));
    for (int s = 0; s < n; ++s)
    {
        const int i = sweep.order[std::size_t(s)];
        double pivot = 0.0;
        for (const SparseElement& e : factor.row(i))
        {
            if (e.column != i)
            {
                sweep.columns.push_back(e.column);
                sweep.values.push_back(e.value);
            }
            else
            {
                pivot = e.value;
            }
        }
        sweep.pivots[std::size_t(s)] = pivot;
        sweep.starts[std::size_t(s) + 1] = int(sweep.columns.size());
    }
}

// z[i] = (rhs[i] - the row's v * z[c], in storage order) / pivot for every step's row i.
// rhs may be z.
void runSweep(const IncompleteCholeskyPreconditioner::Sweep& sweep, const double* rhs, double* z)
{
    const int n = int(sweep.order.size());
    const int* order = sweep.order.data();
    const int* starts = sweep.starts.data();
    const int* columns = sweep.columns.data();
    const double* values = sweep.values.data();
    const double* pivots = sweep.pivots.data();
    for (int s = 0; s < n; ++s)
    {
        const int i = order[s];
        double zi = rhs[i];
        for (int k = starts[s]; k < starts[s + 1]; ++k)
            zi -= z[columns[k]] * values[k];
        z[i] = zi / pivots[s];
    }
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
    packSweep(m_lower, true, m_forward);
    packSweep(m_upper, false, m_backward);
}

IncompleteCholeskyPreconditioner::~IncompleteCholeskyPreconditioner() = default;

void IncompleteCholeskyPreconditioner::applyInverse(const NVector& r, NVector& z) const
{
    runSweep(m_forward, r.data(), z.data());
    runSweep(m_backward, z.data(), z.data());
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
    m_diagonal = nullptr;
    m_incompleteCholesky = nullptr;
    auto diagonal = std::make_unique<DiagonalPreconditioner>(m_A);
    m_diagonal = diagonal.get();
    m_preconditioner = std::move(diagonal);
}

void ConjugateGradient::initIncompleteCholeskyPreconditioner()
{
    m_preconditioner.reset();
    m_diagonal = nullptr;
    m_incompleteCholesky = nullptr;
    auto factor = std::make_unique<IncompleteCholeskyPreconditioner>(m_A);
    m_incompleteCholesky = factor.get();
    m_preconditioner = std::move(factor);
}

void ConjugateGradient::packA()
{
    const int n = m_A.size();
    m_rowStarts.assign(std::size_t(n) + 1, 0);
    m_columns.resize(std::size_t(m_A.nnz()));
    m_values.resize(m_columns.size());
    std::size_t k = 0;
    for (int i = 0; i < n; ++i)
    {
        for (const SparseElement& e : std::as_const(m_A).row(i))
        {
            m_columns[k] = e.column;
            m_values[k] = e.value;
            ++k;
        }
        m_rowStarts[std::size_t(i) + 1] = int(k);
    }
    m_packedValid = true;
}

void ConjugateGradient::initialize(const NVector& b, const NVector& x0)
{
    packA();
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

    const int n = m_x.size();
    double* x = m_x.data();
    double* p = m_p.data();
    double* r = m_r.data();
    double* q = m_q.data();
    double* z = m_z.data();
    if (!m_packedValid)
        packA();
    const Packed A{m_A.size(), m_rowStarts.data(), m_columns.data(), m_values.data()};
    const double c = productAndDot(A, p, q);
    if (c < 0.0 && m_iteration > 1)
        return NegativeCurvature;
    if (std::abs(c) < breakdown)
        return DegenerateDirection;

    const double alpha = m_rho / c;
    double rhoNew = 0.0;
    const double* next = r; // the vector the next direction is built from
    if (c < 0.0 || m_iteration % 50 == 0 ||
        (m_preconditioner && !m_diagonal && !m_incompleteCholesky))
    {
        // The plain sequence of steps.
        m_x.setToVectorPlusScalarTimesVector(m_x, alpha, m_p);
        // A negative curvature on the first step still moves x once before it is reported.
        if (c < 0.0)
            return NegativeCurvature;
        if (m_iteration % 50 == 0)
        {
            m_rNormSquared = residualAndNorm(A, m_b.data(), x, r);
        }
        else
        {
            m_r.setToVectorPlusScalarTimesVector(m_r, -alpha, m_q);
            m_rNormSquared = m_r.dot(m_r);
        }
        if (std::abs(m_rho) < breakdown)
            return DegenerateResidual;
        if (m_preconditioner)
        {
            rhoNew = m_preconditioner->applyInverseDot(m_r, m_z);
            next = z;
        }
        else
        {
            rhoNew = m_rNormSquared;
        }
    }
    else if (m_incompleteCholesky)
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
        if (std::abs(m_rho) < breakdown)
            return DegenerateResidual;
        m_incompleteCholesky->applyInverse(m_r, m_z);
        rhoNew = m_r.dot(m_z);
        next = z;
    }
    else
    {
        const double* inverseDiagonal =
            m_diagonal ? m_diagonal->getInverseDiagonal().data() : nullptr;
        double rr = 0.0;
        if (inverseDiagonal)
        {
            for (int i = n - 1; i >= 0; --i)
            {
                x[i] = p[i] * alpha + x[i];
                const double ri = q[i] * -alpha + r[i];
                r[i] = ri;
                rr += ri * ri;
                const double zi = ri * inverseDiagonal[i];
                z[i] = zi;
                rhoNew += ri * zi;
            }
            next = z;
        }
        else
        {
            for (int i = n - 1; i >= 0; --i)
            {
                x[i] = p[i] * alpha + x[i];
                const double ri = q[i] * -alpha + r[i];
                r[i] = ri;
                rr += ri * ri;
            }
            rhoNew = rr;
        }
        m_rNormSquared = rr;
        if (std::abs(m_rho) < breakdown)
            return DegenerateResidual;
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
