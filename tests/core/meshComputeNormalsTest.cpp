#include "qyGeom/meshComputeNormals.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "qyGeom/meshBoundingBox.h"
#include "qyGeom/meshCompact.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshModification;
using qyLinear::Point;
using qyLinear::Vector;

namespace
{

const Vector zAxis(0, 0, 1);

Point corner(const CompactMesh& mesh, int t, int k)
{
    return mesh.getVertices()[mesh.getTriangles()[t][k]].asPoint();
}

} // namespace

TEST(TriNormal, IsTheUnitNormalOfTheCounterClockwiseTriangleOrZAxisWithoutArea)
{
    const Point o(0, 0, 0), x(1, 0, 0), y(0, 1, 0), z(0, 0, 1), p(1, 2, 3), q(2, 4, 6);
    const std::tuple<Point, Point, Point, Vector> cases[] = {
        {o, x, y, {0, 0, 1}},
        {o, y, x, {0, 0, -1}},
        {y, z, o, {1, 0, 0}},
        {x, y, z, Vector(1, 1, 1) / std::sqrt(3.0)},
        // Zero area: collinear corners, two or three of them coinciding.
        {p, q, Point(3, 6, 9), zAxis},
        {p, p, q, zAxis},
        {p, p, p, zAxis},
    };
    int i = 0;
    for (const auto& [p0, p1, p2, expected] : cases)
    {
        SCOPED_TRACE(i++);
        const qyLinear::Normal n = qyGeom::triNormal(p0, p1, p2);
        EXPECT_TRUE(n.isValid());
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(n[k], expected[k], 1e-15);
    }
    // A clockwise triangle of side 1e-25: its cross product (1e-50) underflows in single
    // precision, so only a double computation from the raw floats sees the direction.
    const float tiny[] = {0, 0, 0, 0, 1e-25f, 0, 1e-25f, 0, 0};
    const int clockwise[] = {0, 1, 2};
    EXPECT_EQ(qyGeom::meshTriNormal(tiny, clockwise).asVector(), Vector(0, 0, -1));
}

TEST(MeshComputeNormals, TestMeshesGetOutwardNormals)
{
    // Each mesh with the outward direction at a point (away from the centre, from the nearest
    // point of the torus's core circle, or up from the flat grid) and the largest angle in
    // radians between it and a vertex normal. This also checks the meshes' orientation.
    using Outward = Vector (*)(const Point&);
    const Outward fromOrigin = [](const Point& p) { return Vector(p); };
    const std::tuple<const char*, CompactMesh, Outward, double> cases[] = {
        {"cube", qyTest::makeCube(), fromOrigin, 0.5},
        {"tetrahedron", qyTest::testMeshes::get("tetrahedron"),
         [](const Point& p) { return p - Point(0.25, 0.25, 0.25); }, 0.5},
        {"grid", qyTest::makeGrid(3, 2), [](const Point&) { return zAxis; }, 1e-6},
        // On fine meshes of smooth surfaces the mean of the face normals is nearly the surface
        // normal: a wrong corner, sign or index shows as a large angle.
        {"torus", qyTest::makeTorus(24, 16),
         [](const Point& p) { return Vector(p) - Vector(p.x, p.y, 0) / std::hypot(p.x, p.y); },
         0.02},
        {"icosphere", qyTest::makeIcosphere(3), fromOrigin, 0.02},
        {"uv sphere", qyTest::makeUVSphere(24, 48), fromOrigin, 0.02},
    };
    for (const auto& [name, source, outward, maxAngle] : cases)
    {
        SCOPED_TRACE(name);
        CompactMesh mesh(source);
        qyGeom::meshComputeNormals(mesh);
        for (int v = 0; v < mesh.getNumVertices(); ++v)
        {
            const Vector n = mesh.getNormals()[v].asVector();
            EXPECT_LE(qyLinear::angle(n, outward(mesh.getVertices()[v].asPoint())), maxAngle) << v;
        }
    }
}

TEST(MeshComputeNormals, TrianglesCountEquallyAndDirectionlessVerticesGetZAxis)
{
    const float h = float(1.0 / std::sqrt(2.0));
    const Vector x(1, 0, 0), xz(h, 0, h);
    const std::tuple<const char*, CompactMesh, std::vector<Vector>> cases[] = {
        // Vertex 0: a big triangle (area 50, right angle) facing +z and a sliver (area 5e-9,
        // angle 0.01 rad) facing +x. Area or angle weights would give nearly +z.
        {"big and sliver",
         qyTest::makeMesh({0, 0, 0, 10, 0, 0, 0, 10, 0, 0, 1e-3f, 0, 0, 1e-3f, 1e-5f},
                          {0, 1, 2, 0, 3, 4}),
         {xz, zAxis, zAxis, x, x}},
        // A +x triangle; vertex 3 is used by no triangle.
        {"unused vertex",
         qyTest::makeMesh({0, 0, 0, 0, 1, 0, 0, 0, 1, 7, 7, 7}, {0, 1, 2}),
         {x, x, x, zAxis}},
        // The same triangle both ways round: +x and -x cancel.
        {"cancelling",
         qyTest::makeMesh({0, 0, 0, 0, 1, 0, 0, 0, 1}, {0, 1, 2, 0, 2, 1}),
         {zAxis, zAxis, zAxis}},
        // A +x triangle and a zero-area one at vertex 0, which adds +z there.
        {"zero-area neighbour",
         qyTest::makeMesh({0, 0, 0, 0, 1, 0, 0, 0, 1, 1, 1, 1, 2, 2, 2}, {0, 1, 2, 0, 3, 4}),
         {xz, x, x, zAxis, zAxis}},
    };
    for (const auto& [name, source, expected] : cases)
    {
        SCOPED_TRACE(name);
        CompactMesh mesh(source);
        mesh.allocNormalArray(); // explicit normals, to be replaced rather than added to
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            mesh.getNormals()[v].set(5.0f, -7.0f, 0.0f);
        qyGeom::meshComputeNormals(mesh);
        EXPECT_TRUE(mesh.getNormalsComputed());
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            for (int k = 0; k < 3; ++k)
                EXPECT_NEAR(mesh.getNormals()[v][k], expected[std::size_t(v)][k], 1e-6) << v;
    }
}

TEST(MeshNormals, EachCallWithWorkToDoPrintsItsLinesAndNotifiesOnce)
{
    for (const qyTest::TestMesh& t : qyTest::testMeshes::all())
    {
        SCOPED_TRACE(t.name);
        const int numVerts = t.mesh.getNumVertices(), numTris = t.mesh.getNumTriangles();
        const std::string counts = ":  vertices " + std::to_string(numVerts) + "  triangles " +
                                   std::to_string(numTris) + "\n";
        std::string text;
        std::vector<unsigned> expected, flags;
        if (numVerts > 0)
        {
            text = "meshComputeNormals" + counts;
            expected.push_back(MeshModification::NormalsModified);
        }
        if (numTris > 0)
        {
            text += "meshComputeTriangleNormals" + counts + "  normalized: [0-9]+\\.[0-9]{6} s\n";
            expected.push_back(MeshModification::TriangleNormalsModified);
        }
        if (numVerts > 0)
            expected.push_back(MeshModification::NormalsModified); // the last meshNormalize

        qyTest::RecordingMesh mesh(t.mesh);
        qyTest::DebugCapture capture;
        qyGeom::meshNormalize(mesh); // no normal array yet: nothing to do
        qyGeom::meshComputeNormals(mesh);
        qyGeom::meshComputeTriangleNormals(mesh);
        qyGeom::meshNormalize(mesh);
        EXPECT_TRUE(std::regex_match(capture.text(), std::regex(text))) << capture.text();
        for (const qyTest::RecordingMesh::Entry& e : mesh.entries())
        {
            EXPECT_EQ(e.type, MeshModification::AttributesChanged);
            flags.push_back(e.flags);
        }
        EXPECT_EQ(flags, expected);
        EXPECT_EQ(mesh.getNormals() != nullptr, numVerts > 0);
        EXPECT_EQ(mesh.getTriangleNormals() != nullptr, numTris > 0);
        for (int i = 0; i < numTris; ++i)
        {
            const qyLinear::Normal n =
                qyGeom::triNormal(corner(mesh, i, 0), corner(mesh, i, 1), corner(mesh, i, 2));
            for (int k = 0; k < 3; ++k)
                EXPECT_EQ(mesh.getTriangleNormals()[i][k], float(n[k])) << "triangle " << i;
        }
    }
}

TEST(MeshNormalize, MakesNormalsUnitLengthAndShortOrNaNOnesZAxis)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const double third = 1.0 / std::sqrt(3.0);
    // Zero, tiny (squared length 3e-22, below the squared tolerance 1e-20), NaN, short (3e-18,
    // above it) and long normals.
    const std::pair<Vector, Vector> cases[] = {
        {{0, 0, 0}, zAxis},
        {{1e-11, 1e-11, 1e-11}, zAxis},
        {{0, 0, -1e-11}, zAxis},
        {{nan, 0, 0}, zAxis},
        {{1e-9, 1e-9, 1e-9}, {third, third, third}},
        {{-3e3, 0, 4e3}, {-0.6, 0, 0.8}},
    };
    for (const auto& [in, out] : cases)
    {
        float n[3] = {float(in.x), float(in.y), float(in.z)};
        qyGeom::meshNormalize(n, 1);
        for (int k = 0; k < 3; ++k)
            EXPECT_NEAR(n[k], out[k], 1e-6) << in.x << " " << in.y << " " << in.z;
    }
    // Every normal of every task's share, and none past the end (a guard normal).
    for (int threads : {1, 2, 3, 7})
    {
        qyTest::ScopedThreadCount scope(threads);
        for (int n = 0; n <= 20; ++n)
        {
            SCOPED_TRACE(testing::Message() << threads << " threads, " << n << " normals");
            std::vector<float> normals(3 * std::size_t(n + 1), 2.0f);
            qyGeom::meshNormalize(normals.data(), n);
            for (int i = 0; i < 3 * n; ++i)
                EXPECT_FLOAT_EQ(normals[std::size_t(i)], float(third)) << i / 3;
            for (int k = 0; k < 3; ++k)
                EXPECT_EQ(normals[3 * std::size_t(n) + k], 2.0f);
        }
    }
}

TEST(MeshNormals, ThreadCountDoesNotChangeAnyBit)
{
    // 81,920 triangles: enough for the pool to share the work of every step.
    const CompactMesh source = qyTest::makeIcosphere(6);
    const std::size_t bytes = 3 * sizeof(float) * std::size_t(source.getNumVertices());
    CompactMesh reference(source);
    {
        qyTest::ScopedThreadCount scope(1);
        qyGeom::meshComputeNormals(reference);
    }
    for (int threads : {2, 3, 7})
    {
        qyTest::ScopedThreadCount scope(threads);
        CompactMesh mesh(source);
        qyGeom::meshComputeNormals(mesh);
        EXPECT_EQ(std::memcmp(mesh.getNormalsRaw(), reference.getNormalsRaw(), bytes), 0)
            << threads << " threads";
    }
}

TEST(MeshNormals, ThreadedBuildersGiveTheSameResultsWithUnusedVerticesAnywhere)
{
    // Unreferenced vertices at the start, in the middle and at the end leave some thread
    // shares without a triangle corner; weld, normals and box must not depend on the split.
    struct Case
    {
        const char* name;
        CompactMesh mesh;
    };
    const CompactMesh sphere = qyTest::makeUVSphere(60, 200);
    const std::vector<Case> cases = {
        {"at the start", qyTest::withUnusedVertices(sphere, 30000, 0, 0)},
        {"in the middle", qyTest::withUnusedVertices(sphere, 0, 30000, 0)},
        {"at the end", qyTest::withUnusedVertices(sphere, 0, 0, 30000)},
        {"soup, everywhere",
         qyTest::withUnusedVertices(qyTest::makeTriangleSoup(sphere), 3, 5000, 7)},
    };
    for (const Case& c : cases)
    {
        std::vector<float> firstWeld, firstNormals;
        std::vector<int> firstTris;
        for (int threads : {1, 2, 3})
        {
            SCOPED_TRACE(std::string(c.name) + ", threads " + std::to_string(threads));
            qyTest::ScopedThreadCount scope(threads);
            CompactMesh welded(c.mesh);
            qyGeom::Remap remap;
            qyGeom::meshCompact(welded, qyTest::quietProgress(), remap);
            CompactMesh lit(c.mesh);
            qyGeom::meshComputeNormals(lit);
            qyGeom::BoundingBox box;
            qyGeom::meshBoundingBox(c.mesh, box);
            EXPECT_EQ(box.maxPt().x, 1e3); // the unused vertices count in the box
            EXPECT_EQ(box.minPt().y, -1e3);
            const float* w = welded.getVerticesRaw();
            const std::vector<float> weld(w, w + 3 * std::size_t(welded.getNumVertices()));
            const int* t = welded.getTrianglesRaw();
            const std::vector<int> tris(t, t + 3 * std::size_t(welded.getNumTriangles()));
            const float* n = reinterpret_cast<const float*>(lit.getNormals());
            const std::vector<float> normals(n, n + 3 * std::size_t(lit.getNumVertices()));
            for (float x : normals)
                ASSERT_TRUE(std::isfinite(x));
            if (threads == 1)
            {
                firstWeld = weld;
                firstTris = tris;
                firstNormals = normals;
                continue;
            }
            EXPECT_EQ(weld, firstWeld);
            EXPECT_EQ(tris, firstTris);
            EXPECT_EQ(normals, firstNormals);
        }
    }
}
