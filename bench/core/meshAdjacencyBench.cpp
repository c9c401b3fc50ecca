// Adjacency, boundaries and components of a large UV sphere (poles of valence 1000), with 1
// and 2 pool threads; "bytes/tri" is the memory of the structure built, per triangle. Beside
// the wall time, the CPU time of the whole process: the wall-clock ratio of 2 to 1 threads
// shows the scaling on a quiet machine, and the CPU times show on any machine whether the
// second thread adds work.
#include "model/MeshAdjacency.h"

#include <string>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshComponents.h"
#include "testMeshes.h"

namespace
{

using namespace qyGeom;

// 998,000 triangles, 499,002 vertices.
const CompactMesh& uvSphere()
{
    static const CompactMesh mesh = qyTest::makeUVSphere(500, 1000);
    return mesh;
}

// The inputs that the later structures are built from, made once.
const MeshAdjTris& sphereAdjTris()
{
    static const MeshAdjTris adj = []
    {
        MeshAdjTris a;
        meshAdjTris(uvSphere(), a);
        return a;
    }();
    return adj;
}

const MeshAdjVertices& sphereAdjVertices()
{
    static const MeshAdjVertices adj = []
    {
        MeshAdjVertices a;
        meshAdjVertices(uvSphere(), sphereAdjTris(), a);
        return a;
    }();
    return adj;
}

void setThreads(benchmark::State& state)
{
    const int threads = int(state.range(0));
    qyUtil::ThreadPool::get().setNumThreads(threads);
    state.SetLabel("threads:" + std::to_string(threads));
}

void report(benchmark::State& state, std::size_t bytes)
{
    const int numTris = uvSphere().getNumTriangles();
    state.SetItemsProcessed(state.iterations() * numTris);
    state.counters["bytes/tri"] = double(bytes) / numTris;
}

void BM_MeshAdjTris(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    setThreads(state);
    MeshAdjTris adj;
    for (auto _ : state)
    {
        meshAdjTris(mesh, adj);
        benchmark::DoNotOptimize(adj.getSets().getMembers());
    }
    report(state, adj.getSizeInBytes());
}

void BM_MeshAdjVertices(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    const MeshAdjTris& adjTris = sphereAdjTris();
    setThreads(state);
    MeshAdjVertices adj;
    for (auto _ : state)
    {
        meshAdjVertices(mesh, adjTris, adj);
        benchmark::DoNotOptimize(adj.getData());
    }
    report(state, adj.getSizeInBytes());
}

void BM_MeshTriAdjTris(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    setThreads(state);
    MeshTriAdjTris adj;
    for (auto _ : state)
    {
        meshTriAdjTris(mesh, adj);
        benchmark::DoNotOptimize(adj.getSets().getMembers());
    }
    report(state, adj.getSizeInBytes());
}

void BM_MeshComputeBoundary(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    const MeshAdjTris& adjTris = sphereAdjTris();
    const MeshAdjVertices& adjVertices = sphereAdjVertices();
    setThreads(state);
    MeshBoundaries loops;
    for (auto _ : state)
    {
        meshComputeBoundary(mesh, adjTris, adjVertices, loops);
        benchmark::DoNotOptimize(loops.size());
    }
    report(state, loops.getSizeInBytes());
}

void BM_MeshComponents(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    const MeshAdjTris& adjTris = sphereAdjTris();
    setThreads(state);
    qy::Array<int> labels;
    for (auto _ : state)
        benchmark::DoNotOptimize(meshComponents(mesh, adjTris, &labels));
    report(state, labels.capacity() * sizeof(int));
}

// What a caller pays for adjacency and boundaries from scratch.
void BM_MeshAdjacencyAndBoundary(benchmark::State& state)
{
    const CompactMesh& mesh = uvSphere();
    setThreads(state);
    MeshAdjTris adjTris;
    MeshAdjVertices adjVertices;
    MeshTriAdjTris triAdjTris;
    MeshBoundaries loops;
    for (auto _ : state)
    {
        meshAdjTris(mesh, adjTris);
        meshAdjVertices(mesh, adjTris, adjVertices);
        meshTriAdjTris(mesh, triAdjTris);
        meshComputeBoundary(mesh, adjTris, adjVertices, loops);
        benchmark::DoNotOptimize(loops.size());
    }
    report(state, adjTris.getSizeInBytes() + adjVertices.getSizeInBytes() +
                      triAdjTris.getSizeInBytes() + loops.getSizeInBytes());
}

BENCHMARK(BM_MeshAdjTris)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshAdjVertices)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshTriAdjTris)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshComputeBoundary)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshComponents)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshAdjacencyAndBoundary)
    ->Arg(1)
    ->Arg(2)
    ->MeasureProcessCPUTime()
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
