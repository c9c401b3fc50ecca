#include "base/Linear.h"

#include <limits>
#include <numbers>

#include <gtest/gtest.h>

using namespace qyLinear;

TEST(Normal, IsTheUnitDirectionOrInvalidWhenThereIsNone)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    for (const Vector& v : {Vector(0, 0, 0), Vector(nan, 0, 1), Vector(1, inf, 0)})
    {
        EXPECT_FALSE(Normal(v).isValid());
        EXPECT_EQ(Normal(v).asVector(), Vector(0, 0, 0));
    }
    // Magnitudes whose square leaves the double range still have a direction.
    for (double scale : {1.0, 1e-200, 1e200})
    {
        SCOPED_TRACE(scale);
        const Normal n(Vector(3, 0, -4) * scale);
        ASSERT_TRUE(n.isValid());
        EXPECT_NEAR(n.x(), 0.6, 1e-15);
        EXPECT_NEAR(n.z(), -0.8, 1e-15);
    }
}

TEST(Angle, IsAccurateNearZeroAndPi)
{
    EXPECT_NEAR(angle(Vector(1, 0, 0), Vector(1, 1e-9, 0)), 1e-9, 1e-18);
    EXPECT_NEAR(std::numbers::pi - angle(Vector(2, 0, 0), Vector(-1, 1e-9, 0)), 1e-9, 1e-15);
    EXPECT_DOUBLE_EQ(angle(Vector(0, 0, 3), Vector(5, 0, 0)), std::numbers::pi / 2);
    EXPECT_EQ(angle(Vector(0, 0, 0), Vector(1, 0, 0)), 0.0);
}

TEST(AffineMatrix, InverseUndoesItAndTransformedNormalsStayPerpendicularToTangents)
{
    // Translation, rotation and a non-uniform scale.
    const AffineMatrix m = AffineMatrix::translation(Vector(1, -2, 3)) *
                           AffineMatrix::rotation(Vector(0, 0.6, 0.8), 0.7) *
                           AffineMatrix::scaling(2, 3, 0.25);
    AffineMatrix inv;
    ASSERT_TRUE(m.inverse(inv));
    EXPECT_TRUE((m * inv).isIdentity(1e-12) && (inv * m).isIdentity(1e-12));
    const AffineMatrix t = AffineMatrix::translation(Vector(1, 0, 0));
    EXPECT_EQ((t * AffineMatrix::scaling(2, 2, 2)).transformPoint(Point(1, 1, 1)),
              Point(3, 2, 2)); // (a * b)(x) = a(b(x))

    const Vector t1(1, 1, 0), t2(0, 1, 2);
    const Vector n = m.transformNormal(cross(t1, t2));
    const Vector m1 = m.transformVector(t1), m2 = m.transformVector(t2);
    EXPECT_NEAR(n.length(), 1.0, 1e-12);
    EXPECT_NEAR(dot(n, m1), 0.0, 1e-12);
    EXPECT_NEAR(dot(n, m2), 0.0, 1e-12);
    EXPECT_GT(dot(n, cross(m1, m2)), 0.0); // a positive determinant keeps the side

    // A singular matrix leaves the output alone and has no normal direction to give.
    const AffineMatrix singular = AffineMatrix::scaling(1, 0, 1);
    AffineMatrix out = t;
    EXPECT_FALSE(singular.inverse(out));
    EXPECT_TRUE(out.isEqual(t, 0.0));
    EXPECT_EQ(singular.transformNormal(Vector(0, 1, 0)), Vector(0, 0, 0));
}

TEST(Range, AnEmptyRangeContainsAndIntersectsNothing)
{
    Range1d r;
    r.extend(std::numeric_limits<double>::quiet_NaN());
    EXPECT_TRUE(r.isEmpty());
    EXPECT_FALSE(r.contains(0.5) || r.intersects(Range1d(0, 2)) || Range1d(0, 2).intersects(r));
    const Range3d box(Range1d(-1, 1), Range1d(2, 5), Range1d(0, 3));
    const Range3d flat(Range1d(0, 1), Range1d(), Range1d(0, 1)); // one empty axis
    EXPECT_TRUE(flat.isEmpty());
    EXPECT_FALSE(flat.intersects(box) || box.intersects(flat));
}
