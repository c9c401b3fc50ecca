#include "MeshFiles.h"

#include <filesystem>
#include <system_error>

#include "Cli.h"
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

void writeMesh(const qyGeom::CompactMesh& mesh, const std::string& path)
{
    const MeshFormat kind = formatOf(path);
    OutputFiles outputs;
    const std::string temporary = outputs.stage(path);
    if (kind == MeshFormat::Obj)
    {
        if (!qyGeom::meshWriteObj(mesh, qyOS::Filename(temporary.c_str())))
            throw Failure(format("cannot write '%s'", path.c_str()));
    }
    else
    {
        qyGeom::meshWrite(mesh, qyOS::Filename(temporary.c_str()));
        std::error_code ec;
        if (!fs::exists(temporary, ec))
            throw Failure(format("cannot write '%s'", path.c_str()));
    }
    outputs.commit();
}

void writeObjWithMaterial(const qyGeom::CompactMesh& mesh, const std::string& path)
{
    if (formatOf(path) != MeshFormat::Obj)
        usageError(format("'%s': a mesh with a material is written as OBJ (.obj)", path.c_str()));
    OutputFiles outputs;
    const std::string temporary = outputs.stage(path);
    // One subset of every triangle, under one light grey material.
    std::vector<int> triangles(std::size_t(mesh.getNumTriangles()));
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
        triangles[std::size_t(t)] = t;
    qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
    subsets.emplace_back(new qyGeom::MeshSubset({}, std::move(triangles)));
    const qy::list<qyUtil::Color> colours{qyUtil::Color(0.8f, 0.8f, 0.8f)};
    if (!qyGeom::meshWriteObj(mesh, subsets, colours, qyOS::Filename(temporary.c_str())))
        throw Failure(format("cannot write '%s'", path.c_str()));
    outputs.commit();
}

} // namespace qyCli
