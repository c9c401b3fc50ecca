// Reading and writing meshes by file name for the program's commands: OBJ for ".obj", the
// library's minimal counted format for ".qym".
#pragma once

#include <string>

#include "Cli.h"
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

/// Writes `mesh` for `path` through `outputs` (staged; a character device or FIFO directly),
/// to appear at `path` when the caller commits. In OBJ, normals and UVs the mesh carries are
/// written too. Fails with the reason when a write fails (a full disk, a file size limit).
void writeMesh(const qyGeom::CompactMesh& mesh, const std::string& path, OutputFiles& outputs);

/// Writes an OBJ file with one material (and its library beside it: the OBJ file's name
/// with ".mtl") through `outputs`, to appear when the caller commits.
void writeObjWithMaterial(const qyGeom::CompactMesh& mesh, const std::string& path,
                          OutputFiles& outputs);

} // namespace qyCli
