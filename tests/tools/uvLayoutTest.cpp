// The layout measure of qygeom flatten: flipped triangles, and the share of the UV area
// covered more than once.
#include <gtest/gtest.h>

#include "cli/Svg.h"
#include "testMeshes.h"

namespace
{

// A mesh whose UVs are the given points (xyz = (u, v, 0)).
qyGeom::CompactMesh layout(const std::vector<float>& uv, const std::vector<int>& tris)
{
    std::vector<float> xyz;
    for (std::size_t i = 0; i < uv.size(); i += 2)
        xyz.insert(xyz.end(), {uv[i], uv[i + 1], 0.0f});
    qyGeom::CompactMesh mesh = qyTest::makeMesh(xyz, tris);
    mesh.allocUVArray();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        mesh.getUVs()[v] = {uv[2 * std::size_t(v)], uv[2 * std::size_t(v) + 1]};
    return mesh;
}

} // namespace

TEST(UvLayout, SharedEdgesCountOnceWhileFoldsAndOverlapsAreFound)
{
    // A 16 x 16 grid of squares split along alternating diagonals: the grid's cell centres
    // lie exactly on the diagonals and on the lines through the vertices, so a point on a
    // shared edge or vertex must be given to one triangle only.
    constexpr int n = 16;
    std::vector<float> uv;
    std::vector<int> tris;
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            uv.insert(uv.end(), {float(i) / n, float(j) / n});
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
        {
            const int a = j * (n + 1) + i, b = a + 1, c = a + n + 1, d = c + 1;
            if ((i + j) % 2)
                tris.insert(tris.end(), {a, b, d, a, d, c});
            else
                tris.insert(tris.end(), {a, b, c, b, d, c});
        }
    qyGeom::CompactMesh mesh = layout(uv, tris);
    for (const int grid : {64, 2048, 1000})
    {
        const qyCli::UvLayoutStats stats = qyCli::measureUvLayout(mesh, grid);
        EXPECT_EQ(stats.triangles, 2 * n * n);
        EXPECT_EQ(stats.flipped, 0);
        EXPECT_EQ(stats.overlapping, 0) << grid;
        EXPECT_EQ(stats.overlapShare, 0.0) << grid;
        EXPECT_TRUE(stats.oneToOne());
    }

    // Moving an inner vertex past its neighbour folds the layout: the triangles that turn
    // over are flipped, and they cover ground twice.
    const int inner = 8 * (n + 1) + 8;
    mesh.getUVs()[inner].u += 1.5f / n;
    const qyCli::UvLayoutStats folded = qyCli::measureUvLayout(mesh);
    EXPECT_GT(folded.flipped, 0);
    EXPECT_GT(folded.overlapping, folded.flipped);
    EXPECT_GT(folded.overlapShare, 0.0);
    EXPECT_FALSE(folded.oneToOne());

    // Two unflipped triangles, the second a quarter of the first in area and inside it: a
    // quarter of the covered area is covered twice.
    const qyCli::UvLayoutStats overlap = qyCli::measureUvLayout(
        layout({0, 0, 1, 0, 0, 1, 0, 0, 0.5f, 0, 0, 0.5f}, {0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(overlap.flipped, 0);
    EXPECT_EQ(overlap.overlapping, 2);
    EXPECT_NEAR(overlap.overlapShare, 0.25, 0.002);
}
