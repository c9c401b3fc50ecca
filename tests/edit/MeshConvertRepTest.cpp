// Tests of the edit regions: conversion, editing through the half-edge mesh, and the merge.
#include "qyGeom/MeshConvertRep.h"

#include <algorithm>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "qyGeom/MeshSelect.h"
#include "qyGeom/meshAdjacency.h"
#include "testMeshes.h"

using namespace qyGeom;

namespace
{

// A grid whose UV of vertex v is (v, -v), so moved per-vertex data can be traced.
qyTest::RecordingMesh tracedGrid(int n)
{
    qyTest::RecordingMesh mesh(qyTest::makeGrid(n, n));
    mesh.allocUVArray();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        mesh.getUVs()[v].set(float(v), float(-v));
    return mesh;
}

void selectRings(CompactMesh& mesh, const MeshAdjTris& adj, int vertex, int rings)
{
    mesh.clearSelection();
    mesh.getSelectedVertices().resize(mesh.getNumVertices());
    mesh.getSelectedVertices().setBit(vertex);
    MeshSelect select(mesh, adj);
    for (int r = 0; r < rings; ++r)
    {
        select.selectAllTrianglesFromVertices();
        select.selectVerticesFromTriangles();
    }
}

// Captures the triangle map of the next Remapped notification.
struct TriangleMapCapture
{
    explicit TriangleMapCapture(CompactMesh& mesh)
        : connection(mesh.getModifiedSignal().connect(
              [this](const qyRTB::EntityModification& m)
              {
                  const auto* mod = dynamic_cast<const MeshModification*>(&m);
                  if (mod && mod->getTriangleRemap())
                      map = std::make_unique<Remap>(*mod->getTriangleRemap());
              }))
    {
    }
    std::unique_ptr<Remap> map;
    qyRTB::ScopedConnection connection;
};

// Sum of signed areas in the z = 0 plane, and a check that every edge is used at most once
// per direction and interior edges in both: returns the number of boundary edges.
int checkFlatManifold(const CompactMesh& mesh, double& area)
{
    std::map<std::pair<int, int>, int> directed;
    area = 0;
    const MeshVertex* p = mesh.getVertices();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const MeshTriangle& tri = mesh.getTriangles()[t];
        for (int k = 0; k < 3; ++k)
        {
            EXPECT_GE(tri[k], 0);
            EXPECT_LT(tri[k], mesh.getNumVertices());
            ++directed[{tri[k], tri[(k + 1) % 3]}];
        }
        const MeshVertex &a = p[tri[0]], &b = p[tri[1]], &c = p[tri[2]];
        area += 0.5 * ((b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x));
    }
    int boundary = 0;
    for (const auto& [edge, count] : directed)
    {
        EXPECT_EQ(count, 1);
        boundary += directed.count({edge.second, edge.first}) == 0;
    }
    return boundary;
}

// Brings v down to valence 3 by swapping its spokes, as the reduction does; returns the
// swapped edges.
std::vector<TopoMeshEdge> lowerToValence3(TopoMesh& topo, TopoMeshVertex v)
{
    std::vector<TopoMeshEdge> swapped;
    for (TopoMeshEdgeVertexIterator it(v); it.valid() && v.valence() > 3;)
    {
        const TopoMeshEdge e = it.edge();
        it.next();
        if (topo.swapEdge(e))
            swapped.push_back(e);
    }
    return swapped;
}

TEST(MeshModifyRep, RemovedVertexMergesWithTheRightRemapAndUntouchedTrianglesKept)
{
    qyTest::RecordingMesh mesh = tracedGrid(10);
    const CompactMesh before = mesh;
    MeshAdjTris adj;
    meshAdjTris(mesh, adj);
    const int centre = 5 * 11 + 5;
    selectRings(mesh, adj, centre, 2);
    const BitVector region = mesh.getSelectedTriangles();
    EXPECT_EQ(region.countBits(), 24);

    MeshModifyRep rep(mesh, adj);
    EXPECT_EQ(rep.getNumRegionTriangles(), 24);
    EXPECT_EQ(rep.getNumRegionVertices(), 19);
    TopoMesh& topo = rep.getTopoMesh();
    const TopoMeshVertex v = rep.getTopoMeshVertex(centre);
    ASSERT_TRUE(v);
    EXPECT_EQ(rep.getMeshVertex(v), centre);
    EXPECT_FALSE(rep.getTopoMeshVertex(0)); // outside the region
    EXPECT_FALSE(v.onBoundary());
    lowerToValence3(topo, v);
    ASSERT_EQ(v.valence(), 3);
    rep.removeVertex(v);
    ASSERT_TRUE(topo.deleteVertex(v));

    TriangleMapCapture capture(mesh);
    Remap remap;
    rep.merge(remap, 0);
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].type, MeshModification::Remapped);
    EXPECT_EQ(mesh.getNumVertices(), 120);
    EXPECT_EQ(mesh.getNumTriangles(), 198);
    EXPECT_EQ(remap.getDomainSize(), 121);
    for (int i = 0; i < 121; ++i)
    {
        EXPECT_EQ(remap(i), i < centre ? i : i == centre ? -1 : i - 1);
        if (i != centre)
        {
            EXPECT_EQ(mesh.getUVs()[remap(i)].u, float(i));
        }
    }
    // Every triangle outside the region is where the map says, renumbered, unchanged.
    ASSERT_TRUE(capture.map);
    for (int t = 0; t < before.getNumTriangles(); ++t)
    {
        if (region.isBitSet(t))
            continue;
        const MeshTriangle& old = before.getTriangles()[t];
        const int to = (*capture.map)(t);
        ASSERT_GE(to, 0);
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(mesh.getTriangles()[to][k], remap(old[k]));
    }
    double area;
    EXPECT_EQ(checkFlatManifold(mesh, area), 40);
    EXPECT_NEAR(area, 100.0, 1e-9);
    EXPECT_EQ(mesh.getSelectedVertices().size(), 120);

    // A second merge does nothing.
    rep.merge(remap, 0);
    EXPECT_TRUE(remap.isSequential());
    EXPECT_EQ(mesh.count(), 1);
}

TEST(MeshModifyRep, UnchangedOrRestoredRegionKeepsTheMesh)
{
    qyTest::RecordingMesh mesh = tracedGrid(8);
    MeshAdjTris adj;
    meshAdjTris(mesh, adj);
    const int centre = 4 * 9 + 4;
    selectRings(mesh, adj, centre, 2);
    {
        MeshModifyRep rep(mesh, adj);
        Remap remap;
        rep.merge(remap, 0);
        EXPECT_TRUE(remap.isSequential());
        EXPECT_EQ(mesh.count(), 0);
    }

    // Removal undone as the reduction does it: swaps, deletion, re-insertion, swaps back.
    auto canonical = [](const CompactMesh& m)
    {
        std::vector<std::vector<int>> out;
        for (int t = 0; t < m.getNumTriangles(); ++t)
        {
            std::vector<int> tri(m.getTriangles()[t].v, m.getTriangles()[t].v + 3);
            std::rotate(tri.begin(), std::min_element(tri.begin(), tri.end()), tri.end());
            out.push_back(tri);
        }
        std::sort(out.begin(), out.end());
        return out;
    };
    const auto trianglesBefore = canonical(mesh);
    const int numVerts = mesh.getNumVertices();
    MeshModifyRep rep(mesh, adj);
    TopoMesh& topo = rep.getTopoMesh();
    const TopoMeshVertex v = rep.getTopoMeshVertex(centre);
    const qyLinear::Point p = v.point();
    const std::vector<TopoMeshEdge> swapped = lowerToValence3(topo, v);
    rep.removeVertex(v);
    const TopoMeshFace fill = topo.deleteVertex(v);
    ASSERT_TRUE(fill);
    ASSERT_TRUE(topo.subdivideFace(fill, p));
    for (auto it = swapped.rbegin(); it != swapped.rend(); ++it)
        ASSERT_TRUE(topo.swapEdge(*it));
    Remap remap;
    rep.merge(remap, 0);
    EXPECT_TRUE(remap.isSequential());
    EXPECT_EQ(mesh.getNumVertices(), numVerts);
    EXPECT_EQ(canonical(mesh), trianglesBefore);
    EXPECT_EQ(mesh.getUVs()[centre].u, float(centre));
}

TEST(MeshModifyRep, NewVerticesAppendAndARimVertexThatLeavesTakesItsTriangles)
{
    qyTest::RecordingMesh mesh = tracedGrid(6);
    MeshAdjTris adj;
    meshAdjTris(mesh, adj);
    const int numVerts = mesh.getNumVertices(), numTris = mesh.getNumTriangles();
    selectRings(mesh, adj, 3 * 7 + 3, 1);
    {
        MeshModifyRep rep(mesh, adj);
        TopoMesh& topo = rep.getTopoMesh();
        const TopoMeshFace f = topo.firstFace();
        const qyLinear::Point c = f.centroid();
        ASSERT_TRUE(topo.subdivideFace(f, c));
        Remap remap;
        rep.merge(remap, 0);
        EXPECT_TRUE(remap.isSequential());
        ASSERT_EQ(mesh.getNumVertices(), numVerts + 1);
        EXPECT_EQ(mesh.getNumTriangles(), numTris + 2);
        EXPECT_FLOAT_EQ(mesh.getVertices()[numVerts].x, float(c.x));
        EXPECT_FLOAT_EQ(mesh.getVertices()[numVerts].y, float(c.y));
        EXPECT_EQ(mesh.getUVs()[numVerts].u, 0.0f);
        double area;
        EXPECT_EQ(checkFlatManifold(mesh, area), 24);
        EXPECT_NEAR(area, 36.0, 1e-9);
    }

    // A rim vertex announced as removed and moved: its old index goes with every triangle
    // that used it (outside the region too); the moved vertex is appended.
    MeshAdjTris adj2;
    meshAdjTris(mesh, adj2);
    selectRings(mesh, adj2, 3 * 7 + 3, 1);
    const int rimIndex = 3 * 7 + 4;
    MeshModifyRep rep(mesh, adj2);
    const TopoMeshVertex rim = rep.getTopoMeshVertex(rimIndex);
    ASSERT_TRUE(rim);
    EXPECT_TRUE(rim.onBoundary());
    rep.removeVertex(rim);
    rim.setPoint({4.25, 3, 0});
    Remap remap;
    const int before = mesh.getNumTriangles();
    rep.merge(remap, 0);
    EXPECT_EQ(remap(rimIndex), -1);
    EXPECT_EQ(mesh.getNumVertices(), numVerts + 1);
    EXPECT_EQ(mesh.getNumTriangles(), before - 4); // its six triangles, two of them in the region
    double area;
    checkFlatManifold(mesh, area);
}

TEST(MeshModifyRep, HostileMeshesSurviveRandomEditsAndMerges)
{
    // Every catalogue mesh (non-manifold edges, repeated indices, flipped faces, isolated
    // vertices ...) plus out-of-range indices, wholly selected, edited at random and merged:
    // the result names only existing vertices, except the bad triangles left untouched.
    std::mt19937 random(5);
    auto pick = [&](int n) { return n > 0 ? int(random() % unsigned(n)) : 0; };
    std::vector<qyTest::TestMesh> meshes = qyTest::testMeshes::all();
    meshes.push_back({"torus", qyTest::makeTorus(6, 5)});
    meshes.push_back({"bad indices", qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0},
                                                      {0, 1, 2, 1, 3, 2, 2, 3, 7, -4, 0, 1})});
    for (auto& [name, source] : meshes)
    {
        SCOPED_TRACE(name);
        for (int round = 0; round < 5; ++round)
        {
            CompactMesh mesh = source;
            MeshAdjTris adj;
            meshAdjTris(mesh, adj);
            mesh.getSelectedTriangles().resize(mesh.getNumTriangles());
            mesh.getSelectedTriangles().setAllBits();
            mesh.getSelectedVertices().resize(mesh.getNumVertices());
            mesh.getSelectedVertices().setAllBits();
            MeshModifyRep rep(mesh, adj);
            TopoMesh& topo = rep.getTopoMesh();
            for (int step = 0; step < 30; ++step)
            {
                switch (pick(4))
                {
                case 0:
                    topo.swapEdge(topo.edge(pick(topo.getEdgeCapacity())));
                    break;
                case 1:
                {
                    const TopoMeshVertex v = topo.vertex(pick(topo.getVertexCapacity()));
                    if (topo.isAlive(v))
                    {
                        rep.removeVertex(v);
                        topo.deleteVertex(v);
                    }
                    break;
                }
                case 2:
                    if (const TopoMeshFace f = topo.face(pick(topo.getFaceCapacity()));
                        topo.isAlive(f))
                        topo.subdivideFace(f, f.centroid());
                    break;
                default:
                    if (const TopoMeshEdge e = topo.edge(pick(topo.getEdgeCapacity()));
                        topo.isAlive(e))
                        topo.subdivideEdge(e, e.vertex().point());
                    break;
                }
            }
            Remap remap;
            const int oldVerts = mesh.getNumVertices();
            rep.merge(remap, 0);
            EXPECT_EQ(remap.getDomainSize(), oldVerts);
            int bad = 0; // triangles naming a vertex that does not exist
            for (int t = 0; t < mesh.getNumTriangles(); ++t)
            {
                const MeshTriangle& tri = mesh.getTriangles()[t];
                bool ok = true;
                for (int k = 0; k < 3; ++k)
                    ok = ok && unsigned(tri[k]) < unsigned(mesh.getNumVertices());
                bad += !ok;
            }
            EXPECT_LE(bad, name == "bad indices" ? 2 : 0);
            EXPECT_EQ(mesh.getSelectedTriangles().size(), mesh.getNumTriangles());
        }
    }
}

} // namespace

TEST(MeshConvertRep, RegionMatchesOneBuiltFaceByFaceWithTwinsMatched)
{
    // The region is laid out from the mesh's adjacency; it must be the TopoMesh that
    // allocating its vertices and faces one by one and pairing the twins gives, element for
    // element (the edits walk from each vertex's half-edge, so those must agree too), on
    // hostile meshes and partial selections alike, with vertex lists longer than 32 and
    // regions of many blocks of vertices; in the last round the adjacency is out of date (one
    // triangle has a corner moved since), and the region must still come out as the mesh is.
    std::mt19937 random(11);
    std::vector<qyTest::TestMesh> meshes = qyTest::testMeshes::all();
    meshes.push_back({"torus", qyTest::makeTorus(9, 7)});
    meshes.push_back({"uv sphere with 40-spoke poles", qyTest::makeUVSphere(6, 40)});
    meshes.push_back({"bad indices", qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0},
                                                      {0, 1, 2, 1, 3, 2, 2, 3, 7, -4, 0, 1})});
    for (auto& [name, source] : meshes)
        for (int round = 0; round < 4; ++round)
        {
            SCOPED_TRACE(name + " round " + std::to_string(round));
            CompactMesh mesh = source;
            MeshAdjTris adj;
            meshAdjTris(mesh, adj);
            const int numVerts = mesh.getNumVertices(), numTris = mesh.getNumTriangles();
            if (round == 3 && numTris > 0 && numVerts > 0)
            {
                int* first = mesh.getTrianglesRaw();
                first[0] = (std::max(first[0], 0) + 1) % numVerts;
            }
            mesh.getSelectedTriangles().resize(numTris);
            mesh.getSelectedVertices().resize(numVerts);
            for (int t = 0; t < numTris; ++t)
                if (round == 0 || random() % 3 != 0)
                    mesh.getSelectedTriangles().setBit(t);
            for (int v = 0; v < numVerts; ++v)
                if (random() % 5 == 0)
                    mesh.getSelectedVertices().setBit(v);
            MeshConvertRep rep(mesh, adj);
            const TopoMesh& topo = rep.getTopoMesh();

            TopoMesh expected;
            std::vector<int> slotOf(std::size_t(numVerts), -1);
            std::vector<char> inRegion(std::size_t(numVerts), 0);
            const int* tris = mesh.getTrianglesRaw();
            for (int v = 0; v < numVerts; ++v)
                inRegion[std::size_t(v)] = mesh.getSelectedVertices().isBitSet(v) ? 1 : 0;
            for (int t = 0; t < numTris; ++t)
                if (mesh.getSelectedTriangles().isBitSet(t))
                    for (int k = 0; k < 3; ++k)
                        if (tris[3 * t + k] >= 0 && tris[3 * t + k] < numVerts)
                            inRegion[std::size_t(tris[3 * t + k])] = 1;
            for (int v = 0; v < numVerts; ++v)
                if (inRegion[std::size_t(v)])
                {
                    slotOf[std::size_t(v)] = expected.getVertexCapacity();
                    expected.allocVertex(mesh.getVertices()[v].asPoint()).setTag(v);
                }
            for (int t = 0; t < numTris; ++t)
            {
                if (!mesh.getSelectedTriangles().isBitSet(t))
                    continue;
                int slots[3];
                bool inside = true;
                for (int k = 0; k < 3; ++k)
                {
                    const int v = tris[3 * t + k];
                    slots[k] = v >= 0 && v < numVerts ? slotOf[std::size_t(v)] : -1;
                    inside = inside && slots[k] >= 0;
                }
                if (inside)
                    if (const TopoMeshFace f = expected.allocFace(3, slots))
                        f.setTag(t);
            }
            expected.meshTwin();

            ASSERT_EQ(topo.getVertexCapacity(), expected.getVertexCapacity());
            ASSERT_EQ(topo.getEdgeCapacity(), expected.getEdgeCapacity());
            ASSERT_EQ(topo.getFaceCapacity(), expected.getFaceCapacity());
            for (int v = 0; v < topo.getVertexCapacity(); ++v)
            {
                EXPECT_EQ(topo.getVertexTag(v), expected.getVertexTag(v)) << "vertex " << v;
                EXPECT_EQ(topo.getVertexEdge(v), expected.getVertexEdge(v)) << "vertex " << v;
                EXPECT_EQ(topo.getVertexDegree(v), expected.getVertexDegree(v)) << "vertex " << v;
                EXPECT_EQ(topo.vertexValence(v), expected.vertexValence(v)) << "vertex " << v;
                EXPECT_EQ(topo.getPoint(v), expected.getPoint(v));
            }
            for (int e = 0; e < topo.getEdgeCapacity(); ++e)
            {
                const TopoMesh::HalfEdge &a = topo.getHalfEdge(e), &b = expected.getHalfEdge(e);
                EXPECT_TRUE(a.vertex == b.vertex && a.face == b.face && a.next == b.next &&
                            a.prev == b.prev && a.twin == b.twin)
                    << "half-edge " << e;
            }
            for (int f = 0; f < topo.getFaceCapacity(); ++f)
            {
                EXPECT_EQ(topo.getFaceEdge(f), expected.getFaceEdge(f)) << "face " << f;
                EXPECT_EQ(topo.getFaceTag(f), expected.getFaceTag(f)) << "face " << f;
            }
        }
}
