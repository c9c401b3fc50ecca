// PLY reading and writing: ASCII and binary (both byte orders) polygon files with vertex
// positions, normals, colours and texture coordinates.
#pragma once

#include "base/Error.h"
#include "base/Filename.h"
#include "qyGeom/MeshWriteOptions.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;

/// How a PLY file stores its numbers.
enum class PlyEncoding
{
    Ascii,
    BinaryLittleEndian,
    BinaryBigEndian
};

/// Reads a PLY file: "ply", a "format ascii|binary_little_endian|binary_big_endian 1.0"
/// line, "comment" and "obj_info" lines, "element NAME COUNT" followed by its "property TYPE
/// NAME" and "property list COUNTTYPE TYPE NAME" lines, and "end_header". Of the element
/// "vertex" the reader takes x, y, z (required), nx, ny, nz, red, green, blue, alpha (also
/// diffuse_red ... diffuse_alpha) and the
/// texture coordinate u, v (also named s, t, texture_u, texture_v, texture_s, texture_t),
/// each of any scalar type (char, uchar, short, ushort, int, uint, float, double or their
/// int8 ... float64 names); an attribute is kept when all its components are present (colour
/// without alpha gets alpha 1). Integer colour channels are scaled to [0, 1] (uchar by 255,
/// ushort by 65535). Of the element "face" it takes the list "vertex_indices" (or
/// "vertex_index") of any integer count and index types; other elements and properties are
/// read over and left out, and so are header lines of unknown keywords (some exporters wrote
/// a banner without "comment"). ASCII elements are one per line.
/// The mesh is replaced by the vertices, their attributes and the faces: a triangle list
/// when every face has three corners, polygons otherwise (faces of fewer than three corners
/// are left out).
/// Failure: the mesh is left untouched and the error (code 1: the file cannot be opened or
/// read; 2: its contents are refused) has one line, "cannot read '<file>': line N: <what>"
/// for the header and ASCII bodies and "cannot read '<file>': <what>" for binary bodies.
/// Refused: a header that is not PLY, element counts that the rest of the file cannot hold
/// (checked before anything is allocated, so a lying count costs no memory), a body that
/// ends early, a face index outside the vertices, a value that is not a number of its type,
/// and extra values on an ASCII line or extra lines after the last element.
/// Cost: O(file size) time and memory; the whole file is read into memory first.
QYGEOM_API qyUtil::Error meshReadPly(CompactMesh& mesh, const qyOS::Filename& file);

/// Reads the PLY file held in the `length` bytes at `data`; errors name a "memory block".
QYGEOM_API qyUtil::Error meshReadPly(CompactMesh& mesh, const char* data, unsigned int length);

/// Writes the mesh as PLY: an element "vertex" with float x, y, z, and, when the mesh has
/// them, float nx, ny, nz, uchar red, green, blue, alpha (colours rounded to 0 ... 255) and
/// float u, v; then an element "face" with "property list uchar int vertex_indices": the
/// triangles, then the polygons (polygons of more than 255 corners make the list count a
/// uint). ASCII numbers are the shortest text that reads back to the same float32, or have
/// `options.digits` significant digits.
/// @return false when the file cannot be opened or written, with one error line on
/// qyOS::AppOutput, "meshWritePly: cannot write '<file>': <reason>\n".
QYGEOM_API bool meshWritePly(const CompactMesh& mesh, const qyOS::Filename& file,
                             PlyEncoding encoding = PlyEncoding::BinaryLittleEndian,
                             const MeshWriteOptions& options = {});

} // namespace qyGeom
