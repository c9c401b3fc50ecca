#include "qyGeom/meshCompact.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "qyGeom/SMPSort.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::MeshModification;
using qyGeom::Remap;
using qyTest::RecordingMesh;

namespace
{

const float qnan = std::numeric_limits<float>::quiet_NaN();

// The default test in a class of the caller's: meshCompact must not take the default
// checker's own route for it, and the other route must give the same weld.
class CallerChecker final : public qyGeom::DefaultMeshVertexEqualityChecker
{
};

// Equal when x differs by at most 1 and y and z are equal.
class TolerantChecker final : public qyGeom::IMeshVertexEqualityChecker
{
public:
    bool equal(const float* a, const float* b) const override
    {
        return std::abs(a[0] - b[0]) <= 1 && a[1] == b[1] && a[2] == b[2];
    }
};

Remap weld(CompactMesh& mesh, qyGeom::IMeshVertexEqualityChecker* checker = nullptr)
{
    Remap remap;
    if (checker)
        qyGeom::meshCompact(mesh, qyTest::quietProgress(), remap, *checker);
    else
        qyGeom::meshCompact(mesh, qyTest::quietProgress(), remap);
    return remap;
}

template <class T> std::vector<T> values(const T* p, int n)
{
    return std::vector<T>(p, p + n);
}

std::vector<int> entries(const Remap& remap)
{
    std::vector<int> out;
    for (int i = 0; i < remap.getDomainSize(); ++i)
        out.push_back(remap(i));
    return out;
}

// Both absent, or n floats with the same bits (NaN included).
bool sameBits(const float* a, const float* b, int n)
{
    return a == b || (a && b && std::memcmp(a, b, sizeof(float) * std::size_t(n)) == 0);
}

// The header line, then one timed line per phase.
std::regex debugLines(const std::string& header, const std::vector<std::string>& phases)
{
    std::string pattern = "meshCompact: " + header + "\n";
    for (const std::string& phase : phases)
        pattern += "  " + phase + ": [0-9]+\\.[0-9]{6} s\n";
    return std::regex(pattern);
}

// The key of vertex i as the weld orders it: NaN after every number, +0 equal to -0.
using Key = std::vector<std::pair<bool, float>>;
Key key(const CompactMesh& m, int i, bool normals, bool uvs)
{
    Key k;
    auto add = [&](const float* p, int n)
    {
        for (int c = 0; c < n; ++c)
            k.emplace_back(std::isnan(p[c]), std::isnan(p[c]) ? 0.0f : p[c] + 0.0f);
    };
    add(m.getVerticesRaw() + 3 * i, 3);
    if (normals)
        add(m.getNormalsRaw() + 3 * i, 3);
    if (normals && uvs)
        add(m.getUVsRaw() + 2 * i, 2);
    return k;
}

// Checks a weld against its definition: vertices with identical NaN-free keys, and only
// those, share a new index; the new vertices are in ascending key order (identical NaN keys
// by old index); each has the data of its highest old vertex; triangles follow the remap.
void expectWeld(const CompactMesh& before, const CompactMesh& after, const Remap& remap)
{
    const int n = before.getNumVertices();
    const bool normals = before.getNormalsRaw() && !before.getNormalsComputed();
    const bool uvs = before.getUVsRaw() != nullptr;
    const int count = remap.isSequential() ? n : remap.getRangeSize();
    ASSERT_EQ(remap.getDomainSize(), n);
    ASSERT_EQ(after.getNumVertices(), count);
    std::map<Key, int> groups;
    std::vector<int> source(std::size_t(count), -1);
    int numNaN = 0;
    for (int i = 0; i < n; ++i)
    {
        const int j = remap(i);
        ASSERT_TRUE(j >= 0 && j < count) << i;
        source[std::size_t(j)] = i;
        const Key k = key(before, i, normals, uvs);
        if (std::any_of(k.begin(), k.end(), [](const auto& c) { return c.first; }))
            ++numNaN;
        else
            EXPECT_EQ(groups.emplace(k, j).first->second, j) << i;
    }
    EXPECT_EQ(int(groups.size()) + numNaN, count);
    for (int j = 0; j < count; ++j)
    {
        const int i = source[std::size_t(j)];
        auto same = [&](const float* a, const float* b, int size)
        { return sameBits(a ? a + size * i : a, b ? b + size * j : b, size); };
        EXPECT_TRUE(same(before.getVerticesRaw(), after.getVerticesRaw(), 3)) << j;
        EXPECT_TRUE(!normals || same(before.getNormalsRaw(), after.getNormalsRaw(), 3)) << j;
        EXPECT_TRUE(!uvs || same(before.getUVsRaw(), after.getUVsRaw(), 2)) << j;
        const int prev = j > 0 && !remap.isSequential() ? source[std::size_t(j) - 1] : -1;
        const Key k = key(before, i, normals, uvs);
        EXPECT_TRUE(prev < 0 || key(before, prev, normals, uvs) < k ||
                    (key(before, prev, normals, uvs) == k && prev < i))
            << j;
    }
    ASSERT_EQ(after.getNumTriangles(), before.getNumTriangles());
    for (int t = 0; t < 3 * before.getNumTriangles(); ++t)
        EXPECT_EQ(after.getTrianglesRaw()[t], remap(before.getTrianglesRaw()[t]));
}

// n vertices drawn from few values (so most have twins), +0 and -0 among them, a little NaN;
// normals and UVs mostly 1.
CompactMesh randomMesh(int n, bool normals, bool computed, bool uvs)
{
    std::mt19937 rng(static_cast<unsigned>(n));
    const float choices[] = {-1.0f, -0.0f, 0.0f, 0.5f, 1.0f, 2.0f};
    auto fill = [&](int size, unsigned common)
    {
        std::vector<float> out(std::size_t(size), 0.0f);
        for (float& c : out)
            c = rng() % 64 == 0 ? qnan : rng() % 8 < common ? 1.0f : choices[rng() % 6];
        return out;
    };
    const std::vector<float> xyz = fill(3 * n, 0), nrm = fill(3 * n, 7), uv = fill(2 * n, 7);
    CompactMesh mesh(n, reinterpret_cast<const qyGeom::MeshVertex*>(xyz.data()),
                     normals ? reinterpret_cast<const qyGeom::MeshNormal*>(nrm.data()) : nullptr,
                     uvs ? reinterpret_cast<const qyGeom::MeshUV*>(uv.data()) : nullptr);
    mesh.setNormalsComputed(computed);
    std::vector<int> tris(3 * std::size_t(n / 2));
    for (int& v : tris)
        v = int(rng() % unsigned(n));
    mesh.copyTriangles(n / 2, tris.data());
    return mesh;
}

} // namespace

TEST(SMPSort, SortsByKeyAndPutsTheFirstHalfFirstOnTies)
{
    qyUtil::ThreadPool three(3); // the third task must do nothing
    std::mt19937 rng(5);
    for (qyUtil::ThreadPool* pool : {&three, &qyUtil::ThreadPool::getSingleThreadedPool()})
        for (int n : {0, 1, 2, 3, 4, 5, 17, 1000, 1001})
        {
            SCOPED_TRACE(testing::Message() << pool->getNumThreads() << " threads, n " << n);
            std::vector<std::pair<int, int>> items; // (key, original position)
            for (int i = 0; i < n; ++i)
                items.emplace_back(int(rng() % 7), i);
            auto byKey = [](const auto& a, const auto& b) { return a.first < b.first; };
            std::vector<std::pair<int, int>> sorted = items, expected = items;
            qyGeom::smpSort(sorted.data(), sorted.data() + n, byKey, *pool);
            std::stable_sort(expected.begin(), expected.end(), byKey);
            ASSERT_EQ(std::multiset(sorted.begin(), sorted.end()),
                      std::multiset(items.begin(), items.end()));
            for (int i = 0; i < n; ++i)
            {
                EXPECT_EQ(sorted[std::size_t(i)].first, expected[std::size_t(i)].first) << i;
                // Among equal keys, no element of the second half before one of the first.
                const bool tie = pool->getNumThreads() > 1 && i > 0 &&
                                 sorted[std::size_t(i) - 1].first == sorted[std::size_t(i)].first;
                EXPECT_FALSE(tie && sorted[std::size_t(i) - 1].second >= (n + 1) / 2 &&
                             sorted[std::size_t(i)].second < (n + 1) / 2);
            }
        }
}

TEST(VertexCompare, OrdersComponentByComponentWithNaNATie)
{
    // Vertex 2 has a NaN x; vertex 3 has the position of vertex 0.
    const float v[] = {0, 1, 2, 0, 1, 3, qnan, 1, 2.5f, 0, 1, 2};
    const float n[] = {0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    const float sameN[] = {0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const float uv[] = {0, 1, 0, 0, 0, 0, 0, 0.5f};
    const qyGeom::VertexCompare byV(v);
    EXPECT_TRUE(byV(0, 1) && !byV(1, 0));
    EXPECT_TRUE(byV(2, 1) && byV(0, 2)); // x ties with NaN, z decides
    EXPECT_TRUE(!byV(0, 3) && !byV(3, 0));
    const qyGeom::VertexNormalCompare byVN(v, n);
    EXPECT_TRUE(byVN(0, 3) && !byVN(3, 0) && byVN(0, 1));
    const qyGeom::VertexNormalUVCompare byVNU(v, sameN, uv);
    EXPECT_TRUE(byVNU(3, 0) && !byVNU(0, 3) && byVNU(0, 1));
}

TEST(MeshCompact, OneDuplicateRenumbersAllIntoAscendingOrderAndPrintsEachPhase)
{
    RecordingMesh mesh(qyTest::makeMesh({2, 0, 0, 1, 0, 0, 0, 0, 1, 1, 0, 0}, {0, 1, 2, 3, 2, 0}));
    qyTest::DebugCapture capture;
    const Remap remap = weld(mesh);
    ASSERT_EQ(mesh.getNumVertices(), 3);
    EXPECT_EQ(values(mesh.getVerticesRaw(), 9), std::vector<float>({0, 0, 1, 1, 0, 0, 2, 0, 0}));
    EXPECT_EQ(entries(remap), std::vector<int>({2, 1, 0, 1}));
    EXPECT_EQ(remap.getRangeSize(), 3);
    EXPECT_EQ(values(mesh.getTrianglesRaw(), 6), std::vector<int>({2, 1, 0, 1, 0, 2}));
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].type, MeshModification::Remapped);
    EXPECT_EQ(mesh.entries()[0].flags, unsigned(MeshModification::TriangleNormalsValid));
    EXPECT_TRUE(
        std::regex_match(capture.text(), debugLines("4 vertices, 2 triangles",
                                                    {"sorted vertices", "initialized remap",
                                                     "remapped vertices", "remapped triangles"})))
        << capture.text();
}

TEST(MeshCompact, NothingToWeldLeavesTheMeshAsItWasWithASequentialRemapAndNoNotification)
{
    for (const CompactMesh& source :
         {CompactMesh(), qyTest::makeMesh({5, 5, 5}, {}),
          qyTest::makeMesh({3, 0, 0, 1, 0, 0, qnan, 0, 0, qnan, 0, 0, 2, 1e30f, 0}, {4, 1, 0})})
    {
        const int n = source.getNumVertices();
        RecordingMesh mesh(source);
        qyTest::DebugCapture capture;
        const Remap remap = weld(mesh);
        EXPECT_TRUE(remap.isSequential());
        EXPECT_EQ(remap.getDomainSize(), n);
        ASSERT_EQ(mesh.getNumVertices(), n);
        EXPECT_TRUE(sameBits(mesh.getVerticesRaw(), source.getVerticesRaw(), 3 * n));
        EXPECT_EQ(mesh.count(), 0);
        EXPECT_TRUE(
            std::regex_match(capture.text(), debugLines("[0-9] vertices, [01] triangles",
                                                        {"sorted vertices", "initialized remap"})))
            << capture.text();
    }
}

TEST(MeshCompact, NormalsAndUVsJoinTheKeyOnlyWhenTheNormalsAreExplicit)
{
    // One position; vertices 1 and 2 share a normal; UVs are equal or all differ.
    const qyGeom::MeshVertex v[] = {{1, 1, 1}, {1, 1, 1}, {1, 1, 1}};
    const qyGeom::MeshNormal nrm[] = {{1, 0, 0}, {0, 1, 0}, {0, 1, 0}};
    const qyGeom::MeshUV uv[] = {{0, 0}, {0.5f, 0}, {0.5f, 0}};
    const qyGeom::MeshUV uvDiffer[] = {{0, 0}, {0.25f, 0}, {0.5f, 0}};
    struct Case
    {
        const qyGeom::MeshNormal* normals;
        bool computed;
        const qyGeom::MeshUV* uvs;
        int count;
    } cases[] = {{nrm, false, nullptr, 2}, {nrm, true, nullptr, 1},   {nullptr, false, uvDiffer, 1},
                 {nrm, false, uv, 2},      {nrm, false, uvDiffer, 3}, {nrm, true, uvDiffer, 1}};
    for (const Case& c : cases)
    {
        SCOPED_TRACE(testing::Message() << bool(c.normals) << c.computed << bool(c.uvs));
        RecordingMesh mesh(CompactMesh(3, v, c.normals, c.uvs));
        mesh.setNormalsComputed(c.computed);
        const CompactMesh before = mesh;
        qyTest::DebugCapture capture;
        const Remap remap = weld(mesh);
        expectWeld(before, mesh, remap);
        ASSERT_EQ(mesh.getNumVertices(), c.count);
        ASSERT_EQ(mesh.count(), c.count < 3 ? 1 : 0);
        if (c.count == 3)
            continue;
        const bool explicitNormals = c.normals && !c.computed;
        EXPECT_EQ(capture.text().find("remapped normals") != std::string::npos, explicitNormals);
        // Computed normals are not moved; the mesh drops them on the notification.
        EXPECT_EQ(mesh.getNormals() != nullptr, explicitNormals);
        EXPECT_EQ(mesh.entries()[0].flags,
                  MeshModification::TriangleNormalsValid |
                      (explicitNormals ? MeshModification::NormalsModified : 0u) |
                      (c.uvs ? MeshModification::UVsModified : 0u));
    }
}

TEST(MeshCompact, SignedZerosWeldAndNaNNeverDoesEvenAmongManyEqualVertices)
{
    std::vector<float> xyz;
    int numNaN = 0;
    for (int i = 0; i < 20000; ++i)
    {
        const bool nanY = i % 7 == 3, nanZ = i % 5 == 0;
        xyz.insert(xyz.end(), {1, nanY ? qnan : (i % 2 ? 0.0f : -0.0f), nanZ ? qnan : 1.0f});
        numNaN += nanY || nanZ;
    }
    const CompactMesh before = qyTest::makeMesh(xyz, {0, 1, 2});
    for (int threads : {1, 2, 4})
    {
        qyTest::ScopedThreadCount scope(threads);
        CompactMesh mesh = before;
        const Remap remap = weld(mesh);
        expectWeld(before, mesh, remap);
        ASSERT_EQ(mesh.getNumVertices(), 1 + numNaN);
        // (1, 0, 1) sorts first and has the data of vertex 19999, whose y is +0.
        EXPECT_FALSE(std::signbit(mesh.getVertices()[0].y));
    }
}

TEST(MeshCompact, ATolerantCheckerComparesEachVertexWithItsRunsFirst)
{
    // Each within 1 of the next in x order; only 0 and 0.75 are within 1 of the first.
    CompactMesh mesh = qyTest::makeMesh({1.5f, 0, 0, 0, 0, 0, 0.75f, 0, 0, 2.25f, 0, 0}, {});
    TolerantChecker checker;
    const Remap remap = weld(mesh, &checker);
    ASSERT_EQ(mesh.getNumVertices(), 2);
    EXPECT_EQ(entries(remap), std::vector<int>({1, 0, 0, 1}));
    EXPECT_EQ(values(mesh.getVerticesRaw(), 6), std::vector<float>({0.75f, 0, 0, 2.25f, 0, 0}));
}

TEST(MeshCompact, RewritesStripsAndFansAndLeavesLinesAndPolygonsToTheMesh)
{
    RecordingMesh mesh(qyTest::makeMesh({1, 0, 0, 0, 0, 0, 1, 0, 0, 2, 0, 0}, {0, 1, 3}));
    mesh.resizeTriStripArrays(4, 1);
    mesh.resizeTriFanArrays(4, 1);
    mesh.resizeLineStripArrays(3, 1);
    mesh.resizePolyArrays(1, 3);
    mesh.resizeLineArray(1);
    *mesh.getTriStripLengths() = *mesh.getTriFanLengths() = 4;
    *mesh.getLineStripLengths() = *mesh.getPolyLengths() = 3;
    for (int k = 0; k < 4; ++k)
        mesh.getTriStripPoints()[k] = mesh.getTriFanPoints()[k] = 3 - k;
    for (int k = 0; k < 3; ++k)
        mesh.getLineStripPoints()[k] = mesh.getPolyPoints()[k] = k + 1;
    mesh.getLines()[0] = {{2, 3}};
    weld(mesh); // new numbers 1, 0, 1, 2
    EXPECT_EQ(values(mesh.getTriStripPoints(), 4), std::vector<int>({2, 1, 0, 1}));
    EXPECT_EQ(values(mesh.getTriFanPoints(), 4), std::vector<int>({2, 1, 0, 1}));
    ASSERT_EQ(mesh.count(), 1);
    // Only strips and fans are marked rewritten; CompactMesh renumbers the others itself.
    EXPECT_EQ(mesh.entries()[0].flags,
              MeshModification::TriangleNormalsValid | MeshModification::StripsAndFansModified);
    EXPECT_EQ(values(mesh.getLineStripPoints(), 3), std::vector<int>({0, 1, 2}));
    EXPECT_EQ(values(mesh.getPolyPoints(), 3), std::vector<int>({0, 1, 2}));
    EXPECT_EQ(values(mesh.getLines()[0].v, 2), std::vector<int>({1, 2}));
}

TEST(MeshCompact, BothRoutesAndAnyThreadCountGiveTheSameWeld)
{
    struct Mode
    {
        bool normals, computed, uvs;
    } modes[] = {{false, false, false},
                 {true, false, false},
                 {true, false, true},
                 {true, true, true},
                 {false, false, true}};
    CallerChecker caller;
    const std::vector<qyGeom::IMeshVertexEqualityChecker*> checkers{nullptr, &caller};
    for (const Mode& m : modes)
        for (int n : {300, 6001}) // the larger one is split between two tasks by the sort
        {
            SCOPED_TRACE(testing::Message() << m.normals << m.computed << m.uvs << " " << n);
            const CompactMesh before = randomMesh(n, m.normals, m.computed, m.uvs);
            CompactMesh reference = before;
            const Remap expected = weld(reference);
            expectWeld(before, reference, expected);
            {
                // The exact test named by its type takes the grouping route, same weld.
                CompactMesh mesh = before;
                qyGeom::DefaultMeshVertexEqualityChecker exact;
                Remap remap;
                qyGeom::meshCompact(mesh, qyTest::quietProgress(), remap, exact);
                EXPECT_EQ(entries(remap), entries(expected));
            }
            for (int threads : {1, 2, 4})
                for (qyGeom::IMeshVertexEqualityChecker* checker : checkers)
                {
                    qyTest::ScopedThreadCount scope(threads);
                    CompactMesh mesh = before;
                    const Remap remap = weld(mesh, checker);
                    const int size = mesh.getNumVertices();
                    ASSERT_EQ(size, reference.getNumVertices());
                    EXPECT_EQ(entries(remap), entries(expected));
                    EXPECT_TRUE(
                        sameBits(mesh.getVerticesRaw(), reference.getVerticesRaw(), 3 * size));
                    EXPECT_TRUE(
                        sameBits(mesh.getNormalsRaw(), reference.getNormalsRaw(), 3 * size));
                    EXPECT_TRUE(sameBits(mesh.getUVsRaw(), reference.getUVsRaw(), 2 * size));
                    EXPECT_EQ(values(mesh.getTrianglesRaw(), n / 2 * 3),
                              values(reference.getTrianglesRaw(), n / 2 * 3));
                }
        }
}

TEST(MeshCompact, TheExactRouteGivesTheSameWeldOnOneTaskAndOnTwo)
{
    // Large enough for the grouping to be split between two tasks; with explicit normals and
    // UVs the key has eight floats.
    const int n = (1 << 20) + 1001;
    // A shuffled sphere soup: many distinct keys, each about six times, spread over the array,
    // with signed zeros and NaN among them, so that both sides of the split get many groups
    // and some of them straddle the middle of the array.
    auto sphereSoup = []
    {
        CompactMesh sphere = qyTest::makeUVSphere(300, 600);
        std::mt19937 rng(5);
        qyGeom::MeshTriangle* tris = sphere.getTriangles();
        std::shuffle(tris, tris + sphere.getNumTriangles(), rng);
        CompactMesh soup = qyTest::makeTriangleSoup(sphere);
        float* xyz = soup.getVerticesRaw();
        for (int i = 0; i < soup.getNumVertices(); i += 97)
            xyz[3 * i + 1] = i % 2 ? qnan : -0.0f;
        return soup;
    };
    for (int mode : {0, 1, 2})
    {
        const bool attributes = mode == 1;
        SCOPED_TRACE(testing::Message() << "mode " << mode);
        const CompactMesh before =
            mode == 2 ? sphereSoup() : randomMesh(n, attributes, false, attributes);
        const int numTris = before.getNumTriangles();
        CompactMesh reference = before;
        Remap expected;
        {
            // The one-task route, checked against the definition of a weld at smaller sizes.
            qyTest::ScopedThreadCount scope(1);
            expected = weld(reference);
        }
        const int size = reference.getNumVertices();
        for (int threads : {2, 4})
        {
            qyTest::ScopedThreadCount scope(threads);
            CompactMesh mesh = before;
            const Remap remap = weld(mesh);
            ASSERT_EQ(mesh.getNumVertices(), size);
            EXPECT_EQ(entries(remap), entries(expected));
            EXPECT_TRUE(sameBits(mesh.getVerticesRaw(), reference.getVerticesRaw(), 3 * size));
            EXPECT_TRUE(sameBits(mesh.getNormalsRaw(), reference.getNormalsRaw(), 3 * size));
            EXPECT_TRUE(sameBits(mesh.getUVsRaw(), reference.getUVsRaw(), 2 * size));
            EXPECT_EQ(values(mesh.getTrianglesRaw(), 3 * numTris),
                      values(reference.getTrianglesRaw(), 3 * numTris));
        }
        if (mode == 2)
            expectWeld(before, reference, expected);
    }
}

namespace
{

// The triangle soup of a mesh (one vertex per corner; the triangles shuffled first when asked),
// with explicit normals and UVs when asked. Some corners at a zero coordinate get -0, a few get
// a NaN, and some copies of a position get a normal or UV of their own, so that groups of one
// position split and the sort must look past the position. Unshuffled soups have two corners
// (past the middle and at the end) name other corners' vertices, which the weld renumbers apart
// from the soup's run of corners that name their own.
CompactMesh markedSoup(CompactMesh mesh, bool shuffled, bool attributes)
{
    if (shuffled)
    {
        std::mt19937 rng(5);
        qyGeom::MeshTriangle* tris = mesh.getTriangles();
        std::shuffle(tris, tris + mesh.getNumTriangles(), rng);
    }
    CompactMesh soup = qyTest::makeTriangleSoup(mesh);
    const int n = soup.getNumVertices();
    float* v = soup.getVerticesRaw();
    for (int i = 0; i < n; ++i)
    {
        for (int c = 0; c < 3; ++c)
            if (v[3 * i + c] == 0 && i % 3 != 0)
                v[3 * i + c] = -0.0f;
        if (i % 997 == 5)
            v[3 * i + i % 3] = qnan;
    }
    if (attributes)
    {
        soup.allocNormalArray();
        soup.allocUVArray();
        soup.setNormalsComputed(false);
        v = soup.getVerticesRaw();
        float* nrm = soup.getNormalsRaw();
        float* uv = soup.getUVsRaw();
        for (int i = 0; i < n; ++i)
        {
            for (int c = 0; c < 3; ++c)
                nrm[3 * i + c] = i % 11 == 0 ? float(c == 0) : v[3 * i + c];
            uv[2 * i] = i % 13 == 0 ? 0.5f : v[3 * i];
            uv[2 * i + 1] = i % 17 == 0 ? -0.0f : 0.0f;
        }
    }
    if (!shuffled && n > 6)
    {
        int* corners = soup.getTrianglesRaw();
        corners[n / 2 + 1] = 0;
        corners[n - 1] = n / 2;
    }
    return soup;
}

// The mesh with its coordinates turned (x, y, z) -> (z + shift, x, y): x is then the same
// (shift) for every vertex of a flat grid.
CompactMesh turned(CompactMesh mesh, float shift)
{
    float* v = mesh.getVerticesRaw();
    for (int i = 0; i < mesh.getNumVertices(); ++i)
    {
        const float x = v[3 * i], y = v[3 * i + 1], z = v[3 * i + 2];
        v[3 * i] = z + shift;
        v[3 * i + 1] = x;
        v[3 * i + 2] = y;
    }
    return mesh;
}

} // namespace

TEST(MeshCompact, TheExactRouteWeldsSoupsAsTheSortAndScanDoesOnAnyThreadCount)
{
    struct Case
    {
        const char* name;
        CompactMesh mesh;
    };
    // Spheres give many keys that share one or two coordinates (mirror images); the grids
    // share x everywhere (all +0 and -0 for the first, all 1 for the second), and a column of
    // the grid shares y. Sizes span the small and the large sort of the groups.
    std::vector<Case> cases;
    for (int rings : {3, 8, 32, 100})
        cases.push_back({"sphere", qyTest::makeUVSphere(rings, 2 * rings)});
    cases.push_back({"grid in x = 0", turned(qyTest::makeGrid(40, 30), 0.0f)});
    cases.push_back({"grid in x = 1", turned(qyTest::makeGrid(40, 30), 1.0f)});
    // Many more distinct positions than the soup's copies share: seven in eight vertices are
    // groups of their own, so the table (one slot per vertex at first) grows, without and with
    // the lookups that fetch ahead (2,880 and 305,280 vertices).
    for (int rings : {16, 160})
    {
        CompactMesh mesh = qyTest::makeUVSphere(rings, 2 * rings);
        CompactMesh scattered = qyTest::makeTriangleSoup(mesh);
        float* v = scattered.getVerticesRaw();
        for (int i = 0; i < scattered.getNumVertices(); ++i)
            if (i % 8 != 0)
                v[3 * i] += float(i);
        cases.push_back({"mostly distinct", scattered});
    }
    CallerChecker sortAndScan;
    for (const Case& c : cases)
        for (bool shuffled : {false, true})
            for (bool attributes : {false, true})
            {
                SCOPED_TRACE(testing::Message()
                             << c.name << " " << c.mesh.getNumVertices() << " shuffled " << shuffled
                             << " attributes " << attributes);
                const CompactMesh before = markedSoup(c.mesh, shuffled, attributes);
                CompactMesh reference = before;
                Remap expected;
                {
                    qyTest::ScopedThreadCount scope(1);
                    expected = weld(reference, &sortAndScan);
                }
                if (before.getNumVertices() < 20000)
                    expectWeld(before, reference, expected);
                ASSERT_FALSE(expected.isSequential());
                const int size = reference.getNumVertices();
                const int numIndices = 3 * before.getNumTriangles();
                for (int threads : {1, 3})
                {
                    qyTest::ScopedThreadCount scope(threads);
                    CompactMesh mesh = before;
                    const Remap remap = weld(mesh);
                    ASSERT_EQ(mesh.getNumVertices(), size) << threads;
                    EXPECT_EQ(entries(remap), entries(expected)) << threads;
                    EXPECT_TRUE(
                        sameBits(mesh.getVerticesRaw(), reference.getVerticesRaw(), 3 * size));
                    EXPECT_TRUE(
                        sameBits(mesh.getNormalsRaw(), reference.getNormalsRaw(), 3 * size));
                    EXPECT_TRUE(sameBits(mesh.getUVsRaw(), reference.getUVsRaw(), 2 * size));
                    EXPECT_EQ(values(mesh.getTrianglesRaw(), numIndices),
                              values(reference.getTrianglesRaw(), numIndices));
                }
            }
}

namespace
{

// Welds `before` by the exact route on 1 and 3 threads and expects what the sort and scan gave:
// the mesh `reference` and the remap `expected`, bit for bit.
void expectExactWeldOnThreads(const CompactMesh& before, const CompactMesh& reference,
                              const Remap& expected)
{
    const int size = reference.getNumVertices();
    const int corners = 3 * before.getNumTriangles();
    for (int threads : {1, 3})
    {
        qyTest::ScopedThreadCount scope(threads);
        CompactMesh mesh = before;
        const Remap remap = weld(mesh);
        ASSERT_EQ(mesh.getNumVertices(), size) << threads;
        ASSERT_EQ(remap.isSequential(), expected.isSequential()) << threads;
        EXPECT_EQ(entries(remap), entries(expected)) << threads;
        EXPECT_TRUE(sameBits(mesh.getVerticesRaw(), reference.getVerticesRaw(), 3 * size));
        EXPECT_TRUE(sameBits(mesh.getNormalsRaw(), reference.getNormalsRaw(), 3 * size));
        EXPECT_TRUE(sameBits(mesh.getUVsRaw(), reference.getUVsRaw(), 2 * size));
        EXPECT_EQ(values(mesh.getTrianglesRaw(), corners),
                  values(reference.getTrianglesRaw(), corners));
    }
}

// Welds the mesh of n vertices (normals and UVs where given) and the triangles over `corners` by
// the sort and scan (a caller's checker) and by the exact route on 1 and 3 threads, expects the
// same result bit for bit and returns the remap.
Remap expectExactWeldAsSortAndScan(const float* xyz, const float* nrm, const float* uv, int n,
                                   const std::vector<int>& corners)
{
    CompactMesh before(n, reinterpret_cast<const qyGeom::MeshVertex*>(xyz),
                       reinterpret_cast<const qyGeom::MeshNormal*>(nrm),
                       reinterpret_cast<const qyGeom::MeshUV*>(uv));
    before.setNormalsComputed(false);
    before.copyTriangles(int(corners.size() / 3), corners.data());
    CompactMesh reference = before;
    Remap expected;
    {
        qyTest::ScopedThreadCount scope(1);
        CallerChecker sortAndScan;
        expected = weld(reference, &sortAndScan);
    }
    expectWeld(before, reference, expected);
    expectExactWeldOnThreads(before, reference, expected);
    return expected;
}

} // namespace

TEST(MeshCompact, TheExactRouteOrdersKeysThatShareTheirFirstCoordinateAsTheSortAndScanDoes)
{
    // Runs of 1 to 11 positions that share x (one run of +0 and -0), whose y and z often tie
    // within the run and hold +0, -0 or NaN; with normals and UVs, copies of a position differ
    // in their normal or UV. Every key comes one to three times, in shuffled order. The group
    // counts span the small and the large sort of the groups.
    const float yz[] = {-1.0f, -0.0f, 0.0f, 0.25f, 0.25f, qnan, 3.0f};
    for (int numRuns : {3, 40, 2000})
        for (bool attributes : {false, true})
        {
            SCOPED_TRACE(testing::Message() << numRuns << " runs, attributes " << attributes);
            std::mt19937 rng(unsigned(numRuns + attributes));
            std::vector<float> xyz, nrm, uv;
            for (int r = 0; r < numRuns; ++r)
            {
                const float x = r % 13 == 3 ? -0.0f : 0.5f * float(r % 29) - 7.0f;
                for (int k = 0; k <= r % 11; ++k)
                {
                    const float p[3] = {x, yz[rng() % 7], yz[rng() % 7]};
                    const unsigned copies = 1 + rng() % 3;
                    for (unsigned c = 0; c < copies; ++c)
                    {
                        xyz.insert(xyz.end(), p, p + 3);
                        // The second copy differs from the first in signed zeros only.
                        const float n[3] = {0.0f, c == 1 ? -0.0f : 0.0f,
                                            c == 2 && k % 2 ? -1.0f : 1.0f};
                        nrm.insert(nrm.end(), n, n + 3);
                        uv.push_back(k % 3 == 0 ? 0.5f : -0.0f);
                        uv.push_back(k % 7 == 6 ? qnan : c == 1 ? -0.0f : 0.0f);
                    }
                }
            }
            const int n = int(xyz.size() / 3);
            std::vector<int> order(std::size_t(n), 0);
            for (int i = 0; i < n; ++i)
                order[std::size_t(i)] = i;
            std::shuffle(order.begin(), order.end(), rng);
            std::vector<float> xyz2, nrm2, uv2;
            for (int i : order)
            {
                xyz2.insert(xyz2.end(), &xyz[3 * std::size_t(i)], &xyz[3 * std::size_t(i)] + 3);
                nrm2.insert(nrm2.end(), &nrm[3 * std::size_t(i)], &nrm[3 * std::size_t(i)] + 3);
                uv2.insert(uv2.end(), &uv[2 * std::size_t(i)], &uv[2 * std::size_t(i)] + 2);
            }
            std::vector<int> corners(std::size_t(n / 3 * 3));
            for (std::size_t k = 0; k < corners.size(); ++k)
                corners[k] = int(k);
            const Remap expected =
                expectExactWeldAsSortAndScan(xyz2.data(), attributes ? nrm2.data() : nullptr,
                                             attributes ? uv2.data() : nullptr, n, corners);
            EXPECT_FALSE(expected.isSequential());
        }
}

TEST(MeshCompact, TheExactRouteWeldsSmallInputsAsTheSortAndScanDoes)
{
    // Vertex counts around 4,096 and group counts around 1,024, and
    // few groups among many vertices, so the table grows or not. Keys
    // tie in x or differ in its last bits, hold +0 and -0 (which weld) and NaN (which never
    // does); with attributes, copies of a key differ in a signed zero of the normal or in a UV.
    struct Size
    {
        int vertices, groups;
    } sizes[] = {{300, 40},    {1023, 1023}, {1024, 1024}, {2047, 1025}, {3000, 1023}, {4095, 1024},
                 {4095, 2100}, {4096, 1023}, {4096, 4096}, {4097, 1025}, {5000, 900}};
    for (const Size& sz : sizes)
        for (bool attributes : {false, true})
        {
            SCOPED_TRACE(testing::Message() << sz.vertices << " vertices, " << sz.groups
                                            << " keys, attributes " << attributes);
            const int n = sz.vertices;
            std::vector<float> xyz, nrm, uv;
            for (int i = 0; i < n; ++i)
            {
                const int k = int((std::int64_t(i) * 7919) % sz.groups);
                const bool flip = (i / sz.groups) % 2 == 1;
                const float zero = flip ? -0.0f : 0.0f;
                // x a few units in the last place apart, on both sides of 0, so that keys
                // differ in the low bits of x alone.
                const float x = (1.0f + float(k % 37) * 0x1p-23f) * (k % 2 ? -1.0f : 1.0f);
                xyz.push_back(k % 29 == 5 ? zero : x);
                xyz.push_back(k % 5 == 0 ? zero : float(k / 37));
                xyz.push_back(k % 101 == 7 ? qnan : k % 3 == 0 ? zero : 0.25f * float(k % 7));
                nrm.push_back(0.0f);
                nrm.push_back(k % 4 == 1 ? zero : 1.0f);
                nrm.push_back(0.0f);
                uv.push_back(k % 9 == 2 && flip ? 0.5f : 0.0f);
                uv.push_back(zero);
            }
            std::vector<int> corners(std::size_t(n / 3 * 3));
            for (std::size_t k = 0; k < corners.size(); ++k)
                corners[k] = int(corners.size() - 1 - k);
            expectExactWeldAsSortAndScan(xyz.data(), attributes ? nrm.data() : nullptr,
                                         attributes ? uv.data() : nullptr, n, corners);
        }
}

TEST(MeshCompact, TwoTasksFindAPairThatStraddlesTheHalvesOfALargeMeshOfDistinctVertices)
{
    // Large enough for two tasks, every position distinct: either nothing is welded, or only
    // a pair whose vertices lie in different halves of the index range, which neither half
    // finds on its own. A NaN in both halves with otherwise equal keys must stay apart.
    const int n = (1 << 20) + 7;
    CompactMesh distinct;
    distinct.resizeVertexArray(n);
    float* v = distinct.getVerticesRaw();
    for (int i = 0; i < n; ++i)
    {
        v[3 * i] = float(i % 1024);
        v[3 * i + 1] = float(i / 1024);
        v[3 * i + 2] = i % 2 ? 1.0f : -1.0f;
    }
    std::vector<int> corners(std::size_t(n / 3 * 3));
    for (std::size_t k = 0; k < corners.size(); ++k)
        corners[k] = int((k * 7919) % std::size_t(n));
    distinct.copyTriangles(n / 3, corners.data());
    for (int pair : {0, 1, 2})
    {
        SCOPED_TRACE(testing::Message() << "pair " << pair);
        CompactMesh before = distinct;
        float* p = before.getVerticesRaw();
        if (pair == 1)
            std::copy(p + 3 * 5, p + 3 * 6, p + 3 * std::ptrdiff_t(n - 2));
        if (pair == 2)
        {
            // Equal but for a NaN: never welded.
            p[3 * 9 + 1] = qnan;
            std::copy(p + 3 * 9, p + 3 * 10, p + 3 * std::ptrdiff_t(n - 1));
        }
        const int numIndices = 3 * before.getNumTriangles();
        CompactMesh reference = before;
        Remap expected;
        {
            qyTest::ScopedThreadCount scope(1);
            expected = weld(reference);
        }
        EXPECT_EQ(expected.isSequential(), pair != 1);
        for (int threads : {1, 2})
        {
            qyTest::ScopedThreadCount scope(threads);
            RecordingMesh mesh(before);
            const Remap remap = weld(mesh);
            EXPECT_EQ(remap.isSequential(), pair != 1) << threads;
            EXPECT_EQ(mesh.count(), pair == 1 ? 1 : 0) << threads;
            ASSERT_EQ(mesh.getNumVertices(), pair == 1 ? n - 1 : n) << threads;
            EXPECT_EQ(entries(remap), entries(expected)) << threads;
            EXPECT_TRUE(sameBits(mesh.getVerticesRaw(), reference.getVerticesRaw(),
                                 3 * mesh.getNumVertices()));
            EXPECT_EQ(values(mesh.getTrianglesRaw(), numIndices),
                      values(reference.getTrianglesRaw(), numIndices));
        }
    }
}
