// Consistency of triangle orientation: two triangles agree across a shared edge when they
// traverse it in opposite directions.
#pragma once

#include <vector>

#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Tests the orientation of a mesh on construction and, on request, makes it consistent by
/// flipping triangles in place (exchanging corners 1 and 2). Each connected region takes
/// the orientation of its lowest-numbered triangle. The mesh and the vertex-to-triangle
/// adjacency belong to the caller and must outlive the object.
class QYGEOM_API MeshOrient
{
public:
    MeshOrient(CompactMesh& mesh, const MeshAdjTris& adjacency);
    MeshOrient(const MeshOrient&) = default;
    MeshOrient(MeshOrient&&) = default;

    /// Makes the mesh consistently oriented if it is not. When the mesh cannot be oriented
    /// (a Moebius band, a non-manifold edge whose sharers cannot all agree) the triangles
    /// flipped on the way stay flipped; getAffectedTriangles() then holds the region reached
    /// from the conflicting triangle. Sends one notification when anything was flipped.
    void orient();

    bool isOriented() const { return m_oriented; }
    bool isOrientable() const { return m_orientable; }
    /// The triangles reached by the last search.
    const BitVector& getAffectedTriangles() const { return m_affected; }

private:
    void compute();
    bool computeOriented() const;
    bool computeOrientation(bool& flipped);
    bool search(bool& flipped, int start);

    CompactMesh& m_mesh;
    const MeshAdjTris& m_adjacency;
    BitVector m_affected;
    std::vector<int> m_queue;
    int m_conflictTriangle = -1;
    bool m_oriented = false;
    bool m_orientable = false;
};

/// True when every edge shared by two triangles is traversed in opposite directions by
/// them; changes nothing. A mesh without triangles is oriented.
QYGEOM_API bool meshOriented(const CompactMesh& mesh, const MeshAdjTris& adjacency);

/// Orients the mesh; true when it is now consistently oriented.
QYGEOM_API bool meshMakeOriented(CompactMesh& mesh, const MeshAdjTris& adjacency);

/// Reverses the front side of every triangle, strip and fan of the mesh. Triangles exchange
/// corners 0 and 1. A strip of odd length is reversed; a strip of length 4 exchanges its points
/// 1 and 2; any other even strip (length 6, 8, ...) is split in two, its first triangle
/// reversed as a strip of 3 points (p2, p1, p0) followed by the odd strip p1 ... p(L-1).
/// Strips of fewer than 3 points draw nothing and are kept as they are. A fan keeps its hub
/// first and reverses the order of its other points. Lines and line strips are not touched.
///
/// @param[in,out] mesh            borrowed for the call.
/// @param[in]     reverseNormals  negate the vertex normals too. Triangle normals, when the
///                                mesh has them, are always negated.
/// Notifies: Remapped (no remap), once, with the triangle normals and the strips and fans
///   rewritten, the vertex normals rewritten or still valid as `reverseNormals` says, the UVs
///   still valid. Prints "meshReverseWinding: %d triangles\n" and the time taken.
/// Cost: O(T + strip and fan points); a strip array copy when strips are split.
QYGEOM_API void meshReverseWinding(CompactMesh& mesh, bool reverseNormals);

/// Reverses the connected region that holds `triangle`: the triangle is added to the mesh's
/// triangle selection (bits already set stay set), the selection is grown over every
/// triangle connected to a selected one (MeshSelect::selectTrianglesRecursive), and
/// meshReverseSelectedWinding reverses the result. The selection stays grown afterwards.
/// @pre 0 <= triangle < mesh.getNumTriangles(); `adjacency` is meshAdjTris of the mesh.
QYGEOM_API void meshReverseWinding(CompactMesh& mesh, const MeshAdjTris& adjacency, int triangle);

/// Reverses the selected triangles (corners 0 and 1 exchanged), negating their triangle
/// normals and the normal of every vertex that they use, each vertex exactly once however
/// many selected triangles share it (a vertex also used by unselected triangles is negated
/// too). Strips and fans are not touched. Selection bits past the triangle count are ignored.
/// Notifies: Remapped (no remap), once, with vertex and triangle normals rewritten and UVs
///   valid; also when nothing is selected. Prints "meshReverseSelectedWinding: %d triangles\n"
///   with the size of the triangle selection, and the time taken.
/// Cost: O(T + V / 32); one bit per vertex of temporaries.
QYGEOM_API void meshReverseSelectedWinding(CompactMesh& mesh);

} // namespace qyGeom
