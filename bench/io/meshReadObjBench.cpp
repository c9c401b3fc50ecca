// Read and write throughput of the OBJ readers and writers, in MB/s of file text. The CPU
// column is the process's CPU time, so that it counts the pool's threads too.
// Inputs: the generated meshes of the peers' harness in the folder named by QYGEOM_PEER_DATA
// (the working directory when unset): sphere_textured.obj (v/vt/vn corners) and grid.obj
// (plain). The write benchmarks use a file in the system's temporary directory.
#include "qyGeom/meshReadObj.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include <benchmark/benchmark.h>

#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "qyGeom/meshWriteObj.h"
#include "testMeshes.h"

namespace
{

std::string dataFile(const char* name)
{
    const char* dir = std::getenv("QYGEOM_PEER_DATA");
    return (std::filesystem::path(dir ? dir : ".") / name).string();
}

std::string tempFile(const char* name)
{
    return (std::filesystem::temp_directory_path() / name).string();
}

void setBytes(benchmark::State& state, const std::string& path)
{
    std::error_code ec;
    const auto size = std::filesystem::file_size(path, ec);
    state.SetBytesProcessed(ec ? 0 : std::int64_t(state.iterations()) * std::int64_t(size));
}

/// Times read(path) on the data file `name`; read returns false when the read failed.
template <class Read> void timeReads(benchmark::State& state, const char* name, Read read)
{
    const std::string path = dataFile(name);
    for (auto _ : state)
        if (!read(path))
            state.SkipWithError("read failed");
    setBytes(state, path);
}

void BM_ReadPlain(benchmark::State& state, const char* name)
{
    timeReads(state, name,
              [](const std::string& path)
              {
                  qyGeom::CompactMesh mesh;
                  const bool ok = qyGeom::meshReadObj(mesh, qyOS::Filename(path));
                  benchmark::DoNotOptimize(mesh.getNumTriangles());
                  return ok;
              });
}

void BM_ReadSubsets(benchmark::State& state, const char* name)
{
    timeReads(state, name,
              [](const std::string& path)
              {
                  qyGeom::CompactMesh mesh;
                  qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
                  qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
                  qy::vector<qyString::IString> materials;
                  qyOS::Filename mtl;
                  const bool ok =
                      qyGeom::meshReadObj(mesh, subsets, uvs, materials, mtl, qyOS::Filename(path));
                  benchmark::DoNotOptimize(mesh.getNumTriangles());
                  return ok;
              });
}

void BM_ReadStrict(benchmark::State& state, const char* name)
{
    timeReads(state, name,
              [](const std::string& path)
              {
                  auto file = qy::makeReference<qyGeom::MeshObjFile>();
                  const bool ok = !qyGeom::meshReadObj2(path, file);
                  benchmark::DoNotOptimize(file->vertices.size());
                  return ok;
              });
}

/// Writes a 1M-triangle grid (positions only) and reads it back with the plain reader.
void BM_WriteGrid(benchmark::State& state)
{
    const qyGeom::CompactMesh mesh = qyTest::makeGrid(708, 708);
    const std::string path = tempFile("qygeom_bench_write.obj");
    for (auto _ : state)
        qyGeom::meshWriteObj(mesh, qyOS::Filename(path));
    setBytes(state, path);
}

void BM_ReadWrittenGrid(benchmark::State& state)
{
    const std::string path = tempFile("qygeom_bench_write.obj");
    if (!std::filesystem::exists(path))
        qyGeom::meshWriteObj(qyTest::makeGrid(708, 708), qyOS::Filename(path));
    for (auto _ : state)
    {
        qyGeom::CompactMesh mesh;
        qyGeom::meshReadObj(mesh, qyOS::Filename(path));
        benchmark::DoNotOptimize(mesh.getNumTriangles());
    }
    setBytes(state, path);
}

} // namespace

BENCHMARK_CAPTURE(BM_ReadPlain, sphere_textured, "sphere_textured.obj")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(BM_ReadPlain, grid, "grid.obj")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(BM_ReadSubsets, sphere_textured, "sphere_textured.obj")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(BM_ReadSubsets, grid, "grid.obj")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(BM_ReadStrict, sphere_textured, "sphere_textured.obj")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK_CAPTURE(BM_ReadStrict, grid, "grid.obj")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();
BENCHMARK(BM_WriteGrid)->Unit(benchmark::kMillisecond)->UseRealTime()->MeasureProcessCPUTime();
BENCHMARK(BM_ReadWrittenGrid)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

BENCHMARK_MAIN();
