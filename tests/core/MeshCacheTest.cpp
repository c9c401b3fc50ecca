#include "qyGeom/MeshCache.h"

#include <limits>
#include <memory>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "model/Remap.h"
#include "qyGeom/intersectRayTriangle.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/meshRayIntersect.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshModification;
using qyGeom::SimpleMeshCache;

namespace
{

int countOf(const std::string& text, const std::string& word)
{
    int n = 0;
    for (std::size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1))
        ++n;
    return n;
}

void touch(CompactMesh& mesh)
{
    MeshModification record(&mesh, MeshModification::AttributesChanged);
    mesh.modified(record);
}

} // namespace

TEST(MeshCache, BuildsOnceAndSharesUntilModified)
{
    CompactMesh mesh = qyTest::makeGrid(4, 3);
    SimpleMeshCache cache;
    qyTest::DebugCapture capture;

    // The boundary request builds and keeps both adjacency kinds on the way.
    auto boundaries = cache.getBoundaries(mesh);
    ASSERT_TRUE(boundaries);
    EXPECT_EQ(boundaries->size(), 1);
    auto adjTris = cache.getAdjTris(mesh);
    auto adjVertices = cache.getAdjVertices(mesh);
    EXPECT_EQ(cache.getBoundaries(mesh), boundaries);
    EXPECT_EQ(cache.getAdjTris(mesh), adjTris);
    EXPECT_EQ(cache.getAdjVertices(mesh), adjVertices);
    EXPECT_EQ(countOf(capture.text(), "MeshAdjTris:"), 1);
    EXPECT_EQ(countOf(capture.text(), "MeshAdjVertices:"), 1);

    // The octree kinds share one vertex octree; its depth is fixed by the first request.
    auto octree = cache.getOctree(mesh, 3);
    auto octreeTris = cache.getOctreeTris(mesh);
    auto octreeLines = cache.getOctreeLines(mesh);
    ASSERT_TRUE(octree && octreeTris && octreeLines);
    EXPECT_EQ(cache.getOctree(mesh, 9), octree);
    EXPECT_EQ(cache.getOctreeTris(mesh), octreeTris);
    EXPECT_EQ(countOf(capture.text(), "OctreeTris:"), 1);
    EXPECT_EQ(octreeTris->getData().getNumSets(), octree->getNumVoxels());

    // Any modification drops every kind; handles held outside stay valid.
    touch(mesh);
    EXPECT_NE(cache.getAdjTris(mesh), adjTris);
    EXPECT_NE(cache.getAdjVertices(mesh), adjVertices);
    EXPECT_NE(cache.getBoundaries(mesh), boundaries);
    EXPECT_NE(cache.getOctree(mesh, -1), octree);
    EXPECT_NE(cache.getOctreeTris(mesh), octreeTris);
    EXPECT_NE(cache.getOctreeLines(mesh), octreeLines);
    EXPECT_EQ(countOf(capture.text(), "MeshAdjTris:"), 2);
    EXPECT_EQ(adjTris->getRefCount(), 1);
    EXPECT_EQ(adjTris->numTris(6), 6);
    EXPECT_EQ(boundaries->getLength(0), 14);

    // A rebuilt structure reflects the changed mesh.
    mesh.resizeTriangleArray(2);
    touch(mesh);
    EXPECT_EQ(cache.getAdjTris(mesh)->numTris(6), 2);
}

TEST(MeshCache, ServesOneRayTracerPerMeshUntilItsPositionsMove)
{
    CompactMesh mesh = qyTest::makeCube(); // [-1, 1]^3
    SimpleMeshCache cache;
    qyTest::DebugCapture capture;
    const qyGeom::Ray down(qyLinear::PointFlt(0.25f, 0.25f, 5.0f), qyLinear::Vector(0, 0, -1));
    qyGeom::MeshRayHit hit;

    auto tracer = cache.getRayTracer(mesh);
    ASSERT_TRUE(tracer);
    EXPECT_EQ(cache.getRayTracer(mesh), tracer);
    EXPECT_EQ(countOf(capture.text(), "RayTracer:"), 1);
    ASSERT_TRUE(tracer->intersect(down, hit));
    EXPECT_EQ(hit.t, 4);

    // The tracer keeps its own corners: after the cube moves up by one, the cache builds a
    // new one that sees it there, while the handle held here still answers for the old cube.
    float* xyz = mesh.getVerticesRaw();
    for (int i = 0; i < mesh.getNumVertices(); ++i)
        xyz[3 * i + 2] += 1.0f;
    MeshModification record(&mesh, MeshModification::PositionsChanged);
    mesh.modified(record);
    auto moved = cache.getRayTracer(mesh);
    ASSERT_TRUE(moved);
    EXPECT_NE(moved, tracer);
    EXPECT_EQ(countOf(capture.text(), "RayTracer:"), 2);
    ASSERT_TRUE(moved->intersect(down, hit));
    EXPECT_EQ(hit.t, 3);
    EXPECT_EQ(tracer->getRefCount(), 1);
    ASSERT_TRUE(tracer->intersect(down, hit));
    EXPECT_EQ(hit.t, 4);
}

TEST(MeshCache, MeshesAreKeptApartAndDestructionDropsTheirEntries)
{
    auto first = std::make_unique<CompactMesh>(qyTest::makeCube());
    CompactMesh second = qyTest::makeGrid(2, 2);
    SimpleMeshCache cache;

    auto firstBoundaries = cache.getBoundaries(*first);
    auto secondBoundaries = cache.getBoundaries(second);
    EXPECT_EQ(firstBoundaries->size(), 0);
    EXPECT_EQ(secondBoundaries->size(), 1);
    EXPECT_EQ(cache.getNumMeshes(), 2);

    // Modifying one mesh leaves the other's entry alone.
    touch(second);
    EXPECT_EQ(cache.getBoundaries(*first), firstBoundaries);
    EXPECT_EQ(cache.getNumMeshes(), 1);

    first.reset();
    EXPECT_EQ(cache.getNumMeshes(), 0);
    EXPECT_EQ(firstBoundaries->size(), 0); // still held here

    cache.getAdjTris(second);
    cache.clear();
    EXPECT_EQ(cache.getNumMeshes(), 0);
    touch(second); // no subscription is left behind by clear()
}

TEST(MeshCache, CacheMayDieBeforeItsMeshes)
{
    CompactMesh mesh = qyTest::makeCube();
    qy::Reference<qyGeom::MeshAdjTris> kept;
    {
        SimpleMeshCache cache;
        kept = cache.getAdjTris(mesh);
        cache.getOctreeTris(mesh);
    }
    touch(mesh); // the dead cache's callbacks must be gone
    EXPECT_EQ(kept->numTris(0), 6);
}

// Hostile meshes: indices out of range, repeated corners, NaN and infinite coordinates. Every
// builder must finish without touching memory it does not own (the sanitizer builds check).
TEST(MeshCache, BuildsEveryKindFromHostileMeshes)
{
    std::mt19937 random(7);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    for (int round = 0; round < 40; ++round)
    {
        // The first round is large enough for the builders' parallel paths.
        const int numVerts = round == 0 ? 6000 : 1 + int(random() % 60);
        const int numTris = round == 0 ? 9000 : int(random() % 120);
        std::vector<float> xyz(3 * std::size_t(numVerts));
        for (float& c : xyz)
        {
            const unsigned pick = random() % 20;
            c = pick == 0 ? nan : pick == 1 ? inf : float(random() % 5) - 2.0f;
        }
        std::vector<int> tris(3 * std::size_t(numTris));
        for (int& i : tris)
            i = int(random() % unsigned(numVerts + 4)) - 2;
        CompactMesh mesh = qyTest::makeMesh(xyz, tris);
        mesh.resizeLineArray(numTris / 2);
        for (int i = 0; i < mesh.getNumLines(); ++i)
            mesh.getLines()[i] = {{tris[std::size_t(2 * i)], tris[std::size_t(2 * i + 1)]}};

        SimpleMeshCache cache;
        EXPECT_GE(cache.getBoundaries(mesh)->size(), 0);
        EXPECT_TRUE(cache.getOctreeTris(mesh));
        EXPECT_TRUE(cache.getOctreeLines(mesh));
        EXPECT_LE(cache.getRayTracer(mesh)->getNumTriangles(), numTris);
        qyGeom::MeshTriAdjTris triAdjTris;
        qyGeom::meshTriAdjTris(mesh, triAdjTris);
        EXPECT_GE(qyGeom::meshComponents(mesh, *cache.getAdjTris(mesh), nullptr), 0);
        qyGeom::Remap remap;
        qyGeom::meshCompact(mesh, qyTest::quietProgress(), remap);
        EXPECT_LE(mesh.getNumVertices(), numVerts);
    }
}
