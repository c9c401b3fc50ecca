#include "qyGeom/meshBoundingBox.h"

#include <cfloat>
#include <cstring>
#include <limits>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/BitVector.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "testMeshes.h"

using qyGeom::BitVector;
using qyGeom::BoundingBox;
using qyGeom::CompactMesh;
using qyLinear::Point;

namespace
{

const int threadCounts[] = {1, 2, 3, 7};
const BoundingBox emptyBox(Point(FLT_MAX, FLT_MAX, FLT_MAX), Point(-FLT_MAX, -FLT_MAX, -FLT_MAX));
const BoundingBox staleBox(Point(-50, -50, -50), Point(50, 50, 50));

// The box from each of the three forms, which must agree. The outputs start stale, so a form
// that extends its output instead of setting it shows.
BoundingBox boxOf(const CompactMesh& mesh)
{
    BoundingBox plain = staleBox, withNull = staleBox;
    double min[3] = {-50, -50, -50}, max[3] = {50, 50, 50};
    qyGeom::meshBoundingBox(mesh, plain);
    qyGeom::meshBoundingBox(mesh, withNull, nullptr);
    qyGeom::meshBoundingBox(mesh, min, max);
    EXPECT_EQ(withNull, plain);
    EXPECT_EQ(BoundingBox(Point(min[0], min[1], min[2]), Point(max[0], max[1], max[2])), plain);
    return plain;
}

} // namespace

TEST(MeshBoundingBox, EveryFormGivesTheVertexExtentsSkipsNaNAndPrintsOneLine)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // NaN first (where a box seeded from the first vertex would pick it up), last and in
    // between, whole and per component.
    const CompactMesh mixed = qyTest::makeMesh(
        {nan, nan, nan, nan, 0.5f, 0.5f, 1, 2, 3, 0.5f, nan, 0, -1, -2, -3, 0, 0, nan, nan, 1, 1},
        {});
    for (int threads : threadCounts)
    {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        qyTest::ScopedThreadCount scope(threads);
        qyTest::DebugCapture capture;
        EXPECT_EQ(boxOf(mixed), BoundingBox(Point(-1, -2, -3), Point(1, 2, 3)));
        EXPECT_TRUE(std::regex_match(
            capture.text(), std::regex("(meshBoundingBox: 7 vertices  [0-9]+\\.[0-9]{6} s\n){3}")))
            << capture.text();
        EXPECT_EQ(boxOf(qyTest::makeMesh({nan, nan, nan, nan, nan, nan}, {})), emptyBox);
        EXPECT_EQ(boxOf(CompactMesh()), emptyBox);

        // Each vertex in turn is the only one off the origin, so a vertex skipped at the edge
        // of some task's share shows for some count.
        for (int n = 1; n <= 17; ++n)
            for (int j = 0; j < n; ++j)
            {
                std::vector<float> xyz(3 * std::size_t(n), 0.0f);
                xyz[3 * std::size_t(j)] = 1.0f;
                xyz[3 * std::size_t(j) + 1] = -2.0f;
                xyz[3 * std::size_t(j) + 2] = 3.0f;
                const BoundingBox box = boxOf(qyTest::makeMesh(xyz, {}));
                EXPECT_EQ(box.minPt(), n == 1 ? Point(1, -2, 3) : Point(0, -2, 0)) << j << " " << n;
                EXPECT_EQ(box.maxPt(), n == 1 ? Point(1, -2, 3) : Point(1, 0, 3)) << j << " " << n;
            }
    }
}

TEST(MeshBoundingBox, SelectionCountsOnlyTheSelectedVertices)
{
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> coin(0.0f, 1.0f), coord(-1.0f, 1.0f);
    for (int threads : threadCounts)
    {
        qyTest::ScopedThreadCount scope(threads);
        for (int n : {1, 33, 65, 101})
        {
            std::vector<float> xyz(3 * std::size_t(n));
            for (float& c : xyz)
                c = coord(rng);
            const CompactMesh mesh = qyTest::makeMesh(xyz, {});
            // None, a few, half or all of the vertices. The bits past the last vertex are set
            // too, and must not count.
            for (float share : {0.0f, 0.1f, 0.5f, 1.0f})
            {
                SCOPED_TRACE(testing::Message()
                             << threads << " threads, " << n << " vertices, " << share);
                BitVector selection(n + 40);
                BoundingBox expected = emptyBox, box = staleBox;
                for (int i = 0; i < n + 40; ++i)
                    if (i >= n || coin(rng) < share)
                    {
                        selection.setBit(i);
                        if (i < n)
                            expected.extend(mesh.getVertices()[i].asPoint());
                    }
                qyGeom::meshBoundingBox(mesh, box, &selection);
                EXPECT_EQ(box, expected);
            }
        }
    }
}

TEST(MeshBoundingBox, ThreadCountDoesNotChangeAnyBit)
{
    const CompactMesh mesh = qyTest::makeIcosphere(6); // 40,962 vertices
    BoundingBox reference, box;
    {
        qyTest::ScopedThreadCount scope(1);
        qyGeom::meshBoundingBox(mesh, reference);
    }
    for (int threads : {2, 3, 7})
    {
        qyTest::ScopedThreadCount scope(threads);
        qyGeom::meshBoundingBox(mesh, box);
        EXPECT_EQ(std::memcmp(&box, &reference, sizeof box), 0) << threads << " threads";
    }
}
