// Conjugate gradient on cotangent Laplacians: one iterate() step, and a whole solve to a
// relative residual of 1e-10 from x0 = 0, with each preconditioner.
//
// Matrices (as the peer harness builds them, so that the figures sit beside Eigen's):
// - grid: the 0.5-cotangent Laplacian of a flat 300 x 300 (and 500 x 500) quad grid split
//   into triangles
//   (diagonal a-c of every quad), restricted to the interior vertices (boundary pinned),
//   entries of magnitude <= 1e-12 dropped (the cot(90 deg) noise on the quad diagonals);
// - bunny: the same Laplacian of a closed real mesh plus 1e-3 * mean(diagonal) * I, read from
//   $QYGEOM_PEER_DATA/bunny00.obj (default: the working directory); skipped when absent.
// b is the harness's fixed pseudo-random vector.
//
// Counters: iters (steps that moved x, i.e. Eigen's count), setup_s (preconditioner build),
// s_per_iter ((solve - setup) / iters).
#include "qyGeom/ConjugateGradient.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

namespace
{

using qyGeom::ConjugateGradient;
using qyGeom::NVector;
using qyGeom::SparseElement;

struct Mesh
{
    std::vector<float> p;
    std::vector<int> t;
    int nv() const { return int(p.size() / 3); }
    int nt() const { return int(t.size() / 3); }
};

// Rows of (column, value) sorted by column, sums formed in triplet order.
using Rows = std::vector<std::vector<SparseElement>>;

struct Vec3
{
    double x, y, z;
};
Vec3 sub(Vec3 a, Vec3 b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
double dot(Vec3 a, Vec3 b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
Vec3 cross(Vec3 a, Vec3 b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

Rows cotLaplacian(const Mesh& m)
{
    std::vector<std::map<int, double>> rows(std::size_t(m.nv()));
    auto add = [&](int i, int j, double v)
    {
        auto [it, fresh] = rows[std::size_t(i)].emplace(j, v);
        if (!fresh)
            it->second += v;
    };
    auto P = [&](int i) {
        return Vec3{m.p[3 * std::size_t(i)], m.p[3 * std::size_t(i) + 1],
                    m.p[3 * std::size_t(i) + 2]};
    };
    for (int f = 0; f < m.nt(); ++f)
        for (int c = 0; c < 3; ++c)
        {
            const int i = m.t[3 * std::size_t(f) + std::size_t(c)];
            const int j = m.t[3 * std::size_t(f) + std::size_t((c + 1) % 3)];
            const int k = m.t[3 * std::size_t(f) + std::size_t((c + 2) % 3)];
            const Vec3 u = sub(P(j), P(i)), v = sub(P(k), P(i));
            const Vec3 n = cross(u, v);
            const double w = 0.5 * dot(u, v) / std::sqrt(dot(n, n));
            add(j, k, -w);
            add(k, j, -w);
            add(j, j, w);
            add(k, k, w);
        }
    Rows out(rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (const auto& [c, v] : rows[i])
            out[i].emplace_back(c, v);
    return out;
}

struct System
{
    Rows rows;
    NVector b;
    std::string error;
};

NVector harnessRhs(int n)
{
    NVector b(n);
    std::uint64_t s = 12345;
    for (int i = 0; i < n; ++i)
    {
        s = s * 6364136223846793005ull + 1442695040888963407ull;
        b[i] = double(s >> 11) / double(1ull << 53) * 2 - 1;
    }
    return b;
}

System makeGridSystem(int G)
{
    Mesh g;
    for (int j = 0; j <= G; ++j)
        for (int i = 0; i <= G; ++i)
            g.p.insert(g.p.end(), {float(i) / G, float(j) / G, 0.f});
    for (int j = 0; j < G; ++j)
        for (int i = 0; i < G; ++i)
        {
            const int a = j * (G + 1) + i, b = a + 1, c = a + G + 2, d = a + G + 1;
            g.t.insert(g.t.end(), {a, b, c, a, c, d});
        }
    const Rows L = cotLaplacian(g);
    std::vector<int> id(std::size_t(g.nv()), -1);
    int n = 0;
    for (int j = 1; j < G; ++j)
        for (int i = 1; i < G; ++i)
            id[std::size_t(j * (G + 1) + i)] = n++;
    System out;
    out.rows.resize(std::size_t(n));
    for (std::size_t r = 0; r < L.size(); ++r)
        for (const SparseElement& e : L[r])
            if (id[r] >= 0 && id[std::size_t(e.column)] >= 0 && std::abs(e.value) > 1e-12)
                out.rows[std::size_t(id[r])].emplace_back(id[std::size_t(e.column)], e.value);
    out.b = harnessRhs(n);
    return out;
}

bool readObj(const std::string& path, Mesh& m)
{
    std::ifstream in(path);
    if (!in)
        return false;
    std::string line;
    while (std::getline(in, line))
    {
        std::istringstream ls(line);
        std::string tag;
        ls >> tag;
        if (tag == "v")
        {
            float x, y, z;
            ls >> x >> y >> z;
            m.p.insert(m.p.end(), {x, y, z});
        }
        else if (tag == "f")
        {
            std::vector<int> f;
            std::string tok;
            while (ls >> tok)
                f.push_back(std::atoi(tok.c_str()) - 1);
            for (std::size_t k = 1; k + 1 < f.size(); ++k)
                m.t.insert(m.t.end(), {f[0], f[k], f[k + 1]});
        }
    }
    return true;
}

const System& bunnySystem()
{
    static const System sys = []
    {
        System out;
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = std::string(dir ? dir : ".") + "/bunny00.obj";
        Mesh m;
        if (!readObj(path, m))
        {
            out.error = "cannot read " + path;
            return out;
        }
        out.rows = cotLaplacian(m);
        double diag = 0.0;
        for (std::size_t i = 0; i < out.rows.size(); ++i)
            for (const SparseElement& e : out.rows[i])
                if (e.column == int(i))
                    diag += e.value;
        const double shift = 1e-3 * diag / double(out.rows.size());
        for (std::size_t i = 0; i < out.rows.size(); ++i)
            for (SparseElement& e : out.rows[i])
                if (e.column == int(i))
                    e.value += shift;
        out.b = harnessRhs(int(out.rows.size()));
        return out;
    }();
    return sys;
}

// 0: the 300 x 300 grid of the peer harness (89,401 unknowns); 1: bunny00; 2: a 500 x 500
// grid (249,001 unknowns, 251,001 vertices).
const System& systemFor(int which)
{
    if (which == 0)
    {
        static const System grid300 = makeGridSystem(300);
        return grid300;
    }
    if (which == 2)
    {
        static const System grid500 = makeGridSystem(500);
        return grid500;
    }
    return bunnySystem();
}

void fill(ConjugateGradient& cg, const Rows& rows)
{
    for (std::size_t i = 0; i < rows.size(); ++i)
        for (const SparseElement& e : rows[i])
            cg.A().addToElement(int(i), e.column, e.value);
}

void precondition(ConjugateGradient& cg, int kind)
{
    if (kind == 1)
        cg.initDiagonalPreconditioner();
    else if (kind == 2)
        cg.initIncompleteCholeskyPreconditioner();
}

const char* kindName(int kind)
{
    return kind == 0 ? "none" : kind == 1 ? "diagonal" : "incompleteCholesky";
}

std::string systemName(int which)
{
    return which == 0 ? "grid300" : which == 2 ? "grid500" : "bunny00";
}

using Clock = std::chrono::steady_clock;
double seconds(Clock::time_point a, Clock::time_point b)
{
    return std::chrono::duration<double>(b - a).count();
}

// Whole solve: preconditioner build + initialize + steps until done.
void BM_CgSolve(benchmark::State& state)
{
    const int which = int(state.range(0)), kind = int(state.range(1));
    const System& sys = systemFor(which);
    if (!sys.error.empty())
    {
        state.SkipWithError(sys.error.c_str());
        return;
    }
    const int n = int(sys.rows.size());
    int iters = 0;
    double setup = 0.0, total = 0.0, relRes = 0.0;
    for (auto _ : state)
    {
        ConjugateGradient cg(n);
        fill(cg, sys.rows);
        const auto t0 = Clock::now();
        precondition(cg, kind);
        const auto t1 = Clock::now();
        cg.initialize(sys.b, NVector(n));
        ConjugateGradient::Status status(0);
        while (!(status = cg.iterate(1e-10, 1e-300)).isDone())
        {
        }
        const auto t2 = Clock::now();
        state.SetIterationTime(seconds(t0, t2));
        if (status.code() != ConjugateGradient::Converged)
            state.SkipWithError("did not converge");
        iters = cg.getIteration() - 1; // the last call only reported convergence
        setup += seconds(t0, t1);
        total += seconds(t0, t2);
        relRes = cg.getConvergenceValue();
    }
    const double runs = double(state.iterations());
    state.counters["iters"] = iters;
    state.counters["setup_s"] = setup / runs;
    state.counters["s_per_iter"] = (total - setup) / runs / std::max(iters, 1);
    state.counters["rel_res"] = relRes;
    state.SetLabel(systemName(which) + " " + kindName(kind));
}

// One step, timed alone; the solver restarts from x0 = 0 when it finishes.
void BM_CgIterate(benchmark::State& state)
{
    const int which = int(state.range(0)), kind = int(state.range(1));
    const System& sys = systemFor(which);
    if (!sys.error.empty())
    {
        state.SkipWithError(sys.error.c_str());
        return;
    }
    const int n = int(sys.rows.size());
    ConjugateGradient cg(n);
    fill(cg, sys.rows);
    precondition(cg, kind);
    cg.initialize(sys.b, NVector(n));
    for (auto _ : state)
    {
        if (cg.iterate(1e-10, 1e-300).isDone())
        {
            state.PauseTiming();
            cg.initialize(sys.b, NVector(n));
            state.ResumeTiming();
        }
    }
    state.SetLabel(systemName(which) + " " + kindName(kind));
}

} // namespace

BENCHMARK(BM_CgSolve)
    ->ArgsProduct({{0, 1, 2}, {1, 2}})
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(2);
BENCHMARK(BM_CgIterate)->ArgsProduct({{0, 1, 2}, {1, 2}})->Unit(benchmark::kMicrosecond);
