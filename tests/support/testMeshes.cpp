// Test meshes.
#include "testMeshes.h"

#include <cmath>
#include <map>
#include <numbers>
#include <stdexcept>
#include <utility>

#include "base/ThreadPool.h"
#include "model/debugChannel.h"

namespace qyTest
{
namespace
{

struct Builder
{
    std::vector<float> xyz;
    std::vector<int> tris;

    int vertex(double x, double y, double z)
    {
        xyz.push_back(float(x));
        xyz.push_back(float(y));
        xyz.push_back(float(z));
        return int(xyz.size() / 3 - 1);
    }
    void tri(int a, int b, int c)
    {
        tris.push_back(a);
        tris.push_back(b);
        tris.push_back(c);
    }
    // Two triangles a b c, a c d of the counter-clockwise quad a b c d.
    void quad(int a, int b, int c, int d)
    {
        tri(a, b, c);
        tri(a, c, d);
    }
    CompactMesh build() const { return makeMesh(xyz, tris); }
};

} // namespace

CompactMesh makeMesh(const std::vector<float>& xyz, const std::vector<int>& triangles)
{
    CompactMesh mesh;
    mesh.copyVertices(int(xyz.size() / 3), reinterpret_cast<const qyGeom::MeshVertex*>(xyz.data()));
    mesh.copyTriangles(int(triangles.size() / 3), triangles.data());
    return mesh;
}

CompactMesh withUnusedVertices(const CompactMesh& mesh, int atStart, int inMiddle, int atEnd)
{
    const int n = mesh.getNumVertices(), half = n / 2;
    const float* v = mesh.getVerticesRaw();
    std::vector<float> xyz;
    auto unused = [&xyz](int count)
    {
        for (int i = 0; i < count; ++i)
            xyz.insert(xyz.end(), {1e3f, -1e3f, 7.0f});
    };
    unused(atStart);
    xyz.insert(xyz.end(), v, v + 3 * std::size_t(half));
    unused(inMiddle);
    xyz.insert(xyz.end(), v + 3 * std::size_t(half), v + 3 * std::size_t(n));
    unused(atEnd);
    std::vector<int> tris(mesh.getTrianglesRaw(),
                          mesh.getTrianglesRaw() + 3 * std::size_t(mesh.getNumTriangles()));
    for (int& c : tris)
        c += atStart + (c >= half ? inMiddle : 0);
    return makeMesh(xyz, tris);
}

CompactMesh makeGrid(int nx, int ny)
{
    Builder b;
    for (int j = 0; j <= ny; ++j)
        for (int i = 0; i <= nx; ++i)
            b.vertex(i, j, 0);
    const int row = nx + 1;
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i)
            b.quad(j * row + i, j * row + i + 1, (j + 1) * row + i + 1, (j + 1) * row + i);
    return b.build();
}

CompactMesh makeCube()
{
    Builder b;
    for (int k = 0; k < 8; ++k)
        b.vertex(k & 1 ? 1 : -1, k & 2 ? 1 : -1, k & 4 ? 1 : -1);
    b.quad(0, 2, 3, 1); // z = -1, facing -z
    b.quad(4, 5, 7, 6); // z = +1
    b.quad(0, 1, 5, 4); // y = -1
    b.quad(2, 6, 7, 3); // y = +1
    b.quad(0, 4, 6, 2); // x = -1
    b.quad(1, 3, 7, 5); // x = +1
    return b.build();
}

CompactMesh makeIcosphere(int levels)
{
    const double t = (1.0 + std::sqrt(5.0)) / 2.0;
    Builder b;
    const double base[12][3] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0},
                                {0, -1, t}, {0, 1, t}, {0, -1, -t}, {0, 1, -t},
                                {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    std::vector<double> p; // unit positions in double while subdividing
    for (const auto& v : base)
    {
        const double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        p.insert(p.end(), {v[0] / l, v[1] / l, v[2] / l});
    }
    std::vector<int> tris = {0, 11, 5,  0, 5,  1, 0, 1, 7, 0, 7,  10, 0, 10, 11, 1, 5, 9, 5, 11,
                             4, 11, 10, 2, 10, 7, 6, 7, 1, 8, 3,  9,  4, 3,  4,  2, 3, 2, 6, 3,
                             6, 8,  3,  8, 9,  4, 9, 5, 2, 4, 11, 6,  2, 10, 8,  6, 7, 9, 8, 1};
    for (int level = 0; level < levels; ++level)
    {
        std::map<std::pair<int, int>, int> midpoints;
        auto mid = [&](int a, int c)
        {
            const auto key = std::minmax(a, c);
            auto it = midpoints.find(key);
            if (it != midpoints.end())
                return it->second;
            double m[3];
            for (int k = 0; k < 3; ++k)
                m[k] = p[3 * std::size_t(a) + k] + p[3 * std::size_t(c) + k];
            const double l = std::sqrt(m[0] * m[0] + m[1] * m[1] + m[2] * m[2]);
            p.insert(p.end(), {m[0] / l, m[1] / l, m[2] / l});
            const int idx = int(p.size() / 3 - 1);
            midpoints.emplace(key, idx);
            return idx;
        };
        std::vector<int> next;
        next.reserve(tris.size() * 4);
        for (std::size_t i = 0; i < tris.size(); i += 3)
        {
            const int a = tris[i], bb = tris[i + 1], c = tris[i + 2];
            const int ab = mid(a, bb), bc = mid(bb, c), ca = mid(c, a);
            next.insert(next.end(), {a, ab, ca, bb, bc, ab, c, ca, bc, ab, bc, ca});
        }
        tris.swap(next);
    }
    for (std::size_t i = 0; i < p.size(); i += 3)
        b.vertex(p[i], p[i + 1], p[i + 2]);
    b.tris = std::move(tris);
    return b.build();
}

CompactMesh makeUVSphere(int rings, int segments)
{
    Builder b;
    const double pi = std::numbers::pi;
    const int north = b.vertex(0, 0, 1);
    for (int r = 1; r < rings; ++r)
    {
        const double theta = pi * r / rings;
        for (int s = 0; s < segments; ++s)
        {
            const double phi = 2 * pi * s / segments;
            b.vertex(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                     std::cos(theta));
        }
    }
    const int south = b.vertex(0, 0, -1);
    auto at = [&](int r, int s) { return 1 + (r - 1) * segments + (s % segments); };
    for (int s = 0; s < segments; ++s)
    {
        b.tri(north, at(1, s), at(1, s + 1));
        for (int r = 1; r + 1 < rings; ++r)
            b.quad(at(r, s), at(r + 1, s), at(r + 1, s + 1), at(r, s + 1));
        b.tri(south, at(rings - 1, s + 1), at(rings - 1, s));
    }
    return b.build();
}

CompactMesh makeTorus(int nu, int nv, double R, double r)
{
    Builder b;
    const double pi = std::numbers::pi;
    for (int i = 0; i < nu; ++i)
    {
        const double u = 2 * pi * i / nu;
        for (int j = 0; j < nv; ++j)
        {
            const double v = 2 * pi * j / nv;
            b.vertex((R + r * std::cos(v)) * std::cos(u), (R + r * std::cos(v)) * std::sin(u),
                     r * std::sin(v));
        }
    }
    auto at = [&](int i, int j) { return (i % nu) * nv + (j % nv); };
    for (int i = 0; i < nu; ++i)
        for (int j = 0; j < nv; ++j)
            b.quad(at(i, j), at(i + 1, j), at(i + 1, j + 1), at(i, j + 1));
    return b.build();
}

CompactMesh makeHemisphere(int rings, int segments)
{
    Builder b;
    const double pi = std::numbers::pi;
    const int pole = b.vertex(0, 0, 1);
    for (int r = 1; r <= rings; ++r)
    {
        const double theta = 0.5 * pi * r / rings;
        for (int s = 0; s < segments; ++s)
        {
            const double phi = 2 * pi * s / segments;
            b.vertex(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                     r == rings ? 0.0 : std::cos(theta));
        }
    }
    auto at = [&](int r, int s) { return 1 + (r - 1) * segments + (s % segments); };
    for (int s = 0; s < segments; ++s)
    {
        b.tri(pole, at(1, s), at(1, s + 1));
        for (int r = 1; r < rings; ++r)
            b.quad(at(r, s), at(r + 1, s), at(r + 1, s + 1), at(r, s + 1));
    }
    return b.build();
}

CompactMesh makeMoebiusBand(int n)
{
    std::vector<float> xyz;
    for (int i = 0; i < n; ++i)
        for (int side = 0; side < 2; ++side)
            xyz.insert(xyz.end(), {float(i), float(side), 0});
    std::vector<int> tris;
    for (int i = 0; i < n; ++i)
    {
        int a = 2 * i, b = 2 * i + 1, c = 2 * ((i + 1) % n), d = 2 * ((i + 1) % n) + 1;
        if (i == n - 1)
            std::swap(c, d);
        tris.insert(tris.end(), {a, c, d, a, d, b});
    }
    return makeMesh(xyz, tris);
}

CompactMesh makeTriangleSoup(const CompactMesh& mesh)
{
    Builder b;
    const qyGeom::MeshVertex* v = mesh.getVertices();
    const qyGeom::MeshTriangle* t = mesh.getTriangles();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
    {
        int c[3];
        for (int k = 0; k < 3; ++k)
            c[k] = b.vertex(v[t[i][k]].x, v[t[i][k]].y, v[t[i][k]].z);
        b.tri(c[0], c[1], c[2]);
    }
    return b.build();
}

namespace testMeshes
{
std::vector<TestMesh> all()
{
    std::vector<TestMesh> out;
    out.push_back({"empty", CompactMesh()});
    out.push_back({"one triangle", makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2})});
    out.push_back({"tetrahedron", makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1},
                                           {0, 2, 1, 0, 1, 3, 1, 2, 3, 0, 3, 2})});
    out.push_back(
        {"open quad", makeMesh({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, {0, 1, 2, 0, 2, 3})});
    out.push_back(
        {"two components",
         makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 5, 0, 0, 6, 0, 0, 5, 1, 0}, {0, 1, 2, 3, 4, 5})});
    out.push_back({"cube", makeCube()});
    out.push_back({"non-manifold edge", makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 0, -1, 0, 0, 0, 1},
                                                 {0, 1, 2, 1, 0, 3, 0, 1, 4})});
    out.push_back({"zero-area triangle", makeMesh({0, 0, 0, 1, 0, 0, 2, 0, 0}, {0, 1, 2})});
    out.push_back(
        {"repeated-index triangle", makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 2, 0, 0, 1})});
    out.push_back(
        {"flipped face", makeMesh({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, {0, 1, 2, 0, 3, 2})});
    out.push_back({"isolated vertex", makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 7, 7, 7}, {0, 1, 2})});
    out.push_back({"vertices only", makeMesh({0, 0, 0, 1, 0, 0, 3, 3, 3}, {})});
    return out;
}

CompactMesh get(const std::string& name)
{
    for (TestMesh& t : all())
        if (t.name == name)
            return std::move(t.mesh);
    throw std::out_of_range("no test mesh named " + name);
}
} // namespace testMeshes

void RecordingMesh::modified(qyGeom::MeshModification& modification)
{
    m_entries.push_back({modification.getType(), modification.getFlags()});
    CompactMesh::modified(modification);
}

qyUtil::Progress& quietProgress()
{
    static qyUtil::Progress progress;
    return progress;
}

DebugCapture::DebugCapture() : m_wasEnabled(qyGeom::debugChannel().isEnabled())
{
    qyGeom::debugChannel().setSink([this](const char* text) { m_text += text; });
    qyGeom::debugChannel().setEnabled(true);
}

DebugCapture::~DebugCapture()
{
    qyGeom::debugChannel().setEnabled(m_wasEnabled);
    qyGeom::debugChannel().setSink({});
}

ScopedThreadCount::ScopedThreadCount(int numThreads)
    : m_saved(qyUtil::ThreadPool::get().getNumThreads())
{
    qyUtil::ThreadPool::get().setNumThreads(numThreads);
}

ScopedThreadCount::~ScopedThreadCount()
{
    qyUtil::ThreadPool::get().setNumThreads(m_saved);
}

} // namespace qyTest
