// Tests of the half-edge mesh: building and twinning, walks, the edits and the handles.
#include "model/TopoMesh.h"

#include <algorithm>
#include <array>
#include <map>
#include <random>
#include <set>
#include <unordered_set>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshComponents.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;
using qyGeom::TopoMesh;
using qyGeom::TopoMeshEdge;
using qyGeom::TopoMeshEdgeVertexIterator;
using qyGeom::TopoMeshEntity;
using qyGeom::TopoMeshFace;
using qyGeom::TopoMeshVertex;
using qyLinear::Point;

void build(TopoMesh& topo, const CompactMesh& mesh)
{
    const float* xyz = mesh.getVerticesRaw();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        topo.allocVertex(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]);
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
        topo.allocFace(3, tris + 3 * t);
    topo.meshTwin();
}

// Every structural rule the edits must keep; returns the number of boundary half-edges. On a
// manifold mesh the walk around each vertex must also reach all its leaving half-edges.
int checkInvariants(TopoMesh& mesh, bool manifold = true)
{
    int vertices = 0, edges = 0, faces = 0, boundary = 0;
    std::map<int, int> leaving;
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
    {
        ++edges;
        ++leaving[e.vertex().getIndex()];
        EXPECT_EQ(e.next().prev(), e);
        EXPECT_EQ(e.prev().next(), e);
        EXPECT_EQ(e.next().face(), e.face());
        EXPECT_TRUE(mesh.isAlive(e.face()));
        EXPECT_TRUE(mesh.isAlive(e.vertex()));
        EXPECT_NE(e.vertex(), e.endVertex());
        if (e.hasTwin())
        {
            EXPECT_EQ(e.twin().twin(), e);
            EXPECT_EQ(e.twin().vertex(), e.endVertex());
            EXPECT_EQ(e.twin().endVertex(), e.vertex());
        }
        else
            ++boundary;
    }
    for (TopoMeshFace f = mesh.firstFace(); f; f = f.nextInList())
    {
        ++faces;
        EXPECT_EQ(f.edge().face(), f);
        EXPECT_GE(f.numCorners(), 3);
    }
    for (TopoMeshVertex v = mesh.firstVertex(); v; v = v.nextInList())
    {
        ++vertices;
        EXPECT_EQ(mesh.getVertexDegree(v.getIndex()), leaving[v.getIndex()]);
        if (!v.edge())
        {
            EXPECT_EQ(leaving[v.getIndex()], 0);
            continue;
        }
        EXPECT_EQ(v.edge().vertex(), v);
        int walked = 0, spokes = 0;
        for (TopoMeshEdgeVertexIterator it(v); it.valid(); it.next())
        {
            walked += it.edge().vertex() == v;
            ++spokes;
        }
        EXPECT_EQ(spokes, v.valence());
        if (manifold)
        {
            EXPECT_EQ(walked, leaving[v.getIndex()]);
        }
        else
            EXPECT_LE(walked, leaving[v.getIndex()]);
    }
    EXPECT_EQ(vertices, mesh.getNumVertices());
    EXPECT_EQ(edges, mesh.getNumEdges());
    EXPECT_EQ(faces, mesh.getNumFaces());
    return boundary;
}

std::multiset<int> corners(TopoMeshFace f)
{
    std::multiset<int> out;
    TopoMeshEdge e = f.edge();
    do
    {
        out.insert(e.vertex().getIndex());
        e = e.next();
    } while (e != f.edge());
    return out;
}

std::set<int> neighbours(TopoMesh& mesh, TopoMeshVertex v)
{
    qy::vector<TopoMeshVertex> adjacent;
    mesh.getAdjacentVertices(v, adjacent);
    std::set<int> out;
    for (TopoMeshVertex w : adjacent)
        out.insert(w.getIndex());
    EXPECT_EQ(out.size(), adjacent.size());
    return out;
}

TEST(TopoMesh, TwinsPairOnClosedAndOpenMeshes)
{
    TopoMesh sphere;
    build(sphere, qyTest::makeIcosphere(2));
    EXPECT_EQ(sphere.getNumFaces(), 320);
    EXPECT_EQ(sphere.getNumEdges(), 960);
    EXPECT_EQ(checkInvariants(sphere), 0);
    for (TopoMeshVertex v = sphere.firstVertex(); v; v = v.nextInList())
    {
        EXPECT_FALSE(v.onBoundary());
        EXPECT_EQ(v.valence(), v.getIndex() < 12 ? 5 : 6);
    }

    // A 3 x 2 grid: the boundary half-edges have no twin and form one loop of 10 edges.
    TopoMesh grid;
    build(grid, qyTest::makeGrid(3, 2));
    EXPECT_EQ(checkInvariants(grid), 10);
    int loopLength = 0;
    TopoMeshEdge start;
    for (TopoMeshEdge e = grid.firstEdge(); e && !start; e = e.nextInList())
        if (!e.hasTwin())
            start = e;
    for (qyGeom::TopoMeshBoundaryIterator it(start); it.valid(); it.next())
    {
        EXPECT_FALSE(it.edge().hasTwin());
        EXPECT_EQ(it.edge().vertex().edge(), it.edge()); // boundary vertices leave by it
        ++loopLength;
    }
    EXPECT_EQ(loopLength, 10);
    // Vertex (1, 1) is interior with six spokes; corners (0, 0) and (3, 2) are on the
    // boundary with 2 or 3 spokes depending on the diagonal; (1, 0) has four.
    const TopoMeshVertex inner = grid.vertex(5), corner = grid.vertex(0), side = grid.vertex(1);
    EXPECT_FALSE(inner.onBoundary());
    EXPECT_EQ(inner.valence(), 6);
    EXPECT_TRUE(corner.onBoundary());
    EXPECT_TRUE(side.onBoundary());
    EXPECT_EQ(side.valence(), int(neighbours(grid, side).size()));
    EXPECT_EQ(neighbours(grid, inner).size(), 6u);
    EXPECT_TRUE(grid.findEdge(inner, side) || grid.findEdge(side, inner));
    EXPECT_FALSE(grid.findEdge(corner, grid.vertex(11)));
}

TEST(TopoMesh, BadFaceListsAreRefusedOrLeftUnpaired)
{
    TopoMesh mesh;
    std::vector<TopoMeshVertex> v;
    for (int i = 0; i < 6; ++i)
        v.push_back(mesh.allocVertex(i, i * i, 0));
    // Refused faces allocate nothing.
    EXPECT_FALSE(mesh.allocFace({v[0], v[1]}));
    EXPECT_FALSE(mesh.allocFace({v[0], v[1], v[0]}));
    EXPECT_FALSE(mesh.allocFace({v[0], v[1], TopoMeshVertex()}));
    const int bad[] = {0, 1, 99};
    EXPECT_FALSE(mesh.allocFace(3, bad));
    TopoMesh other;
    EXPECT_FALSE(mesh.allocFace({v[0], v[1], other.allocVertex(0, 0, 0)}));
    EXPECT_EQ(mesh.getNumFaces(), 0);
    EXPECT_EQ(mesh.getNumEdges(), 0);

    // Three faces on edge 0-1 (non-manifold) and one face running 2->3 the same way as
    // another (inconsistent): none of those half-edges is paired.
    mesh.allocFace({v[0], v[1], v[2]});
    mesh.allocFace({v[1], v[0], v[3]});
    mesh.allocFace({v[1], v[0], v[4]});
    mesh.allocFace({v[2], v[3], v[5]});
    mesh.allocFace({v[1], v[3], v[2]});
    mesh.meshTwin();
    EXPECT_FALSE(mesh.findEdge(v[0], v[1]).hasTwin());
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
    {
        const int a = e.vertex().getIndex(), b = e.endVertex().getIndex();
        if (std::min(a, b) == 0 && std::max(a, b) == 1)
        {
            EXPECT_FALSE(e.hasTwin());
        }
        if (e.hasTwin())
        {
            EXPECT_EQ(e.twin().twin(), e);
        }
    }
    // Walks stay finite and consistent on what was built.
    for (TopoMeshVertex w = mesh.firstVertex(); w; w = w.nextInList())
    {
        int spokes = 0;
        for (TopoMeshEdgeVertexIterator it(w); it.valid(); it.next())
            ++spokes;
        EXPECT_EQ(spokes, w.valence());
    }
}

TEST(TopoMesh, ValenceCountsTheWalkedFanWhereSeveralFansMeet)
{
    // Two closed tetrahedra sharing vertex 0 (two closed fans of 3 there, 6 leaving
    // half-edges), and two triangles sharing vertex 7 (two open fans of 2 spokes each): the
    // valence is that of the fan the walk covers, never the vertex's whole degree; an edit and
    // a second pairing keep it so.
    TopoMesh mesh;
    std::vector<TopoMeshVertex> v;
    const double xyz[][3] = {{0, 0, 0},  {1, 0, 0}, {0, 1, 0}, {0, 0, 1}, {-1, 0, 0}, {0, -1, 0},
                             {0, 0, -1}, {5, 5, 5}, {6, 5, 5}, {5, 6, 5}, {4, 5, 5},  {5, 4, 5}};
    for (const auto& p : xyz)
        v.push_back(mesh.allocVertex(p[0], p[1], p[2]));
    for (const auto& t :
         {std::array{0, 2, 1}, std::array{0, 1, 3}, std::array{0, 3, 2}, std::array{1, 2, 3},
          std::array{0, 5, 4}, std::array{0, 4, 6}, std::array{0, 6, 5}, std::array{4, 5, 6},
          std::array{7, 8, 9}, std::array{7, 10, 11}})
        mesh.allocFace(3, t.data());
    mesh.meshTwin();
    EXPECT_EQ(mesh.getVertexDegree(0), 6);
    EXPECT_EQ(v[0].valence(), 3);
    EXPECT_EQ(v[7].valence(), 2);
    EXPECT_TRUE(v[7].onBoundary());
    EXPECT_FALSE(mesh.swapEdge(mesh.findEdge(v[0], v[1])));
    checkInvariants(mesh, false);
    const TopoMeshVertex w =
        mesh.subdivideFace(mesh.findEdge(v[1], v[2]).face(), Point(0.3, 0.3, 0.3));
    EXPECT_EQ(w.valence(), 3);
    EXPECT_EQ(v[1].valence(), 4);
    EXPECT_EQ(v[0].valence(), 3);
    mesh.meshTwin();
    EXPECT_EQ(v[0].valence(), 3);
    EXPECT_EQ(v[1].valence(), 4);
    checkInvariants(mesh, false);
}

TEST(TopoMesh, SwapEdgeInteriorAndRefusals)
{
    TopoMesh grid;
    build(grid, qyTest::makeGrid(4, 4));
    // An interior diagonal of the grid: both ends interior.
    const TopoMeshVertex a = grid.vertex(6), b = grid.vertex(12);
    TopoMeshEdge e = grid.findEdge(a, b) ? grid.findEdge(a, b) : grid.findEdge(b, a);
    ASSERT_TRUE(e);
    const TopoMeshVertex c = e.prev().vertex(), d = e.twin().prev().vertex();
    const TopoMeshFace f1 = e.face(), f2 = e.twin().face();
    const int valenceA = e.vertex().valence(), valenceB = e.endVertex().valence();
    const int valenceC = c.valence(), valenceD = d.valence();
    const TopoMeshVertex ea = e.vertex(), eb = e.endVertex();
    ASSERT_TRUE(grid.swapEdge(e));
    EXPECT_EQ(checkInvariants(grid), 16);
    EXPECT_EQ(e.vertex(), d);
    EXPECT_EQ(e.endVertex(), c);
    EXPECT_EQ(e.face(), f1);
    EXPECT_EQ(e.twin().face(), f2);
    EXPECT_EQ(corners(f1), (std::multiset<int>{c.getIndex(), ea.getIndex(), d.getIndex()}));
    EXPECT_EQ(corners(f2), (std::multiset<int>{c.getIndex(), eb.getIndex(), d.getIndex()}));
    EXPECT_FALSE(grid.findEdge(ea, eb));
    EXPECT_FALSE(grid.findEdge(eb, ea));
    EXPECT_EQ(ea.valence(), valenceA - 1);
    EXPECT_EQ(eb.valence(), valenceB - 1);
    EXPECT_EQ(c.valence(), valenceC + 1);
    EXPECT_EQ(d.valence(), valenceD + 1);
    // Swapping back restores the connectivity.
    ASSERT_TRUE(grid.swapEdge(e));
    EXPECT_TRUE(grid.findEdge(ea, eb) || grid.findEdge(eb, ea));
    EXPECT_EQ(ea.valence(), valenceA);
    checkInvariants(grid);

    // Boundary edge: refused. Edge whose new diagonal exists (a tetrahedron): refused.
    TopoMeshEdge boundary;
    for (TopoMeshEdge x = grid.firstEdge(); x && !boundary; x = x.nextInList())
        if (!x.hasTwin())
            boundary = x;
    EXPECT_FALSE(grid.swapEdge(boundary));
    EXPECT_FALSE(grid.swapEdge(TopoMeshEdge()));
    TopoMesh tetra;
    build(tetra, qyTest::testMeshes::get("tetrahedron"));
    for (TopoMeshEdge x = tetra.firstEdge(); x; x = x.nextInList())
        EXPECT_FALSE(tetra.swapEdge(x));
    // A quad face is not swapped across.
    TopoMesh quads;
    for (int i = 0; i < 6; ++i)
        quads.allocVertex(i % 3, i / 3, 0);
    quads.allocQuad(quads.vertex(0), quads.vertex(1), quads.vertex(4), quads.vertex(3));
    quads.allocQuad(quads.vertex(1), quads.vertex(2), quads.vertex(5), quads.vertex(4));
    quads.meshTwin();
    EXPECT_FALSE(quads.swapEdge(quads.findEdge(quads.vertex(1), quads.vertex(4))));

    // The notification reaches the mesh's observers with its type.
    int seen = -1;
    const TopoMesh* from = nullptr;
    qyRTB::ScopedConnection connection = grid.getModifiedSignal().connect(
        [&](const qyRTB::EntityModification& m)
        {
            const auto& record = dynamic_cast<const qyGeom::TopoMeshModification&>(m);
            seen = record.getType();
            from = record.getMesh();
        });
    grid.modified(qyGeom::TopoMeshModification(grid, 1));
    EXPECT_EQ(seen, 1);
    EXPECT_EQ(from, &grid);
}

TEST(TopoMesh, RandomSwapsKeepTheStructure)
{
    TopoMesh sphere;
    build(sphere, qyTest::makeIcosphere(2));
    std::mt19937 random(7);
    int swaps = 0;
    for (int i = 0; i < 2000; ++i)
    {
        const TopoMeshEdge e = sphere.edge(int(random() % unsigned(sphere.getEdgeCapacity())));
        swaps += sphere.swapEdge(e);
    }
    EXPECT_GT(swaps, 500);
    EXPECT_EQ(checkInvariants(sphere), 0);
    int valenceSum = 0;
    for (TopoMeshVertex v = sphere.firstVertex(); v; v = v.nextInList())
    {
        EXPECT_GE(v.valence(), 3);
        valenceSum += v.valence();
    }
    EXPECT_EQ(valenceSum, sphere.getNumEdges());
}

TEST(TopoMesh, DeleteVertexThenSubdivideFaceRestoresConnectivity)
{
    TopoMesh sphere;
    build(sphere, qyTest::makeIcosphere(1));
    const int faces = sphere.getNumFaces(), edges = sphere.getNumEdges();
    const int vertices = sphere.getNumVertices();
    const TopoMeshVertex v = sphere.vertex(20); // valence 6
    const Point p = v.point();
    const std::set<int> ring = neighbours(sphere, v);
    ASSERT_EQ(ring.size(), 6u);

    const TopoMeshFace hole = sphere.deleteVertex(v);
    ASSERT_TRUE(hole);
    EXPECT_FALSE(sphere.isAlive(v));
    EXPECT_EQ(hole.numCorners(), 6);
    const std::multiset<int> holeCorners = corners(hole);
    EXPECT_EQ(std::set<int>(holeCorners.begin(), holeCorners.end()), ring);
    EXPECT_EQ(sphere.getNumFaces(), faces - 5);
    EXPECT_EQ(sphere.getNumEdges(), edges - 12);
    checkInvariants(sphere);

    const TopoMeshVertex w = sphere.subdivideFace(hole, p);
    ASSERT_TRUE(w);
    EXPECT_EQ(w.point(), p);
    EXPECT_EQ(w.valence(), 6);
    EXPECT_EQ(neighbours(sphere, w), ring);
    EXPECT_EQ(sphere.getNumFaces(), faces);
    EXPECT_EQ(sphere.getNumEdges(), edges);
    EXPECT_EQ(sphere.getNumVertices(), vertices);
    EXPECT_EQ(w, v); // the freed slot is reused
    EXPECT_EQ(checkInvariants(sphere), 0);

    // Valence 3 after two swaps, then deletion leaves one triangle: the reduction pattern.
    TopoMesh grid;
    build(grid, qyTest::makeGrid(4, 4));
    const TopoMeshVertex centre = grid.vertex(12);
    int swapped = 0;
    for (TopoMeshEdgeVertexIterator it(centre); it.valid() && centre.valence() > 3;)
    {
        const TopoMeshEdge spoke = it.edge();
        it.next();
        swapped += grid.swapEdge(spoke);
    }
    EXPECT_EQ(centre.valence(), 3);
    EXPECT_EQ(swapped, 3);
    const TopoMeshFace triangle = grid.deleteVertex(centre);
    ASSERT_TRUE(triangle);
    EXPECT_EQ(triangle.numCorners(), 3);
    checkInvariants(grid);

    // Refusals: a boundary vertex, a deleted vertex.
    EXPECT_FALSE(grid.deleteVertex(grid.vertex(0)));
    EXPECT_FALSE(grid.deleteVertex(centre));
    EXPECT_EQ(checkInvariants(grid), 16);
}

TEST(TopoMesh, SubdivideEdgeAndStridedFaceSplit)
{
    TopoMesh grid;
    build(grid, qyTest::makeGrid(2, 1));
    const int faces = grid.getNumFaces();
    // An interior edge: both faces become quads, the new vertex has four spokes.
    TopoMeshEdge interior;
    for (TopoMeshEdge e = grid.firstEdge(); e && !interior; e = e.nextInList())
        if (e.hasTwin())
            interior = e;
    const TopoMeshVertex a = interior.vertex(), b = interior.endVertex();
    const TopoMeshVertex w = grid.subdivideEdge(interior, {0.5, 0.5, 0});
    ASSERT_TRUE(w);
    EXPECT_EQ(interior.vertex(), a);
    EXPECT_EQ(interior.endVertex(), w);
    EXPECT_EQ(interior.next().endVertex(), b);
    EXPECT_EQ(interior.face().numCorners(), 4);
    EXPECT_EQ(interior.twin().face().numCorners(), 4);
    EXPECT_EQ(w.valence(), 2);
    EXPECT_FALSE(w.onBoundary());
    EXPECT_EQ(grid.getNumFaces(), faces);
    checkInvariants(grid);

    // A boundary edge: the new vertex is on the boundary.
    TopoMeshEdge border;
    for (TopoMeshEdge e = grid.firstEdge(); e && !border; e = e.nextInList())
        if (!e.hasTwin())
            border = e;
    const TopoMeshVertex u = grid.subdivideEdge(border, {0, 0, 0});
    EXPECT_TRUE(u.onBoundary());
    EXPECT_EQ(u.valence(), 2);
    EXPECT_EQ(u.edge().endVertex(), border.next().endVertex());
    EXPECT_EQ(checkInvariants(grid), 7);

    // A quad with its edges split (8 corners) joined at every second corner: four quads.
    TopoMesh quad;
    for (int i = 0; i < 4; ++i)
        quad.allocVertex(i & 1, i >> 1, 0);
    const TopoMeshFace f =
        quad.allocQuad(quad.vertex(0), quad.vertex(1), quad.vertex(3), quad.vertex(2));
    quad.meshTwin();
    EXPECT_EQ(f.centroid(), Point(0.5, 0.5, 0));
    std::vector<TopoMeshEdge> sides;
    for (TopoMeshEdge e = f.edge(); sides.size() < 4; e = e.next())
        sides.push_back(e);
    for (TopoMeshEdge e : sides)
    {
        const Point p = e.vertex().point(), q = e.next().vertex().point();
        quad.subdivideEdge(e, {(p.x + q.x) / 2, (p.y + q.y) / 2, 0});
    }
    EXPECT_EQ(f.numCorners(), 8);
    EXPECT_EQ(f.centroid(), Point(0.5, 0.5, 0));
    // The centroid averages the corners, not the area: a corner moved along a side moves it.
    quad.vertex(4).setPoint({0.5, -1, 0});
    EXPECT_EQ(f.centroid(), Point(0.5, 0.375, 0));
    quad.vertex(4).setPoint({0.5, 0, 0});
    const TopoMeshVertex centre = quad.subdivideFace(f, {0.5, 0.5, 0}, sides[0].next(), 2);
    ASSERT_TRUE(centre);
    EXPECT_EQ(quad.getNumFaces(), 4);
    EXPECT_EQ(quad.getNumVertices(), 9);
    for (TopoMeshFace g = quad.firstFace(); g; g = g.nextInList())
        EXPECT_EQ(g.numCorners(), 4);
    EXPECT_EQ(centre.valence(), 4);
    EXPECT_EQ(quad.vertex(0).valence(), 2);
    EXPECT_EQ(checkInvariants(quad), 8);
    EXPECT_FALSE(quad.subdivideFace(f, {0, 0, 0}, sides[0], 4)); // one corner joined
}

TEST(TopoMesh, HandlesAreOrderedAndHashable)
{
    TopoMesh mesh;
    build(mesh, qyTest::makeCube());
    std::set<TopoMeshEdge> ordered;
    std::unordered_set<TopoMeshEdge> hashed;
    qy::unordered_set<TopoMeshEntity> entities;
    qy::map<TopoMeshVertex, int> byVertex;
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
    {
        ordered.insert(e);
        hashed.insert(e);
        entities.insert(e);
        entities.insert(e.face());
        entities.insert(e.vertex());
        ++byVertex[e.vertex()];
        // Exactly one of a twin pair compares lower.
        EXPECT_NE(e < e.twin(), e.twin() < e);
        EXPECT_EQ(e < e.twin(), e.getIndex() < e.twin().getIndex());
    }
    EXPECT_EQ(ordered.size(), 36u);
    EXPECT_EQ(hashed.size(), 36u);
    EXPECT_EQ(entities.size(), 36u + 12u + 8u);
    EXPECT_EQ(byVertex.size(), 8u);
    // Kinds never collide even with equal indices; handles of two meshes differ.
    EXPECT_NE(TopoMeshEntity(mesh.vertex(0)), TopoMeshEntity(mesh.face(0)));
    EXPECT_LT(TopoMeshEntity(mesh.vertex(5)), TopoMeshEntity(mesh.edge(0)));
    EXPECT_EQ(TopoMeshEntity(mesh.face(3)).asFace(), mesh.face(3));
    EXPECT_FALSE(TopoMeshEntity(mesh.face(3)).asVertex());
    TopoMesh copy(mesh);
    EXPECT_NE(copy.vertex(0), mesh.vertex(0));
    EXPECT_EQ(copy.vertex(0).point(), mesh.vertex(0).point());
    EXPECT_EQ(checkInvariants(copy), 0);
    TopoMesh moved(std::move(copy));
    EXPECT_EQ(copy.getNumFaces(), 0);
    EXPECT_FALSE(copy.firstEdge());
    EXPECT_EQ(moved.getNumFaces(), 12);
    EXPECT_EQ(checkInvariants(moved), 0);

    qy::vector<TopoMeshEntity> adjacent;
    mesh.getAdjacentEntities(mesh.vertex(0), adjacent);
    const int valence = mesh.vertex(0).valence();
    EXPECT_EQ(int(adjacent.size()), 3 * valence); // spokes twice (both ways) and faces
    adjacent.clear();
    mesh.getAdjacentEntities(mesh.face(0), adjacent);
    EXPECT_EQ(adjacent.size(), 6u);
}

TEST(TopoMesh, BoundaryLoopsAndComponents)
{
    // A hemisphere (one rim), a separate triangle, and a second triangle touching the first
    // at one vertex: three loops, two components.
    TopoMesh mesh;
    build(mesh, qyTest::makeHemisphere(4, 12));
    const TopoMeshVertex a = mesh.allocVertex(5, 0, 0), b = mesh.allocVertex(6, 0, 0);
    const TopoMeshVertex c = mesh.allocVertex(5, 1, 0), d = mesh.allocVertex(4, -1, 0);
    const TopoMeshVertex e = mesh.allocVertex(5, -1, 0);
    mesh.allocFace({a, b, c});
    mesh.allocFace({a, d, e});
    const TopoMeshVertex lonely = mesh.allocVertex(9, 9, 9);
    mesh.meshTwin();

    qy::vector<qy::vector<TopoMeshEdge>> loops;
    qyGeom::meshComputeBoundary(mesh, loops);
    ASSERT_EQ(loops.size(), 3u);
    EXPECT_EQ(loops[0].size(), 12u);
    EXPECT_EQ(loops[1].size(), 3u);
    EXPECT_EQ(loops[2].size(), 3u);
    for (const auto& loop : loops)
        for (std::size_t i = 0; i < loop.size(); ++i)
        {
            EXPECT_FALSE(loop[i].hasTwin());
            EXPECT_EQ(loop[i].endVertex(), loop[(i + 1) % loop.size()].vertex());
        }

    qy::Array<int> labels;
    EXPECT_EQ(qyGeom::meshComponents(mesh, &labels), 2);
    EXPECT_EQ(labels[0], 0);
    EXPECT_EQ(labels[std::size_t(a.getIndex())], 1);
    EXPECT_EQ(labels[std::size_t(e.getIndex())], 1);
    EXPECT_EQ(labels[std::size_t(lonely.getIndex())], -1);

    TopoMesh closed;
    build(closed, qyTest::makeTorus(8, 6));
    qyGeom::meshComputeBoundary(closed, loops);
    EXPECT_TRUE(loops.empty());
    EXPECT_EQ(qyGeom::meshComponents(closed), 1);
}

TEST(TopoMesh, RandomFaceListsAndEditsKeepTheStructureSound)
{
    // Random polygons over few vertices: repeated corners, edges of many faces, faces running
    // an edge the same way, vertices where several fans meet. Whatever is accepted, and
    // whatever the edits then do, must leave a sound structure.
    std::mt19937 random(11);
    auto pick = [&](int n) { return int(random() % unsigned(n)); };
    int refused = 0, edits = 0;
    for (int round = 0; round < 30; ++round)
    {
        TopoMesh mesh;
        for (int i = 0; i < 14; ++i)
            mesh.allocVertex(pick(100), pick(100), pick(100));
        for (int f = 0; f < 40; ++f)
        {
            int corners[5];
            const int n = 3 + pick(3);
            for (int k = 0; k < n; ++k)
                corners[k] = pick(14);
            refused += !mesh.allocFace(n, corners);
        }
        mesh.meshTwin();
        checkInvariants(mesh, false);
        for (int step = 0; step < 200; ++step)
        {
            const qyLinear::Point p(pick(100), pick(100), pick(100));
            switch (pick(6))
            {
            case 0:
                edits += mesh.swapEdge(mesh.edge(pick(mesh.getEdgeCapacity())));
                break;
            case 1:
                edits += bool(mesh.deleteVertex(mesh.vertex(pick(mesh.getVertexCapacity()))));
                break;
            case 2:
                if (const TopoMeshFace f = mesh.face(pick(mesh.getFaceCapacity())); mesh.isAlive(f))
                    edits += bool(mesh.subdivideFace(f, p));
                break;
            case 3:
                if (const TopoMeshEdge e = mesh.edge(pick(mesh.getEdgeCapacity())); mesh.isAlive(e))
                    edits += bool(mesh.subdivideEdge(e, p));
                break;
            case 4:
            {
                const int corners[3] = {pick(mesh.getVertexCapacity()),
                                        pick(mesh.getVertexCapacity()),
                                        pick(mesh.getVertexCapacity())};
                edits += bool(mesh.allocFace(3, corners));
                break;
            }
            default:
                mesh.meshTwin();
                break;
            }
            if (step % 20 == 19)
                checkInvariants(mesh, false);
        }
        checkInvariants(mesh, false);
        qy::vector<qy::vector<TopoMeshEdge>> loops;
        qyGeom::meshComputeBoundary(mesh, loops);
        qyGeom::meshComponents(mesh);
    }
    EXPECT_GT(refused, 100);
    EXPECT_GT(edits, 1000);
}

} // namespace
