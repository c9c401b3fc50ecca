#include "qyGeom/meshTopology.h"

#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "qyGeom/MeshCache.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshTopology;

namespace
{

// Copies of `mesh` side by side in one mesh, the copies' vertices numbered after each other.
CompactMesh copies(const CompactMesh& mesh, int count)
{
    std::vector<float> xyz;
    std::vector<int> tris;
    const int nv = mesh.getNumVertices();
    for (int c = 0; c < count; ++c)
    {
        for (int i = 0; i < 3 * nv; ++i)
            xyz.push_back(mesh.getVerticesRaw()[i] + (i % 3 == 0 ? 3.0f * float(c) : 0.0f));
        for (int i = 0; i < 3 * mesh.getNumTriangles(); ++i)
            tris.push_back(mesh.getTrianglesRaw()[i] + c * nv);
    }
    return qyTest::makeMesh(xyz, tris);
}

MeshTopology topologyOf(const CompactMesh& mesh)
{
    qyGeom::SimpleMeshCache cache;
    return *cache.getTopology(mesh);
}

} // namespace

TEST(MeshTopology, SurfacesPiecesAndWhatIsNotCounted)
{
    struct Case
    {
        const char* name;
        CompactMesh mesh;
        int pieces;
        long long edges, euler;
        int boundaryLoops;
        long long genus; // of the whole mesh
    };
    const std::vector<Case> cases = {
        {"cube", qyTest::makeCube(), 1, 18, 2, 0, 0},
        {"torus", qyTest::makeTorus(12, 8), 1, 288, 0, 0, 1},
        {"hemisphere", qyTest::makeHemisphere(4, 12), 1, 132, 1, 1, 0},
        // Eight separate spheres: eight pieces of genus 0, not a genus of -7.
        {"eight cubes", copies(qyTest::makeCube(), 8), 8, 144, 16, 0, 0},
        {"non-manifold edge", qyTest::testMeshes::get("non-manifold edge"), 1, 7, 1, 2, -1},
        // The loops follow the winding, which a band with a half twist cannot keep consistent:
        // its one rim is traced as six pieces. No genus either way.
        {"Moebius band", qyTest::makeMoebiusBand(), 1, 24, 0, 6, -1},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const MeshTopology t = topologyOf(c.mesh);
        EXPECT_EQ(int(t.pieces.size()), c.pieces);
        EXPECT_EQ(t.edges, c.edges);
        EXPECT_EQ(t.euler, c.euler);
        EXPECT_EQ(t.boundaryLoops, c.boundaryLoops);
        EXPECT_EQ(t.genus(), c.genus);
        EXPECT_EQ(t.referencedVertices, c.mesh.getNumVertices());
        EXPECT_EQ(t.unreferencedVertices, 0);
    }

    // Unused vertices and bad triangles are counted apart and change no other number: the
    // cube with a vertex no triangle uses, a repeated-corner triangle over a fresh vertex and
    // two triangles naming vertices that do not exist.
    CompactMesh cube = qyTest::makeCube();
    std::vector<float> xyz(cube.getVerticesRaw(), cube.getVerticesRaw() + 24);
    xyz.insert(xyz.end(), {5, 5, 5, 6, 6, 6});
    std::vector<int> tris(cube.getTrianglesRaw(), cube.getTrianglesRaw() + 36);
    tris.insert(tris.end(), {0, 9, 9, 0, 1, 10, -1, 2, 3});
    const MeshTopology t = topologyOf(qyTest::makeMesh(xyz, tris));
    EXPECT_EQ(t.vertices, 10);
    EXPECT_EQ(t.referencedVertices, 8);
    EXPECT_EQ(t.unreferencedVertices, 2);
    EXPECT_EQ(t.degenerateTriangles, 1);
    EXPECT_EQ(t.invalidTriangles, 2);
    EXPECT_EQ(t.edges, 18);
    EXPECT_EQ(t.euler, 2);
    EXPECT_EQ(t.genus(), 0);
    EXPECT_EQ(t.vertexPiece[8], -1);
    EXPECT_EQ(t.trianglePiece[12], -1);
    EXPECT_EQ(t.trianglePiece[0], 0);

    // Two pieces of different shape, numbered by their lowest triangle; the open one has the
    // loop.
    const CompactMesh two = qyTest::testMeshes::get("two components");
    const MeshTopology p = topologyOf(two);
    ASSERT_EQ(p.pieces.size(), 2u);
    EXPECT_EQ(p.trianglePiece, (std::vector<int>{0, 1}));
    EXPECT_EQ(p.pieces[0].boundaryLoops + p.pieces[1].boundaryLoops, 2);
    EXPECT_EQ(p.pieces[0].genus, 0);
}

TEST(MeshEdges, UsesInOrderAndTheHalfEdgesOfEachTriangle)
{
    // Triangles 0 and 1 share edge 0-2; triangle 2 adds a third use of it; triangle 3 repeats
    // a corner (its half-edge 1-1 is on no edge, the other two both run along 0-1).
    const CompactMesh mesh = qyTest::makeMesh({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0, 0, 0, 1},
                                              {0, 1, 2, 0, 2, 3, 2, 0, 4, 0, 1, 1});
    qyGeom::MeshEdges edges;
    qyGeom::meshEdges(mesh, edges);
    ASSERT_EQ(edges.size(), 7); // 0-1, 0-2, 0-3, 0-4, 1-2, 2-3, 2-4
    const int e02 = edges.find(2, 0);
    ASSERT_GE(e02, 0);
    EXPECT_EQ(edges.vertex0(e02), 0);
    EXPECT_EQ(edges.vertex1(e02), 2);
    EXPECT_EQ(std::vector<int>(edges.uses(e02), edges.uses(e02) + edges.numUses(e02)),
              (std::vector<int>{2, 3, 6}));
    const int e01 = edges.find(0, 1);
    EXPECT_EQ(std::vector<int>(edges.uses(e01), edges.uses(e01) + edges.numUses(e01)),
              (std::vector<int>{0, 9, 11}));
    EXPECT_EQ(edges.edgeOf(10), -1); // 1 -> 1
    EXPECT_EQ(edges.edgeOf(6), e02);
    EXPECT_EQ(edges.edgeOf(7), edges.find(0, 4));
    EXPECT_EQ(edges.find(1, 3), -1);
    EXPECT_EQ(edges.numNonManifold(), 2);
    for (int e = 1; e < edges.size(); ++e)
        EXPECT_LT(std::make_pair(edges.vertex0(e - 1), edges.vertex1(e - 1)),
                  std::make_pair(edges.vertex0(e), edges.vertex1(e)));
}

TEST(MeshEdges, PolygonsNumberTheirHalfEdgesByCorner)
{
    // A quad 0-1-2-3 and a triangle 1-4-2 share edge 1-2; the pentagon lists vertex 9, which is
    // outside the 5 vertices, so it gives nothing; the last face repeats vertex 4 in place.
    const std::vector<int> start{0, 4, 7, 12, 15};
    const std::vector<int> corners{0, 1, 2, 3, 1, 4, 2, 0, 1, 9, 2, 3, 4, 4, 3};
    qyGeom::MeshEdges edges;
    qyGeom::polygonEdges(5, 4, start.data(), corners.data(), edges);
    ASSERT_EQ(edges.size(), 7); // 0-1, 0-3, 1-2, 1-4, 2-3, 2-4, 3-4
    const int e12 = edges.find(2, 1);
    EXPECT_EQ(std::vector<int>(edges.uses(e12), edges.uses(e12) + edges.numUses(e12)),
              (std::vector<int>{1, 6}));
    const int e34 = edges.find(3, 4);
    EXPECT_EQ(std::vector<int>(edges.uses(e34), edges.uses(e34) + edges.numUses(e34)),
              (std::vector<int>{13, 14}));
    for (int c = 7; c < 12; ++c)
        EXPECT_EQ(edges.edgeOf(c), -1);
    EXPECT_EQ(edges.edgeOf(12), -1); // 4 -> 4
    EXPECT_EQ(edges.numBoundary(), 5);
    EXPECT_EQ(edges.numNonManifold(), 0);

    // The triangle form is the polygon form with three corners a face.
    const CompactMesh mesh =
        qyTest::makeMesh({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, {0, 1, 2, 0, 2, 3, 2, 1, 1});
    qyGeom::MeshEdges tri, poly;
    qyGeom::meshEdges(mesh, tri);
    const std::vector<int> triStart{0, 3, 6, 9};
    qyGeom::polygonEdges(4, 3, triStart.data(), mesh.getTrianglesRaw(), poly);
    ASSERT_EQ(tri.size(), poly.size());
    for (int e = 0; e < tri.size(); ++e)
    {
        EXPECT_EQ(tri.vertex0(e), poly.vertex0(e));
        EXPECT_EQ(tri.vertex1(e), poly.vertex1(e));
        EXPECT_EQ(std::vector<int>(tri.uses(e), tri.uses(e) + tri.numUses(e)),
                  std::vector<int>(poly.uses(e), poly.uses(e) + poly.numUses(e)));
    }
}

TEST(MeshTopology, TheCacheKeepsItUntilTheMeshChanges)
{
    CompactMesh mesh = qyTest::makeCube();
    qyGeom::SimpleMeshCache cache;
    const qy::Reference<MeshTopology> first = cache.getTopology(mesh);
    EXPECT_EQ(cache.getTopology(mesh).get(), first.get());
    EXPECT_EQ(cache.getEdges(mesh)->size(), 18);
    // Dropping a triangle opens the cube: the cache builds anew.
    mesh.resizeTriangleArray(11);
    qyGeom::MeshModification modification(&mesh, qyGeom::MeshModification::Remapped);
    mesh.modified(modification);
    const qy::Reference<MeshTopology> second = cache.getTopology(mesh);
    EXPECT_NE(second.get(), first.get());
    EXPECT_EQ(second->boundaryLoops, 1);
    EXPECT_EQ(second->euler, 1);
    EXPECT_EQ(first->euler, 2);
}
