#include "qyGeom/SparseMatrix.h"

#include <cmath>
#include <iostream>
#include <limits>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "model/Remap.h"

using namespace qyGeom;

namespace
{

SparseMatrix dense(const std::vector<std::vector<double>>& rows)
{
    SparseMatrix m(int(rows.size()));
    for (int i = 0; i < int(rows.size()); ++i)
        for (int j = 0; j < int(rows[std::size_t(i)].size()); ++j)
            if (rows[std::size_t(i)][std::size_t(j)] != 0.0)
                m.addToElement(i, j, rows[std::size_t(i)][std::size_t(j)]);
    return m;
}

NVector vec(const std::vector<double>& v)
{
    NVector out(int(v.size()));
    for (int i = 0; i < int(v.size()); ++i)
        out[i] = v[std::size_t(i)];
    return out;
}

} // namespace

TEST(SparseMatrix, EntriesAreAddedFoundAndCountedOnce)
{
    SparseMatrix m(3);
    m.addToElement(0, 2, 1.5);
    m.addToElement(0, 1, 0.0); // an explicit zero is stored
    m.addToElement(0, 2, 2.0);
    EXPECT_EQ(m.row(0).size(), 2u);
    EXPECT_EQ(m.row(0)[0].column, 2);
    EXPECT_EQ(m.row(0)[0].value, 3.5);
    EXPECT_EQ(m.nnz(), 2);

    EXPECT_EQ(m.getElement(0, 2), 3.5);
    EXPECT_EQ(m.getElement(2, 2), 0.0);
    double out = -7.0;
    EXPECT_TRUE(m.getElement(0, 1, out));
    EXPECT_EQ(out, 0.0);
    out = -7.0;
    EXPECT_FALSE(m.getElement(1, 0, out));
    EXPECT_EQ(out, -7.0);

    SparseMatrix empty;
    EXPECT_EQ(empty.size(), 0);
    EXPECT_EQ(empty.nnz(), 0);
    m.setToZero(2);
    EXPECT_EQ(m.size(), 2);
    EXPECT_EQ(m.nnz(), 0);
}

TEST(SparseMatrix, ProductsTransposeAndUpperTriangle)
{
    SparseMatrix m = dense({{1, 2, 0}, {0, 3, -1}, {4, 0, 5}});
    const NVector x = vec({1, -2, 3});
    NVector y(3);
    m.getMatrixTimesVector(x, y);
    EXPECT_EQ(y[0], -3.0);
    EXPECT_EQ(y[1], -9.0);
    EXPECT_EQ(y[2], 19.0);

    NVector b = vec({1, 1, 1});
    m.getVectorMinusMatrixTimesVector(b, x, b); // in place over b
    EXPECT_EQ(b[0], 4.0);
    EXPECT_EQ(b[1], 10.0);
    EXPECT_EQ(b[2], -18.0);
    EXPECT_EQ(m.vectorDotMatrixTimesVector(x, x), -3.0 + 18.0 + 57.0);
    EXPECT_EQ(SparseMatrix().vectorDotMatrixTimesVector(NVector(), NVector()), 0.0);

    SparseMatrix t;
    m.transpose(t);
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            EXPECT_EQ(t.getElement(i, j), m.getElement(j, i));

    SparseMatrix u(3);
    SparseMatrix order(2);
    order.addToElement(0, 1, 7.0);
    order.addToElement(0, 0, 6.0);
    order.addToElement(1, 0, 9.0);
    order.addToElement(1, 1, 8.0);
    SparseMatrix upper(2);
    order.getUpperTriangular(upper);
    ASSERT_EQ(upper.row(0).size(), 2u);
    EXPECT_EQ(upper.row(0)[0].column, 1); // storage order kept
    EXPECT_EQ(upper.row(0)[1].column, 0);
    ASSERT_EQ(upper.row(1).size(), 1u);
    EXPECT_EQ(upper.row(1)[0].value, 8.0);

    NVector row, column;
    m.copyRow(2, row);
    m.copyColumn(2, column);
    EXPECT_EQ(row[0], 4.0);
    EXPECT_EQ(row[2], 5.0);
    EXPECT_EQ(column[1], -1.0);
    EXPECT_EQ(column[0], 0.0);
}

TEST(SparseMatrix, CholeskyOfSmallMatrices)
{
    SparseMatrix l;
    ASSERT_TRUE(dense({{4, 2}, {2, 3}}).choleskyFactorization(l));
    EXPECT_EQ(l.getElement(0, 0), 2.0);
    EXPECT_EQ(l.getElement(1, 0), 1.0);
    EXPECT_EQ(l.getElement(1, 1), std::sqrt(2.0));
    EXPECT_EQ(l.nnz(), 3);

    const SparseMatrix indefinite = dense({{1, 2}, {2, 1}});
    EXPECT_FALSE(indefinite.choleskyFactorization(l));
    EXPECT_EQ(l.nnz(), 2); // stopped at the second pivot, the first column kept
    EXPECT_FALSE(indefinite.isPositiveDefinite());
    EXPECT_TRUE(SparseMatrix().choleskyFactorization(l));

    // Only the upper triangle is read.
    SparseMatrix upperOnly(2);
    upperOnly.addToElement(0, 0, 4.0);
    upperOnly.addToElement(0, 1, 2.0);
    upperOnly.addToElement(1, 1, 3.0);
    ASSERT_TRUE(upperOnly.choleskyFactorization(l));
    EXPECT_EQ(l.getElement(1, 0), 1.0);
}

TEST(SparseMatrix, SymmetryAndMMatrixTests)
{
    SparseMatrix m = dense({{2, 0.5}, {0.5, 2}});
    EXPECT_TRUE(m.isSymmetric());
    // A difference just below 1e-6 passes, one of exactly 1e-6 fails.
    SparseMatrix near(2);
    near.addToElement(0, 1, 0.0);
    near.addToElement(1, 0, 0.999e-6);
    EXPECT_TRUE(near.isSymmetric());
    SparseMatrix exact(2);
    exact.addToElement(0, 1, 1e-6);
    EXPECT_FALSE(exact.isSymmetric()); // mirror absent: compared with 0.0
    SparseMatrix diag = dense({{1, 0}, {0, 5}});
    diag.addToElement(0, 0, 3.0);
    EXPECT_TRUE(diag.isSymmetric());
    SparseMatrix nan(2);
    nan.addToElement(0, 1, std::numeric_limits<double>::quiet_NaN());
    nan.addToElement(1, 0, std::numeric_limits<double>::quiet_NaN());
    EXPECT_FALSE(nan.isSymmetric());
    EXPECT_TRUE(SparseMatrix().isSymmetric());

    EXPECT_TRUE(dense({{1}}).isMMatrix());
    EXPECT_FALSE(dense({{1, -1}, {-1, 1}}).isMMatrix());
    EXPECT_TRUE(dense({{2, -1}, {-1, 1}}).isMMatrix());
    EXPECT_FALSE(dense({{2, 1}, {1, 2}}).isMMatrix());   // positive off-diagonal
    EXPECT_FALSE(dense({{1, -2}, {-2, 3}}).isMMatrix()); // negative row sum
    EXPECT_FALSE(dense({{-1}}).isMMatrix());             // diagonal not positive
    EXPECT_TRUE(dense({{1, 0}, {0, 0}}).isMMatrix());    // empty row skipped
    EXPECT_FALSE(SparseMatrix().isMMatrix());
    EXPECT_FALSE(SparseMatrix(3).isMMatrix()); // no non-empty row
}

TEST(SparseMatrix, PrincipalSubmatrixAndRemap)
{
    SparseMatrix src = dense({{1, 2, 3}, {4, 5, 6}, {7, 8, 9}});
    SparseMatrix sub;
    Remap remap;
    sub.copy(src, {1}, remap);
    ASSERT_EQ(sub.size(), 2);
    EXPECT_EQ(remap.getDomainSize(), 3);
    EXPECT_EQ(remap(0), 0);
    EXPECT_EQ(remap(1), -1);
    EXPECT_EQ(remap(2), 1);
    EXPECT_EQ(sub.getElement(0, 0), 1.0);
    EXPECT_EQ(sub.getElement(0, 1), 3.0);
    EXPECT_EQ(sub.getElement(1, 0), 7.0);
    EXPECT_EQ(sub.getElement(1, 1), 9.0);
    EXPECT_EQ(sub.nnz(), 4);
    EXPECT_EQ(sub.row(0)[0].column, 1); // entries visited from last to first

    // Unsorted removal list, first and last rows.
    SparseMatrix sub2;
    sub2.copy(src, {2, 0}, remap);
    ASSERT_EQ(sub2.size(), 1);
    EXPECT_EQ(sub2.getElement(0, 0), 5.0);
    EXPECT_EQ(remap(0), -1);
    EXPECT_EQ(remap(1), 0);
    EXPECT_EQ(remap(2), -1);
}

TEST(SparseMatrix, TextForms)
{
    EXPECT_EQ(dense({{1, 0}, {0, 1}}).toMmaString(),
              "{\n{1.0000000000,0.0000000000},\n{0.0000000000,1.0000000000}\n}");
    EXPECT_EQ(dense({{2.5}}).toMmaString(), "{\n{2.5000000000}\n}");
    EXPECT_EQ(SparseMatrix().toMmaString(), "{\n}");

    std::ostringstream os;
    os << dense({{1, -0.5}, {0, 2}});
    EXPECT_EQ(os.str(),
              "SparseMatrix{\n  1.0000000000 -0.5000000000\n  0.0000000000  2.0000000000\n}");
    std::ostringstream none;
    none << SparseMatrix();
    EXPECT_EQ(none.str(), "SparseMatrix{\n}");

    SparseMatrix lengths(4);
    lengths.addToElement(0, 0, 1.0);
    lengths.addToElement(1, 0, 1.0);
    lengths.addToElement(1, 1, 1.0);
    lengths.addToElement(2, 2, 1.0);
    testing::internal::CaptureStdout();
    lengths.dumpRowLengths();
    SparseMatrix().dumpRowLengths();
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "  total rows: 4  length 0: 1 rows  length 1: 2 rows  length 2: 1 rows"
              "  total rows: 0");

    std::ostringstream v;
    v << vec({1.5, -2}) << NVector();
    EXPECT_EQ(v.str(), "(1.5 -2 )()");
}

TEST(NVector, DotOrderAssignmentAndUpdate)
{
    // Summed from the last index down: (-1e16 + 1e16) + 1 keeps the 1, which the increasing
    // order, (1 + 1e16) - 1e16, loses.
    const NVector ones = vec({1, 1, 1});
    EXPECT_EQ(vec({1.0, 1e16, -1e16}).dot(ones), 1.0);
    EXPECT_EQ(vec({1e16, -1e16, 1.0}).dot(ones), 0.0);
    // Reads as many elements as the left operand has.
    EXPECT_EQ(vec({2}).dot(ones), 2.0);
    EXPECT_EQ(NVector().dot(ones), 0.0);

    EXPECT_EQ(vec({1, -3, 2}).infinityNorm(), 3.0);
    EXPECT_EQ(NVector().infinityNorm(), 0.0);

    NVector c = vec({1, 2, 3});
    const NVector& alias = c;
    c = alias;
    EXPECT_EQ(c.size(), 3);
    NVector d(5);
    d = c;
    EXPECT_EQ(d.size(), 3);
    EXPECT_EQ(d[2], 3.0);
    d = NVector();
    EXPECT_EQ(d.size(), 0);
    NVector zero(-2);
    EXPECT_EQ(zero.size(), 0);

    // In place over either operand.
    NVector x = vec({1, 2, 3});
    const NVector p = vec({1, 1, 1});
    x.setToVectorPlusScalarTimesVector(x, 2.0, p);
    EXPECT_EQ(x[0], 3.0);
    EXPECT_EQ(x[2], 5.0);
    NVector q = vec({1, 2, 3});
    q.setToVectorPlusScalarTimesVector(p, 0.5, q);
    EXPECT_EQ(q[1], 2.0);
    c.setToZero(2);
    EXPECT_EQ(c.size(), 2);
    EXPECT_EQ(c[1], 0.0);
}
