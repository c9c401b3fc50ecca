// meshReduceToFraction at 25 % of the vertices on the peer harness's bunny00.obj,
// refined_elephant.obj and sphere.obj ($QYGEOM_PEER_DATA, default: the working directory;
// skipped when absent), on a pool of 1 and of 2 threads. Each iteration reduces a fresh copy
// of the input; the copy is made outside the timing. Counters, measured as the peer harness
// measures its decimators:
// - max_err, rms_err: distance from EVERY input vertex to the reduced surface (exact
//   point-triangle distance), over the input's bounding-box diagonal;
// - verts_out, tris_out; bad_edges: directed edges used twice or without their reverse (0
//   means closed, manifold and consistently oriented, as the inputs are);
// - peak_MB: the rise of the process's peak resident memory during one reduction (the kernel's
//   high-water mark is reset first through /proc/self/clear_refs), input copy excluded.
#include "qyGeom/meshReduce.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/Progress.h"
#include "base/ThreadPool.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshClosestPoint.h"
#include "qyGeom/meshBoundingBox.h"
#include "qyGeom/meshReadObj.h"

namespace
{

using namespace qyGeom;

const char* const inputNames[] = {"bunny00.obj", "refined_elephant.obj", "sphere.obj"};

// Null when the file cannot be read.
const CompactMesh* input(int which)
{
    static std::map<int, std::unique_ptr<CompactMesh>> meshes;
    auto& mesh = meshes[which];
    if (!mesh)
    {
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = std::string(dir ? dir : ".") + "/" + inputNames[which];
        mesh = std::make_unique<CompactMesh>();
        if (!std::ifstream(path).good() || !meshReadObj(*mesh, path.c_str()))
            mesh = std::make_unique<CompactMesh>();
    }
    return mesh->getNumTriangles() > 0 ? mesh.get() : nullptr;
}

// VmHWM or VmRSS of this process in kB.
long statusKb(const char* field)
{
    std::ifstream status("/proc/self/status");
    std::string line;
    const std::string key = std::string(field) + ":";
    while (std::getline(status, line))
        if (line.compare(0, key.size(), key) == 0)
            return std::atol(line.c_str() + key.size());
    return 0;
}

void resetPeak()
{
    std::ofstream("/proc/self/clear_refs") << "5";
}

// Max and RMS distance from the input's vertices to the result's triangles, over the input's
// bounding-box diagonal.
std::pair<double, double> harnessError(const CompactMesh& original, const CompactMesh& reduced)
{
    SimpleMeshCache cache;
    const auto octree = cache.getOctree(reduced, -1);
    const auto octreeTris = cache.getOctreeTris(reduced);
    MeshClosestPoint query(reduced, *octree, *octreeTris);
    BoundingBox box;
    meshBoundingBox(original, box);
    const double diagonal = qyLinear::distance(box.minPt(), box.maxPt());
    double largest = 0.0, sum2 = 0.0;
    MeshClosestPointResult result;
    for (int i = 0; i < original.getNumVertices(); ++i)
    {
        const double d = query.compute(original.getVertices()[i].asPoint(), result);
        largest = std::max(largest, d);
        sum2 += d * d;
    }
    return {largest / diagonal, std::sqrt(sum2 / original.getNumVertices()) / diagonal};
}

int badEdges(const CompactMesh& mesh)
{
    std::map<std::pair<int, int>, int> directed;
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
        for (int k = 0; k < 3; ++k)
            ++directed[{t[3 * i + k], t[3 * i + (k + 1) % 3]}];
    int bad = 0;
    for (const auto& [edge, count] : directed)
        bad += count != 1 || directed.count({edge.second, edge.first}) == 0;
    return bad;
}

void BM_MeshReduceToFraction(benchmark::State& state)
{
    const CompactMesh* original = input(int(state.range(0)));
    if (!original)
    {
        state.SkipWithError("input not found (set QYGEOM_PEER_DATA)");
        return;
    }
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    const int savedThreads = pool.getNumThreads();
    pool.setNumThreads(int(state.range(1)));

    CompactMesh mesh;
    long peakKb = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        mesh = *original;
        std::vector<qyLinear::Point> removed;
        qyUtil::Progress progress;
        const long before = statusKb("VmRSS");
        resetPeak();
        state.ResumeTiming();
        meshReduceToFraction(mesh, 0.25, progress, removed);
        state.PauseTiming();
        peakKb = std::max(peakKb, statusKb("VmHWM") - before);
        state.ResumeTiming();
    }
    pool.setNumThreads(savedThreads);

    const auto [maxErr, rmsErr] = harnessError(*original, mesh);
    state.SetLabel(inputNames[state.range(0)]);
    state.counters["verts_in"] = original->getNumVertices();
    state.counters["verts_out"] = mesh.getNumVertices();
    state.counters["tris_out"] = mesh.getNumTriangles();
    state.counters["max_err"] = maxErr;
    state.counters["rms_err"] = rmsErr;
    state.counters["bad_edges"] = badEdges(mesh);
    state.counters["peak_MB"] = double(peakKb) / 1024.0;
}

BENCHMARK(BM_MeshReduceToFraction)
    ->ArgsProduct({{0, 1, 2}, {1, 2}})
    ->ArgNames({"mesh", "threads"})
    ->Iterations(3)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
