// The qygeom program on PLY, STL and OFF files: conversions between every format keep the
// counts and every float32 bit, the one line that says what a format cannot hold, the
// format told by a file's contents, and bad files refused with one line.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "qyGeom/meshReadObj.h"
#include "runQygeom.h"

namespace
{

namespace fs = std::filesystem;
using namespace qyToolTest;

using QygeomFormats = ScratchFolderTest;

/// The OBJ file as the strict reader sees it.
qy::Reference<qyGeom::MeshObjFile> parse(const fs::path& path)
{
    qy::Reference<qyGeom::MeshObjFile> file(new qyGeom::MeshObjFile);
    const qyUtil::Error e = qyGeom::meshReadObj2(path.string().c_str(), file);
    EXPECT_TRUE(e.isSuccess()) << e.message().c_str();
    return file;
}

/// A strip of `n` quads and a triangle whose coordinates, texture coordinates and normals
/// need all nine digits, each vertex with one of each ("f a/a/a").
std::string awkwardObj(int n)
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> any(-1000.0f, 1000.0f);
    std::string obj;
    char line[200];
    const int nv = 2 * (n + 1) + 1;
    for (int i = 0; i < nv; ++i)
    {
        std::snprintf(line, sizeof line, "v %.9g %.9g %.9g\nvt %.9g %.9g\nvn %.9g %.9g %.9g\n",
                      double(any(rng)), double(any(rng)), double(any(rng) * 1e-30f),
                      double(any(rng)), double(any(rng)), double(any(rng)), double(any(rng)),
                      double(any(rng)));
        obj += line;
    }
    for (int q = 0; q < n; ++q)
    {
        const int a = 2 * q + 1, b = a + 1, c = a + 3, d = a + 2;
        std::snprintf(line, sizeof line, "f %d/%d/%d %d/%d/%d %d/%d/%d %d/%d/%d\n", a, a, a, b, b,
                      b, c, c, c, d, d, d);
        obj += line;
    }
    std::snprintf(line, sizeof line, "f %d/%d/%d 1/1/1 2/2/2\n", nv, nv, nv);
    return obj + line;
}

TEST_F(QygeomFormats, ConversionsThroughEveryFormatKeepCountsAndEveryFloatBit)
{
    std::ofstream(dir / "in.obj") << awkwardObj(20);
    const auto original = parse(dir / "in.obj");

    // Through the formats that hold polygons and per-vertex attributes, and back.
    const std::vector<std::string> chain = {"in.obj", "a.ply", "b.off", "c.ply", "out.obj"};
    for (std::size_t i = 0; i + 1 < chain.size(); ++i)
    {
        const Outcome r = run(dir, {"convert", chain[i], chain[i + 1]});
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.out.find("43 vertices, 21 faces")) << r.out;
        EXPECT_EQ("", r.err);
    }
    const auto back = parse(dir / "out.obj");
    ASSERT_EQ(original->vertices.size(), back->vertices.size());
    ASSERT_EQ(original->texCoords.size(), back->texCoords.size());
    ASSERT_EQ(original->normals.size(), back->normals.size());
    EXPECT_EQ(0, std::memcmp(original->vertices.data(), back->vertices.data(),
                             original->vertices.size() * sizeof(original->vertices[0])));
    EXPECT_EQ(0, std::memcmp(original->texCoords.data(), back->texCoords.data(),
                             original->texCoords.size() * sizeof(original->texCoords[0])));
    EXPECT_EQ(0, std::memcmp(original->normals.data(), back->normals.data(),
                             original->normals.size() * sizeof(original->normals[0])));
    ASSERT_EQ(1u, back->groups.size());
    EXPECT_EQ(20, back->numQuads);

    // Through STL and the minimal format: triangles, every position kept.
    for (const char* triangles : {"t.stl", "t.qym"})
    {
        Outcome r = run(dir, {"convert", "in.obj", triangles});
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.out.find("triangulated 20 polygons into 40 triangles"))
            << r.out;
        EXPECT_NE(std::string::npos, r.err.find("left out 43 texture coordinates, 43 normals"))
            << r.err;
        r = run(dir, {"convert", triangles, "t.obj"});
        ASSERT_EQ(0, r.status) << r.err;
        EXPECT_NE(std::string::npos, r.out.find("43 vertices, 41 faces")) << r.out;
        const auto tris = parse(dir / "t.obj");
        ASSERT_EQ(original->vertices.size(), tris->vertices.size());
        auto less = [](const auto& a, const auto& b)
        { return std::tie(a.x, a.y, a.z) < std::tie(b.x, b.y, b.z); };
        auto sorted = [&](auto v)
        {
            std::sort(v.begin(), v.end(), less);
            return v;
        };
        const auto a = sorted(original->vertices), b = sorted(tris->vertices);
        EXPECT_EQ(0, std::memcmp(a.data(), b.data(), a.size() * sizeof(a[0])));
    }
}

TEST_F(QygeomFormats, OneLineSaysWhatTheTargetCannotHold)
{
    // Two groups, a material, and a vertex whose corners carry two texture coordinates.
    std::ofstream(dir / "in.obj") << "mtllib m.mtl\nv 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                     "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvt 0.5 0.5\n"
                                     "g a\nusemtl red\nf 1/1 2/2 3/3\ng b\nf 1/5 3/3 4/4\n";
    std::ofstream(dir / "m.mtl") << "newmtl red\nKd 1 0 0\n";
    Outcome r = run(dir, {"convert", "in.obj", "out.ply"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("qygeom convert: warning: PLY (.ply) holds vertices with one normal, texture "
              "coordinate and colour each, and faces; split 1 vertices whose corners differ; "
              "left out 1 materials, 2 groups, 1 material libraries\n",
              r.err);
    r = run(dir, {"info", "out.ply"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_NE(std::string::npos, r.out.find("vertices:            5")) << r.out;
    EXPECT_NE(std::string::npos, r.out.find("texture coordinates: 5")) << r.out;

    r = run(dir, {"convert", "in.obj", "out.stl"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("qygeom convert: warning: STL (.stl) holds triangles only; left out 5 texture "
              "coordinates, 1 materials, 2 groups, 1 material libraries\n",
              r.err);
    // OBJ holds everything the others do.
    r = run(dir, {"convert", "out.ply", "back.obj"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("", r.err);
}

TEST_F(QygeomFormats, ContentsDecideTheInputFormatAndBadFilesGetOneLine)
{
    std::ofstream(dir / "tri.off") << "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n";
    fs::copy_file(dir / "tri.off", dir / "disguised.ply");
    Outcome r = run(dir, {"check", "disguised.ply"});
    ASSERT_EQ(0, r.status) << r.err;
    EXPECT_EQ("disguised.ply: valid OFF: 3 vertices, 1 faces\n", r.out);

    struct Case
    {
        const char* name;
        std::string text, error;
    };
    std::string stl(84, '\0');
    stl[80] = 100; // 100 triangles claimed, none there
    const Case cases[] = {
        {"cut.stl", stl + std::string(60, '\0'),
         "qygeom info: cannot read 'cut.stl': the header's 100 triangles need 5084 bytes, but "
         "the file has 144 (it ends inside triangle 2)\n"},
        {"index.off", "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 3\n",
         "qygeom info: cannot read 'index.off': line 6: face 1 names vertex 3, but there are 3 "
         "vertices\n"},
        {"huge.ply",
         "ply\nformat binary_little_endian 1.0\nelement vertex 1500000000\nproperty float x\n"
         "property float y\nproperty float z\nend_header\n",
         "qygeom info: cannot read 'huge.ply': the header's counts (1500000000 vertex) need at "
         "least 18000000000 bytes, but the file has 0 after the header\n"},
        {"short.ply",
         "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
         "property float z\nend_header\n0.000 0.000 0.000\n1.000 0.000 0.000\n",
         "qygeom info: cannot read 'short.ply': line 10: the file ends after 2 of the 3 entries "
         "of element 'vertex'\n"},
    };
    for (const Case& c : cases)
    {
        std::ofstream(dir / c.name, std::ios::binary) << c.text;
        r = run(dir, {"info", c.name});
        EXPECT_EQ(1, r.status) << c.name;
        EXPECT_EQ(c.error, r.err);
    }
}

} // namespace
