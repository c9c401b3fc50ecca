#include "qyGeom/meshStl.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "meshFormatTestUtil.h"
#include "model/CompactMesh.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;
using qyGeom::StlEncoding;

std::string readStl(const std::string& text, CompactMesh& mesh, const char* name = "t.stl")
{
    const std::string path = qyIoTest::writeFile(name, text);
    return qyGeom::meshReadStl(mesh, qyOS::Filename(path.c_str())).message().c_str();
}

/// A binary STL of the given corners (9 floats per triangle) under `title`.
std::string binaryStl(const std::vector<float>& corners, const char* title = "")
{
    std::string s(80, ' ');
    std::memcpy(s.data(), title, std::strlen(title));
    const std::uint32_t n = std::uint32_t(corners.size() / 9);
    s.append(reinterpret_cast<const char*>(&n), 4);
    for (std::uint32_t t = 0; t < n; ++t)
    {
        const float normal[3] = {0, 0, 1};
        s.append(reinterpret_cast<const char*>(normal), 12);
        s.append(reinterpret_cast<const char*>(corners.data() + 9 * t), 36);
        s.append(2, '\0');
    }
    return s;
}

TEST(meshStl, RoundTripsWeldBackToTheSameVerticesAndTrianglesBitForBit)
{
    // Vertices of any bits in order of first use, so that the weld numbers them as they
    // were; a polygon mesh comes back as its fans.
    const std::vector<int> tris = {0, 1, 2, 2, 1, 3, 3, 4, 0, 4, 5, 6, 6, 5, 7};
    const CompactMesh mesh = qyIoTest::awkwardMesh(8, tris, {}, false);
    const CompactMesh polygons =
        qyIoTest::awkwardMesh(12, qyIoTest::polygonCorners(), qyIoTest::polygonLengths(), false);
    for (const StlEncoding encoding : {StlEncoding::Binary, StlEncoding::Ascii})
    {
        SCOPED_TRACE(int(encoding));
        const std::string path = (qyIoTest::scratchDir() / "round.stl").string();
        ASSERT_TRUE(qyGeom::meshWriteStl(mesh, qyOS::Filename(path.c_str()), encoding));
        CompactMesh back;
        const qyUtil::Error e = qyGeom::meshReadStl(back, qyOS::Filename(path.c_str()));
        ASSERT_TRUE(e.isSuccess()) << e.message().c_str();
        qyIoTest::expectSameMesh(mesh, back);

        ASSERT_TRUE(qyGeom::meshWriteStl(polygons, qyOS::Filename(path.c_str()), encoding));
        ASSERT_TRUE(qyGeom::meshReadStl(back, qyOS::Filename(path.c_str())).isSuccess());
        EXPECT_EQ(12, back.getNumVertices());
        EXPECT_EQ(1 + 2 + 3 + 1, back.getNumTriangles());
        const std::vector<int> fans = {0, 1, 2, 2, 3, 4, 2, 4, 5,  5, 6,
                                       7, 5, 7, 8, 5, 8, 9, 9, 10, 11};
        EXPECT_TRUE(std::equal(fans.begin(), fans.end(), back.getTrianglesRaw()));
    }

    // The icosphere's soup welds to its vertices; its triangles keep their corners' places.
    const CompactMesh sphere = qyTest::makeIcosphere(3);
    const std::string path = (qyIoTest::scratchDir() / "sphere.stl").string();
    ASSERT_TRUE(qyGeom::meshWriteStl(sphere, qyOS::Filename(path.c_str())));
    CompactMesh back;
    ASSERT_TRUE(qyGeom::meshReadStl(back, qyOS::Filename(path.c_str())).isSuccess());
    EXPECT_EQ(sphere.getNumVertices(), back.getNumVertices());
    ASSERT_EQ(sphere.getNumTriangles(), back.getNumTriangles());
    for (int i = 0; i < 3 * sphere.getNumTriangles(); ++i)
    {
        const auto& a = sphere.getVertices()[sphere.getTrianglesRaw()[i]];
        const auto& b = back.getVertices()[back.getTrianglesRaw()[i]];
        ASSERT_TRUE(a.x == b.x && a.y == b.y && a.z == b.z) << i;
    }
}

TEST(meshStl, WeldsExactlyAndTellsBinaryFromAsciiByContents)
{
    // -0 and 0 weld; 1 and the float after it do not. The binary header starts with
    // "solid", as some exporters write it.
    const float next = std::nextafter(1.0f, 2.0f);
    const std::vector<float> corners = {0,     0, 0, 1, 0, 0, 0,    1, 0, //
                                        -0.0f, 0, 0, 0, 1, 0, next, 0, 0, //
                                        1,     0, 0, 0, 1, 0, 0,    0, -0.0f};
    CompactMesh mesh;
    EXPECT_EQ("", readStl(binaryStl(corners, "solid exported"), mesh));
    EXPECT_EQ(4, mesh.getNumVertices());
    const std::vector<int> expected = {0, 1, 2, 0, 2, 3, 1, 2, 0};
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), mesh.getTrianglesRaw()));

    // ASCII, in upper case, with two solids and blank lines.
    const std::string ascii = "SOLID a\n FACET NORMAL 0 0 1\n  OUTER LOOP\n"
                              "   VERTEX 0 0 0\n   VERTEX 1 0 0\n   VERTEX 0 1 0\n"
                              "  ENDLOOP\n ENDFACET\nENDSOLID a\n\n"
                              "solid b\nfacet normal 0 0 0\nouter loop\nvertex 1 0 0\n"
                              "vertex 1 1 0\nvertex 0 1 0\nendloop\nendfacet\nendsolid\n";
    EXPECT_EQ("", readStl(ascii, mesh));
    EXPECT_EQ(4, mesh.getNumVertices());
    EXPECT_EQ(2, mesh.getNumTriangles());
}

TEST(meshStl, LargeSoupsWeldToTheVerticesOfAWeldCornerByCorner)
{
    // A grid's soup in mesh order, then a shuffled copy of it, then the grid again: many
    // windows of the two-level weld, windows ended by their count of distinct corners,
    // the corner-by-corner stretch after them, and vertices first seen in one window and
    // used again in later ones. The zeros on the axes come as -0 and 0 (one vertex, with
    // the sign of its first corner); corners with a NaN are never welded.
    constexpr int side = 300;
    auto coord = [](int i, int salt)
    { return i == side / 2 ? (salt % 3 ? 0.0f : -0.0f) : 0.01f * float(i - side / 2); };
    std::vector<std::array<float, 9>> grid;
    for (int j = 0; j + 1 < side; ++j)
        for (int i = 0; i + 1 < side; ++i)
        {
            const int salt = int(grid.size());
            auto corner = [&](int a, int b, float* c)
            {
                c[0] = coord(a, salt);
                c[1] = coord(b, salt + 1);
                c[2] = float(a * b % 7);
            };
            std::array<float, 9> t, u;
            corner(i, j, &t[0]);
            corner(i + 1, j, &t[3]);
            corner(i + 1, j + 1, &t[6]);
            corner(i, j, &u[0]);
            corner(i + 1, j + 1, &u[3]);
            corner(i, j + 1, &u[6]);
            if (salt % 9973 == 0)
                std::fill(t.begin(), t.end(), std::nanf("")); // three corners, three vertices
            grid.push_back(t);
            grid.push_back(u);
        }
    std::vector<std::array<float, 9>> shuffled = grid;
    std::shuffle(shuffled.begin(), shuffled.end(), std::mt19937(5));
    std::vector<float> corners;
    for (const auto* part : {&grid, &shuffled, &grid})
        for (const auto& t : *part)
            corners.insert(corners.end(), t.begin(), t.end());

    // The reference: a map from the coordinates' bits, -0 as 0.
    std::map<std::array<std::uint32_t, 3>, int> seen;
    std::vector<std::uint32_t> xyz;
    std::vector<int> tris;
    for (std::size_t c = 0; c < corners.size(); c += 3)
    {
        std::array<std::uint32_t, 3> key;
        std::memcpy(key.data(), &corners[c], 12);
        bool nan = false;
        for (std::uint32_t& b : key)
        {
            nan = nan || (b & 0x7FFFFFFFu) > 0x7F800000u;
            b = b == 0x80000000u ? 0 : b;
        }
        const int next = int(xyz.size() / 3);
        const int v = nan ? next : seen.emplace(key, next).first->second;
        if (v == next)
        {
            const std::size_t at = xyz.size();
            xyz.resize(at + 3);
            std::memcpy(&xyz[at], &corners[c], 12);
        }
        tris.push_back(v);
    }

    // On one thread and on several (a window numbered while the next is welded), from a
    // file and from memory: the same mesh, bit for bit.
    const std::string file = binaryStl(corners);
    for (const int threads : {1, 3})
    {
        SCOPED_TRACE(threads);
        qyTest::ScopedThreadCount scoped(threads);
        CompactMesh mesh, inMemory;
        ASSERT_EQ("", readStl(file, mesh, "large.stl"));
        ASSERT_TRUE(qyGeom::meshReadStl(inMemory, file.data(), unsigned(file.size())).isSuccess());
        for (const CompactMesh* m : {&mesh, &inMemory})
        {
            ASSERT_EQ(int(xyz.size() / 3), m->getNumVertices());
            ASSERT_EQ(int(tris.size() / 3), m->getNumTriangles());
            EXPECT_TRUE(std::equal(tris.begin(), tris.end(), m->getTrianglesRaw()));
            EXPECT_EQ(0, std::memcmp(xyz.data(), m->getVerticesRaw(), xyz.size() * 4));
        }
    }
}

TEST(meshStl, RefusesBadInputWithOneLineNamingTheFileAndTheLine)
{
    const std::vector<float> corners(18, 0.5f);
    const std::string good = binaryStl(corners);
    std::string absurd = good;
    const std::uint32_t huge = 0xFFFFFFF0u;
    std::memcpy(absurd.data() + 80, &huge, 4);
    const std::string facet = "solid x\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\n"
                              "vertex 1 0 0\nvertex 0 1 0\n";
    struct Case
    {
        std::string text, expected;
    };
    const Case cases[] = {
        {good.substr(0, good.size() - 7),
         "the header's 2 triangles need 184 bytes, but the file has 177 (it ends inside "
         "triangle 2)"},
        {good + "zz", "2 bytes after the header's 2 triangles"},
        {absurd, "the header's 4294967280 triangles need 214748364084 bytes"},
        {"tiny", "4 bytes are too few for a binary STL file"},
        {facet + "endloop\nendfacet\n", "line 9: the file ends where \"facet\" or \"endsolid\""},
        {facet + "vertex 1 1 1\nendloop\n", "line 7: a facet of more than 3 vertices"},
        {facet + "endloop\nendfacet\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nendloop\n",
         "line 12: a facet of fewer than 3 vertices"},
        {"solid x\nfacet normal 0 0 1\nouter loop\nvertex 0 zero 0\n",
         "line 4: 'zero' is not a number"},
        {"solid x\nfacet normal 0 0 1\ninner loop\n", "line 3: expected \"outer\", found 'inner'"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.expected);
        CompactMesh mesh = qyTest::makeCube();
        const std::string message = readStl(c.text, mesh, "bad.stl");
        EXPECT_EQ(0u, message.find("cannot read '" + (qyIoTest::scratchDir() / "bad.stl").string() +
                                   "': "))
            << message;
        EXPECT_NE(std::string::npos, message.find(c.expected)) << message;
        EXPECT_EQ(8, mesh.getNumVertices()); // left untouched
        // The memory form refuses the same bytes for the same reason.
        const std::string inMemory =
            qyGeom::meshReadStl(mesh, c.text.data(), unsigned(c.text.size())).message().c_str();
        EXPECT_NE(std::string::npos, inMemory.find(c.expected)) << inMemory;
    }
}

TEST(meshStl, ReadsTheSampleFilesOfAnotherLibrary)
{
    const std::filesystem::path dir = "/usr/share/assimp/models/STL";
    if (!std::filesystem::is_directory(dir))
        GTEST_SKIP() << dir << " is absent";
    // The spider comes as ASCII and as binary: the same welded mesh.
    CompactMesh ascii, binary;
    ASSERT_TRUE(qyGeom::meshReadStl(ascii, (dir / "Spider_ascii.stl").c_str()).isSuccess());
    ASSERT_TRUE(qyGeom::meshReadStl(binary, (dir / "Spider_binary.stl").c_str()).isSuccess());
    EXPECT_GT(ascii.getNumTriangles(), 1000);
    EXPECT_EQ(ascii.getNumTriangles(), binary.getNumTriangles());
    EXPECT_EQ(ascii.getNumVertices(), binary.getNumVertices());
}

} // namespace
