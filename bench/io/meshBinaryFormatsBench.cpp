// Binary PLY and STL reading and writing on the peer harness's 998,000-triangle sphere
// (sphere.obj in the folder named by QYGEOM_PEER_DATA, or the working directory), in
// triangles per second. The sphere is read once and written as binary PLY and STL into the
// system's temporary directory; the reads time those files. When the build found assimp,
// its importer reads the same files in the same run (without post-processing, and with
// the vertex join that gives a welded mesh like ours), for a ratio within one run.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "benchMain.h"
#include "model/CompactMesh.h"
#include "qyGeom/meshPly.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshStl.h"

#ifdef QYGEOM_BENCH_ASSIMP
#include <assimp/Importer.hpp>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#endif

namespace
{

std::string tempFile(const char* name)
{
    return (std::filesystem::temp_directory_path() / name).string();
}

/// The sphere, read once.
const qyGeom::CompactMesh& sphere()
{
    static const qyGeom::CompactMesh mesh = []
    {
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = (std::filesystem::path(dir ? dir : ".") / "sphere.obj").string();
        qyGeom::CompactMesh m;
        if (!qyGeom::meshReadObj(m, qyOS::Filename(path.c_str())))
            std::fprintf(stderr, "cannot read %s\n", path.c_str());
        return m;
    }();
    return mesh;
}

/// The sphere's triangles in a shuffled order (a soup in which no corner is near another
/// use of its vertex), as binary STL, written once.
const std::string& shuffledStlFile()
{
    static const std::string path = []
    {
        qyGeom::CompactMesh m = sphere();
        const int n = m.getNumTriangles();
        std::vector<int> order(static_cast<std::size_t>(n));
        std::iota(order.begin(), order.end(), 0);
        std::shuffle(order.begin(), order.end(), std::mt19937(1));
        std::vector<int> tris(m.getTrianglesRaw(), m.getTrianglesRaw() + 3 * std::size_t(n));
        int* out = m.getTrianglesRaw();
        for (int t = 0; t < n; ++t)
            std::copy_n(tris.data() + 3 * std::size_t(order[std::size_t(t)]), 3,
                        out + 3 * std::size_t(t));
        const std::string p = tempFile("qygeom_bench_sphere_shuffled.stl");
        qyGeom::meshWriteStl(m, qyOS::Filename(p.c_str()));
        return p;
    }();
    return path;
}

/// The sphere as a binary file of the format, written once.
const std::string& sphereFile(bool ply)
{
    static const std::string plyPath = []
    {
        const std::string p = tempFile("qygeom_bench_sphere.ply");
        qyGeom::meshWritePly(sphere(), qyOS::Filename(p.c_str()));
        return p;
    }();
    static const std::string stlPath = []
    {
        const std::string p = tempFile("qygeom_bench_sphere.stl");
        qyGeom::meshWriteStl(sphere(), qyOS::Filename(p.c_str()));
        return p;
    }();
    return ply ? plyPath : stlPath;
}

void setTriangles(benchmark::State& state)
{
    state.SetItemsProcessed(std::int64_t(state.iterations()) * sphere().getNumTriangles());
    state.counters["triangles"] = sphere().getNumTriangles();
}

void BM_ReadPly(benchmark::State& state)
{
    const std::string& path = sphereFile(true);
    for (auto _ : state)
    {
        qyGeom::CompactMesh mesh;
        if (!qyGeom::meshReadPly(mesh, qyOS::Filename(path.c_str())).isSuccess())
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(mesh.getNumTriangles());
    }
    setTriangles(state);
}

void BM_ReadStl(benchmark::State& state)
{
    const std::string& path = sphereFile(false);
    for (auto _ : state)
    {
        qyGeom::CompactMesh mesh;
        if (!qyGeom::meshReadStl(mesh, qyOS::Filename(path.c_str())).isSuccess())
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(mesh.getNumVertices());
    }
    setTriangles(state);
}

void BM_ReadStlShuffled(benchmark::State& state)
{
    const std::string& path = shuffledStlFile();
    for (auto _ : state)
    {
        qyGeom::CompactMesh mesh;
        if (!qyGeom::meshReadStl(mesh, qyOS::Filename(path.c_str())).isSuccess())
            state.SkipWithError("read failed");
        benchmark::DoNotOptimize(mesh.getNumVertices());
    }
    setTriangles(state);
}

void BM_WritePly(benchmark::State& state)
{
    const std::string path = tempFile("qygeom_bench_write.ply");
    for (auto _ : state)
        if (!qyGeom::meshWritePly(sphere(), qyOS::Filename(path.c_str())))
            state.SkipWithError("write failed");
    setTriangles(state);
}

void BM_WriteStl(benchmark::State& state)
{
    const std::string path = tempFile("qygeom_bench_write.stl");
    for (auto _ : state)
        if (!qyGeom::meshWriteStl(sphere(), qyOS::Filename(path.c_str())))
            state.SkipWithError("write failed");
    setTriangles(state);
}

#ifdef QYGEOM_BENCH_ASSIMP
void BM_AssimpRead(benchmark::State& state, bool ply, unsigned flags)
{
    const std::string& path = sphereFile(ply);
    for (auto _ : state)
    {
        Assimp::Importer importer;
        const aiScene* scene = importer.ReadFile(path, flags);
        if (!scene || scene->mNumMeshes == 0)
            state.SkipWithError("assimp read failed");
        else
            benchmark::DoNotOptimize(scene->mMeshes[0]->mNumVertices);
    }
    setTriangles(state);
}
BENCHMARK_CAPTURE(BM_AssimpRead, ply, true, 0u)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_AssimpRead, stl, false, 0u)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_AssimpRead, stl_joined, false, unsigned(aiProcess_JoinIdenticalVertices))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
#endif

} // namespace

BENCHMARK(BM_ReadPly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadStl)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_ReadStlShuffled)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WritePly)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_WriteStl)->Unit(benchmark::kMillisecond)->UseRealTime();
int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv, "sphere.obj of the peer harness, 998,000 triangles");
}
