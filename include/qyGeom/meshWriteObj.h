// Mesh writing: OBJ text with an optional material library.
#pragma once

#include "base/Color.h"
#include "base/Containers.h"
#include "base/Filename.h"
#include "base/Reference.h"
#include "qyGeom/MeshWriteOptions.h"
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

/// The checked writers: the same files as meshWriteObj above, byte for byte,
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

} // namespace qyGeom
