// Neighbourhood structures of a mesh's triangles: vertex to triangles, vertex to vertices,
// triangle to triangles across edges; fan order around a vertex; the triangle across an edge.
#pragma once

#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshAdjTris;
class MeshAdjVertices;
class MeshTriAdjTris;
struct MeshTriangle;

/// Vertex-to-triangle sets of the mesh's triangle array (strips, fans and lines are ignored):
/// set v lists, in increasing order, every triangle that names v, once per corner that names
/// it. A triangle with an index outside [0, V) is left out of every set.
///
/// Prints "MeshAdjTris: %d vertices %d triangles %f\n" (elapsed seconds) on the debug channel.
/// Cost: O(V + T), a counting sort in two passes over the triangles; no memory besides the
/// result (4 (V + 1 + 3T) bytes) on one thread.
/// Threads: with several pool threads each takes an even share of the triangles (and a count
/// array of V ints for all but the first); the sets are the same with any thread count.
QYGEOM_API void meshAdjTris(const CompactMesh& mesh, MeshAdjTris& out);

/// Vertex-to-vertex records: for each vertex v, its neighbours in first-seen order, walking
/// the triangles of v in `adjTris` order and within each its corners 0, 1, 2, skipping v and
/// any vertex already listed. `adjTris` must be meshAdjTris(mesh).
///
/// Prints "MeshAdjVertices: %d vertices, %d triangles: %f s\n" on the debug channel.
/// Cost: O(V + T): the triangles are read in index order and each corner's two other corners
/// are put in a region of its vertex sized from `adjTris` (a work buffer of V + 6T ints),
/// where they are made unique; no per-vertex sets. If `adjTris` has the wrong number of sets
/// the uses are counted here instead; sets that do not match the triangles give wrong records
/// but never write outside the buffer.
/// Threads: the vertices are split over the pool's threads in ranges of equal use; the
/// records are the same with any thread count.
QYGEOM_API void meshAdjVertices(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                                MeshAdjVertices& out);

/// Triangle-to-triangle sets across undirected edges: set t lists the triangles across edge 0
/// (corner 0 to 1), then edge 1 (1 to 2), then edge 2 (2 to 0). Across one edge, the other
/// triangles that have that edge are listed in increasing order (a triangle having the edge
/// twice, twice); t itself is never listed. So a boundary edge adds nothing, an edge of k
/// triangles adds k - 1 entries, and a neighbour across two edges of t appears twice. A
/// triangle with an index outside [0, V) gets an empty set and appears in none.
///
/// Prints "MeshTriAdjTris: %d vertices %d triangles %f\n" on the debug channel.
/// Cost: O(V + T): the edges are bucketed by their smaller vertex with a stable counting sort,
/// in batches of vertices, and matched within each bucket; the result's member array holds
/// what lies across each edge until the sets are packed in place. Work memory besides the
/// result: 12 bytes per triangle on one thread (two batches), 24 with several (one batch per
/// thread); more with edges of three or more triangles.
/// Threads: the batches, and then the triangles, are shared over the pool; the sets are the
/// same with any thread count.
QYGEOM_API void meshTriAdjTris(const CompactMesh& mesh, MeshTriAdjTris& out);

/// Orders the n triangles `tris` around vertex v into fan order, in `out`. Starting from
/// out = tris, for each position i < n - 1: with p the corner of out[i] at v and q the corner
/// before p, the first triangle of out[i + 1 ..] in which v is immediately followed by q
/// (cyclically) is swapped into position i + 1; when there is none the rest stays as it is.
/// On a consistently oriented fan this gives the triangles in walking order across shared
/// edges; a boundary or an inconsistency breaks the fan there, without error.
/// @param triangles  the mesh's triangle array; every triangle of `tris` should name v.
/// Cost: O(n^2) in the worst case.
QYGEOM_API void sortAdjTris(int v, int n, const int* tris, const MeshTriangle* triangles,
                            std::vector<int>& out);

/// The triangle across edge `edge` (corner edge to corner edge + 1) of triangle `tri`: with
/// a, b the two corners, the first triangle u other than tri in a's set of `adjTris` that
/// has a corner equal to b. Sets outTri = u and outEdge = the first corner k of u that is b
/// (for a consistently oriented neighbour, u's own index of the shared edge) and returns
/// true. Otherwise returns false, with outEdge = -1 and outTri unchanged.
/// @pre 0 <= edge < 3; adjTris built for `triangles`.
QYGEOM_API bool getSharedEdgeAdjacentTriangle(const int& tri, int edge,
                                              const MeshTriangle* triangles,
                                              const MeshAdjTris& adjTris, int& outTri,
                                              int& outEdge);

} // namespace qyGeom
