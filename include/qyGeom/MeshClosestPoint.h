// Closest-point queries: the triangle of a mesh nearest to a point, found through the mesh's
// triangle octree.
#pragma once

#include <utility>
#include <vector>

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshCache;
class Octree;
class OctreeTris;

/// What a closest-point query found: the nearest triangle (-1 when none), the point of it
/// nearest to the query and the distance between the two.
struct MeshClosestPointResult
{
    int triangle = -1;
    qyLinear::Point point;
    double distance = 0.0;
};

/// Finds, for any point, the nearest triangle of a mesh and its exact distance (point-triangle
/// distance in double precision over the single-precision vertices). The octree's leaves are
/// visited nearest box first and the search stops when the next box lies farther than the
/// best triangle found, so a query costs about the triangles of the few voxels around the
/// answer. Triangles the octree does not list (an index out of range, a coordinate that is not
/// finite) are never found. Of equally near triangles, the first met wins; the answer does not
/// depend on earlier queries.
///
/// Lifetime: keeps references to the mesh and both octree structures, which must stay alive
/// and unchanged while the object is used.
/// Threads: compute() reuses a search queue inside the object; give each thread its own
/// object (construction is cheap: nothing is built).
class QYGEOM_API MeshClosestPoint
{
public:
    /// @param octree      the octree `octreeTris` was built over (MeshCache::getOctree)
    /// @param octreeTris  the mesh's triangles per voxel (MeshCache::getOctreeTris)
    MeshClosestPoint(const CompactMesh& mesh, const Octree& octree, const OctreeTris& octreeTris);

    /// Returns the distance from `point` to the nearest triangle and fills `result`; a mesh
    /// with no triangle in its octree gives infinity and result.triangle = -1.
    double compute(const qyLinear::Point& point, MeshClosestPointResult& result);
    /// The same, searching only within `maxDistance`: when no triangle is that near, returns
    /// infinity with result.triangle = -1 (a triangle at maxDistance, to rounding, is found). A
    /// small bound makes the query cheaper.
    double compute(const qyLinear::Point& point, MeshClosestPointResult& result,
                   double maxDistance);

private:
    const CompactMesh& m_mesh;
    const Octree& m_octree;
    const OctreeTris& m_octreeTris;
    std::vector<std::pair<double, int>> m_heap; ///< (squared box distance, node)
};

/// The nearest triangle of `mesh` to `point`, through the octrees of `cache`
/// (getOctree(mesh, -1) and getOctreeTris). Returns false when the mesh has no triangle to
/// find.
/// Cost: builds the octrees on the cache's first request; then one query.
QYGEOM_API bool meshClosestPoint(const CompactMesh& mesh, MeshCache& cache,
                                 const qyLinear::Point& point, MeshClosestPointResult& result);

} // namespace qyGeom
