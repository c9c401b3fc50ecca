// Tests of the half-edge mesh: building and twinning, walks, the edits and the handles.
#include "model/TopoMesh.h"

#include <algorithm>
#include <array>
#include <cmath>
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

// Neighbour masks only let swapEdge skip its ring walk: two copies of a mesh, one with masks
// and one without, must agree on every swap through random swaps, deletions, face and edge
// splits and new faces (the last two drop the masks, which are then built again). A mask
// that missed an edge would let a swap duplicate it.
TEST(TopoMesh, NeighbourMasksNeverChangeASwap)
{
    for (const bool closed : {true, false})
    {
        TopoMesh plain;
        build(plain, closed ? qyTest::makeIcosphere(2) : qyTest::makeGrid(9, 9));
        TopoMesh masked(plain);
        masked.buildNeighbourMasks();
        std::mt19937 random(closed ? 5 : 6);
        auto pick = [&](int n) { return int(random() % unsigned(n)); };
        int swaps = 0, refusals = 0;
        for (int step = 0; step < 6000; ++step)
        {
            const int kind = pick(40);
            if (kind < 34)
            {
                const int e = pick(plain.getEdgeCapacity());
                const bool done = plain.swapEdge(plain.edge(e));
                ASSERT_EQ(masked.swapEdge(masked.edge(e)), done) << "step " << step;
                swaps += done;
                refusals += !done && plain.isAlive(plain.edge(e)) && plain.edge(e).hasTwin();
            }
            else if (kind < 37)
            {
                const int v = pick(plain.getVertexCapacity());
                const TopoMeshFace f = plain.deleteVertex(plain.vertex(v));
                const TopoMeshFace g = masked.deleteVertex(masked.vertex(v));
                ASSERT_EQ(f.getIndex(), g.getIndex());
                // Put a vertex back into the hole, as a refused removal does.
                if (f)
                {
                    ASSERT_EQ(plain.subdivideFace(f, Point(0, 0, 0)).getIndex(),
                              masked.subdivideFace(g, Point(0, 0, 0)).getIndex());
                }
            }
            else if (kind < 39)
            {
                const int f = pick(plain.getFaceCapacity());
                if (plain.isAlive(plain.face(f)))
                {
                    ASSERT_EQ(plain.subdivideFace(plain.face(f), Point(1, 2, 3)).getIndex(),
                              masked.subdivideFace(masked.face(f), Point(1, 2, 3)).getIndex());
                }
            }
            else
            {
                const int e = pick(plain.getEdgeCapacity());
                if (plain.isAlive(plain.edge(e)))
                {
                    ASSERT_EQ(plain.subdivideEdge(plain.edge(e), Point(0, 1, 0)).getIndex(),
                              masked.subdivideEdge(masked.edge(e), Point(0, 1, 0)).getIndex());
                    masked.buildNeighbourMasks();
                }
            }
        }
        EXPECT_GT(swaps, 1000);
        EXPECT_GT(refusals, 500);
        checkInvariants(masked, false);
        // A copy and a moved mesh keep their masks.
        TopoMesh copy(masked);
        TopoMesh moved(std::move(copy));
        for (int e = 0; e < plain.getEdgeCapacity(); ++e)
            ASSERT_EQ(moved.swapEdge(moved.edge(e)), plain.swapEdge(plain.edge(e)));
    }
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

// meshTwin against its rule, on a closed mesh taking random polygons and random edits, with
// pairs made before, free slots and vertices whose half-edge is not their lowest: a twinless
// a->b pairs with b->a when each is the only twinless half-edge of its direction; every
// vertex then leaves by its lowest-numbered twinless half-edge, or keeps the one it had;
// nothing else moves. Valences are compared with a walk, which the shortcut for meshes of
// single fans must agree with.
TEST(TopoMesh, MeshTwinFollowsThePairingRule)
{
    std::mt19937 random(5);
    auto pick = [&](int n) { return int(random() % unsigned(n)); };
    int paired = 0, kept = 0, checked = 0;
    for (int round = 0; round < 40; ++round)
    {
        // The torus's triangles come in two parts, twinned after each: the second part pairs
        // with the first across its border.
        const CompactMesh torus = qyTest::makeTorus(4 + round % 5, 5);
        const int numTris = torus.getNumTriangles(), firstPart = numTris * 3 / 5;
        TopoMesh mesh;
        for (int v = 0; v < torus.getNumVertices(); ++v)
            mesh.allocVertex(torus.getVertices()[v].asPoint());
        for (int t = 0; t < firstPart; ++t)
            mesh.allocFace(3, torus.getTrianglesRaw() + 3 * t);
        // Odd rounds grow a hub: triangles from one vertex to random pairs of a ring of 8,
        // whose edges soon run through several faces, either way, at vertices of many corners.
        std::vector<TopoMeshVertex> hub;
        for (int i = 0; round % 2 == 1 && i < 9; ++i)
            hub.push_back(mesh.allocVertex(pick(100), pick(100), pick(100)));
        for (int step = 0; step < 12; ++step)
        {
            for (int f = 0; !hub.empty() && step >= 2 && f < 6; ++f)
            {
                const int i = 1 + pick(8), j = 1 + pick(8);
                if (i != j)
                    mesh.allocTriangle(hub[0], hub[std::size_t(i)], hub[std::size_t(j)]);
            }
            for (int t = firstPart; step == 1 && t < numTris; ++t)
                mesh.allocFace(3, torus.getTrianglesRaw() + 3 * t);
            for (int f = 0, n = step < 2 ? 0 : pick(4); f < n; ++f)
            {
                int corners[4];
                const int k = 3 + pick(2);
                for (int c = 0; c < k; ++c)
                    corners[c] = pick(mesh.getVertexCapacity());
                mesh.allocFace(k, corners);
            }
            for (int e = 0; step >= 2 && e < 6; ++e)
            {
                const int pickEdge = pick(mesh.getEdgeCapacity());
                if (pick(3) != 0)
                    mesh.swapEdge(mesh.edge(pickEdge));
                else
                    mesh.deleteVertex(mesh.vertex(pick(mesh.getVertexCapacity())));
            }

            // The rule, on a copy of the arrays taken just before.
            std::vector<TopoMesh::HalfEdge> edges(std::size_t(mesh.getEdgeCapacity()));
            for (int e = 0; e < mesh.getEdgeCapacity(); ++e)
                edges[std::size_t(e)] = mesh.getHalfEdge(e);
            std::vector<int> vertexEdge, degree;
            for (int v = 0; v < mesh.getVertexCapacity(); ++v)
            {
                vertexEdge.push_back(mesh.getVertexEdge(v));
                degree.push_back(mesh.getVertexDegree(v));
            }
            std::map<std::pair<int, int>, std::vector<int>> twinless;
            for (int e = 0; e < int(edges.size()); ++e)
            {
                const TopoMesh::HalfEdge& h = edges[std::size_t(e)];
                if (h.vertex >= 0 && h.twin < 0)
                    twinless[{h.vertex, edges[std::size_t(h.next)].vertex}].push_back(e);
            }
            std::vector<TopoMesh::HalfEdge> expected = edges;
            for (const auto& [direction, list] : twinless)
            {
                const auto opposite = twinless.find({direction.second, direction.first});
                if (list.size() == 1 && opposite != twinless.end() && opposite->second.size() == 1)
                    expected[std::size_t(list[0])].twin = opposite->second[0];
            }
            std::map<int, int> lowestTwinless;
            for (int e = int(expected.size()) - 1; e >= 0; --e)
                if (expected[std::size_t(e)].vertex >= 0 && expected[std::size_t(e)].twin < 0)
                    lowestTwinless[expected[std::size_t(e)].vertex] = e;
            for (const auto& [v, e] : lowestTwinless)
                vertexEdge[std::size_t(v)] = e;

            mesh.meshTwin();
            ASSERT_EQ(mesh.getEdgeCapacity(), int(expected.size()));
            for (int e = 0; e < mesh.getEdgeCapacity(); ++e)
            {
                const TopoMesh::HalfEdge& h = mesh.getHalfEdge(e);
                const TopoMesh::HalfEdge& x = expected[std::size_t(e)];
                EXPECT_EQ(h.vertex, x.vertex);
                EXPECT_EQ(h.face, x.face);
                EXPECT_EQ(h.next, x.next);
                EXPECT_EQ(h.prev, x.prev);
                EXPECT_EQ(h.twin, x.twin) << "half-edge " << e;
                paired += x.twin >= 0 && edges[std::size_t(e)].twin < 0;
            }
            for (int v = 0; v < mesh.getVertexCapacity(); ++v)
            {
                EXPECT_EQ(mesh.getVertexEdge(v), vertexEdge[std::size_t(v)]) << "vertex " << v;
                EXPECT_EQ(mesh.getVertexDegree(v), degree[std::size_t(v)]);
                kept += vertexEdge[std::size_t(v)] >= 0 &&
                        vertexEdge[std::size_t(v)] == mesh.getVertexEdge(v) &&
                        mesh.getHalfEdge(vertexEdge[std::size_t(v)]).twin >= 0;
                if (!mesh.isAlive(mesh.vertex(v)))
                    continue;
                int spokes = 0;
                for (TopoMeshEdgeVertexIterator it(mesh.vertex(v)); it.valid(); it.next())
                    ++spokes;
                bool boundary = false;
                EXPECT_EQ(mesh.fanValence(v, boundary), spokes);
                EXPECT_EQ(mesh.vertex(v).valence(), spokes);
                ++checked;
            }
        }
    }
    EXPECT_GT(paired, 200);
    EXPECT_GT(kept, 1000);
    EXPECT_GT(checked, 5000);
}

// A vertex with more leaving half-edges than 16 bits count: its degree, valence and walk,
// through the edits that change the count and through meshTwin, copy and clear.
TEST(TopoMesh, DegreesPastSixteenBits)
{
    TopoMesh mesh;
    const int n = 70000;
    const TopoMeshVertex centre = mesh.allocVertex(0, 0, 0);
    std::vector<TopoMeshVertex> ring;
    const double step = 6.283185307179586 / n;
    for (int i = 0; i < n; ++i)
        ring.push_back(mesh.allocVertex(std::cos(i * step), std::sin(i * step), 0));
    for (int i = 0; i < n; ++i)
    {
        mesh.allocTriangle(centre, ring[std::size_t(i)], ring[std::size_t((i + 1) % n)]);
        if (i == 65533 || i == 65534)
        {
            EXPECT_EQ(mesh.getVertexDegree(centre.getIndex()), i + 1);
        }
    }
    mesh.meshTwin();
    EXPECT_EQ(mesh.getVertexDegree(centre.getIndex()), n);
    EXPECT_EQ(centre.valence(), n);
    EXPECT_FALSE(centre.onBoundary());
    EXPECT_EQ(ring[5].valence(), 3);
    EXPECT_TRUE(ring[5].onBoundary());
    int spokes = 0;
    for (TopoMeshEdgeVertexIterator it(centre); it.valid(); it.next())
        spokes += it.otherVertex() != centre;
    EXPECT_EQ(spokes, n);

    // Swapping the spoke to ring vertex 2 takes one from the centre and gives one to ring
    // vertices 1 and 3, which join.
    EXPECT_TRUE(mesh.swapEdge(mesh.findEdge(centre, ring[2])));
    EXPECT_EQ(mesh.getVertexDegree(centre.getIndex()), n - 1);
    EXPECT_EQ(centre.valence(), n - 1);
    const TopoMesh copy(mesh);
    EXPECT_EQ(copy.getVertexDegree(centre.getIndex()), n - 1);
    checkInvariants(mesh);

    // The centre's removal leaves one face over its ring (all ring vertices but 2); a new
    // centre splits it again.
    const TopoMeshFace hole = mesh.deleteVertex(centre);
    ASSERT_TRUE(hole);
    EXPECT_EQ(hole.numCorners(), n - 1);
    const TopoMeshVertex apex = mesh.subdivideFace(hole, {0, 0, 1});
    EXPECT_EQ(mesh.getVertexDegree(apex.getIndex()), n - 1);
    EXPECT_EQ(apex.valence(), n - 1);
    checkInvariants(mesh);
    mesh.meshTwin();
    EXPECT_EQ(apex.valence(), n - 1);
    checkInvariants(mesh);

    mesh.clear();
    const TopoMeshVertex a = mesh.allocVertex(0, 0, 0), b = mesh.allocVertex(1, 0, 0),
                         c = mesh.allocVertex(0, 1, 0);
    mesh.allocTriangle(a, b, c);
    mesh.meshTwin();
    EXPECT_EQ(a.valence(), 2);
    EXPECT_EQ(mesh.getVertexDegree(a.getIndex()), 1);
}

// Tags read -1 until one is set and take no room until then; once they exist, new and reused
// slots read -1 again and a split face keeps its tag.
TEST(TopoMesh, TagsTakeRoomOnlyOnceSet)
{
    TopoMesh mesh;
    build(mesh, qyTest::makeUVSphere(6, 8));
    const std::size_t untagged = mesh.getSizeInBytes();
    for (TopoMeshVertex v = mesh.firstVertex(); v; v = v.nextInList())
        EXPECT_EQ(v.getTag(), -1);
    mesh.vertex(3).setTag(-1);
    mesh.face(2).setTag(-1);
    EXPECT_EQ(mesh.getSizeInBytes(), untagged);

    mesh.vertex(3).setTag(30);
    mesh.face(2).setTag(20);
    const std::size_t tags = sizeof(int) * std::size_t(mesh.getNumVertices() + mesh.getNumFaces());
    EXPECT_GE(mesh.getSizeInBytes(), untagged + tags);
    EXPECT_EQ(mesh.vertex(3).getTag(), 30);
    EXPECT_EQ(mesh.vertex(4).getTag(), -1);
    EXPECT_EQ(mesh.face(2).getTag(), 20);
    EXPECT_EQ(mesh.face(1).getTag(), -1);

    const TopoMeshVertex added = mesh.allocVertex(9, 9, 9);
    EXPECT_EQ(added.getTag(), -1);
    added.setTag(7);
    const int firstNewFace = mesh.getFaceCapacity();
    const TopoMeshVertex centre = mesh.subdivideFace(mesh.face(2), {0, 0, 0});
    EXPECT_EQ(centre.getTag(), -1);
    EXPECT_EQ(mesh.face(2).getTag(), 20);
    for (int f = firstNewFace; f < mesh.getFaceCapacity(); ++f)
        EXPECT_EQ(mesh.face(f).getTag(), -1);

    // A deleted vertex's slot comes back untagged.
    ASSERT_TRUE(mesh.deleteIsolatedVertex(added));
    EXPECT_EQ(mesh.allocVertex(1, 1, 1), added);
    EXPECT_EQ(added.getTag(), -1);

    const TopoMesh copy(mesh);
    EXPECT_EQ(copy.getVertexTag(3), 30);
    EXPECT_EQ(copy.getFaceTag(2), 20);
    mesh.clear();
    build(mesh, qyTest::makeUVSphere(6, 8));
    EXPECT_EQ(mesh.vertex(3).getTag(), -1);
    EXPECT_LT(mesh.getSizeInBytes(), untagged + tags); // only the edits' scratch lists stay
}

} // namespace
