#include "qyGeom/MeshClosestPoint.h"

#include <cmath>
#include <limits>
#include <random>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshCoordBase.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "qyGeom/MeshCache.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyLinear::Point;
using qyLinear::Point2;

TEST(MeshCoordBase, NearestPointOfATriangleInEveryRegion)
{
    const Point a(0, 0, 0), b(2, 0, 0), c(0, 2, 0);
    struct Case
    {
        Point query;
        Point nearest;
    };
    for (const Case& k : {
             Case{{0.5, 0.5, 3}, {0.5, 0.5, 0}}, // over the face
             Case{{-1, -1, 1}, {0, 0, 0}},       // beyond a
             Case{{3, -0.5, 0}, {2, 0, 0}},      // beyond b
             Case{{-0.1, 5, -2}, {0, 2, 0}},     // beyond c
             Case{{1, -3, 0}, {1, 0, 0}},        // beyond edge ab
             Case{{-2, 1, 1}, {0, 1, 0}},        // beyond edge ca
             Case{{2, 2, 0}, {1, 1, 0}},         // beyond edge bc
             Case{{1, 1, 0}, {1, 1, 0}},         // on edge bc
         })
    {
        const Point2 st = MeshCoordBase::projectBase(a, b, c, k.query);
        EXPECT_GE(st.x, 0.0);
        EXPECT_GE(st.y, 0.0);
        EXPECT_LE(st.x + st.y, 1.0 + 1e-15);
        const Point p = MeshCoordBase::evaluateBase(a, b, c, st);
        EXPECT_NEAR(qyLinear::distance(p, k.nearest), 0.0, 1e-14) << k.query.x << " " << k.query.y;
    }
    // Degenerate triangles: a segment (c on ab) and a point.
    const Point2 st = MeshCoordBase::projectBase(a, b, Point(1, 0, 0), Point(3, 1, 0));
    EXPECT_NEAR(
        qyLinear::distance(MeshCoordBase::evaluateBase(a, b, Point(1, 0, 0), st), Point(2, 0, 0)),
        0.0, 1e-14);
    EXPECT_DOUBLE_EQ(MeshCoordBase::squaredDistance(a, a, a, Point(1, 2, 2)), 9.0);
}

TEST(MeshClosestPoint, AgreesWithAnExhaustiveSearch)
{
    const CompactMesh mesh = qyTest::makeTorus(40, 16);
    SimpleMeshCache cache;
    const auto octree = cache.getOctree(mesh, 64);
    const auto octreeTris = cache.getOctreeTris(mesh);
    MeshClosestPoint query(mesh, *octree, *octreeTris);
    std::mt19937 random(7);
    std::uniform_real_distribution<double> coordinate(-2.5, 2.5);
    const MeshVertex* v = mesh.getVertices();
    for (int i = 0; i < 300; ++i)
    {
        // Points near the surface, inside the hole and far outside the octree's box.
        const double scale = i < 100 ? 1.0 : (i < 200 ? 0.3 : 40.0);
        const Point p(coordinate(random) * scale, coordinate(random) * scale,
                      coordinate(random) * scale * 0.3);
        double best = std::numeric_limits<double>::infinity();
        for (int t = 0; t < mesh.getNumTriangles(); ++t)
        {
            const MeshTriangle& tri = mesh.getTriangles()[t];
            best = std::min(best,
                            MeshCoordBase::squaredDistance(v[tri[0]].asPoint(), v[tri[1]].asPoint(),
                                                           v[tri[2]].asPoint(), p));
        }
        MeshClosestPointResult result;
        const double d = query.compute(p, result);
        ASSERT_GE(result.triangle, 0);
        EXPECT_EQ(d, std::sqrt(best));
        EXPECT_EQ(result.distance, d);
        EXPECT_NEAR(qyLinear::distance(result.point, p), d, 1e-12);
        const MeshTriangle& tri = mesh.getTriangles()[result.triangle];
        EXPECT_EQ(MeshCoordBase::squaredDistance(v[tri[0]].asPoint(), v[tri[1]].asPoint(),
                                                 v[tri[2]].asPoint(), p),
                  best);

        // A bound below the answer finds nothing; one at or above it finds the same.
        MeshClosestPointResult bounded;
        EXPECT_EQ(query.compute(p, bounded, d * 0.99), std::numeric_limits<double>::infinity());
        EXPECT_EQ(bounded.triangle, -1);
        EXPECT_EQ(query.compute(p, bounded, d), d);
        EXPECT_EQ(bounded.triangle, result.triangle);
    }

    // The free function goes through a cache; a mesh without triangles finds nothing.
    MeshClosestPointResult result;
    EXPECT_TRUE(meshClosestPoint(mesh, cache, Point(1.25, 0, 0), result));
    EXPECT_NEAR(result.distance, 0.0, 0.05);
    const CompactMesh cloud = qyTest::testMeshes::get("vertices only");
    EXPECT_FALSE(meshClosestPoint(cloud, cache, Point(0, 0, 0), result));
    EXPECT_EQ(result.triangle, -1);
}
