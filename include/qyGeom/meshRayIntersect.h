// Ray casting over a whole mesh: the nearest triangle that a ray hits, and whether it hits
// any, through a bounding-volume hierarchy built once over the mesh's triangles.
#pragma once

#include <vector>

#include "base/Linear.h"
#include "base/Reference.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class Ray;

/// A ray's hit on a mesh: the triangle (-1 when none), the ray parameter t and the
/// barycentric coordinates u, v of the triangle's corners 1 and 2.
struct MeshRayHit
{
    int triangle = -1;
    double t = 0, u = 0, v = 0;
};

/// A bounding-volume hierarchy over the triangles of a mesh, for many ray queries. Every
/// triangle is tested with the two-sided intersectRayTriangle, and a hit counts when its t
/// lies above qyLinear::epsilonTol and below the ray's far distance: the same hits as the
/// short form of intersectRayTriangle on every triangle in turn. Of hits at the same t the
/// lowest-numbered triangle is reported, so the answer is that of a loop over all triangles.
///
/// The hierarchy keeps its own copy of the triangles' corners: the mesh may change or go
/// away afterwards (queries then answer for the mesh as it was). Triangles with an index
/// outside the vertex array or a coordinate that is not finite are never hit.
///
/// Build: binned surface-area heuristic, on the calling thread; prints
/// "RayTracer: %d triangles\n" and "  built hierarchy: %f s\n" (with the node count).
/// Cost: about 60 bytes per triangle (a corner, two edges and the index of each, in blocks of
/// four, and the nodes); O(T log T) to build, with about 60 bytes per triangle of temporaries.
/// Counted (qy::Reference), so that MeshCache::getRayTracer can share one per mesh.
/// Threads: the queries only read the object and may run on any number of threads at once;
/// they read the back-face cull distance (setBackfaceCullDistance), which must not change
/// while they run.
class QYGEOM_API RayTracer : public qy::ReferenceCount
{
public:
    explicit RayTracer(const CompactMesh& mesh);

    int getNumTriangles() const { return m_numTriangles; }
    int getNumNodes() const { return int(m_nodes.size()); }

    /// The nearest hit of the ray, with t below ray.farDistance(); false (and hit.triangle
    /// -1) when there is none. Cost: O(log T) nodes for a ray on a well-shaped mesh; no
    /// allocation.
    bool intersect(const Ray& ray, MeshRayHit& hit) const;
    /// True when the ray hits any triangle with t below ray.farDistance(): the occlusion
    /// test, which stops at the first hit found.
    bool occluded(const Ray& ray) const;

private:
    template <bool anyHit> bool traverse(const Ray& ray, MeshRayHit* hit) const;

    // Two cache lines: the boxes of up to four children, coordinate by coordinate (min x,
    // min y, min z, max x, max y, max z, the order that Ray's slab indices address) so that
    // the four are tested at once, and per child the first block and the number of blocks of
    // a leaf (count > 0), the node of an inner child (count 0), or nothing (count -1, with a
    // box that no ray meets).
    struct alignas(64) Node
    {
        float bounds[6][4];
        int child[4];
        int count[4];
    };
    // Four triangles of a leaf, tested at once: per lane a corner and the two edges from it,
    // coordinate by coordinate, and the mesh's triangle number (-1 in an empty lane).
    struct alignas(32) Block
    {
        float rows[9][4];
        int id[4];
    };
    std::vector<Node> m_nodes;
    std::vector<Block> m_blocks; // in the order in which the leaves are met depth first
    int m_numTriangles = 0;
};

/// The nearest triangle of `mesh` hit by the ray origin + t direction, t above
/// qyLinear::epsilonTol; builds a RayTracer for the one query (use the class for many).
QYGEOM_API bool meshRayIntersect(const CompactMesh& mesh, const qyLinear::PointFlt& origin,
                                 const qyLinear::Vector& direction, MeshRayHit& hit);

/// Casts `numRays` rays, ray i from origins[3i..3i+2] along directions[3i..3i+2], writing the
/// nearest hit of each into hits[i] (triangle -1 for a miss). Returns the number of rays that
/// hit.
/// Threads: the rays are split in chunks over the shared pool (on the calling thread when it
/// has one thread); the hits do not depend on the thread count.
QYGEOM_API int meshRayIntersect(const RayTracer& tracer, int numRays, const float* origins,
                                const double* directions, MeshRayHit* hits);

/// The occlusion form of the batch: occluded[i] is 1 when ray i hits any triangle, else 0.
/// Returns the number of rays occluded.
QYGEOM_API int meshRayOccluded(const RayTracer& tracer, int numRays, const float* origins,
                               const double* directions, unsigned char* occluded);

} // namespace qyGeom
