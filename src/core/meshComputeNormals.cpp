// Triangle and vertex normals. Vertex normals are the unweighted mean of the incident
// triangles' unit normals: cheap, and stable on the long thin triangles of scans, where
// angle weights amplify noise.
#include "qyGeom/meshComputeNormals.h"

#include <cmath>
#include <cstddef>
#include <cstring>
#include <vector>

#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

// The one normalisation kernel; both drivers call it, so the thread count cannot change a
// result.
void normalizeRange(float* normals, int begin, int end)
{
    for (std::ptrdiff_t i = std::ptrdiff_t(begin); i < end; ++i)
    {
        float* n = normals + 3 * i;
        const float s = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
        if (double(s) > qyLinear::epsilon2Tol)
        {
            const float inv = 1.0f / std::sqrt(s);
            n[0] *= inv;
            n[1] *= inv;
            n[2] *= inv;
        }
        else
        {
            n[0] = 0.0f;
            n[1] = 0.0f;
            n[2] = 1.0f;
        }
    }
}

// Task k of m normalises an even share of the array.
class MeshNormalize final : public qyUtil::ThreadedAlg
{
public:
    MeshNormalize(float* normals, int n) : m_normals(normals), m_n(n) {}

    void execute(int task, int numTasks) override
    {
        int begin, end;
        evenShare(m_n, task, numTasks, begin, end);
        normalizeRange(m_normals, begin, end);
    }

private:
    float* m_normals;
    int m_n;
};

// Below this many triangles a pool job costs more than it saves.
constexpr int parallelTriangles = 20000;

inline bool inRange(const int* tri, int numVertices)
{
    return unsigned(tri[0]) < unsigned(numVertices) && unsigned(tri[1]) < unsigned(numVertices) &&
           unsigned(tri[2]) < unsigned(numVertices);
}

bool shareTriangles(const qyUtil::ThreadPool& pool, int numTris)
{
    return pool.getNumThreads() > 1 && numTris >= parallelTriangles;
}

// The unit normal of each triangle in single precision; (0, 0, 1) for a triangle with an index
// outside the vertex array, which has no geometry. Each triangle writes only its own normal,
// so the pool's chunks write disjoint ranges.
void computeTriangleNormals(const float* verts, int numVerts, const int* tris, int numTris,
                            MeshNormal* out)
{
    auto computeRange = [&](int begin, int end)
    {
        for (std::ptrdiff_t t = begin; t < end; ++t)
        {
            const int* tri = tris + 3 * t;
            out[t].set(inRange(tri, numVerts) ? meshTriNormal(verts, tri)
                                              : qyLinear::Normal(0.0, 0.0, 1.0));
        }
    };
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (shareTriangles(pool, numTris))
        qyUtil::runChunks(pool, numTris,
                          [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
                          { computeRange(begin, end); });
    else
        computeRange(0, numTris);
}

} // namespace

qyLinear::Normal triNormal(const qyLinear::Point& p0, const qyLinear::Point& p1,
                           const qyLinear::Point& p2)
{
    const qyLinear::Normal n(qyLinear::cross(p2 - p1, p0 - p1));
    return n.isValid() ? n : qyLinear::Normal(0.0, 0.0, 1.0);
}

qyLinear::Normal meshTriNormal(const float* vertices, const int* triangle)
{
    const float* a = vertices + 3 * std::ptrdiff_t(triangle[0]);
    const float* b = vertices + 3 * std::ptrdiff_t(triangle[1]);
    const float* c = vertices + 3 * std::ptrdiff_t(triangle[2]);
    return triNormal({a[0], a[1], a[2]}, {b[0], b[1], b[2]}, {c[0], c[1], c[2]});
}

void meshNormalize(float* normals, int n)
{
    if (n <= 0)
        return;
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (pool.getNumThreads() == 1)
    {
        normalizeRange(normals, 0, n);
        return;
    }
    MeshNormalize job(normals, n);
    pool.run(job);
}

void meshNormalize(PointMesh& mesh)
{
    float* normals = mesh.getNormalsRaw();
    if (!normals || mesh.getNumVertices() == 0)
        return;
    meshNormalize(normals, mesh.getNumVertices());
    MeshModification change(&mesh, MeshModification::AttributesChanged);
    change.normalsModified();
    mesh.modified(change);
}

void meshComputeNormals(CompactMesh& mesh)
{
    const int numVerts = mesh.getNumVertices();
    if (numVerts == 0)
        return;
    const int numTris = mesh.getNumTriangles();
    debugChannel().print("meshComputeNormals:  vertices %d  triangles %d\n", numVerts, numTris);
    qyOS::StopWatch watch;
    watch.start();

    mesh.allocNormalArray();
    float* normals = mesh.getNormalsRaw();
    std::memset(normals, 0, sizeof(float) * 3 * std::size_t(numVerts));

    // Corners of different triangles coincide, so the sums are made on this thread, in
    // triangle order. With several threads the triangle normals, the costly part, are computed
    // first by the pool into a buffer; the sums then add the same floats in the same order as
    // the one-pass loop, so the result does not depend on the thread count. A triangle with an
    // index outside the vertex array adds nothing.
    const float* verts = mesh.getVerticesRaw();
    const int* tris = mesh.getTrianglesRaw();
    auto accumulate = [&](std::ptrdiff_t t, float nx, float ny, float nz)
    {
        const int* tri = tris + 3 * t;
        for (int k = 0; k < 3; ++k)
        {
            float* vn = normals + 3 * std::ptrdiff_t(tri[k]);
            vn[0] += nx;
            vn[1] += ny;
            vn[2] += nz;
        }
    };
    if (!shareTriangles(qyUtil::ThreadPool::get(), numTris))
    {
        for (std::ptrdiff_t t = 0; t < numTris; ++t)
        {
            if (!inRange(tris + 3 * t, numVerts))
                continue;
            const qyLinear::Normal n = meshTriNormal(verts, tris + 3 * t);
            accumulate(t, float(n.x()), float(n.y()), float(n.z()));
        }
    }
    else
    {
        std::vector<MeshNormal> triNormals(static_cast<std::size_t>(numTris));
        computeTriangleNormals(verts, numVerts, tris, numTris, triNormals.data());
        for (std::ptrdiff_t t = 0; t < numTris; ++t)
            if (inRange(tris + 3 * t, numVerts))
            {
                const MeshNormal& n = triNormals[std::size_t(t)];
                accumulate(t, n.x, n.y, n.z);
            }
    }
    meshNormalize(normals, numVerts);

    mesh.setNormalsComputed(true);
    MeshModification change(&mesh, MeshModification::AttributesChanged);
    change.normalsModified();
    mesh.modified(change);
}

void meshComputeTriangleNormals(CompactMesh& mesh)
{
    const int numTris = mesh.getNumTriangles();
    if (numTris == 0)
        return;
    const int numVerts = mesh.getNumVertices();
    debugChannel().print("meshComputeTriangleNormals:  vertices %d  triangles %d\n", numVerts,
                         numTris);
    qyOS::StopWatch watch;
    watch.start();

    mesh.allocTriangleNormalArray();
    computeTriangleNormals(mesh.getVerticesRaw(), numVerts, mesh.getTrianglesRaw(), numTris,
                           mesh.getTriangleNormals());
    debugChannel().print("  normalized: %f s\n", watch.clear());

    MeshModification change(&mesh, MeshModification::AttributesChanged);
    change.triangleNormalsModified();
    mesh.modified(change);
}

} // namespace qyGeom
