// The strict OBJ parser (meshReadObj2).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshReadObjMaterial.h"

using namespace qyGeom;
using qyIoTest::writeFile;

namespace
{

struct Parsed
{
    qyUtil::Error error;
    qy::Reference<MeshObjFile> file = qy::makeReference<MeshObjFile>();
};

Parsed parse(const std::string& text, const std::string& name = "t.obj")
{
    Parsed p;
    p.error = meshReadObj2(writeFile(name, text), p.file);
    return p;
}

std::string parseError(const std::string& text)
{
    const Parsed p = parse(text);
    return p.error.message();
}

std::vector<MeshObjCorner> corners(const MeshObjGroup& g)
{
    return g.getCorners();
}

} // namespace

TEST(MeshReadObj2, StatementsGroupsAndIndices)
{
    const Parsed p = parse("v 1 2 3 v 4 5 6\n"
                           "v 7 8 9 # a comment after a statement\n"
                           "v -1 +2 .5e1\n"
                           "vt 0.5 1\nvn 0 0 1\n"
                           "o part\ns off\ns 1\n"
                           "f 1/1/1 2//1 3/1\n"
                           "f -1 -2 -3 -4\n"
                           "g second name\n"
                           "f 1 2 3 4 1\n"
                           "g\ng third\n");
    ASSERT_FALSE(p.error) << p.error.message();
    const MeshObjFile& f = *p.file;
    ASSERT_EQ(f.vertices.size(), 4u);
    EXPECT_EQ(f.vertices[1], qyLinear::PointFlt(4, 5, 6));
    EXPECT_EQ(f.vertices[3], qyLinear::PointFlt(-1, 2, 5));
    EXPECT_EQ(f.texCoords.size(), 1u);
    EXPECT_EQ(f.normals.size(), 1u);
    EXPECT_EQ(f.numTriangles, 1);
    EXPECT_EQ(f.numQuads, 1);
    EXPECT_EQ(f.numPolygons, 1);
    ASSERT_EQ(f.groups.size(), 2u);
    const MeshObjGroup& g0 = *f.groups[0];
    EXPECT_EQ(g0.getName(), "default");
    ASSERT_EQ(g0.getNumFaces(), 2);
    EXPECT_EQ(corners(g0), (std::vector<MeshObjCorner>{{0, 0, 0},
                                                       {1, -1, 0},
                                                       {2, 0, -1},
                                                       {3, -1, -1},
                                                       {2, -1, -1},
                                                       {1, -1, -1},
                                                       {0, -1, -1}}));
    EXPECT_EQ(f.groups[1]->getName(), "second name");
    EXPECT_EQ(f.groups[1]->getFaceSize(0), 5);
}

TEST(MeshReadObj2, EveryErrorNamesItsLine)
{
    const std::string v3 = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
    const struct
    {
        std::string text;
        std::string message;
    } cases[] = {
        {v3 + "f 1 2\n", "Parse failed on line 4: face has fewer than 3 vertex references\n"},
        {v3 + "l 1 2\n", "Parse failed on line 4: expected OBJ statement or end of file\n"},
        {"vp 1 2\n", "Parse failed on line 1: expected OBJ statement or end of file\n"},
        {"v 1 2 x\n", "Parse failed on line 1: expecting number\n"},
        {"v 1 2\nv 3 4 5\n", "Parse failed on line 1: expecting number\n"},
        {v3 + "f 1 2 4\n", "Parse failed on line 4: invalid vertex index\n"},
        {v3 + "f 0 1 2\n", "Parse failed on line 4: invalid zero vertex index\n"},
        {v3 + "f -4 1 2\n", "Parse failed on line 4: invalid negative vertex index\n"},
        {v3 + "vt 0 0\nf 1/2 2 3\n", "Parse failed on line 5: invalid positive vertex index\n"},
        {v3 + "f 1/0 2 3\n", "Parse failed on line 4: invalid zero tex coord index\n"},
        {v3 + "f 1/-1 2 3\n", "Parse failed on line 4: invalid negative tex coord index\n"},
        {v3 + "f 1//1 2 3\n", "Parse failed on line 4: invalid positive vertex index\n"},
        {v3 + "f 1//0 2 3\n", "Parse failed on line 4: invalid zero normal index\n"},
        {v3 + "f 1//-2 2 3\n", "Parse failed on line 4: invalid negative normal index\n"},
        {v3 + "f /1 2 3\n", "Parse failed on line 4: expecting vertex index\n"},
        {v3 + "vt 0 0\nvn 0 0 1\nf 1/1/1/1 2 3\n",
         "Parse failed on line 6: expecting vertex/texCoord/normal indices\n"},
        {"o 12\n", "Parse failed on line 1: expecting object name\n"},
        {"s x\n", "Parse failed on line 1: expecting smooth group number or 'off'\n"},
        {"usemtl nothing\n", "Parse failed on line 1: material not found: nothing\n"},
        {"\n\nv 1 2 3 @\n", "Unrecognized input on line 3"},
        {"v 1 2 3\rv 1 2 3\n", "Unrecognized input on line 1"},
        {"v - 1 2\n", "Unrecognized input on line 1"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.text);
        const Parsed p = parse(c.text);
        EXPECT_EQ(p.error.message(), c.message);
        EXPECT_EQ(p.error.code(), c.message.rfind("Parse", 0) == 0 ? 2 : 1);
    }
    const qyUtil::Error missing = meshReadObj2("/nonexistent/x.obj", nullptr);
    EXPECT_EQ(missing.code(), 1);
    EXPECT_EQ(missing.message(), "Cannot open file: /nonexistent/x.obj");
    EXPECT_EQ(meshReadObj2(qyIoTest::scratchDir().string(), nullptr).code(), 1);
    // An empty file and a CRLF file without a final line end are fine.
    EXPECT_FALSE(parse("").error);
    EXPECT_FALSE(parse("v 1 2 3\r\nv 1 2 3").error);
}

TEST(MeshReadObj2, MaterialsAndUsemtlPlacement)
{
    writeFile("lib.mtl", "newmtl red\nKd 1 0 0\nnewmtl blue\nKd 0 0 1\n");
    const std::string head = "mtllib lib.mtl\nv 0 0 0\nv 1 0 0\nv 0 1 0\n";
    Parsed p = parse(head + "usemtl red\nf 1 2 3\ng next\nusemtl blue\nf 1 2 3\ng last\nf 3 2 1\n");
    ASSERT_FALSE(p.error) << p.error.message();
    ASSERT_EQ(p.file->groups.size(), 3u);
    EXPECT_EQ(p.file->materials.size(), 2u);
    EXPECT_EQ(p.file->groups[0]->getMaterial()->getName(), "red");
    EXPECT_EQ(p.file->groups[1]->getMaterial()->getName(), "blue");
    EXPECT_EQ(p.file->groups[2]->getMaterial()->getName(), "blue"); // inherited
    EXPECT_EQ(p.file->groups[2]->getName(), "last");

    p = parse(head + "usemtl red\nf 1 2 3\nusemtl blue\nf 1 2 3\n");
    EXPECT_EQ(p.error.message(),
              "Parse failed on line 7: usemtl statement after face statements in group\n");
    ASSERT_EQ(p.file->vertices.size(), 3u); // kept up to the error

    // A library that fails to read stops the parse with its own error.
    writeFile("bad.mtl", "newmtl a\nKe 0 0 0\n");
    EXPECT_EQ(parseError("mtllib bad.mtl\n"),
              "Parse failed on line 2: expecting 'newmtl' or end of file\n");
    EXPECT_EQ(parseError("mtllib none.mtl\n"), "Lexical analysis failed");
}

TEST(MeshReadObj2, BatchesOfTokensJoinSeamlessly)
{
    // Two statements per line, corners of every form, thousands of tokens: the batches of
    // tokens must join without losing or repeating one, and lines keep counting.
    std::string clean;
    for (int i = 0; i < 700; ++i)
        clean += "v " + std::to_string(i) + " 1 2 vt 0 " + std::to_string(i) + "\n";
    for (int i = 2; i < 700; ++i)
        clean += "f " + std::to_string(i - 1) + "/" + std::to_string(i) + " -2/-1 " +
                 std::to_string(i + 1) + "\n";
    clean += "f 1 2 3";
    Parsed p = parse(clean);
    ASSERT_FALSE(p.error) << p.error.message();
    ASSERT_EQ(p.file->groups.size(), 1u);
    const MeshObjGroup& g = *p.file->groups[0];
    ASSERT_EQ(g.getNumFaces(), 699);
    for (int i = 2; i < 700; ++i)
    {
        const MeshObjCorner* c = g.getFaceCorners(i - 2);
        ASSERT_EQ(c[0], (MeshObjCorner{i - 2, i - 1, -1}));
        ASSERT_EQ(c[1], (MeshObjCorner{698, 699, -1}));
        ASSERT_EQ(c[2], (MeshObjCorner{i, -1, -1}));
    }
    EXPECT_EQ(p.file->vertices[699], qyLinear::PointFlt(699, 1, 2));

    // An error after several batches reports its own line.
    const Parsed late = parse(clean + "\nl 1 2\n");
    EXPECT_EQ(late.error.message(),
              "Parse failed on line 1400: expected OBJ statement or end of file\n");
}

TEST(MeshReadObj2, GroupClosedBeforeAnErrorInItsNamesStays)
{
    // A batch of tokens ends at the first line end after 512 tokens: here at the "g" line
    // (3 vertex lines and 99 faces of 5 tokens, then "g" and its line end). The group is
    // closed before the next batch is scanned for names, so the unrecognized character
    // there stops the read with the closed group kept.
    std::string text = "v 0 0 0\nv 1 0 0\nv 0 1 0\n";
    for (int i = 0; i < 99; ++i)
        text += "f 1 2 3\n";
    text += "g\nnext @\n";
    const Parsed p = parse(text);
    EXPECT_EQ(p.error.message(), "Unrecognized input on line 104");
    ASSERT_EQ(p.file->groups.size(), 1u);
    EXPECT_EQ(p.file->groups[0]->getNumFaces(), 99);
    EXPECT_EQ(p.file->groups[0]->getName(), "default");
}

namespace
{

/// A text of some 2 MB, read in several pieces: rows of 400 vertices with texture
/// coordinates and normals, each row followed by the triangles to the previous row in every
/// corner form, counting back with negative indices from row 10 on (back into earlier
/// pieces), with groups, objects, smoothing groups, comments, CRLF line ends and numbers
/// with exponents. `expected` receives the corners of each group (indices after `base`
/// elements of each list that the file already holds) and `lines` the line count.
struct BigText
{
    std::string text;
    std::vector<std::vector<MeshObjCorner>> groups;
    std::vector<std::string> groupNames;
    int lines = 0;
    int vertices = 0;
};

BigText bigText(int rows, int base)
{
    constexpr int cols = 400;
    BigText t;
    auto line = [&t](const std::string& s, bool crlf = false)
    {
        t.text += s;
        t.text += crlf ? "\r\n" : "\n";
        ++t.lines;
    };
    line("# generated grid");
    t.groups.emplace_back();
    t.groupNames.push_back("default");
    for (int r = 0; r < rows; ++r)
    {
        if (r % 9 == 4)
        {
            line("g row" + std::to_string(r) + " part");
            t.groups.emplace_back();
            t.groupNames.push_back("row" + std::to_string(r) + " part");
        }
        line(r % 2 ? "s off" : "s " + std::to_string(r), r % 3 == 0);
        if (r % 13 == 0)
            line("o part" + std::to_string(r) + "   # named part");
        for (int c = 0; c < cols; ++c)
        {
            // Values exact in float; every eighth in exponent form.
            const std::string x = c % 8 ? std::to_string(c) + ".25" : std::to_string(c) + "25e-2";
            line("v " + x + " " + std::to_string(r) + ".5 -0.125", c % 5 == 0);
            line("vt\t" + std::to_string(c) + ".5 " + std::to_string(r) + " # uv");
            line("vn 0 0 " + std::to_string(1 + c % 3));
        }
        t.vertices += cols;
        if (r == 0)
            continue;
        for (int c = 0; c + 1 < cols; ++c)
        {
            const int a = (r - 1) * cols + c, b = a + 1, d = a + cols, n = t.vertices;
            auto ref = [&](int i)
            {
                // 1-based, or counted back from the end of the list for the later rows.
                return r >= 10 ? std::to_string(i - n) : std::to_string(base + i + 1);
            };
            std::string f;
            switch (c % 4)
            {
            case 0:
                f = "f " + ref(a) + " " + ref(b) + " " + ref(d);
                t.groups.back().insert(
                    t.groups.back().end(),
                    {{base + a, -1, -1}, {base + b, -1, -1}, {base + d, -1, -1}});
                break;
            case 1:
                f = "f " + ref(a) + "/" + ref(a) + "/" + ref(b) + " " + ref(b) + "/" + ref(b) +
                    "/" + ref(a) + " " + ref(d) + "/" + ref(d) + "/" + ref(d);
                t.groups.back().insert(t.groups.back().end(), {{base + a, base + a, base + b},
                                                               {base + b, base + b, base + a},
                                                               {base + d, base + d, base + d}});
                break;
            case 2:
                f = "f  " + ref(a) + "//" + ref(d) + "\t" + ref(b) + "//" + ref(a) + " " + ref(d) +
                    "//" + ref(b) + " ";
                t.groups.back().insert(
                    t.groups.back().end(),
                    {{base + a, -1, base + d}, {base + b, -1, base + a}, {base + d, -1, base + b}});
                break;
            default:
                f = "f " + ref(a) + "/" + ref(b) + " " + ref(b) + "/" + ref(d) + " " + ref(d) +
                    "/ " + ref(0);
                t.groups.back().insert(t.groups.back().end(), {{base + a, base + b, -1},
                                                               {base + b, base + d, -1},
                                                               {base + d, -1, -1},
                                                               {base + 0, -1, -1}});
                break;
            }
            line(f, c % 7 == 0);
        }
    }
    return t;
}

} // namespace

TEST(MeshReadObj2, LargeFilesReadAsOneStream)
{
    const BigText big = bigText(60, 2);
    ASSERT_GT(big.text.size(), std::size_t(3) << 19);

    // The file already holds two of each element: indices count them.
    auto read = [](const std::string& text)
    {
        Parsed p;
        for (int i = 0; i < 2; ++i)
        {
            p.file->vertices.push_back(qyLinear::PointFlt(9, 9, 9));
            p.file->texCoords.push_back(qyLinear::Point2Flt(9, 9));
            p.file->normals.push_back(qyLinear::VectorFlt(9, 9, 9));
        }
        p.error = meshReadObj2(writeFile("big.obj", text), p.file);
        return p;
    };
    const Parsed p = read(big.text);
    ASSERT_FALSE(p.error) << p.error.message();
    const MeshObjFile& f = *p.file;
    ASSERT_EQ(f.vertices.size(), std::size_t(big.vertices + 2));
    ASSERT_EQ(f.texCoords.size(), f.vertices.size());
    ASSERT_EQ(f.normals.size(), f.vertices.size());
    for (int i = 0; i < big.vertices; ++i)
    {
        const int r = i / 400, c = i % 400;
        ASSERT_EQ(f.vertices[std::size_t(i + 2)], qyLinear::PointFlt(c + 0.25f, r + 0.5f, -0.125f));
        ASSERT_EQ(f.texCoords[std::size_t(i + 2)], qyLinear::Point2Flt(c + 0.5f, float(r)));
        ASSERT_EQ(f.normals[std::size_t(i + 2)], qyLinear::VectorFlt(0, 0, float(1 + c % 3)));
    }
    std::size_t groups = 0;
    int triangles = 0, quads = 0;
    for (std::size_t g = 0; g < big.groups.size(); ++g)
    {
        if (big.groups[g].empty())
            continue;
        ASSERT_LT(groups, f.groups.size());
        const MeshObjGroup& group = *f.groups[groups++];
        EXPECT_EQ(group.getName(), big.groupNames[g]);
        EXPECT_EQ(corners(group), big.groups[g]) << big.groupNames[g];
        for (int k = 0; k < group.getNumFaces(); ++k)
            (group.getFaceSize(k) == 3 ? triangles : quads)++;
    }
    EXPECT_EQ(groups, f.groups.size());
    EXPECT_EQ(f.numTriangles, triangles);
    EXPECT_EQ(f.numQuads, quads);
    EXPECT_EQ(f.numPolygons, 0);

    // The first error in the file is reported with its line, however far in it lies, and
    // what precedes it is kept.
    const int n = big.vertices;
    const struct
    {
        std::string tail;
        int line; ///< of the error, after the file's own lines
        std::string message;
    } cases[] = {
        {"f 1 2 " + std::to_string(n + 4) + "\nl 1 2\n", 2,
         "Parse failed on line %d: invalid vertex index\n"},
        {"f -1 -2 -" + std::to_string(n + 4) + "\n", 2,
         "Parse failed on line %d: invalid negative vertex index\n"},
        {"f 1/" + std::to_string(n + 3) + " 2 3\n", 2,
         "Parse failed on line %d: invalid positive vertex index\n"},
        {"f 1 2\n@\n", 3, "Unrecognized input on line %d"},
        // The line of the token after the bad index: the comment takes the line end along.
        {"v 1 2 3\n f 1 2 0 # zero\n", 4, "Parse failed on line %d: invalid zero vertex index\n"},
        {"vt 1 1e\n", 2, "Parse failed on line %d: expected OBJ statement or end of file\n"},
        {"vt 1 -\n", 2, "Unrecognized input on line %d"},
        {"g x\nusemtl late\n", 3, "Parse failed on line %d: material not found: late\n"},
    };
    for (const auto& c : cases)
    {
        SCOPED_TRACE(c.tail);
        const Parsed e = read(big.text + "v 1 1 1\n" + c.tail + "v 2 2 2\n");
        char message[200];
        std::snprintf(message, sizeof message, c.message.c_str(), big.lines + c.line);
        EXPECT_EQ(e.error.message(), message);
        // What was read before the error stays (a lexical error may come before the
        // statements of its batch of tokens were parsed).
        EXPECT_GE(e.file->vertices.size(), std::size_t(n + 2));
        EXPECT_LE(e.file->vertices.size(), std::size_t(n + 4));
    }

    // A late usemtl: the same groups, the last one with its material.
    writeFile("late.mtl", "newmtl late\nKd 1 1 1\n");
    const Parsed m = read("mtllib late.mtl\n" + big.text + "g tail\nusemtl late\nf 1 2 3\n");
    ASSERT_FALSE(m.error) << m.error.message();
    ASSERT_EQ(m.file->groups.size(), f.groups.size() + 1);
    EXPECT_EQ(corners(*m.file->groups[3]), corners(*f.groups[3]));
    EXPECT_FALSE(m.file->groups[0]->getMaterial());
    EXPECT_EQ(m.file->groups.back()->getMaterial()->getName(), "late");
}

TEST(MeshReadObj2, NumbersConvertAsTheCLibraryDoes)
{
    const char* numbers[] = {"0.1",
                             "-0",
                             "1e-7",
                             "1.5E+3",
                             "123456789012345678901.5",
                             "1e400",
                             "-1e-400",
                             "+.5e1",
                             "0.30000000000000004441",
                             "5.",
                             "9007199254740993",
                             "1e22",
                             "1e23",
                             "4.9e-324",
                             "0.000001e-20"};
    std::string text;
    for (const char* x : numbers)
        text += std::string("v ") + x + " " + x + " 1\n";
    const Parsed p = parse(text);
    ASSERT_FALSE(p.error) << p.error.message();
    ASSERT_EQ(p.file->vertices.size(), std::size(numbers));
    for (std::size_t i = 0; i < std::size(numbers); ++i)
    {
        const float expected = float(std::strtod(numbers[i], nullptr));
        EXPECT_EQ(std::memcmp(&p.file->vertices[i].x, &expected, sizeof(float)), 0) << numbers[i];
    }
}
