#include "qyGeom/meshBoundingBox.h"

#include <cfloat>
#include <cmath>
#include <cstring>
#include <limits>
#include <numbers>
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
using qyTest::DebugCapture;
using qyTest::ScopedThreadCount;

namespace
{

const int threadCounts[] = {1, 2, 3, 7};

// n vertices spread over [-1, 1]^3, the same on every run.
CompactMesh randomPoints(int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> coord(-1.0f, 1.0f);
    std::vector<float> xyz(3 * std::size_t(n));
    for (float& c : xyz)
        c = coord(rng);
    return qyTest::makeMesh(xyz, {});
}

// Independent reference: a plain loop over the (selected) vertices.
BoundingBox referenceBox(const CompactMesh& mesh, const BitVector* selection = nullptr)
{
    BoundingBox box;
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        if (!selection || selection->isBitSet(v))
            box.extend(mesh.getVertices()[v].asPoint());
    return box;
}

void expectEmptyBox(const BoundingBox& box)
{
    EXPECT_TRUE(box.isEmpty());
    EXPECT_EQ(box.minPt(), Point(FLT_MAX, FLT_MAX, FLT_MAX));
    EXPECT_EQ(box.maxPt(), Point(-FLT_MAX, -FLT_MAX, -FLT_MAX));
}

bool sameBits(const BoundingBox& a, const BoundingBox& b)
{
    return std::memcmp(&a.minPt(), &b.minPt(), sizeof(Point)) == 0 &&
           std::memcmp(&a.maxPt(), &b.maxPt(), sizeof(Point)) == 0;
}

// A box that a function which extends its output instead of resetting it would keep.
BoundingBox staleBox()
{
    BoundingBox box;
    box.extend(-50, -50, -50);
    box.extend(50, 50, 50);
    return box;
}

} // namespace

TEST(MeshBoundingBox, AllThreeFormsGiveTheExtentsOfTheVertices)
{
    const CompactMesh mesh = qyTest::makeTorus(13, 7, 2.0, 0.5);
    const BoundingBox expected = referenceBox(mesh);
    ASSERT_FALSE(expected.isEmpty());

    BoundingBox plain = staleBox(), withNull = staleBox();
    qyGeom::meshBoundingBox(mesh, plain);
    qyGeom::meshBoundingBox(mesh, withNull, nullptr);
    double min[3], max[3];
    qyGeom::meshBoundingBox(mesh, min, max);
    EXPECT_EQ(plain, expected);
    EXPECT_EQ(withNull, expected);
    for (int k = 0; k < 3; ++k)
    {
        EXPECT_EQ(min[k], expected.minPt()[k]);
        EXPECT_EQ(max[k], expected.maxPt()[k]);
    }
    // The torus's analytic extents, to within the single-precision vertices.
    EXPECT_NEAR(expected.maxPt().x, 2.5, 1e-6);
    EXPECT_NEAR(expected.minPt().z, -0.5 * std::sin(4 * std::numbers::pi / 7), 1e-6);
}

TEST(MeshBoundingBox, EveryVertexCountsWhateverTheThreadCount)
{
    // Each vertex in turn is the only one off the origin, so a vertex skipped at the edge
    // of some task's share shows for some count.
    for (int threads : threadCounts)
    {
        ScopedThreadCount scope(threads);
        for (int n = 1; n <= 17; ++n)
            for (int j = 0; j < n; ++j)
            {
                SCOPED_TRACE(testing::Message()
                             << threads << " threads, vertex " << j << " of " << n);
                std::vector<float> xyz(3 * std::size_t(n), 0.0f);
                xyz[3 * j] = 1.0f;
                xyz[3 * j + 1] = -2.0f;
                xyz[3 * j + 2] = 3.0f;
                BoundingBox box;
                qyGeom::meshBoundingBox(qyTest::makeMesh(xyz, {}), box);
                EXPECT_EQ(box.minPt(), n == 1 ? Point(1, -2, 3) : Point(0, -2, 0));
                EXPECT_EQ(box.maxPt(), n == 1 ? Point(1, -2, 3) : Point(1, 0, 3));
            }
    }
}

TEST(MeshBoundingBox, SelectionCountsOnlySelectedVertices)
{
    struct Pattern
    {
        const char* name;
        bool (*selected)(int i, int n);
    };
    const Pattern patterns[] = {
        {"first", [](int i, int) { return i == 0; }},
        {"last", [](int i, int n) { return i == n - 1; }},
        {"30..34", [](int i, int) { return i >= 30 && i <= 34; }},
        {"62..66", [](int i, int) { return i >= 62 && i <= 66; }},
        {"31 and 32", [](int i, int) { return i == 31 || i == 32; }},
        {"every third", [](int i, int) { return i % 3 == 1; }},
        {"all", [](int, int) { return true; }},
        {"none", [](int, int) { return false; }},
    };
    for (int threads : threadCounts)
    {
        ScopedThreadCount scope(threads);
        for (int n : {1, 31, 33, 65, 97, 101})
        {
            const CompactMesh mesh = randomPoints(n, unsigned(n));
            for (const Pattern& p : patterns)
            {
                BitVector inMesh(n);
                for (int i = 0; i < n; ++i)
                    if (p.selected(i, n))
                        inMesh.setBit(i);
                const BoundingBox expected = referenceBox(mesh, &inMesh);
                // The selection may be longer than the vertex array; bits past the last
                // vertex must not count (they are set here to show it).
                for (int extra : {0, 40})
                {
                    SCOPED_TRACE(testing::Message() << threads << " threads, " << n << " vertices, "
                                                    << p.name << ", " << extra << " extra bits");
                    BitVector selection = inMesh;
                    selection.resize(n + extra);
                    for (int i = n; i < n + extra; ++i)
                        selection.setBit(i);
                    BoundingBox box = staleBox();
                    qyGeom::meshBoundingBox(mesh, box, &selection);
                    EXPECT_EQ(box, expected);
                    if (!inMesh.anyBitSet())
                        expectEmptyBox(box);
                }
            }
        }
    }
}

TEST(MeshBoundingBox, EmptyMeshAndEmptySelectionGiveTheEmptyBox)
{
    for (int threads : threadCounts)
    {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        ScopedThreadCount scope(threads);
        const CompactMesh empty;
        BoundingBox box = staleBox();
        qyGeom::meshBoundingBox(empty, box);
        expectEmptyBox(box);
        box = staleBox();
        qyGeom::meshBoundingBox(empty, box, nullptr);
        expectEmptyBox(box);
        double min[3] = {0, 0, 0}, max[3] = {0, 0, 0};
        qyGeom::meshBoundingBox(empty, min, max);
        for (int k = 0; k < 3; ++k)
        {
            EXPECT_EQ(min[k], double(FLT_MAX));
            EXPECT_EQ(max[k], -double(FLT_MAX));
        }

        const CompactMesh cube = qyTest::makeCube();
        const BitVector none(cube.getNumVertices());
        box = staleBox();
        qyGeom::meshBoundingBox(cube, box, &none);
        expectEmptyBox(box);
    }
}

TEST(MeshBoundingBox, NaNCoordinatesDoNotPoisonTheBox)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    // NaN first (where a box seeded from the first vertex would pick it up), last and in
    // between, whole and per component.
    const CompactMesh mixed = qyTest::makeMesh(
        {nan, nan, nan, nan, 0.5f, 0.5f, 1, 2, 3, 0.5f, nan, 0, -1, -2, -3, 0, 0, nan, nan, 1, 1},
        {});
    const CompactMesh allNaN = qyTest::makeMesh({nan, nan, nan, nan, nan, nan}, {});
    for (int threads : threadCounts)
    {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        ScopedThreadCount scope(threads);
        BoundingBox box;
        qyGeom::meshBoundingBox(mixed, box);
        EXPECT_EQ(box.minPt(), Point(-1, -2, -3));
        EXPECT_EQ(box.maxPt(), Point(1, 2, 3));
        BitVector selection(mixed.getNumVertices());
        selection.setAllBits();
        selection.clearBit(2);
        qyGeom::meshBoundingBox(mixed, box, &selection);
        EXPECT_EQ(box.minPt(), Point(-1, -2, -3));
        EXPECT_EQ(box.maxPt(), Point(0.5, 1, 1));

        qyGeom::meshBoundingBox(allNaN, box);
        expectEmptyBox(box);
    }
}

TEST(MeshBoundingBox, PrintsOneLineWithTheVertexCountAndTheTime)
{
    const CompactMesh cube = qyTest::makeCube();
    BitVector half(cube.getNumVertices());
    half.setBit(1);
    half.setBit(6);
    const std::regex cubeLine("meshBoundingBox: 8 vertices  [0-9]+\\.[0-9]{6} s\n");
    BoundingBox box;
    double min[3], max[3];
    {
        DebugCapture capture;
        qyGeom::meshBoundingBox(cube, box);
        EXPECT_TRUE(std::regex_match(capture.text(), cubeLine)) << capture.text();
    }
    {
        DebugCapture capture;
        qyGeom::meshBoundingBox(cube, box, &half);
        EXPECT_TRUE(std::regex_match(capture.text(), cubeLine)) << capture.text();
    }
    {
        DebugCapture capture;
        qyGeom::meshBoundingBox(cube, min, max);
        EXPECT_TRUE(std::regex_match(capture.text(), cubeLine)) << capture.text();
    }
    {
        DebugCapture capture;
        qyGeom::meshBoundingBox(CompactMesh(), box);
        EXPECT_TRUE(std::regex_match(
            capture.text(), std::regex("meshBoundingBox: 0 vertices  [0-9]+\\.[0-9]{6} s\n")))
            << capture.text();
    }
}

TEST(MeshBoundingBox, ThreadCountDoesNotChangeAnyBit)
{
    const CompactMesh mesh = randomPoints(40001, 9);
    BitVector sparse(mesh.getNumVertices());
    for (int i = 0; i < mesh.getNumVertices(); i += 5)
        sparse.setBit(i);
    BoundingBox refAll, refSparse;
    double refMin[3], refMax[3];
    for (int threads : threadCounts)
    {
        SCOPED_TRACE(testing::Message() << threads << " threads");
        ScopedThreadCount scope(threads);
        BoundingBox all, selected;
        double min[3], max[3];
        qyGeom::meshBoundingBox(mesh, all);
        qyGeom::meshBoundingBox(mesh, selected, &sparse);
        qyGeom::meshBoundingBox(mesh, min, max);
        if (threads == 1)
        {
            refAll = all;
            refSparse = selected;
            std::memcpy(refMin, min, sizeof min);
            std::memcpy(refMax, max, sizeof max);
            EXPECT_EQ(all, referenceBox(mesh));
            EXPECT_EQ(selected, referenceBox(mesh, &sparse));
            continue;
        }
        EXPECT_TRUE(sameBits(all, refAll));
        EXPECT_TRUE(sameBits(selected, refSparse));
        EXPECT_EQ(std::memcmp(min, refMin, sizeof min), 0);
        EXPECT_EQ(std::memcmp(max, refMax, sizeof max), 0);
    }
}
