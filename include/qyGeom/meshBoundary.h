// Boundary loops of a mesh, or of a region of it: the boundary edge tests, the walk along a
// boundary, and the loops found by walking from every vertex in turn.
#pragma once

#include "base/Containers.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class ArrayOfSets;
class CompactMesh;
class MeshAdjTris;
class MeshAdjVertices;
class MeshBoundaries;
class MeshSubset;
class Remap;
class TopoMesh;
class TopoMeshEdge;
struct MeshTriangle;

/// The steps of the boundary walk. A directed edge v -> next of some triangle is a boundary
/// edge when next's neighbour count (MeshAdjVertices) differs from its triangle count
/// (MeshAdjTris) and no triangle runs the edge the other way.
namespace Boundary
{

/// The vertex that follows v in t (after the first corner at v, cyclically), or -1 when t
/// does not use v.
QYGEOM_API int findEdge(int v, const MeshTriangle& t);

/// True when some triangle runs the directed edge a -> b (a followed by b, cyclically).
/// Vertices outside `adjTris` have no edges. Cost: O(the smaller of a's and b's sets).
QYGEOM_API bool hasEdge(const CompactMesh& mesh, const MeshAdjTris& adjTris, int a, int b);

/// Finds the boundary edge leaving v: for each triangle of v in `adjTris` order, next =
/// findEdge(v, triangle), and the first boundary edge v -> next ends the search with true.
/// Returns false when v has none (next then holds the last vertex tried, or is left as it was
/// when v has no triangles).
QYGEOM_API bool walkBoundary(int v, int& next, const CompactMesh& mesh, const MeshAdjTris& adjTris,
                             const MeshAdjVertices& adjVertices);

} // namespace Boundary

/// All boundary loops, replacing the contents of `out`. For each vertex s in increasing
/// order that no loop has visited yet: s is marked visited and the walk starts there; while
/// walkBoundary finds the edge v -> next, v is appended to the loop and the walk moves to
/// next, stopping at a visited vertex (which it does not append). Loops are stored in the
/// order found; a start that finds no boundary edge adds no loop. A vertex where two loops
/// touch is taken by the first loop that reaches it; the second loop stops there. A closed
/// surface has no loops.
///
/// `adjTris` and `adjVertices` must be meshAdjTris and meshAdjVertices of the mesh. Prints
/// nothing. Cost: O(V / 32) on a closed mesh; the walks cost O(valence) per step; only the
/// vertices that precede an open vertex (neighbour and triangle counts differ) in some
/// triangle are tried as starts, the others cannot find a boundary edge. Runs on the calling
/// thread.
QYGEOM_API void meshComputeBoundary(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                                    const MeshAdjVertices& adjVertices, MeshBoundaries& out);

/// Boundary loops of a region of the mesh: the triangles listed in `subset` (its vertex list
/// is not read), seen as a mesh of their own. The loops are those of meshComputeBoundary on
/// the region alone, in mesh vertex indices, with starts tried in increasing mesh vertex
/// order: an edge of the region is on its boundary when no region triangle runs it the other
/// way, even where a triangle outside the region does, so a region cut out of a closed
/// surface gets a loop along its rim. Replaces the contents of `out`.
///
/// The region is read through an index of it: its own vertex-to-triangle sets over a local
/// vertex numbering, as meshSubsetAdjTris builds them. Callers that look at one region several
/// times build the index once and pass it; passing 0, an empty ArrayOfSets and an empty Remap
/// makes the function build it from `subset` itself. A given index is used as it is.
/// @param numSubsetVertices  number of region vertices (range of `toSubset`).
/// @param adjTris, adjVertices  meshAdjTris and meshAdjVertices of the whole mesh; a vertex
///                           whose triangles all lie in the region takes its neighbour count
///                           from them, the others are counted over the region's triangles.
/// @param subsetAdjTris      one set per region vertex: the region triangles (mesh triangle
///                           indices) that use it, in increasing order, as meshAdjTris would
///                           list them.
/// @param toSubset           mesh vertex -> region vertex, -1 for vertices that no region
///                           triangle uses. Vertices past its domain are outside the region.
/// Prints nothing. Cost: O(V) besides the walks. Runs on the calling thread.
QYGEOM_API void meshComputeSubsetBoundary(const CompactMesh& mesh, const MeshSubset& subset,
                                          int numSubsetVertices, const MeshAdjTris& adjTris,
                                          const MeshAdjVertices& adjVertices,
                                          const ArrayOfSets& subsetAdjTris, const Remap& toSubset,
                                          MeshBoundaries& out);

/// Builds the region inputs of meshComputeSubsetBoundary for the triangles of `subset`
/// (duplicates and indices outside [0, T) ignored): `toSubset` numbers the vertices used by
/// region triangles 0, 1, 2 ... in increasing mesh order (domain V, the others -1), and
/// `subsetAdjTris` gets one set per region vertex with its region triangles in `adjTris`
/// order. Returns the number of region vertices. `adjTris` must be meshAdjTris of the mesh.
QYGEOM_API int meshSubsetAdjTris(const CompactMesh& mesh, const MeshSubset& subset,
                                 const MeshAdjTris& adjTris, ArrayOfSets& subsetAdjTris,
                                 Remap& toSubset);

/// Boundary loops of a half-edge mesh, replacing the contents of `out`: each loop lists its
/// half-edges without a twin in walk order (TopoMeshBoundaryIterator: each leaves the vertex
/// where the one before arrives). A loop starts at the lowest boundary half-edge that no
/// earlier loop took; loops are stored in the order of their starts. Where two loops touch
/// at a vertex, each keeps its own half-edges. A closed mesh has no loops.
///
/// Prints nothing. Cost: O(E) plus one bit per half-edge slot. Runs on the calling thread.
QYGEOM_API void meshComputeBoundary(const TopoMesh& mesh,
                                    qy::vector<qy::vector<TopoMeshEdge>>& out);

} // namespace qyGeom
