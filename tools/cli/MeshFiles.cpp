#include "MeshFiles.h"

#include <filesystem>
#include <system_error>

#include "base/AppOutput.h"
#include "base/Color.h"
#include "model/MeshSubset.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshWriteObj.h"

namespace qyCli
{

namespace fs = std::filesystem;

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

void readMesh(const std::string& path, qyGeom::CompactMesh& mesh)
{
    const MeshFormat kind = formatOf(path);
    std::error_code ec;
    if (!fs::exists(path, ec))
        throw Failure(format("cannot read '%s': no such file", path.c_str()));
    if (fs::is_directory(path, ec))
        throw Failure(format("cannot read '%s': it is a directory", path.c_str()));
    qyGeom::CompactMesh loaded;
    if (kind == MeshFormat::Obj)
    {
        if (!qyGeom::meshReadObj(loaded, qyOS::Filename(path.c_str())))
            throw Failure(
                format("cannot read '%s': not an OBJ file with vertices and faces", path.c_str()));
    }
    else
        qyGeom::meshRead(loaded, qyOS::Filename(path.c_str()));
    if (loaded.getNumTriangles() == 0)
        throw Failure(format("'%s' holds no triangle", path.c_str()));
    mesh.swap(loaded);
}

namespace
{

// Runs a checked library writer; when it fails, fails with the reason that it gave on the
// application output ("<function>: cannot write '<file>': <reason>"), naming the file by its
// final name.
template <class Write>
void writeChecked(const std::string& path, const OutputFiles& outputs, Write write)
{
    std::string message;
    qyOS::AppOutput& output = qyOS::AppOutput::getInstance();
    const qyOS::AppOutput::Sink previous = output.setSink(
        [&](qyOS::AppOutput::Kind kind, const char* text)
        {
            if (kind == qyOS::AppOutput::ErrorMessage)
                message = text;
            else
                std::fputs(text, stderr);
        });
    const bool ok = write();
    output.setSink(previous);
    if (ok)
        return;
    const std::string marker = "cannot write '";
    const std::size_t start = message.find(marker);
    const std::size_t end = message.rfind("': ");
    if (start == std::string::npos || end == std::string::npos || end < start)
        throw Failure(format("cannot write '%s'", path.c_str()));
    const std::string file = message.substr(start + marker.size(), end - start - marker.size());
    std::string reason = message.substr(end + 3);
    while (!reason.empty() && reason.back() == '\n')
        reason.pop_back();
    throw Failure(
        format("cannot write '%s': %s", outputs.finalNameOf(file).c_str(), reason.c_str()));
}

} // namespace

void writeMesh(const qyGeom::CompactMesh& mesh, const std::string& path, OutputFiles& outputs)
{
    const MeshFormat kind = formatOf(path);
    const qyOS::Filename file(outputs.stage(path, OutputFiles::Direct::Allow).c_str());
    if (kind == MeshFormat::Obj)
        writeChecked(path, outputs, [&] { return qyGeom::meshWriteObjChecked(mesh, file); });
    else
        writeChecked(path, outputs, [&] { return qyGeom::meshWriteChecked(mesh, file); });
}

void writeObjWithMaterial(const qyGeom::CompactMesh& mesh, const std::string& path,
                          OutputFiles& outputs)
{
    if (formatOf(path) != MeshFormat::Obj)
        usageError(format("'%s': a mesh with a material is written as OBJ (.obj)", path.c_str()));
    const qyOS::Filename file(outputs.stage(path).c_str());
    // One subset of every triangle, under one light grey material.
    std::vector<int> triangles(std::size_t(mesh.getNumTriangles()));
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
        triangles[std::size_t(t)] = t;
    qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
    subsets.emplace_back(new qyGeom::MeshSubset({}, std::move(triangles)));
    const qy::list<qyUtil::Color> colours{qyUtil::Color(0.8f, 0.8f, 0.8f)};
    writeChecked(path, outputs,
                 [&] { return qyGeom::meshWriteObjChecked(mesh, subsets, colours, file); });
}

} // namespace qyCli
