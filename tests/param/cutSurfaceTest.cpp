#include "qyGeom/cutSurface.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <set>

#include <gtest/gtest.h>

#include "base/AppOutput.h"
#include "base/Progress.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/reparameterizeMesh.h"
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

// The surface of unit cubes ([0, 1]^3 and its translates): one at the origin and `length` more in a
// row along each of the given axis directions (+x, -x, +y, -y, +z, -z as 0 to 5), each cube face
// split into n x n squares of two triangles, outward. A closed genus-0 surface whose arms are long
// thin tubes.
CompactMesh makeJack(int length, int n, const std::vector<int>& arms)
{
    const int step[6][3] = {{1, 0, 0}, {-1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}, {0, 0, -1}};
    std::set<std::array<int, 3>> cubes = {{0, 0, 0}};
    for (int a : arms)
        for (int k = 1; k <= length; ++k)
            cubes.insert({step[a][0] * k, step[a][1] * k, step[a][2] * k});
    std::map<std::array<int, 3>, int> index; // grid point (in 1 / n units) -> vertex
    std::vector<float> xyz;
    std::vector<int> tris;
    auto vertex = [&](const std::array<int, 3>& g)
    {
        auto [it, added] = index.emplace(g, int(xyz.size() / 3));
        if (added)
            for (int k = 0; k < 3; ++k)
                xyz.push_back(float(g[std::size_t(k)]) / float(n));
        return it->second;
    };
    for (const auto& c : cubes)
        for (int axis = 0; axis < 3; ++axis)
            for (int side : {-1, 1})
            {
                std::array<int, 3> next = c;
                next[std::size_t(axis)] += side;
                if (cubes.count(next))
                    continue;
                const int u = (axis + 1) % 3, w = (axis + 2) % 3;
                std::array<int, 3> origin = {c[0] * n, c[1] * n, c[2] * n};
                origin[std::size_t(axis)] += side > 0 ? n : 0;
                for (int i = 0; i < n; ++i)
                    for (int j = 0; j < n; ++j)
                    {
                        auto at = [&](int du, int dw)
                        {
                            std::array<int, 3> g = origin;
                            g[std::size_t(u)] += i + du;
                            g[std::size_t(w)] += j + dw;
                            return vertex(g);
                        };
                        const int a = at(0, 0), b = at(1, 0), d = at(1, 1), e = at(0, 1);
                        if (side > 0)
                            tris.insert(tris.end(), {a, b, d, a, d, e});
                        else
                            tris.insert(tris.end(), {a, d, b, a, e, d});
                    }
            }
    return qyTest::makeMesh(xyz, tris);
}

// UV triangles whose orientation opposes the majority's, and those of zero area.
std::pair<int, int> foldedAndFlat(const CompactMesh& mesh)
{
    const qyGeom::MeshUV* uv = mesh.getUVs();
    const int* t = mesh.getTrianglesRaw();
    int positive = 0, negative = 0;
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
    {
        const qyGeom::MeshUV &a = uv[t[3 * i]], &b = uv[t[3 * i + 1]], &c = uv[t[3 * i + 2]];
        const double area =
            double(b.u - a.u) * double(c.v - a.v) - double(b.v - a.v) * double(c.u - a.u);
        positive += area > 0.0;
        negative += area < 0.0;
    }
    return {std::min(positive, negative), mesh.getNumTriangles() - positive - negative};
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

TEST(CutSurface, CutReachesTheArmsOfAClosedSurfaceSoItsLayoutDoesNotFold)
{
    // Opened by one slit, a closed surface flattens with its scale shrinking exponentially
    // along every arm the slit misses, until the float UVs there fold or lose their area. The
    // cut runs out to the end of every arm, the surface stays one disk, and the layout of the
    // cut mesh has no folded and no flat triangle.
    struct Case
    {
        const char* name;
        int length;
        std::vector<int> arms;
    };
    const Case cases[] = {{"four arms in a plane", 10, {0, 1, 2, 3}},
                          {"three arms", 12, {0, 2, 5}}};
    auto sink = qyOS::AppOutput::getInstance().setSink([](qyOS::AppOutput::Kind, const char*) {});
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const CompactMesh original = makeJack(c.length, 2, c.arms);
        CompactMesh mesh = original;
        qyGeom::CutRegion region;
        ASSERT_TRUE(qyGeom::cutSurface(mesh, region, true));
        expectDisk(mesh, original, region);
        // The cut reaches the last cube of every arm (cube k spans [k, k + 1] along its axis).
        for (int a : c.arms)
        {
            const int axis = a / 2;
            const float end = (a % 2 ? -1.0f : 1.0f) * float(c.length) + (a % 2 ? 0.0f : 1.0f);
            bool reached = false;
            for (int v : region.edges)
                reached = reached || std::fabs(original.getVertices()[v][axis] - end) <= 1.0f;
            EXPECT_TRUE(reached) << "arm " << a;
        }

        qyGeom::reparameterizeMesh flattener(mesh);
        flattener.enableMeshCompact(false); // welding would close the cut again
        ASSERT_TRUE(flattener.flatten());
        ASSERT_NE(mesh.getUVs(), nullptr);
        const auto [folded, flat] = foldedAndFlat(mesh);
        EXPECT_EQ(folded, 0);
        EXPECT_EQ(flat, 0);

        // The same cut with one thread.
        qyTest::ScopedThreadCount one(1);
        CompactMesh again = original;
        qyGeom::CutRegion region1;
        ASSERT_TRUE(qyGeom::cutSurface(again, region1, true));
        EXPECT_EQ(region1.edges, region.edges);
    }
    qyOS::AppOutput::getInstance().setSink(sink);

    // A surface that already has a boundary keeps it as its only cut, however it bulges.
    CompactMesh dome = qyTest::makeHemisphere(20, 40);
    qyGeom::CutRegion none;
    EXPECT_FALSE(qyGeom::cutSurface(dome, none, true));
    EXPECT_EQ(none.getNumEdges(), 0);
}

TEST(CutSurface, CancelledAnywhereLeavesMeshAndRegionAsTheyCameAndExtremitiesAreAnOption)
{
    const CompactMesh original = makeJack(8, 2, {0, 1, 2});
    // Count the polls of a whole cut, then cancel at each in turn.
    int polls = 0;
    {
        CompactMesh mesh = original;
        qyGeom::CutRegion region;
        qyUtil::Progress progress({}, [&] { return ++polls < 0; });
        ASSERT_TRUE(qyGeom::cutSurface(mesh, region, true, progress));
    }
    ASSERT_GT(polls, 3);
    for (int k = 1; k <= polls; ++k)
    {
        SCOPED_TRACE(k);
        CompactMesh mesh = original;
        qyGeom::CutRegion region;
        int count = 0;
        qyUtil::Progress progress({}, [&] { return ++count >= k; });
        EXPECT_FALSE(qyGeom::cutSurface(mesh, region, true, progress));
        EXPECT_EQ(mesh.getNumVertices(), original.getNumVertices());
        EXPECT_TRUE(std::equal(mesh.getTrianglesRaw(),
                               mesh.getTrianglesRaw() + 3 * mesh.getNumTriangles(),
                               original.getTrianglesRaw()));
        EXPECT_TRUE(region.edges.empty());
        EXPECT_TRUE(region.originalVertex.empty());
    }

    // Without the extremities the cut is the plain tree-cotree one: still a disk, shorter.
    CompactMesh full = original, plain = original;
    qyGeom::CutRegion fullRegion, plainRegion;
    qyUtil::Progress progress;
    ASSERT_TRUE(qyGeom::cutSurface(full, fullRegion, true, progress, true));
    ASSERT_TRUE(qyGeom::cutSurface(plain, plainRegion, true, progress, false));
    expectDisk(plain, original, plainRegion);
    EXPECT_LT(plainRegion.getNumEdges(), fullRegion.getNumEdges());
}
