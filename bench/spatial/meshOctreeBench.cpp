// Octree construction and triangle partitioning on a 998,000-triangle UV sphere, with the
// octree the mesh cache builds (vertex bounding box, cubic root, depth limit 16). Wall-clock
// time: the pool's threads do part of the work.
//
// Counters: voxels, (voxel, triangle) pairs per triangle, triangles per occupied voxel, the
// share of triangles placed by the coherence shortcut, and the bytes per triangle of the
// Octree and of the OctreeTris.
// BM_LeafSize compares leaf sizes on one thread.
#include "qyGeom/meshOctree.h"

#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "benchMain.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "qyGeom/meshBoundingBox.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;
using qyGeom::Octree;

constexpr int sphereRings = 500, sphereSegments = 1000; // 998,000 triangles
constexpr int cacheDepth = 16;

const CompactMesh& sphere()
{
    static const CompactMesh mesh = qyTest::makeUVSphere(sphereRings, sphereSegments);
    return mesh;
}

const qyGeom::BoundingBox& sphereBox()
{
    static const qyGeom::BoundingBox box = []
    {
        qyGeom::BoundingBox b;
        qyGeom::meshBoundingBox(sphere(), b);
        return b;
    }();
    return box;
}

Octree buildOctree(int leafSize)
{
    const CompactMesh& mesh = sphere();
    return Octree(mesh.getNumVertices(), mesh.getVerticesRaw(), sphereBox(), true, cacheDepth,
                  leafSize);
}

void setThreads(benchmark::State& state, int threads)
{
    qyUtil::ThreadPool::get().setNumThreads(threads);
    state.SetLabel("threads:" + std::to_string(threads));
}

// One untimed run with the debug channel captured, for the coherence figure it prints.
double coherenceOf(const Octree& octree)
{
    qyTest::DebugCapture capture;
    qyGeom::OctreeTris out;
    qyGeom::computeOctreeTris(sphere(), octree, out);
    const std::string& text = capture.text();
    const std::size_t at = text.find('(');
    double coherence = -1.0;
    if (at != std::string::npos)
        std::sscanf(text.c_str() + at, "(%lf", &coherence);
    return coherence;
}

void partitionLoop(benchmark::State& state, const Octree& octree)
{
    const CompactMesh& mesh = sphere();
    const double numTris = mesh.getNumTriangles();
    state.counters["coherence"] = coherenceOf(octree);
    qyGeom::OctreeTris out;
    for (auto _ : state)
    {
        qyGeom::OctreeTris fresh;
        qyGeom::computeOctreeTris(mesh, octree, fresh);
        benchmark::DoNotOptimize(fresh.getData().getMembers());
        out.swap(fresh);
    }
    state.SetItemsProcessed(state.iterations() * mesh.getNumTriangles());
    int occupied = 0;
    for (int v = 0; v < out.getNumVoxels(); ++v)
        occupied += out.numTris(v) > 0 ? 1 : 0;
    state.counters["voxels"] = octree.getNumVoxels();
    state.counters["pairs/tri"] = out.getData().getTotalSize() / numTris;
    // What a query pays: triangles to test per voxel it reaches.
    state.counters["tris/occupied"] = double(out.getData().getTotalSize()) / occupied;
    state.counters["octreeB/tri"] = octree.getSizeInBytes() / numTris;
    state.counters["octreeTrisB/tri"] = out.getSizeInBytes() / numTris;
}

void BM_OctreeBuild(benchmark::State& state)
{
    const CompactMesh& mesh = sphere();
    sphereBox();
    int voxels = 0, bytes = 0;
    for (auto _ : state)
    {
        const Octree octree = buildOctree(Octree::defaultLeafSize);
        voxels = octree.getNumVoxels();
        bytes = octree.getSizeInBytes();
        benchmark::DoNotOptimize(voxels);
    }
    state.SetItemsProcessed(state.iterations() * mesh.getNumVertices());
    state.counters["voxels"] = voxels;
    state.counters["octreeB/tri"] = double(bytes) / mesh.getNumTriangles();
}

void BM_ComputeOctreeTris(benchmark::State& state)
{
    static const Octree octree = buildOctree(Octree::defaultLeafSize);
    setThreads(state, int(state.range(0)));
    partitionLoop(state, octree);
}

// Leaf size state.range(0), one thread.
void BM_LeafSize(benchmark::State& state)
{
    const Octree octree = buildOctree(int(state.range(0)));
    setThreads(state, 1);
    partitionLoop(state, octree);
}

BENCHMARK(BM_OctreeBuild)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ComputeOctreeTris)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LeafSize)
    ->Arg(4)
    ->Arg(8)
    ->Arg(16)
    ->Arg(32)
    ->Arg(64)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv,
                                  "UV sphere " + std::to_string(sphereRings) + " x " +
                                      std::to_string(sphereSegments));
}
