// Discrete curvature after Meyer, Desbrun, Schroeder and Barr, "Discrete Differential-Geometry
// Operators for Triangulated 2-Manifolds" (2003): the cotangent formula for the mean curvature
// normal, the angle deficit for the Gaussian curvature, both over the mixed Voronoi area.
//
// Every pass writes only its own vertices' (or triangles') entries, and each reads values that
// an earlier pass finished, so the thread count never changes a result: the boundary fill runs
// its two passes as two pool jobs, the second starting after the first has ended everywhere.
#include "qyGeom/meshCurvature.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <vector>

#include "base/Memory.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

constexpr double twoPi = 6.283185307179586;

struct V3
{
    double x, y, z;
};
inline V3 at(const float* v, int i)
{
    const float* p = v + 3 * std::ptrdiff_t(i);
    return {p[0], p[1], p[2]};
}
inline V3 operator-(V3 a, V3 b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline double dot(V3 a, V3 b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline V3 cross(V3 a, V3 b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}

// The cotangent of the angle at a, between the edges to b and c.
inline double cotangent(V3 a, V3 b, V3 c)
{
    const V3 u = b - a, w = c - a;
    const double d = dot(u, w);
    return d / std::sqrt(dot(u, u) * dot(w, w) - d * d);
}

// Runs fn(begin, end) over the pool's chunks of [0, n): every item is computed alone from
// read-only inputs, so how the range is cut never changes a result, and many small chunks
// keep both cores busy when one of them is slowed by other work.
template <class Fn> void forChunks(int n, Fn&& fn)
{
    qyUtil::runChunks(qyUtil::ThreadPool::get(), n,
                      [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end) { fn(begin, end); });
}

// The corner of triangle `tri` at which v sits (its first occurrence), or -1.
inline int cornerOf(const int* tri, int v)
{
    return tri[0] == v ? 0 : tri[1] == v ? 1 : tri[2] == v ? 2 : -1;
}

// Everything the interior pass reads.
struct Inputs
{
    const float* vertices;
    const float* normals; // null: the fan's own normal decides the sign of H
    const int* triangles;
    const Cotangents* cotangents;
    const MeshAdjTris* adjTris;
    const MeshAdjVertices* adjVertices;
    MeshCurvature kind;
    double fanNormalSign; // -1 when the matrix mirrors, which turns the fans' winding over
};

inline bool isInterior(const MeshAdjTris& adjTris, const MeshAdjVertices& adjVertices, int v)
{
    const int c = adjVertices.numVertices(v);
    return c >= 2 && c == adjTris.numTris(v);
}

// Orders v's triangles so that each shares the edge (v, p) with its predecessor, p being the
// corner before v in the predecessor. A fan that cannot be ordered keeps what the search left.
void orderFan(const int* triangles, int v, std::vector<int>& fan)
{
    const int m = int(fan.size());
    for (int i = 1; i < m; ++i)
    {
        const int* prev = triangles + 3 * std::ptrdiff_t(fan[std::size_t(i) - 1]);
        const int k = cornerOf(prev, v);
        const int p = prev[(k + 2) % 3];
        for (int j = i; j < m; ++j)
        {
            const int* tri = triangles + 3 * std::ptrdiff_t(fan[std::size_t(j)]);
            const int kj = cornerOf(tri, v);
            if (kj >= 0 && tri[(kj + 1) % 3] == p)
            {
                if (j != i)
                    std::swap(fan[std::size_t(i)], fan[std::size_t(j)]);
                break;
            }
        }
    }
}

float interiorValue(const Inputs& in, int v, std::vector<int>& fan)
{
    if (int(in.kind) < 0 || int(in.kind) > 3)
        return 0.0f;
    const MeshAdjTris& adjTris = *in.adjTris;
    fan.assign(adjTris.triIndices(v), adjTris.triIndices(v) + adjTris.numTris(v));
    orderFan(in.triangles, v, fan);
    const int m = int(fan.size());
    const V3 pv = at(in.vertices, v);
    // The mean curvature needs no angles, the Gaussian no edge vectors.
    const bool needS = in.kind != MeshCurvature::Gaussian;
    const bool needTheta = in.kind != MeshCurvature::Mean;

    double theta = 0.0;
    V3 S{0.0, 0.0, 0.0};
    V3 fanNormal{0.0, 0.0, 0.0};
    double area = 0.0;
    for (int i = 0; i < m; ++i)
    {
        const int t = fan[std::size_t(i)];
        const int* tri = in.triangles + 3 * std::ptrdiff_t(t);
        const int k = cornerOf(tri, v);
        const int kq = (k + 2) % 3, kr = (k + 1) % 3;
        const V3 q = at(in.vertices, tri[kq]);
        const V3 r = at(in.vertices, tri[kr]);
        const Cotangents& cot = in.cotangents[t];

        const V3 vq = pv - q;
        if (needTheta)
        {
            const V3 vr = pv - r;
            const double cosine = dot(vq, vr) / std::sqrt(dot(vq, vq) * dot(vr, vr));
            // Rounding can carry the cosine of a sliver's angle past +-1; NaN stays NaN.
            theta += std::acos(std::clamp(cosine, -1.0, 1.0));
        }
        if (needS)
        {
            const int tNext = fan[std::size_t(i + 1 == m ? 0 : i + 1)];
            const int* next = in.triangles + 3 * std::ptrdiff_t(tNext);
            const int kNext = cornerOf(next, v);
            const double w = cot[kr] + in.cotangents[tNext][(kNext + 2) % 3];
            S.x += w * vq.x;
            S.y += w * vq.y;
            S.z += w * vq.z;
        }

        // Mixed area with P = v, Q the corner after v, R the one after Q.
        const V3 Q = r, R = q;
        const double cotP = cot[k], cotQ = cot[kr], cotR = cot[kq];
        if (cotP < 0.0 || cotQ < 0.0 || cotR < 0.0)
        {
            const V3 n = cross(Q - pv, R - pv);
            area += std::sqrt(dot(n, n)) * (cotP < 0.0 ? 0.25 : 0.125);
        }
        else
        {
            const V3 pr = pv - R, pq = pv - Q;
            area += (dot(pr, pr) * cotQ + dot(pq, pq) * cotR) * 0.125;
        }
        if (needS && !in.normals)
        {
            const V3 n = cross(Q - pv, R - pv);
            fanNormal.x += n.x;
            fanNormal.y += n.y;
            fanNormal.z += n.z;
        }
    }

    double H = 0.0, K = 0.0;
    if (in.kind != MeshCurvature::Gaussian)
    {
        double h = std::sqrt(dot(S, S));
        if (!(h < qyLinear::epsilonTol))
        {
            const double side =
                in.normals ? dot(S, at(in.normals, v)) : dot(S, fanNormal) * in.fanNormalSign;
            if (side < 0.0)
                h = -h;
        }
        H = h / (4.0 * area);
    }
    if (in.kind != MeshCurvature::Mean)
        K = (twoPi - theta) / area;

    switch (in.kind)
    {
    case MeshCurvature::Mean:
        return float(H);
    case MeshCurvature::Gaussian:
        return float(K);
    case MeshCurvature::MinPrincipal:
    case MeshCurvature::MaxPrincipal:
    {
        double d = H * H - K;
        if (!(d > 0.0))
            d = K - H * H;
        const double s = std::sqrt(d);
        double k1 = H + s, k2 = 2.0 * H - k1;
        if (std::abs(k2) > std::abs(k1))
            std::swap(k1, k2);
        return float(in.kind == MeshCurvature::MinPrincipal ? k2 : k1);
    }
    }
    return 0.0f;
}

// Vertices ahead of the one being computed whose data is requested early. Neighbouring
// vertices of a mesh are often far apart in the triangle and vertex arrays (a row of a grid
// or a ring of a sphere away), so each vertex would otherwise wait on memory for its
// triangles, their cotangents and its neighbours' positions.
constexpr int prefetchDistance = 16;

inline void prefetch(const void* p)
{
#if defined(__GNUC__)
    __builtin_prefetch(p);
#else
    (void)p;
#endif
}

void prefetchFan(const Inputs& in, int v)
{
    const int m = in.adjTris->numTris(v);
    const int* tris = in.adjTris->triIndices(v);
    for (int i = 0; i < m; ++i)
    {
        prefetch(in.triangles + 3 * std::ptrdiff_t(tris[i]));
        prefetch(in.cotangents + tris[i]);
    }
    const int c = in.adjVertices->numVertices(v);
    const int* neighbours = in.adjVertices->vertexIndices(v);
    for (int k = 0; k < c; ++k)
        prefetch(in.vertices + 3 * std::ptrdiff_t(neighbours[k]));
}

// The boundary fill of one chunk: pass 1 (vertices whose neighbour count is not 2) averages
// interior neighbours, pass 2 (at most 2 neighbours) averages neighbours with more than 2.
void fillBoundary(const MeshAdjTris& adjTris, const MeshAdjVertices& adjVertices, int pass,
                  int begin, int end, float* out)
{
    for (int v = begin; v < end; ++v)
    {
        const int c = adjVertices.numVertices(v);
        if (c == adjTris.numTris(v))
            continue;
        if (pass == 1 ? c == 2 : c > 2)
            continue;
        const int* neighbours = adjVertices.vertexIndices(v);
        double sum = 0.0;
        int count = 0;
        for (int k = 0; k < c; ++k)
        {
            const int n = neighbours[k];
            const bool qualifies =
                pass == 1 ? isInterior(adjTris, adjVertices, n) : adjVertices.numVertices(n) > 2;
            if (qualifies)
            {
                sum += double(out[n]);
                ++count;
            }
        }
        out[v] = count > 0 ? float(sum / count) : 0.0f;
    }
}

// The cotangents of every triangle into `result`, chunk by chunk on the pool.
void cotangentsInto(const CompactMesh& mesh, const float* verts, Cotangents* result)
{
    const int* tris = mesh.getTrianglesRaw();
    forChunks(mesh.getNumTriangles(),
              [&](int begin, int end)
              {
                  for (int t = begin; t < end; ++t)
                  {
                      const int* tri = tris + 3 * std::ptrdiff_t(t);
                      const V3 a = at(verts, tri[0]), b = at(verts, tri[1]), c = at(verts, tri[2]);
                      Cotangents& cot = result[t];
                      cot[0] = cotangent(a, b, c);
                      cot[1] = cotangent(b, a, c);
                      cot[2] = cotangent(c, a, b);
                  }
              });
}

} // namespace

void computeCotangents(const CompactMesh& mesh, const MeshVertex* vertices,
                       qy::Array<Cotangents>& out)
{
    out.resize(std::size_t(mesh.getNumTriangles()));
    cotangentsInto(mesh, reinterpret_cast<const float*>(vertices), out.data());
}

void meshCurvature(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                   const MeshAdjVertices& adjVertices, const qyLinear::AffineMatrixFlt& matrix,
                   MeshCurvature kind, float* out)
{
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    debugChannel().print("meshCurvature:  vertices %d  triangles %d\n", numVerts, numTris);
    qyOS::StopWatch watch;
    watch.start();

    const float* vertices = mesh.getVerticesRaw();
    const float* normals = mesh.getNormalsRaw();
    std::vector<float> movedVertices, movedNormals;
    if (!matrix.isIdentity(qyLinear::epsilonTolFlt))
    {
        movedVertices.resize(3 * std::size_t(numVerts));
        for (std::ptrdiff_t i = 0; i < numVerts; ++i)
        {
            const float* p = vertices + 3 * i;
            const qyLinear::PointFlt q = matrix.transformPoint({p[0], p[1], p[2]});
            movedVertices[std::size_t(3 * i)] = q.x;
            movedVertices[std::size_t(3 * i + 1)] = q.y;
            movedVertices[std::size_t(3 * i + 2)] = q.z;
        }
        vertices = movedVertices.data();
        if (normals)
        {
            movedNormals.resize(3 * std::size_t(numVerts));
            for (std::ptrdiff_t i = 0; i < numVerts; ++i)
            {
                const float* n = normals + 3 * i;
                const qyLinear::VectorFlt m = matrix.transformNormal({n[0], n[1], n[2]});
                movedNormals[std::size_t(3 * i)] = m.x;
                movedNormals[std::size_t(3 * i + 1)] = m.y;
                movedNormals[std::size_t(3 * i + 2)] = m.z;
            }
            normals = movedNormals.data();
        }
    }

    // Left uninitialised: the threads that fill it touch its pages first, in parallel (a
    // cleared array would cost a serial pass over 24 bytes per triangle).
    const std::unique_ptr<Cotangents[]> cotangents =
        std::make_unique_for_overwrite<Cotangents[]>(std::size_t(numTris));
    qy::adviseHugePages(cotangents.get(), std::size_t(numTris) * sizeof(Cotangents));
    cotangentsInto(mesh, vertices, cotangents.get());
    debugChannel().print(" cotangents computed in: %f s\n", watch.clear());

    const Inputs in{vertices,
                    normals,
                    mesh.getTrianglesRaw(),
                    cotangents.get(),
                    &adjTris,
                    &adjVertices,
                    kind,
                    vertices != mesh.getVerticesRaw() && matrix.determinant() < 0.0f ? -1.0 : 1.0};
    forChunks(numVerts,
              [&](int begin, int end)
              {
                  std::vector<int> fan;
                  for (int v = begin; v < end; ++v)
                  {
                      if (v + prefetchDistance < end)
                          prefetchFan(in, v + prefetchDistance);
                      out[v] =
                          isInterior(adjTris, adjVertices, v) ? interiorValue(in, v, fan) : 0.0f;
                  }
              });
    debugChannel().print("  interior curvature computed: %f s\n", watch.clear());

    for (int pass = 1; pass <= 2; ++pass)
        forChunks(numVerts, [&](int begin, int end)
                  { fillBoundary(adjTris, adjVertices, pass, begin, end, out); });
    std::vector<float>().swap(movedVertices);
    std::vector<float>().swap(movedNormals);
    debugChannel().print("  boundary curvature computed: %f s\n", watch.clear());
}

} // namespace qyGeom
