// CompactMesh: the indexed mesh: vertices (PointMesh) plus triangles, triangle normals,
// strips, fans, lines, line strips, polygons and a triangle selection.
#pragma once

#include <vector>

#include "model/MeshArray.h"
#include "model/PointMesh.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Owns all its arrays. Index arrays hold vertex indices; the mesh does not check them.
/// Strips, fans, line strips and polygons are stored as a lengths array (one entry per run)
/// and one points array holding all runs' indices back to back.
///
/// Derived data of the faces: the triangle normals, dropped by modified() when positions or
/// numbering change unless the record marks them rewritten or still valid. On a vertex
/// renumbering, modified() also renumbers the strips, fans, lines, line strips and polygons
/// that the record does not mark rewritten, dropping any run or line that loses a vertex; on
/// a triangle renumbering the triangle selection follows the map.
class QYGEOM_API CompactMesh : public PointMesh
{
public:
    CompactMesh();
    /// n copied vertices and the given optional per-vertex arrays (null = absent).
    CompactMesh(int n, const MeshVertex* vertices, const MeshNormal* normals = nullptr,
                const MeshUV* uvs = nullptr, const MeshColour* colours = nullptr);
    CompactMesh(const CompactMesh& other);
    /// Takes the other's contents, leaving it empty; observers of both are told.
    CompactMesh(CompactMesh&& other) noexcept;
    /// Whole-mesh copy, kept in this mesh's own allocator; observers are told the contents
    /// were replaced.
    CompactMesh& operator=(const CompactMesh& other);
    CompactMesh& operator=(CompactMesh&& other) noexcept;
    ~CompactMesh() override;
    /// Exchanges all contents; observers of both meshes are told.
    void swap(CompactMesh& other) noexcept;

    // Triangles -------------------------------------------------------------------------
    int getNumTriangles() const { return m_triangles.size(); }
    MeshTriangle* getTriangles() { return m_triangles.as<MeshTriangle>(); }
    const MeshTriangle* getTriangles() const { return m_triangles.as<MeshTriangle>(); }
    /// The triangles as 3n ints.
    int* getTrianglesRaw() { return m_triangles.as<int>(); }
    const int* getTrianglesRaw() const { return m_triangles.as<int>(); }
    /// Sets the triangle count, keeping entries below n; triangle normals follow; the
    /// triangle selection grows with the count (see resizeVertexArray).
    void resizeTriangleArray(int n);
    /// Replaces the triangles by n triangles given as 3n indices.
    void copyTriangles(int n, const int* indices);
    /// Replaces the vertex positions by `vertices` and the triangles by `triangles`, taking
    /// over their memory instead of copying it; the other per-vertex arrays, the triangle
    /// normals and the selections follow the new counts as after copyVertices and
    /// copyTriangles. Both arguments are left empty.
    /// @pre vertices holds MeshVertex elements and triangles MeshTriangle elements.
    void adoptVerticesAndTriangles(MeshArray& vertices, MeshArray& triangles);

    /// Null when the mesh has no triangle normals.
    MeshNormal* getTriangleNormals();
    const MeshNormal* getTriangleNormals() const;
    float* getTriangleNormalsRaw() { return reinterpret_cast<float*>(getTriangleNormals()); }
    const float* getTriangleNormalsRaw() const
    {
        return reinterpret_cast<const float*>(getTriangleNormals());
    }
    /// One (zero-filled) normal per triangle; an existing array is kept.
    void allocTriangleNormalArray();
    void deleteTriangleNormals();

    // Triangle strips and fans ------------------------------------------------------------
    int getNumTriStrips() const { return m_strips.lengths.size(); }
    int getNumTriStripPoints() const { return m_strips.points.size(); }
    int* getTriStripLengths() { return m_strips.lengths.as<int>(); }
    const int* getTriStripLengths() const { return m_strips.lengths.as<int>(); }
    int* getTriStripPoints() { return m_strips.points.as<int>(); }
    const int* getTriStripPoints() const { return m_strips.points.as<int>(); }
    void resizeTriStripArrays(int numPoints, int numStrips);

    int getNumTriFans() const { return m_fans.lengths.size(); }
    int getNumTriFanPoints() const { return m_fans.points.size(); }
    int* getTriFanLengths() { return m_fans.lengths.as<int>(); }
    const int* getTriFanLengths() const { return m_fans.lengths.as<int>(); }
    int* getTriFanPoints() { return m_fans.points.as<int>(); }
    const int* getTriFanPoints() const { return m_fans.points.as<int>(); }
    void resizeTriFanArrays(int numPoints, int numFans);

    // Lines and line strips ---------------------------------------------------------------
    int getNumLines() const { return m_lines.size(); }
    MeshLine* getLines() { return m_lines.as<MeshLine>(); }
    const MeshLine* getLines() const { return m_lines.as<MeshLine>(); }
    void resizeLineArray(int n);

    int getNumLineStrips() const { return m_lineStrips.lengths.size(); }
    int getNumLineStripPoints() const { return m_lineStrips.points.size(); }
    int* getLineStripLengths() { return m_lineStrips.lengths.as<int>(); }
    const int* getLineStripLengths() const { return m_lineStrips.lengths.as<int>(); }
    int* getLineStripPoints() { return m_lineStrips.points.as<int>(); }
    const int* getLineStripPoints() const { return m_lineStrips.points.as<int>(); }
    /// starts[i] points at the first index of strip i inside the points array, from the
    /// lengths as they are now. Valid until the next change of the lengths or arrays.
    int* const* getLineStripStarts();
    const int* const* getLineStripStarts() const;
    void resizeLineStripArrays(int numPoints, int numStrips);

    // Polygons ----------------------------------------------------------------------------
    int getNumPolys() const { return m_polys.lengths.size(); }
    int getNumPolyPoints() const { return m_polys.points.size(); }
    int* getPolyLengths() { return m_polys.lengths.as<int>(); }
    const int* getPolyLengths() const { return m_polys.lengths.as<int>(); }
    int* getPolyPoints() { return m_polys.points.as<int>(); }
    const int* getPolyPoints() const { return m_polys.points.as<int>(); }
    /// Note the order: polygon count first, then the total point count.
    void resizePolyArrays(int numPolys, int numPoints);

    // Selection ---------------------------------------------------------------------------
    BitVector& getSelectedTriangles() { return m_selectedTriangles; }
    const BitVector& getSelectedTriangles() const { return m_selectedTriangles; }
    /// Clears both the vertex and the triangle selection.
    void clearSelection();

    int getSizeInBytes() const override;
    void setArrayAllocator(qy::Reference<ArrayAllocator> allocator) override;

protected:
    void applyModification(const MeshModification& modification) override;

private:
    struct Runs
    {
        MeshArray lengths{sizeof(int)};
        MeshArray points{sizeof(int)};
    };
    void swapFaceData(CompactMesh& other) noexcept;
    std::vector<MeshArray*> faceArrays();
    std::vector<const MeshArray*> faceArrays() const;
    void buildLineStripStarts() const;

    MeshArray m_triangles{sizeof(MeshTriangle)};
    MeshArray m_triangleNormals{sizeof(MeshNormal)};
    bool m_hasTriangleNormals = false;
    Runs m_strips, m_fans, m_lineStrips, m_polys;
    MeshArray m_lines{sizeof(MeshLine)};
    BitVector m_selectedTriangles;
    mutable std::vector<int*> m_lineStripStarts;
};

} // namespace qyGeom
