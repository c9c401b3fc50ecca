#include "qyGeom/intersectRayTriangle.h"

#include <limits>

#include <gtest/gtest.h>

namespace
{

using qyLinear::PointFlt;
using qyLinear::Vector;

// The unit right triangle in z = 0, counter-clockwise seen from +z.
const float p0[3] = {0, 0, 0}, p1[3] = {1, 0, 0}, p2[3] = {0, 1, 0};

// Restores the back-face cull distance, which is process-wide, whatever the test does.
struct CullDistanceGuard
{
    double saved = qyGeom::getBackfaceCullDistance();
    ~CullDistanceGuard() { qyGeom::setBackfaceCullDistance(saved); }
};

TEST(IntersectRayTriangle, AcceptsFrontHitsAtAnyTAndBackHitsFromTheCullDistanceOn)
{
    CullDistanceGuard guard;
    double t = 0, u = 0, v = 0;

    // Seen from +z going down, the triangle shows its front, 2 units behind the origin.
    const double down[3] = {0, 0, -1};
    const float below[3] = {0.25f, 0.5f, -2};
    EXPECT_TRUE(qyGeom::intersectRayTriangle(down, below, p0, p1, p2, t, u, v));
    EXPECT_DOUBLE_EQ(t, -2);
    EXPECT_DOUBLE_EQ(u, 0.25);
    EXPECT_DOUBLE_EQ(v, 0.5);
    EXPECT_FALSE(qyGeom::intersectRayTriangle(Vector(0, 0, -1), PointFlt(0.25f, 0.5f, -2),
                                              PointFlt(0, 0, 0), PointFlt(1, 0, 0),
                                              PointFlt(0, 1, 0)));
    EXPECT_TRUE(qyGeom::intersectRayTriangleCull(down, below, p0, p1, p2, t, u, v));
    EXPECT_DOUBLE_EQ(t, -2);

    // Going up from below, the ray meets the back face at t = 5 (the direction's length
    // scales t: half the direction, twice the t).
    const double up[3] = {0, 0, 0.5};
    const float under[3] = {0.25f, 0.5f, -2.5f};
    EXPECT_TRUE(qyGeom::intersectRayTriangle(up, under, p0, p1, p2, t, u, v));
    EXPECT_DOUBLE_EQ(t, 5);
    EXPECT_DOUBLE_EQ(u, 0.25);
    EXPECT_DOUBLE_EQ(v, 0.5);
    EXPECT_FALSE(qyGeom::intersectRayTriangleCull(up, under, p0, p1, p2, t, u, v));
    EXPECT_TRUE(qyGeom::intersectRayTriangle(Vector(0, 0, 0.5), PointFlt(0.25f, 0.5f, -2.5f),
                                             PointFlt(0, 0, 0), PointFlt(1, 0, 0),
                                             PointFlt(0, 1, 0)));

    // A back face behind the origin is rejected, a front face there is not: the asymmetry.
    const float above[3] = {0.25f, 0.5f, 3};
    EXPECT_FALSE(qyGeom::intersectRayTriangle(up, above, p0, p1, p2, t, u, v));
    EXPECT_TRUE(qyGeom::intersectRayTriangle(down, below, p0, p1, p2, t, u, v));

    // Back faces nearer than the cull distance go; front faces do not care.
    qyGeom::setBackfaceCullDistance(10);
    EXPECT_FALSE(qyGeom::intersectRayTriangle(up, under, p0, p1, p2, t, u, v));
    const float over[3] = {0.25f, 0.5f, 1};
    EXPECT_TRUE(qyGeom::intersectRayTriangle(down, over, p0, p1, p2, t, u, v));
    EXPECT_DOUBLE_EQ(t, 1);
    qyGeom::setBackfaceCullDistance(5);
    EXPECT_TRUE(qyGeom::intersectRayTriangle(up, under, p0, p1, p2, t, u, v));
}

TEST(IntersectRayTriangle, ARayThroughASharedEdgeHitsBothTriangles)
{
    // The unit square split along its diagonal from (1, 0) to (0, 1).
    // Directions and origins are binary fractions, so the hit lands exactly on the diagonal.
    const float q3[3] = {1, 1, 0};
    const double straight[3] = {0, 0, -1}, slanted[3] = {0.125, -0.25, -2};
    for (const double* dir : {straight, slanted})
    {
        const float orig[3] = {float(0.5 - dir[0]), float(0.5 - dir[1]), float(-dir[2])};
        double t1, u1, v1, t2, u2, v2;
        ASSERT_TRUE(qyGeom::intersectRayTriangle(dir, orig, p0, p1, p2, t1, u1, v1));
        ASSERT_TRUE(qyGeom::intersectRayTriangle(dir, orig, p1, q3, p2, t2, u2, v2));
        EXPECT_EQ(u1 + v1, 1);
        EXPECT_TRUE(u2 == 0 || v2 == 0);
        EXPECT_EQ(t1, 1);
        EXPECT_EQ(t2, 1);
    }
    // Exactly on a corner and along an edge, with exact arithmetic: bounds are inclusive.
    const double down[3] = {0, 0, -1};
    const float corner[3] = {1, 0, 1}, edge[3] = {0.5f, 0, 1};
    double t, u, v;
    EXPECT_TRUE(qyGeom::intersectRayTriangle(down, corner, p0, p1, p2, t, u, v));
    EXPECT_EQ(u, 1);
    EXPECT_TRUE(qyGeom::intersectRayTriangleCull(down, edge, p0, p1, p2, t, u, v));
    EXPECT_EQ(v, 0);
    const float outside[3] = {0.5f, -1e-3f, 1};
    EXPECT_FALSE(qyGeom::intersectRayTriangle(down, outside, p0, p1, p2, t, u, v));
}

TEST(IntersectRayTriangle, ParallelRaysAndDegenerateTrianglesNeverHit)
{
    double t, u, v;
    const float inPlane[3] = {-1, 0.25f, 0}, abovePlane[3] = {-1, 0.25f, 1};
    const float line[3] = {2, 0, 0}; // p0, p1 and this corner on one line
    const double along[3] = {1, 0, 0}, nearlyAlong[3] = {1, 1e-9, 1e-9};
    for (const double* dir : {along, nearlyAlong})
        for (const float* orig : {inPlane, abovePlane})
        {
            EXPECT_FALSE(qyGeom::intersectRayTriangle(dir, orig, p0, p1, p2, t, u, v));
            EXPECT_FALSE(qyGeom::intersectRayTriangleCull(dir, orig, p0, p1, p2, t, u, v));
        }
    const double down[3] = {0, 0, -1};
    const float orig[3] = {0.5f, 0, 1};
    EXPECT_FALSE(qyGeom::intersectRayTriangle(down, orig, p0, p1, line, t, u, v));
    EXPECT_FALSE(qyGeom::intersectRayTriangle(down, orig, p0, p0, p0, t, u, v));
}

TEST(Ray, SlabIndicesFollowTheSignOfTheInverseNegativeZeroIncluded)
{
    const qyGeom::Ray ray(PointFlt(0, 0, 0), Vector(-1, 0, 2));
    EXPECT_EQ(ray.nearIndex(0), 3);
    EXPECT_EQ(ray.farIndex(0), 0);
    EXPECT_EQ(ray.nearIndex(1), 1);
    EXPECT_EQ(ray.farIndex(1), 4);
    EXPECT_EQ(ray.nearIndex(2), 2);
    EXPECT_EQ(ray.farIndex(2), 5);
    EXPECT_EQ(ray.inverseDirection()[1], std::numeric_limits<float>::infinity());
    EXPECT_EQ(ray.inverseDirection()[2], 0.5f);
    EXPECT_EQ(ray.farDistance(), 3.4028234663852886e38);

    const qyGeom::Ray negZero(PointFlt(0, 0, 0), Vector(-0.0, 1, -3));
    EXPECT_EQ(negZero.inverseDirection()[0], -std::numeric_limits<float>::infinity());
    EXPECT_EQ(negZero.nearIndex(0), 3);
    EXPECT_EQ(negZero.farIndex(0), 0);
    EXPECT_EQ(negZero.nearIndex(1), 1);
    EXPECT_EQ(negZero.nearIndex(2), 5);
    EXPECT_EQ(negZero.farIndex(2), 2);
}

TEST(Ray, MeetsBoxesAheadWithinItsFarDistanceIncludingFacesItRunsAlong)
{
    // Along +x from the origin; boxes as (min x, min y, min z, max x, max y, max z).
    qyGeom::Ray ray(PointFlt(0, 0, 0), Vector(1, 0, 0));
    const float ahead[6] = {1, -1, -1, 2, 1, 1};
    const float touching[6] = {1, 0, 0, 2, 1, 1}; // the ray runs along an edge of the box
    const float aside[6] = {1, 0.5f, -1, 2, 1, 1};
    const float behind[6] = {-3, -1, -1, -2, 1, 1};
    const float around[6] = {-1, -1, -1, 1, 1, 1};
    EXPECT_TRUE(ray.intersects(ahead));
    EXPECT_TRUE(ray.intersects(touching));
    EXPECT_FALSE(ray.intersects(aside));
    EXPECT_FALSE(ray.intersects(behind));
    EXPECT_TRUE(ray.intersects(around));
    ray.setFarDistance(0.5);
    EXPECT_FALSE(ray.intersects(ahead));

    // Going the other way with a -0.0 y component: the box behind is now ahead.
    const qyGeom::Ray back(PointFlt(0, 0, 0), Vector(-1, -0.0, 0));
    EXPECT_TRUE(back.intersects(behind));
    EXPECT_FALSE(back.intersects(ahead));
}

TEST(Ray, KeepsTheNearestTriangleHit)
{
    qyGeom::Ray ray(PointFlt(0.25f, 0.25f, 5), Vector(0, 0, -1));
    const float a0[3] = {0, 0, 1}, a1[3] = {1, 0, 1}, a2[3] = {0, 1, 1};
    EXPECT_TRUE(ray.intersectTriangle(p0, p1, p2));
    EXPECT_DOUBLE_EQ(ray.triIntersectionRayParam(), 5);
    EXPECT_TRUE(ray.intersectTriangle(a0, a1, a2));
    EXPECT_DOUBLE_EQ(ray.triIntersectionRayParam(), 4);
    EXPECT_FALSE(ray.intersectTriangle(p0, p1, p2)); // farther than the hit kept
    EXPECT_DOUBLE_EQ(ray.triIntersectionBaryU(), 0.25);
    EXPECT_DOUBLE_EQ(ray.triIntersectionBaryV(), 0.25);
}

TEST(CheckRayTriangle, TheLineHitsThroughTheInsideAnEdgeOrACornerButNotInThePlane)
{
    const double p[3] = {0.25, 0.25, 1}, q[3] = {0.25, 0.25, -1};
    EXPECT_TRUE(qyGeom::checkRayTriangle(p, q, p0, p1, p2));
    EXPECT_TRUE(qyGeom::checkRayTriangle(q, p, p0, p1, p2)); // a line, not a ray
    EXPECT_TRUE(qyGeom::checkRayTriangle(p, q, p0, p2, p1)); // either winding
    const double e[3] = {0.5, 0, 1}, e2[3] = {0.5, 0, -1};
    EXPECT_TRUE(qyGeom::checkRayTriangle(e, e2, p0, p1, p2));
    const double c[3] = {1, 0, 1}, c2[3] = {1, 0, -1};
    EXPECT_TRUE(qyGeom::checkRayTriangle(c, c2, p0, p1, p2));
    const double o[3] = {1, 1, 1}, o2[3] = {1, 1, -1};
    EXPECT_FALSE(qyGeom::checkRayTriangle(o, o2, p0, p1, p2));
    const double s[3] = {-1, 0.25, 0}, s2[3] = {2, 0.25, 0};
    EXPECT_FALSE(qyGeom::checkRayTriangle(s, s2, p0, p1, p2)); // in the triangle's plane
}

} // namespace
