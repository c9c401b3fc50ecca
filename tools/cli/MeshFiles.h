// Reading and writing meshes by file name for the program's commands: OBJ for ".obj", the
// library's minimal counted format for ".qym", PLY for ".ply", STL for ".stl" and OFF for
// ".off". An input whose contents are PLY, STL or OFF is read as such whatever its name.
#pragma once

#include <memory>
#include <string>

#include "Cli.h"
#include "ObjModel.h"

namespace qyCli
{

enum class MeshFormat
{
    Obj,
    Minimal,
    Ply,
    Stl,
    Off
};

/// The format a file name asks for; fails (usage error) for an unknown extension.
MeshFormat formatOf(const std::string& path);

/// Whether a format holds per-vertex normals, and texture coordinates.
bool holdsNormals(MeshFormat format);
bool holdsTexCoords(MeshFormat format);

/// Significant digits of the numbers written (--precision); 0, the default, writes the
/// shortest text that reads back to the same float32.
void setOutputDigits(int digits);
int outputDigits();

/// Reads `path` into `model` as it stands in the file (no welding, polygons kept). Fails with
/// one clear line when the file is missing, a directory, unreadable, refused by its reader
/// (with the line for text), or holds no face. A minimal-format file gives positions and
/// triangles; PLY and OFF give polygons with the vertices' normals, texture coordinates and
/// colours (without alpha); STL gives its welded triangles.
void readInput(const std::string& path, ObjModel& model, ObjReadNotes& notes);

/// The strict check of a PLY, STL or OFF file (told by its contents or, failing that, its
/// extension): the line "<path>: valid PLY: V vertices, F faces[, with ...]", or Failure with
/// the reader's one line. Empty for the other formats.
std::string checkMeshFile(const std::string& path);

/// Prints a warning line on standard error for each thing the reader left out or changed
/// (lines longer than the library reader's limit are for `info` to report).
void reportReadNotes(const ObjReadNotes& notes);

/// A mesh output, staged when the command starts so that a bad output name or folder is
/// refused before any work.
class MeshOutput
{
public:
    /// With `withLibrary`, the output is an OBJ file that gets a material library beside it
    /// (`libraryPath()`), and a device or FIFO is refused.
    MeshOutput(const std::string& path, OutputFiles& outputs, bool withLibrary = false);

    const std::string& path() const { return m_path; }
    MeshFormat meshFormat() const { return m_format; }
    /// The material library's final name (withLibrary only): the OBJ file's name with ".mtl",
    /// beside the file that the name leads to.
    const std::string& libraryPath() const { return m_libraryPath; }

    /// Writes `model`: as OBJ, everything it holds; in the minimal format and STL its
    /// triangles (the polygons triangulated, said on standard output); in PLY and OFF its
    /// polygons with per-vertex normals, texture coordinates and colours (a vertex whose
    /// corners carry different ones is split). One warning line names what the format
    /// cannot hold.
    void write(const ObjModel& model);
    /// Writes the material library (withLibrary only; nothing otherwise).
    void writeLibrary(const std::string& text);
    /// Gives the material library up (withLibrary only; nothing otherwise): it is not
    /// written.
    void dropLibrary();

private:
    std::string m_path;
    MeshFormat m_format;
    OutputFiles& m_outputs;
    std::unique_ptr<TextFile> m_file;
    std::string m_staged; // the staged path of the formats that the library writes
    std::string m_libraryPath;
    std::unique_ptr<TextFile> m_library;
};

} // namespace qyCli
