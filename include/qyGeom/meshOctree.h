// Triangles and lines of a mesh distributed over the voxels of an octree, and the exact box
// overlap tests that decide which voxels they go to.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class BoundingBox;
class CompactMesh;
class Octree;
class OctreeLines;
class OctreeTris;
struct MeshTriangle;
struct MeshVertex;

/// Lists each triangle of the mesh in every voxel of `octree` whose box it overlaps (exact
/// test below, boxes closed: a triangle touching a voxel only on its boundary is listed there
/// too, so one lying in a face shared by two voxels is in both). A triangle that does not
/// overlap a voxel is not listed there, even when its bounding box meets the voxel. Each
/// voxel's set lists its triangles in increasing order.
///
/// A triangle whose bounding box lies strictly inside the last voxel visited for the
/// triangles before it is put there without a search (a coherent hit): such a triangle can
/// meet no other voxel, so this never changes the result.
///
/// An octree with no voxels leaves `out` untouched and prints nothing. Otherwise prints
/// "OctreeTris:  Partitioned %d triangles into %d voxels in %.3f seconds.\n
///              (%.2f coherence, %.2f voxels/tri, %.0f tri/sec)\n"
/// with the triangle count, voxels, seconds, coherent hits / triangles, pairs / triangles and
/// triangles / second (a mesh without triangles gets empty sets and prints NaN ratios).
/// Triangles with an index outside the vertex array or a non-finite coordinate are listed
/// nowhere.
/// Threads: the pool's tasks take even shares of the triangles; the sets do not depend on the
/// thread count (the coherence figure may a little: each task starts with no previous voxel).
/// Cost: about one octree descent per triangle that leaves the previous voxel; 8 bytes per
/// (voxel, triangle) pair of temporaries.
QYGEOM_API void computeOctreeTris(const CompactMesh& mesh, const Octree& octree, OctreeTris& out);

/// The same for the mesh's lines (segments between two vertices), with the box/segment test.
/// Prints "OctreeLines:  Partitioned %d lines into %d voxels in %.3f seconds.\n
///              (%.2f coherence, %.2f duplication, %.0f tri/sec)\n".
QYGEOM_API void meshOctreeLines(const CompactMesh& mesh, const Octree& octree, OctreeLines& out);

/// Extends `box` by the three corners of the triangle (callers zero the box first).
/// @pre the triangle's indices are valid for `vertices`
QYGEOM_API void meshTriBoundingBox(const MeshVertex* vertices, const MeshTriangle& triangle,
                                   BoundingBox& box);

/// True when the triangle p0 p1 p2 (3 floats each) meets the closed box: a separating-axis
/// test in single precision (box axes, triangle normal, the nine edge-axis cross products)
/// on the box rounded to single precision. Touching counts. Degenerate triangles (segments,
/// points) are handled. False when any coordinate is NaN or infinite. Where the triangle
/// passes within rounding error of a box edge the answer may go either way.
QYGEOM_API bool intersects(const BoundingBox& box, const float* p0, const float* p1,
                           const float* p2);

/// True when the segment p0 p1 meets the closed box, in single precision; false at once when
/// both end points lie beyond the same face of the box. False when any coordinate is NaN or
/// infinite.
QYGEOM_API bool intersects(const BoundingBox& box, const float* p0, const float* p1);

} // namespace qyGeom
