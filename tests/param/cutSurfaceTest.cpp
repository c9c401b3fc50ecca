#include "qyGeom/cutSurface.h"

#include <set>

#include <gtest/gtest.h>

#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshComponents.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;

namespace
{

struct Topology
{
    int boundaries, chi;
};

// Boundary loops and Euler characteristic (V - E + F) of the vertices that triangles use.
Topology topology(const CompactMesh& mesh)
{
    qyGeom::MeshAdjTris adjTris;
    qyGeom::meshAdjTris(mesh, adjTris);
    qyGeom::MeshAdjVertices adjVertices;
    qyGeom::meshAdjVertices(mesh, adjTris, adjVertices);
    qyGeom::MeshBoundaries loops;
    qyGeom::meshComputeBoundary(mesh, adjTris, adjVertices, loops);
    std::set<std::pair<int, int>> edges;
    std::set<int> used;
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
        for (int k = 0; k < 3; ++k)
        {
            const int a = t[3 * i + k], b = t[3 * i + (k + 1) % 3];
            edges.insert({std::min(a, b), std::max(a, b)});
            used.insert(a);
        }
    return {loops.size(), int(used.size()) - int(edges.size()) + mesh.getNumTriangles()};
}

// A disk: one boundary loop and chi = 1; every copy sits where its original is.
void expectDisk(const CompactMesh& cut, const CompactMesh& original, const qyGeom::CutRegion& r)
{
    const Topology top = topology(cut);
    EXPECT_EQ(top.boundaries, 1);
    EXPECT_EQ(top.chi, 1);
    ASSERT_EQ(int(r.originalVertex.size()), cut.getNumVertices());
    for (int v = 0; v < cut.getNumVertices(); ++v)
    {
        const int o = r.originalVertex[std::size_t(v)];
        ASSERT_TRUE(o >= 0 && o < original.getNumVertices());
        EXPECT_EQ(cut.getVertices()[v].asPoint(), original.getVertices()[o].asPoint());
    }
    // Triangles keep their order and each corner maps back to the original corner.
    ASSERT_EQ(cut.getNumTriangles(), original.getNumTriangles());
    for (int c = 0; c < 3 * cut.getNumTriangles(); ++c)
        EXPECT_EQ(r.originalVertex[std::size_t(cut.getTrianglesRaw()[c])],
                  original.getTrianglesRaw()[c]);
}

} // namespace

TEST(CutSurface, ClosedAndHigherGenusSurfacesBecomeDisks)
{
    struct Case
    {
        const char* name;
        CompactMesh mesh;
    };
    std::vector<Case> cases;
    cases.push_back({"cube", qyTest::makeCube()});
    cases.push_back({"icosphere", qyTest::makeIcosphere(2)});
    cases.push_back({"uv sphere", qyTest::makeUVSphere(8, 12)});
    cases.push_back({"torus", qyTest::makeTorus(24, 12)});
    cases.push_back({"tetrahedron", qyTest::testMeshes::get("tetrahedron")});
    {
        // Torus with a hole: genus 1 and one boundary.
        CompactMesh open = qyTest::makeTorus(16, 8);
        open.resizeTriangleArray(open.getNumTriangles() - 2);
        cases.push_back({"torus with hole", std::move(open)});
    }
    for (Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const CompactMesh original = c.mesh;
        qyGeom::CutRegion region;
        qyTest::RecordingMesh mesh(c.mesh);
        EXPECT_TRUE(qyGeom::cutSurface(mesh, region, true));
        expectDisk(mesh, original, region);
        EXPECT_EQ(mesh.count(), 1);
        EXPECT_GT(region.getNumEdges(), 0);

        // Results do not depend on the thread count (the adjacency builders are threaded).
        qyTest::ScopedThreadCount one(1);
        CompactMesh again = original;
        qyGeom::CutRegion region1;
        qyGeom::cutSurface(again, region1, true);
        EXPECT_EQ(region1.edges, region.edges);
        EXPECT_EQ(region1.originalVertex, region.originalVertex);
    }
}

TEST(CutSurface, DiskIsLeftAloneAndCallerEdgesAreCut)
{
    // A disk needs no cut: nothing changes and no notification is sent.
    qyTest::RecordingMesh grid(qyTest::makeGrid(4, 4));
    qyGeom::CutRegion region;
    EXPECT_FALSE(qyGeom::cutSurface(grid, region, true));
    EXPECT_EQ(grid.count(), 0);
    EXPECT_EQ(grid.getNumVertices(), 25);
    EXPECT_EQ(region.getNumEdges(), 0);

    // The caller's cut across the whole middle row: its five vertices are duplicated (the two
    // on the rim as well, since the cut meets the boundary there) and the grid falls in two.
    CompactMesh mesh = qyTest::makeGrid(4, 4);
    qyGeom::CutRegion slit;
    for (int x = 0; x < 4; ++x)
        slit.addEdge(2 * 5 + x, 2 * 5 + x + 1); // row y = 2
    slit.addEdge(0, 24);                        // not an edge: ignored
    EXPECT_TRUE(qyGeom::cutSurface(mesh, slit, false));
    EXPECT_EQ(slit.getNumEdges(), 4);
    EXPECT_EQ(mesh.getNumVertices(), 25 + 5);
    qyGeom::MeshAdjTris adjTris;
    qyGeom::meshAdjTris(mesh, adjTris);
    EXPECT_EQ(qyGeom::meshComponents(mesh, adjTris), 2);
}

TEST(CutSurface, SlitRunsAlongCreases)
{
    // On the cube the 90 degree creases cost less than the flat face diagonals, so the slit that
    // opens the closed box follows box edges only.
    CompactMesh cube = qyTest::makeCube();
    const CompactMesh original = cube;
    qyGeom::CutRegion region;
    ASSERT_TRUE(qyGeom::cutSurface(cube, region, true));
    ASSERT_GE(region.getNumEdges(), 2);
    for (int e = 0; e < region.getNumEdges(); ++e)
    {
        const qyLinear::Point a = original.getVertices()[region.edges[2 * e]].asPoint();
        const qyLinear::Point b = original.getVertices()[region.edges[2 * e + 1]].asPoint();
        int differing = 0;
        for (int k = 0; k < 3; ++k)
            differing += a[k] != b[k];
        EXPECT_EQ(differing, 1) << "edge " << region.edges[2 * e] << "-" << region.edges[2 * e + 1];
    }
}
