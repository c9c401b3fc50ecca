// Duplicate triangles: each triangle is compared only with the lower-numbered triangles
// around its smallest corner, read from the vertex-to-triangle sets.
#include "qyGeom/meshDuplicateTris.h"

#include <algorithm>
#include <cstddef>

#include "base/StopWatch.h"
#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "model/debugChannel.h"
#include "qyGeom/meshAdjacency.h"

namespace qyGeom
{
namespace
{

struct Sorted
{
    int a, b, c;
    bool operator==(const Sorted&) const = default;
};

inline Sorted sortedCorners(const int* t)
{
    int a = t[0], b = t[1], c = t[2];
    if (a > b)
        std::swap(a, b);
    if (b > c)
        std::swap(b, c);
    if (a > b)
        std::swap(a, b);
    return {a, b, c};
}

inline bool degenerate(const int* t, int numVerts)
{
    return unsigned(t[0]) >= unsigned(numVerts) || unsigned(t[1]) >= unsigned(numVerts) ||
           unsigned(t[2]) >= unsigned(numVerts) || t[0] == t[1] || t[1] == t[2] || t[0] == t[2];
}

} // namespace

bool meshDuplicateTris(CompactMesh& mesh)
{
    MeshAdjTris adjTris;
    meshAdjTris(mesh, adjTris);
    return meshDuplicateTris(mesh, adjTris);
}

bool meshDuplicateTris(CompactMesh& mesh, const MeshAdjTris& adjTris)
{
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    // Sets that do not match the mesh would send the search out of range: use fresh ones.
    if (adjTris.getNumVertices() != numVerts)
        return meshDuplicateTris(mesh);
    debugChannel().print("meshDuplicateTris: %d vertices, %d triangles\n", numVerts, numTris);
    qyOS::StopWatch watch;
    watch.start();

    BitVector& selection = mesh.getSelectedTriangles();
    selection.resize(numTris);
    selection.clearBits();
    const int* tris = mesh.getTrianglesRaw();
    int numDuplicate = 0, numDegenerate = 0;
    for (int t = 0; t < numTris; ++t)
    {
        const int* tri = tris + 3 * std::ptrdiff_t(t);
        if (degenerate(tri, numVerts))
        {
            selection.setBit(t);
            ++numDegenerate;
            continue;
        }
        const Sorted key = sortedCorners(tri);
        // Earlier triangles over the same corners all use the smallest one; its set is in
        // increasing order, so the search stops at t.
        const int* set = adjTris.triIndices(key.a);
        for (int i = 0, n = adjTris.numTris(key.a); i < n && set[i] < t; ++i)
        {
            const int u = set[i];
            if (unsigned(u) >= unsigned(numTris))
                continue;
            const int* other = tris + 3 * std::ptrdiff_t(u);
            if (!degenerate(other, numVerts) && sortedCorners(other) == key)
            {
                selection.setBit(t);
                ++numDuplicate;
                break;
            }
        }
    }
    debugChannel().print("  %d duplicate, %d degenerate: %f s\n", numDuplicate, numDegenerate,
                         watch.stop());
    return numDuplicate + numDegenerate > 0;
}

void meshRemoveDuplicateTris(CompactMesh& mesh)
{
    const int numTris = mesh.getNumTriangles();
    BitVector deleted = mesh.getSelectedTriangles();
    deleted.resize(numTris);
    const int numRemoved = deleted.countBits();
    debugChannel().print("meshRemoveDuplicateTris: %d triangles, %d removed\n", numTris,
                         numRemoved);
    if (numRemoved == 0)
        return;

    Remap remap;
    remap.setDeleteMap(deleted);
    MeshRemap meshRemap;
    meshRemap.triangles = &remap;
    MeshModification change(&mesh, MeshModification::Remapped, &meshRemap);

    MeshTriangle* tris = mesh.getTriangles();
    MeshNormal* normals = mesh.getTriangleNormals();
    for (int t = 0; t < numTris; ++t)
    {
        const int to = remap(t);
        if (to < 0 || to == t)
            continue;
        tris[to] = tris[t];
        if (normals)
            normals[to] = normals[t];
    }
    mesh.resizeTriangleArray(numTris - numRemoved);
    change.triangleNormalsValid();
    mesh.modified(change);
}

} // namespace qyGeom
