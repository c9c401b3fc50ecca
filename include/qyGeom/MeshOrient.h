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

} // namespace qyGeom
