// One smoothing step over every vertex of a large sphere: the peer harness's sphere.obj
// (499,002 vertices, 998,000 triangles) from $QYGEOM_PEER_DATA when present, otherwise the
// icosphere of level 8 (655,362 vertices, 1,310,720 triangles) made in code. The argument is
// the pool's thread count. Each iteration starts from the same positions, restored outside
// the timing. The bilateral step runs with sigma = 2 mean edge lengths. "verts/s" counts
// smoothed vertices.
#include "qyGeom/meshSmooth.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshComputeNormals.h"
#include "qyGeom/meshReadObj.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

struct Input
{
    CompactMesh mesh;
    qyGeom::MeshAdjVertices adjacency;
    std::vector<float> positions; // the start of every iteration
    double meanEdge = 0.0;
    const char* name = "";
};

Input& input()
{
    static Input in = []
    {
        Input r;
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = std::string(dir ? dir : ".") + "/sphere.obj";
        if (std::ifstream(path).good() && qyGeom::meshReadObj(r.mesh, path.c_str()))
            r.name = "sphere.obj";
        else
        {
            r.mesh = qyTest::makeIcosphere(8);
            r.name = "icosphere8";
        }
        qyGeom::meshComputeNormals(r.mesh);
        // Held as explicit data, so that the notice after each step does not drop them.
        r.mesh.setNormalsComputed(false);
        r.mesh.getSelectedVertices().resize(r.mesh.getNumVertices());
        r.mesh.getSelectedVertices().setAllBits();
        qyGeom::MeshAdjTris adjTris;
        qyGeom::meshAdjTris(r.mesh, adjTris);
        qyGeom::meshAdjVertices(r.mesh, adjTris, r.adjacency);
        const float* v = r.mesh.getVerticesRaw();
        r.positions.assign(v, v + 3 * std::size_t(r.mesh.getNumVertices()));
        // Each undirected edge is listed twice, once from each end: the mean is the same.
        double sum = 0.0;
        long long edges = 0;
        for (int a = 0; a < r.mesh.getNumVertices(); ++a)
        {
            const int* ring = r.adjacency.vertexIndices(a);
            for (int k = 0; k < r.adjacency.numVertices(a); ++k, ++edges)
            {
                const float* p = v + 3 * std::ptrdiff_t(a);
                const float* q = v + 3 * std::ptrdiff_t(ring[k]);
                sum += std::sqrt(double(p[0] - q[0]) * (p[0] - q[0]) +
                                 double(p[1] - q[1]) * (p[1] - q[1]) +
                                 double(p[2] - q[2]) * (p[2] - q[2]));
            }
        }
        r.meanEdge = edges ? sum / double(edges) : 0.0;
        return r;
    }();
    return in;
}

void run(benchmark::State& state, bool bilateral)
{
    Input& in = input();
    const qyTest::ScopedThreadCount threads(int(state.range(0)));
    const double sigma = 2.0 * in.meanEdge;
    for (auto _ : state)
    {
        state.PauseTiming();
        std::memcpy(in.mesh.getVerticesRaw(), in.positions.data(),
                    in.positions.size() * sizeof(float));
        state.ResumeTiming();
        if (bilateral)
            qyGeom::meshSmoothBilateral(in.mesh, in.adjacency, sigma, qyTest::quietProgress());
        else
            qyGeom::meshSmoothLaplacian(in.mesh, in.adjacency, qyTest::quietProgress());
        benchmark::DoNotOptimize(in.mesh.getVerticesRaw());
    }
    const int n = in.mesh.getNumVertices();
    state.SetLabel(in.name);
    state.SetItemsProcessed(state.iterations() * n);
    state.counters["threads"] = double(state.range(0));
    state.counters["verts"] = n;
    state.counters["verts/s"] =
        benchmark::Counter(double(n), benchmark::Counter::kIsIterationInvariantRate);
    if (bilateral)
        state.counters["sigma"] = sigma;
}

void BM_MeshSmoothLaplacian(benchmark::State& state)
{
    run(state, false);
}
void BM_MeshSmoothBilateral(benchmark::State& state)
{
    run(state, true);
}

BENCHMARK(BM_MeshSmoothLaplacian)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshSmoothBilateral)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
