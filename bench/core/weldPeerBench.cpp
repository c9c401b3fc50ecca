// The exact weld of a triangle soup beside meshoptimizer's remap, on the same soups in the same
// run, from a few hundred to three million corners: small inputs must take a route that is
// never slower than the peer's, and never slower on 2 threads than on 1.
//
// The soups are UV spheres of r rings and 2r segments (about 12 r^2 corners, each position
// shared by up to six), in mesh order (range 2 = 0) or with the triangles shuffled first
// (range 2 = 1, copies of a position far apart). The peer's row does what its harness times:
// meshopt_generateVertexRemap over the positions, then remapVertexBuffer and remapIndexBuffer.
// Ours is meshCompact with the default exact test, on a fresh copy of the soup (copy untimed).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <meshoptimizer.h>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "benchMain.h"
#include "model/CompactMesh.h"
#include "model/Remap.h"
#include "qyGeom/meshCompact.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

const CompactMesh& sphereSoup(int rings, bool shuffled)
{
    static std::map<int, CompactMesh> soups;
    const int key = 2 * rings + (shuffled ? 1 : 0);
    auto it = soups.find(key);
    if (it == soups.end())
    {
        CompactMesh mesh = qyTest::makeUVSphere(rings, 2 * rings);
        if (shuffled)
        {
            std::mt19937 rng(11);
            qyGeom::MeshTriangle* tris = mesh.getTriangles();
            std::shuffle(tris, tris + mesh.getNumTriangles(), rng);
        }
        it = soups.emplace(key, qyTest::makeTriangleSoup(mesh)).first;
    }
    return it->second;
}

void label(benchmark::State& state, const CompactMesh& soup, const char* who)
{
    state.SetItemsProcessed(state.iterations() * std::int64_t(soup.getNumVertices()));
    state.SetLabel(std::string(who) + " corners=" + std::to_string(soup.getNumVertices()));
}

void BM_WeldMeshopt(benchmark::State& state)
{
    const CompactMesh& soup = sphereSoup(int(state.range(0)), state.range(1) != 0);
    const std::size_t n = std::size_t(soup.getNumVertices());
    const float* positions = soup.getVerticesRaw();
    std::vector<unsigned> remap(n), indices(n);
    std::vector<float> vertices(3 * n);
    for (auto _ : state)
    {
        const std::size_t unique =
            meshopt_generateVertexRemap(remap.data(), static_cast<const unsigned*>(nullptr), n,
                                        positions, n, 3 * sizeof(float));
        meshopt_remapVertexBuffer(vertices.data(), positions, n, 3 * sizeof(float), remap.data());
        meshopt_remapIndexBuffer(indices.data(), static_cast<const unsigned*>(nullptr), n,
                                 remap.data());
        benchmark::DoNotOptimize(unique);
        benchmark::ClobberMemory();
    }
    label(state, soup, "meshoptimizer");
}

void BM_WeldOurs(benchmark::State& state)
{
    const CompactMesh& soup = sphereSoup(int(state.range(0)), state.range(1) != 0);
    const int threads = int(state.range(2));
    qyUtil::ThreadPool::get().setNumThreads(threads);
    qyGeom::DefaultMeshVertexEqualityChecker checker;
    CompactMesh mesh;
    qyGeom::Remap remap;
    for (auto _ : state)
    {
        state.PauseTiming();
        mesh = soup;
        state.ResumeTiming();
        qyGeom::meshCompact(mesh, qyTest::quietProgress(), remap, checker);
        benchmark::DoNotOptimize(mesh.getVerticesRaw());
        benchmark::ClobberMemory();
    }
    label(state, soup, threads == 1 ? "ours threads:1" : "ours threads:2");
}

// What one PauseTiming and ResumeTiming pair adds to each iteration of BM_WeldOurs (with the
// process CPU clock, a system call per reading): to be taken from ours before comparing the
// smallest soups with the peer, whose rows have no pause.
void BM_PauseOverhead(benchmark::State& state)
{
    for (auto _ : state)
    {
        state.PauseTiming();
        state.ResumeTiming();
    }
}

// Peer first, then ours on 1 and 2 threads, size by size, so that the rows to compare run
// within seconds of each other.
void registerAll()
{
    benchmark::RegisterBenchmark("BM_PauseOverhead", BM_PauseOverhead)
        ->MeasureProcessCPUTime()
        ->UseRealTime()
        ->Unit(benchmark::kMicrosecond);
    for (int rings : {8, 16, 32, 64, 100, 140, 200, 280, 400, 500})
        for (int shuffled : {0, 1})
        {
            benchmark::RegisterBenchmark("BM_WeldMeshopt", BM_WeldMeshopt)
                ->Args({rings, shuffled})
                ->UseRealTime()
                ->Unit(benchmark::kMicrosecond);
            for (int threads : {1, 2})
                benchmark::RegisterBenchmark("BM_WeldOurs", BM_WeldOurs)
                    ->Args({rings, shuffled, threads})
                    ->MeasureProcessCPUTime()
                    ->UseRealTime()
                    ->Unit(benchmark::kMicrosecond);
        }
}

} // namespace

int main(int argc, char** argv)
{
    registerAll();
    return qyBench::runBenchmarks(argc, argv);
}
