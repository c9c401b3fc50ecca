// meshTopology: the undirected edges of a triangle mesh and its topology summary (pieces,
// boundary loops, Euler characteristic and genus).
#pragma once
#include <cstdint>
#include <vector>

#include "base/Reference.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshBoundaries;
struct MeshEdgesBuilder;

/// The undirected edges of a triangle mesh, sorted by their two vertices.
///
/// Edge e joins vertex0(e) < vertex1(e). Its uses are the half-edges that run along it, each
/// numbered 3 t + k (triangle t from its corner k to corner k + 1, cyclically), in increasing
/// order. A triangle with a corner outside the vertex array gives no half-edge; a half-edge
/// whose two ends are the same vertex (a repeated corner) is not on any edge, while the other
/// half-edges of such a triangle are. An edge with one use is a boundary edge, one with three
/// or more is non-manifold.
/// Threads: read-only after construction, so it may be shared between threads.
class QYGEOM_API MeshEdges : public qy::ReferenceCount
{
public:
    int size() const { return int(m_keys.size()); }
    int vertex0(int e) const { return int(m_keys[std::size_t(e)] >> 32); }
    int vertex1(int e) const { return int(m_keys[std::size_t(e)] & 0xffffffffu); }
    /// Number of half-edges on edge e.
    int numUses(int e) const { return m_start[std::size_t(e) + 1] - m_start[std::size_t(e)]; }
    /// The half-edges on edge e, increasing; numUses(e) of them.
    const int* uses(int e) const { return m_uses.data() + m_start[std::size_t(e)]; }
    /// The edge of half-edge 3 t + k, or -1 when it lies on none.
    int edgeOf(int halfEdge) const { return m_edgeOf[std::size_t(halfEdge)]; }
    /// The edge joining a and b (in either order), or -1. Cost: O(log E).
    int find(int a, int b) const;
    /// Edges with exactly one use, and with three or more.
    int numBoundary() const { return m_numBoundary; }
    int numNonManifold() const { return m_numNonManifold; }

private:
    friend struct MeshEdgesBuilder;
    std::vector<std::uint64_t> m_keys; // vertex0 above vertex1
    std::vector<int> m_start;          // size() + 1 offsets into m_uses
    std::vector<int> m_uses;
    std::vector<int> m_edgeOf; // per half-edge
    int m_numBoundary = 0, m_numNonManifold = 0;
};

/// Replaces `out` with the edges of `mesh`.
/// Cost: O(T log T) time (one sort of the half-edges), about 24 bytes per triangle.
QYGEOM_API void meshEdges(const CompactMesh& mesh, MeshEdges& out);

/// Replaces `out` with the edges of polygons given as corner lists: face f has the corners
/// corners[faceStart[f]] to corners[faceStart[f + 1] - 1], and half-edge c runs from corner c to
/// the next corner of its face (the first after the last). The rules of the triangle form hold
/// face by face: a face with a corner outside [0, numVertices) gives no half-edge, a half-edge
/// between two equal vertices is on no edge. `faceStart` has numFaces + 1 entries.
/// Cost: O(C log C) time for C corners.
QYGEOM_API void polygonEdges(int numVertices, int numFaces, const int* faceStart,
                             const int* corners, MeshEdges& out);

/// The topology of a triangle mesh, as a whole and piece by piece.
///
/// Counted are the proper triangles: three distinct corners, all inside the vertex array.
/// Triangles with a repeated corner or a corner outside the array are only counted, in
/// `degenerateTriangles` and `invalidTriangles`. A vertex is referenced when a proper triangle
/// uses it; the others are counted in `unreferencedVertices` and belong to no piece. Edges are
/// those of the proper triangles (an edge used only by degenerate triangles does not count),
/// boundary loops those of meshComputeBoundary (which follows the triangles' winding, so on
/// a piece whose winding is not consistent a rim can be traced as several loops). Pieces are the
/// classes of proper triangles joined through shared vertices, numbered in the order of their
/// lowest triangle; a loop belongs to the piece of its first vertex. Threads: read-only after
/// construction.
class QYGEOM_API MeshTopology : public qy::ReferenceCount
{
public:
    struct Piece
    {
        int vertices = 0, triangles = 0;
        long long edges = 0;
        int boundaryEdges = 0, nonManifoldEdges = 0, boundaryLoops = 0;
        /// vertices - edges + triangles.
        long long euler = 0;
        /// (2 - euler - boundaryLoops) / 2, the genus of an orientable surface with that many
        /// holes; -1 when the piece is not a surface (a non-manifold edge) or the count is not
        /// a whole non-negative number (a non-orientable piece, such as a Moebius band).
        long long genus = -1;
    };

    int vertices = 0, referencedVertices = 0, unreferencedVertices = 0;
    int triangles = 0, degenerateTriangles = 0, invalidTriangles = 0;
    long long edges = 0;
    int boundaryEdges = 0, nonManifoldEdges = 0, boundaryLoops = 0;
    /// referencedVertices - edges + proper triangles.
    long long euler = 0;
    std::vector<Piece> pieces;
    /// Piece of every vertex (-1 for unreferenced ones) and of every triangle (-1 for
    /// degenerate and invalid ones).
    std::vector<int> vertexPiece, trianglePiece;

    /// The sum of the pieces' genus, or -1 when some piece has none.
    long long genus() const;
};

/// Fills `out` from the mesh, its edges (meshEdges) and its boundary loops
/// (meshComputeBoundary). MeshCache::getTopology does this with cached inputs.
/// Cost: O(V + T) beyond the inputs.
QYGEOM_API void meshTopology(const CompactMesh& mesh, const MeshEdges& edges,
                             const MeshBoundaries& boundaries, MeshTopology& out);

} // namespace qyGeom
