// Large OBJ files are parsed in pieces on the thread pool: every read must give exactly what
// the one-thread (streaming) read gives, whatever the file holds near the cuts.
#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "model/TopoMesh.h"
#include "qyGeom/meshReadObj.h"
#include "testMeshes.h"

using namespace qyGeom;

namespace
{

struct TextOptions
{
    bool relativeIndices = false; ///< faces of the later rows count back from the end
    bool commaDecimal = false;    ///< the first comment switches on decimal commas
    bool longLine = false;        ///< a line too long for the reader ends the reading
    bool quads = false;           ///< quads in the later rows
    bool finalNewline = true;
    bool badIndex = true; ///< a face names a vertex the file does not have
};

/// A grid of `rows` rows of 300 vertices, each row followed by the faces to the previous
/// one, with texture coordinates and normals, comments, material switches, mtllib lines,
/// CRLF line ends and a few faces that validation sets aside. Some 2.5 MB at 60 rows.
std::string gridText(const TextOptions& o, int rows = 60)
{
    constexpr int cols = 300;
    const char* materials[] = {"stone", "wood", "stone", "glass"};
    std::string s = o.commaDecimal ? "# CATIA OBJ File: grid\r\n" : "# grid\r\n";
    s += "mtllib first.mtl\r\n";
    char line[160];
    for (int r = 0; r < rows; ++r)
    {
        s += "# row " + std::to_string(r) + "\r\n";
        if (r > 0 && r % 7 == 0)
            s += std::string("usemtl ") + materials[(r / 7) % 4] + "\r\n";
        if (r == 31)
            s += "mtllib \"second.mtl\"\r\n";
        for (int c = 0; c < cols; ++c)
        {
            std::snprintf(line, sizeof line, "v %d.%03d %d.5 %s\nvt %d.25 %d.75\nvn 0 0 1\n", c,
                          (c * 37) % 1000, r, o.commaDecimal ? "0,125" : "0.125", c, r);
            s += line;
        }
        if (o.longLine && r == 40)
            s += "# " + std::string(20000, 'x') + "\n";
        if (r == 0)
            continue;
        const bool relative = o.relativeIndices && r > rows / 2;
        for (int c = 0; c + 1 < cols; ++c)
        {
            const int a = (r - 1) * cols + c + 1, b = a + 1, d = a + cols, e = d + 1;
            const int n = (r + 1) * cols; // vertices so far
            auto idx = [&](int i) { return relative ? i - n - 1 : i; };
            if (o.quads && r > rows / 2 && c % 5 == 0)
            {
                std::snprintf(line, sizeof line, "f %d/%d/%d %d/%d/%d %d/%d/%d %d/%d/%d\r\n",
                              idx(a), idx(a), idx(a), idx(b), idx(b), idx(b), idx(e), idx(e),
                              idx(e), idx(d), idx(d), idx(d));
                s += line;
                continue;
            }
            std::snprintf(line, sizeof line,
                          "f %d/%d/%d %d/%d/%d %d/%d/%d\r\nf %d/%d %d/%d %d/%d\n", idx(a), idx(a),
                          idx(a), idx(b), idx(b), idx(b), idx(e), idx(e), idx(e), idx(a), idx(a),
                          idx(e), idx(e), idx(d), idx(d));
            s += line;
        }
        if (r == 20) // degenerate, out of range: set aside
            s += o.badIndex ? "f 1 1 2\nf 1 2 999999\n" : "f 1 1 2\n";
        if (r % 9 == 4) // degenerate triangles are printed, in file order
            s += "f " + std::to_string(r * cols) + " " + std::to_string(r * cols + 1) + " " +
                 std::to_string(r * cols) + "\n";
    }
    if (!o.finalNewline)
        s += "f 1 2 302";
    return s;
}

struct Reads
{
    bool plainOk = false, subsetsOk = false, topoOk = false;
    CompactMesh plain, withSubsets;
    std::vector<std::vector<int>> subsetVertices, subsetTriangles;
    qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
    qy::vector<qyString::IString> materials;
    qyOS::Filename mtl;
    int topoVertices = 0, topoFaces = 0;
    std::vector<int> topoCorners; ///< the corners of every face, in face order
    int numPrintedLines = 0;
};

Reads readAll(const std::string& path, int numThreads)
{
    qyTest::ScopedThreadCount threads(numThreads);
    Reads r;
    const qyOS::Filename file(path);
    r.plainOk = meshReadObj(r.plain, file);
    qy::list<qy::Reference<MeshSubset>> subsets;
    r.subsetsOk = meshReadObj(r.withSubsets, subsets, r.uvs, r.materials, r.mtl, file);
    for (const auto& s : subsets)
    {
        r.subsetVertices.emplace_back(s->vertices().begin(), s->vertices().end());
        r.subsetTriangles.emplace_back(s->triangles().begin(), s->triangles().end());
    }
    TopoMesh topo;
    r.topoOk = meshReadObj(topo, file);
    r.topoVertices = topo.getNumVertices();
    r.topoFaces = topo.getNumFaces();
    for (int f = 0; f < topo.getFaceCapacity(); ++f)
    {
        const TopoMeshFace face(&topo, f);
        if (!topo.isAlive(face))
            continue;
        TopoMeshEdge e = face.edge();
        do
        {
            r.topoCorners.push_back(e.vertex().getIndex());
            e = e.next();
        } while (e != face.edge());
    }
    return r;
}

std::vector<float> vertices(const CompactMesh& m)
{
    return {m.getVerticesRaw(), m.getVerticesRaw() + 3 * m.getNumVertices()};
}

std::vector<int> faces(const CompactMesh& m)
{
    if (m.getNumPolys() > 0)
        return {m.getPolyPoints(), m.getPolyPoints() + m.getNumPolyPoints()};
    return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

/// Reads `path` with `numThreads` threads and expects what `one` (and `printedOne`) hold.
void expectSame(const std::string& path, const Reads& one, const std::string& printedOne,
                int numThreads)
{
    SCOPED_TRACE(numThreads);
    testing::internal::CaptureStdout();
    const Reads other = readAll(path, numThreads);
    EXPECT_EQ(printedOne, testing::internal::GetCapturedStdout());
    EXPECT_EQ(one.plainOk, other.plainOk);
    EXPECT_EQ(vertices(one.plain), vertices(other.plain));
    EXPECT_EQ(faces(one.plain), faces(other.plain));
    EXPECT_EQ(one.plain.getNumPolys(), other.plain.getNumPolys());
    EXPECT_EQ(one.subsetsOk, other.subsetsOk);
    EXPECT_EQ(vertices(one.withSubsets), vertices(other.withSubsets));
    EXPECT_EQ(faces(one.withSubsets), faces(other.withSubsets));
    EXPECT_EQ(one.subsetVertices, other.subsetVertices);
    EXPECT_EQ(one.subsetTriangles, other.subsetTriangles);
    EXPECT_EQ(one.uvs, other.uvs);
    EXPECT_EQ(one.materials, other.materials);
    EXPECT_EQ(one.mtl.str(), other.mtl.str());
    EXPECT_EQ(one.topoOk, other.topoOk);
    EXPECT_EQ(one.topoVertices, other.topoVertices);
    EXPECT_EQ(one.topoFaces, other.topoFaces);
    EXPECT_EQ(one.topoCorners, other.topoCorners);
}

/// Reads `text` with one, two and four threads and expects identical results.
Reads expectSameWithAnyThreadCount(const std::string& name, const std::string& text)
{
    const std::string path = qyIoTest::writeFile(name, text);
    testing::internal::CaptureStdout();
    Reads one = readAll(path, 1);
    const std::string printedOne = testing::internal::GetCapturedStdout();
    one.numPrintedLines = int(std::count(printedOne.begin(), printedOne.end(), '\n'));
    for (const int numThreads : {2, 4})
        expectSame(path, one, printedOne, numThreads);
    return one;
}

} // namespace

TEST(MeshReadObjPieces, LargeFilesReadAsOneStream)
{
    const Reads plain = expectSameWithAnyThreadCount("pieces.obj", gridText({}));
    // Not vacuous: the whole grid, materials in order of first use, the last mtllib.
    EXPECT_TRUE(plain.plainOk);
    EXPECT_EQ(plain.plain.getNumVertices(), 60 * 300);
    EXPECT_EQ(plain.plain.getNumTriangles(), 59 * 299 * 2);
    EXPECT_TRUE(plain.subsetsOk);
    EXPECT_FALSE(plain.subsetTriangles.empty());
    EXPECT_EQ(plain.mtl.str(), (qyIoTest::scratchDir() / "second.mtl").string());
    EXPECT_EQ(plain.numPrintedLines, 3 * 8); // eight degenerate triangles in each of three reads

    // Degenerate triangles alone (every index in range) are set aside and printed too.
    TextOptions degenerate;
    degenerate.badIndex = false;
    const Reads d = expectSameWithAnyThreadCount("degenerate.obj", gridText(degenerate));
    EXPECT_EQ(d.plain.getNumTriangles(), 59 * 299 * 2);
    EXPECT_EQ(d.numPrintedLines, 3 * 8);

    TextOptions quads;
    quads.quads = true;
    quads.finalNewline = false;
    const Reads mixed = expectSameWithAnyThreadCount("quads.obj", gridText(quads));
    EXPECT_GT(mixed.plain.getNumPolys(), 0);
    EXPECT_FALSE(mixed.subsetsOk); // non-triangular faces
}

TEST(MeshReadObjPieces, StateThatCrossesTheCutsResolvesAsInOneStream)
{
    // Relative indices count back from the positions read so far in the whole file.
    TextOptions relative;
    relative.relativeIndices = true;
    const Reads r = expectSameWithAnyThreadCount("relative.obj", gridText(relative));
    EXPECT_EQ(r.plain.getNumTriangles(), 59 * 299 * 2);
    EXPECT_EQ(faces(r.plain),
              faces(expectSameWithAnyThreadCount("absolute.obj", gridText({})).plain));

    // The first comment of the file switches on decimal commas for all that follows.
    TextOptions comma;
    comma.commaDecimal = true;
    const Reads c = expectSameWithAnyThreadCount("comma.obj", gridText(comma));
    ASSERT_TRUE(c.plainOk);
    EXPECT_EQ(c.plain.getVerticesRaw()[3 * 1000 + 2], 0.125f);

    // A line too long for the reader ends the reading there.
    TextOptions longLine;
    longLine.longLine = true;
    const Reads l = expectSameWithAnyThreadCount("long.obj", gridText(longLine));
    EXPECT_EQ(l.plain.getNumVertices(), 41 * 300);
}

TEST(MeshReadObjPieces, MeshesTakeOverTheReadersArraysAndKeepWorking)
{
    // Normals, which the plain read skips, make up most of the file: the reader's arrays are
    // reserved by the file's size and hold little, so the mesh takes over cut blocks.
    const std::string grid = gridText({}, 3);
    std::string padded = grid;
    for (int i = 0; i < 1200000; ++i)
        padded += "vn 0 0 1\n";
    const Reads small = expectSameWithAnyThreadCount("unpadded.obj", grid);
    for (int numThreads : {1, 4})
    {
        Reads r = readAll(qyIoTest::writeFile("padded.obj", padded), numThreads);
        ASSERT_TRUE(r.plainOk);
        EXPECT_EQ(vertices(r.plain), vertices(small.plain));
        EXPECT_EQ(faces(r.plain), faces(small.plain));
        // The adopted arrays grow, shrink, copy and go away as any others.
        CompactMesh& mesh = r.plain;
        const int n = mesh.getNumVertices(), numTris = mesh.getNumTriangles();
        mesh.resizeVertexArray(1 << 20);
        mesh.resizeTriangleArray(1 << 20);
        EXPECT_EQ(mesh.getVerticesRaw()[3 * (1 << 20) - 1], 0.0f);
        EXPECT_EQ(mesh.getTrianglesRaw()[3 * (1 << 20) - 1], 0);
        mesh.resizeVertexArray(n);
        mesh.resizeTriangleArray(numTris);
        const CompactMesh copy(mesh);
        EXPECT_EQ(vertices(copy), vertices(small.plain));
        EXPECT_EQ(faces(copy), faces(small.plain));
    }
}
