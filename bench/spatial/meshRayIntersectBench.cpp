// Ray casting over whole meshes with RayTracer: the hierarchy's build, nearest-hit rays one at
// a time on the calling thread, and the batch on pools of 1 and 2 threads. Inputs: the
// 998,000-triangle UV sphere (1000 segments x 500 rings, the peer harness's sphere.obj) and,
// when present, $QYGEOM_PEER_DATA/bunny00.obj; sphere.obj is read from there too when present,
// otherwise the same sphere is made in code. The rays are the peer harness's million, drawn
// by its generator: from a sphere of radius the bounding box's diagonal around its centre,
// aimed at uniform points of the box.
// Items are rays (triangles for the build).
#include "qyGeom/meshRayIntersect.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <numbers>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "qyGeom/intersectRayTriangle.h"
#include "qyGeom/meshReadObj.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

constexpr int numRays = 1000000; // as many as the peers cast

std::string dataPath(const char* name)
{
    const char* dir = std::getenv("QYGEOM_PEER_DATA");
    return std::string(dir ? dir : ".") + "/" + name;
}

// Null when the file is missing; the sphere falls back to the same mesh made in code.
const CompactMesh* mesh(int which)
{
    static const CompactMesh sphere = []
    {
        CompactMesh m;
        const std::string path = dataPath("sphere.obj");
        if (std::ifstream(path).good() && qyGeom::meshReadObj(m, path.c_str()))
            return m;
        return qyTest::makeUVSphere(500, 1000);
    }();
    static const CompactMesh bunny = []
    {
        CompactMesh m;
        const std::string path = dataPath("bunny00.obj");
        if (std::ifstream(path).good())
            qyGeom::meshReadObj(m, path.c_str());
        return m;
    }();
    const CompactMesh* m = which == 0 ? &sphere : &bunny;
    return m->getNumTriangles() > 0 ? m : nullptr;
}

// Built on first use, one mesh at a time.
const qyGeom::RayTracer& tracer(int which)
{
    if (which == 0)
    {
        static const qyGeom::RayTracer sphereTracer(*mesh(0));
        return sphereTracer;
    }
    static const qyGeom::RayTracer bunnyTracer(*mesh(1));
    return bunnyTracer;
}

struct Rays
{
    std::vector<float> origins;
    std::vector<double> directions;
};

// The peers' generator (xorshift64, 53-bit doubles), so that both cast the same rays.
struct XorShift
{
    std::uint64_t s = 88172645463325252ull;
    double operator()()
    {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        return double(s >> 11) / double(1ull << 53);
    }
};

// The peer harness's ray set, draw for draw: an origin on the sphere of radius the bounding
// box's diagonal (box of the vertices in float, diagonal from float extents) around the box's
// centre, uniform by height and angle, aimed at a uniform point of the box; the direction
// normalised in double and rounded to float, as that harness hands it on.
const Rays& rays(int which)
{
    static Rays cache[2];
    Rays& r = cache[which];
    if (!r.origins.empty())
        return r;
    const CompactMesh& m = *mesh(which);
    const float* p = m.getVerticesRaw();
    float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
    for (std::size_t i = 0; i < 3 * std::size_t(m.getNumVertices()); ++i)
    {
        lo[i % 3] = std::min(lo[i % 3], p[i]);
        hi[i % 3] = std::max(hi[i % 3], p[i]);
    }
    double diag2 = 0;
    for (int k = 0; k < 3; ++k)
        diag2 += double(hi[k] - lo[k]) * (hi[k] - lo[k]);
    const double radius = std::sqrt(diag2);
    XorShift random;
    r.origins.resize(3 * std::size_t(numRays));
    r.directions.resize(3 * std::size_t(numRays));
    for (std::size_t i = 0; i < std::size_t(numRays); ++i)
    {
        const double z = 2 * random() - 1, a = 2 * std::numbers::pi * random();
        const double s = std::sqrt(1 - z * z);
        const double unit[3] = {s * std::cos(a), s * std::sin(a), z};
        double d[3], len = 0;
        for (std::size_t k = 0; k < 3; ++k)
        {
            const double c = 0.5 * (lo[k] + hi[k]);
            r.origins[3 * i + k] = float(c + radius * unit[k]);
            d[k] = lo[k] + (hi[k] - lo[k]) * random() - r.origins[3 * i + k];
            len += d[k] * d[k];
        }
        for (std::size_t k = 0; k < 3; ++k)
            r.directions[3 * i + k] = double(float(d[k] / std::sqrt(len)));
    }
    return r;
}

bool skipWithoutMesh(benchmark::State& state, int which)
{
    if (mesh(which))
        return false;
    state.SkipWithError("bunny00.obj not found (set QYGEOM_PEER_DATA)");
    return true;
}

void BM_Build(benchmark::State& state)
{
    const int which = int(state.range(0));
    if (skipWithoutMesh(state, which))
        return;
    for (auto _ : state)
    {
        qyGeom::RayTracer t(*mesh(which));
        benchmark::DoNotOptimize(t.getNumNodes());
    }
    state.SetItemsProcessed(state.iterations() * mesh(which)->getNumTriangles());
    state.SetLabel(which == 0 ? "sphere" : "bunny00");
}

void BM_RaysOneThread(benchmark::State& state)
{
    const int which = int(state.range(0));
    if (skipWithoutMesh(state, which))
        return;
    const qyGeom::RayTracer& t = tracer(which);
    const Rays& r = rays(which);
    int hits = 0;
    for (auto _ : state)
    {
        hits = 0;
        for (std::size_t i = 0; i < std::size_t(numRays); ++i)
        {
            const qyGeom::Ray ray(
                qyLinear::PointFlt(r.origins[3 * i], r.origins[3 * i + 1], r.origins[3 * i + 2]),
                qyLinear::Vector(r.directions[3 * i], r.directions[3 * i + 1],
                                 r.directions[3 * i + 2]));
            qyGeom::MeshRayHit hit;
            hits += t.intersect(ray, hit) ? 1 : 0;
        }
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * numRays);
    state.counters["hit_fraction"] = double(hits) / numRays;
    state.SetLabel(which == 0 ? "sphere" : "bunny00");
}

void BM_RayBatch(benchmark::State& state)
{
    const int which = int(state.range(0)), threads = int(state.range(1));
    if (skipWithoutMesh(state, which))
        return;
    const qyGeom::RayTracer& t = tracer(which);
    const Rays& r = rays(which);
    qyUtil::ThreadPool::get().setNumThreads(threads);
    std::vector<qyGeom::MeshRayHit> hits(numRays);
    int count = 0;
    for (auto _ : state)
        count = qyGeom::meshRayIntersect(t, numRays, r.origins.data(), r.directions.data(),
                                         hits.data());
    qyUtil::ThreadPool::get().setNumThreads(0);
    state.SetItemsProcessed(state.iterations() * numRays);
    state.counters["hit_fraction"] = double(count) / numRays;
    state.SetLabel(std::string(which == 0 ? "sphere" : "bunny00") +
                   " threads:" + std::to_string(threads));
}

BENCHMARK(BM_Build)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RaysOneThread)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
// Wall-clock time: the pool's threads do the work.
BENCHMARK(BM_RayBatch)
    ->Args({0, 1})
    ->Args({0, 2})
    ->Args({1, 1})
    ->Args({1, 2})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
