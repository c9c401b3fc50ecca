#include "MeshFiles.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <system_error>
#include <tuple>

#include "base/AppOutput.h"
#include "qyGeom/meshOff.h"
#include "qyGeom/meshPly.h"
#include "qyGeom/meshReadWrite.h"
#include "qyGeom/meshStl.h"
#include "qyGeom/meshWriteObj.h"

namespace qyCli
{

namespace fs = std::filesystem;

namespace
{

int g_outputDigits = 0;

const char* nameOf(MeshFormat format)
{
    switch (format)
    {
    case MeshFormat::Obj:
        return "OBJ (.obj)";
    case MeshFormat::Minimal:
        return "the minimal format (.qym)";
    case MeshFormat::Ply:
        return "PLY (.ply)";
    case MeshFormat::Stl:
        return "STL (.stl)";
    case MeshFormat::Off:
        return "OFF (.off)";
    }
    return "";
}

/// PLY, STL or OFF told by the file's first bytes (and, for binary STL, its size); false
/// for anything else.
bool formatOfContents(const std::string& path, MeshFormat& format)
{
    std::ifstream in(path, std::ios::binary);
    char head[512];
    in.read(head, sizeof head);
    const std::size_t n = std::size_t(in.gcount());
    const std::string_view text(head, n);
    std::error_code ec;
    const std::uintmax_t size = fs::file_size(path, ec);
    if (text.substr(0, 4) == "ply\n" || text.substr(0, 5) == "ply\r\n")
        format = MeshFormat::Ply;
    else if (!ec && n >= 84 &&
             84 + 50 * std::uintmax_t(std::uint8_t(head[80]) | std::uint8_t(head[81]) << 8 |
                                      std::uint8_t(head[82]) << 16 |
                                      std::uint32_t(std::uint8_t(head[83])) << 24) ==
                 size)
        format = MeshFormat::Stl;
    else if (text.substr(0, 5) == "solid" && text.find('\0') == std::string_view::npos)
        format = MeshFormat::Stl;
    else
    {
        // The OFF keyword: [ST][C][N][4][n]OFF, then a blank or the line end.
        const std::size_t end = text.find_first_of(" \t\r\n");
        std::string_view word = text.substr(0, end);
        for (const std::string_view prefix : {"ST", "C", "N", "4", "n"})
            if (word.substr(0, prefix.size()) == prefix)
                word.remove_prefix(prefix.size());
        if (word != "OFF" || end == std::string_view::npos)
            return false;
        format = MeshFormat::Off;
    }
    return true;
}

/// The model of a mesh read from PLY, STL or OFF: its vertices with their attributes as
/// per-vertex texture coordinates and normals, and its faces.
void modelOfMesh(const qyGeom::CompactMesh& mesh, ObjModel& model)
{
    model = ObjModel();
    const std::size_t nv = std::size_t(mesh.getNumVertices());
    const float* v = mesh.getVerticesRaw();
    model.positions.assign(v, v + 3 * nv);
    if (const qyGeom::MeshColour* c = mesh.getColours())
        for (std::size_t i = 0; i < nv; ++i)
            model.colours.insert(model.colours.end(), {c[i].r, c[i].g, c[i].b});
    if (const float* uv = mesh.getUVsRaw())
        model.texCoords.assign(uv, uv + 2 * nv);
    if (const float* n = mesh.getNormalsRaw())
        model.normals.assign(n, n + 3 * nv);
    const bool uvs = !model.texCoords.empty(), normals = !model.normals.empty();
    const ObjFaceState none;
    std::vector<ObjCorner> face;
    auto add = [&](const int* c, int n)
    {
        face.resize(std::size_t(n));
        for (int k = 0; k < n; ++k)
            face[std::size_t(k)] = {c[k], uvs ? c[k] : -1, normals ? c[k] : -1};
        model.addFace(face.data(), n, none);
    };
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
        add(t + 3 * std::ptrdiff_t(i), 3);
    const int* points = mesh.getPolyPoints();
    for (int p = 0; p < mesh.getNumPolys(); ++p)
    {
        add(points, mesh.getPolyLengths()[p]);
        points += mesh.getPolyLengths()[p];
    }
}

/// The mesh of a model for PLY and OFF: one vertex per distinct position, texture
/// coordinate and normal of a corner (a position keeps its own vertex for the first of
/// them), the faces as triangles when all have three corners, polygons otherwise. Returns
/// the number of vertices added by the split.
int meshOfModel(const ObjModel& model, qyGeom::CompactMesh& mesh)
{
    const int nv = model.numVertices();
    const bool uvs = model.numTexCoords() > 0, normals = model.numNormals() > 0;
    std::vector<float> xyz(model.positions), colours, uv, n;
    if (!model.colours.empty())
        for (int i = 0; i < nv; ++i)
        {
            const float* c = model.colours.data() + 3 * std::ptrdiff_t(i);
            colours.insert(colours.end(), {c[0], c[1], c[2], 1.0f});
        }
    // The texture coordinate and normal that each position's vertex carries, -2 while
    // no corner has used it.
    std::vector<std::pair<int, int>> own(std::size_t(nv), {-2, -2});
    std::map<std::tuple<int, int, int>, int> extra;
    std::vector<std::pair<int, int>> attributes; // per vertex: texture coordinate, normal
    std::vector<int> corners(model.corners.size());
    for (std::size_t i = 0; i < model.corners.size(); ++i)
    {
        const ObjCorner& c = model.corners[i];
        const std::pair<int, int> key(uvs ? c.vt : -1, normals ? c.vn : -1);
        std::pair<int, int>& first = own[std::size_t(c.v)];
        if (first.first == -2 || first == key)
        {
            first = key;
            corners[i] = c.v;
            continue;
        }
        auto [it, added] = extra.try_emplace({c.v, key.first, key.second}, int(xyz.size() / 3));
        if (added)
        {
            xyz.insert(xyz.end(), xyz.begin() + 3 * std::ptrdiff_t(c.v),
                       xyz.begin() + 3 * std::ptrdiff_t(c.v) + 3);
            if (!colours.empty())
                colours.insert(colours.end(), colours.begin() + 4 * std::ptrdiff_t(c.v),
                               colours.begin() + 4 * std::ptrdiff_t(c.v) + 4);
            attributes.push_back(key);
        }
        corners[i] = it->second;
    }
    const int total = int(xyz.size() / 3);
    auto attributeOf = [&](int v)
    { return v < nv ? own[std::size_t(v)] : attributes[std::size_t(v - nv)]; };
    if (uvs)
        for (int v = 0; v < total; ++v)
        {
            const int t = attributeOf(v).first;
            uv.push_back(t >= 0 ? model.texCoords[2 * std::size_t(t)] : 0.0f);
            uv.push_back(t >= 0 ? model.texCoords[2 * std::size_t(t) + 1] : 0.0f);
        }
    if (normals)
        for (int v = 0; v < total; ++v)
        {
            const int k = attributeOf(v).second;
            for (int j = 0; j < 3; ++j)
                n.push_back(k >= 0 ? model.normals[3 * std::size_t(k) + std::size_t(j)] : 0.0f);
        }
    qyGeom::CompactMesh built(
        total, reinterpret_cast<const qyGeom::MeshVertex*>(xyz.data()),
        normals ? reinterpret_cast<const qyGeom::MeshNormal*>(n.data()) : nullptr,
        uvs ? reinterpret_cast<const qyGeom::MeshUV*>(uv.data()) : nullptr,
        colours.empty() ? nullptr : reinterpret_cast<const qyGeom::MeshColour*>(colours.data()));
    bool allTriangles = true;
    for (int f = 0; f < model.numFaces(); ++f)
        allTriangles = allTriangles && model.faceSize(f) == 3;
    if (allTriangles)
        built.copyTriangles(model.numFaces(), corners.data());
    else
    {
        built.resizePolyArrays(model.numFaces(), int(corners.size()));
        for (int f = 0; f < model.numFaces(); ++f)
            built.getPolyLengths()[f] = model.faceSize(f);
        std::copy(corners.begin(), corners.end(), built.getPolyPoints());
    }
    mesh = std::move(built);
    return total - nv;
}

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
    if (lower == ".ply")
        return MeshFormat::Ply;
    if (lower == ".stl")
        return MeshFormat::Stl;
    if (lower == ".off")
        return MeshFormat::Off;
    usageError(format("'%s': unknown mesh format (use .obj, .ply, .stl, .off, or .qym for the "
                      "minimal format)",
                      path.c_str()));
}

bool holdsNormals(MeshFormat format)
{
    return format == MeshFormat::Obj || format == MeshFormat::Ply || format == MeshFormat::Off;
}

bool holdsTexCoords(MeshFormat format)
{
    return holdsNormals(format);
}

void readInput(const std::string& path, ObjModel& model, ObjReadNotes& notes)
{
    MeshFormat kind = formatOf(path);
    std::error_code ec;
    if (!fs::exists(path, ec))
        throw Failure(format("cannot read '%s': no such file", path.c_str()));
    if (fs::is_directory(path, ec))
        throw Failure(format("cannot read '%s': it is a directory", path.c_str()));
    formatOfContents(path, kind);
    notes = ObjReadNotes();
    if (kind == MeshFormat::Obj)
        readObjModel(path, model, notes);
    else if (kind == MeshFormat::Minimal)
    {
        qyGeom::CompactMesh mesh;
        qyGeom::meshRead(mesh, qyOS::Filename(path.c_str()));
        objModelFromMesh(mesh, model);
    }
    else
    {
        // The readers' errors are already one line: "cannot read '<path>': line N: ...".
        qyGeom::CompactMesh mesh;
        const qyOS::Filename file(path.c_str());
        const qyUtil::Error error = kind == MeshFormat::Ply   ? qyGeom::meshReadPly(mesh, file)
                                    : kind == MeshFormat::Stl ? qyGeom::meshReadStl(mesh, file)
                                                              : qyGeom::meshReadOff(mesh, file);
        if (error)
            throw Failure(error.message().c_str());
        modelOfMesh(mesh, model);
        model.directory = fs::path(path).parent_path().string();
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

std::string checkMeshFile(const std::string& path)
{
    MeshFormat kind = formatOf(path);
    formatOfContents(path, kind);
    if (kind == MeshFormat::Obj || kind == MeshFormat::Minimal)
        return {};
    qyGeom::CompactMesh mesh;
    const qyOS::Filename file(path.c_str());
    const qyUtil::Error error = kind == MeshFormat::Ply   ? qyGeom::meshReadPly(mesh, file)
                                : kind == MeshFormat::Stl ? qyGeom::meshReadStl(mesh, file)
                                                          : qyGeom::meshReadOff(mesh, file);
    if (error)
        throw Failure(error.message().c_str());
    std::string with;
    if (mesh.getNormalsRaw())
        with += ", normals";
    if (mesh.getUVsRaw())
        with += ", texture coordinates";
    if (mesh.getColours())
        with += ", colours";
    const char* name = kind == MeshFormat::Ply ? "PLY" : kind == MeshFormat::Stl ? "STL" : "OFF";
    return format("%s: valid %s: %d vertices, %d faces%s%s", path.c_str(), name,
                  mesh.getNumVertices(), mesh.getNumTriangles() + mesh.getNumPolys(),
                  with.empty() ? "" : " with", with.empty() ? "" : with.c_str() + 1);
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
    if (m_format != MeshFormat::Obj)
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
    std::string lost;
    auto add = [&](int n, const char* what)
    {
        if (n > 0)
            lost += format("%s %d %s", lost.empty() ? "" : ",", n, what);
    };
    const bool trianglesOnly = m_format == MeshFormat::Minimal || m_format == MeshFormat::Stl;
    if (trianglesOnly)
    {
        add(model.numTexCoords(), "texture coordinates");
        add(model.numNormals(), "normals");
        add(model.colours.empty() ? 0 : model.numVertices(), "vertex colours");
    }
    add(int(model.materialNames().size()), "materials");
    add(model.numGroups() > 1 ? model.numGroups() : 0, "groups");
    std::set<std::string> objects, smoothing;
    for (const ObjFaceState& state : model.states)
    {
        if (!state.object.empty())
            objects.insert(state.object);
        if (!state.smoothing.empty() && state.smoothing != "off" && state.smoothing != "0")
            smoothing.insert(state.smoothing);
    }
    add(int(objects.size()), "objects");
    add(int(smoothing.size()), "smoothing groups");
    add(int(model.libraries.size()), "material libraries");
    if (m_format == MeshFormat::Stl)
        add(model.numUnreferencedVertices(), "vertices that no face uses");

    qyGeom::CompactMesh mesh;
    int split = 0;
    if (trianglesOnly)
    {
        ObjTriangles triangles;
        triangulateObjModel(model, false, triangles);
        reportTriangulation(triangles);
        mesh = std::move(triangles.mesh);
    }
    else
        split = meshOfModel(model, mesh);
    if (m_format == MeshFormat::Minimal && !lost.empty())
        warning("the minimal format (.qym) holds positions and triangles only; left out%s",
                lost.c_str());
    else if (m_format == MeshFormat::Stl && !lost.empty())
        warning("STL (.stl) holds triangles only; left out%s", lost.c_str());
    else if (!trianglesOnly && (!lost.empty() || split > 0))
        warning("%s holds vertices with one normal, texture coordinate and colour each, and "
                "faces; %s%s%s",
                nameOf(m_format),
                split ? format("split %d vertices whose corners differ", split).c_str() : "",
                split && !lost.empty() ? "; " : "",
                lost.empty() ? "" : format("left out%s", lost.c_str()).c_str());

    // The library's checked writer reports a failure on the application output.
    std::string message;
    qyOS::AppOutput& output = qyOS::AppOutput::getInstance();
    const qyOS::AppOutput::Sink previous = output.setSink(
        [&](qyOS::AppOutput::Kind kind, const char* text)
        {
            if (kind == qyOS::AppOutput::ErrorMessage)
                message = text;
        });
    const qyOS::Filename staged(m_staged.c_str());
    const qyGeom::MeshWriteOptions options{outputDigits()};
    bool ok = false;
    switch (m_format)
    {
    case MeshFormat::Ply:
        ok = qyGeom::meshWritePly(mesh, staged, qyGeom::PlyEncoding::BinaryLittleEndian, options);
        break;
    case MeshFormat::Stl:
        ok = qyGeom::meshWriteStl(mesh, staged, qyGeom::StlEncoding::Binary, options);
        break;
    case MeshFormat::Off:
        ok = qyGeom::meshWriteOff(mesh, staged, options);
        break;
    default:
        ok = qyGeom::meshWriteChecked(mesh, staged, options);
        break;
    }
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
    if (!m_library)
        return;
    m_library->close();
    m_outputs.discard(m_libraryPath);
}

void MeshOutput::writeLibrary(const std::string& text)
{
    if (!m_library)
        return;
    std::FILE* f = m_library->get();
    errno = 0;
    if (std::fwrite(text.data(), 1, text.size(), f) != text.size())
        throw Failure(format("cannot write '%s': %s", m_libraryPath.c_str(),
                             std::strerror(errno ? errno : EIO)));
    m_library->close();
}

} // namespace qyCli
