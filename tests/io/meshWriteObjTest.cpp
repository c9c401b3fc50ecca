// The OBJ writer and the minimal counted format: text forms and round trips.
#include "qyGeom/meshWriteObj.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/AppOutput.h"
#include "base/ThreadPool.h"
#include "ioTestUtil.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "model/TopoMesh.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshReadWrite.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyIoTest::readText;
using qyIoTest::scratchDir;

namespace
{

CompactMesh oneTriangle()
{
    return qyTest::makeMesh({0, 0, 0, 1.5f, 0, 0, 0, 0.25f, -2}, {0, 1, 2});
}

std::string writeObj(const CompactMesh& m, const std::string& name)
{
    const std::string path = (scratchDir() / name).string();
    EXPECT_TRUE(meshWriteObj(m, qyOS::Filename(path)));
    return readText(path);
}

std::vector<float> vertices(const CompactMesh& m)
{
    return {m.getVerticesRaw(), m.getVerticesRaw() + 3 * m.getNumVertices()};
}

std::vector<int> triangles(const CompactMesh& m)
{
    return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

} // namespace

TEST(MeshWriteObj, FaceFormsFollowTheVertexData)
{
    CompactMesh m = oneTriangle();
    EXPECT_EQ(writeObj(m, "plain.obj"), "v 0 0 0\nv 1.5 0 0\nv 0 0.25 -2\nf 1  2  3 \n");

    m.allocNormalArray();
    m.getNormals()[0] = {0, 0, 1};
    EXPECT_EQ(writeObj(m, "n.obj"), "v 0 0 0\nv 1.5 0 0\nv 0 0.25 -2\n"
                                    "vn 0 0 1\nvn 0 0 0\nvn 0 0 0\nf 1//1 2//2 3//3\n");
    m.allocUVArray();
    m.getUVs()[2] = {0.125f, 1e-7f};
    EXPECT_EQ(writeObj(m, "nt.obj"), "v 0 0 0\nv 1.5 0 0\nv 0 0.25 -2\n"
                                     "vn 0 0 1\nvn 0 0 0\nvn 0 0 0\n"
                                     "vt 0 0\nvt 0 0\nvt 0.125 1e-07\nf 1/1/1 2/2/2 3/3/3\n");
    m.deleteNormals();
    EXPECT_EQ(writeObj(m, "t.obj"), "v 0 0 0\nv 1.5 0 0\nv 0 0.25 -2\n"
                                    "vt 0 0\nvt 0 0\nvt 0.125 1e-07\nf 1/1 2/2 3/3\n");

    // Six significant digits, as an output stream writes floats by default.
    const CompactMesh big = qyTest::makeMesh(
        {123456789.0f, 0.1f, -1.0f / 3, 1e-30f, 2, 3, 100000, 1000000, 0}, {0, 1, 2});
    EXPECT_EQ(writeObj(big, "digits.obj"), "v 1.23457e+08 0.1 -0.333333\nv 1e-30 2 3\n"
                                           "v 100000 1e+06 0\nf 1  2  3 \n");
    EXPECT_FALSE(meshWriteObj(m, qyOS::Filename("/nonexistent/dir/x.obj")));
}

TEST(MeshWriteObj, NumbersAreWrittenAsPrintfG)
{
    // Random bit patterns (every exponent, NaN and infinities included), decimal-looking
    // values and values that round up to the next power of ten.
    std::mt19937 rng(7);
    std::vector<float> xyz;
    for (int i = 0; i < 20000; ++i)
    {
        const std::uint32_t bits = std::uint32_t(rng());
        float f;
        std::memcpy(&f, &bits, sizeof f);
        xyz.push_back(f);
        xyz.push_back(float(int(rng() % 2000001) - 1000000) / float(1 + rng() % 100000));
    }
    for (const float f : {999999.5f, 999999.4f, 99999.95f, 0.000999999f, 0.0001f, 9.999995e-5f,
                          1e-4f, 123456.5f, -0.0f, 1e6f, 0.5f, 2.5f, 1.0000005f})
        xyz.push_back(f);
    while (xyz.size() % 3)
        xyz.push_back(0);
    const CompactMesh m = qyTest::makeMesh(xyz, {0, 1, 2});
    const std::string text = writeObj(m, "numbers.obj");
    std::string want;
    char buf[64];
    for (std::size_t i = 0; i < xyz.size(); i += 3)
    {
        std::snprintf(buf, sizeof buf, "v %g %g %g\n", double(xyz[i]), double(xyz[i + 1]),
                      double(xyz[i + 2]));
        want += buf;
    }
    want += "f 1  2  3 \n";
    EXPECT_EQ(text, want);
}

TEST(MeshWriteObjChecked, DigitsOptionWritesPrintfPrecisionAndNineDigitsReadBackExactly)
{
    // Survey coordinates lose their decimals and even whole metres at the default 6 digits.
    const CompactMesh survey = qyTest::makeMesh({500123.25f, 4100456.5f, 12.125f, 500124.25f,
                                                 4100456.5f, 12.5f, 500123.25f, 4100457.5f, 13},
                                                {0, 1, 2});
    const std::string path = (scratchDir() / "digits.obj").string();
    ASSERT_TRUE(meshWriteObjChecked(survey, qyOS::Filename(path), MeshWriteOptions{9}));
    EXPECT_EQ(readText(path), "v 500123.25 4100456.5 12.125\nv 500124.25 4100456.5 12.5\n"
                              "v 500123.25 4100457.5 13\nf 1  2  3 \n");
    CompactMesh back;
    ASSERT_TRUE(meshReadObj(back, qyOS::Filename(path)));
    EXPECT_EQ(vertices(back), vertices(survey));

    // Default options (and digits outside 1 to 17) write what the plain writers write.
    for (const int digits : {0, -3, 18})
    {
        ASSERT_TRUE(meshWriteObjChecked(survey, qyOS::Filename(path), MeshWriteOptions{digits}));
        EXPECT_EQ(readText(path), writeObj(survey, "plain.obj")) << digits;
    }

    // Every writer takes the option: the minimal format, half-edge meshes, material colours.
    ASSERT_TRUE(meshWriteChecked(survey, qyOS::Filename(path), MeshWriteOptions{4}));
    EXPECT_EQ(readText(path), "3 1\n5.001e+05 4.1e+06 12.12\n5.001e+05 4.1e+06 12.5\n"
                              "5.001e+05 4.1e+06 13\n3 0 1 2\n");
    TopoMesh topo;
    topo.allocVertex(0.1, 2.0 / 3, 1e-9);
    ASSERT_TRUE(meshWriteObjChecked(topo, qyOS::Filename(path), MeshWriteOptions{3}));
    EXPECT_EQ(readText(path), "v 0.1 0.667 1e-09\n");
    const qy::list<qy::Reference<MeshSubset>> subsets{
        qy::Reference<MeshSubset>(new MeshSubset({}, {0}))};
    ASSERT_TRUE(meshWriteObjChecked(survey, subsets, {qyUtil::Color(1.0f / 3, 0.5f, 1)},
                                    qyOS::Filename(path), MeshWriteOptions{2}));
    EXPECT_NE(readText((scratchDir() / "digits.mtl").string()).find("\nKd 0.33 0.5 1\n"),
              std::string::npos);

    // Random bit patterns (NaN and infinities included), formatted on the pool in chunks:
    // %.9g of each, whatever the thread count.
    std::mt19937 rng(11);
    std::vector<float> xyz;
    while (xyz.size() < 3 * 30000)
    {
        const std::uint32_t bits = std::uint32_t(rng());
        float f;
        std::memcpy(&f, &bits, sizeof f);
        xyz.push_back(f);
    }
    const CompactMesh m = qyTest::makeMesh(xyz, {0, 1, 2});
    std::string want;
    char buf[96];
    for (std::size_t i = 0; i < xyz.size(); i += 3)
    {
        std::snprintf(buf, sizeof buf, "v %.9g %.9g %.9g\n", double(xyz[i]), double(xyz[i + 1]),
                      double(xyz[i + 2]));
        want += buf;
    }
    want += "f 1  2  3 \n";
    const int threads = qyUtil::ThreadPool::get().getNumThreads();
    for (const int n : {1, 4})
    {
        qyUtil::ThreadPool::get().setNumThreads(n);
        ASSERT_TRUE(meshWriteObjChecked(m, qyOS::Filename(path), MeshWriteOptions{9}));
        EXPECT_EQ(readText(path), want) << n << " threads";
    }
    qyUtil::ThreadPool::get().setNumThreads(threads);
}

TEST(MeshWriteObj, SubsetsWriteMaterialsPairedWithColours)
{
    const CompactMesh m =
        qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}, {0, 1, 2, 1, 3, 2});
    qy::list<qy::Reference<MeshSubset>> subsets;
    subsets.push_back(qy::makeReference<MeshSubset>(std::vector<int>{}, std::vector<int>{1}));
    subsets.push_back(qy::makeReference<MeshSubset>(std::vector<int>{}, std::vector<int>{}));
    subsets.push_back(qy::makeReference<MeshSubset>(std::vector<int>{}, std::vector<int>{1, 0}));
    const qy::list<qyUtil::Color> colors = {{1, 0, 0}, {0.5f, 0.25f, 1}};
    const std::string path = (scratchDir() / "sub.obj").string();
    ASSERT_TRUE(meshWriteObj(m, subsets, colors, qyOS::Filename(path)));
    EXPECT_EQ(readText(path), "mtllib sub.mtl\n"
                              "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\n"
                              "usemtl mat0\nf 2  4  3 \n"
                              "usemtl mat1\n"
                              "usemtl mat2\nf 2  4  3 \nf 1  2  3 \n");
    const std::string lib = readText((scratchDir() / "sub.mtl").string());
    EXPECT_EQ(lib, "newmtl mat0\nNs 100.0\nd 1.0\nillum 2\nKd 1 0 0\n"
                   "Ka 1.0 1.0 1.0\nKs 1.0 1.0 1.0\nKe 0.0 0.0 0.0\n\n"
                   "newmtl mat1\nNs 100.0\nd 1.0\nillum 2\nKd 0.5 0.25 1\n"
                   "Ka 1.0 1.0 1.0\nKs 1.0 1.0 1.0\nKe 0.0 0.0 0.0\n\n");

    // The forgiving reader reads it back; the strict one stops at the library's Ke line.
    CompactMesh back;
    qy::list<qy::Reference<MeshSubset>> s;
    qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
    qy::vector<qyString::IString> names;
    qyOS::Filename mtl;
    ASSERT_TRUE(meshReadObj(back, s, uvs, names, mtl, qyOS::Filename(path)));
    EXPECT_EQ(mtl.str(), (scratchDir() / "sub.mtl").string());
    EXPECT_EQ(back.getNumTriangles(), 2); // the repeated triangle is a duplicate
    EXPECT_EQ(meshReadObj2(path, nullptr).message(),
              "Parse failed on line 8: expecting 'newmtl' or end of file\n");
}

TEST(MeshWriteObj, RoundTripsKeepVerticesAndTriangles)
{
    for (const qyTest::TestMesh& t : qyTest::testMeshes::all())
    {
        SCOPED_TRACE(t.name);
        if (t.mesh.getNumTriangles() == 0)
            continue;
        const std::string obj = (scratchDir() / (t.name + ".obj")).string();
        ASSERT_TRUE(meshWriteObj(t.mesh, qyOS::Filename(obj)));
        CompactMesh back;
        ASSERT_TRUE(meshReadObj(back, qyOS::Filename(obj)));
        // Degenerate triangles are left out by the reader; the rest keep their order.
        std::vector<int> want;
        const int* tris = t.mesh.getTrianglesRaw();
        for (int i = 0; i < t.mesh.getNumTriangles(); ++i)
        {
            const int a = tris[3 * i], b = tris[3 * i + 1], c = tris[3 * i + 2];
            if (a != b && b != c && a != c)
                want.insert(want.end(), {a, b, c});
        }
        EXPECT_EQ(triangles(back), want);
        ASSERT_EQ(back.getNumVertices(), t.mesh.getNumVertices());
        for (int i = 0; i < 3 * back.getNumVertices(); ++i)
            EXPECT_NEAR(back.getVerticesRaw()[i], t.mesh.getVerticesRaw()[i],
                        1e-5 * (1 + std::abs(t.mesh.getVerticesRaw()[i])));

        // The minimal format keeps every float exactly (10 significant digits).
        const std::string txt = (scratchDir() / (t.name + ".mesh")).string();
        meshWrite(t.mesh, qyOS::Filename(txt));
        CompactMesh exact;
        meshRead(exact, qyOS::Filename(txt));
        EXPECT_EQ(vertices(exact), vertices(t.mesh));
        EXPECT_EQ(triangles(exact), triangles(t.mesh));
    }
    const CompactMesh sphere = qyTest::makeUVSphere(20, 30);
    const std::string txt = (scratchDir() / "sphere.mesh").string();
    meshWrite(sphere, qyOS::Filename(txt));
    CompactMesh exact;
    meshRead(exact, qyOS::Filename(txt));
    EXPECT_EQ(vertices(exact), vertices(sphere));
    EXPECT_EQ(triangles(exact), triangles(sphere));
}

TEST(MeshWriteObj, TextDoesNotDependOnTheThreadCount)
{
    // Large enough for the writer to format chunks on the pool: every face form and the
    // subsets writer give the same bytes with one thread and with several.
    CompactMesh mesh = qyTest::makeGrid(150, 150);
    mesh.allocNormalArray();
    mesh.allocUVArray();
    for (int i = 0; i < mesh.getNumVertices(); ++i)
    {
        float* n = mesh.getNormalsRaw() + 3 * i;
        n[0] = 1e-5f * float(i);
        n[1] = -3e7f / float(i + 1);
        n[2] = 1;
        mesh.getUVsRaw()[2 * i] = 0.001f * float(i % 1000);
        mesh.getUVsRaw()[2 * i + 1] = 1.0f / float(i + 3);
    }
    std::vector<int> odd;
    for (int t = mesh.getNumTriangles() - 1; t >= -5; t -= 2)
        odd.push_back(t); // backwards, with indices out of range at the end
    qy::list<qy::Reference<MeshSubset>> subsets;
    subsets.push_back(qy::makeReference<MeshSubset>(std::vector<int>{}, odd));
    const qy::list<qyUtil::Color> colors = {{1, 0, 0}};
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    const int threads = pool.getNumThreads();
    std::vector<std::string> texts[2];
    for (int run = 0; run < 2; ++run)
    {
        pool.setNumThreads(run == 0 ? 1 : 4);
        const std::string a = (scratchDir() / "threads.obj").string();
        const std::string b = (scratchDir() / "threads-sub.obj").string();
        ASSERT_TRUE(meshWriteObj(mesh, qyOS::Filename(a)));
        ASSERT_TRUE(meshWriteObj(mesh, subsets, colors, qyOS::Filename(b)));
        texts[run] = {readText(a), readText(b)};
    }
    pool.setNumThreads(threads);
    EXPECT_TRUE(texts[0] == texts[1]);
    // The last line is the last triangle, in the v/vt/vn form.
    const int* last = mesh.getTrianglesRaw() + 3 * (mesh.getNumTriangles() - 1);
    char want[128];
    std::snprintf(want, sizeof want, "f %d/%d/%d %d/%d/%d %d/%d/%d\n", last[0] + 1, last[0] + 1,
                  last[0] + 1, last[1] + 1, last[1] + 1, last[1] + 1, last[2] + 1, last[2] + 1,
                  last[2] + 1);
    EXPECT_EQ(texts[0][0].substr(texts[0][0].size() - std::strlen(want)), want);
}

TEST(MeshWriteObjChecked, ReportsAWriteOrCloseThatFailsAndWritesTheSameText)
{
    // /dev/full opens, but every write to it fails with ENOSPC. A small file fails only when
    // its buffered text is written at the close; a large one fails in the middle, also on
    // the pool's path.
    if (!std::filesystem::exists("/dev/full"))
        GTEST_SKIP() << "no /dev/full";
    std::vector<std::string> errors;
    const qyOS::AppOutput::Sink previous = qyOS::AppOutput::getInstance().setSink(
        [&](qyOS::AppOutput::Kind kind, const char* text)
        {
            if (kind == qyOS::AppOutput::ErrorMessage)
                errors.push_back(text);
        });
    const qyOS::Filename full("/dev/full");
    const std::string fullError = "cannot write '/dev/full': No space left on device\n";
    auto reported = [&](const std::string& function)
    {
        const bool found = errors.size() == 1 && errors[0] == function + ": " + fullError;
        errors.clear();
        return found;
    };
    qy::list<qy::Reference<MeshSubset>> subsets;
    subsets.push_back(qy::makeReference<MeshSubset>(std::vector<int>{}, std::vector<int>{0}));
    const qy::list<qyUtil::Color> colors = {{1, 0, 0}};
    auto topo = qy::makeReference<TopoMesh>();
    ASSERT_TRUE(meshReadObj(*topo, qyOS::Filename(qyIoTest::writeFile(
                                       "tri.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n"))));
    for (const CompactMesh& mesh : {oneTriangle(), qyTest::makeGrid(150, 150)})
    {
        SCOPED_TRACE(mesh.getNumTriangles());
        EXPECT_FALSE(meshWriteObjChecked(mesh, full));
        EXPECT_TRUE(reported("meshWriteObjChecked"));
        EXPECT_FALSE(meshWriteObjChecked(mesh, subsets, colors, full));
        EXPECT_TRUE(reported("meshWriteObjChecked"));
        EXPECT_FALSE(meshWriteChecked(mesh, full));
        EXPECT_TRUE(reported("meshWriteChecked"));
        // The plain forms still fail only where the output does not open.
        EXPECT_TRUE(meshWriteObj(mesh, full));
        EXPECT_TRUE(errors.empty());
    }
    EXPECT_FALSE(meshWriteObjChecked(*topo, full));
    EXPECT_TRUE(reported("meshWriteObjChecked"));
    EXPECT_FALSE(meshWriteObjChecked(qy::list<qy::Reference<TopoMesh>>{topo}, full));
    EXPECT_TRUE(reported("meshWriteObjChecked"));
    EXPECT_FALSE(meshWriteChecked(*topo, full));
    EXPECT_TRUE(reported("meshWriteChecked"));

    // A material library that cannot be written fails the checked call; the OBJ stands.
    const std::filesystem::path obj = scratchDir() / "blocked.obj";
    std::filesystem::remove_all(scratchDir() / "blocked.mtl");
    std::filesystem::create_directory(scratchDir() / "blocked.mtl");
    EXPECT_TRUE(meshWriteObj(oneTriangle(), subsets, colors, qyOS::Filename(obj.string())));
    EXPECT_TRUE(errors.empty());
    EXPECT_FALSE(meshWriteObjChecked(oneTriangle(), subsets, colors, qyOS::Filename(obj.string())));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0], "meshWriteObjChecked: cannot write '" +
                             (scratchDir() / "blocked.mtl").string() + "': Is a directory\n");
    errors.clear();
    EXPECT_FALSE(meshWriteObjChecked(oneTriangle(), qyOS::Filename("/nonexistent/dir/x.obj")));
    EXPECT_EQ(errors.size(), 1u);
    errors.clear();

    // On success: the plain forms' text, and no message.
    const CompactMesh grid = qyTest::makeGrid(150, 150);
    const std::string plain = (scratchDir() / "plain.obj").string();
    const std::string checked = (scratchDir() / "checked.obj").string();
    ASSERT_TRUE(meshWriteObj(grid, qyOS::Filename(plain)));
    ASSERT_TRUE(meshWriteObjChecked(grid, qyOS::Filename(checked)));
    EXPECT_TRUE(readText(plain) == readText(checked));
    meshWrite(grid, qyOS::Filename(plain));
    ASSERT_TRUE(meshWriteChecked(grid, qyOS::Filename(checked)));
    EXPECT_TRUE(readText(plain) == readText(checked));
    EXPECT_TRUE(errors.empty());
    qyOS::AppOutput::getInstance().setSink(previous);
}

TEST(TopoMeshIo, ReadWriteAndSharedIndexOffset)
{
    const std::string quads = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nv 2 0 0\nv 2 1 0\n"
                              "f 1 2 3 4\nf 2 5 6 3\nf 1 2\nf 1 1 2\n";
    TopoMesh mesh;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(qyIoTest::writeFile("quads.obj", quads))));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(mesh.getNumVertices(), 6);
    EXPECT_EQ(mesh.getNumFaces(), 2);
    EXPECT_EQ(mesh.getNumEdges(), 8);
    EXPECT_TRUE(mesh.findEdge(mesh.vertex(1), mesh.vertex(2)).hasTwin());

    // The edge check: a third face on one edge, or one edge run the same way twice.
    const std::string v4 = "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 0 0 1\n";
    const std::string fan = v4 + "f 1 2 3\nf 2 1 4\nf 1 2 4\n";
    const std::string flipped = v4 + "f 1 2 3\nf 1 2 4\n";
    for (const std::string& text : {fan, flipped})
    {
        const std::string path = qyIoTest::writeFile("nm.obj", text);
        EXPECT_TRUE(meshReadObj(mesh, qyOS::Filename(path)));
        EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename(path), false));
    }
    // A corner repeated in place is an edge from the vertex to itself: twice is refused.
    EXPECT_FALSE(meshReadObj(
        mesh, qyOS::Filename(qyIoTest::writeFile("loops.obj", v4 + "f 1 1 2 3\nf 1 1 3 4\n")),
        false));
    EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename("/nonexistent.obj")));

    // Two meshes of 4 vertices share one file: the second is numbered 5 to 8.
    auto a = qy::makeReference<TopoMesh>();
    ASSERT_TRUE(meshReadObj(*a, qyOS::Filename(qyIoTest::writeFile(
                                    "q.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\nf 1 2 3 4\n"))));
    auto b = qy::makeReference<TopoMesh>(*a);
    const std::string path = (scratchDir() / "two.obj").string();
    ASSERT_TRUE(meshWriteObj(qy::list<qy::Reference<TopoMesh>>{a, b}, qyOS::Filename(path)));
    const std::string vs = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n";
    EXPECT_EQ(readText(path), vs + "f 1 2 3 4 \n" + vs + "f 5 6 7 8 \n");
    EXPECT_FALSE(meshWriteObj(qy::list<qy::Reference<TopoMesh>>{a, nullptr}, qyOS::Filename(path)));

    // The minimal format: a round trip, and a hostile face count.
    const std::string txt = (scratchDir() / "topo.mesh").string();
    meshWrite(*a, qyOS::Filename(txt));
    EXPECT_EQ(readText(txt), "4 1\n0 0 0\n1 0 0\n1 1 0\n0 1 0\n4 0 1 2 3\n");
    TopoMesh back;
    meshRead(back, qyOS::Filename(txt));
    EXPECT_EQ(back.getNumVertices(), 4);
    EXPECT_EQ(back.getNumFaces(), 1);
    meshRead(back, qyOS::Filename(qyIoTest::writeFile("t.mesh", "3 5\n0 0 0\n1 0 0\n0 1 0\n"
                                                                "2147483647 0 1 2\n3 0 1 9\n")));
    EXPECT_EQ(back.getNumVertices(), 3);
    EXPECT_EQ(back.getNumFaces(), 0);
}
