// meshSwapEdgesRepeatedly with minimizeOppositeAngleSum on a random planar triangulation
// of 1,000,000 triangles (a jittered 1000 x 500 grid of quads, each split along a random
// diagonal), from the same start each time, sweeping until nothing changes. "swaps/s"
// counts swaps; "sweeps" is the number of sweeps, the last one swapping nothing.
#include "qyGeom/MeshEdgeSwapper.h"

#include <random>

#include <benchmark/benchmark.h>

#include "model/TopoMesh.h"

namespace
{

using namespace qyGeom;

// A jittered nx x ny grid, each cell split along a random diagonal: 2 nx ny triangles, planar
// and valid, far from Delaunay.
void buildRandomTriangulation(TopoMesh& mesh, int nx, int ny)
{
    std::mt19937 rng(5u);
    std::uniform_real_distribution<double> jitter(-0.3, 0.3);
    mesh.clear();
    mesh.reserve((nx + 1) * (ny + 1), 6 * nx * ny, 2 * nx * ny);
    for (int j = 0; j <= ny; ++j)
        for (int i = 0; i <= nx; ++i)
        {
            const bool border = i == 0 || j == 0 || i == nx || j == ny;
            mesh.allocVertex(i + (border ? 0 : jitter(rng)), j + (border ? 0 : jitter(rng)), 0);
        }
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
        {
            const int v00 = j * (nx + 1) + i, v10 = v00 + 1, v01 = v00 + nx + 1, v11 = v01 + 1;
            const int t[4][3] = {
                {v00, v10, v11}, {v00, v11, v01}, {v00, v10, v01}, {v10, v11, v01}};
            const int k = (rng() & 1u) ? 2 : 0;
            mesh.allocFace(3, t[k]);
            mesh.allocFace(3, t[k + 1]);
        }
    mesh.meshTwin();
}

void BM_MeshSwapEdgesRepeatedly(benchmark::State& state)
{
    static const TopoMesh start = []
    {
        TopoMesh m;
        buildRandomTriangulation(m, 1000, 500);
        return m;
    }();
    MeshEdgeSwapper swapper;
    swapper.getVetoSignal().connect(&MeshEdgeSwapper::minimizeOppositeAngleSum);
    int swaps = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        TopoMesh mesh(start);
        state.ResumeTiming();
        swaps = meshSwapEdgesRepeatedly(mesh, swapper);
        benchmark::DoNotOptimize(swaps);
    }
    // The sweeps, counted outside the timing with the one-sweep driver (the same sweep).
    TopoMesh mesh(start);
    int sweeps = 1;
    while (meshSwapEdgesOnce(mesh, swapper) != 0)
        ++sweeps;
    state.counters["sweeps"] = sweeps;
    state.counters["triangles"] = start.getNumFaces();
    state.counters["swaps"] = swaps;
    state.counters["swaps/s"] =
        benchmark::Counter(double(swaps), benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_MeshSwapEdgesRepeatedly)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
