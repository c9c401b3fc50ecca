// Selections of a mesh's vertices and triangles, grown over the triangles' connectivity.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class BitVector;
class CompactMesh;
class MeshAdjTris;

/// Grows a vertex selection and a triangle selection of a mesh into each other. The object
/// works on the bit vectors it was given (usually the mesh's own selections) and keeps no
/// state between calls; bits are only ever set, never cleared. A selection shorter than the
/// mesh's count is first lengthened with clear bits; bits past the count are left alone.
///
/// Triangles with a corner outside [0, V) are never selected through that corner and never
/// select it. `adjTris` must be meshAdjTris of the mesh; vertices past its sets select no
/// triangle.
///
/// Threads: runs on the calling thread. Cost: each call reads the selection words once
/// (O(n / 32)) plus the work on the selected elements.
class QYGEOM_API MeshSelect
{
public:
    MeshSelect(const CompactMesh& mesh, const MeshAdjTris& adjTris, BitVector& selectedTriangles,
               BitVector& selectedVertices);
    /// Over the mesh's own triangle and vertex selections.
    MeshSelect(CompactMesh& mesh, const MeshAdjTris& adjTris);

    /// Selects every triangle that uses a selected vertex. Returns the number of triangles
    /// newly selected.
    int selectAllTrianglesFromVertices();
    /// Selects every corner of every selected triangle. Returns the number of vertices newly
    /// selected.
    int selectVerticesFromTriangles();
    /// Grows the triangle selection over triangles that share a vertex with a selected one:
    /// with maxRings = 0 until every triangle connected to a selected one is selected (whole
    /// components, as meshComponents counts them), otherwise by at most that many rings.
    /// Vertices are not selected. Returns the number of triangles newly selected. Cost:
    /// O(selected triangles x valence); one stack of triangle indices.
    int selectTrianglesRecursive(int maxRings = 0);

private:
    void fitSizes();

    const CompactMesh& m_mesh;
    const MeshAdjTris& m_adjTris;
    BitVector& m_triangles;
    BitVector& m_vertices;
};

} // namespace qyGeom
