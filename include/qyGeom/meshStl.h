// STL reading and writing: triangle soups, ASCII or binary, welded into an indexed mesh on
// read.
#pragma once

#include "base/Error.h"
#include "base/Filename.h"
#include "qyGeom/MeshWriteOptions.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;

/// How an STL file stores its triangles.
enum class StlEncoding
{
    Ascii,
    Binary
};

/// Reads an STL file, binary or ASCII, told apart by its contents: a file whose size is
/// exactly 84 bytes plus 50 per triangle of its header's count is binary; otherwise one that
/// starts with "solid" and holds no NUL byte in its first 512 bytes is ASCII ("solid",
/// "facet normal", "outer loop", three "vertex x y z", "endloop", "endfacet", "endsolid";
/// keywords in any case; several solids follow one another into one mesh); anything else is
/// taken for a binary file and refused for its size.
/// The corners are welded exactly: corners with equal coordinates (as floats compare, so
/// -0 and 0 are one) become one vertex, numbered in order of first use, and the triangles
/// keep the file's order and winding. The facet normals and the attribute words are not
/// kept (the winding gives each triangle's side). Degenerate triangles are kept.
/// Failure: the mesh is left untouched and the error (code 1: the file cannot be opened or
/// read; 2: its contents are refused) has one line, "cannot read '<file>': line N: <what>"
/// for ASCII and "cannot read '<file>': <what>" for binary files. Refused: a binary file
/// whose size does not match its triangle count (a body cut short, or bytes after it; the
/// count is checked against the size before anything is allocated), more than 715,827,882
/// triangles (their corners would overflow an int), an ASCII file with a keyword out of
/// place, a number that is not one, a facet of other than three vertices, or an end before
/// "endsolid".
/// Cost: O(file size) time; a binary file is streamed, so the memory is the mesh, the
/// weld's hash table (4 bytes per 2 vertices, at least) and about 1 MB of fixed buffers.
/// Threads: a binary file's weld runs on two tasks of a pool of several threads (one welds
/// the file's next triangles among themselves while the other numbers the ones before);
/// the result does not depend on the thread count.
QYGEOM_API qyUtil::Error meshReadStl(CompactMesh& mesh, const qyOS::Filename& file);

/// Reads the STL file held in the `length` bytes at `data`; errors name a "memory block".
QYGEOM_API qyUtil::Error meshReadStl(CompactMesh& mesh, const char* data, unsigned int length);

/// Writes the mesh's triangles, then its polygons split into fans from their first corner,
/// as STL: binary (an 80-byte header that does not start with "solid", the count, and per
/// triangle its normal, three corners and a zero attribute word) or ASCII (solid "mesh").
/// Each normal is the unit normal of the triangle's corners as written (0 0 0 for a
/// degenerate one). STL holds nothing else: normals, colours and texture coordinates of the
/// vertices, and vertices that no face uses, are not written. ASCII numbers are the shortest
/// text that reads back to the same float32, or have `options.digits` significant digits.
/// @return false when the file cannot be opened or written, with one error line on
/// qyOS::AppOutput, "meshWriteStl: cannot write '<file>': <reason>\n".
QYGEOM_API bool meshWriteStl(const CompactMesh& mesh, const qyOS::Filename& file,
                             StlEncoding encoding = StlEncoding::Binary,
                             const MeshWriteOptions& options = {});

} // namespace qyGeom
