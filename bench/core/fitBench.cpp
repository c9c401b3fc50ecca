// Plane fits of vertex fans, as mesh reduction's flatness pass makes them: each vertex's
// neighbours and the vertex itself. The fans come from bunny00.obj ($QYGEOM_PEER_DATA, default:
// the working directory) when it can be read, otherwise from a bumpy torus of similar size.
// fitEach takes them in groups of the first argument's size (eight is what the reduction
// hands over), with AVX2 allowed where the processor has it (avx2:1) or not (avx2:0); fit
// takes them one at a time.
// "fans/s" counts fitted fans.
#include "qyGeom/fit.h"

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "benchMain.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshReadObj.h"
#include "src/core/detail/avx2.h"
#include "testMeshes.h"

namespace
{

using qyLinear::Point;

struct Fans
{
    std::vector<Point> points; ///< the fans back to back
    std::vector<int> starts;   ///< fan i is points[starts[i]] to points[starts[i + 1]]
    std::string source;
};

const Fans& fans()
{
    static const Fans all = []
    {
        Fans out;
        qyGeom::CompactMesh mesh;
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = std::string(dir ? dir : ".") + "/bunny00.obj";
        if (std::ifstream(path).good() && qyGeom::meshReadObj(mesh, path.c_str()) &&
            mesh.getNumTriangles() > 0)
            out.source = "bunny00.obj";
        else
        {
            mesh = qyTest::makeTorus(280, 140);
            // Bumps, so that the fans are not all alike.
            float* xyz = mesh.getVerticesRaw();
            for (int v = 0; v < mesh.getNumVertices(); ++v)
                xyz[3 * std::size_t(v) + 2] += 0.01f * std::sin(37.0f * xyz[3 * std::size_t(v)]) *
                                               std::cos(23.0f * xyz[3 * std::size_t(v) + 1]);
            out.source = "torus";
        }
        qyGeom::MeshAdjTris adjTris;
        qyGeom::MeshAdjVertices adjVertices;
        qyGeom::meshAdjTris(mesh, adjTris);
        qyGeom::meshAdjVertices(mesh, adjTris, adjVertices);
        const float* xyz = mesh.getVerticesRaw();
        auto point = [&](int v)
        {
            const float* p = xyz + 3 * std::size_t(v);
            return Point(p[0], p[1], p[2]);
        };
        for (int v = 0; v < mesh.getNumVertices(); ++v)
        {
            const int k = adjVertices.numVertices(v);
            if (k < 3)
                continue;
            out.starts.push_back(int(out.points.size()));
            const int* ring = adjVertices.vertexIndices(v);
            for (int i = 0; i < k; ++i)
                out.points.push_back(point(ring[i]));
            out.points.push_back(point(v));
        }
        out.starts.push_back(int(out.points.size()));
        return out;
    }();
    return all;
}

void BM_FitEach(benchmark::State& state)
{
    const Fans& f = fans();
    const int count = int(f.starts.size()) - 1;
    const int group = int(state.range(0));
    const bool previous = qyGeom::detail::allowAvx2(state.range(1) != 0);
    const auto slots = static_cast<std::size_t>(group);
    std::vector<qyLinear::Plane> planes(slots);
    std::unique_ptr<bool[]> fitted(new bool[slots]);
    std::vector<int> n(slots);
    std::vector<const Point*> points(slots);
    for (auto _ : state)
        for (int first = 0; first < count; first += group)
        {
            const int size = std::min(group, count - first);
            for (int i = 0; i < size; ++i)
            {
                n[std::size_t(i)] =
                    f.starts[std::size_t(first + i + 1)] - f.starts[std::size_t(first + i)];
                points[std::size_t(i)] = f.points.data() + f.starts[std::size_t(first + i)];
            }
            qyGeom::fitEach(size, n.data(), points.data(), planes.data(), fitted.get());
            benchmark::DoNotOptimize(planes.data());
        }
    qyGeom::detail::allowAvx2(previous);
    state.SetLabel(f.source);
    state.counters["fans"] = count;
    state.counters["fans/s"] =
        benchmark::Counter(double(count), benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Fit(benchmark::State& state)
{
    const Fans& f = fans();
    const int count = int(f.starts.size()) - 1;
    qyLinear::Plane plane;
    for (auto _ : state)
        for (int i = 0; i < count; ++i)
        {
            const int start = f.starts[std::size_t(i)];
            benchmark::DoNotOptimize(
                qyGeom::fit(f.starts[std::size_t(i + 1)] - start, f.points.data() + start, plane));
            benchmark::DoNotOptimize(plane);
        }
    state.SetLabel(f.source);
    state.counters["fans"] = count;
    state.counters["fans/s"] =
        benchmark::Counter(double(count), benchmark::Counter::kIsIterationInvariantRate);
}

BENCHMARK(BM_FitEach)
    ->ArgNames({"group", "avx2"})
    ->Args({8, 1})
    ->Args({8, 0})
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fit)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv);
}
