// The plain OBJ read beside tinyobjloader's LoadObj, on the same files in the same run, with our
// pool on 1 and on 2 threads. The peer's row does what its harness times: LoadObj with
// triangulation into its attribute and shape arrays. Ours is meshReadObj into a CompactMesh.
// Both read a file that the first iteration has brought into the page cache.
// Inputs: grid.obj (plain corners) and sphere_textured.obj (v/vt/vn corners) in the folder
// named by QYGEOM_PEER_DATA (the working directory when unset).
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <tiny_obj_loader.h>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "benchMain.h"
#include "model/CompactMesh.h"
#include "qyGeom/meshReadObj.h"

namespace
{

std::string dataFile(const char* name)
{
    const char* dir = std::getenv("QYGEOM_PEER_DATA");
    return (std::filesystem::path(dir ? dir : ".") / name).string();
}

void label(benchmark::State& state, const std::string& path, std::size_t triangles,
           const std::string& who)
{
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    state.SetBytesProcessed(ec ? 0 : std::int64_t(state.iterations()) * std::int64_t(size));
    state.SetLabel(who + " triangles=" + std::to_string(triangles));
}

void BM_ReadTinyObj(benchmark::State& state, const char* name)
{
    const std::string path = dataFile(name);
    std::size_t triangles = 0;
    for (auto _ : state)
    {
        tinyobj::attrib_t attrib;
        std::vector<tinyobj::shape_t> shapes;
        std::vector<tinyobj::material_t> materials;
        std::string warn, err;
        if (!tinyobj::LoadObj(&attrib, &shapes, &materials, &warn, &err, path.c_str()))
        {
            state.SkipWithError(("tinyobjloader: " + err).c_str());
            return;
        }
        triangles = 0;
        for (const tinyobj::shape_t& shape : shapes)
            triangles += shape.mesh.num_face_vertices.size();
        benchmark::DoNotOptimize(attrib.vertices.data());
    }
    label(state, path, triangles, "tinyobjloader");
}

void BM_ReadOurs(benchmark::State& state, const char* name)
{
    const std::string path = dataFile(name);
    const int threads = int(state.range(0));
    qyUtil::ThreadPool::get().setNumThreads(threads);
    std::size_t triangles = 0;
    for (auto _ : state)
    {
        qyGeom::CompactMesh mesh;
        if (!qyGeom::meshReadObj(mesh, qyOS::Filename(path)))
        {
            state.SkipWithError("meshReadObj failed");
            return;
        }
        triangles = std::size_t(mesh.getNumTriangles());
        benchmark::DoNotOptimize(mesh.getVerticesRaw());
    }
    label(state, path, triangles, "ours threads:" + std::to_string(threads));
}

// File by file, the peer first and then ours on 1 and 2 threads, so that the rows to compare
// run within seconds of each other.
void registerAll()
{
    for (const char* name : {"grid.obj", "sphere_textured.obj"})
    {
        const std::string stem = std::filesystem::path(name).stem().string();
        benchmark::RegisterBenchmark(("BM_ReadTinyObj/" + stem).c_str(), BM_ReadTinyObj, name)
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("BM_ReadOurs/" + stem).c_str(), BM_ReadOurs, name)
            ->Arg(1)
            ->Arg(2)
            ->MeasureProcessCPUTime()
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
    }
}

} // namespace

int main(int argc, char** argv)
{
    registerAll();
    return qyBench::runBenchmarks(argc, argv);
}
