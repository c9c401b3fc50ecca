// meshCompact: welds coincident vertices of a mesh and renumbers its index arrays.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{
class Progress;
}

namespace qyGeom
{

class CompactMesh;
class Remap;

/// Decides whether two vertices are close enough to weld. meshCompact calls equal() with the
/// first vertex of the current run as `a` and the candidate as `b`; the test need not be
/// transitive.
class QYGEOM_API IMeshVertexEqualityChecker
{
public:
    virtual ~IMeshVertexEqualityChecker();
    /// @param a, b  the x, y, z of two vertices in the raw vertex array.
    virtual bool equal(const float* a, const float* b) const = 0;
};

/// Equal when x, y and z are each equal as floats: 0.0 equals -0.0, and a NaN component
/// never equals anything. The test is final, so every object of this type (subclasses too)
/// compares exactly; the meshCompact forms that know they have it, by their arguments' types,
/// group equal keys directly instead of sorting and scanning every vertex, for the same result.
class QYGEOM_API DefaultMeshVertexEqualityChecker : public IMeshVertexEqualityChecker
{
public:
    ~DefaultMeshVertexEqualityChecker() override;
    bool equal(const float* a, const float* b) const final
    {
        return a[0] == b[0] && a[1] == b[1] && a[2] == b[2];
    }
};

/// Index comparators over raw float arrays (3 floats per vertex and normal, 2 per UV): true
/// when vertex a sorts before vertex b. Components are compared in order; a component whose
/// values are neither less nor greater (equal, +0 against -0, or a NaN on either side)
/// passes the decision to the next. With NaN in the data this is therefore not a strict weak
/// order, and std::sort must not be given it on such data.

/// Ascending x, then y, then z.
struct VertexCompare
{
    const float* vertices;

    explicit VertexCompare(const float* v) : vertices(v) {}
    bool operator()(int a, int b) const
    {
        const float* p = vertices + 3 * static_cast<long long>(a);
        const float* q = vertices + 3 * static_cast<long long>(b);
        for (int k = 0; k < 3; ++k)
        {
            if (p[k] < q[k])
                return true;
            if (q[k] < p[k])
                return false;
        }
        return false;
    }
};

/// As VertexCompare; ties broken by ascending normal x, then y, then z.
struct VertexNormalCompare
{
    const float* vertices;
    const float* normals;

    VertexNormalCompare(const float* v, const float* n) : vertices(v), normals(n) {}
    bool operator()(int a, int b) const
    {
        const VertexCompare byPosition(vertices);
        if (byPosition(a, b))
            return true;
        if (byPosition(b, a))
            return false;
        return VertexCompare(normals)(a, b);
    }
};

/// As VertexNormalCompare; ties broken by ascending u, then v.
struct VertexNormalUVCompare
{
    const float* vertices;
    const float* normals;
    const float* uvs;

    VertexNormalUVCompare(const float* v, const float* n, const float* t)
        : vertices(v), normals(n), uvs(t)
    {
    }
    bool operator()(int a, int b) const
    {
        const VertexNormalCompare byPositionNormal(vertices, normals);
        if (byPositionNormal(a, b))
            return true;
        if (byPositionNormal(b, a))
            return false;
        const float* p = uvs + 2 * static_cast<long long>(a);
        const float* q = uvs + 2 * static_cast<long long>(b);
        for (int k = 0; k < 2; ++k)
        {
            if (p[k] < q[k])
                return true;
            if (q[k] < p[k])
                return false;
        }
        return false;
    }
};

/// Welds the vertices of `mesh` with a DefaultMeshVertexEqualityChecker; the remap is made
/// locally and dropped. See the working form.
QYGEOM_API void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress);

/// Welds the vertices of `mesh` with a DefaultMeshVertexEqualityChecker and fills `remap`.
/// See the working form.
QYGEOM_API void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap);

/// Welds coincident vertices: the vertices are ordered by position (then, when the mesh has
/// explicit normals, by normal, then by UV when it also has UVs), and each run of vertices
/// in that order that `checker` finds equal to the run's first vertex (and, with explicit
/// normals, whose normals and UVs are also equal to the first's, a NaN never being equal)
/// becomes one vertex.
///
/// A mesh with UVs but no explicit normals is welded on positions alone. Normals flagged as
/// computed are neither compared nor moved (the mesh drops them on the notification). Vertices
/// that no triangle uses, and degenerate or duplicate triangles, are kept.
///
/// The order is ascending x, y, z (normal x, y, z; u, v) with +0 equal to -0 and NaN after
/// every number in each component; vertices that tie in it keep their old relative order, so
/// the result does not depend on the sort or the thread count even for keys with NaN.
///
/// @param[in,out] mesh  After a weld, vertex k of the result is the k-th run in that order
///   (so the vertices come out sorted, not in their old order) and carries the position,
///   normal and UV of the run's vertex with the highest old index. Triangles, strip points
///   and fan points are renumbered; lines, line strips and polygons are left to the mesh's
///   own handling of the notification (CompactMesh renumbers them). STs, colours and named
///   arrays are not moved, only cut to the new count. Triangle indices outside the vertex
///   array are left as they are.
/// @param[in,out] progress  two sub-phases, 0.8 for ordering and 0.2 for numbering; never
///   polled for cancellation: the call always runs to the end.
/// @param[out] remap  domain = the old vertex count. Sequential when nothing was welded (the
///   mesh, its vertex order included, is then untouched and no notification is sent);
///   otherwise maps every old vertex to its new index, range = the new count.
/// @param[in] checker  the position test, asked run by run after a sort. The forms without a
///   checker and the form below that takes a DefaultMeshVertexEqualityChecker take a faster
///   route to the same result (equal keys are grouped by hashing, and only one vertex per group
///   is sorted).
///
/// Debug channel: "meshCompact: %d vertices, %d triangles\n", "  sorted vertices: %f s\n",
///   "  initialized remap: %f s\n"; after a weld also "  remapped vertices: %f s\n",
///   "  remapped normals: %f s\n" (explicit normals only) and "  remapped triangles: %f s\n".
/// Notifies: Remapped with the vertex remap (no triangle remap), normalsModified (explicit
///   normals), uvsModified (UVs), stripsAndFansModified (strips or fans), triangleNormalsValid.
/// Threads: two tasks of the shared pool at most, for large meshes; any thread count gives
///   the same result.
/// Cost: O(n log n) time at most; temporaries of a few ints per vertex.
/// Failure: std::bad_alloc propagates; the mesh is unchanged when it comes before the first
///   array is rewritten.
QYGEOM_API void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap,
                            IMeshVertexEqualityChecker& checker);

/// The working form with the exact test, known from the argument's type: the same result as
/// the form above, by the faster route.
QYGEOM_API void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap,
                            DefaultMeshVertexEqualityChecker& checker);

} // namespace qyGeom
