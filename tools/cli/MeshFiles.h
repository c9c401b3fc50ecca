// Reading and writing meshes by file name for the program's commands: OBJ for ".obj", the
// library's minimal counted format for ".qym".
#pragma once

#include <string>

#include "model/CompactMesh.h"

namespace qyCli
{

enum class MeshFormat
{
    Obj,
    Minimal
};

/// The format a file name asks for; fails (usage error) for an unknown extension.
MeshFormat formatOf(const std::string& path);

/// Reads `path` into `mesh` as it stands in the file (no welding). Fails with a clear message
/// when the file is missing, unreadable, or holds no triangle.
void readMesh(const std::string& path, qyGeom::CompactMesh& mesh);

/// Writes `mesh` to `path` through a temporary file that replaces `path` only when the
/// whole file was written. In OBJ, normals and UVs the mesh carries are written too.
void writeMesh(const qyGeom::CompactMesh& mesh, const std::string& path);

/// Writes an OBJ file with one material (and its library beside it: the OBJ file's name
/// with ".mtl"), through temporary files.
void writeObjWithMaterial(const qyGeom::CompactMesh& mesh, const std::string& path);

} // namespace qyCli
