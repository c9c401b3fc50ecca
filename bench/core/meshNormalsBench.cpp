// Vertex normals, normalisation and bounding box on a large closed mesh, with 1 and 2 pool
// threads. Wall-clock time: the pool's threads do part of the work, so the calling thread's
// CPU time would undercount it.
#include <cstddef>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "benchMain.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "qyGeom/meshBoundingBox.h"
#include "qyGeom/meshComputeNormals.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

constexpr int sphereLevels = 8; // 655,362 vertices, 1,310,720 triangles

// Built on first use and shared by every benchmark: building it takes longer than the runs.
const CompactMesh& sphere()
{
    static const CompactMesh mesh = qyTest::makeIcosphere(sphereLevels);
    return mesh;
}

// Unnormalised normals of varied lengths (0.5 to 8), as the accumulation leaves them.
const std::vector<float>& rawNormals()
{
    static const std::vector<float> normals = []
    {
        const CompactMesh& mesh = sphere();
        std::vector<float> out(mesh.getVerticesRaw(),
                               mesh.getVerticesRaw() + 3 * std::size_t(mesh.getNumVertices()));
        for (std::size_t i = 0; i < out.size(); i += 3)
        {
            const float scale = 0.5f + float((i / 3) % 16) * 0.5f;
            out[i] *= scale;
            out[i + 1] *= scale;
            out[i + 2] *= scale;
        }
        return out;
    }();
    return normals;
}

void setThreads(benchmark::State& state)
{
    const int threads = int(state.range(0));
    qyUtil::ThreadPool::get().setNumThreads(threads);
    state.SetLabel("threads:" + std::to_string(threads));
}

// Each timed call starts from a copy of the sphere without normals, as a caller's first call.
void BM_MeshComputeNormals(benchmark::State& state)
{
    const CompactMesh& source = sphere();
    setThreads(state);
    CompactMesh mesh;
    for (auto _ : state)
    {
        state.PauseTiming();
        mesh = source;
        state.ResumeTiming();
        qyGeom::meshComputeNormals(mesh);
        benchmark::DoNotOptimize(mesh.getNormalsRaw());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * source.getNumTriangles());
}

// In place: the unnormalised array is restored before each timed call.
void BM_MeshNormalize(benchmark::State& state)
{
    const std::vector<float>& raw = rawNormals();
    const int n = int(raw.size() / 3);
    setThreads(state);
    std::vector<float> normals(raw.size());
    for (auto _ : state)
    {
        state.PauseTiming();
        normals = raw;
        state.ResumeTiming();
        qyGeom::meshNormalize(normals.data(), n);
        benchmark::DoNotOptimize(normals.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void BM_MeshBoundingBox(benchmark::State& state)
{
    const CompactMesh& mesh = sphere();
    setThreads(state);
    qyGeom::BoundingBox box;
    for (auto _ : state)
    {
        qyGeom::meshBoundingBox(mesh, box);
        benchmark::DoNotOptimize(box);
    }
    state.SetItemsProcessed(state.iterations() * mesh.getNumVertices());
}

BENCHMARK(BM_MeshComputeNormals)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshNormalize)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshBoundingBox)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv, "icosphere level " + std::to_string(sphereLevels));
}
