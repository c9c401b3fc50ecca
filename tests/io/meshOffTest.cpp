#include "qyGeom/meshOff.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "meshFormatTestUtil.h"
#include "model/CompactMesh.h"
#include "qyGeom/meshReadObj.h"

namespace
{

using qyGeom::CompactMesh;

std::string readOff(const std::string& text, CompactMesh& mesh, const char* name = "t.off")
{
    const std::string path = qyIoTest::writeFile(name, text);
    return qyGeom::meshReadOff(mesh, qyOS::Filename(path.c_str())).message().c_str();
}

TEST(meshOff, RoundTripsKeepCountsEveryFloatBitAndTheAttributes)
{
    const std::vector<int> tris = {0, 1, 2, 2, 1, 3, 3, 4, 0, 4, 5, 6};
    for (const bool attributes : {true, false})
        for (const bool polys : {false, true})
        {
            const CompactMesh mesh =
                polys ? qyIoTest::awkwardMesh(12, qyIoTest::polygonCorners(),
                                              qyIoTest::polygonLengths(), attributes)
                      : qyIoTest::awkwardMesh(8, tris, {}, attributes);
            const std::string path = (qyIoTest::scratchDir() / "round.off").string();
            ASSERT_TRUE(qyGeom::meshWriteOff(mesh, qyOS::Filename(path.c_str())));
            EXPECT_EQ(attributes ? "STCNOFF" : "OFF",
                      qyIoTest::readText(path).substr(0, attributes ? 7 : 3));
            CompactMesh back;
            const qyUtil::Error e = qyGeom::meshReadOff(back, qyOS::Filename(path.c_str()));
            ASSERT_TRUE(e.isSuccess()) << e.message().c_str();
            qyIoTest::expectSameMesh(mesh, back);
        }
}

TEST(meshOff, ReadsColourNormalHomogeneousAndCommentedForms)
{
    CompactMesh mesh;
    // Counts on the keyword's line, integer colours with and without alpha, face colours,
    // comments and blank lines.
    EXPECT_EQ("", readOff("COFF 4 2 0 # counts\n\n0 0 0 255 0 0\n1 0 0 0 255 0 128\n"
                          "# a comment line\n1 1 0 0.5 0.25 1 0.5\n0 1 0 0 0 0\n"
                          "3 0 1 2 255 0 0\n4 0 1 2 3\n",
                          mesh));
    ASSERT_EQ(4, mesh.getNumVertices());
    ASSERT_EQ(2, mesh.getNumPolys());
    ASSERT_NE(nullptr, mesh.getColours());
    EXPECT_EQ(1.0f, mesh.getColours()[0].r);
    EXPECT_EQ(1.0f, mesh.getColours()[0].a);
    EXPECT_EQ(128.0f / 255.0f, mesh.getColours()[1].a);
    EXPECT_EQ(0.25f, mesh.getColours()[2].g);

    // Homogeneous coordinates with normals, the counts on the next line; a two-corner face
    // is left out.
    EXPECT_EQ("", readOff("N4OFF\n3 2 0\n2 4 6 2 0 0 1\n1 0 0 1 0 0 1\n0 3 0 3 0 0 1\n"
                          "3 0 1 2\n2 0 1\n",
                          mesh));
    ASSERT_EQ(3, mesh.getNumVertices());
    EXPECT_EQ(1, mesh.getNumTriangles());
    EXPECT_EQ(3.0f, mesh.getVertices()[0].z);
    EXPECT_EQ(1.0f, mesh.getVertices()[2].y);
    ASSERT_NE(nullptr, mesh.getNormalsRaw());
    EXPECT_EQ(1.0f, mesh.getNormals()[1].z);
    // Faces after the counted ones are not read.
    EXPECT_EQ("", readOff("nOFF 3\n3 1\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n3 2 1 0\n", mesh));
    EXPECT_EQ(1, mesh.getNumTriangles());
}

TEST(meshOff, RefusesBadInputWithOneLineNamingTheFileAndTheLine)
{
    const std::string head = "OFF\n3 1 0\n0 0 0\n1 0 0\n0 1 0\n";
    struct Case
    {
        std::string text, expected;
    };
    const Case cases[] = {
        {"PLY\n", "line 1: not an OFF file (the keyword is 'PLY')"},
        {"", "the file is empty"},
        {"OFF BINARY\n", "line 1: binary OFF is not read"},
        {"nOFF 4\n", "line 1: a dimension of 4"},
        {"OFF\n", "line 2: the file ends before the vertex count"},
        {"OFF\n3 x\n", "line 2: expected the face count"},
        {"OFF\n-3 1\n", "line 2: counts of -3 vertices and 1 faces are out of range"},
        {"OFF\n2000000000 2000000000\n", "line 2: the header's 2000000000 vertices and "
                                         "2000000000 faces need at least 15999999999 bytes"},
        {head + "3 0 1 3\n", "line 6: face 1 names vertex 3, but there are 3 vertices"},
        {head + "4 0 1 2\n", "line 6: a face of 4 corners with 3 indices"},
        {head + "3 0 1 2 1 1 1 1 1\n", "line 6: more than a face colour after the indices"},
        {"OFF\n3 2 0\n0 0 0\n1 0 0\n0 1 0\n3 0 1 2\n#\n",
         "line 8: the file ends after 1 of its 2 faces"},
        {"OFF\n3 1 0\n0 0 0\n1 0\n0 1 0\n3 0 1 2\n", "line 4: a vertex of 2 numbers (expected 3)"},
        {"COFF\n3 1 0\n0 0 0\n1 0 0 1\n0 1 0\n3 0 1 2\n",
         "line 3: a vertex of 3 numbers (expected 6 or one more)"},
        {"OFF\n3 1 0\n0 0 0\n1 0 z\n0 1 0\n3 0 1 2\n",
         "line 4: a vertex value that is not a number"},
    };
    for (const Case& c : cases)
    {
        SCOPED_TRACE(c.text);
        CompactMesh mesh = qyIoTest::awkwardMesh(3, {0, 1, 2}, {}, false);
        const CompactMesh before = mesh;
        const std::string message = readOff(c.text, mesh, "bad.off");
        EXPECT_EQ(0u, message.find("cannot read '" + (qyIoTest::scratchDir() / "bad.off").string() +
                                   "': "))
            << message;
        EXPECT_NE(std::string::npos, message.find(c.expected)) << message;
        qyIoTest::expectSameMesh(before, mesh);
    }
}

// The demo meshes of a geometry library come as OFF; the peer harness converts them to OBJ
// (polygons fanned into triangles). With QYGEOM_OFF_DATA naming the folder of the .off files
// and QYGEOM_PEER_DATA that of the .obj files, each OFF reads to the OBJ's vertices (same
// float bits) and as many triangles as its faces fan into.
TEST(meshOff, DemoMeshesReadAsTheirObjConversions)
{
    const char* offDir = std::getenv("QYGEOM_OFF_DATA");
    const char* objDir = std::getenv("QYGEOM_PEER_DATA");
    if (!offDir || !objDir || !std::filesystem::is_directory(offDir))
        GTEST_SKIP() << "QYGEOM_OFF_DATA and QYGEOM_PEER_DATA are not set";
    int compared = 0;
    for (const auto& entry : std::filesystem::directory_iterator(offDir))
    {
        if (entry.path().extension() != ".off")
            continue;
        const std::filesystem::path obj =
            std::filesystem::path(objDir) / (entry.path().stem().string() + ".obj");
        // Only the OBJ files converted from OFF (the harness also generates a sphere).
        std::string first;
        std::getline(std::ifstream(obj), first);
        if (first.rfind("# converted from", 0) != 0)
            continue;
        SCOPED_TRACE(entry.path().string());
        CompactMesh off;
        const qyUtil::Error e = qyGeom::meshReadOff(off, entry.path().c_str());
        ASSERT_TRUE(e.isSuccess()) << e.message().c_str();
        CompactMesh fromObj;
        ASSERT_TRUE(qyGeom::meshReadObj(fromObj, obj.c_str()));
        int fanned = off.getNumTriangles();
        for (int p = 0; p < off.getNumPolys(); ++p)
            fanned += off.getPolyLengths()[p] - 2;
        EXPECT_EQ(fromObj.getNumVertices(), off.getNumVertices());
        EXPECT_EQ(fromObj.getNumTriangles() + fromObj.getNumPolys(), fanned);
        qyIoTest::expectSameBits(fromObj.getVerticesRaw(), off.getVerticesRaw(),
                                 3 * std::size_t(off.getNumVertices()), "positions");
        ++compared;
    }
    std::printf("compared %d OFF files with their OBJ conversions\n", compared);
    EXPECT_GT(compared, 0);
}

} // namespace
