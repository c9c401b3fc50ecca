// The mesh pipeline that the fuzz targets run on whatever a reader returns: weld, adjacency,
// boundaries, components, normals, curvature, orientation, the disk cut and the flattening,
// each followed by checks of what its header promises. A broken promise traps, so that the
// fuzzer reports it as a crash. The whole pipeline runs once with one pool thread and once
// with two, and everything it produced must be the same bit for bit.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <utility>
#include <vector>

#include "base/AppOutput.h"
#include "base/Linear.h"
#include "base/Progress.h"
#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/Remap.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/cutSurface.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/meshComputeNormals.h"
#include "qyGeom/meshCurvature.h"
#include "qyGeom/reparameterizeMesh.h"

// Traps at the failed check's own line, so the crash report names the broken promise.
#define QYFUZZ_CHECK(condition)                                                                    \
    do                                                                                             \
    {                                                                                              \
        if (!(condition))                                                                          \
            __builtin_trap();                                                                      \
    } while (0)

namespace qyFuzz
{

namespace pipeline
{

// The steps whose cost grows faster than the mesh (curvature fans, the cut's shortest paths,
// the flattening's solve) run only on meshes up to this size, so every input stays fast.
constexpr int maxTrianglesForHeavySteps = 3000;
constexpr int maxVerticesForHeavySteps = 3000;
// UVs may stray this far outside the unit square through rounding of the final fit.
constexpr float uvSlack = 1e-4f;

// Everything one run of the pipeline produced, as raw bytes, for the comparison of the runs
// with different thread counts.
class Record
{
public:
    template <class T> void add(const T* data, std::size_t count)
    {
        addCount(count);
        if (count)
        {
            const auto* p = reinterpret_cast<const unsigned char*>(data);
            m_bytes.insert(m_bytes.end(), p, p + sizeof(T) * count);
        }
    }
    void addCount(std::size_t n)
    {
        const auto* p = reinterpret_cast<const unsigned char*>(&n);
        m_bytes.insert(m_bytes.end(), p, p + sizeof n);
    }
    void addMesh(const qyGeom::CompactMesh& mesh)
    {
        add(mesh.getVerticesRaw(), 3 * std::size_t(mesh.getNumVertices()));
        add(mesh.getTrianglesRaw(), 3 * std::size_t(mesh.getNumTriangles()));
        addCount(mesh.getNormalsRaw() != nullptr);
        if (mesh.getNormalsRaw())
            add(mesh.getNormalsRaw(), 3 * std::size_t(mesh.getNumVertices()));
        addCount(mesh.getUVsRaw() != nullptr);
        if (mesh.getUVsRaw())
            add(mesh.getUVsRaw(), 2 * std::size_t(mesh.getNumVertices()));
    }
    void addSets(const qyGeom::ArrayOfSets& sets)
    {
        addCount(std::size_t(sets.getNumSets()));
        for (int i = 0; i < sets.getNumSets(); ++i)
            add(sets.getSet(i), std::size_t(sets.getSetSize(i)));
    }
    bool operator==(const Record& other) const { return m_bytes == other.m_bytes; }

private:
    std::vector<unsigned char> m_bytes;
};

inline bool sameBytes(const void* a, const void* b, std::size_t bytes)
{
    return bytes == 0 || (a && b && std::memcmp(a, b, bytes) == 0);
}

inline bool sameGeometry(const qyGeom::CompactMesh& a, const qyGeom::CompactMesh& b)
{
    return a.getNumVertices() == b.getNumVertices() && a.getNumTriangles() == b.getNumTriangles() &&
           sameBytes(a.getVerticesRaw(), b.getVerticesRaw(),
                     sizeof(float) * 3 * std::size_t(a.getNumVertices())) &&
           sameBytes(a.getTrianglesRaw(), b.getTrianglesRaw(),
                     sizeof(int) * 3 * std::size_t(a.getNumTriangles()));
}

inline bool sameUVs(const qyGeom::CompactMesh& a, const qyGeom::CompactMesh& b)
{
    if ((a.getUVsRaw() == nullptr) != (b.getUVsRaw() == nullptr))
        return false;
    return !a.getUVsRaw() || (a.getNumVertices() == b.getNumVertices() &&
                              sameBytes(a.getUVsRaw(), b.getUVsRaw(),
                                        sizeof(float) * 2 * std::size_t(a.getNumVertices())));
}

inline bool trianglesInRange(const qyGeom::CompactMesh& mesh)
{
    const int nv = mesh.getNumVertices();
    const int* tris = mesh.getTrianglesRaw();
    for (std::ptrdiff_t i = 0; i < 3 * std::ptrdiff_t(mesh.getNumTriangles()); ++i)
        if (tris[i] < 0 || tris[i] >= nv)
            return false;
    return true;
}

inline bool finite3(const float* p)
{
    return std::isfinite(p[0]) && std::isfinite(p[1]) && std::isfinite(p[2]);
}

// ---------------------------------------------------------------------------------------
// Weld

// The key that the weld orders and compares vertices by: the position, then with explicit
// normals the normal, then with explicit normals and UVs the UV.
struct WeldKey
{
    const float* positions;
    const float* normals; // null unless explicit
    const float* uvs;     // null unless explicit normals and UVs

    explicit WeldKey(const qyGeom::CompactMesh& mesh)
        : positions(mesh.getVerticesRaw()),
          normals(mesh.getNormalsRaw() && !mesh.getNormalsComputed() ? mesh.getNormalsRaw()
                                                                     : nullptr),
          uvs(normals ? mesh.getUVsRaw() : nullptr)
    {
    }

    template <class Visit> void forComponents(int a, int b, Visit visit) const
    {
        for (int k = 0; k < 3; ++k)
            visit(positions[3 * std::ptrdiff_t(a) + k], positions[3 * std::ptrdiff_t(b) + k]);
        if (normals)
            for (int k = 0; k < 3; ++k)
                visit(normals[3 * std::ptrdiff_t(a) + k], normals[3 * std::ptrdiff_t(b) + k]);
        if (uvs)
            for (int k = 0; k < 2; ++k)
                visit(uvs[2 * std::ptrdiff_t(a) + k], uvs[2 * std::ptrdiff_t(b) + k]);
    }

    // Ascending in each component, +0 equal to -0, NaN after every number: -1, 0 or 1.
    int order(int a, int b) const
    {
        int result = 0;
        forComponents(a, b,
                      [&](float x, float y)
                      {
                          if (result != 0)
                              return;
                          const bool nx = std::isnan(x), ny = std::isnan(y);
                          if (nx || ny)
                              result = nx == ny ? 0 : (nx ? 1 : -1);
                          else
                              result = x < y ? -1 : (y < x ? 1 : 0);
                      });
        return result;
    }

    // Welded together: every component equal as floats (a NaN never is).
    bool equal(int a, int b) const
    {
        bool same = true;
        forComponents(a, b, [&](float x, float y) { same = same && x == y; });
        return same;
    }
};

// No two vertices of the welded mesh may be equal keys: they would have been one run.
inline void checkNothingLeftToWeld(const qyGeom::CompactMesh& mesh)
{
    const WeldKey key(mesh);
    std::vector<int> order(std::size_t(mesh.getNumVertices()));
    for (int i = 0; i < mesh.getNumVertices(); ++i)
        order[std::size_t(i)] = i;
    std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return key.order(a, b) < 0; });
    for (std::size_t i = 1; i < order.size(); ++i)
        QYFUZZ_CHECK(!key.equal(order[i - 1], order[i]));
}

inline void checkWeld(const qyGeom::CompactMesh& before, const qyGeom::CompactMesh& after,
                      const qyGeom::Remap& remap)
{
    const int nv = before.getNumVertices(), nvAfter = after.getNumVertices();
    QYFUZZ_CHECK(after.getNumTriangles() == before.getNumTriangles());
    QYFUZZ_CHECK(trianglesInRange(after));
    checkNothingLeftToWeld(after);
    if (remap.isSequential())
    {
        // Nothing welded: the mesh is untouched, its vertex order included.
        QYFUZZ_CHECK(sameGeometry(before, after));
        return;
    }
    QYFUZZ_CHECK(remap.getDomainSize() == nv);
    QYFUZZ_CHECK(remap.getRangeSize() == nvAfter);
    QYFUZZ_CHECK(nvAfter < nv);
    // Every old vertex lands on a new one, every new one is reached, and each new vertex
    // carries the data of the highest old vertex of its run.
    std::vector<int> last(std::size_t(nvAfter), -1);
    for (int i = 0; i < nv; ++i)
    {
        const int k = remap(i);
        QYFUZZ_CHECK(k >= 0 && k < nvAfter);
        last[std::size_t(k)] = i;
    }
    const WeldKey oldKey(before), newKey(after);
    QYFUZZ_CHECK((oldKey.normals == nullptr) == (newKey.normals == nullptr));
    QYFUZZ_CHECK((oldKey.uvs == nullptr) == (newKey.uvs == nullptr));
    for (int k = 0; k < nvAfter; ++k)
    {
        const int i = last[std::size_t(k)];
        QYFUZZ_CHECK(i >= 0);
        QYFUZZ_CHECK(sameBytes(before.getVerticesRaw() + 3 * std::ptrdiff_t(i),
                               after.getVerticesRaw() + 3 * std::ptrdiff_t(k), 3 * sizeof(float)));
        if (oldKey.normals)
            QYFUZZ_CHECK(sameBytes(oldKey.normals + 3 * std::ptrdiff_t(i),
                                   newKey.normals + 3 * std::ptrdiff_t(k), 3 * sizeof(float)));
        if (before.getUVsRaw() && after.getUVsRaw())
            QYFUZZ_CHECK(sameBytes(before.getUVsRaw() + 2 * std::ptrdiff_t(i),
                                   after.getUVsRaw() + 2 * std::ptrdiff_t(k), 2 * sizeof(float)));
    }
    // Every member of a run equals the vertex that the run became (a key with a NaN equals
    // nothing, so it must be alone); consecutive new vertices are in order.
    std::vector<int> members(std::size_t(nvAfter), 0);
    for (int i = 0; i < nv; ++i)
        ++members[std::size_t(remap(i))];
    for (int i = 0; i < nv; ++i)
    {
        const int k = remap(i), j = last[std::size_t(k)];
        QYFUZZ_CHECK(members[std::size_t(k)] == 1 || oldKey.equal(i, j));
    }
    for (int k = 1; k < nvAfter; ++k)
        QYFUZZ_CHECK(newKey.order(k - 1, k) <= 0);
    const int* oldTris = before.getTrianglesRaw();
    const int* newTris = after.getTrianglesRaw();
    for (std::ptrdiff_t c = 0; c < 3 * std::ptrdiff_t(before.getNumTriangles()); ++c)
        QYFUZZ_CHECK(newTris[c] == remap(oldTris[c]));
}

// ---------------------------------------------------------------------------------------
// Adjacency, boundaries, components

// Set v: every triangle naming v, once per such corner, in increasing order.
inline void checkAdjTris(const qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adj)
{
    const int nv = mesh.getNumVertices(), nt = mesh.getNumTriangles();
    QYFUZZ_CHECK(adj.getNumVertices() == nv);
    std::vector<int> filled(std::size_t(nv), 0);
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < nt; ++t)
        for (int c = 0; c < 3; ++c)
        {
            const int v = tris[3 * std::ptrdiff_t(t) + c];
            int& n = filled[std::size_t(v)];
            QYFUZZ_CHECK(n < adj.numTris(v) && adj.triIndices(v)[n] == t);
            ++n;
        }
    for (int v = 0; v < nv; ++v)
        QYFUZZ_CHECK(filled[std::size_t(v)] == adj.numTris(v));
}

// Record v: v's neighbours in first-seen order over its triangles in set order.
inline void checkAdjVertices(const qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris,
                             const qyGeom::MeshAdjVertices& adj)
{
    const int nv = mesh.getNumVertices();
    QYFUZZ_CHECK(adj.getNumVertices() == nv);
    const int* tris = mesh.getTrianglesRaw();
    std::vector<int> seenBy(std::size_t(nv), -1);
    std::vector<int> expected;
    int maxValence = 0;
    for (int v = 0; v < nv; ++v)
    {
        expected.clear();
        seenBy[std::size_t(v)] = v;
        for (int j = 0; j < adjTris.numTris(v); ++j)
            for (int c = 0; c < 3; ++c)
            {
                const int w = tris[3 * std::ptrdiff_t(adjTris.triIndices(v)[j]) + c];
                if (seenBy[std::size_t(w)] != v)
                {
                    seenBy[std::size_t(w)] = v;
                    expected.push_back(w);
                }
            }
        QYFUZZ_CHECK(adj.numVertices(v) == int(expected.size()));
        QYFUZZ_CHECK(std::equal(expected.begin(), expected.end(), adj.vertexIndices(v)));
        maxValence = std::max(maxValence, int(expected.size()));
    }
    QYFUZZ_CHECK(adj.getMaxValence() == maxValence);
}

// Set t: across each edge in turn, the other triangles having that edge (as often as they
// have it), in increasing order.
inline void checkTriAdjTris(const qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris,
                            const qyGeom::MeshTriAdjTris& adj)
{
    const int nt = mesh.getNumTriangles();
    QYFUZZ_CHECK(adj.getNumTriangles() == nt);
    const int* tris = mesh.getTrianglesRaw();
    std::vector<int> expected;
    for (int t = 0; t < nt; ++t)
    {
        expected.clear();
        const int* tri = tris + 3 * std::ptrdiff_t(t);
        for (int e = 0; e < 3; ++e)
        {
            const int a = tri[e], b = tri[(e + 1) % 3];
            // The triangles having edge a-b all name a; a's set lists each once per corner
            // at a, so skip the repeats and count the edge's occurrences instead.
            const int* around = adjTris.triIndices(a);
            for (int j = 0; j < adjTris.numTris(a); ++j)
            {
                const int u = around[j];
                if (u == t || (j > 0 && around[j - 1] == u))
                    continue;
                const int* other = tris + 3 * std::ptrdiff_t(u);
                for (int f = 0; f < 3; ++f)
                {
                    const int p = other[f], q = other[(f + 1) % 3];
                    if ((p == a && q == b) || (p == b && q == a))
                        expected.push_back(u);
                }
            }
        }
        QYFUZZ_CHECK(adj.numTris(t) == int(expected.size()));
        QYFUZZ_CHECK(std::equal(expected.begin(), expected.end(), adj.triIndices(t)));
    }
}

// Loops of distinct vertices, each step along an edge that some triangle runs.
inline void checkBoundaries(const qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris,
                            const qyGeom::MeshBoundaries& loops)
{
    const int nv = mesh.getNumVertices();
    std::vector<char> used(std::size_t(nv), 0);
    for (int i = 0; i < loops.size(); ++i)
    {
        const std::span<const int> loop = loops.getLoop(i);
        for (std::size_t k = 0; k < loop.size(); ++k)
        {
            const int v = loop[k];
            QYFUZZ_CHECK(v >= 0 && v < nv && !used[std::size_t(v)]);
            used[std::size_t(v)] = 1;
            if (k + 1 < loop.size())
                QYFUZZ_CHECK(qyGeom::Boundary::hasEdge(mesh, adjTris, v, loop[k + 1]));
        }
    }
}

// Components through shared vertices, numbered by their lowest triangle; -1 for vertices
// that no triangle uses.
inline void checkComponents(const qyGeom::CompactMesh& mesh, int count,
                            const qy::Array<int>& labels)
{
    const int nv = mesh.getNumVertices(), nt = mesh.getNumTriangles();
    QYFUZZ_CHECK(int(labels.size()) == nv);
    std::vector<int> parent(static_cast<std::size_t>(nv));
    for (int v = 0; v < nv; ++v)
        parent[std::size_t(v)] = v;
    auto find = [&](int v)
    {
        while (parent[std::size_t(v)] != v)
            v = parent[std::size_t(v)] = parent[std::size_t(parent[std::size_t(v)])];
        return v;
    };
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < nt; ++t)
        for (int c = 1; c < 3; ++c)
            parent[std::size_t(find(tris[3 * std::ptrdiff_t(t) + c]))] =
                find(tris[3 * std::ptrdiff_t(t)]);
    std::vector<int> number(std::size_t(nv), -1);
    int next = 0;
    for (int t = 0; t < nt; ++t)
    {
        int& n = number[std::size_t(find(tris[3 * std::ptrdiff_t(t)]))];
        if (n < 0)
            n = next++;
    }
    QYFUZZ_CHECK(count == next);
    std::vector<char> used(std::size_t(nv), 0);
    for (std::ptrdiff_t c = 0; c < 3 * std::ptrdiff_t(nt); ++c)
        used[std::size_t(tris[c])] = 1;
    for (int v = 0; v < nv; ++v)
        QYFUZZ_CHECK(labels[std::size_t(v)] ==
                     (used[std::size_t(v)] ? number[std::size_t(find(v))] : -1));
}

// ---------------------------------------------------------------------------------------
// Normals and curvature

// Unit normals wherever the vertex and its triangles have finite positions.
inline void checkNormals(const qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris)
{
    QYFUZZ_CHECK(mesh.getNumVertices() == 0 || (mesh.getNormalsRaw() && mesh.getNormalsComputed()));
    const float* positions = mesh.getVerticesRaw();
    const float* normals = mesh.getNormalsRaw();
    const int* tris = mesh.getTrianglesRaw();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
    {
        bool finite = finite3(positions + 3 * std::ptrdiff_t(v));
        for (int j = 0; finite && j < adjTris.numTris(v); ++j)
            for (int c = 0; c < 3; ++c)
                finite = finite &&
                         finite3(positions +
                                 3 * std::ptrdiff_t(
                                         tris[3 * std::ptrdiff_t(adjTris.triIndices(v)[j]) + c]));
        if (!finite)
            continue;
        const float* n = normals + 3 * std::ptrdiff_t(v);
        QYFUZZ_CHECK(finite3(n));
        const double length =
            std::sqrt(double(n[0]) * n[0] + double(n[1]) * n[1] + double(n[2]) * n[2]);
        QYFUZZ_CHECK(std::abs(length - 1.0) < 1e-4);
    }
}

// True when every triangle is far from degenerate at a moderate scale: coordinates within
// 1e4, edges of at least 1e-3, and an area of at least 1e-3 of its longest edge squared.
// The cotangents and mixed areas of such a mesh are bounded, so its curvature is finite.
inline bool wellShaped(const qyGeom::CompactMesh& mesh)
{
    const float* p = mesh.getVerticesRaw();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        for (int k = 0; k < 3; ++k)
            if (!(std::abs(p[3 * std::ptrdiff_t(v) + k]) <= 1e4f))
                return false;
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const qyLinear::Point a = mesh.getVertices()[tris[3 * std::ptrdiff_t(t)]].asPoint();
        const qyLinear::Point b = mesh.getVertices()[tris[3 * std::ptrdiff_t(t) + 1]].asPoint();
        const qyLinear::Point c = mesh.getVertices()[tris[3 * std::ptrdiff_t(t) + 2]].asPoint();
        const qyLinear::Vector ab = b - a, bc = c - b, ca = a - c;
        const double longest =
            std::max({qyLinear::dot(ab, ab), qyLinear::dot(bc, bc), qyLinear::dot(ca, ca)});
        const double shortest =
            std::min({qyLinear::dot(ab, ab), qyLinear::dot(bc, bc), qyLinear::dot(ca, ca)});
        const qyLinear::Vector n = qyLinear::cross(ab, c - a);
        if (!(shortest >= 1e-6) || !(std::sqrt(qyLinear::dot(n, n)) >= 1e-3 * longest))
            return false;
    }
    return true;
}

inline void runCurvature(const qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris,
                         const qyGeom::MeshAdjVertices& adjVertices, Record& record)
{
    const std::size_t nv = std::size_t(mesh.getNumVertices());
    const bool bounded = wellShaped(mesh);
    // A mirror is an isometry: every curvature of the mirrored mesh is the same.
    qyLinear::AffineMatrixFlt mirror;
    mirror.linear(0, 0) = -1.0f;
    std::vector<float> values(nv), mirrored(nv);
    for (int kind = 0; kind <= 4; ++kind)
    {
        const auto k = static_cast<qyGeom::MeshCurvature>(kind);
        qyGeom::meshCurvature(mesh, adjTris, adjVertices, qyLinear::AffineMatrixFlt(), k,
                              values.data());
        record.add(values.data(), nv);
        if (kind == 4)
        {
            // Not a curvature: zero everywhere.
            for (const float value : values)
                QYFUZZ_CHECK(value == 0.0f);
            continue;
        }
        if (!bounded)
            continue;
        qyGeom::meshCurvature(mesh, adjTris, adjVertices, mirror, k, mirrored.data());
        for (std::size_t v = 0; v < nv; ++v)
        {
            QYFUZZ_CHECK(std::isfinite(values[v]));
            const double a = values[v], b = mirrored[v];
            QYFUZZ_CHECK(std::abs(a - b) <= 1e-4 * (1.0 + std::abs(a) + std::abs(b)));
        }
    }
}

// ---------------------------------------------------------------------------------------
// Orientation, cut, flattening

// Orients `mesh` in place; only corners 1 and 2 of triangles may trade places, and the result
// agrees with the orientation test.
inline void runOrient(qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris, Record& record)
{
    const qyGeom::CompactMesh before(mesh);
    const bool wasOriented = qyGeom::meshOriented(mesh, adjTris);
    QYFUZZ_CHECK(qyGeom::MeshOrient(mesh, adjTris).isOriented() == wasOriented);
    const bool oriented = qyGeom::meshMakeOriented(mesh, adjTris);
    QYFUZZ_CHECK(oriented == qyGeom::meshOriented(mesh, adjTris));
    QYFUZZ_CHECK(!wasOriented || (oriented && sameGeometry(before, mesh)));
    QYFUZZ_CHECK(mesh.getNumVertices() == before.getNumVertices() &&
                 mesh.getNumTriangles() == before.getNumTriangles());
    QYFUZZ_CHECK(sameBytes(mesh.getVerticesRaw(), before.getVerticesRaw(),
                           sizeof(float) * 3 * std::size_t(mesh.getNumVertices())));
    const int* now = mesh.getTrianglesRaw();
    const int* was = before.getTrianglesRaw();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const int* a = now + 3 * std::ptrdiff_t(t);
        const int* b = was + 3 * std::ptrdiff_t(t);
        QYFUZZ_CHECK(a[0] == b[0] &&
                     ((a[1] == b[1] && a[2] == b[2]) || (a[1] == b[2] && a[2] == b[1])));
    }
    record.addCount(std::size_t(wasOriented) * 2 + std::size_t(oriented));
    record.addMesh(mesh);
}

// Cuts `mesh` to a disk in place. Old vertices keep their numbers, copies point back to
// vertices at the same place, triangles keep their corners up to copies, and the cut edges
// are edges of the mesh, listed once each in increasing order.
inline bool runCut(qyGeom::CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris, Record& record)
{
    const qyGeom::CompactMesh before(mesh);
    qyGeom::CutRegion region;
    const bool cut = qyGeom::cutSurface(mesh, region, true);
    const int nv = before.getNumVertices(), nvAfter = mesh.getNumVertices();
    QYFUZZ_CHECK(mesh.getNumTriangles() == before.getNumTriangles());
    QYFUZZ_CHECK(cut == (nvAfter > nv));
    QYFUZZ_CHECK(trianglesInRange(mesh));
    record.addCount(cut);
    record.add(region.edges.data(), region.edges.size());
    record.add(region.originalVertex.data(), region.originalVertex.size());
    record.addMesh(mesh);
    if (!cut)
    {
        QYFUZZ_CHECK(sameGeometry(before, mesh));
        return false;
    }
    QYFUZZ_CHECK(nvAfter == int(region.originalVertex.size()));
    const float* oldPositions = before.getVerticesRaw();
    const float* newPositions = mesh.getVerticesRaw();
    QYFUZZ_CHECK(sameBytes(oldPositions, newPositions, sizeof(float) * 3 * std::size_t(nv)));
    for (int v = 0; v < nvAfter; ++v)
    {
        const int o = region.originalVertex[std::size_t(v)];
        QYFUZZ_CHECK(v < nv ? o == v : (o >= 0 && o < nv));
        QYFUZZ_CHECK(sameBytes(oldPositions + 3 * std::ptrdiff_t(o),
                               newPositions + 3 * std::ptrdiff_t(v), 3 * sizeof(float)));
    }
    const int* oldTris = before.getTrianglesRaw();
    const int* newTris = mesh.getTrianglesRaw();
    for (std::ptrdiff_t c = 0; c < 3 * std::ptrdiff_t(mesh.getNumTriangles()); ++c)
        QYFUZZ_CHECK(region.originalVertex[std::size_t(newTris[c])] == oldTris[c]);
    QYFUZZ_CHECK(region.edges.size() % 2 == 0);
    for (std::size_t e = 0; e < region.edges.size(); e += 2)
    {
        const int a = region.edges[e], b = region.edges[e + 1];
        QYFUZZ_CHECK(0 <= a && a < b && b < nv);
        if (e > 0)
            QYFUZZ_CHECK(region.edges[e - 2] < a ||
                         (region.edges[e - 2] == a && region.edges[e - 1] < b));
        bool isEdge = false;
        for (int j = 0; !isEdge && j < adjTris.numTris(a); ++j)
        {
            const int* tri = oldTris + 3 * std::ptrdiff_t(adjTris.triIndices(a)[j]);
            isEdge = tri[0] == b || tri[1] == b || tri[2] == b;
        }
        QYFUZZ_CHECK(isEdge);
    }
    return true;
}

// Flattens a copy of `mesh`. Success writes finite UVs inside the unit square into every
// vertex and nothing else; failure leaves the mesh as it was and gives a reason.
inline void runFlatten(const qyGeom::CompactMesh& mesh, bool compact, Record& record)
{
    qyGeom::CompactMesh flat(mesh);
    bool ok = false;
    {
        qyGeom::reparameterizeMesh flattener(flat);
        flattener.enableMeshCompact(compact);
        ok = flattener.flatten();
        QYFUZZ_CHECK(ok == flattener.failureReason().empty());
    }
    QYFUZZ_CHECK(sameGeometry(mesh, flat));
    record.addCount(ok);
    if (!ok)
    {
        QYFUZZ_CHECK(sameUVs(mesh, flat));
        return;
    }
    const float* uvs = flat.getUVsRaw();
    QYFUZZ_CHECK(uvs || flat.getNumVertices() == 0);
    for (std::ptrdiff_t i = 0; i < 2 * std::ptrdiff_t(flat.getNumVertices()); ++i)
        QYFUZZ_CHECK(std::isfinite(uvs[i]) && uvs[i] >= -uvSlack && uvs[i] <= 1.0f + uvSlack);
    record.add(uvs, 2 * std::size_t(flat.getNumVertices()));
}

// ---------------------------------------------------------------------------------------
// Threaded paths

// The weld and the adjacency builders share their work over the pool only from some 4096
// vertices and 20000 triangles on, far more than a fuzz input of a few kilobytes holds.
// Side-by-side copies of the mesh reach that size.
constexpr int tiledTriangles = 20000;
constexpr int maxTiledVertices = 30000;
constexpr int tiledShare = 8;

inline bool hasNaN(const float* values, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        if (std::isnan(values[i]))
            return true;
    return false;
}

// Copies of `input` one after another, vertices and their normals and UVs included, each
// copy's triangles naming its own vertices.
inline qyGeom::CompactMesh tile(const qyGeom::CompactMesh& input, int copies)
{
    const int nv = input.getNumVertices(), nt = input.getNumTriangles();
    std::vector<qyGeom::MeshVertex> vertices;
    std::vector<qyGeom::MeshNormal> normals;
    std::vector<qyGeom::MeshUV> uvs;
    std::vector<int> triangles;
    for (int c = 0; c < copies; ++c)
    {
        vertices.insert(vertices.end(), input.getVertices(), input.getVertices() + nv);
        if (input.getNormals())
            normals.insert(normals.end(), input.getNormals(), input.getNormals() + nv);
        if (input.getUVs())
            uvs.insert(uvs.end(), input.getUVs(), input.getUVs() + nv);
        for (std::ptrdiff_t k = 0; k < 3 * std::ptrdiff_t(nt); ++k)
            triangles.push_back(input.getTrianglesRaw()[k] + c * nv);
    }
    qyGeom::CompactMesh mesh(int(vertices.size()), vertices.data(),
                             input.getNormals() ? normals.data() : nullptr,
                             input.getUVs() ? uvs.data() : nullptr);
    mesh.setNormalsComputed(input.getNormalsComputed());
    mesh.copyTriangles(copies * nt, triangles.data());
    return mesh;
}

// Welds the copies, which must weld back into one copy (unless a key holds a NaN, which welds
// with nothing, so that each copy keeps its own), and builds and checks the adjacency of the
// copies side by side.
inline void runTiled(const qyGeom::CompactMesh& input, const qyGeom::CompactMesh& welded,
                     const qyGeom::Remap& weldRemap, int weldedTriAdjSize, Record& record)
{
    const int nv = input.getNumVertices(), nt = input.getNumTriangles();
    if (nt == 0)
        return;
    // Tens of milliseconds per input: only one mesh in tiledShare, chosen by its counts, and
    // none whose edges are shared by many triangles (the edge neighbour sets grow with the
    // square of the sharers).
    if ((7 * nv + nt) % tiledShare != 0 || weldedTriAdjSize > 4 * nt)
        return;
    const int copies = (tiledTriangles + nt - 1) / nt;
    if (copies < 2 || std::ptrdiff_t(copies) * nv > maxTiledVertices)
        return;
    const qyGeom::CompactMesh tiled = tile(input, copies);

    qyGeom::CompactMesh tiledWeld(tiled);
    qyUtil::Progress progress;
    qyGeom::Remap remap;
    qyGeom::meshCompact(tiledWeld, progress, remap);
    checkWeld(tiled, tiledWeld, remap);
    record.addMesh(tiledWeld);
    const WeldKey key(welded);
    const std::size_t nw = std::size_t(welded.getNumVertices());
    const bool anyNaN = hasNaN(key.positions, 3 * nw) ||
                        (key.normals && hasNaN(key.normals, 3 * nw)) ||
                        (key.uvs && hasNaN(key.uvs, 2 * nw));
    if (!anyNaN)
    {
        // Every copy of a vertex lands where the first copy does; with a weld of the single
        // mesh that renumbered, that is where the single weld put it.
        QYFUZZ_CHECK(tiledWeld.getNumVertices() == welded.getNumVertices());
        for (int c = 1; c < copies; ++c)
            for (int i = 0; i < nv; ++i)
                QYFUZZ_CHECK(remap(c * nv + i) == remap(i));
        if (!weldRemap.isSequential())
        {
            for (int i = 0; i < nv; ++i)
                QYFUZZ_CHECK(remap(i) == weldRemap(i));
            QYFUZZ_CHECK(sameBytes(tiledWeld.getVerticesRaw(), welded.getVerticesRaw(),
                                   sizeof(float) * 3 * nw));
        }
    }

    qyGeom::MeshAdjTris adjTris;
    qyGeom::meshAdjTris(tiled, adjTris);
    checkAdjTris(tiled, adjTris);
    record.addSets(adjTris.getSets());
    qyGeom::MeshAdjVertices adjVertices;
    qyGeom::meshAdjVertices(tiled, adjTris, adjVertices);
    checkAdjVertices(tiled, adjTris, adjVertices);
    qyGeom::MeshTriAdjTris triAdjTris;
    qyGeom::meshTriAdjTris(tiled, triAdjTris);
    checkTriAdjTris(tiled, adjTris, triAdjTris);
    record.addSets(triAdjTris.getSets());
    qyGeom::CompactMesh withNormals(tiled);
    qyGeom::meshComputeNormals(withNormals);
    checkNormals(withNormals, adjTris);
    record.addMesh(withNormals);
}

// ---------------------------------------------------------------------------------------

inline void runOnce(const qyGeom::CompactMesh& input, Record& record)
{
    QYFUZZ_CHECK(trianglesInRange(input));
    qyUtil::Progress progress;

    qyGeom::CompactMesh mesh(input);
    qyGeom::Remap remap;
    qyGeom::meshCompact(mesh, progress, remap);
    checkWeld(input, mesh, remap);
    record.addMesh(mesh);
    record.addCount(remap.isSequential());
    if (const int* map = remap.getMap())
        record.add(map, std::size_t(remap.getDomainSize()));

    qyGeom::MeshAdjTris adjTris;
    qyGeom::meshAdjTris(mesh, adjTris);
    checkAdjTris(mesh, adjTris);
    qyGeom::MeshAdjVertices adjVertices;
    qyGeom::meshAdjVertices(mesh, adjTris, adjVertices);
    checkAdjVertices(mesh, adjTris, adjVertices);
    qyGeom::MeshTriAdjTris triAdjTris;
    qyGeom::meshTriAdjTris(mesh, triAdjTris);
    checkTriAdjTris(mesh, adjTris, triAdjTris);
    record.addSets(triAdjTris.getSets());
    qyGeom::MeshBoundaries boundaries;
    qyGeom::meshComputeBoundary(mesh, adjTris, adjVertices, boundaries);
    checkBoundaries(mesh, adjTris, boundaries);
    for (int i = 0; i < boundaries.size(); ++i)
        record.add(boundaries.getStart(i), std::size_t(boundaries.getLength(i)));
    qy::Array<int> labels;
    const int components = qyGeom::meshComponents(mesh, adjTris, &labels);
    checkComponents(mesh, components, labels);

    {
        qyGeom::CompactMesh withNormals(mesh);
        qyGeom::meshComputeNormals(withNormals);
        checkNormals(withNormals, adjTris);
        record.addMesh(withNormals);
    }

    runTiled(input, mesh, remap, triAdjTris.getSets().getTotalSize(), record);

    const bool small = mesh.getNumTriangles() <= maxTrianglesForHeavySteps &&
                       mesh.getNumVertices() <= maxVerticesForHeavySteps;
    if (!small)
        return;
    runCurvature(mesh, adjTris, adjVertices, record);

    qyGeom::CompactMesh oriented(mesh);
    runOrient(oriented, adjTris, record);
    if (components == 1)
        runFlatten(oriented, true, record);

    qyGeom::CompactMesh cut(oriented);
    if (runCut(cut, adjTris, record) && components == 1)
        runFlatten(cut, false, record);
}

} // namespace pipeline

/// Runs the pipeline on a mesh a reader returned, with one pool thread and with two, and
/// traps when a step breaks its promises or the two runs differ.
/// @pre every triangle index of `mesh` lies inside its vertex array (the readers promise it)
inline void runMeshPipeline(const qyGeom::CompactMesh& mesh)
{
    // The flattening's messages to the user would drown the fuzzer's own output.
    qyOS::AppOutput& output = qyOS::AppOutput::getInstance();
    qyOS::AppOutput::Sink previous = output.setSink([](qyOS::AppOutput::Kind, const char*) {});
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    pipeline::Record one, two;
    pool.setNumThreads(1);
    pipeline::runOnce(mesh, one);
    pool.setNumThreads(2);
    pipeline::runOnce(mesh, two);
    QYFUZZ_CHECK(one == two);
    output.setSink(std::move(previous));
}

} // namespace qyFuzz
