#include "qyGeom/meshComputeNormals.h"

#include <gtest/gtest.h>

#include "testMeshes.h"

TEST(MeshComputeNormals, GridNormalsPointUp)
{
    qyTest::RecordingMesh mesh(qyTest::makeGrid(3, 2));
    qyGeom::meshComputeNormals(mesh);
    ASSERT_NE(mesh.getNormals(), nullptr);
    EXPECT_FLOAT_EQ(mesh.getNormals()[0].z, 1.0f);
    EXPECT_EQ(mesh.count(), 1);
}
