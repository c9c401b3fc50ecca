#include "qyGeom/meshReduce.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <set>
#include <span>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "base/Progress.h"
#include "model/CompactMesh.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyLinear::Point;
using qyLinear::Vector;
using qyTest::RecordingMesh;

namespace
{

std::vector<float> positions(const CompactMesh& mesh)
{
    const float* v = mesh.getVerticesRaw();
    return std::vector<float>(v, v + 3 * std::size_t(mesh.getNumVertices()));
}

std::vector<int> triangles(const CompactMesh& mesh)
{
    const int* t = mesh.getTrianglesRaw();
    return std::vector<int>(t, t + 3 * std::size_t(mesh.getNumTriangles()));
}

// Every undirected edge is used by exactly one triangle in each direction when `closed`, by
// at most one in each direction otherwise (manifold and consistently oriented); no triangle
// repeats a vertex; every vertex is used.
void expectOrientedManifold(const CompactMesh& mesh, bool closed)
{
    std::map<std::pair<int, int>, int> directed;
    std::vector<char> used(std::size_t(mesh.getNumVertices()), 0);
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
    {
        const int a = t[3 * i], b = t[3 * i + 1], c = t[3 * i + 2];
        ASSERT_TRUE(a != b && b != c && a != c) << "triangle " << i;
        for (const auto& [p, q] : {std::pair{a, b}, std::pair{b, c}, std::pair{c, a}})
        {
            ASSERT_TRUE(p >= 0 && p < mesh.getNumVertices());
            used[std::size_t(p)] = 1;
            const int uses = ++directed[std::pair(p, q)];
            ASSERT_EQ(uses, 1) << "edge " << p << "-" << q << " used twice";
        }
    }
    for (const auto& [edge, count] : directed)
        if (closed)
        {
            EXPECT_EQ(directed.count({edge.second, edge.first}), 1u) << "open edge";
        }
    EXPECT_EQ(std::count(used.begin(), used.end(), 0), 0) << "unused vertex";
}

int eulerCharacteristic(const CompactMesh& mesh)
{
    std::set<std::pair<int, int>> edges;
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
        for (int k = 0; k < 3; ++k)
        {
            const int a = t[3 * i + k], b = t[3 * i + (k + 1) % 3];
            edges.insert({std::min(a, b), std::max(a, b)});
        }
    return mesh.getNumVertices() - int(edges.size()) + mesh.getNumTriangles();
}

// Distance from p to triangle (a, b, c), written apart from the library's: the plane foot
// when it falls inside (all three edge tests agree with the normal), else the nearest of
// the three edges.
double distanceToTriangle(const Point& p, const Point& a, const Point& b, const Point& c)
{
    auto segment = [&](const Point& s, const Point& e)
    {
        const Vector d = e - s;
        const double len2 = dot(d, d);
        const double u = len2 > 0 ? std::clamp(dot(p - s, d) / len2, 0.0, 1.0) : 0.0;
        const Vector r = (s + d * u) - p;
        return std::sqrt(dot(r, r));
    };
    const Vector n = cross(b - a, c - a);
    const double n2 = dot(n, n);
    if (n2 > 0)
    {
        const double h = dot(p - a, n) / n2;
        const Point foot = p - n * h;
        if (dot(cross(b - a, foot - a), n) >= 0 && dot(cross(c - b, foot - b), n) >= 0 &&
            dot(cross(a - c, foot - c), n) >= 0)
            return std::fabs(h) * std::sqrt(n2);
    }
    return std::min({segment(a, b), segment(b, c), segment(c, a)});
}

double distanceToMesh(const Point& p, const CompactMesh& mesh)
{
    double best = std::numeric_limits<double>::infinity();
    const MeshVertex* v = mesh.getVertices();
    for (const MeshTriangle& t :
         std::span(mesh.getTriangles(), std::size_t(mesh.getNumTriangles())))
        best = std::min(
            best, distanceToTriangle(p, v[t[0]].asPoint(), v[t[1]].asPoint(), v[t[2]].asPoint()));
    return best;
}

// The removed points are vertices of the input that are no longer in the result, and the
// result keeps only input vertices, unmoved.
void expectRemovedFromInput(const CompactMesh& input, const CompactMesh& result,
                            const std::vector<Point>& removed)
{
    std::set<std::tuple<double, double, double>> in, out;
    for (int i = 0; i < input.getNumVertices(); ++i)
    {
        const Point p = input.getVertices()[i].asPoint();
        in.insert({p.x, p.y, p.z});
    }
    for (int i = 0; i < result.getNumVertices(); ++i)
    {
        const Point p = result.getVertices()[i].asPoint();
        out.insert({p.x, p.y, p.z});
        EXPECT_EQ(in.count({p.x, p.y, p.z}), 1u);
    }
    for (const Point& p : removed)
    {
        EXPECT_EQ(in.count({p.x, p.y, p.z}), 1u);
        EXPECT_EQ(out.count({p.x, p.y, p.z}), 0u);
    }
    std::set<std::tuple<double, double, double>> distinct;
    for (const Point& p : removed)
        distinct.insert({p.x, p.y, p.z});
    EXPECT_EQ(int(distinct.size()), input.getNumVertices() - result.getNumVertices());
}

} // namespace

TEST(MeshReduce, NoCandidateLeavesMeshAndOutputUntouched)
{
    // A strip of quads has every vertex on its boundary; a lone triangle and a vertex cloud
    // have no vertex of valence 3.
    for (const auto& [name, source] :
         {std::pair{"strip", qyTest::makeGrid(6, 1)},
          std::pair{"one triangle", qyTest::testMeshes::get("one triangle")},
          std::pair{"vertices only", qyTest::testMeshes::get("vertices only")},
          std::pair{"empty", CompactMesh()}})
    {
        SCOPED_TRACE(name);
        for (int variant = 0; variant < 2; ++variant)
        {
            RecordingMesh mesh(source);
            std::vector<Point> removed = {Point(9, 9, 9)};
            if (variant == 0)
                meshReduceToFraction(mesh, 0.1, qyTest::quietProgress(), removed);
            else
            {
                EXPECT_EQ(meshReduceWithTolerance(mesh, 1e9, qyTest::quietProgress(), removed),
                          0.0);
            }
            EXPECT_EQ(positions(mesh), positions(source));
            EXPECT_EQ(triangles(mesh), triangles(source));
            EXPECT_EQ(mesh.count(), 0);
            ASSERT_EQ(removed.size(), 1u); // appended to, never cleared
            EXPECT_EQ(removed[0], Point(9, 9, 9));
        }
    }
}

TEST(MeshReduce, FractionOfOneOrMoreRemovesNothing)
{
    const CompactMesh sphere = qyTest::makeIcosphere(3);
    for (const double fraction : {1.0, 1.5, std::numeric_limits<double>::quiet_NaN()})
    {
        RecordingMesh mesh(sphere);
        std::vector<Point> removed;
        meshReduceToFraction(mesh, fraction, qyTest::quietProgress(), removed);
        EXPECT_EQ(positions(mesh), positions(sphere));
        EXPECT_EQ(triangles(mesh), triangles(sphere));
        EXPECT_EQ(mesh.count(), 0);
        EXPECT_TRUE(removed.empty());
    }
}

TEST(MeshReduce, FractionReachesButNeverPassesTargetOnClosedMeshes)
{
    for (const auto& [name, source] : {std::pair{"icosphere", qyTest::makeIcosphere(4)},
                                       std::pair{"torus", qyTest::makeTorus(64, 24)},
                                       std::pair{"uv sphere", qyTest::makeUVSphere(40, 60)}})
        for (const double fraction : {0.5, 0.25, 0.1})
        {
            SCOPED_TRACE(std::string(name) + " " + std::to_string(fraction));
            CompactMesh mesh(source);
            std::vector<Point> removed;
            meshReduceToFraction(mesh, fraction, qyTest::quietProgress(), removed);
            const int target = int(source.getNumVertices() * fraction);
            EXPECT_GE(mesh.getNumVertices(), target);
            // Smooth closed surfaces run into the target, not into the 1 % rule.
            EXPECT_LE(mesh.getNumVertices(), target + source.getNumVertices() / 20);
            expectOrientedManifold(mesh, true);
            EXPECT_EQ(eulerCharacteristic(mesh), eulerCharacteristic(source));
            expectRemovedFromInput(source, mesh, removed);
        }
}

TEST(MeshReduce, FlatGridKeepsEveryBoundaryVertexAndNeverFolds)
{
    // The regular grid, and the same grid with its interior vertices moved about in the
    // plane. On the regular one, the second wave finds vertices at the centre of squares
    // whose spokes cannot be swapped away without a degenerate triangle, and stops there.
    const CompactMesh regular = qyTest::makeGrid(24, 16);
    CompactMesh jittered = regular;
    std::mt19937 random(5);
    std::uniform_real_distribution<float> jitter(-0.3f, 0.3f);
    for (int i = 0; i < jittered.getNumVertices(); ++i)
    {
        MeshVertex& p = jittered.getVertices()[i];
        if (p.x > 0 && p.x < 24 && p.y > 0 && p.y < 16)
        {
            p.x += jitter(random);
            p.y += jitter(random);
        }
    }
    for (const auto& [name, grid, most] :
         {std::tuple{"regular", regular, 345}, std::tuple{"jittered", jittered, 120}})
    {
        SCOPED_TRACE(name);
        CompactMesh mesh(grid);
        std::vector<Point> removed;
        meshReduceToFraction(mesh, 0.05, qyTest::quietProgress(), removed);
        int boundary = 0;
        for (int i = 0; i < mesh.getNumVertices(); ++i)
        {
            const Point p = mesh.getVertices()[i].asPoint();
            boundary += p.x == 0 || p.x == 24 || p.y == 0 || p.y == 16;
        }
        EXPECT_EQ(boundary, 2 * (24 + 16));
        EXPECT_LT(mesh.getNumVertices(), most);
        expectOrientedManifold(mesh, false);
        EXPECT_EQ(eulerCharacteristic(mesh), 1);
        double area = 0.0;
        const MeshVertex* v = mesh.getVertices();
        for (const MeshTriangle& t :
             std::span(mesh.getTriangles(), std::size_t(mesh.getNumTriangles())))
        {
            const Vector n =
                cross(v[t[1]].asPoint() - v[t[0]].asPoint(), v[t[2]].asPoint() - v[t[0]].asPoint());
            EXPECT_GT(n.z, 0.0); // still facing up: nothing folded
            area += 0.5 * n.z;
        }
        EXPECT_NEAR(area, 24.0 * 16.0, 1e-9);
        expectRemovedFromInput(grid, mesh, removed);
    }
}

TEST(MeshReduce, ASurfaceWoundBothWaysReducesWithoutHarm)
{
    // Every seventh triangle turned over: edges whose two triangles run the same way have no
    // twin in the half-edge regions, and the swap criteria must refuse them, not read past.
    CompactMesh source = qyTest::makeIcosphere(4);
    int* tris = source.getTrianglesRaw();
    for (int t = 0; t < source.getNumTriangles(); t += 7)
        std::swap(tris[3 * t + 1], tris[3 * t + 2]);
    for (const bool tolerance : {false, true})
    {
        CompactMesh mesh(source);
        std::vector<Point> removed;
        if (tolerance)
            meshReduceWithTolerance(mesh, 0.05, qyTest::quietProgress(), removed);
        else
            meshReduceToFraction(mesh, 0.5, qyTest::quietProgress(), removed);
        EXPECT_LE(mesh.getNumVertices(), source.getNumVertices());
        const int n = mesh.getNumVertices();
        for (const int v : triangles(mesh))
            ASSERT_TRUE(v >= 0 && v < n);
    }
}

TEST(MeshReduce, ToleranceZeroRemovesNothing)
{
    // Curved: every fan is off its plane. Flat: every fan has flatness 0, and the test
    // is strict.
    for (const CompactMesh& source : {qyTest::makeIcosphere(3), qyTest::makeGrid(8, 8)})
    {
        RecordingMesh mesh(source);
        std::vector<Point> removed;
        EXPECT_EQ(meshReduceWithTolerance(mesh, 0.0, qyTest::quietProgress(), removed), 0.0);
        EXPECT_EQ(positions(mesh), positions(source));
        EXPECT_EQ(triangles(mesh), triangles(source));
        EXPECT_TRUE(removed.empty());
        EXPECT_EQ(mesh.count(), 0);
    }
}

TEST(MeshReduce, EveryRemovedPointStaysWithinTolerance)
{
    // A closed sphere and an open hemisphere (whose rim must stay exactly as it is).
    struct Case
    {
        const char* name;
        CompactMesh mesh;
        double tolerance;
    };
    for (const Case& c : {Case{"icosphere", qyTest::makeIcosphere(4), 1e-2},
                          Case{"torus", qyTest::makeTorus(80, 30), 1e-2},
                          Case{"hemisphere", qyTest::makeHemisphere(24, 48), 5e-3}})
    {
        SCOPED_TRACE(c.name);
        CompactMesh mesh(c.mesh);
        std::vector<Point> removed;
        const double error =
            meshReduceWithTolerance(mesh, c.tolerance, qyTest::quietProgress(), removed);
        EXPECT_LT(mesh.getNumVertices(), c.mesh.getNumVertices() * 3 / 4);
        EXPECT_GT(error, 0.0);
        EXPECT_LE(error, c.tolerance);
        double worst = 0.0;
        for (const Point& p : removed)
            worst = std::max(worst, distanceToMesh(p, mesh));
        EXPECT_LE(worst, c.tolerance * (1 + 1e-9));
        expectRemovedFromInput(c.mesh, mesh, removed);
        expectOrientedManifold(mesh, std::string(c.name) != "hemisphere");
        EXPECT_EQ(eulerCharacteristic(mesh), eulerCharacteristic(c.mesh));
        if (std::string(c.name) == "hemisphere")
        {
            int rim = 0;
            for (int i = 0; i < mesh.getNumVertices(); ++i)
                rim += mesh.getVertices()[i].z == 0.0f;
            EXPECT_EQ(rim, 48);
        }
    }
}

TEST(MeshReduce, CancellationKeepsAValidMeshAndTheWorkDone)
{
    const CompactMesh source = qyTest::makeIcosphere(5);
    for (int variant = 0; variant < 2; ++variant)
    {
        SCOPED_TRACE(variant == 0 ? "fraction" : "tolerance");
        CompactMesh mesh(source);
        // Cancels once the mesh has lost 3000 vertices: in the middle of the first pass's
        // removals for the fraction (polled every 100), after a batch for the tolerance.
        const int start = source.getNumVertices();
        int polls = 0;
        qyUtil::Progress progress({},
                                  [&]
                                  {
                                      ++polls;
                                      return mesh.getNumVertices() < start - 3000;
                                  });
        std::vector<Point> removed;
        std::vector<Point> before;
        if (variant == 0)
            meshReduceToFraction(mesh, 0.02, progress, removed);
        else
            meshReduceWithTolerance(mesh, 0.05, progress, removed);
        EXPECT_GT(polls, 0);
        EXPECT_TRUE(progress.cancelled());
        EXPECT_LT(mesh.getNumVertices(), start - 3000);
        EXPECT_GT(mesh.getNumVertices(), start / 10);
        expectOrientedManifold(mesh, true);
        EXPECT_EQ(eulerCharacteristic(mesh), 2);
        expectRemovedFromInput(source, mesh, removed);
    }
}

TEST(MeshReduce, OneAndTwoThreadsGiveIdenticalResults)
{
    const CompactMesh source = qyTest::makeTorus(160, 60, 1.0, 0.3);
    struct Run
    {
        std::vector<float> vertices;
        std::vector<int> triangles;
        std::vector<Point> removed;
        double error = 0.0;
    };
    auto run = [&](int threads, bool tolerance)
    {
        qyTest::ScopedThreadCount scope(threads);
        CompactMesh mesh(source);
        Run r;
        if (tolerance)
            r.error = meshReduceWithTolerance(mesh, 2e-3, qyTest::quietProgress(), r.removed);
        else
            meshReduceToFraction(mesh, 0.2, qyTest::quietProgress(), r.removed);
        r.vertices = positions(mesh);
        r.triangles = triangles(mesh);
        return r;
    };
    for (const bool tolerance : {false, true})
    {
        const Run a = run(1, tolerance), b = run(2, tolerance);
        EXPECT_LT(a.vertices.size(), 3 * std::size_t(source.getNumVertices()) * 4 / 5);
        EXPECT_EQ(a.vertices, b.vertices);
        EXPECT_EQ(a.triangles, b.triangles);
        EXPECT_EQ(a.removed, b.removed);
        EXPECT_EQ(std::memcmp(&a.error, &b.error, sizeof(double)), 0);
    }
}

TEST(MeshReduce, PrintsItsStatisticsLines)
{
    CompactMesh mesh = qyTest::makeIcosphere(3);
    std::vector<Point> removed;
    qyTest::DebugCapture capture;
    meshReduceWithTolerance(mesh, 0.01, qyTest::quietProgress(), removed);
    const std::string& text = capture.text();
    EXPECT_NE(text.find("MeshReduce: flatness computed in "), std::string::npos);
    const std::string reduced = "MeshReduce: reduced from 642 vertices to " +
                                std::to_string(mesh.getNumVertices()) + " vertices: ";
    EXPECT_NE(text.find(reduced), std::string::npos) << text;
    EXPECT_NE(text.find("meshReduce: iterations("), std::string::npos);
    EXPECT_LT(text.find(reduced), text.find("meshReduce: iterations("));
}
