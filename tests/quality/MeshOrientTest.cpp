#include "qyGeom/MeshOrient.h"

#include <gtest/gtest.h>

#include "qyGeom/meshAdjacency.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

qyGeom::MeshAdjTris adjacency(const CompactMesh& mesh)
{
    qyGeom::MeshAdjTris adj;
    qyGeom::meshAdjTris(mesh, adj);
    return adj;
}

std::vector<int> triangles(const CompactMesh& mesh)
{
    return {mesh.getTrianglesRaw(), mesh.getTrianglesRaw() + 3 * mesh.getNumTriangles()};
}

TEST(MeshOrient, FlipsAgainstTheLowestTriangleOfEachRegionAndNotifiesOnce)
{
    CompactMesh empty;
    EXPECT_TRUE(qyGeom::meshOriented(empty, adjacency(empty)));
    EXPECT_TRUE(qyGeom::meshMakeOriented(empty, adjacency(empty)));

    // Two triangles traversing their shared edge 1-2 the same way.
    CompactMesh pair = qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}, {0, 1, 2, 1, 2, 3});
    qyGeom::MeshAdjTris adj = adjacency(pair);
    EXPECT_FALSE(qyGeom::meshOriented(pair, adj));
    int notifications = 0;
    qyRTB::ScopedConnection c = pair.getModifiedSignal().connect(
        [&](const qyRTB::EntityModification&) { ++notifications; });
    EXPECT_TRUE(qyGeom::meshMakeOriented(pair, adj));
    EXPECT_EQ(triangles(pair), (std::vector<int>{0, 1, 2, 1, 3, 2}));
    EXPECT_EQ(notifications, 1);
    EXPECT_TRUE(qyGeom::meshMakeOriented(pair, adj));
    EXPECT_EQ(notifications, 1);

    // A sphere with every other triangle reversed comes back as it was.
    CompactMesh sphere = qyTest::makeIcosphere(2);
    const std::vector<int> original = triangles(sphere);
    int* t = sphere.getTrianglesRaw();
    for (int i = 1; i < sphere.getNumTriangles(); i += 2)
        std::swap(t[3 * i + 1], t[3 * i + 2]);
    qyGeom::MeshAdjTris sphereAdj = adjacency(sphere);
    EXPECT_FALSE(qyGeom::meshOriented(sphere, sphereAdj));
    qyGeom::MeshOrient orient(sphere, sphereAdj);
    orient.orient();
    EXPECT_TRUE(orient.isOriented() && orient.isOrientable());
    EXPECT_EQ(triangles(sphere), original);
}

TEST(MeshOrient, AMoebiusBandCannotBeOriented)
{
    // A strip of 6 quads whose ends are glued with a half twist.
    const int n = 6;
    std::vector<float> xyz;
    for (int i = 0; i < n; ++i)
        for (int side = 0; side < 2; ++side)
            xyz.insert(xyz.end(), {float(i), float(side), 0});
    std::vector<int> tris;
    for (int i = 0; i < n; ++i)
    {
        int a = 2 * i, b = 2 * i + 1, c = 2 * ((i + 1) % n), d = 2 * ((i + 1) % n) + 1;
        if (i == n - 1)
            std::swap(c, d);
        tris.insert(tris.end(), {a, c, d, a, d, b});
    }
    CompactMesh band = qyTest::makeMesh(xyz, tris);
    qyGeom::MeshAdjTris adj = adjacency(band);
    qyGeom::MeshOrient orient(band, adj);
    EXPECT_FALSE(orient.isOriented());
    orient.orient();
    EXPECT_FALSE(orient.isOriented());
    EXPECT_FALSE(orient.isOrientable());
    EXPECT_GT(orient.getAffectedTriangles().size(), 0);
}

} // namespace
