// The half-edge mesh on a large UV sphere (998,000 triangles, poles of valence 1000): build
// from the indexed mesh, one-ring walks, an edge-swap sweep, duplicate-triangle search.
// "bytes/tri" is the memory of the built TopoMesh per triangle; "peak bytes/tri" (Linux) is
// how far the resident memory of the process rose while one mesh was built, the temporaries
// of the build included.
#include "model/TopoMesh.h"

#include <fstream>
#include <string>

#if defined(__GLIBC__)
#include <malloc.h>
#endif

#include <benchmark/benchmark.h>

#include "benchMain.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshDuplicateTris.h"
#include "testMeshes.h"
#include "topoBuild.h"

namespace
{

using namespace qyGeom;

const CompactMesh& uvSphere()
{
    static const CompactMesh mesh = qyTest::makeUVSphere(500, 1000);
    return mesh;
}

const TopoMesh& sphereTopo()
{
    static const TopoMesh topo = []
    {
        TopoMesh m;
        qyBench::buildTopo(uvSphere(), m);
        return m;
    }();
    return topo;
}

// A field of /proc/self/status in bytes, or -1.
long long statusBytes(const std::string& key)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.compare(0, key.size(), key) == 0)
            return std::stoll(line.substr(key.size())) * 1024;
    return -1;
}

// How far the resident memory rose while `build` ran, or -1 where it cannot be told: the
// high-water mark is reset first (Linux, /proc/self/clear_refs), after the allocator has given
// back what it held free, which the build would otherwise reuse unseen.
template <class Build> long long peakResidentGrowth(Build build)
{
#if defined(__GLIBC__)
    malloc_trim(0);
#endif
    {
        std::ofstream reset("/proc/self/clear_refs");
        if (!(reset << "5" << std::flush))
            return -1;
    }
    const long long before = statusBytes("VmRSS:");
    build();
    const long long peak = statusBytes("VmHWM:");
    return before < 0 || peak < 0 ? -1 : peak - before;
}

void report(benchmark::State& state, std::size_t bytes)
{
    const int numTris = uvSphere().getNumTriangles();
    state.SetItemsProcessed(state.iterations() * numTris);
    state.counters["bytes/tri"] = double(bytes) / numTris;
}

void BM_TopoMeshBuild(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    const long long peak = peakResidentGrowth(
        [&]
        {
            TopoMesh topo;
            qyBench::buildTopo(mesh, topo);
        });
    std::size_t bytes = 0;
    for (auto _ : state)
    {
        TopoMesh topo;
        qyBench::buildTopo(mesh, topo);
        bytes = topo.getSizeInBytes();
        benchmark::DoNotOptimize(topo.getHalfEdges());
    }
    report(state, bytes);
    if (peak >= 0)
        state.counters["peak bytes/tri"] = double(peak) / mesh.getNumTriangles();
}

void BM_TopoMeshTwinOnly(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    TopoMesh topo;
    qyBench::buildTopo(mesh, topo);
    for (auto _ : state)
    {
        state.PauseTiming();
        TopoMesh fresh;
        fresh.reserve(mesh.getNumVertices(), 3 * mesh.getNumTriangles(), mesh.getNumTriangles());
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            fresh.allocVertex(0, 0, 0);
        for (int t = 0; t < mesh.getNumTriangles(); ++t)
            fresh.allocFace(3, mesh.getTrianglesRaw() + 3 * std::ptrdiff_t(t));
        state.ResumeTiming();
        fresh.meshTwin();
        benchmark::DoNotOptimize(fresh.getHalfEdges());
    }
    report(state, topo.getSizeInBytes());
}

// Every vertex's spokes, through the iterator (sums the far ends so nothing is skipped).
void BM_TopoMeshOneRingWalk(benchmark::State& state)
{
    TopoMesh& topo = const_cast<TopoMesh&>(sphereTopo());
    long long spokes = 0;
    for (auto _ : state)
    {
        long long sum = 0;
        for (TopoMeshVertex v = topo.firstVertex(); v; v = v.nextInList())
            for (TopoMeshEdgeVertexIterator it(v); it.valid(); it.next())
                sum += it.otherVertex().getIndex();
        benchmark::DoNotOptimize(sum);
        spokes = 0;
    }
    for (TopoMeshVertex v = topo.firstVertex(); v; v = v.nextInList())
        spokes += v.valence();
    state.counters["spokes"] = double(spokes);
    report(state, topo.getSizeInBytes());
}

// One sweep over every 10th interior edge (the lower half-edge of each pair), swapping it.
void BM_TopoMeshSwapSweep(benchmark::State& state)
{
    int swaps = 0, tried = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        TopoMesh topo(sphereTopo());
        state.ResumeTiming();
        swaps = tried = 0;
        int k = 0;
        for (TopoMeshEdge e = topo.firstEdge(); e; e = e.nextInList())
        {
            if (!e.hasTwin() || e.twin() < e || k++ % 10 != 0)
                continue;
            ++tried;
            swaps += topo.swapEdge(e);
        }
        benchmark::DoNotOptimize(swaps);
    }
    state.counters["tried"] = tried;
    state.counters["swapped"] = swaps;
    state.SetItemsProcessed(state.iterations() * tried);
}

void BM_MeshDuplicateTris(benchmark::State& state)
{
    CompactMesh mesh = uvSphere();
    MeshAdjTris adj;
    meshAdjTris(mesh, adj);
    for (auto _ : state)
        benchmark::DoNotOptimize(meshDuplicateTris(mesh, adj));
    report(state, 0);
}

BENCHMARK(BM_TopoMeshBuild)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TopoMeshTwinOnly)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TopoMeshOneRingWalk)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TopoMeshSwapSweep)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshDuplicateTris)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv, "UV sphere 500 x 1000 (998,000 triangles)");
}
