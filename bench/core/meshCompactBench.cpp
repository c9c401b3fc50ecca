// Vertex welding of a large triangle soup, and the two-task sort on its own, with 1 and 2
// pool threads. Wall-clock time, as the pool's threads do part of the work, with the CPU time
// of the whole process beside it: on a loaded machine the wall-clock ratio of 2 to 1 threads
// says little, but a second thread must not add CPU work.
#include "qyGeom/meshCompact.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/Remap.h"
#include "qyGeom/SMPSort.h"
#include "qyGeom/meshReadObj.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

// 1000 x 500 UV sphere as a soup: 2,994,000 vertices, 499,002 distinct positions, each
// vertex repeated up to six times.
const CompactMesh& soup()
{
    static const CompactMesh mesh = qyTest::makeTriangleSoup(qyTest::makeUVSphere(500, 1000));
    return mesh;
}

// The same soup with explicit normals (the unit position), so that the key has six floats.
const CompactMesh& soupWithNormals()
{
    static const CompactMesh mesh = []
    {
        CompactMesh m = soup();
        m.allocNormalArray();
        std::copy(m.getVerticesRaw(), m.getVerticesRaw() + 3 * std::size_t(m.getNumVertices()),
                  m.getNormalsRaw());
        return m;
    }();
    return mesh;
}

// The bunny00.obj soup (226,224 vertices) from $QYGEOM_PEER_DATA, empty when it is not there:
// the small input of the peers' weld.
const CompactMesh& bunnySoup()
{
    static const CompactMesh mesh = []
    {
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = std::string(dir ? dir : ".") + "/bunny00.obj";
        CompactMesh m;
        if (!qyGeom::meshReadObj(m, qyOS::Filename(path.c_str())))
            return CompactMesh();
        return qyTest::makeTriangleSoup(m);
    }();
    return mesh;
}

void setThreads(benchmark::State& state)
{
    const int threads = int(state.range(0));
    qyUtil::ThreadPool::get().setNumThreads(threads);
    state.SetLabel("threads:" + std::to_string(threads));
}

// Welds a fresh copy each time; the copy is not timed. The checker's static type picks the
// route: DefaultMeshVertexEqualityChecker the grouping one, the interface the sort and scan.
template <class Checker>
void weld(benchmark::State& state, const CompactMesh& source, Checker& checker)
{
    setThreads(state);
    CompactMesh mesh;
    qyGeom::Remap remap;
    for (auto _ : state)
    {
        state.PauseTiming();
        mesh = source;
        state.ResumeTiming();
        qyGeom::meshCompact(mesh, qyTest::quietProgress(), remap, checker);
        benchmark::DoNotOptimize(mesh.getVerticesRaw());
        benchmark::ClobberMemory();
    }
    state.counters["vertices_out"] = mesh.getNumVertices();
    state.SetItemsProcessed(state.iterations() * source.getNumVertices());
}

void BM_MeshCompactSoup(benchmark::State& state)
{
    qyGeom::DefaultMeshVertexEqualityChecker checker;
    weld(state, soup(), checker);
}

void BM_MeshCompactBunnySoup(benchmark::State& state)
{
    if (bunnySoup().getNumVertices() == 0)
    {
        state.SkipWithError("bunny00.obj not found (set QYGEOM_PEER_DATA)");
        return;
    }
    qyGeom::DefaultMeshVertexEqualityChecker checker;
    weld(state, bunnySoup(), checker);
}

// Soups of UV spheres of r rings and 2r segments (about 12 r^2 vertices, each position about
// six times), for the size from which two threads pay: range(1) = r. With range(2) = 1 the
// triangles are shuffled first, so that the copies of a position lie far apart (the bunny's
// soup is close to that; a soup in mesh order keeps them near).
void BM_MeshCompactSoupSize(benchmark::State& state)
{
    static std::vector<std::pair<int, CompactMesh>> soups;
    const int rings = int(state.range(1)), shuffled = int(state.range(2));
    const int id = 2 * rings + shuffled;
    auto it =
        std::find_if(soups.begin(), soups.end(), [&](const auto& s) { return s.first == id; });
    if (it == soups.end())
    {
        CompactMesh mesh = qyTest::makeUVSphere(rings, 2 * rings);
        if (shuffled)
        {
            std::mt19937 rng(11);
            qyGeom::MeshTriangle* tris = mesh.getTriangles();
            std::shuffle(tris, tris + mesh.getNumTriangles(), rng);
        }
        soups.emplace_back(id, qyTest::makeTriangleSoup(mesh));
        it = soups.end() - 1;
    }
    qyGeom::DefaultMeshVertexEqualityChecker checker;
    weld(state, it->second, checker);
}

void BM_MeshCompactSoupNormals(benchmark::State& state)
{
    qyGeom::DefaultMeshVertexEqualityChecker checker;
    weld(state, soupWithNormals(), checker);
}

// The default test seen through the interface takes the sort-and-scan route.
void BM_MeshCompactSoupCallerChecker(benchmark::State& state)
{
    qyGeom::DefaultMeshVertexEqualityChecker exact;
    qyGeom::IMeshVertexEqualityChecker& checker = exact;
    weld(state, soup(), checker);
}

// 3M random ints with many duplicates, restored before each timed sort.
void BM_SMPSortInts(benchmark::State& state)
{
    setThreads(state);
    std::vector<int> input(3000000);
    std::mt19937 rng(7);
    std::uniform_int_distribution<int> value(0, 1 << 20);
    for (int& v : input)
        v = value(rng);
    std::vector<int> data;
    for (auto _ : state)
    {
        state.PauseTiming();
        data = input;
        state.ResumeTiming();
        qyGeom::smpSort(data.data(), data.data() + data.size(), std::less<int>());
        benchmark::DoNotOptimize(data.data());
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(input.size()));
}

BENCHMARK(BM_MeshCompactSoup)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshCompactBunnySoup)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshCompactSoupSize)
    ->ArgsProduct({{1, 2}, {140, 200, 280, 400}, {0, 1}})
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshCompactSoupNormals)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshCompactSoupCallerChecker)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SMPSortInts)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
