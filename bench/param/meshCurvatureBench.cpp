// meshCurvature on the 998,000-triangle UV sphere (500 rings x 1000 segments, the peers'
// sphere.obj), with 1 and 2 pool threads. Wall-clock time: the pool's threads do part of the
// work. The adjacency is built once, untimed, as a caller holding a mesh cache would have it.
#include "qyGeom/meshCurvature.h"

#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshComputeNormals.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

struct Sphere
{
    CompactMesh mesh;
    qyGeom::MeshAdjTris adjTris;
    qyGeom::MeshAdjVertices adjVertices;
};

const Sphere& sphere()
{
    static const Sphere s = []
    {
        Sphere out;
        out.mesh = qyTest::makeUVSphere(500, 1000);
        qyGeom::meshComputeNormals(out.mesh);
        qyGeom::meshAdjTris(out.mesh, out.adjTris);
        qyGeom::meshAdjVertices(out.mesh, out.adjTris, out.adjVertices);
        return out;
    }();
    return s;
}

void BM_MeshCurvature(benchmark::State& state)
{
    const Sphere& s = sphere();
    const int threads = int(state.range(0));
    const auto kind = qyGeom::MeshCurvature(state.range(1));
    qyUtil::ThreadPool::get().setNumThreads(threads);
    std::vector<float> out(std::size_t(s.mesh.getNumVertices()));
    for (auto _ : state)
    {
        qyGeom::meshCurvature(s.mesh, s.adjTris, s.adjVertices, qyLinear::AffineMatrixFlt(), kind,
                              out.data());
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["triangles_per_s"] = benchmark::Counter(
        double(s.mesh.getNumTriangles()) * double(state.iterations()), benchmark::Counter::kIsRate);
    state.SetLabel("threads:" + std::to_string(threads) +
                   (kind == qyGeom::MeshCurvature::Mean ? " mean" : " maxPrincipal"));
}

BENCHMARK(BM_MeshCurvature)
    ->ArgsProduct({{1, 2}, {0, 3}})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
