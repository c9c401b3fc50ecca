#include "Commands.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

#include "DemoMesh.h"
#include "MeshFiles.h"
#include "ObjModel.h"
#include "Svg.h"
#include "Topology.h"
#include "base/Linear.h"
#include "base/ThreadPool.h"
#include "model/BoundingBox.h"
#include "model/MeshAdjacency.h"
#include "model/MeshSubset.h"
#include "model/Remap.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/cutSurface.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshBoundingBox.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/meshComputeNormals.h"
#include "qyGeom/meshCurvature.h"
#include "qyGeom/meshDuplicateTris.h"
#include "qyGeom/meshReadObj.h"
#include "qyGeom/meshReadObjMaterial.h"
#include "qyGeom/reparameterizeMesh.h"

namespace qyCli
{

namespace fs = std::filesystem;
using qyGeom::CompactMesh;

namespace
{

// ---------------------------------------------------------------------------------------
// Shared steps

void printBox(const CompactMesh& mesh)
{
    qyGeom::BoundingBox box;
    qyGeom::meshBoundingBox(mesh, box);
    if (mesh.getNumVertices() == 0)
        return;
    std::printf("  bounding box:        (%.9g, %.9g, %.9g) to (%.9g, %.9g, %.9g)\n", box.minPt().x,
                box.minPt().y, box.minPt().z, box.maxPt().x, box.maxPt().y, box.maxPt().z);
}

// `faceEdges`: the edges of the faces when they are polygons (the triangles' edges include
// the diagonals that split them), or -1.
void printTopology(const TopologySummary& summary, long long faceEdges)
{
    const qyGeom::MeshTopology& t = summary.topology;
    std::printf("  edges:               %lld (%d on a boundary, %d non-manifold)\n",
                faceEdges >= 0 ? faceEdges : t.edges, t.boundaryEdges, t.nonManifoldEdges);
    std::printf("  components:          %zu\n", t.pieces.size());
    std::printf("  boundary loops:      %d\n", t.boundaryLoops);
    std::printf("  Euler characteristic: %lld\n", t.euler);
    const auto notSurface = [](const qyGeom::MeshTopology::Piece& p)
    { return p.nonManifoldEdges ? "non-manifold edges" : "sheets touch at a vertex"; };
    const long long withoutGenus =
        std::count_if(t.pieces.begin(), t.pieces.end(),
                      [](const qyGeom::MeshTopology::Piece& p) { return p.genus < 0; });
    if (t.pieces.size() == 1 && withoutGenus)
        std::printf("  genus:               undefined (not a surface: %s)\n",
                    notSurface(t.pieces.front()));
    else if (withoutGenus)
        std::printf("  genus:               undefined (%lld of the pieces are not surfaces)\n",
                    withoutGenus);
    else if (t.pieces.size() > 1)
        std::printf("  genus:               %lld (the sum over the pieces)\n", t.genus());
    else
        std::printf("  genus:               %lld\n", t.genus());
    if (t.pieces.size() > 1)
    {
        constexpr std::size_t shown = 10;
        for (std::size_t i = 0; i < t.pieces.size() && i < shown; ++i)
        {
            const qyGeom::MeshTopology::Piece& p = t.pieces[i];
            std::printf("    piece %zu: %d vertices, %d triangles, %d boundary loops, Euler "
                        "characteristic %lld, genus ",
                        i + 1, p.vertices, p.triangles, p.boundaryLoops, p.euler);
            if (p.genus < 0)
                std::printf("undefined (not a surface: %s)\n", notSurface(p));
            else
                std::printf("%lld\n", p.genus);
        }
        if (t.pieces.size() > shown)
            std::printf("    ... and %zu more pieces\n", t.pieces.size() - shown);
    }
    std::printf("  consistently oriented: %s\n", summary.oriented ? "yes" : "no");
    std::printf("  degenerate triangles: %d (repeated corner or no area)\n", summary.degenerate);
    std::printf("  duplicate triangles: %d\n", summary.duplicates);
}

// Welds with a progress bar; returns the number of vertices before.
int weld(CompactMesh& mesh, const char* caption, qyGeom::Remap* remapOut = nullptr)
{
    const int before = mesh.getNumVertices();
    ProgressBar bar;
    bar.setCaption(caption);
    qyGeom::Remap remap;
    qyGeom::meshCompact(mesh, bar, remap);
    bar.finish();
    if (remapOut)
        *remapOut = std::move(remap);
    return before;
}

// Reads an input file, says what the reader left out, and returns it.
void readModel(const std::string& path, ObjModel& model)
{
    ObjReadNotes notes;
    readInput(path, model, notes);
    reportReadNotes(notes);
}

// The triangles of a model for a command that needs them, with the polygons' split said on
// standard output. Fails when no triangle is left.
void triangles(const ObjModel& model, const std::string& path, ObjTriangles& out)
{
    triangulateObjModel(model, true, out);
    reportTriangulation(out);
    if (out.mesh.getNumTriangles() == 0)
        throw Failure(format("'%s' holds no triangle", path.c_str()));
}

// Fails with the reason when the surface is in several pieces, which flattening refuses.
void requireOnePiece(const CompactMesh& mesh)
{
    qyGeom::SimpleMeshCache cache;
    const int pieces = qyGeom::meshComponents(mesh, *cache.getAdjTris(mesh), nullptr);
    if (pieces > 1)
        throw Failure(format("the mesh has %d separate pieces; flatten works on one connected "
                             "surface",
                             pieces));
}

// Flattens `mesh` in place; fails with a clear line when the library could not. A surface
// that is not a disk is cut open here, on the mesh itself, so that the vertices along the
// seam are duplicated in the output and each side of the seam keeps its own UVs (the
// flattening's own cut works on a private copy and can give a seam vertex only one UV).
// `source` receives, for each vertex of the result, the vertex of the input it stands for
// after welding: the welded vertex, or the one a seam vertex was copied from.
void flatten(CompactMesh& mesh, bool cut, bool compact, std::vector<int>* weldedOf = nullptr,
             std::vector<int>* source = nullptr)
{
    qyGeom::Remap remap;
    if (compact)
        weld(mesh, "Welding", &remap);
    if (weldedOf)
        for (int& v : *weldedOf)
            if (v >= 0 && v < remap.getDomainSize())
                v = remap(v);
    requireNotCancelled();
    requireOnePiece(mesh);
    {
        // Flattening reads the winding to find boundaries and sides: make it consistent.
        qyGeom::SimpleMeshCache cache;
        const auto adjTris = cache.getAdjTris(mesh);
        if (!qyGeom::meshOriented(mesh, *adjTris))
        {
            if (!qyGeom::meshMakeOriented(mesh, *adjTris))
                throw Failure("the triangles cannot be given one consistent winding (a "
                              "Moebius band or a non-manifold edge); flatten needs an "
                              "orientable surface");
            std::printf("  turned triangles to give the surface one consistent winding\n");
        }
    }
    int cutEdges = 0;
    qyGeom::CutRegion region;
    if (cut && qyGeom::cutSurface(mesh, region, true))
        cutEdges = region.getNumEdges();
    if (source)
    {
        source->resize(std::size_t(mesh.getNumVertices()));
        for (int v = 0; v < mesh.getNumVertices(); ++v)
            (*source)[std::size_t(v)] = std::size_t(v) < region.originalVertex.size()
                                            ? region.originalVertex[std::size_t(v)]
                                            : v;
    }
    if (cutEdges > 0)
        std::printf("  cut to a disk along %d edges\n", cutEdges);
    qyGeom::reparameterizeMesh flattener(mesh);
    flattener.enableMeshCutSurface(cut);
    // Welding again would close the seam just cut.
    flattener.enableMeshCompact(compact && cutEdges == 0);
    ProgressBar bar;
    const bool ok = flattener.flatten(bar);
    bar.finish();
    requireNotCancelled();
    if (!ok)
        throw Failure(std::string(cut ? "the mesh could not be flattened"
                                      : "the mesh could not be flattened without cutting it "
                                        "(try without --no-cut)") +
                      " (" + flattener.failureReason() + ")");
}

void reportLayout(const UvLayoutStats& stats)
{
    std::printf("  UV layout:           %d triangles, %d flipped, %d without area, %.3g%% of the "
                "covered area overlapped (%d triangles)\n",
                stats.triangles, stats.flipped, stats.degenerate, 100.0 * stats.overlapShare,
                stats.overlapping);
    if (!stats.oneToOne())
        warning("the UV layout is not one-to-one: %d triangles flipped, %d overlapping (%.3g%% "
                "of the covered area covered more than once)",
                stats.flipped, stats.overlapping, 100.0 * stats.overlapShare);
}

// The material library of a flattened mesh without materials of its own.
const char* const layoutMaterialLibrary = "newmtl mat0\n"
                                          "Ns 100.0\n"
                                          "d 1.0\n"
                                          "illum 2\n"
                                          "Kd 0.8 0.8 0.8\n"
                                          "Ka 1.0 1.0 1.0\n"
                                          "Ks 1.0 1.0 1.0\n";

// The flattened mesh as a model: its vertices with their UVs, and for each triangle the
// normal indices, groups and materials of the input corner and face it came from. Without
// materials in the input every face gets the layout's own material, `library`.
// The vertices that no face uses, `unused`, follow the flattened ones without UVs.
void flattenedModel(const ObjModel& input, const ObjTriangles& tris, const CompactMesh& flat,
                    const std::vector<int>& weldedOf, const std::vector<int>& source,
                    const std::vector<int>& unused, const std::string& library, ObjModel& out)
{
    out = ObjModel();
    out.directory = input.directory;
    const bool ownMaterial = input.materialNames().empty();
    if (ownMaterial)
        out.libraries.push_back(fs::absolute(library).string());
    out.libraries.insert(out.libraries.end(), input.libraries.begin(), input.libraries.end());
    const float* xyz = flat.getVerticesRaw();
    out.positions.assign(xyz, xyz + 3 * std::ptrdiff_t(flat.getNumVertices()));
    const float* uv = flat.getUVsRaw();
    out.texCoords.assign(uv, uv + 2 * std::ptrdiff_t(flat.getNumVertices()));
    for (const int v : unused)
        out.positions.insert(out.positions.end(), input.positions.begin() + 3 * std::ptrdiff_t(v),
                             input.positions.begin() + 3 * std::ptrdiff_t(v) + 3);
    out.normals = input.normals;
    const int* t = flat.getTrianglesRaw();
    for (int i = 0; i < flat.getNumTriangles(); ++i)
    {
        // Orientation may have reversed the triangle: match each corner to the input corner
        // of the same welded vertex.
        const int* in = tris.corners.data() + 3 * i;
        ObjCorner c[3];
        bool used[3] = {false, false, false};
        for (int k = 0; k < 3; ++k)
        {
            const int v = t[3 * i + k];
            const int w = source[std::size_t(v)];
            int j = 0;
            while (j < 3 &&
                   (used[j] || weldedOf[std::size_t(input.corners[std::size_t(in[j])].v)] != w))
                ++j;
            if (j == 3)
                j = k;
            used[j] = true;
            c[k] = {v, v, input.corners[std::size_t(in[j])].vn};
        }
        ObjFaceState state =
            input.states[std::size_t(input.faceStates[std::size_t(tris.faces[std::size_t(i)])])];
        if (ownMaterial)
            state.material = "mat0";
        out.addFace(c, 3, state);
    }
}

std::string fileSize(const std::string& path)
{
    std::error_code ec;
    const auto bytes = fs::file_size(path, ec);
    if (ec)
        return "?";
    if (bytes >= 1024 * 1024)
        return format("%.1f MB", double(bytes) / (1024.0 * 1024.0));
    if (bytes >= 1024)
        return format("%.1f kB", double(bytes) / 1024.0);
    return format("%llu bytes", static_cast<unsigned long long>(bytes));
}

// Texture charts: faces joined where they share a corner of the same position and texture
// coordinate, as the library's reader splits them.
int countCharts(const ObjModel& model)
{
    std::vector<int> parent(std::size_t(model.numFaces()));
    for (std::size_t f = 0; f < parent.size(); ++f)
        parent[f] = int(f);
    auto find = [&](int f)
    {
        while (parent[std::size_t(f)] != f)
            f = parent[std::size_t(f)] = parent[std::size_t(parent[std::size_t(f)])];
        return f;
    };
    std::unordered_map<long long, int> faceOf;
    std::vector<bool> textured(parent.size(), false);
    for (int f = 0; f < model.numFaces(); ++f)
        for (int i = model.faceStarts[std::size_t(f)]; i < model.faceStarts[std::size_t(f) + 1];
             ++i)
        {
            const ObjCorner& c = model.corners[std::size_t(i)];
            if (c.vt < 0)
                continue;
            textured[std::size_t(f)] = true;
            const long long key = (static_cast<long long>(c.v) << 32) | unsigned(c.vt);
            const auto [it, added] = faceOf.emplace(key, f);
            if (!added)
                parent[std::size_t(find(f))] = find(it->second);
        }
    int charts = 0;
    for (int f = 0; f < model.numFaces(); ++f)
        charts += textured[std::size_t(f)] && find(f) == f;
    return charts;
}

} // namespace

// ---------------------------------------------------------------------------------------
// demo

int runDemo(Args& args)
{
    args.finish();
    std::printf("qygeom demo: the typical request on a built-in mesh.\n\n");

    const std::string objPath = "demo.obj", svgPath = "demo-uv.svg";
    OutputFiles outputs;
    MeshOutput output(objPath, outputs, true);
    TextFile svg = outputs.openText(svgPath);

    const std::string obj = demoMeshObj(24, 96);
    std::printf("1. Read: a rippled dome as OBJ text in memory (%zu bytes, one vertex per face "
                "corner).\n",
                obj.size());
    CompactMesh mesh;
    qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
    qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
    if (!qyGeom::meshReadObj(mesh, subsets, uvs, obj.data(), unsigned(obj.size())))
        throw Failure("the built-in mesh did not read");
    std::printf("   The reader welded it: %d vertices, %d triangles.\n", mesh.getNumVertices(),
                mesh.getNumTriangles());

    const int before = weld(mesh, "Welding");
    std::printf("2. Weld: %d vertices before, %d after (nothing left to merge).\n", before,
                mesh.getNumVertices());

    std::printf("3. Report:\n");
    printBox(mesh);
    CompactMesh measured = mesh;
    printTopology(summarizeTopology(measured), -1);

    std::printf("4. Flatten: conformal UVs in the unit square.\n");
    ObjModel input;
    objModelFromMesh(mesh, input);
    ObjTriangles tris;
    triangulateObjModel(input, true, tris);
    std::vector<int> weldedOf(std::size_t(input.numVertices())), source;
    for (std::size_t v = 0; v < weldedOf.size(); ++v)
        weldedOf[v] = int(v);
    flatten(tris.mesh, true, true, &weldedOf, &source);

    const UvLayoutStats stats = measureUvLayout(tris.mesh);
    if (!writeUvSvg(tris.mesh, stats, svg.get()))
        throw Failure("the flattened mesh has no UVs");
    svg.close();
    ObjModel flat;
    flattenedModel(input, tris, tris.mesh, weldedOf, source, {}, output.libraryPath(), flat);
    output.write(flat);
    output.writeLibrary(layoutMaterialLibrary);
    outputs.commit();
    reportLayout(stats);
    std::printf("5. Wrote %s and demo.mtl (mesh with UVs and its material), and %s (the UV "
                "layout).\n",
                objPath.c_str(), svgPath.c_str());
    return stats.oneToOne() ? 0 : 3;
}

// ---------------------------------------------------------------------------------------
// info

int runInfo(Args& args)
{
    const std::string path = args.positional("input file");
    args.finish();
    ObjModel model;
    ObjReadNotes notes;
    readInput(path, model, notes);
    reportReadNotes(notes);
    if (!notes.longLines.empty())
        warning("line %ld is %ld bytes long; the library's OBJ reader (meshReadObj) reads lines "
                "of at most 16383 bytes%s",
                notes.longLines[0].first, notes.longLines[0].second,
                notes.longLines.size() > 1
                    ? format(" (%zu such lines)", notes.longLines.size()).c_str()
                    : "");
    int faceSizes[3] = {0, 0, 0};
    for (int f = 0; f < model.numFaces(); ++f)
        ++faceSizes[std::min(model.faceSize(f), 5) - 3];
    ObjTriangles tris;
    triangulateObjModel(model, false, tris);

    std::printf("%s (%s)\n", path.c_str(), fileSize(path).c_str());
    std::printf("  vertices:            %d\n", model.numVertices());
    const int unused = model.numUnreferencedVertices();
    if (unused > 0)
        std::printf("  unreferenced vertices: %d (no face uses them; left out of the topology "
                    "below)\n",
                    unused);
    std::printf("  faces:               %d (%d triangles, %d quads, %d larger polygons)\n",
                model.numFaces(), faceSizes[0], faceSizes[1], faceSizes[2]);
    if (tris.polygons > 0)
        std::printf("  triangles:           %d (the polygons split into %d)\n",
                    tris.mesh.getNumTriangles(), tris.polygonTriangles);
    else
        std::printf("  triangles:           %d\n", tris.mesh.getNumTriangles());
    std::printf("  texture coordinates: %d\n", model.numTexCoords());
    std::printf("  normals:             %d\n", model.numNormals());
    printBox(tris.mesh);

    // Topology is that of the welded surface: a file may repeat positions.
    CompactMesh welded = tris.mesh;
    qyGeom::Remap remap;
    weld(welded, "Welding", &remap);
    requireNotCancelled();
    if (welded.getNumVertices() != tris.mesh.getNumVertices())
        std::printf("  welded vertices:     %d (the file repeats positions)\n",
                    welded.getNumVertices());
    long long faceEdges = -1;
    if (tris.polygons > 0)
    {
        std::vector<unsigned long long> keys;
        for (int f = 0; f < model.numFaces(); ++f)
        {
            const int first = model.faceStarts[std::size_t(f)], n = model.faceSize(f);
            for (int k = 0; k < n; ++k)
            {
                const unsigned a = unsigned(remap(model.corners[std::size_t(first + k)].v));
                const unsigned b =
                    unsigned(remap(model.corners[std::size_t(first + (k + 1) % n)].v));
                if (a != b)
                    keys.push_back((static_cast<unsigned long long>(std::min(a, b)) << 32) |
                                   std::max(a, b));
            }
        }
        std::sort(keys.begin(), keys.end());
        faceEdges = std::unique(keys.begin(), keys.end()) - keys.begin();
    }
    printTopology(summarizeTopology(welded), faceEdges);

    const int charts = countCharts(model);
    if (charts == 0)
        std::printf("  texture charts:      none (no texture coordinates)\n");
    else
        std::printf("  texture charts:      %d\n", charts);
    const std::vector<std::string> names = model.materialNames();
    std::printf("  materials:           %zu", names.size());
    for (std::size_t i = 0; i < names.size(); ++i)
        std::printf("%s%s", i ? ", " : " (", names[i].c_str());
    std::printf("%s\n", names.empty() ? "" : ")");
    for (const std::string& library : model.libraries)
    {
        std::error_code ec;
        const bool found = fs::is_regular_file(fs::path(model.directory) / library, ec);
        std::printf("  material library:    %s%s\n", library.c_str(), found ? "" : " (not found)");
    }
    std::printf("  groups:              %d\n", model.numGroups());
    return 0;
}

// ---------------------------------------------------------------------------------------
// check

namespace
{

// The message of a library error without its line end.
std::string messageOf(const qyUtil::Error& error)
{
    std::string message = error.message();
    while (!message.empty() && (message.back() == '\n' || message.back() == '\r'))
        message.pop_back();
    return message;
}

// The first line of a material library at which its scanner fails: the shortest run of
// leading lines that, read alone, fails in the same way. 0 when none does.
long lexicalErrorLine(const std::string& library)
{
    std::ifstream in(library, std::ios::binary);
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    std::string pattern = (fs::temp_directory_path() / "qygeom-mtl-XXXXXX").string();
    char* name = pattern.data();
    const int fd = mkstemp(name);
    if (fd < 0)
        return 0;
    close(fd);
    auto failsWith = [&](std::size_t n)
    {
        std::ofstream out(name, std::ios::binary | std::ios::trunc);
        for (std::size_t i = 0; i < n; ++i)
            out << lines[i] << '\n';
        out.close();
        qy::vector<qy::Reference<qyGeom::MeshObjMaterial>> materials;
        return qyGeom::meshReadObjMaterial(name, materials).code() == 1;
    };
    long found = 0;
    if (failsWith(lines.size()))
    {
        std::size_t lo = 0, hi = lines.size(); // the prefix of lo lines scans, hi fails
        while (hi - lo > 1)
        {
            const std::size_t mid = lo + (hi - lo) / 2;
            (failsWith(mid) ? hi : lo) = mid;
        }
        found = long(hi);
    }
    std::remove(name);
    return found;
}

// Names the material library that an error of the strict parse comes from, when it does.
std::string materialLibraryError(const std::string& path, const std::string& message)
{
    std::ifstream in(path, std::ios::binary);
    const fs::path dir = fs::path(path).parent_path();
    long number = 0;
    for (std::string line; std::getline(in, line);)
    {
        ++number;
        std::size_t at = line.find_first_not_of(" \t");
        if (at == std::string::npos || line.compare(at, 7, "mtllib ") != 0)
            continue;
        std::string name = line.substr(at + 7);
        while (!name.empty() && std::isspace(static_cast<unsigned char>(name.back())))
            name.pop_back();
        name.erase(0, name.find_first_not_of(" \t"));
        const std::string library = (dir / name).string();
        std::error_code ec;
        if (!fs::is_regular_file(library, ec))
        {
            if (message == "Lexical analysis failed")
                return format("%s: line %ld: cannot open the material library '%s'", path.c_str(),
                              number, library.c_str());
            continue;
        }
        qy::vector<qy::Reference<qyGeom::MeshObjMaterial>> materials;
        const qyUtil::Error error = qyGeom::meshReadObjMaterial(library, materials);
        if (!error || messageOf(error) != message)
            continue;
        if (error.code() == 1)
        {
            const long bad = lexicalErrorLine(library);
            return bad > 0 ? format("%s: line %ld: %s (a character that material libraries may "
                                    "not hold)",
                                    library.c_str(), bad, message.c_str())
                           : format("%s: %s", library.c_str(), message.c_str());
        }
        return format("%s: %s", library.c_str(), message.c_str());
    }
    return {};
}

} // namespace

int runCheck(Args& args)
{
    const std::string path = args.positional("input file");
    args.finish();
    std::error_code ec;
    if (!fs::exists(path, ec))
        throw Failure(format("cannot read '%s': no such file", path.c_str()));
    if (fs::is_directory(path, ec))
        throw Failure(format("cannot read '%s': it is a directory", path.c_str()));
    const std::string other = checkMeshFile(path);
    if (!other.empty())
    {
        std::printf("%s\n", other.c_str());
        return 0;
    }
    qy::Reference<qyGeom::MeshObjFile> file(new qyGeom::MeshObjFile);
    const qyUtil::Error error = qyGeom::meshReadObj2(path, file);
    if (error)
    {
        const std::string message = messageOf(error);
        const std::string inLibrary = materialLibraryError(path, message);
        throw Failure(inLibrary.empty() ? format("%s: %s", path.c_str(), message.c_str())
                                        : inLibrary);
    }
    std::printf("%s: valid OBJ: %zu vertices, %zu texture coordinates, %zu normals, %zu "
                "groups, %zu materials\n",
                path.c_str(), file->vertices.size(), file->texCoords.size(), file->normals.size(),
                file->groups.size(), file->materials.size());
    return 0;
}

// ---------------------------------------------------------------------------------------
// weld, normals, convert

namespace
{

// The shape of the commands that turn one mesh file into another: checks the arguments and
// stages the output before the (possibly long) read, transforms, then writes.
template <class Transform>
int transformFile(Args& args, bool writesNormals, const char* normalsMessage, Transform transform)
{
    const std::string in = args.positional("input file");
    const std::string out = args.positional("output file");
    args.finish();
    refuseOverwritingInput(in, out);
    if (writesNormals && !holdsNormals(formatOf(out)))
        usageError(normalsMessage);
    formatOf(in);
    OutputFiles outputs;
    MeshOutput output(out, outputs);
    ObjModel model;
    readModel(in, model);
    for (const std::string& library : model.libraries)
        refuseOverwritingInput((fs::path(model.directory) / library).string(), out);
    const std::string report = transform(model);
    requireNotCancelled();
    output.write(model);
    outputs.commit();
    std::printf("%s; wrote %s\n", report.c_str(), out.c_str());
    return 0;
}

} // namespace

int runWeld(Args& args)
{
    return transformFile(
        args, false, nullptr,
        [](ObjModel& model)
        {
            // Positions only: each corner keeps its texture and normal index.
            CompactMesh points(model.numVertices(),
                               reinterpret_cast<const qyGeom::MeshVertex*>(model.positions.data()));
            qyGeom::Remap remap;
            const int before = weld(points, "Welding", &remap);
            const float* xyz = points.getVerticesRaw();
            model.positions.assign(xyz, xyz + 3 * std::ptrdiff_t(points.getNumVertices()));
            if (!model.colours.empty())
            {
                std::vector<float> moved(model.positions.size());
                for (int v = 0; v < before; ++v)
                    std::copy_n(model.colours.begin() + 3 * std::ptrdiff_t(v), 3,
                                moved.begin() + 3 * std::ptrdiff_t(remap(v)));
                model.colours.swap(moved);
            }
            // A face whose corners welded together loses the repeats; one left with fewer
            // than three corners goes.
            ObjModel welded = model;
            welded.corners.clear();
            welded.faceStarts.assign(1, 0);
            welded.faceStates.clear();
            welded.states.clear();
            int collapsed = 0;
            std::vector<ObjCorner> face;
            for (int f = 0; f < model.numFaces(); ++f)
            {
                face.clear();
                for (int i = model.faceStarts[std::size_t(f)];
                     i < model.faceStarts[std::size_t(f) + 1]; ++i)
                {
                    ObjCorner c = model.corners[std::size_t(i)];
                    c.v = remap(c.v);
                    if (face.empty() || face.back().v != c.v)
                        face.push_back(c);
                }
                while (face.size() > 1 && face.back().v == face.front().v)
                    face.pop_back();
                if (face.size() < 3)
                {
                    ++collapsed;
                    continue;
                }
                welded.addFace(face.data(), int(face.size()),
                               model.states[std::size_t(model.faceStates[std::size_t(f)])]);
            }
            model = std::move(welded);
            if (collapsed > 0)
                warning("left out %d faces that welding reduced to fewer than three corners",
                        collapsed);
            return format("welded %d vertices into %d; %d faces", before, model.numVertices(),
                          model.numFaces());
        });
}

int runNormals(Args& args)
{
    return transformFile(
        args, true, "normals are written in OBJ, PLY and OFF only (.obj, .ply, .off)",
        [](ObjModel& model)
        {
            // Computed on the triangles; written for the faces as they are.
            ObjTriangles tris;
            triangulateObjModel(model, true, tris);
            qyGeom::meshComputeNormals(tris.mesh);
            const int replaced = model.numNormals();
            const float* n = tris.mesh.getNormalsRaw();
            model.normals.assign(n, n + 3 * std::ptrdiff_t(model.numVertices()));
            for (ObjCorner& c : model.corners)
                c.vn = c.v;
            return format("computed %d vertex normals%s", model.numVertices(),
                          replaced ? format(" (replacing the file's %d)", replaced).c_str() : "");
        });
}

int runConvert(Args& args)
{
    return transformFile(
        args, false, nullptr,
        [](ObjModel& model)
        { return format("%d vertices, %d faces", model.numVertices(), model.numFaces()); });
}

// ---------------------------------------------------------------------------------------
// flatten

int runFlatten(Args& args)
{
    const bool noCut = args.flag("--no-cut");
    const bool noCompact = args.flag("--no-compact");
    const std::string svg = args.option("--svg");
    const std::string in = args.positional("input file");
    const std::string out = args.positional("output file");
    args.finish();
    refuseOverwritingInput(in, out);
    if (!svg.empty())
    {
        refuseOverwritingInput(in, svg);
        std::string ext = fs::path(svg).extension().string();
        for (char& c : ext)
            c = char(std::tolower(static_cast<unsigned char>(c)));
        // A device or pipe (/dev/null, /dev/stdout) takes the picture whatever its name.
        struct stat st;
        const bool special =
            stat(svg.c_str(), &st) == 0 && (S_ISCHR(st.st_mode) || S_ISFIFO(st.st_mode));
        if (ext != ".svg" && !special)
            usageError(format("--svg '%s': the picture's name ends in .svg", svg.c_str()));
    }
    if (!holdsTexCoords(formatOf(out)))
        usageError("the flattened mesh is written as OBJ (.obj, with its material library), "
                   "PLY (.ply) or OFF (.off)");
    formatOf(in);

    // Every output is staged before the work, so that a bad name or folder stops the run
    // at once; all appear together or not at all.
    OutputFiles outputs;
    MeshOutput output(out, outputs, formatOf(out) == MeshFormat::Obj);
    refuseOverwritingInput(in, output.libraryPath());
    std::unique_ptr<TextFile> picture;
    if (!svg.empty())
        picture = std::make_unique<TextFile>(outputs.openText(svg));

    ObjModel model;
    readModel(in, model);
    for (const std::string& library : model.libraries)
        refuseOverwritingInput((fs::path(model.directory) / library).string(),
                               output.libraryPath());
    if (!model.colours.empty())
        warning("vertex colours are not carried through flatten; left out %d", model.numVertices());
    if (model.numTexCoords() > 0)
        std::printf("replacing the file's %d texture coordinates by the layout\n",
                    model.numTexCoords());
    ObjTriangles tris;
    triangles(model, in, tris);
    // Vertices that no face uses take no part in the layout: they are set aside and written
    // after the flattened ones. weldedOf follows each input vertex into the mesh flattened.
    std::vector<int> weldedOf(std::size_t(model.numVertices()), -1), source, unused;
    CompactMesh& mesh = tris.mesh;
    {
        int* t = mesh.getTrianglesRaw();
        for (int i = 0; i < 3 * mesh.getNumTriangles(); ++i)
            weldedOf[std::size_t(t[i])] = 0;
        std::vector<float> kept;
        for (int v = 0; v < model.numVertices(); ++v)
            if (weldedOf[std::size_t(v)] < 0)
                unused.push_back(v);
            else
            {
                weldedOf[std::size_t(v)] = int(kept.size() / 3);
                kept.insert(kept.end(), model.positions.begin() + 3 * std::ptrdiff_t(v),
                            model.positions.begin() + 3 * std::ptrdiff_t(v) + 3);
            }
        if (!unused.empty())
        {
            std::vector<int> renumbered(t, t + 3 * std::ptrdiff_t(mesh.getNumTriangles()));
            for (int& v : renumbered)
                v = weldedOf[std::size_t(v)];
            CompactMesh used(int(kept.size() / 3),
                             reinterpret_cast<const qyGeom::MeshVertex*>(kept.data()));
            used.copyTriangles(int(renumbered.size() / 3), renumbered.data());
            mesh.swap(used);
            std::printf("%zu vertices that no face uses take no part in the layout (written "
                        "without UVs)\n",
                        unused.size());
        }
    }
    flatten(mesh, !noCut, !noCompact, &weldedOf, &source);

    const UvLayoutStats stats = measureUvLayout(mesh);
    if (picture)
    {
        if (!writeUvSvg(mesh, stats, picture->get()))
            throw Failure("the flattened mesh has no UVs");
        picture->close();
    }
    requireNotCancelled();
    ObjModel flat;
    flattenedModel(model, tris, mesh, weldedOf, source, unused, output.libraryPath(), flat);
    output.write(flat);
    if (model.materialNames().empty())
        output.writeLibrary(layoutMaterialLibrary);
    else
        output.dropLibrary();
    outputs.commit();
    std::printf("flattened %d vertices, %d triangles; wrote %s", mesh.getNumVertices(),
                mesh.getNumTriangles(), out.c_str());
    if (model.materialNames().empty() && !output.libraryPath().empty())
        std::printf(", %s", output.libraryPath().c_str());
    if (!svg.empty())
        std::printf(" and %s", svg.c_str());
    std::printf("\n");
    reportLayout(stats);
    return stats.oneToOne() ? 0 : 3;
}

// ---------------------------------------------------------------------------------------
// curvature

int runCurvature(Args& args)
{
    const std::string kindName = args.option("--kind");
    const std::string csv = args.option("--csv");
    const std::string in = args.positional("input file");
    args.finish();
    qyGeom::MeshCurvature kind = qyGeom::MeshCurvature::Mean;
    if (kindName == "mean")
        kind = qyGeom::MeshCurvature::Mean;
    else if (kindName == "gaussian")
        kind = qyGeom::MeshCurvature::Gaussian;
    else if (kindName == "min")
        kind = qyGeom::MeshCurvature::MinPrincipal;
    else if (kindName == "max")
        kind = qyGeom::MeshCurvature::MaxPrincipal;
    else
        usageError(kindName.empty() ? "--kind is required: mean, gaussian, min or max"
                                    : format("unknown --kind '%s': mean, gaussian, min or max",
                                             kindName.c_str()));
    formatOf(in);
    OutputFiles outputs;
    std::unique_ptr<TextFile> file;
    if (!csv.empty())
    {
        refuseOverwritingInput(in, csv);
        file = std::make_unique<TextFile>(outputs.openText(csv));
    }

    ObjModel model;
    readModel(in, model);
    ObjTriangles tris;
    triangles(model, in, tris);
    CompactMesh& mesh = tris.mesh;
    weld(mesh, "Welding");
    requireNotCancelled();
    qyGeom::meshComputeNormals(mesh);
    qyGeom::SimpleMeshCache cache;
    const auto adjTris = cache.getAdjTris(mesh);
    const auto adjVertices = cache.getAdjVertices(mesh);
    std::vector<float> values(std::size_t(mesh.getNumVertices()));
    qyGeom::meshCurvature(mesh, *adjTris, *adjVertices, qyLinear::AffineMatrixFlt(), kind,
                          values.data());
    requireNotCancelled();

    if (file)
    {
        std::FILE* f = file->get();
        std::fprintf(f, "vertex,x,y,z,%s\n", kindName.c_str());
        const qyGeom::MeshVertex* v = mesh.getVertices();
        for (int i = 0; i < mesh.getNumVertices(); ++i)
            std::fprintf(f, "%d,%.9g,%.9g,%.9g,%.9g\n", i, v[i].x, v[i].y, v[i].z,
                         double(values[std::size_t(i)]));
        file->close();
        outputs.commit();
    }

    std::vector<float> finite;
    finite.reserve(values.size());
    for (float x : values)
        if (std::isfinite(x))
            finite.push_back(x);
    std::sort(finite.begin(), finite.end());
    std::printf("%s curvature at %d vertices\n", kindName.c_str(), mesh.getNumVertices());
    if (finite.empty())
        std::printf("  no finite value\n");
    else
    {
        auto quantile = [&](double q)
        { return double(finite[std::size_t(q * double(finite.size() - 1) + 0.5)]); };
        std::printf("  min %.6g  q1 %.6g  median %.6g  q3 %.6g  max %.6g\n", quantile(0),
                    quantile(0.25), quantile(0.5), quantile(0.75), quantile(1));
    }
    if (finite.size() != values.size())
        std::printf("  %zu vertices without a finite value\n", values.size() - finite.size());
    if (!csv.empty())
        std::printf("  wrote %s\n", csv.c_str());
    return 0;
}

// ---------------------------------------------------------------------------------------
// The table

namespace
{

const Command g_commands[] = {
    {"demo", "", "run the typical request on a built-in mesh (the default)",
     "Reads a built-in rippled dome from OBJ text, welds it, reports its topology,\n"
     "flattens it to UVs and writes demo.obj, demo.mtl and demo-uv.svg in the current\n"
     "directory.\n",
     runDemo},
    {"info", "FILE", "counts, bounding box, topology, orientation, charts and materials",
     "Reads FILE (.obj, .ply, .stl, .off or .qym) and prints its vertex and face counts\n"
     "(faces by corner count, vertices that no face uses), texture coordinates and normals,\n"
     "its bounding box,\n"
     "and the topology of the welded surface over the vertices that faces use: edges,\n"
     "components, boundary loops, Euler characteristic and genus (each piece on its own\n"
     "when there are several), whether the triangles are consistently oriented, degenerate\n"
     "triangles (a repeated corner or no area); then texture charts, materials, material\n"
     "libraries and groups. Warns of lines longer than the library's OBJ reader takes.\n",
     runInfo},
    {"check", "FILE", "parse a mesh file strictly; report the first error and its line",
     "Exit status 0 when FILE is valid OBJ (or PLY, STL, OFF); otherwise the error, with\n"
     "its line number in a text file, on standard error and exit status 1.\n",
     runCheck},
    {"weld", "IN OUT", "merge coincident vertices and renumber",
     "Vertices at exactly the same position become one; face corners keep their texture\n"
     "and normal indices. The format of each file follows its extension (.obj, .ply,\n"
     ".stl, .off or .qym).\n",
     runWeld},
    {"normals", "IN OUT.obj|.ply|.off", "compute vertex normals, every triangle counting equally",
     "Writes OUT.obj with one normal per vertex: the normalised sum of the unit normals of\n"
     "the triangles around it, whatever their area (polygons count by their triangles).\n"
     "The file's own normals are replaced; everything else is kept.\n",
     runNormals},
    {"flatten", "IN OUT.obj|.ply|.off [--svg FILE.svg] [--no-cut] [--no-compact]",
     "conformal UV flattening, written with a material library",
     "Flattens the surface to UVs in the unit square (aspect ratio kept) and writes OUT.obj\n"
     "with its UVs and the material library OUT.mtl beside it. A closed surface, or one of\n"
     "higher genus, is cut to a disk first. Normals, groups and materials follow their\n"
     "triangles; a file without materials gets one. Reports flipped triangles and the share\n"
     "of the covered UV area covered more than once; a layout that is not one-to-one is\n"
     "written with a warning and exit status 3.\n"
     "  --svg FILE.svg also draw the UV layout (flipped triangles in red, overlapping ones\n"
     "                 in orange)\n"
     "  --no-cut       fail instead of cutting a surface that is not a disk\n"
     "  --no-compact   do not weld the working copy before flattening\n",
     runFlatten},
    {"curvature", "IN --kind mean|gaussian|min|max [--csv FILE]",
     "per-vertex curvature with a summary",
     "Welds the mesh, computes the chosen curvature at every vertex and prints the minimum,\n"
     "quartiles and maximum.\n"
     "  --csv FILE     also write vertex,x,y,z,value lines\n",
     runCurvature},
    {"convert", "IN OUT", "convert between OBJ, PLY, STL, OFF and the minimal format",
     "The output's format follows its extension (.obj, .ply, .stl, .off, .qym); an input\n"
     "whose contents are PLY, STL or OFF is read as such. OBJ to OBJ keeps polygons and\n"
     "every attribute; PLY (binary) and OFF hold polygons with one normal, texture\n"
     "coordinate and colour per vertex (vertices whose corners differ are split); STL\n"
     "(binary) and the minimal format hold triangles only. One line says what the output\n"
     "cannot hold.\n",
     runConvert},
    {"subdivide", "IN OUT [--levels N]", "Catmull-Clark subdivision into quads",
     "Each level turns every face of n corners into n quads and moves the vertices toward\n"
     "the smooth limit surface (boundaries stay curves of their own). Coincident vertices\n"
     "are joined first, so a file with a vertex per corner subdivides as one surface.\n"
     "Groups and materials follow their faces; texture coordinates are interpolated\n"
     "linearly over each face; a file with normals gets normals of the new surface.\n"
     "Vertex colours are not carried (said in a warning).\n"
     "  --levels N     levels of subdivision, 1 to 10 (default 1); each multiplies the\n"
     "                 face count by four\n",
     runSubdivide},
    {"smooth", "IN OUT (--laplacian | --bilateral SIGMA) [--iterations N]",
     "Laplacian or feature-preserving bilateral smoothing",
     "Moves the vertices of the welded surface; faces, texture coordinates, groups and\n"
     "materials are kept. Reports how far the vertices moved. A file with normals gets\n"
     "normals of the smoothed surface.\n"
     "  --laplacian    each step moves every vertex to the average of its neighbours\n"
     "                 (open borders shrink)\n"
     "  --bilateral SIGMA  each step moves every vertex along its normal (recomputed\n"
     "                 before the step) by a weighted mean of the heights of the\n"
     "                 vertices within SIGMA (a length in mesh units; one to three mean\n"
     "                 edge lengths removes noise and keeps sharp features)\n"
     "  --iterations N steps (default 1)\n",
     runSmooth},
    {"orient", "IN OUT [--reverse]", "give the faces one consistent winding, or reverse it",
     "Turns faces so that neighbouring faces run their shared edges in opposite directions;\n"
     "each connected piece keeps the winding of its first face, and a closed piece is\n"
     "turned to face outward. Says whether the surface is orientable and how many\n"
     "triangles (and faces) were flipped. A piece that cannot be\n"
     "oriented (a Moebius band, a non-manifold edge) is written as it was, with a warning\n"
     "and exit status 3. Polygons, texture coordinates, normals, groups and materials are\n"
     "kept.\n"
     "  --reverse      reverse the winding of every face instead, and negate the normals\n",
     runOrient},
    {"reduce", "IN OUT (--fraction F | --tolerance D)", "remove the flattest interior vertices",
     "Removes interior vertices of the welded surface, flattest first, and fills each hole\n"
     "with triangles; boundary vertices stay, so open borders keep their shape. Reports the\n"
     "counts before and after and the largest distance of a removed vertex from the\n"
     "result, as measured. Writes triangles; each takes the group and material of the\n"
     "input face nearest to it. Texture coordinates, normals and vertex colours are not\n"
     "carried (said in a warning).\n"
     "  --fraction F   keep this share of the vertices (0 to 1), or as few as can go\n"
     "  --tolerance D  remove only vertices that stay within D (mesh units) of the result\n",
     runReduce},
    {"raycast", "MESH (--from X,Y,Z --dir X,Y,Z | --rays FILE)",
     "the nearest face that each ray hits",
     "Casts rays at the mesh's faces, from both sides, and prints one line per ray on\n"
     "standard output:\n"
     "  RAY hit T X Y Z FACE SIDE    the nearest hit: T the distance from the origin, X Y Z\n"
     "                               the point, FACE the face's number in the file\n"
     "                               (from 1), SIDE front or back (the face's winding seen\n"
     "                               from the ray)\n"
     "  RAY miss\n"
     "RAY is the ray's line in FILE, or 1 for --from/--dir. Hits nearer than 1e-10 to the\n"
     "origin do not count.\n"
     "  --from X,Y,Z --dir X,Y,Z  one ray (the direction need not be of unit length)\n"
     "  --rays FILE    one ray per line, X Y Z DX DY DZ (spaces or commas; '#' starts a\n"
     "                 comment); - reads standard input\n",
     runRaycast},
};

} // namespace

const Command* commands(int& count)
{
    count = int(sizeof g_commands / sizeof g_commands[0]);
    return g_commands;
}

const Command* findCommand(const char* name)
{
    for (const Command& c : g_commands)
        if (!std::strcmp(c.name, name))
            return &c;
    return nullptr;
}

void printCommandHelp(const Command& command, std::FILE* out)
{
    std::fprintf(out, "usage: qygeom [options] %s%s%s\n\n%s.\n\n%s", command.name,
                 *command.synopsis ? " " : "", command.synopsis, command.summary, command.details);
}

} // namespace qyCli
