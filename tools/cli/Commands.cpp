#include "Commands.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <limits>
#include <vector>

#include "DemoMesh.h"
#include "MeshFiles.h"
#include "Svg.h"
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
#include "qyGeom/reparameterizeMesh.h"

namespace qyCli
{

namespace fs = std::filesystem;
using qyGeom::CompactMesh;

namespace
{

// ---------------------------------------------------------------------------------------
// Mesh statistics for info and the demo

struct Topology
{
    int vertices = 0, triangles = 0;
    long long edges = 0;
    int boundaryEdges = 0, nonManifoldEdges = 0;
    int components = 0, boundaryLoops = 0;
    long long euler = 0;
    int degenerate = 0, duplicates = 0;
    bool oriented = false;
};

// Counts edges by the number of triangles on them. Each triangle edge is keyed by its
// smaller vertex, so a sort per vertex suffices.
void countEdges(const CompactMesh& mesh, const qyGeom::MeshAdjTris& adjTris, Topology& out)
{
    const int* tris = mesh.getTrianglesRaw();
    std::vector<int> others;
    for (int v = 0; v < adjTris.getNumVertices(); ++v)
    {
        others.clear();
        const int* list = adjTris.triIndices(v);
        for (int i = 0; i < adjTris.numTris(v); ++i)
        {
            const int* t = tris + 3 * list[i];
            if (t[0] == t[1] || t[1] == t[2] || t[2] == t[0])
                continue; // a degenerate triangle has no proper edges
            for (int k = 0; k < 3; ++k)
                if (t[k] == v)
                {
                    const int a = t[(k + 1) % 3], b = t[(k + 2) % 3];
                    if (a > v)
                        others.push_back(a);
                    if (b > v)
                        others.push_back(b);
                }
        }
        std::sort(others.begin(), others.end());
        for (std::size_t i = 0; i < others.size();)
        {
            std::size_t j = i;
            while (j < others.size() && others[j] == others[i])
                ++j;
            ++out.edges;
            out.boundaryEdges += j - i == 1;
            out.nonManifoldEdges += j - i > 2;
            i = j;
        }
    }
}

// Works on the caller's copy: the duplicate search leaves its answer in the triangle
// selection.
Topology measure(CompactMesh& mesh)
{
    Topology topo;
    topo.vertices = mesh.getNumVertices();
    topo.triangles = mesh.getNumTriangles();
    qyGeom::SimpleMeshCache cache;
    const auto adjTris = cache.getAdjTris(mesh);
    const auto boundaries = cache.getBoundaries(mesh);
    countEdges(mesh, *adjTris, topo);
    topo.components = qyGeom::meshComponents(mesh, *adjTris, nullptr);
    topo.boundaryLoops = boundaries->size();
    topo.euler = topo.vertices - topo.edges + topo.triangles;
    const int* tris = mesh.getTrianglesRaw();
    const float* v = mesh.getVerticesRaw();
    for (int t = 0; t < topo.triangles; ++t)
    {
        // A repeated corner, or three corners on one line (or on one point): the two edges
        // from the first corner are parallel, which a zero cross product also says.
        const int* c = tris + 3 * t;
        auto corner = [&](int k)
        {
            const float* p = v + 3 * std::ptrdiff_t(c[k]);
            return qyLinear::Point(p[0], p[1], p[2]);
        };
        const qyLinear::Point a = corner(0);
        topo.degenerate += c[0] == c[1] || c[1] == c[2] || c[2] == c[0] ||
                           qyLinear::isParallel(corner(1) - a, corner(2) - a);
    }
    topo.oriented = qyGeom::meshOriented(mesh, *adjTris);
    // The search selects duplicates and triangles that name a vertex twice; count the former.
    qyGeom::meshDuplicateTris(mesh, *adjTris);
    const qyGeom::BitVector& selected = mesh.getSelectedTriangles();
    for (int t = 0; t < topo.triangles; ++t)
    {
        const int* c = tris + 3 * t;
        topo.duplicates += selected.isBitSet(t) && c[0] != c[1] && c[1] != c[2] && c[2] != c[0];
    }
    return topo;
}

// The genus of an orientable surface from chi = 2C - 2g - B; meaningless on a non-manifold
// mesh, which the caller says instead.
long long genusOf(const Topology& t)
{
    return (2LL * t.components - t.boundaryLoops - t.euler) / 2;
}

void printTopology(const Topology& t)
{
    std::printf("  edges:               %lld (%d on a boundary, %d non-manifold)\n", t.edges,
                t.boundaryEdges, t.nonManifoldEdges);
    std::printf("  components:          %d\n", t.components);
    std::printf("  boundary loops:      %d\n", t.boundaryLoops);
    std::printf("  Euler characteristic: %lld\n", t.euler);
    if (t.nonManifoldEdges == 0)
        std::printf("  genus:               %lld\n", genusOf(t));
    else
        std::printf("  genus:               undefined (non-manifold edges)\n");
    std::printf("  consistently oriented: %s\n", t.oriented ? "yes" : "no");
    std::printf("  degenerate triangles: %d (repeated corner or no area)\n", t.degenerate);
    std::printf("  duplicate triangles: %d\n", t.duplicates);
}

void printBox(const CompactMesh& mesh)
{
    qyGeom::BoundingBox box;
    qyGeom::meshBoundingBox(mesh, box);
    if (mesh.getNumVertices() == 0)
        return;
    std::printf("  bounding box:        (%g, %g, %g) to (%g, %g, %g)\n", box.minPt().x,
                box.minPt().y, box.minPt().z, box.maxPt().x, box.maxPt().y, box.maxPt().z);
}

// Welds with a progress bar; returns the number of vertices before.
int weld(CompactMesh& mesh, const char* caption)
{
    const int before = mesh.getNumVertices();
    ProgressBar bar;
    bar.setCaption(caption);
    qyGeom::Remap remap;
    qyGeom::meshCompact(mesh, bar, remap);
    bar.finish();
    return before;
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
void flatten(CompactMesh& mesh, bool cut, bool compact)
{
    if (compact)
        weld(mesh, "Welding");
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
    if (cut)
    {
        qyGeom::CutRegion region;
        if (qyGeom::cutSurface(mesh, region, true))
            cutEdges = region.getNumEdges();
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
    std::printf("  UV layout:           %d triangles, %d flipped, %d without area\n",
                stats.triangles, stats.flipped, stats.degenerate);
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

} // namespace

// ---------------------------------------------------------------------------------------
// demo

int runDemo(Args& args)
{
    args.finish();
    std::printf("qygeom demo: the typical request on a built-in mesh.\n\n");

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
    printTopology(measure(measured));

    std::printf("4. Flatten: conformal UVs in the unit square.\n");
    flatten(mesh, true, true);

    const std::string objPath = "demo.obj", svgPath = "demo-uv.svg";
    OutputFiles outputs;
    writeObjWithMaterial(mesh, objPath, outputs);
    UvLayoutStats stats;
    TextFile svg = outputs.openText(svgPath);
    if (!writeUvSvg(mesh, svg.get(), stats))
        throw Failure("the flattened mesh has no UVs");
    svg.close();
    outputs.commit();
    reportLayout(stats);
    std::printf("5. Wrote %s and demo.mtl (mesh with UVs and its material), and %s (the UV "
                "layout).\n",
                objPath.c_str(), svgPath.c_str());
    return stats.flipped == 0 ? 0 : 1;
}

// ---------------------------------------------------------------------------------------
// info

int runInfo(Args& args)
{
    const std::string path = args.positional("input file");
    args.finish();
    CompactMesh mesh;
    readMesh(path, mesh);
    std::printf("%s (%s)\n", path.c_str(), fileSize(path).c_str());
    std::printf("  vertices:            %d\n", mesh.getNumVertices());
    std::printf("  triangles:           %d\n", mesh.getNumTriangles());
    std::printf("  polygons:            %d\n", mesh.getNumPolys());
    printBox(mesh);

    // Topology is that of the welded surface: a file may repeat positions.
    CompactMesh welded = mesh;
    weld(welded, "Welding");
    requireNotCancelled();
    if (welded.getNumVertices() != mesh.getNumVertices())
        std::printf("  welded vertices:     %d (the file repeats positions)\n",
                    welded.getNumVertices());
    printTopology(measure(welded));

    if (formatOf(path) == MeshFormat::Obj)
    {
        CompactMesh charted;
        qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
        qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
        qy::vector<qyString::IString> materials;
        qyOS::Filename library;
        if (qyGeom::meshReadObj(charted, subsets, uvs, materials, library,
                                qyOS::Filename(path.c_str())))
        {
            if (subsets.empty())
                std::printf("  texture charts:      none (no texture coordinates)\n");
            else
                std::printf("  texture charts:      %zu\n", subsets.size());
            std::vector<std::string> names;
            for (const auto& name : materials)
                if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
                    names.push_back(name);
            std::printf("  materials:           %zu", names.size());
            for (std::size_t i = 0; i < names.size(); ++i)
                std::printf("%s%s", i ? ", " : " (", names[i].c_str());
            std::printf("%s\n", names.empty() ? "" : ")");
            if (!library.empty())
                std::printf("  material library:    %s\n", library.c_str());
        }
        else
            std::printf("  texture charts:      not read (faces other than triangles)\n");
    }
    return 0;
}

// ---------------------------------------------------------------------------------------
// check

int runCheck(Args& args)
{
    const std::string path = args.positional("input file");
    args.finish();
    qy::Reference<qyGeom::MeshObjFile> file(new qyGeom::MeshObjFile);
    const qyUtil::Error error = qyGeom::meshReadObj2(path, file);
    if (error)
    {
        std::string message = error.message();
        while (!message.empty() && (message.back() == '\n' || message.back() == '\r'))
            message.pop_back();
        throw Failure(format("%s: %s", path.c_str(), message.c_str()));
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
// the output's format before the (possibly long) read, transforms, then writes.
template <class Transform>
int transformFile(Args& args, bool objOnly, const char* objOnlyMessage, Transform transform)
{
    const std::string in = args.positional("input file");
    const std::string out = args.positional("output file");
    args.finish();
    refuseOverwritingInput(in, out);
    if (formatOf(out) != MeshFormat::Obj && objOnly)
        usageError(objOnlyMessage);
    CompactMesh mesh;
    readMesh(in, mesh);
    const std::string report = transform(mesh);
    requireNotCancelled();
    OutputFiles outputs;
    writeMesh(mesh, out, outputs);
    outputs.commit();
    std::printf("%s; wrote %s\n", report.c_str(), out.c_str());
    return 0;
}

} // namespace

int runWeld(Args& args)
{
    return transformFile(args, false, nullptr,
                         [](CompactMesh& mesh)
                         {
                             const int before = weld(mesh, "Welding");
                             return format("welded %d vertices into %d; %d triangles", before,
                                           mesh.getNumVertices(), mesh.getNumTriangles());
                         });
}

int runNormals(Args& args)
{
    return transformFile(args, true, "normals are written in OBJ only (.obj)",
                         [](CompactMesh& mesh)
                         {
                             qyGeom::meshComputeNormals(mesh);
                             return format("computed %d vertex normals", mesh.getNumVertices());
                         });
}

int runConvert(Args& args)
{
    return transformFile(args, false, nullptr,
                         [](CompactMesh& mesh) {
                             return format("%d vertices, %d triangles", mesh.getNumVertices(),
                                           mesh.getNumTriangles());
                         });
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
        refuseOverwritingInput(in, svg);
    if (formatOf(out) != MeshFormat::Obj)
        usageError("the flattened mesh is written as OBJ (.obj), with its material library");

    CompactMesh mesh;
    readMesh(in, mesh);
    flatten(mesh, !noCut, !noCompact);

    // Both outputs appear together or not at all.
    OutputFiles outputs;
    UvLayoutStats stats = measureUvLayout(mesh);
    if (!svg.empty())
    {
        TextFile picture = outputs.openText(svg);
        if (!writeUvSvg(mesh, picture.get(), stats))
            throw Failure("the flattened mesh has no UVs");
        picture.close();
    }
    requireNotCancelled();
    writeObjWithMaterial(mesh, out, outputs);
    outputs.commit();
    std::printf("flattened %d vertices, %d triangles; wrote %s", mesh.getNumVertices(),
                mesh.getNumTriangles(), out.c_str());
    if (!svg.empty())
        std::printf(" and %s", svg.c_str());
    std::printf("\n");
    reportLayout(stats);
    return 0;
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
    if (!csv.empty())
        refuseOverwritingInput(in, csv);

    CompactMesh mesh;
    readMesh(in, mesh);
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

    if (!csv.empty())
    {
        OutputFiles outputs;
        TextFile file = outputs.openText(csv);
        std::FILE* f = file.get();
        std::fprintf(f, "vertex,x,y,z,%s\n", kindName.c_str());
        const qyGeom::MeshVertex* v = mesh.getVertices();
        for (int i = 0; i < mesh.getNumVertices(); ++i)
            std::fprintf(f, "%d,%.9g,%.9g,%.9g,%.9g\n", i, v[i].x, v[i].y, v[i].z,
                         double(values[std::size_t(i)]));
        file.close();
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
     "Reads FILE (.obj or .qym) and prints its vertex, triangle and polygon counts, its\n"
     "bounding box, and the topology of the welded surface: edges, components, boundary\n"
     "loops, Euler characteristic and genus, whether the triangles are consistently\n"
     "oriented, degenerate triangles (a repeated corner or no area); for OBJ also texture\n"
     "charts and materials.\n",
     runInfo},
    {"check", "FILE", "parse an OBJ file strictly; report the first error and its line",
     "Exit status 0 when FILE is valid OBJ; otherwise the error, with its line number, on\n"
     "standard error and exit status 1.\n",
     runCheck},
    {"weld", "IN OUT", "merge coincident vertices and renumber",
     "Vertices at exactly the same position (and with the same explicit normals and UVs)\n"
     "become one. The format of each file follows its extension (.obj or .qym).\n",
     runWeld},
    {"normals", "IN OUT.obj", "compute area-weighted vertex normals",
     "Writes OUT.obj with one normal per vertex.\n", runNormals},
    {"flatten", "IN OUT.obj [--svg FILE] [--no-cut] [--no-compact]",
     "conformal UV flattening, written with a material library",
     "Flattens the surface to UVs in the unit square (aspect ratio kept) and writes OUT.obj\n"
     "with its UVs and the material library OUT.mtl beside it. A closed surface, or one of\n"
     "higher genus, is cut to a disk first.\n"
     "  --svg FILE     also draw the UV layout (flipped triangles in red)\n"
     "  --no-cut       fail instead of cutting a surface that is not a disk\n"
     "  --no-compact   do not weld the working copy before flattening\n",
     runFlatten},
    {"curvature", "IN --kind mean|gaussian|min|max [--csv FILE]",
     "per-vertex curvature with a summary",
     "Welds the mesh, computes the chosen curvature at every vertex and prints the minimum,\n"
     "quartiles and maximum.\n"
     "  --csv FILE     also write vertex,x,y,z,value lines\n",
     runCurvature},
    {"convert", "IN OUT", "convert between OBJ (.obj) and the minimal format (.qym)",
     "The formats follow the file extensions.\n", runConvert},
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
