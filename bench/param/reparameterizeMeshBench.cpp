// Flattening speed and quality: hemispheres of growing size, a cut-open cylinder, and the peer
// harness's real meshes when their OBJ files are present (QYGEOM_PEER_DATA, default:
// the working directory). Quality counters: flipped UV triangles (orientation against the
// majority's), mean and worst corner-angle error in degrees, and the mean conformal ratio
// (larger over smaller singular value of each triangle's map, 1 = conformal).
#include "qyGeom/reparameterizeMesh.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "base/AppOutput.h"
#include "qyGeom/cutSurface.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;

namespace
{

// Positions and faces of an OBJ file (v and f lines; polygons as fans); empty if unreadable.
CompactMesh loadObj(const std::string& path)
{
    std::ifstream in(path);
    std::vector<float> xyz;
    std::vector<int> tris;
    std::string line;
    while (std::getline(in, line))
    {
        std::istringstream s(line);
        std::string tag;
        s >> tag;
        if (tag == "v")
        {
            float x, y, z;
            s >> x >> y >> z;
            xyz.insert(xyz.end(), {x, y, z});
        }
        else if (tag == "f")
        {
            std::vector<int> face;
            std::string corner;
            while (s >> corner)
            {
                const int i = std::atoi(corner.c_str());
                face.push_back(i < 0 ? int(xyz.size() / 3) + i : i - 1);
            }
            for (std::size_t k = 2; k < face.size(); ++k)
                tris.insert(tris.end(), {face[0], face[k - 1], face[k]});
        }
    }
    return qyTest::makeMesh(xyz, tris);
}

std::string dataPath(const char* name)
{
    const char* dir = std::getenv("QYGEOM_PEER_DATA");
    return std::string(dir ? dir : ".") + "/" + name;
}

struct Quality
{
    int flipped = 0;
    double meanAngleError = 0.0, worstAngleError = 0.0, meanRatio = 0.0;
};

Quality measure(const CompactMesh& m)
{
    Quality q;
    const qyGeom::MeshUV* uv = m.getUVs();
    const qyGeom::MeshVertex* p = m.getVertices();
    const int* t = m.getTrianglesRaw();
    int positive = 0, corners = 0, counted = 0;
    for (int i = 0; i < m.getNumTriangles(); ++i)
    {
        const int* c = t + 3 * i;
        const double area2 = double(uv[c[1]].u - uv[c[0]].u) * (uv[c[2]].v - uv[c[0]].v) -
                             double(uv[c[1]].v - uv[c[0]].v) * (uv[c[2]].u - uv[c[0]].u);
        positive += area2 > 0.0;
        // Corner angles in 3D and in UV.
        for (int k = 0; k < 3; ++k)
        {
            const int a = c[k], b = c[(k + 1) % 3], d = c[(k + 2) % 3];
            const double a3 =
                qyLinear::angle(p[b].asPoint() - p[a].asPoint(), p[d].asPoint() - p[a].asPoint());
            const double ux = uv[b].u - uv[a].u, uy = uv[b].v - uv[a].v;
            const double vx = uv[d].u - uv[a].u, vy = uv[d].v - uv[a].v;
            const double a2 = std::atan2(std::fabs(ux * vy - uy * vx), ux * vx + uy * vy);
            const double err = std::fabs(a2 - a3) * 180.0 / M_PI;
            if (std::isfinite(err))
            {
                q.meanAngleError += err;
                q.worstAngleError = std::max(q.worstAngleError, err);
                ++corners;
            }
        }
        // Singular values of the map from the triangle's own plane frame to UV.
        const qyLinear::Vector e1 = p[c[1]].asPoint() - p[c[0]].asPoint();
        const qyLinear::Vector e2 = p[c[2]].asPoint() - p[c[0]].asPoint();
        const double l1 = e1.length();
        const qyLinear::Vector n = qyLinear::cross(e1, e2);
        if (!(l1 > 0.0) || !(n.length() > 0.0))
            continue;
        const qyLinear::Vector x = e1 / l1, y = qyLinear::cross(n / n.length(), x);
        const double x1 = l1, x2 = qyLinear::dot(e2, x), y2 = qyLinear::dot(e2, y);
        const double du1 = uv[c[1]].u - uv[c[0]].u, dv1 = uv[c[1]].v - uv[c[0]].v;
        const double du2 = uv[c[2]].u - uv[c[0]].u, dv2 = uv[c[2]].v - uv[c[0]].v;
        // J = [du1 du2; dv1 dv2] * inverse([x1 x2; 0 y2]).
        const double a = du1 / x1, b = (du2 - a * x2) / y2;
        const double cc = dv1 / x1, d = (dv2 - cc * x2) / y2;
        const double s = a * a + b * b + cc * cc + d * d, det = std::fabs(a * d - b * cc);
        const double root = std::sqrt(std::max(0.0, s * s / 4 - det * det));
        const double big = std::sqrt(s / 2 + root), small = std::sqrt(std::max(0.0, s / 2 - root));
        if (small > 0.0 && std::isfinite(big / small))
        {
            q.meanRatio += big / small;
            ++counted;
        }
    }
    q.flipped = std::min(positive, m.getNumTriangles() - positive);
    q.meanAngleError /= std::max(1, corners);
    q.meanRatio /= std::max(1, counted);
    return q;
}

void setCounters(benchmark::State& state, const CompactMesh& m, bool ok)
{
    if (!ok || !m.getUVs())
    {
        state.SkipWithError("flatten returned false");
        return;
    }
    const Quality q = measure(m);
    state.counters["ok"] = ok;
    state.counters["verts"] = m.getNumVertices();
    state.counters["tris"] = m.getNumTriangles();
    state.counters["flipped"] = q.flipped;
    state.counters["meanAngleErrDeg"] = q.meanAngleError;
    state.counters["worstAngleErrDeg"] = q.worstAngleError;
    state.counters["meanConfRatio"] = q.meanRatio;
}

// The caller's mesh is flattened as given: a closed mesh is cut inside the flattener, so its
// seam vertices carry one side's UVs; `cutFirst` cuts it here and flattens the cut mesh with
// compaction off instead, which measures the layout itself.
void flattenCase(benchmark::State& state, const CompactMesh& input, bool cutFirst)
{
    if (input.getNumTriangles() == 0)
    {
        state.SkipWithError("mesh not found");
        return;
    }
    qyOS::AppOutput::getInstance().setSink([](qyOS::AppOutput::Kind, const char*) {});
    CompactMesh source = input;
    if (cutFirst)
    {
        qyGeom::CutRegion region;
        qyGeom::cutSurface(source, region, true);
    }
    CompactMesh mesh;
    bool ok = false;
    for (auto _ : state)
    {
        state.PauseTiming();
        mesh = source;
        state.ResumeTiming();
        qyGeom::reparameterizeMesh flattener(mesh);
        flattener.enableMeshCompact(!cutFirst);
        ok = flattener.flatten();
        benchmark::DoNotOptimize(ok);
    }
    setCounters(state, mesh, ok);
    qyOS::AppOutput::getInstance().setSink({});
}

void BM_FlattenHemisphere(benchmark::State& state)
{
    // rings x 4 rings segments: about 4 rings^2 vertices.
    const int rings = int(state.range(0));
    flattenCase(state, qyTest::makeHemisphere(rings, 4 * rings), false);
}
BENCHMARK(BM_FlattenHemisphere)
    ->Arg(50)
    ->Arg(158)
    ->Arg(500)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);

void BM_FlattenObj(benchmark::State& state, const char* name, bool cutFirst)
{
    static std::vector<std::pair<std::string, CompactMesh>> loaded;
    const CompactMesh* mesh = nullptr;
    for (auto& entry : loaded)
        if (entry.first == name)
            mesh = &entry.second;
    if (!mesh)
    {
        loaded.emplace_back(name, loadObj(dataPath(name)));
        mesh = &loaded.back().second;
    }
    flattenCase(state, *mesh, cutFirst);
}
BENCHMARK_CAPTURE(BM_FlattenObj, hemisphere, "hemisphere.obj", false)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, mushroom, "mushroom.obj", false)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, lionHead, "lion-head.obj", false)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, mannequinDevil, "mannequin-devil.obj", false)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, elephantWithHoles, "elephant-with-holes.obj", false)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, sharkWithHoles, "mech-holes-shark.obj", false)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, bunnyCutFirst, "bunny00.obj", true)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, elephantGenus3CutFirst, "refined_elephant.obj", true)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
// Closed animals whose legs, heads and tails fold unless the cut reaches their tips.
BENCHMARK_CAPTURE(BM_FlattenObj, cowCutFirst, "cow.obj", true)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, camelCutFirst, "camel.obj", true)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);
BENCHMARK_CAPTURE(BM_FlattenObj, dinoCutFirst, "dino.obj", true)
    ->Unit(benchmark::kSecond)
    ->Iterations(1);

void BM_FlattenCutCylinder(benchmark::State& state)
{
    // An open cylinder (radius 1, height 2) cut open along a seam whose vertices are stored
    // twice; compaction off keeps the cut.
    const int rows = 100, segments = 300;
    std::vector<float> xyz;
    std::vector<int> tris;
    for (int i = 0; i <= rows; ++i)
        for (int j = 0; j <= segments; ++j)
        {
            const double a = 2.0 * M_PI * (j % segments) / segments;
            xyz.insert(xyz.end(), {float(std::cos(a)), float(std::sin(a)), float(2.0 * i / rows)});
        }
    const int w = segments + 1;
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < segments; ++j)
        {
            const int a = i * w + j, b = a + 1, c = a + w, d = c + 1;
            tris.insert(tris.end(), {a, b, d, a, d, c});
        }
    flattenCase(state, qyTest::makeMesh(xyz, tris), true);
}
BENCHMARK(BM_FlattenCutCylinder)->Unit(benchmark::kSecond)->Iterations(1);

} // namespace

BENCHMARK_MAIN();
