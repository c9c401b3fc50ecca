// OBJ reading: a fast, forgiving line reader into a CompactMesh (meshReadObj) and a strict,
// token-driven parser into a MeshObjFile (meshReadObj2).
#pragma once

#include "base/Containers.h"
#include "base/Error.h"
#include "base/Filename.h"
#include "base/Linear.h"
#include "base/Reference.h"
#include "base/String.h"
#include "qyGeom/meshReadObjMaterial.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshSubset;
class TopoMesh;

/// One corner of a face: 0-based vertex, texture-coordinate and normal index, -1 where
/// absent.
struct MeshObjCorner
{
    int vertex = -1;
    int texCoord = -1;
    int normal = -1;

    bool operator==(const MeshObjCorner&) const = default;
};

/// A group of faces of an OBJ file under one name and one material. Face f has
/// getFaceSize(f) corners, stored back to back in the corner list.
class QYGEOM_API MeshObjGroup : public qy::ReferenceCount
{
public:
    MeshObjGroup() = default;
    explicit MeshObjGroup(qyString::IString name) : m_name(std::move(name)) {}
    MeshObjGroup(const MeshObjGroup&) = default;
    MeshObjGroup(MeshObjGroup&&) = default;
    MeshObjGroup& operator=(const MeshObjGroup&) = default;
    MeshObjGroup& operator=(MeshObjGroup&&) = default;
    ~MeshObjGroup() override;

    const qyString::CString& getName() const { return m_name; }
    void setName(qyString::IString name) { m_name = std::move(name); }
    /// Null when the group has no material.
    const qy::Reference<MeshObjMaterial>& getMaterial() const { return m_material; }
    void setMaterial(qy::Reference<MeshObjMaterial> m) { m_material = std::move(m); }

    int getNumFaces() const { return int(m_faceStarts.size()) - 1; }
    int getFaceSize(int f) const
    {
        return m_faceStarts[std::size_t(f) + 1] - m_faceStarts[std::size_t(f)];
    }
    /// First corner of face f inside getCorners().
    int getFaceStart(int f) const { return m_faceStarts[std::size_t(f)]; }
    const qy::vector<MeshObjCorner>& getCorners() const { return m_corners; }
    const MeshObjCorner* getFaceCorners(int f) const
    {
        return m_corners.data() + m_faceStarts[std::size_t(f)];
    }
    /// Appends a face of n corners.
    void addFace(int n, const MeshObjCorner* corners);
    /// Makes room for that many faces and corners in all.
    void reserve(int numFaces, int numCorners);

private:
    qyString::CString m_name;
    qy::Reference<MeshObjMaterial> m_material;
    qy::vector<int> m_faceStarts{0}; ///< one more than the faces: the end of the last
    qy::vector<MeshObjCorner> m_corners;
};

/// An OBJ file as parsed by meshReadObj2: the vertex, texture-coordinate and normal lists,
/// the materials by name and the groups of faces in file order.
class QYGEOM_API MeshObjFile : public qy::ReferenceCount
{
public:
    MeshObjFile() = default;
    MeshObjFile(const MeshObjFile&) = default;
    MeshObjFile(MeshObjFile&&) = default;
    MeshObjFile& operator=(const MeshObjFile&) = default;
    MeshObjFile& operator=(MeshObjFile&&) = default;
    ~MeshObjFile() override;

    qy::vector<qyLinear::PointFlt> vertices;
    qy::vector<qyLinear::Point2Flt> texCoords;
    qy::vector<qyLinear::VectorFlt> normals;
    qy::map<qyString::CString, qy::Reference<MeshObjMaterial>> materials;
    /// The groups that have faces, in the order in which they were closed.
    qy::vector<qy::Reference<MeshObjGroup>> groups;
    int numTriangles = 0; ///< faces with 3 corners
    int numQuads = 0;     ///< faces with 4 corners
    int numPolygons = 0;  ///< faces with more than 4 corners
};

/// Reads an OBJ file into a mesh with one vertex per `v` line, in file order, and its faces:
/// the triangle array when every face is a triangle, otherwise the polygon arrays (every
/// face, triangles included, as a polygon). No welding, no texture coordinates, no normals.
///
/// The reader is forgiving: it skips what it does not understand (`g`, `o`, `s`, `l`, `p`,
/// `vp`, unknown words), a malformed number reads as 0, faces of fewer than 3 corners are
/// dropped, faces with a vertex index outside the file's vertices are set aside, triangles
/// that name a vertex twice are printed on standard output as "%d, %d, %d\n" (1-based) and
/// set aside. Negative indices count back from the last element read so far. In a face, a
/// corner without a texture or normal index keeps the one of the previous corner of the same
/// line ("f 1/1 2 3" gives all three corners texture 1). Numbers convert as strtod does in
/// the "C" locale whatever the process locale is; when the file's first comment line starts
/// with "# CATIA OBJ File:", ',' is read as the decimal point. Lines end at '\n'; a '\r'
/// before it and tabs are white space; a line longer than 16383 bytes ends the reading at
/// that line, keeping what came before.
///
/// @return false when the file cannot be opened or holds no vertex or no face; the mesh is
///   then unspecified.
QYGEOM_API bool meshReadObj(CompactMesh& mesh, const qyOS::Filename& file);

/// Reads an OBJ file of triangles into a mesh split into texture charts.
///
/// Without texture coordinates the vertices are welded (meshCompact) and duplicate and
/// degenerate triangles are removed; no subsets are made. With texture coordinates, every
/// connected component of the mesh whose vertices are split where corners of one position
/// carry different texture coordinates becomes one subset (its vertices and its triangles);
/// `uvs` gets one list per subset, one entry per subset vertex (empty when some vertex of the
/// subset has no texture coordinate). The split keeps each position's vertex for its lowest
/// texture index and appends one copy per further texture index, walking the positions and
/// then their texture indices in ascending order; a subset lists its split vertices in that
/// numbering, ascending, each given as the position it copies. So a subset's vertex list runs
/// ascending through the positions whose own vertex it holds and then through its copies: a
/// position can come twice (a seam inside one chart, with both UVs in `uvs`) and out of order
/// (`0 1 2 3 2`: position 2 once for each of its texture coordinates). The returned mesh has
/// one vertex per position again, so a vertex on a seam appears in several subsets. When
/// splitting would add 101 or more vertices and more than there are positions, the texture
/// coordinates are dropped instead ("Texture coords deleted!") and duplicate triangles are
/// removed.
/// Faces are ordered by material (in the order of first use, faces before any usemtl first)
/// and keep their file order within one material.
///
/// @param[out] materialNames  with materials in the file, one name per subset: the material
///   of the subset's first triangle ("" for none); empty when no face has a material.
/// @param[out] mtlFile  the `mtllib` file joined to the OBJ file's directory, or empty.
/// @return false when the file cannot be opened, has no vertex or no face, or has a face
///   that is not a triangle ("Error: Non-triangular face found - not handled!").
/// Debug channel: the parse time ("Parse Obj File: %f s, v=%f s, n=%f s, uv=%f s\n", the
///   reading time shared out over the v, vn and vt lines by their bytes) and the time of each
///   later phase.
QYGEOM_API bool meshReadObj(CompactMesh& mesh, qy::list<qy::Reference<MeshSubset>>& subsets,
                            qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs,
                            qy::vector<qyString::IString>& materialNames, qyOS::Filename& mtlFile,
                            const qyOS::Filename& file);

/// As the overload above over `length` bytes of memory, without materials (`usemtl` and
/// `mtllib` are ignored). Only lines ended by '\n' are read: a last line without one is
/// not. False for a null or empty block.
QYGEOM_API bool meshReadObj(CompactMesh& mesh, qy::list<qy::Reference<MeshSubset>>& subsets,
                            qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs, const char* data,
                            unsigned int length);

/// Reads an OBJ file into a half-edge mesh: one vertex per `v` line in file order, one face
/// per face line that survives the forgiving reader's validation (any corner count of 3 or
/// more; faces that name a vertex twice are left out), then the twins are paired. Texture
/// coordinates and normals are not used. The mesh is cleared first.
/// @return false when the file cannot be opened or holds no vertex or no face.
QYGEOM_API bool meshReadObj(TopoMesh& mesh, const qyOS::Filename& file);

/// As above; with `allowNonManifold` false the read also fails (leaving the mesh cleared)
/// when an edge is used by more than two faces or twice in the same direction.
QYGEOM_API bool meshReadObj(TopoMesh& mesh, const qyOS::Filename& file, bool allowNonManifold);

/// Parses an OBJ file strictly into `file` (a null reference parses without keeping the
/// result). Statements: v, vt, vn, f (corners i, i/t, i/t/n, i//n, negative indices count
/// back), g, o, s, usemtl, mtllib (read with meshReadObjMaterial, beside the OBJ file);
/// '#' starts a comment. Statements need no line end between them.
///
/// @return success, or the first error: code 1 "Cannot open file: %s" or "Unrecognized
///   input on line %d"; code 2 "Parse failed on line %d: %s\n" for grammar and index errors
///   (for instance "expected OBJ statement or end of file" for l, p or vp statements, "face
///   has fewer than 3 vertex references", "invalid vertex index", "usemtl statement after
///   face statements in group"); a failing material library's own error. What was parsed
///   before an error stays in `file`.
/// Threads: any number of reads may run at once; callers should still not rely on it.
QYGEOM_API qyUtil::Error meshReadObj2(const qyString::IString& fileName,
                                      qy::Reference<MeshObjFile> file);

} // namespace qyGeom
