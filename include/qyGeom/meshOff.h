// OFF reading and writing: the ASCII object file format with its texture, colour, normal and
// homogeneous forms ([ST][C][N][4][n]OFF).
#pragma once

#include "base/Error.h"
#include "base/Filename.h"
#include "qyGeom/MeshWriteOptions.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;

/// Reads an ASCII OFF file: the keyword [ST][C][N][4][n]OFF (with "n", the dimension follows
/// and must be 3), the counts "V F [E]" (on the keyword's line or the next), V vertex lines
/// and F face lines; '#' starts a comment to the end of its line, and blank lines are
/// skipped. A vertex line holds x y z (x y z w with "4", divided by w), then with "N" the
/// normal, with "C" a colour of 3 or 4 channels (integer channels count to 255, real ones to
/// 1; alpha 1 when absent) and with "ST" the texture coordinate. A face line holds its
/// corner count n, n 0-based indices and an optional face colour of up to 4 numbers, which is
/// not kept. The mesh is replaced by the vertices, their attributes and the faces: a triangle
/// list when every face has three corners, polygons otherwise (faces of fewer than three
/// corners are left out).
/// Failure: the mesh is left untouched and the error (code 1: the file cannot be opened or
/// read; 2: its contents are refused) has one line, "cannot read '<file>': line N: <what>".
/// Refused: another keyword (binary OFF too), counts that the rest of the file cannot hold
/// (checked before anything is allocated), a vertex line with the wrong number of numbers,
/// a face with fewer indices than its count or an index outside the vertices, a word that
/// is not a number, and the end of the file before the last face. Text after the last
/// counted face is not read (some files in circulation count one face too few).
/// Cost: O(file size) time and memory; the whole file is read into memory first.
QYGEOM_API qyUtil::Error meshReadOff(CompactMesh& mesh, const qyOS::Filename& file);

/// Reads the OFF file held in the `length` bytes at `data`; errors name a "memory block".
QYGEOM_API qyUtil::Error meshReadOff(CompactMesh& mesh, const char* data, unsigned int length);

/// Writes the mesh as ASCII OFF: the keyword with "ST", "C" and "N" for the texture
/// coordinates, colours and normals that the mesh has, "V F 0", one line per vertex (x y z,
/// then nx ny nz, r g b a as real numbers in [0, 1], s t) and one line per face, "n i1 ...
/// in", its triangles, then its polygons. Numbers are the shortest text that reads back to
/// the same float32, or have `options.digits` significant digits (colours always carry a
/// point, so that they read back as real channels).
/// @return false when the file cannot be opened or written, with one error line on
/// qyOS::AppOutput, "meshWriteOff: cannot write '<file>': <reason>\n".
QYGEOM_API bool meshWriteOff(const CompactMesh& mesh, const qyOS::Filename& file,
                             const MeshWriteOptions& options = {});

} // namespace qyGeom
