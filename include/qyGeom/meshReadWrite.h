// meshRead and meshWrite: the library's minimal counted mesh format (".qym" in qygeom).
#pragma once

#include "base/Filename.h"
#include "qyGeom/MeshWriteOptions.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class TopoMesh;

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

/// The checked writers: the same files as meshWrite, byte for byte, but a write or close that
/// fails counts too: false, with one error line on qyOS::AppOutput, "meshWriteChecked: cannot
/// write '<file>': <reason>\n". With `options`, numbers have that many significant digits.
QYGEOM_API bool meshWriteChecked(const CompactMesh& mesh, const qyOS::Filename& file);
QYGEOM_API bool meshWriteChecked(TopoMesh& mesh, const qyOS::Filename& file);
QYGEOM_API bool meshWriteChecked(const CompactMesh& mesh, const qyOS::Filename& file,
                                 const MeshWriteOptions& options);
QYGEOM_API bool meshWriteChecked(TopoMesh& mesh, const qyOS::Filename& file,
                                 const MeshWriteOptions& options);

} // namespace qyGeom
