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
class TopoMesh;

/// Writes the mesh as OBJ: "v x y z" per vertex, "vn" per vertex when the mesh has normals,
/// "vt u v" per vertex when it has UVs, then one "f" line per triangle in triangle order.
/// Numbers are written like an output stream's default (%g, 6 significant digits). Faces
/// index normals and texture coordinates with the vertex index: "f 1/1/1 2/2/2 3/3/3",
/// "f 1//1 2//2 3//3", "f 1/1 2/2 3/3", or with neither "f 1  2  3 " (two blanks between
/// indices and one before the line end; readers skip repeated blanks).
/// @return false when the file cannot be opened; write errors are not reported (see
/// meshWriteObjChecked).
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

/// Writes a half-edge mesh as OBJ: "v x y z" per live vertex in index order, numbered from 1
/// as written, then per face "f " and, for each corner in loop order, its number and a blank.
/// @return false when the file cannot be opened or a face names a vertex that is not live.
QYGEOM_API bool meshWriteObj(const TopoMesh& mesh, const qyOS::Filename& file);

/// Writes several half-edge meshes into one OBJ file, one after another; the vertex numbers
/// of each mesh continue after those of the meshes before it. Stops and returns false at the
/// first mesh that fails (a null reference fails).
QYGEOM_API bool meshWriteObj(const qy::list<qy::Reference<TopoMesh>>& meshes,
                             const qyOS::Filename& file);

/// Reads the minimal format: a line "V F", V lines "x y z", F lines "3 a b c" (0-based
/// indices; the leading count is read and ignored, so only triangles can be read). The mesh
/// is replaced by the positions and triangles read. Numbers convert as in the "C" locale.
/// Reading stops quietly at the first malformed or missing number, keeping what was read
/// before it, and triangles with an index outside the vertices read are left out. A file
/// that cannot be opened leaves the mesh untouched.
QYGEOM_API void meshRead(CompactMesh& mesh, const qyOS::Filename& file);

/// Reads the minimal format into a half-edge mesh: the header, V lines "x y z" (converted
/// as doubles), F lines "n i1 ... in" (0-based), then the twins are paired. The mesh is
/// cleared first when the file opens. Reading stops quietly at the first malformed or missing
/// number; faces with an index outside the vertices read, or that the mesh refuses (fewer
/// than 3 corners, a vertex named twice), are left out.
QYGEOM_API void meshRead(TopoMesh& mesh, const qyOS::Filename& file);

/// Writes the minimal format: "%d %d\n" (vertex and triangle count), "%.10g %.10g %.10g\n"
/// per vertex and "3 %d %d %d\n" per triangle. Nothing is written when the file cannot be
/// opened.
QYGEOM_API void meshWrite(const CompactMesh& mesh, const qyOS::Filename& file);

/// Writes the minimal format of a half-edge mesh: "%d %d\n" (vertex and face count),
/// "%.10g %.10g %.10g\n" per live vertex in index order, then per face its corner count and
/// " %d" per corner (0-based in the order written), "\n".
QYGEOM_API void meshWrite(TopoMesh& mesh, const qyOS::Filename& file);

/// How the writers format numbers.
struct MeshWriteOptions
{
    /// Significant digits of every coordinate, normal, texture coordinate and colour, written
    /// as printf's "%.<digits>g" would. 0 keeps each writer's own format: 6 digits in OBJ (an
    /// output stream's default) and 10 in the minimal format. 9 digits read back to the same
    /// float32 for every finite value; fewer make smaller files that lose precision (6
    /// digits turn 4100456.5 into 4.10046e+06). Values outside 1 to 17 count as 0.
    int digits = 0;
};

/// The checked writers: the same files as meshWriteObj and meshWrite above, byte for byte,
/// but every failure counts. They return false when the file cannot be opened, when a write
/// fails (a full disk, a file size limit, an I/O error), when closing the file fails, when a
/// half-edge face names a vertex that is not live, and, with subsets, when the material
/// library cannot be opened or written. A failure also puts one error line on
/// qyOS::AppOutput: "<function>: cannot write '<file>': <reason>\n", the reason being the
/// system's text for the error ("No space left on device").
/// Failure: the file may hold part of the text; nothing is removed (the name may be a
/// device or a file that the caller owns). Write to a temporary name and move it into place
/// on success when a complete old file must survive.
QYGEOM_API bool meshWriteObjChecked(const CompactMesh& mesh, const qyOS::Filename& file);
QYGEOM_API bool meshWriteObjChecked(const CompactMesh& mesh,
                                    const qy::list<qy::Reference<MeshSubset>>& subsets,
                                    const qy::list<qyUtil::Color>& colors,
                                    const qyOS::Filename& file);
QYGEOM_API bool meshWriteObjChecked(const TopoMesh& mesh, const qyOS::Filename& file);
QYGEOM_API bool meshWriteObjChecked(const qy::list<qy::Reference<TopoMesh>>& meshes,
                                    const qyOS::Filename& file);
QYGEOM_API bool meshWriteChecked(const CompactMesh& mesh, const qyOS::Filename& file);
QYGEOM_API bool meshWriteChecked(TopoMesh& mesh, const qyOS::Filename& file);

/// The checked writers with the number format of `options`; with default options each writes
/// the same text as its form above.
QYGEOM_API bool meshWriteObjChecked(const CompactMesh& mesh, const qyOS::Filename& file,
                                    const MeshWriteOptions& options);
QYGEOM_API bool meshWriteObjChecked(const CompactMesh& mesh,
                                    const qy::list<qy::Reference<MeshSubset>>& subsets,
                                    const qy::list<qyUtil::Color>& colors,
                                    const qyOS::Filename& file, const MeshWriteOptions& options);
QYGEOM_API bool meshWriteObjChecked(const TopoMesh& mesh, const qyOS::Filename& file,
                                    const MeshWriteOptions& options);
QYGEOM_API bool meshWriteObjChecked(const qy::list<qy::Reference<TopoMesh>>& meshes,
                                    const qyOS::Filename& file, const MeshWriteOptions& options);
QYGEOM_API bool meshWriteChecked(const CompactMesh& mesh, const qyOS::Filename& file,
                                 const MeshWriteOptions& options);
QYGEOM_API bool meshWriteChecked(TopoMesh& mesh, const qyOS::Filename& file,
                                 const MeshWriteOptions& options);

} // namespace qyGeom
