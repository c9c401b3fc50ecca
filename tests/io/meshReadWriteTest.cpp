// The minimal counted format (meshRead, meshWrite).
#include "qyGeom/meshReadWrite.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ioTestUtil.h"
#include "model/CompactMesh.h"
#include "testMeshes.h"

using namespace qyGeom;

namespace
{

std::vector<float> vertices(const CompactMesh& m)
{
    return {m.getVerticesRaw(), m.getVerticesRaw() + 3 * m.getNumVertices()};
}

std::vector<int> triangles(const CompactMesh& m)
{
    return {m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * m.getNumTriangles()};
}

} // namespace

TEST(MeshRead, HostileCountsAndMissingFiles)
{
    CompactMesh m = qyTest::makeMesh({0, 0, 0, 1.5f, 0, 0, 0, 0.25f, -2}, {0, 1, 2});
    meshRead(m, qyOS::Filename("/nonexistent/x.mesh"));
    EXPECT_EQ(m.getNumTriangles(), 1); // untouched

    // A header that claims 2^31 - 1 vertices builds what the file holds.
    meshRead(m, qyOS::Filename(qyIoTest::writeFile("huge.mesh", "2147483647 2147483647\n"
                                                                "1 2 3\n4 5 6\n")));
    EXPECT_EQ(vertices(m), (std::vector<float>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(m.getNumTriangles(), 0);

    // Out-of-range triangles are left out; the leading count is read and ignored.
    meshRead(m, qyOS::Filename(qyIoTest::writeFile("bad.mesh", "3 3\n0 0 0\n1 0 0\n0 1 0\n"
                                                               "3 0 1 2\n3 0 1 3\n4 2 1 0\n"
                                                               "-1 1 2 0")));
    EXPECT_EQ(triangles(m), (std::vector<int>{0, 1, 2, 2, 1, 0}));
    meshRead(m, qyOS::Filename(qyIoTest::writeFile("neg.mesh", "-5 -5\n")));
    EXPECT_EQ(m.getNumVertices(), 0);
    meshRead(m, qyOS::Filename(qyIoTest::writeFile("garbage.mesh", std::string("\x01\xff\0", 3))));
    EXPECT_EQ(m.getNumVertices(), 0);
}
