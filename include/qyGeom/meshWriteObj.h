// Mesh writing: OBJ text with an optional material library, and the minimal counted text
// format (meshRead / meshWrite).
#pragma once

#include "base/Color.h"
#include "base/Containers.h"
#include "base/Filename.h"
#include "base/Reference.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshSubset;

/// Writes the mesh as OBJ: "v x y z" per vertex, "vn" per vertex when the mesh has normals,
/// "vt u v" per vertex when it has UVs, then one "f" line per triangle in triangle order.
/// Numbers are written like an output stream's default (%g, 6 significant digits). Faces
/// index normals and texture coordinates with the vertex index: "f 1/1/1 2/2/2 3/3/3",
/// "f 1//1 2//2 3//3", "f 1/1 2/2 3/3", or with neither "f 1  2  3 " (two blanks between
/// indices and one before the line end; readers skip repeated blanks).
/// @return false when the file cannot be opened; write errors are not reported.
QYGEOM_API bool meshWriteObj(const CompactMesh& mesh, const qyOS::Filename& file);

/// As above, but "mtllib <base>.mtl" first and the triangles written subset by subset, each
/// after "usemtl mat<k>" (k = 0, 1, ... in list order, in the subset's triangle order): a
/// triangle in no subset is not written, one in two subsets twice. The material library
/// <directory>/<base name>.mtl gets one material "mat<k>" per colour (Ns 100.0, d 1.0,
/// illum 2, Kd from the colour, Ka and Ks 1.0 1.0 1.0, Ke 0.0 0.0 0.0, then a blank line),
/// as many as there are colours whatever the number of subsets. When the library cannot be
/// opened the OBJ file stands. The Ke lines make the library unreadable for
/// meshReadObjMaterial (and so for meshReadObj2), but meshReadObj reads the OBJ file back.
QYGEOM_API bool meshWriteObj(const CompactMesh& mesh,
                             const qy::list<qy::Reference<MeshSubset>>& subsets,
                             const qy::list<qyUtil::Color>& colors, const qyOS::Filename& file);

/// Reads the minimal format: a line "V F", V lines "x y z", F lines "3 a b c" (0-based
/// indices; the leading count is read and ignored, so only triangles can be read). The mesh
/// is replaced by the positions and triangles read. Numbers convert as in the "C" locale.
/// Reading stops quietly at the first malformed or missing number, keeping what was read
/// before it, and triangles with an index outside the vertices read are left out. A file
/// that cannot be opened leaves the mesh untouched.
QYGEOM_API void meshRead(CompactMesh& mesh, const qyOS::Filename& file);

/// Writes the minimal format: "%d %d\n" (vertex and triangle count), "%.10g %.10g %.10g\n"
/// per vertex and "3 %d %d %d\n" per triangle. Nothing is written when the file cannot be
/// opened.
QYGEOM_API void meshWrite(const CompactMesh& mesh, const qyOS::Filename& file);

} // namespace qyGeom
