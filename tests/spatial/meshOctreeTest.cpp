#include "qyGeom/meshOctree.h"

#include <algorithm>
#include <array>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/ArrayOfSets.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "testMeshes.h"

using qyGeom::ArrayOfSets;
using qyGeom::BoundingBox;
using qyGeom::CompactMesh;
using qyGeom::Octree;
using qyLinear::Point;
using qyLinear::Vector;

namespace
{

const float qnan = std::numeric_limits<float>::quiet_NaN();

BoundingBox boundsOf(const std::vector<float>& xyz)
{
    BoundingBox box;
    for (std::size_t i = 0; i < xyz.size(); i += 3)
        box.extend(xyz[i], xyz[i + 1], xyz[i + 2]);
    return box;
}

std::vector<float> verticesOf(const CompactMesh& mesh)
{
    return {mesh.getVerticesRaw(), mesh.getVerticesRaw() + 3 * mesh.getNumVertices()};
}

// A spread of points in [-1, 3] x [0, 1] x [0, 0.5], every other one in a tight cluster
// that forces deep cells.
std::vector<float> randomPoints(int n, std::mt19937& rng)
{
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    std::vector<float> xyz;
    for (int i = 0; i < n; ++i)
        for (float scale : {4.0f, 1.0f, 0.5f})
            xyz.push_back(i % 2 ? 0.1f * scale + 1e-3f * u(rng) : (u(rng) - 0.25f) * scale);
    return xyz;
}

double side(const BoundingBox& b, int k)
{
    return b.maxPt()[k] - b.minPt()[k];
}

// Triangles (or lines) per voxel by testing every element against every voxel.
ArrayOfSets bruteForce(const CompactMesh& mesh, const Octree& octree, bool lines)
{
    const float* v = mesh.getVerticesRaw();
    const int n = lines ? mesh.getNumLines() : mesh.getNumTriangles(), arity = lines ? 2 : 3;
    const int* idx = lines ? &mesh.getLines()->v[0] : mesh.getTrianglesRaw();
    std::vector<int> pairs;
    for (int voxel = 0; voxel < octree.getNumVoxels(); ++voxel)
        for (int e = 0; e < n; ++e)
        {
            const int* c = idx + arity * e;
            if (std::any_of(c, c + arity,
                            [&](int i) { return i < 0 || i >= mesh.getNumVertices(); }))
                continue;
            const BoundingBox box = octree.getVoxelBox(voxel);
            if (lines ? qyGeom::intersects(box, v + 3 * c[0], v + 3 * c[1])
                      : qyGeom::intersects(box, v + 3 * c[0], v + 3 * c[1], v + 3 * c[2]))
                pairs.insert(pairs.end(), {voxel, e});
        }
    ArrayOfSets sets;
    sets.assignFromPairs(octree.getNumVoxels(), int(pairs.size() / 2), pairs.data());
    return sets;
}

// Independent reference for the overlap tests: clip the element, as a closed polygon, by the
// six half-spaces of the box in double precision; it overlaps when something is left.
bool clipOverlaps(const BoundingBox& box, std::vector<std::array<double, 3>> poly)
{
    for (int k = 0; k < 6 && !poly.empty(); ++k)
    {
        auto inside = [&](const std::array<double, 3>& p)
        { return k < 3 ? p[k] - box.minPt()[k] : box.maxPt()[k - 3] - p[k - 3]; };
        std::vector<std::array<double, 3>> out;
        for (std::size_t i = 0; i < poly.size(); ++i)
        {
            auto a = poly[i], b = poly[(i + 1) % poly.size()];
            const double da = inside(a), db = inside(b);
            if (da >= 0)
                out.push_back(a);
            for (int j = 0; j < 3 && (da >= 0) != (db >= 0); ++j)
                b[j] = a[j] + (b[j] - a[j]) * da / (da - db);
            if ((da >= 0) != (db >= 0))
                out.push_back(b);
        }
        poly = out;
    }
    return !poly.empty();
}

} // namespace

TEST(Octree, VoxelsTileTheRootHoldEveryPointAndHonourDepthAndLeafSize)
{
    std::mt19937 rng(7);
    const std::vector<float> pts = randomPoints(400, rng);
    const BoundingBox box = boundsOf(pts);
    for (bool cube : {false, true})
        for (int limit : {0, 2, 16})
        {
            SCOPED_TRACE(testing::Message() << cube << " " << limit);
            const Octree octree(400, pts.data(), box, cube, limit, 8);
            const BoundingBox root = octree.getBox();
            for (int k = 0; k < 3; ++k) // the box, or a cube around it with its largest side
            {
                EXPECT_NEAR(side(root, k), side(box, cube ? 0 : k), 1e-6);
                EXPECT_NEAR(root.center()[k], box.center()[k], 1e-6);
            }
            // The cluster needs more than 10 levels; lower limits stop it.
            EXPECT_LE(octree.getDepth(), limit);
            EXPECT_GT(octree.getDepth(), std::min(limit - 1, 10));
            std::vector<int> count(std::size_t(octree.getNumVoxels()), 0);
            for (int i = 0; i < 400; ++i)
            {
                const int v = octree.findVoxel(&pts[3 * i]);
                ASSERT_GE(v, 0);
                EXPECT_TRUE(octree.getVoxelBox(v).contains(
                    Point(pts[3 * i], pts[3 * i + 1], pts[3 * i + 2])));
                ++count[std::size_t(v)];
            }
            double volume = 0.0;
            const double minSide = side(root, 0) / double(1 << limit);
            for (int v = 0; v < octree.getNumVoxels(); ++v)
            {
                const BoundingBox b = octree.getVoxelBox(v);
                volume += side(b, 0) * side(b, 1) * side(b, 2);
                EXPECT_TRUE(root.contains(b.minPt()) && root.contains(b.maxPt()));
                // Only cells at the depth limit may hold more than the leaf size. (Split
                // planes are rounded to float: allow an ulp of the coordinates.)
                EXPECT_GE(side(b, 0), minSide - 1e-6);
                EXPECT_TRUE(count[std::size_t(v)] <= 8 || side(b, 0) <= minSide + 1e-6);
            }
            // The voxels lie in the root and add up to its volume: they tile it.
            EXPECT_NEAR(volume, side(root, 0) * side(root, 1) * side(root, 2), 1e-9);
        }

    // No voxels: no points, an empty or NaN box. Identical points stop splitting.
    for (const Octree& none :
         {Octree(), Octree(0, pts.data(), box, true, 16),
          Octree(400, pts.data(), BoundingBox(), true, 16),
          Octree(400, pts.data(), BoundingBox(Point(0, 0, 0), Point(qnan, 1, 1)), false, 16)})
    {
        EXPECT_EQ(none.getNumVoxels(), 0);
        EXPECT_EQ(none.findVoxel(pts.data()), -1);
        EXPECT_FALSE(qyGeom::OctreeBBoxIntersectIt(none, box).valid());
    }
    const std::vector<float> same(300, 0.25f);
    EXPECT_EQ(Octree(100, same.data(), boundsOf(same), true, 16).getNumVoxels(), 1);
}

TEST(OctreeBBoxIntersectIt, VisitsExactlyTheLeavesThatMeetTheBoxInVoxelOrder)
{
    std::mt19937 rng(11);
    const std::vector<float> pts = randomPoints(300, rng);
    const Octree octree(300, pts.data(), boundsOf(pts), true, 8, 4);
    std::vector<BoundingBox> queries = {
        BoundingBox(), BoundingBox(Point(0, 0, 0), Point(0, qnan, 0)),
        BoundingBox(Point(9, 9, 9), Point(10, 10, 10)), octree.getBox()};
    std::uniform_real_distribution<double> u(-1.5, 3.5), size(0.0, 0.7);
    for (int i = 0; i < 200; ++i)
    {
        const Point lo(u(rng), u(rng) * 0.3, u(rng) * 0.2);
        const double s = i % 4 == 0 ? 0.0 : size(rng); // some boxes are points
        queries.emplace_back(lo, lo + Vector(s, s * 0.5, s * 0.3));
    }
    // Small steps through the cluster, as consecutive triangles of a mesh make them.
    for (int i = 0; i < 100; ++i)
    {
        const Point lo(0.4 + 1.1e-5 * i, 0.1 + 0.7e-5 * i, 0.05 + 0.3e-5 * i);
        queries.emplace_back(lo, lo + Vector(2e-5, 1e-5, 1e-5));
    }
    // Voxel boxes themselves and their corners: they touch their neighbours.
    for (int v = 0; v < octree.getNumVoxels(); v += 7)
    {
        queries.push_back(octree.getVoxelBox(v));
        queries.emplace_back(queries.back().maxPt(), queries.back().maxPt());
    }
    qyGeom::OctreeBBoxIntersectIt it(octree); // one iterator for all: reset() restarts
    for (const BoundingBox& q : queries)
    {
        std::vector<int> expected, visited;
        for (int v = 0; v < octree.getNumVoxels(); ++v)
            if (octree.getVoxelBox(v).intersects(q))
                expected.push_back(v);
        for (it.reset(q); it.valid(); it.next())
            visited.push_back(it.get().getVoxel());
        EXPECT_EQ(visited, expected) << testing::PrintToString(q);
    }
}

TEST(MeshOctreeIntersects, BoxTriangleAndBoxSegmentOnHandMadeAndRandomCases)
{
    const BoundingBox unit(Point(0, 0, 0), Point(1, 1, 1));
    const std::pair<std::array<float, 9>, bool> tris[] = {
        {{0.2f, 0.2f, 0.2f, 0.8f, 0.2f, 0.5f, 0.5f, 0.8f, 0.7f}, true}, // inside
        {{-1, -1, 0.5f, 3, -1, 0.5f, -1, 3, 0.5f}, true},               // crosses, no corner in
        {{3, 0, 0.5f, 0, 3, 0.5f, 3, 3, 0.5f}, false}, // its box holds the box; misses the corner
        {{2, 0, 0.5f, 0, 2, 0.5f, 2, 2, 0.5f}, true},  // touches the edge x = y = 1
        {{3.5f, 0, 0, 0, 3.5f, 0, 0, 0, 3.5f}, false}, // plane passes beyond corner (1, 1, 1)
        {{3, 0, 0, 0, 3, 0, 0, 0, 3}, true},           // plane touches corner (1, 1, 1)
        {{1, -1, -1, 1, 3, -1, 1, -1, 3}, true},       // lies in the face x = 1
        {{1, 1, 1, 2, 1, 1, 1, 2, 2}, true},           // touches at a corner only
        {{2, 0.5f, 0, 0, 0.5f, 2, 0, 0.5f, 2}, true},  // degenerate, touching the edge x = z = 1
        {{2.1f, 0.5f, 0, 0, 0.5f, 2.1f, 0, 0.5f, 2.1f}, false}, // the same a little farther out
        {{qnan, 0, 0, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.6f}, false},
    };
    for (const auto& [t, expected] : tris)
    {
        SCOPED_TRACE(testing::PrintToString(t));
        int order[3] = {0, 1, 2};
        do // every corner order
            EXPECT_EQ(
                qyGeom::intersects(unit, &t[3 * order[0]], &t[3 * order[1]], &t[3 * order[2]]),
                expected);
        while (std::next_permutation(order, order + 3));
        EXPECT_FALSE(qyGeom::intersects(BoundingBox(), &t[0], &t[3], &t[6]));
    }
    const std::pair<std::array<float, 6>, bool> segments[] = {
        {{-1, 0.5f, 0.5f, 2, 0.5f, 0.5f}, true},
        {{-1, -1, 0.5f, 3, -1, 0.5f}, false}, // beyond y = 0
        {{2, 0, 0.5f, 0, 2, 0.5f}, true},
        {{2.5f, 0, 0.5f, 0, 2.5f, 0.5f}, false}, // at / off an edge
        {{1, 1, 1, 1, 1, 1}, true},
        {{1, 1, qnan, 2, 2, 2}, false}};
    for (const auto& [s, expected] : segments)
    {
        SCOPED_TRACE(testing::PrintToString(s));
        EXPECT_EQ(qyGeom::intersects(unit, &s[0], &s[3]), expected);
        EXPECT_EQ(qyGeom::intersects(unit, &s[3], &s[0]), expected);
    }

    // Random boxes and small or large triangles and segments around them.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    int hits[2] = {0, 0};
    for (int i = 0; i < 4000; ++i)
    {
        const Point lo(u(rng), u(rng), u(rng));
        const BoundingBox box(lo, lo + Vector(0.5 + u(rng) * 0.4, 0.5, 0.3 - u(rng) * 0.2));
        float p[9];
        std::vector<std::array<double, 3>> poly(i % 4 ? 3 : 2);
        for (int c = 0; c < 3 * int(poly.size()); ++c)
            p[c] = poly[std::size_t(c / 3)][c % 3] =
                float(box.center()[c % 3]) + u(rng) * (i % 3 ? 1.0f : 0.4f);
        const bool expected = clipOverlaps(box, poly);
        ++hits[expected];
        EXPECT_EQ(poly.size() == 3 ? qyGeom::intersects(box, p, p + 3, p + 6)
                                   : qyGeom::intersects(box, p, p + 3),
                  expected)
            << i;
    }
    EXPECT_GT(std::min(hits[0], hits[1]), 1000);
}

TEST(ComputeOctreeTris, ListsEachElementInExactlyTheVoxelsItOverlapsWithAnyThreadCount)
{
    std::mt19937 rng(3);
    const std::vector<float> cloud = randomPoints(200, rng);
    struct Case
    {
        CompactMesh mesh;
        Octree octree;
    };
    std::vector<Case> cases;
    auto add = [&](CompactMesh mesh, const std::vector<float>& pts, int leafSize)
    {
        // One line per triangle (its first edge), then bad elements: an index out of range
        // and a NaN corner, which belong in no voxel.
        const int nt = mesh.getNumTriangles(), nv = mesh.getNumVertices();
        mesh.resizeLineArray(nt + 2);
        for (int t = 0; t < nt; ++t)
            mesh.getLines()[t] = {{mesh.getTriangles()[t][0], mesh.getTriangles()[t][1]}};
        mesh.getLines()[nt] = {{0, nv + 1}};
        mesh.getLines()[nt + 1] = {{0, nv}};
        mesh.resizeVertexArray(nv + 1);
        mesh.getVertices()[nv].set(qnan, 0, 0);
        mesh.resizeTriangleArray(nt + 2);
        mesh.getTriangles()[nt] = {{0, 1, -1}};
        mesh.getTriangles()[nt + 1] = {{0, 1, nv}};
        cases.push_back(
            {mesh, Octree(int(pts.size() / 3), pts.data(), boundsOf(pts), true, 16, leafSize)});
    };
    const CompactMesh torus = qyTest::makeTorus(24, 12), sphere = qyTest::makeUVSphere(30, 60);
    add(torus, verticesOf(torus), 1); // small cells: triangles span several
    // A flat grid lies in the split plane z = 0 of its cubic root: every triangle touches the
    // cells on both sides, and is listed in both.
    const CompactMesh grid = qyTest::makeGrid(6, 4);
    add(grid, verticesOf(grid), 2);
    CompactMesh ball = qyTest::makeIcosphere(2); // cells built from other points, around it
    for (int i = 0; i < ball.getNumVertices(); ++i)
        ball.getVertices()[i].set(ball.getVertices()[i].asPoint() + Vector(0.5, 0.5, 0.25));
    add(ball, cloud, 4);
    add(sphere, verticesOf(sphere), 64); // large cells: the shortcut is taken

    for (const Case& c : cases)
    {
        SCOPED_TRACE(&c - &cases[0]);
        const ArrayOfSets expectedTris = bruteForce(c.mesh, c.octree, false);
        const ArrayOfSets expectedLines = bruteForce(c.mesh, c.octree, true);
        // Every good triangle is somewhere (the roots hold the meshes); on the grid, twice.
        std::vector<int> times(std::size_t(c.mesh.getNumTriangles()), 0);
        for (int k = 0; k < expectedTris.getTotalSize(); ++k)
            ++times[std::size_t(expectedTris.getMembers()[k])];
        EXPECT_GE(*std::min_element(times.begin(), times.end() - 2), &c == &cases[1] ? 2 : 1);
        for (int threads : {1, 2, 3, 7})
        {
            qyTest::ScopedThreadCount scope(threads);
            qyTest::DebugCapture capture;
            qyGeom::OctreeTris tris;
            qyGeom::OctreeLines lines;
            qyGeom::computeOctreeTris(c.mesh, c.octree, tris);
            qyGeom::meshOctreeLines(c.mesh, c.octree, lines);
            EXPECT_TRUE(tris.getData() == expectedTris) << threads << " threads";
            EXPECT_TRUE(lines.getData() == expectedLines) << threads << " threads";
            std::smatch m;
            const std::string text = capture.text();
            ASSERT_TRUE(std::regex_search(text, m, std::regex("\\((\\d+\\.\\d\\d) coherence")));
            EXPECT_TRUE(&c != &cases.back() || std::stod(m[1]) > 0.3) << text;
        }
    }
}

TEST(ComputeOctreeTris, EmptyOctreeLeavesTheOutputAloneAndStatisticsLinesKeepTheirFormat)
{
    const CompactMesh cube = qyTest::makeCube();
    const Octree octree(8, cube.getVerticesRaw(), boundsOf(verticesOf(cube)), true, 16, 1);
    ASSERT_EQ(octree.getNumVoxels(), 8);
    qyGeom::OctreeTris tris, none;
    qyGeom::OctreeLines lines;
    {
        qyTest::DebugCapture capture;
        qyGeom::computeOctreeTris(cube, octree, tris);
        qyGeom::meshOctreeLines(cube, octree, lines); // the cube has no lines
        qyGeom::computeOctreeTris(qyTest::makeMesh(verticesOf(cube), {}), octree, none);
        // Each triangle covers half a face: 3 octants across its area and one more at the
        // face centre, which its long edge touches.
        EXPECT_EQ(tris.getData().getTotalSize(), 48);
        const std::string time = " voxels in \\d+\\.\\d{3} seconds\\.\n {13}\\(";
        const std::string nans =
            "-?nan coherence, -?nan (duplication|voxels/tri), (0|-?nan) tri/sec\\)\n";
        EXPECT_TRUE(std::regex_match(
            capture.text(),
            std::regex("OctreeTris:  Partitioned 12 triangles into 8" + time +
                       "0\\.00 coherence, 4\\.00 voxels/tri, \\d+ tri/sec\\)\n"
                       "OctreeLines:  Partitioned 0 lines into 8" +
                       time + nans + "OctreeTris:  Partitioned 0 triangles into 8" + time + nans)))
            << capture.text();
    }
    EXPECT_TRUE(lines.getNumVoxels() == 8 && lines.getData().getTotalSize() == 0);
    EXPECT_TRUE(none.getNumVoxels() == 8 && none.getData().getTotalSize() == 0);

    // No voxels: nothing printed, the outputs keep what they held.
    const qyGeom::OctreeTris before = tris;
    qyTest::DebugCapture capture;
    qyGeom::computeOctreeTris(cube, Octree(), tris);
    qyGeom::meshOctreeLines(cube, Octree(), lines);
    EXPECT_TRUE(tris.getData() == before.getData() && lines.getNumVoxels() == 8);
    EXPECT_EQ(capture.text(), "");
}
