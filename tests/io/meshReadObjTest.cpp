// The forgiving OBJ reader (meshReadObj): numbers, lines, faces, validation, subsets.
#include "qyGeom/meshReadObj.h"

#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyIoTest::writeFile;

namespace
{

struct SubsetRead
{
    bool ok = false;
    CompactMesh mesh;
    qy::list<qy::Reference<MeshSubset>> subsets;
    qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
    qy::vector<qyString::IString> materials;
    qyOS::Filename mtl;
};

SubsetRead readWithSubsets(const std::string& name, const std::string& text)
{
    SubsetRead r;
    r.ok = meshReadObj(r.mesh, r.subsets, r.uvs, r.materials, r.mtl,
                       qyOS::Filename(writeFile(name, text)));
    return r;
}

SubsetRead readMemory(const std::string& text)
{
    SubsetRead r;
    r.ok = meshReadObj(r.mesh, r.subsets, r.uvs, text.data(), unsigned(text.size()));
    return r;
}

std::vector<int> triangles(const CompactMesh& m)
{
    return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

std::vector<float> vertices(const CompactMesh& m)
{
    return {m.getVerticesRaw(), m.getVerticesRaw() + 3 * m.getNumVertices()};
}

std::vector<float> first3(const CompactMesh& m)
{
    return {m.getVerticesRaw(), m.getVerticesRaw() + 3};
}

/// The three floats that strtod gives for the text after "v " in the "C" locale, moving on
/// from where each conversion stopped.
std::vector<float> strtodTriple(const std::string& rest)
{
    std::vector<float> out;
    const char* p = rest.c_str();
    for (int k = 0; k < 3; ++k)
    {
        char* e;
        out.push_back(float(std::strtod(p, &e)));
        p = e;
    }
    return out;
}

bool sameFloat(float a, float b)
{
    if (std::isnan(a) || std::isnan(b))
        return std::isnan(a) && std::isnan(b) && std::signbit(a) == std::signbit(b);
    return std::memcmp(&a, &b, sizeof a) == 0;
}

/// Reads each text as the rest of a "v " line and compares with strtod in the "C" locale.
void expectVerticesMatchStrtod(const std::vector<std::string>& rests)
{
    std::string text;
    for (const std::string& r : rests)
        text += "v " + r + "\n";
    text += "f 1 2 3\n";
    CompactMesh mesh;
    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("numbers.obj", text))));
    ASSERT_EQ(mesh.getNumVertices(), int(rests.size()));
    // The references are computed in the "C" locale, whatever the test set.
    const std::string saved = std::setlocale(LC_NUMERIC, nullptr);
    std::setlocale(LC_NUMERIC, "C");
    for (std::size_t i = 0; i < rests.size(); ++i)
    {
        const std::vector<float> want = strtodTriple(rests[i]);
        for (int k = 0; k < 3; ++k)
            EXPECT_TRUE(
                sameFloat(mesh.getVerticesRaw()[3 * i + std::size_t(k)], want[std::size_t(k)]))
                << "line 'v " << rests[i] << "' component " << k;
    }
    std::setlocale(LC_NUMERIC, saved.c_str());
}

const std::vector<std::string> oddNumbers = {
    "+1.5 -2.25 3",
    "1e5 1E-5 -1.5e-3",
    "inf -inf infinity",
    "nan -nan nan(abc)",
    "NaN INF nan(",
    "0x1p3 -0x1.8p1 0x.8",
    "0x 0xg 0X1P-2",
    "- + .",
    "-.5 +.5 5.",
    "1e 1e+ 1e-x",
    "1e400 -1e400 1e-400",
    "4.9e-324 2.5e-324 1e-310",
    "00000000000000000000000000001.000000000000000000000000000000000000001 2 3",
    "0.1000000000000000055511151231257827021181583404541015625 3.4028235e38 3.4028236e38",
    "1,5 2,25 0",
    "\t7\t8\t9",
    "1.5x 2 3",
    "--1 +-1 1",
    "1 2",
    "",
    "123456789012345678901234567890 1e-45 1.4e-45"};

} // namespace

TEST(MeshReadObj, NumbersConvertAsStrtodInTheCLocale)
{
    expectVerticesMatchStrtod(oddNumbers);

    // Random texts over the characters numbers are made of.
    std::mt19937 rng(12345);
    const std::string alphabet = "0123456789+-.eExXpPinfatyINFAN( )_,\t";
    std::vector<std::string> random;
    for (int i = 0; i < 3000; ++i)
    {
        std::string s;
        const int len = int(rng() % 24);
        for (int k = 0; k < len; ++k)
            s += alphabet[rng() % alphabet.size()];
        random.push_back(s);
    }
    expectVerticesMatchStrtod(random);
}

TEST(MeshReadObj, NumbersIgnoreTheProcessLocale)
{
    const std::string saved = std::setlocale(LC_ALL, nullptr);
    bool haveComma = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
    if (!haveComma && std::system("command -v localedef >/dev/null 2>&1") == 0)
    {
        // Build the locale in the scratch directory when the system lacks it.
        const std::string dir = (qyIoTest::scratchDir() / "locales").string();
        const std::string cmd = "mkdir -p " + dir + " && localedef -i de_DE -f UTF-8 " + dir +
                                "/de_DE.UTF-8 >/dev/null 2>&1";
        if (std::system(cmd.c_str()) == 0)
        {
            setenv("LOCPATH", dir.c_str(), 1);
            haveComma = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
            unsetenv("LOCPATH");
        }
    }
    if (!haveComma || std::strtod("1.5", nullptr) != 1.0)
    {
        std::setlocale(LC_ALL, saved.c_str());
        GTEST_SKIP() << "no locale with a decimal comma";
    }
    expectVerticesMatchStrtod(oddNumbers);
    CompactMesh mesh;
    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile(
                                      "locale.obj", "v 1.5 2.25 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n"))));
    std::setlocale(LC_ALL, saved.c_str());
    EXPECT_EQ(vertices(mesh)[0], 1.5f);
    EXPECT_EQ(vertices(mesh)[1], 2.25f);
}

TEST(MeshReadObj, CommaDecimalModeFollowsOnlyTheFirstComment)
{
    const std::string body = "v 1,5 2,25 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";
    CompactMesh mesh;
    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("catia.obj", "  # CATIA OBJ File: part\n" + body))));
    EXPECT_EQ(first3(mesh), (std::vector<float>{1.5f, 2.25f, 0}));

    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("second.obj", "# x\n# CATIA OBJ File: part\n" + body))));
    EXPECT_EQ(first3(mesh), (std::vector<float>{1, 0, 0}));

    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("plain.obj", body))));
    EXPECT_EQ(first3(mesh), (std::vector<float>{1, 0, 0}));
}

TEST(MeshReadObj, FacesIndicesAndValidation)
{
    // Negative indices count back from the vertices read so far; short faces, polylines and
    // faces with bad indices are left out; degenerate triangles are printed and left out.
    const std::string text = "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 1 0\n"
                             "f -1 -2 -3\n"
                             "f 1 2\n"
                             "l 1 2\n"
                             "f 0 1 2\n"
                             "f 1 2 5\n"
                             "f 99999999999 1 2\n"
                             "f -2147483648 1 2\n"
                             "f 1 1 2\n"
                             "f\t1 2 3\n"     // a tab after the keyword is no face
                             "f 1\t2  3\r\n"; // tabs, repeated blanks and CR separate
    CompactMesh mesh;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("faces.obj", text))));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1, 1, 2\n");
    EXPECT_EQ(triangles(mesh), (std::vector<int>{3, 2, 1, 0, 1, 2}));
    EXPECT_EQ(mesh.getNumVertices(), 4);

    // A quad makes the plain read store polygons (the triangle too).
    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("quad.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                                   "f 1 2 3 4\nf 1 2 3\n"))));
    EXPECT_EQ(mesh.getNumTriangles(), 0);
    ASSERT_EQ(mesh.getNumPolys(), 2);
    EXPECT_EQ(std::vector<int>(mesh.getPolyLengths(), mesh.getPolyLengths() + 2),
              (std::vector<int>{4, 3}));
    EXPECT_EQ(std::vector<int>(mesh.getPolyPoints(), mesh.getPolyPoints() + 7),
              (std::vector<int>{0, 1, 2, 3, 0, 1, 2}));

    // ... and the reads with subsets fail.
    EXPECT_FALSE(readWithSubsets("quad2.obj", "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                              "f 1 2 3 4\n")
                     .ok);
}

TEST(MeshReadObj, LinesSourcesAndFailures)
{
    CompactMesh mesh;
    // CRLF, a byte-order mark, no final newline: all lines count.
    ASSERT_TRUE(
        meshReadObj(mesh, qyOS::Filename(writeFile("crlf.obj", "\xEF\xBB\xBFv 1 2 3\r\nv 4 5 6\r\n"
                                                               "v 7 8 9\r\nf 1 2 3"))));
    EXPECT_EQ(vertices(mesh), (std::vector<float>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(triangles(mesh), (std::vector<int>{0, 1, 2}));

    // A line longer than the 16383-byte buffer ends the reading there.
    const std::string tri = "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n";
    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("long.obj", tri + "# " + std::string(20000, 'x') +
                                                       "\nv 5 5 5\nf 1 2 4\n"))));
    EXPECT_EQ(mesh.getNumVertices(), 3);
    EXPECT_EQ(mesh.getNumTriangles(), 1);
    // One of exactly 16383 characters is still a line.
    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("edge.obj", "#" + std::string(16382, 'x') + "\n" + tri))));
    EXPECT_EQ(mesh.getNumTriangles(), 1);

    // Failures: missing file, directory, empty file, no faces, no vertices, binary noise.
    EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename("/nonexistent/x.obj")));
    EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename(qyIoTest::scratchDir().string())));
    EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename(writeFile("empty.obj", ""))));
    EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename(writeFile("nofaces.obj", "v 1 2 3\n"))));
    EXPECT_FALSE(meshReadObj(mesh, qyOS::Filename(writeFile("noverts.obj", "f 1 2 3\n"))));
    EXPECT_FALSE(meshReadObj(
        mesh, qyOS::Filename(writeFile("noise.obj", std::string("\0\xff\x01v\n\0f", 8)))));

    // The memory form: only lines ended by '\n' count.
    EXPECT_TRUE(readMemory(tri).ok);
    EXPECT_FALSE(readMemory(tri.substr(0, tri.size() - 1)).ok);
    EXPECT_FALSE(readMemory("").ok);
    SubsetRead r;
    EXPECT_FALSE(meshReadObj(r.mesh, r.subsets, r.uvs, nullptr, 10));
}

TEST(MeshReadObj, TextureIndicesCarryOverWithinAFaceLine)
{
    // f 1/1 2 3: the texture index 1 carries to the corners that give none.
    const std::string head = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.25 0.5\nvt 0.75 1\n";
    SubsetRead r = readMemory(head + "f 1/1 2 3\n");
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.uvs.size(), 1u);
    EXPECT_EQ(r.uvs.front(), (qy::vector<qyLinear::Point2Flt>(3, {0.25f, 0.5f})));

    // Without carry-over-able data a vertex lacks a texture coordinate: empty list.
    r = readMemory(head + "f 1 2/2 3\n");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.uvs.front().size(), 0u);

    // Negative texture indices count back too; out-of-range ones become absent.
    r = readMemory(head + "f 1/-1 2/-2 3/-1\n");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.uvs.front(),
              (qy::vector<qyLinear::Point2Flt>{{0.75f, 1}, {0.25f, 0.5f}, {0.75f, 1}}));
}

TEST(MeshReadObj, CornerTokensReadAsAtoi)
{
    // Every index is what atoi gives for its part of the token: a sign, leading zeros and
    // trailing junk are read as atoi reads them, an empty part is absent.
    const std::string head = "v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.25 0.5\nvt 0.75 1\n";
    const qy::vector<qyLinear::Point2Flt> second(3, {0.75f, 1}), first(3, {0.25f, 0.5f});
    SubsetRead r = readMemory(head + "f +1/+2 2a/2 3/2x/5\n");
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.uvs.size(), 1u);
    EXPECT_EQ(r.uvs.front(), second);
    r = readMemory(head + "f 0001/0001 2//9 3/1/\n");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.uvs.front(), first);
    // "x" reads as texture 0, which is out of range: the vertex has no texture coordinate.
    r = readMemory(head + "f 1/x/3 2/1 3/1\n");
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.uvs.size(), 1u);
    EXPECT_TRUE(r.uvs.front().empty());
    // A ten-digit index is read in full (and is out of range here).
    r = readMemory(head + "f 1/1000000001 2/2 3/2\n");
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.uvs.size(), 1u);
    EXPECT_TRUE(r.uvs.front().empty());

    // The plain read takes the position part alone.
    CompactMesh mesh;
    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("atoi.obj", head + "f 1.9 2e3/1 +3///\nf 3abc 0002 01\n"))));
    EXPECT_EQ(triangles(mesh), (std::vector<int>{0, 1, 2, 2, 1, 0}));
}

TEST(MeshReadObj, SubsetsFollowTextureCharts)
{
    // A quad of two triangles whose shared edge is a texture seam: two charts, so two
    // subsets that share the seam's vertices once the mesh is restored.
    const std::string text = "v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                             "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvt 0.5 0.5\nvt 0.6 0.6\n"
                             "usemtl red\nf 1/1 2/2 3/3\nusemtl blue\nf 1/5 3/6 4/4\n"
                             "mtllib \"lib.mtl\"\r\n";
    SubsetRead r = readWithSubsets("charts.obj", text);
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.mesh.getNumVertices(), 4);
    EXPECT_EQ(triangles(r.mesh), (std::vector<int>{0, 1, 2, 0, 2, 3}));
    ASSERT_EQ(r.subsets.size(), 2u);
    const MeshSubset& a = *r.subsets.front();
    const MeshSubset& b = *r.subsets.back();
    EXPECT_EQ(a.triangles(), (std::vector<int>{0}));
    EXPECT_EQ(a.vertices(), (std::vector<int>{0, 1, 2}));
    EXPECT_EQ(b.triangles(), (std::vector<int>{1}));
    EXPECT_EQ(b.vertices(), (std::vector<int>{3, 0, 2}));
    EXPECT_EQ(r.uvs.back(), (qy::vector<qyLinear::Point2Flt>{{0, 1}, {0.5f, 0.5f}, {0.6f, 0.6f}}));
    EXPECT_EQ(r.materials, (qy::vector<qyString::IString>{"red", "blue"}));
    EXPECT_EQ(r.mtl.str(), (qyIoTest::scratchDir() / "lib.mtl").string());

    // The memory form ignores materials.
    SubsetRead m = readMemory(text);
    ASSERT_TRUE(m.ok);
    EXPECT_EQ(m.subsets.size(), 2u);

    // A seam inside one chart (the two triangles still meet at position 0): position 2 comes
    // twice in the one subset, its copy last, with one UV per entry.
    SubsetRead seam = readMemory("v 0 0 0\nv 1 0 0\nv 1 1 0\nv 0 1 0\n"
                                 "vt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\nvt 2 2\n"
                                 "f 1/1 2/2 3/3\nf 1/1 3/5 4/4\n");
    ASSERT_TRUE(seam.ok);
    ASSERT_EQ(seam.subsets.size(), 1u);
    EXPECT_EQ(seam.subsets.front()->vertices(), (std::vector<int>{0, 1, 2, 3, 2}));
    EXPECT_EQ(seam.uvs.front(),
              (qy::vector<qyLinear::Point2Flt>{{0, 0}, {1, 0}, {1, 1}, {0, 1}, {2, 2}}));

    // Without texture coordinates the vertices are welded and duplicates removed.
    r = readWithSubsets("weld.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\nv 1 0 0\n"
                                    "f 1 2 3\nf 1 4 3\nf 3 1 2\n");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(r.mesh.getNumVertices(), 3);
    EXPECT_EQ(r.mesh.getNumTriangles(), 1);
    EXPECT_TRUE(r.subsets.empty());
}

TEST(MeshReadObj, TooManySplitVerticesDropTextureCoordinates)
{
    // A strip of n separate texture coordinates per corner: each position gets up to six
    // different ones, so splitting would add far more than the positions.
    std::string text;
    const int n = 60;
    for (int i = 0; i < n; ++i)
        text += "v " + std::to_string(i) + " " + std::to_string(i % 2) + " 0\n";
    int t = 0;
    for (int i = 0; i + 2 < n; ++i)
    {
        for (int k = 0; k < 3; ++k)
            text += "vt " + std::to_string(t + k) + " 0\n";
        text += "f " + std::to_string(i + 1) + "/" + std::to_string(t + 1) + " " +
                std::to_string(i + 2) + "/" + std::to_string(t + 2) + " " + std::to_string(i + 3) +
                "/" + std::to_string(t + 3) + "\n";
        t += 3;
    }
    qyTest::DebugCapture capture;
    SubsetRead r = readWithSubsets("split.obj", text);
    ASSERT_TRUE(r.ok);
    EXPECT_NE(capture.text().find("Texture coords deleted!\n"), std::string::npos);
    EXPECT_TRUE(r.subsets.empty());
    EXPECT_EQ(r.mesh.getNumVertices(), n);
    EXPECT_EQ(r.mesh.getNumTriangles(), n - 2);
}
