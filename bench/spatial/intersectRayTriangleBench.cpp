// The single ray/triangle tests over a million random ray/triangle pairs: triangles with
// corners in the unit cube, rays from points of the cube in random directions (about one pair
// in eight hits). Items are tests.
#include "qyGeom/intersectRayTriangle.h"

#include <random>
#include <vector>

#include <benchmark/benchmark.h>

namespace
{

constexpr int numPairs = 1 << 20;

struct Pairs
{
    std::vector<float> corners; // 9 per pair
    std::vector<float> origins; // 3 per pair
    std::vector<double> dirs;   // 3 per pair
};

const Pairs& pairs()
{
    static const Pairs p = []
    {
        Pairs out;
        std::mt19937 random(2024);
        std::uniform_real_distribution<float> unit(0, 1);
        std::uniform_real_distribution<double> signedUnit(-1, 1);
        for (int i = 0; i < numPairs; ++i)
        {
            for (int k = 0; k < 9; ++k)
                out.corners.push_back(unit(random));
            for (int k = 0; k < 3; ++k)
                out.origins.push_back(unit(random));
            for (int k = 0; k < 3; ++k)
                out.dirs.push_back(signedUnit(random));
        }
        return out;
    }();
    return p;
}

template <bool cull> void BM_RayTriangle(benchmark::State& state)
{
    const Pairs& p = pairs();
    int hits = 0;
    for (auto _ : state)
    {
        hits = 0;
        for (std::size_t i = 0; i < std::size_t(numPairs); ++i)
        {
            const float* c = &p.corners[9 * i];
            double t, u, v;
            const bool hit = cull ? qyGeom::intersectRayTriangleCull(
                                        &p.dirs[3 * i], &p.origins[3 * i], c, c + 3, c + 6, t, u, v)
                                  : qyGeom::intersectRayTriangle(&p.dirs[3 * i], &p.origins[3 * i],
                                                                 c, c + 3, c + 6, t, u, v);
            hits += hit ? 1 : 0;
        }
        benchmark::DoNotOptimize(hits);
    }
    state.SetItemsProcessed(state.iterations() * numPairs);
    state.counters["hit_fraction"] = double(hits) / numPairs;
}
BENCHMARK(BM_RayTriangle<false>)->Name("intersectRayTriangle")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RayTriangle<true>)->Name("intersectRayTriangleCull")->Unit(benchmark::kMillisecond);

} // namespace
