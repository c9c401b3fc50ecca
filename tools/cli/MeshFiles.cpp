#include "MeshFiles.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "base/AppOutput.h"
#include "qyGeom/meshReadWrite.h"
#include "qyGeom/meshWriteObj.h"

namespace qyCli
{

namespace fs = std::filesystem;

namespace
{

int g_outputDigits = 0;

} // namespace

void setOutputDigits(int digits)
{
    g_outputDigits = digits;
}

int outputDigits()
{
    return g_outputDigits;
}

MeshFormat formatOf(const std::string& path)
{
    const std::string ext = fs::path(path).extension().string();
    std::string lower;
    for (char c : ext)
        lower += char(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    if (lower == ".obj")
        return MeshFormat::Obj;
    if (lower == ".qym")
        return MeshFormat::Minimal;
    usageError(format("'%s': unknown mesh format (use .obj, or .qym for the minimal format)",
                      path.c_str()));
}

void readInput(const std::string& path, ObjModel& model, ObjReadNotes& notes)
{
    const MeshFormat kind = formatOf(path);
    std::error_code ec;
    if (!fs::exists(path, ec))
        throw Failure(format("cannot read '%s': no such file", path.c_str()));
    if (fs::is_directory(path, ec))
        throw Failure(format("cannot read '%s': it is a directory", path.c_str()));
    notes = ObjReadNotes();
    if (kind == MeshFormat::Obj)
        readObjModel(path, model, notes);
    else
    {
        qyGeom::CompactMesh mesh;
        qyGeom::meshRead(mesh, qyOS::Filename(path.c_str()));
        objModelFromMesh(mesh, model);
    }
    if (model.numFaces() == 0)
    {
        std::string skipped;
        for (const auto& [keyword, count] : notes.skippedStatements)
            skipped +=
                format("%s %d '%s' lines", skipped.empty() ? "" : ",", count, keyword.c_str());
        throw Failure(format("'%s' holds no face (%d vertices%s%s)", path.c_str(),
                             model.numVertices(), skipped.empty() ? "" : ";", skipped.c_str()));
    }
}

void reportReadNotes(const ObjReadNotes& notes)
{
    for (const auto& [keyword, count] : notes.skippedStatements)
        warning("left out %d '%s' lines (statements that qygeom does not read)", count,
                keyword.c_str());
    if (notes.shortFaces)
        warning("left out %d faces of fewer than 3 corners", notes.shortFaces);
    if (notes.outsideFaces)
        warning("left out %d faces that name a vertex the file does not have", notes.outsideFaces);
    if (notes.outsideAttributes)
        warning("dropped %d texture or normal indices that name no line of the file",
                notes.outsideAttributes);
    if (notes.extraNumberLines)
        warning("ignored text after the numbers on %d lines (the first is line %ld)",
                notes.extraNumberLines, notes.firstExtraNumberLine);
    if (notes.droppedColours)
        warning("dropped the colours of %d vertices, since not every vertex has one",
                notes.droppedColours);
}

MeshOutput::MeshOutput(const std::string& path, OutputFiles& outputs, bool withLibrary)
    : m_path(path), m_format(formatOf(path)), m_outputs(outputs)
{
    if (withLibrary && m_format != MeshFormat::Obj)
        usageError(format("'%s': a mesh with a material is written as OBJ (.obj)", path.c_str()));
    if (m_format == MeshFormat::Minimal)
        m_staged = outputs.stage(path, OutputFiles::Direct::Allow);
    else
        m_file = std::make_unique<TextFile>(outputs.openText(
            path, withLibrary ? OutputFiles::Direct::Refuse : OutputFiles::Direct::Allow));
    if (!withLibrary)
        return;
    // The library goes beside the file that the name leads to (a link's target).
    std::error_code ec;
    fs::path real(path);
    if (fs::is_symlink(real, ec))
        real = fs::canonical(real, ec);
    const fs::path library = real.parent_path() / (real.stem().string() + ".mtl");
    m_libraryPath = library.string();
    m_library = std::make_unique<TextFile>(outputs.openText(m_libraryPath));
}

void MeshOutput::write(const ObjModel& model)
{
    if (m_format == MeshFormat::Obj)
    {
        writeObjModel(model, m_file->get(), m_path, outputDigits(),
                      fs::path(m_path).parent_path().string());
        m_file->close();
        return;
    }
    ObjTriangles triangles;
    triangulateObjModel(model, false, triangles);
    reportTriangulation(triangles);
    std::string lost;
    auto add = [&](int n, const char* what)
    {
        if (n > 0)
            lost += format("%s %d %s", lost.empty() ? "" : ",", n, what);
    };
    add(model.numTexCoords(), "texture coordinates");
    add(model.numNormals(), "normals");
    add(model.colours.empty() ? 0 : model.numVertices(), "vertex colours");
    add(int(model.materialNames().size()), "materials");
    add(model.numGroups() > 1 ? model.numGroups() : 0, "groups");
    add(int(model.libraries.size()), "material libraries");
    if (!lost.empty())
        warning("the minimal format (.qym) holds positions and triangles only; left out%s",
                lost.c_str());

    // The library's checked writer reports a failure on the application output.
    std::string message;
    qyOS::AppOutput& output = qyOS::AppOutput::getInstance();
    const qyOS::AppOutput::Sink previous = output.setSink(
        [&](qyOS::AppOutput::Kind kind, const char* text)
        {
            if (kind == qyOS::AppOutput::ErrorMessage)
                message = text;
        });
    const bool ok = qyGeom::meshWriteChecked(triangles.mesh, qyOS::Filename(m_staged.c_str()),
                                             qyGeom::MeshWriteOptions{outputDigits()});
    output.setSink(previous);
    if (ok)
        return;
    const std::size_t at = message.rfind("': ");
    std::string reason = at == std::string::npos ? "the write failed" : message.substr(at + 3);
    while (!reason.empty() && reason.back() == '\n')
        reason.pop_back();
    throw Failure(format("cannot write '%s': %s", m_path.c_str(), reason.c_str()));
}

void MeshOutput::dropLibrary()
{
    m_library->close();
    m_outputs.discard(m_libraryPath);
}

void MeshOutput::writeLibrary(const std::string& text)
{
    std::FILE* f = m_library->get();
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), f) != text.size())
        throw Failure(format("cannot write '%s': %s", m_libraryPath.c_str(),
                             std::strerror(errno ? errno : EIO)));
    m_library->close();
}

} // namespace qyCli
