// Tests of the selection growth.
#include "qyGeom/MeshSelect.h"

#include <gtest/gtest.h>

#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "testMeshes.h"

using namespace qyGeom;

namespace
{

TEST(MeshSelect, GrowsRingsBetweenVerticesAndTriangles)
{
    CompactMesh grid = qyTest::makeGrid(6, 6);
    MeshAdjTris adj;
    meshAdjTris(grid, adj);
    grid.getSelectedVertices().resize(grid.getNumVertices());
    grid.getSelectedVertices().setBit(3 * 7 + 3); // the centre, valence 6
    MeshSelect select(grid, adj);
    EXPECT_EQ(select.selectAllTrianglesFromVertices(), 6);
    EXPECT_EQ(select.selectVerticesFromTriangles(), 6);
    EXPECT_EQ(grid.getSelectedVertices().countBits(), 7);
    // Second ring: the 24 triangles of the 2-ring hexagon around the centre.
    EXPECT_EQ(select.selectAllTrianglesFromVertices(), 24 - 6);
    EXPECT_EQ(select.selectVerticesFromTriangles(), 19 - 7);
    // Growing again from the same selection adds nothing.
    EXPECT_EQ(select.selectVerticesFromTriangles(), 0);

    // One ring of triangle growth equals vertices-then-triangles.
    CompactMesh other = qyTest::makeGrid(6, 6);
    BitVector tris(other.getNumTriangles()), verts(other.getNumVertices());
    tris.setBit(30);
    MeshSelect byRing(other, adj, tris, verts);
    byRing.selectTrianglesRecursive(1);
    BitVector tris2(other.getNumTriangles()), verts2(other.getNumVertices());
    tris2.setBit(30);
    MeshSelect byVertices(other, adj, tris2, verts2);
    byVertices.selectVerticesFromTriangles();
    byVertices.selectAllTrianglesFromVertices();
    EXPECT_EQ(tris, tris2);
    EXPECT_EQ(verts.countBits(), 0); // the recursive growth selects no vertex
}

TEST(MeshSelect, NearlyFullSelectionsStillGrowTheirLastBits)
{
    // 49 vertices and 72 triangles: the last of each lies in a partly used word.
    CompactMesh grid = qyTest::makeGrid(6, 6);
    MeshAdjTris adj;
    meshAdjTris(grid, adj);
    const int numVerts = grid.getNumVertices(), numTris = grid.getNumTriangles();
    for (const int missing : {numTris - 1, 0, 40})
    {
        BitVector tris(numTris), verts(numVerts);
        tris.setAllBits();
        tris.clearBit(missing);
        verts.setAllBits();
        MeshSelect select(grid, adj, tris, verts);
        EXPECT_EQ(select.selectAllTrianglesFromVertices(), 1) << missing;
        EXPECT_EQ(tris.countBits(), numTris);
        EXPECT_EQ(select.selectAllTrianglesFromVertices(), 0);
    }
    for (const int missing : {numVerts - 1, 0, 32})
    {
        BitVector tris(numTris), verts(numVerts);
        tris.setAllBits();
        verts.setAllBits();
        verts.clearBit(missing);
        MeshSelect select(grid, adj, tris, verts);
        EXPECT_EQ(select.selectVerticesFromTriangles(), 1) << missing;
        EXPECT_EQ(verts.countBits(), numVerts);
        EXPECT_EQ(select.selectVerticesFromTriangles(), 0);
    }
}

TEST(MeshSelect, RecursiveGrowthStopsAtComponents)
{
    // Two separate grids, and a third grid touching the second at one vertex only.
    CompactMesh a = qyTest::makeGrid(3, 3);
    std::vector<float> xyz;
    std::vector<int> tris;
    for (int copy = 0; copy < 3; ++copy)
    {
        const int base = int(xyz.size()) / 3;
        for (int v = 0; v < a.getNumVertices(); ++v)
        {
            xyz.push_back(a.getVertices()[v].x + 10.0f * float(copy == 1) +
                          3.0f * float(copy == 2));
            xyz.push_back(a.getVertices()[v].y + 3.0f * float(copy == 2));
            xyz.push_back(0);
        }
        for (int k = 0; k < 3 * a.getNumTriangles(); ++k)
            tris.push_back(a.getTrianglesRaw()[k] + base);
    }
    // Copy 2's corner (0, 0) sits at (3, 3), on copy 0's corner: join them at that vertex.
    for (int& v : tris)
        if (v == 2 * 16)
            v = 15;
    tris.push_back(0);
    tris.push_back(1);
    tris.push_back(99); // out of range: in no vertex's set, so never reached
    CompactMesh mesh = qyTest::makeMesh(xyz, tris);
    MeshAdjTris adj;
    meshAdjTris(mesh, adj);
    mesh.getSelectedTriangles().resize(mesh.getNumTriangles());
    mesh.getSelectedTriangles().setBit(0);
    MeshSelect select(mesh, adj);
    EXPECT_EQ(select.selectTrianglesRecursive(0), 2 * 18 - 1);
    const BitVector& sel = mesh.getSelectedTriangles();
    for (int t = 18; t < 36; ++t)
        EXPECT_FALSE(sel.isBitSet(t)) << t;
    for (int t = 36; t < 54; ++t)
        EXPECT_TRUE(sel.isBitSet(t)) << t;
    EXPECT_FALSE(sel.isBitSet(54));
    select.selectVerticesFromTriangles();
    EXPECT_EQ(mesh.getSelectedVertices().countBits(), 16 + 15);
}

} // namespace
