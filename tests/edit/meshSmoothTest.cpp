#include "qyGeom/meshSmooth.h"

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshComputeNormals.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyTest::RecordingMesh;

namespace
{

MeshAdjVertices adjacencyOf(const CompactMesh& mesh)
{
    MeshAdjTris adjTris;
    meshAdjTris(mesh, adjTris);
    MeshAdjVertices adjVertices;
    meshAdjVertices(mesh, adjTris, adjVertices);
    return adjVertices;
}

std::vector<float> positions(const CompactMesh& mesh)
{
    const float* v = mesh.getVerticesRaw();
    return std::vector<float>(v, v + 3 * mesh.getNumVertices());
}

// Selects the vertices v for which keep(v) holds.
template <class Keep> void select(CompactMesh& mesh, Keep keep)
{
    mesh.getSelectedVertices().resize(mesh.getNumVertices());
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        if (keep(v))
            mesh.getSelectedVertices().setBit(v);
}
bool all(int)
{
    return true;
}

// Every normal (0, 0, z).
void setNormals(CompactMesh& mesh, float z)
{
    mesh.allocNormalArray();
    for (int i = 0; i < mesh.getNumVertices(); ++i)
        mesh.getNormals()[i].set(0.0f, 0.0f, z);
}

// `mesh` with every coordinate moved by up to `amount` (z only when `zOnly`), reproducibly,
// and its normals computed from the moved vertices.
CompactMesh noisy(CompactMesh mesh, float amount, bool zOnly = false)
{
    std::mt19937 rng(7u);
    std::uniform_real_distribution<float> noise(-amount, amount);
    float* v = mesh.getVerticesRaw();
    for (int i = 0; i < 3 * mesh.getNumVertices(); ++i)
        if (!zOnly || i % 3 == 2)
            v[i] += noise(rng);
    meshComputeNormals(mesh);
    return mesh;
}

void smooth(bool bilateral, CompactMesh& mesh, double sigma,
            qyUtil::Progress& progress = qyTest::quietProgress())
{
    if (bilateral)
        meshSmoothBilateral(mesh, adjacencyOf(mesh), sigma, progress);
    else
        meshSmoothLaplacian(mesh, adjacencyOf(mesh), progress);
}

void expectOnePositionsNotice(const RecordingMesh& mesh)
{
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].type, MeshModification::PositionsChanged);
    EXPECT_EQ(mesh.entries()[0].flags, 0u);
}

} // namespace

TEST(MeshSmoothLaplacian, KeepsGridInteriorAndPullsSelectedBorderInward)
{
    const int n = 4;
    RecordingMesh mesh(qyTest::makeGrid(n, n));
    const std::vector<float> before = positions(mesh);
    // Everything but the top row, which must stay, while the row below still averages it.
    select(mesh, [&](int v) { return v < n * (n + 1); });
    smooth(false, mesh, 0.0);
    expectOnePositionsNotice(mesh);
    for (int v = 0; v < mesh.getNumVertices(); ++v)
    {
        const int i = v % (n + 1), j = v / (n + 1);
        const MeshVertex p = mesh.getVertices()[v];
        SCOPED_TRACE(testing::Message() << "vertex (" << i << ", " << j << ")");
        EXPECT_EQ(p.z, 0.0f);
        if (j == n || (i > 0 && j > 0 && i < n))
        {
            // Symmetric neighbours of integer coordinates: the float average is exact.
            EXPECT_EQ(p.x, before[3 * v]);
            EXPECT_EQ(p.y, before[3 * v + 1]);
            continue;
        }
        // Off the border, towards the inside, and still inside the grid.
        EXPECT_TRUE((j > 0 || p.y > 0.0f) && (i > 0 || p.x > 0.0f) && (i < n || p.x < n));
        EXPECT_TRUE(p.x >= 0.0f && p.x <= n && p.y >= 0.0f);
    }
}

TEST(MeshSmooth, EmptySelectionMovesNothingAndOnlyTheLaplacianNotifies)
{
    RecordingMesh mesh(noisy(qyTest::makeIcosphere(1), 0.1f));
    const std::vector<float> before = positions(mesh);
    smooth(true, mesh, 1.0);
    EXPECT_EQ(mesh.count(), 0);
    smooth(false, mesh, 0.0);
    expectOnePositionsNotice(mesh);
    EXPECT_EQ(positions(mesh), before);

    // A selected vertex without neighbours averages nothing: 0 / 0.
    CompactMesh lonely = qyTest::testMeshes::get("isolated vertex");
    const int last = lonely.getNumVertices() - 1;
    select(lonely, [&](int v) { return v == last; });
    smooth(false, lonely, 0.0);
    EXPECT_TRUE(std::isnan(lonely.getVertices()[last].x));
}

TEST(MeshSmoothBilateral, KeepsFlatAndLevelNeighbourhoodsAndIgnoresSigmaBelowEveryEdge)
{
    {
        SCOPED_TRACE("flat grid, normals along the plane's normal");
        RecordingMesh mesh(qyTest::makeGrid(6, 5));
        setNormals(mesh, 3.0f); // any length: the filter normalises
        select(mesh, all);
        const std::vector<float> before = positions(mesh);
        smooth(true, mesh, 2.5);
        EXPECT_EQ(positions(mesh), before);
        expectOnePositionsNotice(mesh);
    }
    {
        SCOPED_TRACE("apex of a cone: its whole neighbourhood at one height");
        std::vector<float> xyz = {0, 0, 0.4f};
        std::vector<int> tris;
        for (int k = 0; k < 6; ++k)
        {
            xyz.insert(xyz.end(), {float(std::cos(k * 1.0471975512)),
                                   float(std::sin(k * 1.0471975512)), 0.0f});
            tris.insert(tris.end(), {0, 1 + k, 1 + (k + 1) % 6});
        }
        CompactMesh mesh = qyTest::makeMesh(xyz, tris);
        setNormals(mesh, 1.0f);
        select(mesh, [](int v) { return v == 0; });
        smooth(true, mesh, 1.5);
        EXPECT_EQ(mesh.getVertices()[0].z, 0.4f);
    }
    {
        SCOPED_TRACE("sigma below every edge length");
        RecordingMesh mesh(noisy(qyTest::makeIcosphere(2), 0.02f)); // edges about 0.3 long
        select(mesh, all);
        const std::vector<float> before = positions(mesh);
        smooth(true, mesh, 0.1);
        EXPECT_EQ(positions(mesh), before);
        expectOnePositionsNotice(mesh);
    }
}

TEST(MeshSmoothBilateral, FloodStopsAtAVertexOutsideTheBall)
{
    // Centre 0 at the origin (normal +z) with neighbours 1 and 2 in the ball of radius 1.5;
    // vertex 3 lies outside it. Vertex 4, inside the ball and high above the plane, is joined
    // either through 3 only, or to 1 as well.
    const std::vector<float> xyz = {
        0,    0,     0,      // 0: the centre
        1,    0,     0.2f,   // 1
        0,    1,     -0.05f, // 2
        3,    0,     0,      // 3: outside the ball
        0.5f, -0.5f, 0.6f,   // 4
        3,    1,     0,      // 5: outside the ball
    };
    auto smoothCentre = [&](const std::vector<int>& tris)
    {
        CompactMesh mesh = qyTest::makeMesh(xyz, tris);
        setNormals(mesh, 1.0f);
        select(mesh, [](int v) { return v == 0; });
        smooth(true, mesh, 1.5);
        const MeshVertex p = mesh.getVertices()[0];
        EXPECT_TRUE(p.x == 0.0f && p.y == 0.0f); // moved along its normal only
        return p.z;
    };
    const float alone = smoothCentre({0, 1, 2});
    EXPECT_NE(alone, 0.0f);
    EXPECT_EQ(smoothCentre({0, 1, 2, 1, 3, 5, 3, 4, 5}), alone);
    // Reached in two steps inside the ball, vertex 4 pulls the centre up.
    EXPECT_GT(smoothCentre({0, 1, 2, 1, 4, 3}), alone);
}

TEST(MeshSmooth, NoisyPlaneComesCloserToThePlane)
{
    const int n = 40;
    const auto interior = [&](int v) { return v % (n + 1) % n != 0 && v / (n + 1) % n != 0; };
    const auto rmsHeight = [&](const CompactMesh& mesh)
    {
        double sum = 0.0;
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            sum += interior(v) ? double(mesh.getVertices()[v].z) * mesh.getVertices()[v].z : 0.0;
        return std::sqrt(sum / ((n - 1) * (n - 1)));
    };
    for (bool bilateral : {false, true})
    {
        SCOPED_TRACE(bilateral ? "bilateral" : "Laplacian");
        RecordingMesh mesh(noisy(qyTest::makeGrid(n, n), 0.05f, true));
        select(mesh, interior);
        const double rmsBefore = rmsHeight(mesh);
        smooth(bilateral, mesh, 2.0);
        EXPECT_LT(rmsHeight(mesh), 0.7 * rmsBefore);
        expectOnePositionsNotice(mesh);
    }
}

TEST(MeshSmooth, CancelledRunLeavesMeshUntouchedAndSendsNoNotice)
{
    for (int threads : {1, 2})
        for (bool bilateral : {false, true})
            for (int pollsBeforeCancel : {0, 2})
            {
                SCOPED_TRACE(testing::Message()
                             << threads << " threads, " << (bilateral ? "bilateral" : "Laplacian")
                             << ", cancelled at poll " << pollsBeforeCancel);
                qyTest::ScopedThreadCount scoped(threads);
                // 2562 vertices: three polls
                RecordingMesh mesh(noisy(qyTest::makeIcosphere(4), 0.01f));
                select(mesh, all);
                const std::vector<float> before = positions(mesh);
                int polls = 0;
                qyUtil::Progress progress([](const char*, double) {},
                                          [&] { return polls++ >= pollsBeforeCancel; });
                smooth(bilateral, mesh, 0.2, progress);
                EXPECT_EQ(positions(mesh), before);
                EXPECT_EQ(mesh.count(), 0);
            }
}

TEST(MeshSmooth, ReadsOnlyUnchangedPositionsAndGivesTheSameFloatsOnOneAndTwoThreads)
{
    CompactMesh start = noisy(qyTest::makeIcosphere(4), 0.01f);
    select(start, all);
    const std::vector<float> before = positions(start);
    const MeshAdjVertices adjacency = adjacencyOf(start);
    for (bool bilateral : {false, true})
    {
        SCOPED_TRACE(bilateral ? "bilateral" : "Laplacian");
        std::vector<float> result[2];
        for (int threads : {1, 2})
        {
            qyTest::ScopedThreadCount scoped(threads);
            CompactMesh mesh(start);
            smooth(bilateral, mesh, 0.15);
            result[threads - 1] = positions(mesh);
        }
        ASSERT_EQ(result[0].size(), result[1].size());
        EXPECT_EQ(std::memcmp(result[0].data(), result[1].data(), result[0].size() * 4), 0);
        EXPECT_NE(result[0], before);
        if (bilateral)
            continue;
        // The average of the neighbours as they were: a filter that wrote in place would
        // average some vertices over neighbours it had already moved.
        for (int v = 0; v < start.getNumVertices(); ++v)
            for (int c = 0; c < 3; ++c)
            {
                double sum = 0.0;
                for (int j = 0; j < adjacency.numVertices(v); ++j)
                    sum += before[3 * adjacency.vertexIndices(v)[j] + c];
                ASSERT_NEAR(result[0][3 * v + c], sum / adjacency.numVertices(v), 1e-6) << v;
            }
    }
}
