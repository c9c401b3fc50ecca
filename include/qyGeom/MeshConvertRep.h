// Edit regions: a selected part of an indexed mesh converted to a half-edge mesh, edited
// there and merged back.
#pragma once

#include <vector>

#include "base/Linear.h"
#include "model/BitVector.h"
#include "model/TopoMesh.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshAdjTris;
class Remap;

/// The region of a CompactMesh given by its current selections, as a TopoMesh: one vertex
/// per selected vertex and per corner of a selected triangle, one face per selected triangle,
/// twins paired inside the region only (so the region's rim is a boundary of the TopoMesh,
/// even where the mesh goes on). Each region vertex carries its mesh vertex index as its tag,
/// each face its mesh triangle index.
///
/// Selected triangles that the TopoMesh refuses (a corner outside [0, V), a vertex named
/// twice) stay out of the region and are left as they are.
///
/// Cost: O(V / 32 + T / 32) to read the selections, then O(region); besides the selection
/// bits, only two bit arrays of V and T bits and their word counts are sized by the whole mesh. The
/// mesh must not change while the region lives (except through MeshModifyRep::merge).
class QYGEOM_API MeshConvertRep
{
public:
    /// @param adjTris  meshAdjTris of the mesh: the twins are paired from its sets, and it is
    ///                 kept by reference for the merge. One of another vertex count is not
    ///                 used for the build (the twins are then matched among the half-edges).
    MeshConvertRep(CompactMesh& mesh, const MeshAdjTris& adjTris);
    /// The same, building the TopoMesh in the arrays of `storage` (its contents are dropped,
    /// its capacity reused): a caller that builds region after region hands back the
    /// previous region's TopoMesh (takeTopoMesh) so that no build has to fault in new pages.
    MeshConvertRep(CompactMesh& mesh, const MeshAdjTris& adjTris, TopoMesh&& storage);
    virtual ~MeshConvertRep();
    MeshConvertRep(const MeshConvertRep&) = delete;
    MeshConvertRep& operator=(const MeshConvertRep&) = delete;

    TopoMesh& getTopoMesh() { return m_topo; }
    const TopoMesh& getTopoMesh() const { return m_topo; }
    /// Moves the TopoMesh out, for the storage of a later region; this region is left empty
    /// (use it after a merge or to discard it).
    TopoMesh takeTopoMesh() { return std::move(m_topo); }
    /// The region vertex of mesh vertex `index`; invalid when the vertex is not in the region
    /// or was deleted from the TopoMesh. Cost: O(1).
    TopoMeshVertex getTopoMeshVertex(int index);
    /// The mesh vertex of a region vertex, -1 for a vertex created in the region.
    int getMeshVertex(TopoMeshVertex v) const;
    CompactMesh& getMesh() { return m_mesh; }
    /// Region size as built: vertices and triangles.
    int getNumRegionVertices() const { return int(m_vertices.size()); }
    int getNumRegionTriangles() const { return int(m_triangles.size()); }

protected:
    CompactMesh& m_mesh;
    const MeshAdjTris& m_adjTris;
    TopoMesh m_topo;
    std::vector<int> m_vertices;  ///< mesh vertex of region vertex slot i, increasing
    std::vector<int> m_triangles; ///< mesh triangles converted to faces, increasing

    /// Bits with the count of set bits before each word, so that the position of an element
    /// in the increasing list of the set ones is found in constant time.
    struct RankedBits
    {
        BitVector bits;
        std::vector<int> before;
        int count = 0;    ///< set bits, once ranked
        bool all = false; ///< every bit set (a region of the whole mesh): the position is i
        /// n clear bits.
        void assign(int n);
        /// Counts the set bits before each word; call it after the bits are set.
        void rank();
        /// Position of i among the set bits; -1 when its bit is clear or i is outside.
        int find(int i) const;
    };
    RankedBits m_vertexSlots;   ///< the mesh vertices of m_vertices
    RankedBits m_triangleSlots; ///< the mesh triangles of m_triangles
    std::vector<int> m_scratch; ///< the build's per-vertex lists

private:
    /// Lays the TopoMesh out from m_vertices and m_triangles, twins paired.
    void build();
    /// The same through allocFace and meshTwin, for an adjacency that is not the mesh's.
    void buildByFaces();
};

/// An edit region that is written back into its mesh.
///
/// Edit the TopoMesh freely (swapEdge, deleteVertex, subdivideFace ...), announce each vertex
/// that leaves with removeVertex, then merge() once. The merge:
/// - deletes from the mesh the region vertices that left: those announced with removeVertex
///   and those no longer alive in the TopoMesh, unless restored (below);
/// - appends the vertices created in the region, in slot order, with zero normals, UVs and
///   other per-vertex data;
/// - replaces the region's triangles by the TopoMesh's faces: a face that keeps a triangle's
///   tag goes back into that triangle's slot (in the triangle's own rotation when it has the
///   same corners), the other faces fill the freed region slots in increasing order and then
///   go to the end; a face of more than three corners is written as a fan from its first
///   corner; faces that name a vertex that left are dropped;
/// - deletes the triangles outside the region that use a vertex that left (an edit must not
///   remove a vertex of the region's rim; this keeps the mesh valid if one does);
/// - renumbers: vertices and triangles keep their order, deleted ones close up.
///
/// A vertex announced with removeVertex and later re-created in the same TopoMesh slot at
/// exactly the same position (as undoing a deletion with subdivideFace does) is restored: it
/// keeps its index and per-vertex data.
class QYGEOM_API MeshModifyRep : public MeshConvertRep
{
public:
    MeshModifyRep(CompactMesh& mesh, const MeshAdjTris& adjTris);
    MeshModifyRep(CompactMesh& mesh, const MeshAdjTris& adjTris, TopoMesh&& storage);
    ~MeshModifyRep() override;

    /// Records that region vertex v leaves the mesh at the merge. Call it before deleting v
    /// from the TopoMesh. Ignored for a vertex that is not a region vertex of the mesh.
    void removeVertex(TopoMeshVertex v);

    /// Writes the region back into the mesh (see the class comment) and fills `vertexRemap`
    /// with the old-to-new vertex map (domain the old vertex count; sequential when no vertex
    /// was deleted or added). `flags`: pass 0; no options are defined.
    ///
    /// Notifies: one MeshModification of type Remapped with the vertex and triangle maps
    /// (each sequential when nothing of that kind was renumbered, deleted or added), unless
    /// the region is unchanged, in which case the mesh is not touched. Computed per-vertex
    /// arrays and the triangle normals are dropped by the mesh as stale.
    /// Cost: O(region) when no vertex or triangle count changes; otherwise one pass over the
    /// vertex arrays and the triangle array to close up and renumber. Merging twice does
    /// nothing the second time (the map is made sequential).
    void merge(Remap& vertexRemap, int flags);
    bool isMerged() const { return m_merged; }

private:
    struct Removed
    {
        int slot;
        int meshVertex;
        qyLinear::Point point;
    };
    std::vector<Removed> m_removed;
    bool m_merged = false;
};

} // namespace qyGeom
