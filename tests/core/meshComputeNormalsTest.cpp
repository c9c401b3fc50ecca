#include "qyGeom/meshComputeNormals.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <numbers>
#include <random>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshModification;
using qyLinear::Normal;
using qyLinear::Point;
using qyLinear::Vector;
using qyTest::DebugCapture;
using qyTest::RecordingMesh;
using qyTest::ScopedThreadCount;

namespace
{

const Vector zAxis(0, 0, 1);

Point corner(const CompactMesh& mesh, int t, int k)
{
    return mesh.getVertices()[mesh.getTriangles()[t][k]].asPoint();
}

// The textbook form (p1 - p0) x (p2 - p0), a different expression of the same normal.
Vector referenceNormal(const Point& p0, const Point& p1, const Point& p2)
{
    const Vector n = qyLinear::cross(p1 - p0, p2 - p0);
    return n / n.length();
}

double degrees(const Vector& a, const Vector& b)
{
    return qyLinear::angle(a, b) * 180.0 / std::numbers::pi;
}

Vector vertexNormal(const CompactMesh& mesh, int v)
{
    return mesh.getNormals()[v].asVector();
}

// Every vertex moved by up to `amount` per coordinate, the same way on every run.
CompactMesh jittered(CompactMesh mesh, float amount, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> offset(-amount, amount);
    float* xyz = mesh.getVerticesRaw();
    for (int i = 0; i < 3 * mesh.getNumVertices(); ++i)
        xyz[i] += offset(rng);
    return mesh;
}

std::vector<float> copyOf(const float* data, int numFloats)
{
    return std::vector<float>(data, data + numFloats);
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b)
{
    return a.size() == b.size() &&
           (a.empty() || std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0);
}

const char* const timeLine = "  normalized: [0-9]+\\.[0-9]{6} s\n";

} // namespace

TEST(TriNormal, IsTheUnitRightHandedNormalOfTheCounterClockwiseTriangle)
{
    const Point o(0, 0, 0), x(1, 0, 0), y(0, 1, 0), z(0, 0, 1);
    EXPECT_EQ(qyGeom::triNormal(o, x, y).asVector(), Vector(0, 0, 1));
    EXPECT_EQ(qyGeom::triNormal(o, y, x).asVector(), Vector(0, 0, -1));
    EXPECT_EQ(qyGeom::triNormal(o, y, z).asVector(), Vector(1, 0, 0));
    const Vector diagonal = qyGeom::triNormal(x, y, z);
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(diagonal[k], 1.0 / std::sqrt(3.0), 1e-15);

    std::mt19937 rng(11);
    std::uniform_real_distribution<double> coord(-10.0, 10.0);
    for (int i = 0; i < 100; ++i)
    {
        SCOPED_TRACE(i);
        const Point p0(coord(rng), coord(rng), coord(rng));
        const Point p1(coord(rng), coord(rng), coord(rng));
        const Point p2(coord(rng), coord(rng), coord(rng));
        const Normal n = qyGeom::triNormal(p0, p1, p2);
        ASSERT_TRUE(n.isValid());
        EXPECT_NEAR(n.asVector().length(), 1.0, 1e-14);
        const Vector expected = referenceNormal(p0, p1, p2);
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(n[k], expected[k], 1e-9);
        // The same triangle started at another corner has the same front side; reversed, the
        // other one.
        EXPECT_LT(degrees(qyGeom::triNormal(p1, p2, p0), n), 1e-6);
        EXPECT_LT(degrees(qyGeom::triNormal(p2, p1, p0), -n.asVector()), 1e-6);
    }
}

TEST(TriNormal, ZeroAreaTriangleGivesZAxis)
{
    const Point p(1, 2, 3), q(2, 4, 6), r(3, 6, 9);
    const std::pair<const char*, std::vector<Point>> cases[] = {
        {"collinear", {p, q, r}},
        {"two corners coincide", {p, p, q}},
        {"all corners coincide", {p, p, p}},
        {"collinear along x", {Point(0, 0, 0), Point(1, 0, 0), Point(5, 0, 0)}},
    };
    for (const auto& [name, c] : cases)
    {
        SCOPED_TRACE(name);
        const Normal n = qyGeom::triNormal(c[0], c[1], c[2]);
        EXPECT_TRUE(n.isValid());
        EXPECT_EQ(n.asVector(), zAxis);
    }
}

TEST(MeshTriNormal, ReadsTheCornersFromRawArraysInDoublePrecision)
{
    const std::vector<float> xyz = {9, 9, 9, 0.5f, 0.25f, 3, 7.125f, -2, 1, 1.5f, 4, -6};
    const int tri[3] = {3, 1, 2};
    const Normal n = qyGeom::meshTriNormal(xyz.data(), tri);
    const auto at = [&](int v) { return Point(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]); };
    EXPECT_EQ(n, qyGeom::triNormal(at(3), at(1), at(2)));

    // A clockwise triangle of side 1e-25: its cross product (1e-50) underflows in single
    // precision, so only a double computation sees the direction.
    const std::vector<float> tiny = {0, 0, 0, 0, 1e-25f, 0, 1e-25f, 0, 0};
    const int cw[3] = {0, 1, 2};
    EXPECT_EQ(qyGeom::meshTriNormal(tiny.data(), cw).asVector(), Vector(0, 0, -1));
}

TEST(TestMeshes, AreConsistentlyOrientedAndFaceOutward)
{
    using Inside = std::function<Point(const Point&)>;
    const Inside origin = [](const Point&) { return Point(0, 0, 0); };
    const Inside below = [](const Point& c) { return Point(c.x, c.y, c.z - 1); };
    // The nearest point of the torus's core circle (radius 1 in the z = 0 plane).
    const Inside core = [](const Point& c)
    {
        const double r = std::hypot(c.x, c.y);
        return Point(c.x / r, c.y / r, 0);
    };
    struct Case
    {
        const char* name;
        CompactMesh mesh;
        int numVertices, numTriangles;
        bool closed;
        int euler; // V - E + F
        Inside inside;
    };
    const Case cases[] = {
        {"cube", qyTest::makeCube(), 8, 12, true, 2, origin},
        {"tetrahedron", qyTest::testMeshes::get("tetrahedron"), 4, 4, true, 2,
         [](const Point&) { return Point(0.25, 0.25, 0.25); }},
        {"icosphere 0", qyTest::makeIcosphere(0), 12, 20, true, 2, origin},
        {"icosphere 2", qyTest::makeIcosphere(2), 162, 320, true, 2, origin},
        {"uv sphere 2x3", qyTest::makeUVSphere(2, 3), 5, 6, true, 2, origin},
        {"uv sphere 7x10", qyTest::makeUVSphere(7, 10), 62, 120, true, 2, origin},
        {"torus", qyTest::makeTorus(12, 8), 96, 192, true, 0, core},
        {"hemisphere 1x3", qyTest::makeHemisphere(1, 3), 4, 3, false, 1, origin},
        {"hemisphere 4x9", qyTest::makeHemisphere(4, 9), 37, 63, false, 1, origin},
        {"grid 1x1", qyTest::makeGrid(1, 1), 4, 2, false, 1, below},
        {"grid 3x2", qyTest::makeGrid(3, 2), 12, 12, false, 1, below},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        const CompactMesh& mesh = c.mesh;
        ASSERT_EQ(mesh.getNumVertices(), c.numVertices);
        ASSERT_EQ(mesh.getNumTriangles(), c.numTriangles);

        // Consistent orientation: no directed edge is used twice; on a closed surface every
        // directed edge has its reverse, on an open one some do not.
        std::map<std::pair<int, int>, int> directed;
        for (int t = 0; t < mesh.getNumTriangles(); ++t)
            for (int k = 0; k < 3; ++k)
                ++directed[{mesh.getTriangles()[t][k], mesh.getTriangles()[t][(k + 1) % 3]}];
        int unpaired = 0, numEdges = 0;
        for (const auto& [edge, count] : directed)
        {
            EXPECT_EQ(count, 1) << edge.first << "->" << edge.second;
            const bool paired = directed.count({edge.second, edge.first}) != 0;
            unpaired += paired ? 0 : 1;
            numEdges += paired && edge.first > edge.second ? 0 : 1;
        }
        EXPECT_EQ(unpaired == 0, c.closed);
        EXPECT_EQ(mesh.getNumVertices() - numEdges + mesh.getNumTriangles(), c.euler);

        // Outward: every triangle's normal points away from the inside.
        for (int t = 0; t < mesh.getNumTriangles(); ++t)
        {
            const Point p0 = corner(mesh, t, 0), p1 = corner(mesh, t, 1), p2 = corner(mesh, t, 2);
            const Vector n = qyLinear::cross(p1 - p0, p2 - p0);
            const Point centroid((p0.x + p1.x + p2.x) / 3, (p0.y + p1.y + p2.y) / 3,
                                 (p0.z + p1.z + p2.z) / 3);
            EXPECT_GT(qyLinear::dot(n, centroid - c.inside(centroid)), 1e-9 * n.length())
                << "triangle " << t;
        }
    }
}

TEST(MeshComputeNormals, UnitSphereNormalsPointAlongThePosition)
{
    // The unweighted mean of the face normals around a vertex of a fine sphere mesh is close
    // to the radial direction; a wrong corner, sign or index shows as a large angle.
    const std::pair<const char*, CompactMesh> cases[] = {
        {"icosphere", qyTest::makeIcosphere(3)},
        {"uv sphere", qyTest::makeUVSphere(24, 48)},
    };
    for (const auto& [name, source] : cases)
    {
        SCOPED_TRACE(name);
        CompactMesh mesh(source);
        qyGeom::meshComputeNormals(mesh);
        ASSERT_NE(mesh.getNormals(), nullptr);
        double worst = 0;
        for (int v = 0; v < mesh.getNumVertices(); ++v)
        {
            const Vector n = vertexNormal(mesh, v);
            EXPECT_NEAR(n.length(), 1.0, 1e-6);
            worst = std::max(worst, degrees(n, Vector(mesh.getVertices()[v].asPoint())));
        }
        EXPECT_LT(worst, 1.0);
    }
}

TEST(MeshComputeNormals, ClosedConvexMeshesGetOutwardNormals)
{
    const std::pair<const char*, CompactMesh> cases[] = {
        {"cube", qyTest::makeCube()},
        {"tetrahedron", qyTest::testMeshes::get("tetrahedron")},
        {"icosphere", qyTest::makeIcosphere(1)},
    };
    for (const auto& [name, source] : cases)
    {
        SCOPED_TRACE(name);
        CompactMesh mesh(source);
        qyGeom::meshComputeNormals(mesh);
        Vector centre;
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            centre += Vector(mesh.getVertices()[v].asPoint());
        centre /= double(mesh.getNumVertices());
        for (int v = 0; v < mesh.getNumVertices(); ++v)
        {
            const Vector out = Vector(mesh.getVertices()[v].asPoint()) - centre;
            // Within 90 degrees of the direction from the centre, with room to spare.
            EXPECT_LT(degrees(vertexNormal(mesh, v), out), 60.0) << "vertex " << v;
        }
    }
}

TEST(MeshComputeNormals, EveryTriangleCountsEquallyWhateverItsAreaOrAngle)
{
    // Vertex 0 has a big triangle (area 50, right angle) facing +z and a tiny sliver (area
    // 5e-9, angle 0.01 rad) facing +x. Area or angle weights would give nearly +z.
    CompactMesh mesh = qyTest::makeMesh({0, 0, 0, 10, 0, 0, 0, 10, 0, 0, 1e-3f, 0, 0, 1e-3f, 1e-5f},
                                        {0, 1, 2, 0, 3, 4});
    qyGeom::meshComputeNormals(mesh);
    const float h = float(1.0 / std::sqrt(2.0));
    const Vector expected[] = {{h, 0, h}, {0, 0, 1}, {0, 0, 1}, {1, 0, 0}, {1, 0, 0}};
    for (int v = 0; v < 5; ++v)
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(vertexNormal(mesh, v)[k], expected[v][k], 1e-6) << v << "," << k;
}

TEST(MeshComputeNormals, UnusedVerticesCancellingNormalsAndDegenerateTrianglesGiveZAxis)
{
    const float h = float(1.0 / std::sqrt(2.0));
    const struct
    {
        const char* name;
        CompactMesh mesh;
        std::vector<Vector> expected;
    } cases[] = {
        // Vertex 3 is used by no triangle.
        {"isolated vertex",
         qyTest::testMeshes::get("isolated vertex"),
         {zAxis, zAxis, zAxis, zAxis}},
        {"vertices without triangles",
         qyTest::makeMesh({1, 0, 0, 0, 1, 0, 3, 3, 3}, {}),
         {zAxis, zAxis, zAxis}},
        // The same triangle both ways round in the x = 0 plane: +x and -x cancel.
        {"cancelling pair",
         qyTest::makeMesh({0, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 1, 2, 0, 2, 1}),
         {zAxis, zAxis, zAxis}},
        // A +x triangle and a collinear one at vertex 0: the collinear one adds +z.
        {"degenerate neighbour",
         qyTest::makeMesh({0, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2}, {0, 1, 2, 0, 3, 4}),
         {Vector(h, 0, h), Vector(1, 0, 0), Vector(1, 0, 0), zAxis, zAxis}},
        {"zero-area triangle",
         qyTest::testMeshes::get("zero-area triangle"),
         {zAxis, zAxis, zAxis}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        RecordingMesh mesh(c.mesh);
        qyGeom::meshComputeNormals(mesh);
        ASSERT_EQ(int(c.expected.size()), mesh.getNumVertices());
        ASSERT_NE(mesh.getNormals(), nullptr);
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(vertexNormal(mesh, v)[k], c.expected[std::size_t(v)][k], 1e-6)
                    << v << "," << k;
        EXPECT_EQ(mesh.count(), 1);
    }
}

TEST(MeshComputeNormals, FlagsNormalsComputedAndNotifiesOnceWithNormalsModified)
{
    for (const qyTest::TestMesh& t : qyTest::testMeshes::all())
    {
        SCOPED_TRACE(t.name);
        RecordingMesh mesh(t.mesh);
        qyGeom::meshComputeNormals(mesh);
        const int numVerts = t.mesh.getNumVertices(), numTris = t.mesh.getNumTriangles();
        // Positions and triangles are inputs only.
        ASSERT_EQ(mesh.getNumVertices(), numVerts);
        ASSERT_EQ(mesh.getNumTriangles(), numTris);
        EXPECT_EQ(copyOf(mesh.getVerticesRaw(), 3 * numVerts),
                  copyOf(t.mesh.getVerticesRaw(), 3 * numVerts));
        EXPECT_EQ(
            std::vector<int>(mesh.getTrianglesRaw(), mesh.getTrianglesRaw() + 3 * numTris),
            std::vector<int>(t.mesh.getTrianglesRaw(), t.mesh.getTrianglesRaw() + 3 * numTris));
        if (numVerts == 0)
        {
            EXPECT_EQ(mesh.count(), 0);
            EXPECT_EQ(mesh.getNormals(), nullptr);
            continue;
        }
        ASSERT_EQ(mesh.count(), 1);
        const RecordingMesh::Entry& e = mesh.entries()[0];
        EXPECT_EQ(e.type, MeshModification::AttributesChanged);
        EXPECT_EQ(e.flags, unsigned(MeshModification::NormalsModified));
        EXPECT_FALSE(e.hasVertexRemap || e.hasTriangleRemap);
        ASSERT_NE(mesh.getNormals(), nullptr);
        EXPECT_TRUE(mesh.getNormalsComputed());
        for (int v = 0; v < numVerts; ++v)
            EXPECT_NEAR(vertexNormal(mesh, v).length(), 1.0, 1e-6) << "vertex " << v;
    }
}

TEST(MeshComputeNormals, OverwritesExplicitNormalsAndFlagsThemComputed)
{
    CompactMesh fresh = jittered(qyTest::makeTorus(10, 6), 0.05f, 3);
    RecordingMesh mesh(fresh);
    mesh.allocNormalArray();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        mesh.getNormals()[v].set(5.0f, -7.0f, 0.0f);
    ASSERT_FALSE(mesh.getNormalsComputed());

    qyGeom::meshComputeNormals(fresh);
    qyGeom::meshComputeNormals(mesh);
    EXPECT_TRUE(mesh.getNormalsComputed());
    EXPECT_TRUE(sameBits(copyOf(mesh.getNormalsRaw(), 3 * mesh.getNumVertices()),
                         copyOf(fresh.getNormalsRaw(), 3 * fresh.getNumVertices())));
    EXPECT_EQ(mesh.count(), 1);
}

TEST(MeshComputeNormals, PrintsOneHeaderLineWithTheCountsAndNothingForAnEmptyMesh)
{
    // The empty mesh's other edges (no normal array, no notification) are checked with the
    // catalogue above.
    const std::pair<CompactMesh, std::string> cases[] = {
        {qyTest::makeCube(), "meshComputeNormals:  vertices 8  triangles 12\n"},
        {qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {}),
         "meshComputeNormals:  vertices 3  triangles 0\n"},
        {CompactMesh(), ""},
    };
    for (const auto& [source, expected] : cases)
    {
        SCOPED_TRACE(expected);
        CompactMesh mesh(source);
        DebugCapture capture;
        qyGeom::meshComputeNormals(mesh);
        EXPECT_EQ(capture.text(), expected);
    }
}

TEST(MeshComputeTriangleNormals, StoresEachTrianglesUnitNormalAndNotifiesOnce)
{
    const std::pair<const char*, CompactMesh> cases[] = {
        {"jittered torus", jittered(qyTest::makeTorus(9, 7), 0.05f, 5)},
        {"cube", qyTest::makeCube()},
        {"zero-area triangle", qyTest::testMeshes::get("zero-area triangle")},
    };
    for (const auto& [name, source] : cases)
    {
        SCOPED_TRACE(name);
        RecordingMesh mesh(source);
        DebugCapture capture;
        qyGeom::meshComputeTriangleNormals(mesh);
        EXPECT_TRUE(std::regex_match(
            capture.text(), std::regex("meshComputeTriangleNormals:  vertices " +
                                       std::to_string(mesh.getNumVertices()) + "  triangles " +
                                       std::to_string(mesh.getNumTriangles()) + "\n" + timeLine)))
            << capture.text();
        ASSERT_NE(mesh.getTriangleNormals(), nullptr);
        for (int t = 0; t < mesh.getNumTriangles(); ++t)
        {
            SCOPED_TRACE(t);
            const Vector n = mesh.getTriangleNormals()[t].asVector();
            const Normal exact =
                qyGeom::triNormal(corner(mesh, t, 0), corner(mesh, t, 1), corner(mesh, t, 2));
            for (int k = 0; k < 3; ++k)
                EXPECT_EQ(n[k], double(float(exact[k])));
            EXPECT_NEAR(n.length(), 1.0, 1e-6);
        }
        EXPECT_EQ(mesh.getNormals(), nullptr); // vertex normals are another function's job
        ASSERT_EQ(mesh.count(), 1);
        EXPECT_EQ(mesh.entries()[0].type, MeshModification::AttributesChanged);
        EXPECT_EQ(mesh.entries()[0].flags, unsigned(MeshModification::TriangleNormalsModified));
    }
    // Spot values: the cube's faces are axis-aligned and outward.
    CompactMesh cube = qyTest::makeCube();
    qyGeom::meshComputeTriangleNormals(cube);
    EXPECT_EQ(cube.getTriangleNormals()[0].asVector(), Vector(0, 0, -1));
    EXPECT_EQ(cube.getTriangleNormals()[3].asVector(), Vector(0, 0, 1));
    EXPECT_EQ(cube.getTriangleNormals()[11].asVector(), Vector(1, 0, 0));
}

TEST(MeshComputeTriangleNormals, MeshWithoutTrianglesIsUntouchedSilentAndNotNotified)
{
    const std::pair<const char*, CompactMesh> cases[] = {
        {"empty", CompactMesh()},
        {"vertices only", qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {})},
    };
    for (const auto& [name, source] : cases)
    {
        SCOPED_TRACE(name);
        RecordingMesh mesh(source);
        DebugCapture capture;
        qyGeom::meshComputeTriangleNormals(mesh);
        EXPECT_EQ(mesh.getTriangleNormals(), nullptr);
        EXPECT_EQ(mesh.getNormals(), nullptr);
        EXPECT_EQ(mesh.count(), 0);
        EXPECT_EQ(capture.text(), "");
    }
}

TEST(MeshNormalize, MakesNormalsUnitLengthKeepingTheirDirection)
{
    std::mt19937 rng(21);
    std::uniform_real_distribution<float> component(-1.0f, 1.0f);
    std::uniform_real_distribution<float> exponent(-4.0f, 4.0f);
    const int n = 1000;
    std::vector<float> normals(3 * n);
    for (float& c : normals)
        c = component(rng);
    for (int i = 0; i < n; ++i)
    {
        const float scale = std::pow(10.0f, exponent(rng));
        for (int k = 0; k < 3; ++k)
            normals[3 * i + k] *= scale;
    }
    const std::vector<float> before = normals;
    qyGeom::meshNormalize(normals.data(), n);
    for (int i = 0; i < n; ++i)
    {
        SCOPED_TRACE(i);
        const Vector was(before[3 * i], before[3 * i + 1], before[3 * i + 2]);
        const Vector now(normals[3 * i], normals[3 * i + 1], normals[3 * i + 2]);
        EXPECT_NEAR(now.length(), 1.0, 1e-6);
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(now[k], was[k] / was.length(), 1e-6);
    }
}

TEST(MeshNormalize, TinyAndNaNNormalsBecomeZAxis)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float third = float(1.0 / std::sqrt(3.0));
    const struct
    {
        const char* name;
        Vector in, out;
    } cases[] = {
        {"zero", {0, 0, 0}, zAxis},
        // Squared length 3e-22, below the squared tolerance 1e-20.
        {"tiny", {1e-11, 1e-11, 1e-11}, zAxis},
        {"tiny pointing down", {0, 0, -1e-11}, zAxis},
        // Squared length 3e-18: short, but above the squared tolerance.
        {"short", {1e-9, 1e-9, 1e-9}, {third, third, third}},
        {"short along x", {-1e-9, 0, 0}, {-1, 0, 0}},
        {"NaN", {nan, 0, 0}, zAxis},
        {"all NaN", {nan, nan, nan}, zAxis},
        {"unit", {0, 1, 0}, {0, 1, 0}},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.name);
        float n[3] = {float(c.in.x), float(c.in.y), float(c.in.z)};
        qyGeom::meshNormalize(n, 1);
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(n[k], c.out[k], 1e-6) << k;
    }
}

TEST(MeshNormalize, ReachesEveryNormalForAnyCountAndThreadCount)
{
    for (int threads : {1, 2, 3, 7})
    {
        ScopedThreadCount scope(threads);
        for (int n = 0; n <= 20; ++n)
        {
            SCOPED_TRACE(testing::Message() << threads << " threads, " << n << " normals");
            // One guard normal past the end must stay as it is.
            std::vector<float> normals(3 * std::size_t(n + 1), 2.0f);
            qyGeom::meshNormalize(normals.data(), n);
            for (int i = 0; i < n; ++i)
                for (int k = 0; k < 3; ++k)
                    EXPECT_FLOAT_EQ(normals[3 * std::size_t(i) + k], float(1.0 / std::sqrt(3.0)))
                        << i;
            for (int k = 0; k < 3; ++k)
                EXPECT_EQ(normals[3 * std::size_t(n) + k], 2.0f);
        }
    }
}

TEST(MeshNormalize, MeshFormNotifiesOnceAndLeavesAMeshWithoutNormalsAlone)
{
    RecordingMesh mesh(qyTest::makeCube());
    qyGeom::meshNormalize(mesh);
    EXPECT_EQ(mesh.getNormals(), nullptr);
    EXPECT_EQ(mesh.count(), 0);

    mesh.allocNormalArray();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        mesh.getNormals()[v].set(float(v), 0.0f, 3.0f);
    qyGeom::meshNormalize(mesh);
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(vertexNormal(mesh, v)[k], Vector(v, 0, 3)[k] / std::hypot(v, 3.0), 1e-6);
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].type, MeshModification::AttributesChanged);
    EXPECT_EQ(mesh.entries()[0].flags, unsigned(MeshModification::NormalsModified));
}

TEST(MeshNormals, ThreadCountDoesNotChangeAnyBit)
{
    const CompactMesh source = jittered(qyTest::makeIcosphere(6), 0.002f, 17); // 40,962 vertices
    const int numVerts = source.getNumVertices();
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> component(-3.0f, 3.0f);
    std::vector<float> raw(3 * std::size_t(numVerts));
    for (float& c : raw)
        c = component(rng);
    raw[300] = std::numeric_limits<float>::quiet_NaN();
    raw[600] = raw[601] = raw[602] = 1e-12f;

    std::vector<float> refComputed, refArray, refMesh;
    for (int threads : {1, 2, 3, 7})
    {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        ScopedThreadCount scope(threads);
        CompactMesh computed(source);
        qyGeom::meshComputeNormals(computed);
        std::vector<float> array = raw;
        qyGeom::meshNormalize(array.data(), numVerts);
        CompactMesh explicitNormals(source);
        explicitNormals.allocNormalArray();
        std::memcpy(explicitNormals.getNormalsRaw(), raw.data(), raw.size() * sizeof(float));
        qyGeom::meshNormalize(explicitNormals);

        std::vector<float> c = copyOf(computed.getNormalsRaw(), 3 * numVerts);
        std::vector<float> m = copyOf(explicitNormals.getNormalsRaw(), 3 * numVerts);
        if (threads == 1)
        {
            refComputed = c;
            refArray = array;
            refMesh = m;
            continue;
        }
        EXPECT_TRUE(sameBits(c, refComputed));
        EXPECT_TRUE(sameBits(array, refArray));
        EXPECT_TRUE(sameBits(m, refMesh));
    }
}
