// cutSurface: cuts a mesh open along edges, duplicating the vertices on the cut, and can
// choose the cuts that turn a closed or higher-genus surface into a topological disk.
#pragma once
#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{
class Progress;
}

namespace qyGeom
{

class CompactMesh;

/// The edges of a cut, and after cutSurface the link from the cut mesh back to the original.
class QYGEOM_API CutRegion
{
public:
    CutRegion();
    ~CutRegion();

    /// Adds the undirected edge a-b to the cut (before cutSurface; pairs that are not an edge of
    /// the mesh are ignored).
    void addEdge(int a, int b);
    /// Number of edges listed.
    int getNumEdges() const { return int(edges.size() / 2); }

    /// Edges as vertex pairs (2 per edge). Before cutSurface: the caller's cut; after it: every
    /// edge that was cut (the caller's, the non-manifold ones and those chosen for a disk), in
    /// original vertex indices, smaller index first, in increasing order.
    std::vector<int> edges;
    /// After cutSurface: for every vertex of the cut mesh, the vertex it was copied from (the
    /// identity for the vertices that kept their index; copies are appended after them).
    std::vector<int> originalVertex;
};

/// Cuts `mesh` along the edges of `region`, and with `makeDisk` along the edges of a cut graph
/// that leaves every connected component a topological disk: genus 0 and one boundary loop.
///
/// Around each vertex the triangles are grouped into fans that stay connected across uncut
/// manifold edges; the first fan (the one holding the vertex's first corner) keeps the vertex,
/// every other fan gets a copy appended to the vertex array, with the position, normal, UV and
/// ST of the original. Edges with more than two triangles are always cut; their fans separate.
///
/// The disk cut (tree-cotree): a shortest-path forest T grows from the boundary vertices (or, on
/// a closed component, from a vertex at the far end of the component), a spanning tree of the
/// triangles crosses the remaining edges, most expensive first, and the edges it does not cross
/// are kept and pruned of dangling branches: what is left joins the boundary loops and the 2g
/// loops around the handles through T. Edge cost is length, lowered on sharp creases (by up to 4x
/// at a 180 degree fold), so cuts prefer short paths and creases. A closed component of genus 0
/// is slit open along the path of T from its root to its farthest vertex (at least two edges).
///
/// A closed component (of any genus) then has its cut extended to its extremities, since a
/// conformal flattening shrinks exponentially into every protrusion the cut misses until float
/// UVs fold. In rounds (at most 24 per component), shortest paths by the same costs grow from
/// every vertex on the cut; the local maxima of that distance are ranked by how far their
/// region sticks out, h^2 / A for a region of height h above a level and area A (a tube of
/// radius r and length h shrinks like exp(-2 pi h^2 / A)), and the best one above 0.5, else the
/// farthest vertex while it is at least a quarter of the component's bounding-box diagonal
/// away, is joined to the cut along its shortest path. Each path meets the cut only at its
/// end, so the cut stays a tree on the cut graph and the component one disk. Components that
/// already have a boundary keep the cut described above.
///
/// @param[in,out] mesh  Cut in place. Vertex i < V keeps index i; triangles keep their order.
/// @param[in,out] region  In: edges to cut in any case. Out: see CutRegion.
/// @param[in] makeDisk  add the cut graph's edges.
/// @return true when the mesh was cut (vertices added); false leaves it untouched.
/// Debug channel: "cutSurface: %d vertices, %d triangles\n", with makeDisk "  extended the cut
///   to %d extremities\n", "  cut %d edges, added %d vertices\n" and the phases' times.
/// Notifies: Remapped without remaps (existing vertices and triangles keep their numbers),
///   normalsModified and uvsModified when those arrays exist, triangleNormalsValid.
/// Cost: O(E log E) time (edge sort, shortest paths, tree) and as much again per path to an
///   extremity; about 100 bytes per triangle.
QYGEOM_API bool cutSurface(CompactMesh& mesh, CutRegion& region, bool makeDisk);

/// As above, polling `progress` for cancellation between the phases of the disk cut and in
/// each round of its extension to the extremities; a cancelled cut returns false with the mesh
/// and the region as they came. With `reachExtremities` false a closed component keeps the
/// plain tree-cotree cut (and the slit of a sphere), without the paths to its protrusions.
QYGEOM_API bool cutSurface(CompactMesh& mesh, CutRegion& region, bool makeDisk,
                           qyUtil::Progress& progress, bool reachExtremities = true);

} // namespace qyGeom
