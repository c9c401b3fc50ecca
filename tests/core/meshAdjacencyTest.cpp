#include "qyGeom/meshAdjacency.h"

#include <algorithm>
#include <map>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "model/ArrayOfSets.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshSubset.h"
#include "model/Remap.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshComponents.h"
#include "testMeshes.h"

using namespace qyGeom;
using Sets = std::vector<std::vector<int>>;

namespace
{

struct Adjacency
{
    MeshAdjTris tris;
    MeshAdjVertices verts;
    MeshTriAdjTris triTris;
    MeshBoundaries loops;
};

Adjacency build(const CompactMesh& mesh)
{
    Adjacency a;
    meshAdjTris(mesh, a.tris);
    meshAdjVertices(mesh, a.tris, a.verts);
    meshTriAdjTris(mesh, a.triTris);
    meshComputeBoundary(mesh, a.tris, a.verts, a.loops);
    return a;
}

template <class S> Sets setsOf(const S& s, int n)
{
    Sets out(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
        out[std::size_t(i)].assign(s.triIndices(i), s.triIndices(i) + s.numTris(i));
    return out;
}
Sets setsOf(const MeshAdjVertices& s)
{
    Sets out(static_cast<std::size_t>(s.getNumVertices()));
    for (int v = 0; v < s.getNumVertices(); ++v)
        out[std::size_t(v)].assign(s.vertexIndices(v), s.vertexIndices(v) + s.numVertices(v));
    return out;
}
Sets loopsOf(const MeshBoundaries& b)
{
    Sets out;
    for (int i = 0; i < b.size(); ++i)
        out.emplace_back(b.getStart(i), b.getEnd(i));
    return out;
}

// Straightforward references: per-vertex lists, an ordered edge multimap, a flood fill and
// the boundary walk tried from every vertex.
struct Reference
{
    Sets tris, verts, triTris, loops;
    std::vector<int> labels;
    int components = 0;
};

Reference reference(const CompactMesh& mesh, const Adjacency& a)
{
    Reference r;
    const int nv = mesh.getNumVertices(), nt = mesh.getNumTriangles();
    const MeshTriangle* t = mesh.getTriangles();
    r.tris.resize(std::size_t(nv));
    for (int i = 0; i < nt; ++i)
        for (int k = 0; k < 3; ++k)
            r.tris[std::size_t(t[i][k])].push_back(i);
    for (int v = 0; v < nv; ++v)
    {
        r.verts.emplace_back();
        for (int i : r.tris[std::size_t(v)])
            for (int k = 0; k < 3; ++k)
                if (t[i][k] != v &&
                    std::count(r.verts.back().begin(), r.verts.back().end(), t[i][k]) == 0)
                    r.verts.back().push_back(t[i][k]);
    }
    std::multimap<std::pair<int, int>, int> edges;
    auto key = [&](int i, int e)
    {
        const int p = t[i][e], q = t[i][(e + 1) % 3];
        return std::make_pair(std::min(p, q), std::max(p, q));
    };
    for (int i = 0; i < nt; ++i)
        for (int e = 0; e < 3; ++e)
            edges.emplace(key(i, e), i);
    r.triTris.resize(std::size_t(nt));
    for (int i = 0; i < nt; ++i)
        for (int e = 0; e < 3; ++e)
            for (auto [it, end] = edges.equal_range(key(i, e)); it != end; ++it)
                if (it->second != i)
                    r.triTris[std::size_t(i)].push_back(it->second);
    r.labels.assign(std::size_t(nv), -1);
    std::vector<bool> seen(static_cast<std::size_t>(nt));
    for (int s = 0; s < nt; ++s)
    {
        if (seen[std::size_t(s)])
            continue;
        std::vector<int> stack{s};
        seen[std::size_t(s)] = true;
        while (!stack.empty())
        {
            const int i = stack.back();
            stack.pop_back();
            for (int k = 0; k < 3; ++k)
            {
                r.labels[std::size_t(t[i][k])] = r.components;
                for (int u : r.tris[std::size_t(t[i][k])])
                    if (!seen[std::size_t(u)])
                        stack.push_back(u), seen[std::size_t(u)] = true;
            }
        }
        ++r.components;
    }
    std::vector<bool> visited(static_cast<std::size_t>(nv));
    for (int s = 0; s < nv; ++s)
    {
        if (visited[std::size_t(s)])
            continue;
        visited[std::size_t(s)] = true;
        std::vector<int> loop;
        for (int v = s, next; Boundary::walkBoundary(v, next, mesh, a.tris, a.verts); v = next)
        {
            loop.push_back(v);
            if (visited[std::size_t(next)])
                break;
            visited[std::size_t(next)] = true;
        }
        if (!loop.empty())
            r.loops.push_back(loop);
    }
    return r;
}

// Triangles near each other in index over few vertices: boundary, manifold and non-manifold
// edges, repeated corners and large edge buckets, enough triangles to use the pool.
CompactMesh tangle(int numTris, int numVerts)
{
    std::mt19937 rng(7);
    std::vector<int> tris;
    for (int i = 0; i < 3 * numTris; i += 3)
    {
        const int base = int(rng() % unsigned(numVerts - 9));
        for (int k = 0; k < 3; ++k)
            tris.push_back(base + int(rng() % 10));
    }
    return qyTest::makeMesh(std::vector<float>(3 * std::size_t(numVerts), 0.0f), tris);
}

} // namespace

TEST(MeshAdjacency, EmptyMeshAndSingleTriangle)
{
    qyTest::DebugCapture capture;
    const Adjacency empty = build(CompactMesh());
    EXPECT_EQ(empty.tris.getNumVertices(), 0);
    EXPECT_EQ(empty.verts.getNumVertices(), 0);
    EXPECT_EQ(empty.verts.getMaxValence(), 0);
    EXPECT_EQ(empty.triTris.getNumTriangles(), 0);
    EXPECT_EQ(empty.loops.size(), 0);
    EXPECT_EQ(meshComponents(CompactMesh(), empty.tris), 0);
    const std::string f = "[0-9]+\\.[0-9]{6}";
    EXPECT_TRUE(std::regex_match(capture.text(),
                                 std::regex("MeshAdjTris: 0 vertices 0 triangles " + f +
                                            "\nMeshAdjVertices: 0 vertices, 0 triangles: " + f +
                                            " s\nMeshTriAdjTris: 0 vertices 0 triangles " + f +
                                            "\nmeshComponents\\(\\): 0 triangles\n   0 "
                                            "components: " +
                                            f + " s\n")))
        << capture.text();

    const CompactMesh one = qyTest::testMeshes::get("one triangle");
    const Adjacency a = build(one);
    EXPECT_EQ(setsOf(a.tris, 3), (Sets{{0}, {0}, {0}}));
    EXPECT_EQ(setsOf(a.verts), (Sets{{1, 2}, {0, 2}, {0, 1}}));
    EXPECT_EQ(setsOf(a.triTris, 1), (Sets{{}}));
    EXPECT_EQ(loopsOf(a.loops), (Sets{{0, 1, 2}}));
    EXPECT_EQ(meshComponents(one, a.tris), 1);
}

TEST(MeshAdjacency, OrdersFollowTrianglesEdgesAndCorners)
{
    // (0, 1) is shared by T0, T1, T2; T3 meets T0 across (1, 2) and T1 across (1, 3); T5 runs
    // (1, 2) twice; T4 repeats vertex 5; vertex 7 is unused.
    const CompactMesh mesh = qyTest::makeMesh(
        std::vector<float>(24, 0.0f), {0, 1, 2, 1, 0, 3, 0, 1, 4, 2, 1, 3, 5, 5, 6, 1, 2, 1});
    const Adjacency a = build(mesh);
    EXPECT_EQ(setsOf(a.tris, 8),
              (Sets{{0, 1, 2}, {0, 1, 2, 3, 5, 5}, {0, 3, 5}, {1, 3}, {2}, {4, 4}, {4}, {}}));
    EXPECT_EQ(setsOf(a.verts),
              (Sets{{1, 2, 3, 4}, {0, 2, 3, 4}, {0, 1, 3}, {1, 0, 2}, {0, 1}, {6}, {5}, {}}));
    EXPECT_EQ(a.verts.getMaxValence(), 4);
    EXPECT_EQ(setsOf(a.triTris, 6),
              (Sets{{1, 2, 3, 5, 5}, {0, 2, 3}, {0, 1}, {0, 5, 5, 1}, {}, {0, 3, 0, 3}}));
    qy::Array<int> labels;
    EXPECT_EQ(meshComponents(mesh, a.tris, &labels), 2);
    EXPECT_EQ(labels, (std::vector<int>{0, 0, 0, 0, 0, 1, 1, -1}));

    // A triangle naming a vertex that does not exist is left out of everything.
    const CompactMesh stray = qyTest::makeMesh(std::vector<float>(9, 0.0f), {0, 1, 2, 1, 0, 9});
    const Adjacency b = build(stray);
    EXPECT_EQ(setsOf(b.tris, 3), (Sets{{0}, {0}, {0}}));
    EXPECT_EQ(setsOf(b.triTris, 2), (Sets{{}, {}}));
    EXPECT_EQ(meshComponents(stray, b.tris), 1);
}

TEST(MeshAdjacency, MatchesStraightforwardReferencesWithAnyThreadCount)
{
    std::vector<qyTest::TestMesh> meshes = qyTest::testMeshes::all();
    meshes.push_back({"grid", qyTest::makeGrid(5, 4)});
    meshes.push_back(
        {"bowtie", qyTest::makeMesh(std::vector<float>(15, 0.0f), {0, 1, 4, 2, 3, 4})});
    meshes.push_back({"uv sphere", qyTest::makeUVSphere(60, 200)});
    meshes.push_back({"hemisphere", qyTest::makeHemisphere(8, 40)});
    meshes.push_back({"tangle", tangle(30000, 3000)});
    // Unreferenced vertices at the start, in the middle and at the end leave whole edge
    // batches and thread shares without a single edge.
    meshes.push_back({"unused first", qyTest::makeMesh({9, 9, 9, 8, 8, 8, 7, 7, 7, 6, 6,
                                                        6, 0, 0, 0, 1, 0, 0, 0, 1, 0},
                                                       {4, 5, 6})});
    meshes.push_back(
        {"padded sphere", qyTest::withUnusedVertices(qyTest::makeUVSphere(60, 200), 20000, 37, 5)});
    meshes.push_back(
        {"padded tangle", qyTest::withUnusedVertices(tangle(30000, 3000), 5, 3000, 40000)});
    for (const qyTest::TestMesh& m : meshes)
        for (int threads : {1, 2, 3})
        {
            SCOPED_TRACE(m.name + ", threads " + std::to_string(threads));
            qyTest::ScopedThreadCount scope(threads);
            const Adjacency a = build(m.mesh);
            const Reference r = reference(m.mesh, a);
            const int nv = m.mesh.getNumVertices(), nt = m.mesh.getNumTriangles();
            EXPECT_EQ(setsOf(a.tris, nv), r.tris);
            EXPECT_EQ(setsOf(a.verts), r.verts);
            EXPECT_EQ(setsOf(a.triTris, nt), r.triTris);
            EXPECT_EQ(loopsOf(a.loops), r.loops);
            qy::Array<int> labels{5, 5};
            EXPECT_EQ(meshComponents(m.mesh, a.tris, &labels), r.components);
            EXPECT_EQ(labels, r.labels);
        }
}

TEST(MeshAdjacency, SortAdjTrisWalksTheFanAndStopsWhereItBreaks)
{
    const CompactMesh grid = qyTest::makeGrid(2, 2); // vertex 4 in the middle
    const MeshTriangle* t = grid.getTriangles();
    std::vector<int> out;
    const int inner[] = {0, 1, 3, 4, 6, 7};
    sortAdjTris(4, 6, inner, t, out);
    EXPECT_EQ(out, (std::vector<int>{0, 3, 6, 7, 4, 1}));
    // Vertex 1 is on the boundary: from T2 the fan reaches T3 and T0; from T3 it reaches T0
    // and stops at the boundary, leaving T2 last.
    const int edge[] = {2, 0, 3}, broken[] = {3, 0, 2};
    sortAdjTris(1, 3, edge, t, out);
    EXPECT_EQ(out, (std::vector<int>{2, 3, 0}));
    sortAdjTris(1, 3, broken, t, out);
    EXPECT_EQ(out, (std::vector<int>{3, 0, 2}));
    sortAdjTris(1, 0, broken, t, out);
    EXPECT_TRUE(out.empty());
}

TEST(MeshAdjacency, SharedEdgeAdjacentTriangleGivesTheNeighbourAndItsEdge)
{
    const CompactMesh grid = qyTest::makeGrid(2, 2);
    MeshAdjTris adj;
    meshAdjTris(grid, adj);
    int tri = 0, edge = 7;
    // T0 = (0, 1, 4) runs 0 -> 1 on the boundary: no neighbour, tri left alone.
    EXPECT_FALSE(getSharedEdgeAdjacentTriangle(tri, 0, grid.getTriangles(), adj, tri, edge));
    EXPECT_EQ(tri, 0);
    EXPECT_EQ(edge, -1);
    // Across 1 -> 4 lies T3 = (1, 5, 4), whose edge 2 runs 4 -> 1; across its 5 -> 4, T6.
    EXPECT_TRUE(getSharedEdgeAdjacentTriangle(tri, 1, grid.getTriangles(), adj, tri, edge));
    EXPECT_EQ(tri, 3);
    EXPECT_EQ(edge, 2);
    EXPECT_TRUE(getSharedEdgeAdjacentTriangle(tri, 1, grid.getTriangles(), adj, tri, edge));
    EXPECT_EQ(tri, 6);
    EXPECT_EQ(edge, 0);
}

TEST(MeshComputeBoundary, LoopsOfOpenClosedAndTouchingSurfaces)
{
    auto loops = [](const CompactMesh& mesh) { return loopsOf(build(mesh).loops); };
    EXPECT_EQ(loops(qyTest::makeGrid(2, 2)), (Sets{{0, 1, 2, 5, 8, 7, 6, 3}}));
    EXPECT_EQ(loops(qyTest::makeCube()), Sets{});
    EXPECT_EQ(loops(qyTest::makeUVSphere(8, 12)), Sets{});
    // Two triangles meeting at vertex 4: the first loop takes it, the second stops there.
    EXPECT_EQ(loops(qyTest::makeMesh(std::vector<float>(15, 0.0f), {0, 1, 4, 2, 3, 4})),
              (Sets{{0, 1, 4}, {2, 3}}));
    const Adjacency hemi = build(qyTest::makeHemisphere(5, 16));
    ASSERT_EQ(hemi.loops.size(), 1);
    EXPECT_EQ(hemi.loops.getLength(0), 16);
}

TEST(MeshComputeBoundary, SubsetLoopsAreThoseOfTheRegionAlone)
{
    const CompactMesh sphere = qyTest::makeUVSphere(10, 16);
    const Adjacency a = build(sphere);
    // The cap down to ring 4 (7 of the 18 triangles of each segment) and a triangle of the next
    // band that touches it at one vertex; walked as a mesh of their own.
    std::vector<int> region;
    for (int t = 0; t < sphere.getNumTriangles(); ++t)
        if (t % 18 < 7)
            region.push_back(t);
    region.push_back(5 * 18 + 7);
    std::vector<int> listed = region; // unordered, with a duplicate
    listed.push_back(region[0]);
    std::sort(region.begin(), region.end());
    const MeshSubset subset({}, listed);
    ArrayOfSets sets;
    Remap toSubset;
    const int n = meshSubsetAdjTris(sphere, subset, a.tris, sets, toSubset);

    std::vector<int> localTris, toMesh(static_cast<std::size_t>(n));
    for (int t : region)
        for (int k = 0; k < 3; ++k)
            localTris.push_back(toSubset(sphere.getTriangles()[t][k]));
    for (int v = 0; v < sphere.getNumVertices(); ++v)
        if (toSubset(v) >= 0)
            toMesh[std::size_t(toSubset(v))] = v;
    Sets expected =
        loopsOf(build(qyTest::makeMesh(std::vector<float>(3 * std::size_t(n)), localTris)).loops);
    for (std::vector<int>& loop : expected)
        for (int& v : loop)
            v = toMesh[std::size_t(v)];
    // The rim of the cap (ring 4), then the triangle, which stops at the vertex the rim took.
    ASSERT_EQ(expected.size(), 2u);
    EXPECT_EQ(expected[0].size(), 16u);
    EXPECT_EQ(expected[1].size(), 2u);

    MeshBoundaries given, built;
    meshComputeSubsetBoundary(sphere, subset, n, a.tris, a.verts, sets, toSubset, given);
    meshComputeSubsetBoundary(sphere, subset, 0, a.tris, a.verts, ArrayOfSets(), Remap(), built);
    EXPECT_EQ(loopsOf(given), expected);
    EXPECT_EQ(loopsOf(built), expected);
}

TEST(MeshComponents, JoinThroughSharedVerticesInOrderOfLowestTriangle)
{
    // T2 joins T0 and T1 through single vertices after both were seen; T3 stands alone and
    // vertex 10 is unused.
    const CompactMesh mesh =
        qyTest::makeMesh(std::vector<float>(33, 0.0f), {0, 1, 2, 3, 4, 5, 2, 3, 6, 7, 8, 9});
    MeshAdjTris adj;
    meshAdjTris(mesh, adj);
    qy::Array<int> labels;
    EXPECT_EQ(meshComponents(mesh, adj, &labels), 2);
    EXPECT_EQ(labels, (std::vector<int>{0, 0, 0, 0, 0, 0, 0, 1, 1, 1, -1}));
    MeshTriAdjTris triTris;
    meshTriAdjTris(mesh, triTris);
    EXPECT_EQ(setsOf(triTris, 4), (Sets{{}, {}, {}, {}}));
    EXPECT_EQ(meshComponents(mesh, adj), 2);
}
