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

TEST(Plane, IsAboveNeedsMoreThanTheTolerance)
{
    const Plane plane(Point(1, 1, 1), Normal(0, 0, 5));
    EXPECT_TRUE(isAbove(plane, Point(7, -3, 1 + 2 * epsilonTol)));
    EXPECT_FALSE(isAbove(plane, Point(7, -3, 1 + 0.5 * epsilonTol)));
    EXPECT_FALSE(isAbove(plane, Point(0, 0, 0)));
}

namespace
{
// Translation, rotation and a non-uniform scale.
const AffineMatrix sample = AffineMatrix::translation(Vector(1, -2, 3)) *
                            AffineMatrix::rotation(Vector(0, 0.6, 0.8), 0.7) *
                            AffineMatrix::scaling(2, 3, 0.25);
} // namespace

TEST(AffineMatrix, InverseAndCompositionAgree)
{
    AffineMatrix inv;
    ASSERT_TRUE(sample.inverse(inv));
    EXPECT_TRUE((sample * inv).isIdentity(1e-12));
    EXPECT_TRUE((inv * sample).isIdentity(1e-12));
    const Point p(0.5, -7, 11);
    EXPECT_NEAR(distance(inv.transformPoint(sample.transformPoint(p)), p), 0.0, 1e-12);
    // (a * b)(x) = a(b(x))
    const AffineMatrix t = AffineMatrix::translation(Vector(1, 0, 0));
    const AffineMatrix s = AffineMatrix::scaling(2, 2, 2);
    EXPECT_EQ((t * s).transformPoint(Point(1, 1, 1)), Point(3, 2, 2));
    EXPECT_EQ((s * t).transformPoint(Point(1, 1, 1)), Point(4, 2, 2));

    const AffineMatrix singular = AffineMatrix::scaling(1, 0, 1);
    AffineMatrix out = t;
    EXPECT_FALSE(singular.inverse(out));
    EXPECT_TRUE(out.isEqual(t, 0.0));
    EXPECT_EQ(singular.transformNormal(Vector(0, 1, 0)), Vector(0, 0, 0));
}

TEST(AffineMatrix, TransformedNormalsStayPerpendicularToTransformedTangents)
{
    const Vector t1(1, 1, 0), t2(0, 1, 2);
    const Vector n = sample.transformNormal(cross(t1, t2));
    const Vector m1 = sample.transformVector(t1), m2 = sample.transformVector(t2);
    EXPECT_NEAR(n.length(), 1.0, 1e-12);
    EXPECT_NEAR(dot(n, m1), 0.0, 1e-12);
    EXPECT_NEAR(dot(n, m2), 0.0, 1e-12);
    EXPECT_GT(dot(n, cross(m1, m2)), 0.0); // a positive determinant keeps the side
}

TEST(AffineMatrix, IsIdentityWithinTolerance)
{
    AffineMatrixFlt m;
    EXPECT_TRUE(m.isIdentity(0.0f));
    m.linear(1, 1) = 1.0f + 0.5f * epsilonTolFlt;
    m.translationPart(2) = -0.5f * epsilonTolFlt;
    EXPECT_TRUE(m.isIdentity(epsilonTolFlt));
    m.linear(0, 2) = 10 * epsilonTolFlt;
    EXPECT_FALSE(m.isIdentity(epsilonTolFlt));
}

TEST(Range1d, EmptyUntilExtendedThenCoversEveryValue)
{
    Range1d r;
    r.extend(std::numeric_limits<double>::quiet_NaN());
    EXPECT_TRUE(r.isEmpty());
    EXPECT_FALSE(r.contains(0.5));
    EXPECT_FALSE(r.intersects(Range1d(0, 2)));
    r.extend(3.0);
    r.extend(-1.0);
    r.extend(Range1d(5, 4)); // empty: no effect
    EXPECT_EQ(r.lo(), -1.0);
    EXPECT_EQ(r.hi(), 3.0);
    EXPECT_TRUE(r.contains(-1.0) && r.contains(3.0) && !r.contains(3.5));
    EXPECT_TRUE(r.intersects(Range1d(3, 8)));
    EXPECT_FALSE(r.intersects(Range1d()));
}

TEST(Range3d, ContainsExactlyTheBoxOfItsPoints)
{
    Range3d box;
    EXPECT_FALSE(box.contains(Point(0, 0, 0)));
    box.extend(Point(1, 2, 3));
    box.extend(Point(-1, 5, 0));
    const Range3d flat(Range1d(0, 1), Range1d(), Range1d(0, 1)); // one empty axis
    EXPECT_TRUE(flat.isEmpty());
    EXPECT_FALSE(flat.intersects(box));
    box.extend(flat);
    EXPECT_EQ(box.minPt(), Point(-1, 2, 0));
    EXPECT_EQ(box.maxPt(), Point(1, 5, 3));
    EXPECT_TRUE(box.contains(Point(1, 2, 0)));
    EXPECT_FALSE(box.contains(Point(0, 5.5, 1)));
}
