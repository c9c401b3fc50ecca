#include "qyGeom/meshPly.h"

#include <climits>
#include <cstring>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "meshFormatTestUtil.h"
#include "model/CompactMesh.h"

namespace
{

using qyGeom::CompactMesh;
using qyGeom::PlyEncoding;

/// Reads `text` written to a file; the error's message, empty on success.
std::string readPly(const std::string& text, CompactMesh& mesh, const char* name = "t.ply")
{
    const std::string path = qyIoTest::writeFile(name, text);
    return qyGeom::meshReadPly(mesh, qyOS::Filename(path.c_str())).message().c_str();
}

template <class T> void append(std::string& s, T v, bool bigEndian = false)
{
    char b[sizeof v];
    std::memcpy(b, &v, sizeof v);
    if (bigEndian)
        std::reverse(b, b + sizeof v);
    s.append(b, sizeof v);
}

TEST(meshPly, RoundTripsKeepCountsEveryFloatBitAndTheAttributesInEachEncoding)
{
    const std::vector<int> tris = {0, 1, 2, 2, 1, 3, 3, 4, 0, 4, 5, 6};
    const CompactMesh triangles = qyIoTest::awkwardMesh(8, tris, {}, true);
    const CompactMesh polygons =
        qyIoTest::awkwardMesh(12, qyIoTest::polygonCorners(), qyIoTest::polygonLengths(), false);
    for (const PlyEncoding encoding :
         {PlyEncoding::Ascii, PlyEncoding::BinaryLittleEndian, PlyEncoding::BinaryBigEndian})
        for (const CompactMesh* mesh : {&triangles, &polygons})
        {
            SCOPED_TRACE(int(encoding));
            const std::string path = (qyIoTest::scratchDir() / "round.ply").string();
            ASSERT_TRUE(qyGeom::meshWritePly(*mesh, qyOS::Filename(path.c_str()), encoding));
            CompactMesh back;
            const qyUtil::Error e = qyGeom::meshReadPly(back, qyOS::Filename(path.c_str()));
            ASSERT_TRUE(e.isSuccess()) << e.message().c_str();
            qyIoTest::expectSameMesh(*mesh, back);
        }
}

TEST(meshPly, ReadsOtherWritersLayoutsTypesAndByteOrders)
{
    // ASCII: a banner without "comment", double positions, byte colours without alpha, a
    // property and an element that are not read, a ushort-counted list of 8-bit indices, a quad,
    // and a face that is too short to keep.
    CompactMesh mesh;
    EXPECT_EQ("",
              readPly("ply\r\nformat ascii 1.0\r\ncomment from a scanner\r\nCreated by a banner\r\n"
                      "element vertex 4\r\nproperty double x\r\nproperty double y\r\n"
                      "property double z\r\nproperty float quality\r\nproperty uchar red\r\n"
                      "property uchar green\r\nproperty uchar diffuse_blue\r\n"
                      "element face 2\r\nproperty list ushort char vertex_index\r\n"
                      "element edge 1\r\nproperty int vertex1\r\nproperty int vertex2\r\n"
                      "end_header\r\n"
                      "0.1 0 0 9 255 0 0\r\n1 0 0 9 0 255 0\r\n1 1 0 9 0 0 255\r\n"
                      "0 1 -0 9 1 2 3\r\n4 0 1 2 3\r\n2 0 1\r\n0 1\r\n",
                      mesh));
    ASSERT_EQ(4, mesh.getNumVertices());
    ASSERT_EQ(1, mesh.getNumPolys());
    EXPECT_EQ(4, mesh.getPolyLengths()[0]);
    EXPECT_EQ(0.1f, mesh.getVertices()[0].x);
    EXPECT_TRUE(std::signbit(mesh.getVertices()[3].z));
    ASSERT_NE(nullptr, mesh.getColours());
    EXPECT_EQ(1.0f, mesh.getColours()[0].r);
    EXPECT_EQ(2.0f / 255.0f, mesh.getColours()[3].g);
    EXPECT_EQ(1.0f, mesh.getColours()[3].a);
    EXPECT_EQ(nullptr, mesh.getNormalsRaw());

    // Big-endian binary: short positions, a uint-counted list of uint indices, a vertex
    // property list read over.
    std::string bin = "ply\nformat binary_big_endian 1.0\nelement vertex 3\n"
                      "property short x\nproperty short y\nproperty short z\n"
                      "property list uchar int extra\nproperty float s\nproperty float t\n"
                      "element face 1\nproperty uchar flags\n"
                      "property list uint uint vertex_indices\nend_header\n";
    for (int v = 0; v < 3; ++v)
    {
        for (int k = 0; k < 3; ++k)
            append(bin, std::int16_t(v == k ? -7 : 300), true);
        append(bin, std::uint8_t(v));
        for (int k = 0; k < v; ++k)
            append(bin, std::int32_t(k), true);
        append(bin, 0.25f * float(v), true);
        append(bin, 1e-40f, true);
    }
    append(bin, std::uint8_t(9));
    append(bin, std::uint32_t(3), true);
    for (std::uint32_t v : {2u, 1u, 0u})
        append(bin, v, true);
    EXPECT_EQ("", readPly(bin, mesh));
    ASSERT_EQ(3, mesh.getNumVertices());
    ASSERT_EQ(1, mesh.getNumTriangles());
    EXPECT_EQ(2, mesh.getTrianglesRaw()[0]);
    EXPECT_EQ(-7.0f, mesh.getVertices()[1].y);
    EXPECT_EQ(300.0f, mesh.getVertices()[1].z);
    ASSERT_NE(nullptr, mesh.getUVs());
    EXPECT_EQ(0.5f, mesh.getUVs()[2].u);
    EXPECT_EQ(1e-40f, mesh.getUVs()[2].v);
}

TEST(meshPly, RefusesBadInputWithOneLineNamingTheFileAndTheLine)
{
    const std::string head = "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\n"
                             "property float y\nproperty float z\nelement face 1\n"
                             "property list uchar int vertex_indices\nend_header\n";
    const std::string verts = "0 0 0\n1 0 0\n0 1 0\n";
    struct Case
    {
        std::string text, expected;
    };
    const Case cases[] = {
        {"plx\n", "line 1: not a PLY file"},
        {"ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\n",
         "line 5: the header has no \"end_header\" line"},
        {"ply\nformat ascii 1.0\nelement vertex 1\nproperty float x\nend_header\n0\n",
         "line 3: the vertices have no x, y and z"},
        {"ply\nformat ascii 1.0\nelement vertex 1\nproperty real x\n", "line 4: unknown property"},
        {head + verts + "3 0 1 7\n", "line 13: face 1 names vertex 7, but there are 3 vertices"},
        {head + verts + "3 0 1 -1\n", "line 13: face 1 names vertex -1"},
        {head + verts + "4 0 1 2\n", "line 13: list 'vertex_indices' has fewer than its 4"},
        {head + verts + "3 0 1 2 5\n", "line 13: more values than the 1 properties"},
        {head + verts + "3 0 1 2\n3 0 1 2\n", "line 14: text after the last element"},
        {head + "0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n\n\n", ""},
        {head + "0 0 0\n1 x 0\n0 1 0\n3 0 1 2\n", "line 11: expected a number for property 'y'"},
        // A lying count: more faces claimed than lines left.
        {"ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
         "property float z\nelement face 3\nproperty list uchar int vertex_indices\n"
         "end_header\n" +
             verts + "3 0 1 2\n3 0 1 2\n",
         "line 15: the file ends after 2 of the 3 entries of element 'face'"},
        // Absurd counts are refused from the header alone, before any allocation.
        {"ply\nformat binary_little_endian 1.0\nelement vertex 2000000000\nproperty float x\n"
         "property float y\nproperty float z\nend_header\n",
         "counts (2000000000 vertex) need at least 24000000000 bytes, but the file has 0"},
        {"ply\nformat ascii 1.0\nelement vertex 9000000000\nproperty float x\nproperty float y\n"
         "property float z\nend_header\n",
         "line 3: 9000000000 vertices are more than this reader takes"},
        {"ply\nformat ascii 1.0\nelement vertex -1\n", "line 3: element 'vertex' has a negative"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.text);
        CompactMesh mesh = qyIoTest::awkwardMesh(3, {0, 1, 2}, {}, false);
        const CompactMesh before = mesh;
        const std::string message = readPly(c.text, mesh, "bad.ply");
        if (c.expected.empty())
        {
            EXPECT_EQ("", message);
            continue;
        }
        EXPECT_EQ(0u, message.find("cannot read '" + (qyIoTest::scratchDir() / "bad.ply").string() +
                                   "': "))
            << message;
        EXPECT_NE(std::string::npos, message.find(c.expected)) << message;
        EXPECT_EQ(std::string::npos, message.find('\n'));
        qyIoTest::expectSameMesh(before, mesh); // left untouched
    }

    // Binary bodies: cut short, too long, an index out of range, a lying list length.
    std::string bin = "ply\nformat binary_little_endian 1.0\nelement vertex 3\n"
                      "property float x\nproperty float y\nproperty float z\nelement face 2\n"
                      "property list uchar int vertex_indices\nend_header\n";
    for (int i = 0; i < 9; ++i)
        append(bin, float(i));
    std::string faces;
    for (int f = 0; f < 2; ++f)
    {
        append(faces, std::uint8_t(3));
        for (int v : {0, 1, 2})
            append(faces, std::int32_t(v));
    }
    CompactMesh mesh;
    EXPECT_EQ("", readPly(bin + faces, mesh));
    EXPECT_NE(std::string::npos, readPly(bin + faces.substr(0, 20), mesh)
                                     .find("the file ends inside face 2 of 2 (a list of 3"));
    EXPECT_NE(std::string::npos,
              readPly(bin + faces + "xy", mesh).find("2 bytes after the last element"));
    std::string outside = faces;
    outside[13 + 9] = 3;
    EXPECT_NE(std::string::npos,
              readPly(bin + outside, mesh).find("face 2 names vertex 3, but there are 3"));
    std::string longList = faces;
    longList[13] = char(200);
    EXPECT_NE(std::string::npos, readPly(bin + longList, mesh).find("the file ends inside face 2"));

    CompactMesh untouched;
    const qyUtil::Error missing =
        qyGeom::meshReadPly(untouched, qyOS::Filename("/nonexistent/dir/x.ply"));
    EXPECT_EQ(1, missing.code());
    EXPECT_STREQ("cannot read '/nonexistent/dir/x.ply': No such file or directory",
                 missing.message().c_str());
    const char memory[] = "ply\nformat ascii 1.0\n";
    EXPECT_STREQ("cannot read memory block: line 3: the header has no \"end_header\" line",
                 qyGeom::meshReadPly(untouched, memory, sizeof memory - 1).message().c_str());
}

TEST(meshPly, ReadsTheSampleFilesOfAnotherLibrary)
{
    const std::filesystem::path dir = "/usr/share/assimp/models/PLY";
    if (!std::filesystem::is_directory(dir))
        GTEST_SKIP() << dir << " is absent";
    CompactMesh mesh;
    const qyUtil::Error cube = qyGeom::meshReadPly(mesh, (dir / "cube.ply").c_str());
    ASSERT_TRUE(cube.isSuccess()) << cube.message().c_str();
    EXPECT_EQ(8, mesh.getNumVertices());
    EXPECT_EQ(6, mesh.getNumPolys());
    const qyUtil::Error binary = qyGeom::meshReadPly(mesh, (dir / "cube_binary.ply").c_str());
    ASSERT_TRUE(binary.isSuccess()) << binary.message().c_str();
    EXPECT_EQ(8, mesh.getNumVertices());
}

} // namespace
