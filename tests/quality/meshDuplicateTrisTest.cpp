// Tests of the duplicate-triangle search and removal.
#include "qyGeom/meshDuplicateTris.h"

#include <vector>

#include <gtest/gtest.h>

#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "testMeshes.h"

using namespace qyGeom;

namespace
{

TEST(meshDuplicateTris, MarksRepeatsAndDegenerateAndRemovesThemInOrder)
{
    // 0: (0 1 2)  1: (1 2 0) rotation  2: (2 1 0) reversed  3: (0 2 3)  4: (0 0 3) repeated
    // 5: (0 3 9) out of range  6: (3 2 0) reversed of 3  7: (1 3 2) new  8: (2 0 1) rotation
    qyTest::RecordingMesh mesh(qyTest::makeMesh(
        {0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0},
        {0, 1, 2, 1, 2, 0, 2, 1, 0, 0, 2, 3, 0, 0, 3, 0, 3, 9, 3, 2, 0, 1, 3, 2, 2, 0, 1}));
    mesh.allocTriangleNormalArray();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
        mesh.getTriangleNormals()[t].set(float(t), 0, 0);
    mesh.getSelectedTriangles().resize(mesh.getNumTriangles());
    mesh.getSelectedTriangles().setBit(7); // a previous selection is replaced
    ASSERT_TRUE(meshDuplicateTris(mesh));
    std::vector<int> marked;
    for (BitIterator it(mesh.getSelectedTriangles()); it.valid(); it.next())
        marked.push_back(it.index());
    EXPECT_EQ(marked, (std::vector<int>{1, 2, 4, 5, 6, 8}));

    meshRemoveDuplicateTris(mesh);
    ASSERT_EQ(mesh.getNumTriangles(), 3);
    const int expected[] = {0, 1, 2, 0, 2, 3, 1, 3, 2};
    for (int k = 0; k < 9; ++k)
        EXPECT_EQ(mesh.getTrianglesRaw()[k], expected[k]);
    ASSERT_NE(mesh.getTriangleNormals(), nullptr);
    EXPECT_EQ(mesh.getTriangleNormals()[1].x, 3.0f);
    EXPECT_EQ(mesh.getTriangleNormals()[2].x, 7.0f);
    EXPECT_EQ(mesh.getNumVertices(), 4);
    EXPECT_EQ(mesh.getSelectedTriangles().countBits(), 0);
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].type, MeshModification::Remapped);

    // A clean mesh: nothing found, nothing removed, no notification.
    EXPECT_FALSE(meshDuplicateTris(mesh));
    meshRemoveDuplicateTris(mesh);
    EXPECT_EQ(mesh.getNumTriangles(), 3);
    EXPECT_EQ(mesh.count(), 1);
}

TEST(meshDuplicateTris, LargeSoupOfDoubledSphere)
{
    // Every triangle of a sphere twice, the second copy reversed and rotated.
    const CompactMesh sphere = qyTest::makeIcosphere(3);
    std::vector<float> xyz(sphere.getVerticesRaw(),
                           sphere.getVerticesRaw() + 3 * sphere.getNumVertices());
    std::vector<int> tris(sphere.getTrianglesRaw(),
                          sphere.getTrianglesRaw() + 3 * sphere.getNumTriangles());
    const int n = sphere.getNumTriangles();
    for (int t = 0; t < n; ++t)
    {
        tris.push_back(sphere.getTrianglesRaw()[3 * t + 1]);
        tris.push_back(sphere.getTrianglesRaw()[3 * t]);
        tris.push_back(sphere.getTrianglesRaw()[3 * t + 2]);
    }
    CompactMesh mesh = qyTest::makeMesh(xyz, tris);
    ASSERT_TRUE(meshDuplicateTris(mesh));
    EXPECT_EQ(mesh.getSelectedTriangles().countBits(), n);
    for (int t = 0; t < n; ++t)
        EXPECT_FALSE(mesh.getSelectedTriangles().isBitSet(t));
    meshRemoveDuplicateTris(mesh);
    EXPECT_EQ(mesh.getNumTriangles(), n);
    for (int k = 0; k < 3 * n; ++k)
        ASSERT_EQ(mesh.getTrianglesRaw()[k], sphere.getTrianglesRaw()[k]);
}

} // namespace
