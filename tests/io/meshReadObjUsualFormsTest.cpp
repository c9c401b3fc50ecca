// The forgiving OBJ reader on the usual forms of numbers and face corners, at the limits of
// their short conversions: every value must still be what strtod and atoi give.
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "qyGeom/meshReadObj.h"

using namespace qyGeom;
using qyIoTest::writeFile;

namespace
{

std::vector<int> triangles(const CompactMesh& m)
{
    return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

struct MemoryRead
{
    bool ok = false;
    CompactMesh mesh;
    qy::list<qy::Reference<MeshSubset>> subsets;
    qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
};

MemoryRead readMemory(const std::string& text)
{
    MemoryRead r;
    r.ok = meshReadObj(r.mesh, r.subsets, r.uvs, text.data(), unsigned(text.size()));
    return r;
}

} // namespace

TEST(MeshReadObjUsualForms, DecimalsConvertAsStrtodAroundTheLimitsOfTheShortForm)
{
    // "[-]digits.digits" with 19 and 20 digits in all, mantissas near 2^53, long fractions,
    // then random numbers of that form.
    std::vector<std::string> lines = {"9007199254740992 9007199254740993 9007199254740994",
                                      "900719925474099.3 90071992547409.95 0.9007199254740993",
                                      "1234567890123456789 12345678901234567890 -0.0",
                                      "0.1234567890123456789 1.2345678901234567890 -5.",
                                      "0.0000000000000000000001 99999999999999999999.5 7.0",
                                      "1.5e3 0x10 -2.5E-1"};
    std::mt19937 rng(2024);
    for (int i = 0; i < 3000; ++i)
    {
        std::string line;
        for (int k = 0; k < 3; ++k)
        {
            if (k > 0)
                line += ' ';
            if (rng() % 2)
                line += '-';
            for (int d = 1 + int(rng() % 10); d > 0; --d)
                line += char('0' + rng() % 10);
            line += '.';
            for (int d = int(rng() % 13); d > 0; --d)
                line += char('0' + rng() % 10);
        }
        lines.push_back(line);
    }
    std::string text;
    for (const std::string& l : lines)
        text += "v " + l + "\n";
    text += "f 1 2 3\n";
    CompactMesh mesh;
    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("usual.obj", text))));
    ASSERT_EQ(mesh.getNumVertices(), int(lines.size()));
    const std::string saved = std::setlocale(LC_NUMERIC, nullptr);
    std::setlocale(LC_NUMERIC, "C");
    for (std::size_t i = 0; i < lines.size(); ++i)
    {
        const char* p = lines[i].c_str();
        for (std::size_t k = 0; k < 3; ++k)
        {
            char* e = nullptr;
            const float want = float(std::strtod(p, &e));
            p = e;
            const float got = mesh.getVerticesRaw()[3 * i + k];
            EXPECT_EQ(std::memcmp(&got, &want, sizeof got), 0)
                << "line 'v " << lines[i] << "' component " << k;
        }
    }
    std::setlocale(LC_NUMERIC, saved.c_str());
}

TEST(MeshReadObjUsualForms, CornersOfEveryLengthAndPlaceReadAsAtoi)
{
    // Indices of 8, 10 and 12 digits with leading zeros, and a last line without a line end.
    std::string text;
    for (int i = 0; i < 12; ++i)
        text += "v " + std::to_string(i) + " 0 0\n";
    text += "f 00000001 0000000002 000000000011\n";
    text += "f 1 2 3";
    CompactMesh mesh;
    ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("digits.obj", text))));
    EXPECT_EQ(triangles(mesh), (std::vector<int>{0, 1, 10, 0, 1, 2}));

    // A memory block that ends right after the digits of its last corner and the line end.
    MemoryRead r = readMemory("v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n");
    ASSERT_TRUE(r.ok);
    EXPECT_EQ(triangles(r.mesh), (std::vector<int>{0, 1, 2}));

    // A line of the length limit or longer is cut after 16383 bytes: a corner that runs over
    // the cut is read up to it (here "3" of "34"), and the reading ends there.
    std::string face = "f 1 2";
    face += std::string(16383 - face.size() - 1, ' ');
    face += "34 5\nf 1 2 3\n";
    ASSERT_TRUE(meshReadObj(
        mesh, qyOS::Filename(writeFile("cut.obj", "v 0 0 0\nv 1 0 0\nv 0 1 0\n" + face))));
    EXPECT_EQ(triangles(mesh), (std::vector<int>{0, 1, 2}));

    // Faces may name vertices and texture coordinates that come later; a texture index beyond
    // the last one makes that corner's texture coordinate absent, also when every face is
    // valid.
    r = readMemory("f 1/1 2/2 3/2\nv 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.25 0.5\nvt 0.75 1\n");
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.uvs.size(), 1u);
    EXPECT_EQ(r.uvs.front(),
              (qy::vector<qyLinear::Point2Flt>{{0.25f, 0.5f}, {0.75f, 1}, {0.75f, 1}}));
    r = readMemory("v 0 0 0\nv 1 0 0\nv 0 1 0\nvt 0.25 0.5\nf 1/1 2/1 3/3\n");
    ASSERT_TRUE(r.ok);
    ASSERT_EQ(r.uvs.size(), 1u);
    EXPECT_TRUE(r.uvs.front().empty());
}

TEST(MeshReadObjUsualForms, SlashCornersReadTheSameWhereverTheTextEnds)
{
    // Face lines of corners with a '/' are parsed up to their line end without a search for
    // it first, looking up to 32 bytes ahead of each corner; within 32 bytes of the end of
    // the text read (a file's block of 1 MiB and a line buffer, a small file, a memory block)
    // they take the general way. The face lines here end at every place around those ends,
    // in every corner form, with blanks, tabs and CRLF line ends.
    std::mt19937 rng(11);
    constexpr int numVerts = 3000;
    std::string head;
    for (int i = 0; i < numVerts; ++i)
        head += "v " + std::to_string(i) + " 0 0\n";
    head += "vt 0 0\nvn 0 0 1\n";
    const char* const forms[] = {"%d/1/1", "%d//1", "%d/1", "%d", "%d/1/1"};
    const char* const blanks[] = {" ", " ", " ", "\t", "  "};
    auto faceLine = [&](std::vector<int>& expected)
    {
        const int a = 1 + int(rng() % (numVerts - 2));
        const int corners[3] = {a, a + 1, a + 2};
        const char* form = forms[rng() % 5];
        // (A tab right after the keyword would make the line no face line.)
        std::string line = "f";
        for (int c : corners)
        {
            char corner[32];
            std::snprintf(corner, sizeof corner, form, c);
            line += line.size() == 1 ? " " : blanks[rng() % 5];
            line += corner;
            expected.push_back(c - 1);
        }
        return line;
    };
    CompactMesh mesh;
    for (int pad = 0; pad < 40; ++pad)
        for (const char* lineEnd : {"\n", "\r\n", ""})
        {
            SCOPED_TRACE(std::to_string(pad) + (*lineEnd ? " with a last line end" : ""));
            std::vector<int> expected;
            std::string text = head;
            for (int i = 0; i < 4; ++i)
                text += faceLine(expected) + "\n";
            text += faceLine(expected) + std::string(std::size_t(pad), ' ') + lineEnd;
            ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("end.obj", text))));
            EXPECT_EQ(triangles(mesh), expected);
            // A memory block reads its last line only when a line end follows it.
            const MemoryRead r = readMemory(text);
            ASSERT_TRUE(r.ok);
            if (!*lineEnd)
                expected.resize(expected.size() - 3);
            EXPECT_EQ(triangles(r.mesh), expected);
        }
    for (int pad = 0; pad < 8; ++pad)
    {
        SCOPED_TRACE("block end " + std::to_string(pad));
        std::vector<int> expected;
        std::string text = "# " + std::string(std::size_t(pad) * 5, 'x') + "\n" + head;
        while (text.size() < (std::size_t(1) << 20) + 16384 + 4096)
            text += faceLine(expected) + (rng() % 8 == 0 ? "\r\n" : "\n");
        ASSERT_TRUE(meshReadObj(mesh, qyOS::Filename(writeFile("block.obj", text))));
        EXPECT_EQ(triangles(mesh), expected);
    }
}
