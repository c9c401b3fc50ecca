#include "qyGeom/ConjugateGradient.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

using namespace qyGeom;
using Status = ConjugateGradient::Status;

namespace
{

NVector vec(const std::vector<double>& v)
{
    NVector out(int(v.size()));
    for (int i = 0; i < int(v.size()); ++i)
        out[i] = v[std::size_t(i)];
    return out;
}

// A deterministic pseudo-random sequence in [-1, 1).
struct Lcg
{
    std::uint64_t s = 12345;
    double next()
    {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        return double(s >> 11) / double(1ull << 53) * 2 - 1;
    }
};

// A random sparse symmetric positive definite matrix: the Laplacian of a chain with random
// extra edges and weights, plus a small positive diagonal (slow enough to converge that
// unpreconditioned CG takes more than 50 steps), entries added in a scattered order.
void fillRandomSpd(SparseMatrix& A, Lcg& rng)
{
    const int n = A.size();
    for (int i = 0; i < n; ++i)
        A.addToElement(i, i, 0.01 + 0.01 * (rng.next() + 1.0));
    for (int i = 0; i + 1 < n; ++i)
    {
        const double w = 0.5 + (rng.next() + 1.0);
        A.addToElement(i + 1, i, -w);
        A.addToElement(i, i + 1, -w);
        A.addToElement(i, i, w);
        A.addToElement(i + 1, i + 1, w);
    }
    for (int e = 0; e < n / 4; ++e)
    {
        const int i = int((rng.next() + 1.0) * 0.5 * n) % n;
        const int j = int((rng.next() + 1.0) * 0.5 * n) % n;
        if (i == j)
            continue;
        const double w = 0.1 + (rng.next() + 1.0);
        A.addToElement(i, j, -w);
        A.addToElement(j, i, -w);
        A.addToElement(i, i, w);
        A.addToElement(j, j, w);
    }
}

// Dense Gaussian elimination with partial pivoting.
std::vector<double> denseSolve(const SparseMatrix& A, const NVector& b)
{
    const int n = A.size();
    std::vector<std::vector<double>> m(std::size_t(n), std::vector<double>(std::size_t(n) + 1));
    for (int i = 0; i < n; ++i)
    {
        for (int j = 0; j < n; ++j)
            m[std::size_t(i)][std::size_t(j)] = A.getElement(i, j);
        m[std::size_t(i)][std::size_t(n)] = b[i];
    }
    for (int c = 0; c < n; ++c)
    {
        int best = c;
        for (int i = c + 1; i < n; ++i)
            if (std::abs(m[std::size_t(i)][std::size_t(c)]) >
                std::abs(m[std::size_t(best)][std::size_t(c)]))
                best = i;
        std::swap(m[std::size_t(c)], m[std::size_t(best)]);
        for (int i = c + 1; i < n; ++i)
        {
            const double f = m[std::size_t(i)][std::size_t(c)] / m[std::size_t(c)][std::size_t(c)];
            for (int j = c; j <= n; ++j)
                m[std::size_t(i)][std::size_t(j)] -= f * m[std::size_t(c)][std::size_t(j)];
        }
    }
    std::vector<double> x(static_cast<std::size_t>(n));
    for (int i = n - 1; i >= 0; --i)
    {
        double s = m[std::size_t(i)][std::size_t(n)];
        for (int j = i + 1; j < n; ++j)
            s -= m[std::size_t(i)][std::size_t(j)] * x[std::size_t(j)];
        x[std::size_t(i)] = s / m[std::size_t(i)][std::size_t(i)];
    }
    return x;
}

void fillTridiagonal(SparseMatrix& A)
{
    const int n = A.size();
    for (int i = 0; i < n; ++i)
    {
        A.addToElement(i, i, 4.0 + 0.25 * i);
        if (i + 1 < n)
        {
            A.addToElement(i, i + 1, -1.0 - 0.1 * i);
            A.addToElement(i + 1, i, -1.0 - 0.1 * i);
        }
    }
}

} // namespace

TEST(ConjugateGradient, StatusSequenceOfTinySystems)
{
    EXPECT_FALSE(Status(0).isDone());
    EXPECT_TRUE(Status(-1).isDone());
    EXPECT_TRUE(Status(4).isDone());
    EXPECT_EQ(Status(3).code(), ConjugateGradient::DegenerateDirection);

    // The step limit is tested before the residual.
    ConjugateGradient one(1);
    one.A().addToElement(0, 0, 2.0);
    one.initialize(vec({4}), vec({0}));
    EXPECT_EQ(one.iterate(1e-10, 1e-30).code(), ConjugateGradient::Running);
    EXPECT_EQ(one.x()[0], 2.0);
    EXPECT_EQ(one.getResidualNormSquared(), 0.0);
    EXPECT_EQ(one.iterate(1e-10, 1e-30).code(), ConjugateGradient::MaxIterations);
    EXPECT_EQ(one.iterate(1e-10, 1e-30).code(), ConjugateGradient::MaxIterations);
    EXPECT_EQ(one.getIteration(), 3);
    one.initialize(vec({4}), vec({2}));
    EXPECT_EQ(one.getIteration(), 0);
    EXPECT_EQ(one.iterate(1e-10, 1e-30).code(), ConjugateGradient::Converged);

    // A zero right-hand side makes the test absolute and converges at once.
    ConjugateGradient zero(2);
    zero.A().addToElement(0, 0, 1.0);
    zero.A().addToElement(1, 1, 1.0);
    zero.initialize(NVector(2), NVector(2));
    EXPECT_EQ(zero.getConvergenceValue(), 0.0);
    EXPECT_EQ(zero.iterate(1e-10, 1e-30).code(), ConjugateGradient::Converged);

    // Negative curvature on the first step moves x once, then reports.
    ConjugateGradient negative(1);
    negative.A().addToElement(0, 0, -1.0);
    negative.initialize(vec({1}), vec({0}));
    EXPECT_EQ(negative.iterate(1e-10, 1e-30).code(), ConjugateGradient::NegativeCurvature);
    EXPECT_EQ(negative.x()[0], -1.0);

    // After the first step a negative curvature changes nothing: diag(1, -1), b = (2, 1).
    ConjugateGradient later(2);
    later.A().addToElement(0, 0, 1.0);
    later.A().addToElement(1, 1, -1.0);
    later.initialize(vec({2, 1}), vec({0, 0}));
    EXPECT_EQ(later.iterate(1e-10, 1e-30).code(), ConjugateGradient::Running);
    const double x0 = later.x()[0], x1 = later.x()[1];
    EXPECT_EQ(later.iterate(1e-10, 1e-30).code(), ConjugateGradient::NegativeCurvature);
    EXPECT_EQ(later.x()[0], x0);
    EXPECT_EQ(later.x()[1], x1);

    ConjugateGradient allZero(3);
    allZero.A().addToElement(1, 1, 0.0);
    allZero.initialize(vec({1, 2, 3}), NVector(3));
    EXPECT_EQ(allZero.iterate(1e-10, 1e-30).code(), ConjugateGradient::DegenerateDirection);
    EXPECT_EQ(allZero.x()[1], 0.0);

    // |p.Ap| = 1 passes a floor of 0.5, rho = 0.01 does not: x moves, then 4.
    ConjugateGradient small(1);
    small.A().addToElement(0, 0, 100.0);
    small.initialize(vec({0.1}), vec({0}));
    EXPECT_EQ(small.iterate(1e-12, 0.5).code(), ConjugateGradient::DegenerateResidual);
    EXPECT_DOUBLE_EQ(small.x()[0], 0.001);

    ConjugateGradient empty(0);
    empty.initialize(NVector(), NVector());
    EXPECT_EQ(empty.iterate(1e-10, 1e-30).code(), ConjugateGradient::MaxIterations);
}

TEST(ConjugateGradient, PreconditionersSolveTheirOwnStructureInOneStep)
{
    // Jacobi on a diagonal matrix is exact.
    ConjugateGradient diag(4);
    for (int i = 0; i < 4; ++i)
        diag.A().addToElement(i, i, 1.0 + i);
    diag.initDiagonalPreconditioner();
    diag.initialize(vec({1, 4, 9, 16}), NVector(4));
    EXPECT_EQ(diag.iterate(1e-10, 1e-30).code(), ConjugateGradient::Running);
    EXPECT_EQ(diag.iterate(1e-10, 1e-30).code(), ConjugateGradient::Converged);
    for (int i = 0; i < 4; ++i)
        EXPECT_NEAR(diag.x()[i], (i + 1.0) * (i + 1.0) / (1.0 + i), 1e-14);

    // On a tridiagonal matrix zero fill-in loses nothing: the factor is the exact Cholesky one.
    const int n = 7;
    SparseMatrix T(n);
    fillTridiagonal(T);
    IncompleteCholeskyPreconditioner ic(T);
    SparseMatrix l;
    ASSERT_TRUE(T.choleskyFactorization(l));
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j)
        {
            EXPECT_NEAR(ic.getUpper().getElement(i, j), l.getElement(j, i), 1e-14);
            EXPECT_EQ(ic.getLower().getElement(i, j), ic.getUpper().getElement(j, i));
        }

    ConjugateGradient cg(n);
    fillTridiagonal(cg.A());
    cg.initIncompleteCholeskyPreconditioner();
    NVector b(n);
    for (int i = 0; i < n; ++i)
        b[i] = 1.0 + i;
    cg.initialize(b, NVector(n));
    EXPECT_EQ(cg.iterate(1e-10, 1e-30).code(), ConjugateGradient::Running);
    EXPECT_EQ(cg.iterate(1e-10, 1e-30).code(), ConjugateGradient::Converged);
    EXPECT_LT(cg.getResidualInfinityNorm(), 1e-12);

    // applyInverseDot gives z and r . z to the bit of applyInverse then dot.
    NVector z1(n), z2(n);
    ic.applyInverse(b, z1);
    const double rz = ic.applyInverseDot(b, z2);
    EXPECT_EQ(rz, b.dot(z1));
    for (int i = 0; i < n; ++i)
        EXPECT_EQ(z1[i], z2[i]);
}

TEST(ConjugateGradient, IncompleteCholeskyKeepsThePatternAndSkipsExactZeros)
{
    // A 4-cycle: the factor of row 0 would fill (1, 3), which is outside the pattern.
    SparseMatrix A(4);
    const int edges[4][2] = {{0, 1}, {1, 2}, {2, 3}, {3, 0}};
    for (const auto& e : edges)
    {
        A.addToElement(e[0], e[1], -1.0);
        A.addToElement(e[1], e[0], -1.0);
    }
    for (int i = 0; i < 4; ++i)
        A.addToElement(i, i, 3.0);
    A.addToElement(1, 3, 0.0); // stored exact zero: stays zero
    A.addToElement(3, 1, 0.0);
    IncompleteCholeskyPreconditioner ic(A);
    EXPECT_EQ(ic.getUpper().nnz(), 4 + 5);
    EXPECT_EQ(ic.getUpper().getElement(1, 3), 0.0);
    EXPECT_EQ(ic.getUpper().getElement(0, 0), std::sqrt(3.0));
    EXPECT_EQ(ic.getUpper().getElement(0, 1), -1.0 / std::sqrt(3.0));
    // Row 3 is updated by rows 0 and 2 only.
    const double u03 = -1.0 / std::sqrt(3.0);
    const double u11 = std::sqrt(3.0 - 1.0 / 3.0);
    const double u12 = -1.0 / u11;
    const double u22 = std::sqrt(3.0 - u12 * u12);
    const double u23 = -1.0 / u22;
    EXPECT_DOUBLE_EQ(ic.getUpper().getElement(3, 3), std::sqrt(3.0 - u03 * u03 - u23 * u23));
}

TEST(ConjugateGradient, AgreesWithDenseSolveOnRandomSpdSystems)
{
    const int n = 120;
    Lcg rng;
    ConjugateGradient proto(n);
    fillRandomSpd(proto.A(), rng);
    ASSERT_TRUE(proto.A().isSymmetric());
    NVector b(n);
    for (int i = 0; i < n; ++i)
        b[i] = rng.next();
    const std::vector<double> reference = denseSolve(proto.A(), b);

    for (int kind = 0; kind < 3; ++kind)
    {
        ConjugateGradient cg(n);
        Lcg again;
        fillRandomSpd(cg.A(), again);
        if (kind == 1)
            cg.initDiagonalPreconditioner();
        else if (kind == 2)
            cg.initIncompleteCholeskyPreconditioner();
        cg.initialize(b, NVector(n));
        Status status(0);
        double exactAtFifty = -1.0;
        while (!(status = cg.iterate(1e-13, 1e-300)).isDone())
        {
            if (cg.getIteration() == 50)
            {
                // Every 50th step the residual is recomputed as b - A x, not updated.
                NVector r(n);
                cg.A().getVectorMinusMatrixTimesVector(b, cg.x(), r);
                exactAtFifty = r.dot(r);
                EXPECT_EQ(cg.getResidualNormSquared(), exactAtFifty) << "kind " << kind;
            }
        }
        EXPECT_EQ(status.code(), ConjugateGradient::Converged) << "kind " << kind;
        EXPECT_LT(cg.getConvergenceValue(), 1e-13);
        double scale = 0.0;
        for (double v : reference)
            scale = std::max(scale, std::abs(v));
        for (int i = 0; i < n; ++i)
            EXPECT_NEAR(cg.x()[i], reference[std::size_t(i)], 1e-9 * scale) << "kind " << kind;
        if (kind == 0)
        {
            EXPECT_GE(exactAtFifty, 0.0); // the unpreconditioned solve reaches step 50
        }
    }
}
