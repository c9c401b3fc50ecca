// The commands that edit a mesh's shape or winding (subdivide, smooth, orient, reduce) and the ray
// queries (raycast). Each reads the file as it stands, works on the welded surface (so that
// faces that repeat a position are joined) and carries the polygons and attributes through
// as far as the operation allows, saying in one line what it cannot carry.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <vector>

#include "Commands.h"
#include "MeshFiles.h"
#include "ObjModel.h"
#include "base/Linear.h"
#include "model/MeshAdjacency.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "model/Remap.h"
#include "model/TopoMesh.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshClosestPoint.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/computeSubdivMesh.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/meshComputeNormals.h"
#include "qyGeom/meshRayIntersect.h"
#include "qyGeom/meshReduce.h"
#include "qyGeom/meshSmooth.h"
#include "qyGeom/meshTopology.h"

namespace qyCli
{

namespace fs = std::filesystem;
using qyGeom::CompactMesh;

namespace
{

// ---------------------------------------------------------------------------------------
// Shared steps

// A positive whole number option; `fallback` when absent.
int countOption(Args& args, const char* name, int fallback, int most)
{
    const std::string value = args.option(name);
    if (value.empty())
        return fallback;
    char* end = nullptr;
    errno = 0;
    const long n = std::strtol(value.c_str(), &end, 10);
    if (end == value.c_str() || *end || errno || n < 1 || n > most)
        usageError(
            format("%s needs a whole number from 1 to %d, not '%s'", name, most, value.c_str()));
    return int(n);
}

// A finite number, the whole of `text`.
bool parseNumber(const std::string& text, double& out)
{
    if (text.empty())
        return false;
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return end == text.c_str() + text.size() && std::isfinite(out);
}

// "X,Y,Z" as three finite numbers.
qyLinear::Vector parseTriple(const char* option, const std::string& text)
{
    double v[3];
    std::size_t at = 0;
    for (int k = 0; k < 3; ++k)
    {
        const std::size_t comma = k < 2 ? text.find(',', at) : text.size();
        if (comma == std::string::npos || !parseNumber(text.substr(at, comma - at), v[k]) ||
            (k == 2 && text.find(',', at) != std::string::npos))
            usageError(
                format("%s needs three finite numbers X,Y,Z, not '%s'", option, text.c_str()));
        at = comma + 1;
    }
    return {v[0], v[1], v[2]};
}

void readModel(const std::string& path, ObjModel& model)
{
    ObjReadNotes notes;
    readInput(path, model, notes);
    reportReadNotes(notes);
}

// The surface's vertices: model vertices at exactly the same position become one, so that
// faces which repeat a position (a file with a vertex per corner) meet there. `weldedOf`
// gives each model vertex its welded vertex; returns the welded positions.
std::vector<float> weldPositions(const ObjModel& model, std::vector<int>& weldedOf)
{
    CompactMesh points(model.numVertices(),
                       reinterpret_cast<const qyGeom::MeshVertex*>(model.positions.data()));
    ProgressBar bar;
    bar.setCaption("Welding");
    qyGeom::Remap remap;
    qyGeom::meshCompact(points, bar, remap);
    bar.finish();
    requireNotCancelled();
    weldedOf.resize(std::size_t(model.numVertices()));
    for (int v = 0; v < model.numVertices(); ++v)
        weldedOf[std::size_t(v)] = remap(v);
    const float* xyz = points.getVerticesRaw();
    return std::vector<float>(xyz, xyz + 3 * std::ptrdiff_t(points.getNumVertices()));
}

// The triangles of the model over the welded vertices. Triangles whose corners weld together
// are left out; `faceOf` gives each triangle kept its model face.
CompactMesh weldedTriangles(const ObjModel& model, const std::vector<float>& welded,
                            const std::vector<int>& weldedOf, std::vector<int>& faceOf)
{
    ObjTriangles tris;
    triangulateObjModel(model, true, tris);
    std::vector<int> kept;
    faceOf.clear();
    const int* t = tris.mesh.getTrianglesRaw();
    for (int i = 0; i < tris.mesh.getNumTriangles(); ++i)
    {
        const int a = weldedOf[std::size_t(t[3 * i])], b = weldedOf[std::size_t(t[3 * i + 1])],
                  c = weldedOf[std::size_t(t[3 * i + 2])];
        if (a == b || b == c || c == a)
            continue;
        kept.insert(kept.end(), {a, b, c});
        faceOf.push_back(tris.faces[std::size_t(i)]);
    }
    CompactMesh mesh(int(welded.size() / 3),
                     reinterpret_cast<const qyGeom::MeshVertex*>(welded.data()));
    mesh.copyTriangles(int(kept.size() / 3), kept.data());
    return mesh;
}

// The shape of the editing commands: the output is staged before the (possibly long) read,
// `edit` changes the model and prints its report lines, and the output appears only when
// all went well. Returns `edit`'s exit status.
template <class Edit> int editFile(Args& args, Edit edit)
{
    const std::string in = args.positional("input file");
    const std::string out = args.positional("output file");
    args.finish();
    refuseOverwritingInput(in, out);
    formatOf(out);
    formatOf(in);
    OutputFiles outputs;
    MeshOutput output(out, outputs);
    ObjModel model;
    readModel(in, model);
    for (const std::string& library : model.libraries)
        refuseOverwritingInput((fs::path(model.directory) / library).string(), out);
    const int status = edit(model);
    requireNotCancelled();
    output.write(model);
    outputs.commit();
    std::printf("wrote %s\n", out.c_str());
    return status;
}

void dropColours(ObjModel& model, const char* command)
{
    if (model.colours.empty())
        return;
    warning("vertex colours are not carried through %s; left out %d", command, model.numVertices());
    model.colours.clear();
}

// ---------------------------------------------------------------------------------------
// subdivide

// The texture coordinates of each face's corners, in the order of its half-edges from
// face.edge(); a corner without one holds NaN.
struct CornerUvs
{
    std::vector<std::ptrdiff_t> start; // per face slot, the first corner's offset (2 floats each)
    std::vector<float> uv;
    const float* of(const qyGeom::TopoMeshFace& f) const
    {
        return uv.data() + start[std::size_t(f.getIndex())];
    }
};

// One level of subdivision, carrying each face's model face and its corners' texture
// coordinates. A quad's corners are its face point, an edge point, the vertex point of an
// old corner k and the other edge point, counter-clockwise like the old face, so the edge
// point after the vertex point lies on the edge k -> k + 1 and the one before it on
// k - 1 -> k. Texture coordinates follow linearly: the corner's own at the vertex point,
// the midpoint of the two corners' at an edge point, the average at the face point.
qyGeom::TopoMesh* subdivideOnce(qyGeom::TopoMesh& mesh, const std::vector<int>& modelFace,
                                const CornerUvs* uvs, std::vector<int>& newModelFace,
                                CornerUvs* newUvs)
{
    using namespace qyGeom;
    qy::map<TopoMeshFace, TopoMeshFace> faces;
    qy::map<TopoMeshEdge, TopoMeshEdge> edges;
    qy::map<TopoMeshVertex, TopoMeshVertex> vertices;
    TopoMesh* next = computeSubdivMesh(mesh, 1, faces, edges, vertices);
    if (!next)
        return nullptr;
    newModelFace.assign(std::size_t(next->getFaceCapacity()), -1);
    if (newUvs)
    {
        newUvs->start.assign(std::size_t(next->getFaceCapacity()), 0);
        newUvs->uv.clear();
    }
    for (const auto& [quad, old] : faces)
    {
        newModelFace[std::size_t(quad.getIndex())] = modelFace[std::size_t(old.getIndex())];
        if (!newUvs)
            continue;
        // The old face's corners and the quad's, each from its first half-edge.
        std::vector<TopoMeshVertex> oldCorners;
        TopoMeshEdge e = old.edge();
        do
        {
            oldCorners.push_back(e.vertex());
            e = e.next();
        } while (e != old.edge());
        const int n = int(oldCorners.size());
        const float* oldUv = uvs->of(old);
        TopoMeshVertex quadCorners[4];
        e = quad.edge();
        int vertexPoint = -1, k = -1;
        for (int j = 0; j < 4; ++j, e = e.next())
        {
            quadCorners[j] = e.vertex();
            const auto it = vertices.find(quadCorners[j]);
            if (it != vertices.end())
            {
                const auto at = std::find(oldCorners.begin(), oldCorners.end(), it->second);
                if (at != oldCorners.end())
                {
                    vertexPoint = j;
                    k = int(at - oldCorners.begin());
                }
            }
        }
        newUvs->start[std::size_t(quad.getIndex())] = std::ptrdiff_t(newUvs->uv.size());
        float centre[2] = {0, 0};
        for (int i = 0; i < n; ++i)
            for (int c = 0; c < 2; ++c)
                centre[c] += oldUv[2 * i + c] / float(n);
        for (int j = 0; j < 4; ++j)
        {
            float uv[2] = {std::nanf(""), std::nanf("")};
            if (vertexPoint >= 0)
            {
                const int role = (j - vertexPoint + 4) % 4;
                const float* here = oldUv + 2 * k;
                const float* after = oldUv + 2 * ((k + 1) % n);
                const float* before = oldUv + 2 * ((k + n - 1) % n);
                for (int c = 0; c < 2; ++c)
                    uv[c] = role == 0   ? here[c]
                            : role == 1 ? 0.5f * (here[c] + after[c])
                            : role == 3 ? 0.5f * (before[c] + here[c])
                                        : centre[c];
            }
            newUvs->uv.insert(newUvs->uv.end(), uv, uv + 2);
        }
    }
    return next;
}

int subdivideModel(ObjModel& model, int levels)
{
    using namespace qyGeom;
    dropColours(model, "subdivide");
    std::vector<int> weldedOf;
    const std::vector<float> welded = weldPositions(model, weldedOf);
    const int numWelded = int(welded.size() / 3);

    // The half-edge mesh over the welded vertices that faces use.
    auto mesh = std::make_unique<TopoMesh>();
    std::vector<int> slotOf(std::size_t(numWelded), -1);
    std::vector<int> modelFace;
    const bool withUvs = model.numTexCoords() > 0;
    CornerUvs uvs;
    int refused = 0, pinched = 0;
    long long corners = 0;
    std::vector<int> weldedCorners, cornerOf;
    std::vector<TopoMeshVertex> face;
    std::vector<float> faceUv;
    for (int f = 0; f < model.numFaces(); ++f)
    {
        // The face's welded corners, repeats in a row (and around the end) taken out.
        weldedCorners.clear();
        cornerOf.clear();
        for (int i = model.faceStarts[std::size_t(f)]; i < model.faceStarts[std::size_t(f) + 1];
             ++i)
        {
            const int w = weldedOf[std::size_t(model.corners[std::size_t(i)].v)];
            if (weldedCorners.empty() || weldedCorners.back() != w)
            {
                weldedCorners.push_back(w);
                cornerOf.push_back(i);
            }
        }
        while (weldedCorners.size() > 1 && weldedCorners.back() == weldedCorners.front())
        {
            weldedCorners.pop_back();
            cornerOf.pop_back();
        }
        if (weldedCorners.size() < 3)
        {
            ++refused;
            continue;
        }
        face.clear();
        faceUv.clear();
        for (std::size_t k = 0; k < weldedCorners.size(); ++k)
        {
            const std::size_t w = std::size_t(weldedCorners[k]);
            const qyLinear::Point at(welded[3 * w], welded[3 * w + 1], welded[3 * w + 2]);
            int& slot = slotOf[w];
            if (slot < 0)
                slot = mesh->allocVertex(at).getIndex();
            TopoMeshVertex v = mesh->vertex(slot);
            // A face that passes through a position twice (a keyhole polygon) gets a vertex
            // of its own there: each side of the pinch is subdivided as a border.
            if (std::find(face.begin(), face.end(), v) != face.end())
            {
                v = mesh->allocVertex(at);
                ++pinched;
            }
            face.push_back(v);
            const ObjCorner& c = model.corners[std::size_t(cornerOf[k])];
            faceUv.push_back(c.vt >= 0 ? model.texCoords[2 * std::size_t(c.vt)] : std::nanf(""));
            faceUv.push_back(c.vt >= 0 ? model.texCoords[2 * std::size_t(c.vt) + 1]
                                       : std::nanf(""));
        }
        const TopoMeshFace made = mesh->allocFace(face);
        if (!made)
        {
            ++refused;
            continue;
        }
        corners += int(face.size());
        if (std::size_t(made.getIndex()) >= modelFace.size())
        {
            modelFace.resize(std::size_t(made.getIndex()) + 1, -1);
            uvs.start.resize(modelFace.size(), 0);
        }
        modelFace[std::size_t(made.getIndex())] = f;
        // Stored from the face's first half-edge, which leaves its first corner.
        uvs.start[std::size_t(made.getIndex())] = std::ptrdiff_t(uvs.uv.size());
        const int first =
            int(std::find(face.begin(), face.end(), made.edge().vertex()) - face.begin());
        for (std::size_t i = 0; i < face.size(); ++i)
        {
            const std::size_t j = (std::size_t(first) + i) % face.size();
            uvs.uv.insert(uvs.uv.end(), faceUv.begin() + 2 * std::ptrdiff_t(j),
                          faceUv.begin() + 2 * std::ptrdiff_t(j) + 2);
        }
    }
    if (refused > 0)
        warning("left out %d faces left with fewer than three corners once coincident vertices "
                "are joined",
                refused);
    if (pinched > 0)
        std::printf("%d face corners repeat a position of the same face: each gets a vertex of "
                    "its own there\n",
                    pinched);
    if (mesh->getNumFaces() == 0)
        throw Failure("no face is left to subdivide");
    const int unused = numWelded - (mesh->getNumVertices() - pinched);
    if (unused > 0)
        warning("left out %d vertices that no face uses", unused);
    // Each level turns a face of n corners into n quads: the first level gives one quad per
    // corner, every later one four per quad.
    const double quads = double(corners) * std::pow(4.0, levels - 1);
    if (quads * 4.0 > 2147483647.0)
        throw Failure(format("%d levels would give %.3g quads, more than a mesh of 32-bit "
                             "indices holds",
                             levels, quads));
    mesh->meshTwin();

    ProgressBar bar;
    for (int level = 1; level <= levels; ++level)
    {
        bar.setCaption(format("Subdividing (level %d of %d)", level, levels).c_str());
        bar.set(double(level - 1) / levels);
        std::vector<int> nextModelFace;
        CornerUvs nextUvs;
        std::unique_ptr<TopoMesh> next(
            subdivideOnce(*mesh, modelFace, &uvs, nextModelFace, withUvs ? &nextUvs : nullptr));
        if (!next)
            throw Failure("the mesh could not be subdivided");
        mesh = std::move(next);
        modelFace.swap(nextModelFace);
        uvs = std::move(nextUvs);
        requireNotCancelled();
    }
    bar.finish();

    // The result as a model: its vertices in slot order, one quad per face, each face in the
    // state (object, group, material) of the input face it came from.
    ObjModel out;
    out.directory = model.directory;
    out.libraries = model.libraries;
    std::vector<int> vertexOf(std::size_t(mesh->getVertexCapacity()), -1);
    for (TopoMeshVertex v = mesh->firstVertex(); v; v = v.nextInList())
    {
        vertexOf[std::size_t(v.getIndex())] = out.numVertices();
        const qyLinear::Point& p = v.point();
        out.positions.insert(out.positions.end(), {float(p.x), float(p.y), float(p.z)});
    }
    const bool withNormals = model.numNormals() > 0;
    if (withNormals)
    {
        qy::map<TopoMeshVertex, qyLinear::Normal> normals;
        computeSubdivMeshNormals(*mesh, normals);
        out.normals.assign(out.positions.size(), 0.0f);
        for (const auto& [v, n] : normals)
            if (n.isValid())
                for (int c = 0; c < 3; ++c)
                    out.normals[3 * std::size_t(vertexOf[std::size_t(v.getIndex())]) +
                                std::size_t(c)] = float(n[c]);
    }
    std::map<std::pair<float, float>, int> uvIndex;
    int untextured = 0;
    for (TopoMeshFace f = mesh->firstFace(); f; f = f.nextInList())
    {
        ObjCorner c[4];
        TopoMeshEdge e = f.edge();
        for (int j = 0; j < 4; ++j, e = e.next())
        {
            c[j].v = vertexOf[std::size_t(e.vertex().getIndex())];
            if (withNormals)
                c[j].vn = c[j].v;
        }
        // A quad gets texture coordinates at all its corners or none: one from a face whose
        // corners were not all textured has none.
        const float* uv = withUvs ? uvs.of(f) : nullptr;
        const bool textured =
            uv && std::all_of(uv, uv + 8, [](float x) { return std::isfinite(x); });
        untextured += uv && !textured;
        if (textured)
            for (int j = 0; j < 4; ++j)
            {
                const auto [it, added] =
                    uvIndex.emplace(std::pair(uv[2 * j], uv[2 * j + 1]), out.numTexCoords());
                if (added)
                    out.texCoords.insert(out.texCoords.end(), uv + 2 * j, uv + 2 * j + 2);
                c[j].vt = it->second;
            }
        const int source = modelFace[std::size_t(f.getIndex())];
        out.addFace(c, 4, model.states[std::size_t(model.faceStates[std::size_t(source)])]);
    }
    std::printf("subdivided %d level%s: %d vertices, %d faces before; %d vertices, %d quads "
                "after\n",
                levels, levels == 1 ? "" : "s", model.numVertices(), model.numFaces(),
                out.numVertices(), out.numFaces());
    if (withUvs)
        std::printf("texture coordinates interpolated linearly over each face\n");
    if (untextured > 0)
        warning("%d quads come from faces with texture coordinates at only some corners; "
                "they are written without",
                untextured);
    if (withNormals)
        std::printf("normals recomputed for the subdivided surface (replacing the file's %d)\n",
                    model.numNormals());
    model = std::move(out);
    return 0;
}

// ---------------------------------------------------------------------------------------
// smooth

int smoothModel(ObjModel& model, bool bilateral, double sigma, int iterations)
{
    std::vector<int> weldedOf, faceOf;
    const std::vector<float> welded = weldPositions(model, weldedOf);
    CompactMesh mesh = weldedTriangles(model, welded, weldedOf, faceOf);
    if (mesh.getNumTriangles() == 0)
        throw Failure("no triangle is left to smooth");
    qyGeom::MeshAdjTris adjTris;
    qyGeom::meshAdjTris(mesh, adjTris);
    qyGeom::MeshAdjVertices adjVertices;
    qyGeom::meshAdjVertices(mesh, adjTris, adjVertices);
    // Only vertices with neighbours move: a vertex that no triangle uses has no average.
    qyGeom::BitVector& selected = mesh.getSelectedVertices();
    selected.resize(mesh.getNumVertices());
    selected.clearBits();
    double edgeSum = 0;
    long long edgeCount = 0;
    const qyGeom::MeshVertex* p = mesh.getVertices();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
    {
        const int n = adjVertices.numVertices(v);
        if (n > 0)
            selected.setBit(v);
        for (int k = 0; k < n; ++k)
        {
            const int w = adjVertices.vertexIndices(v)[k];
            edgeSum += (p[v].asPoint() - p[w].asPoint()).length();
            ++edgeCount;
        }
    }
    const double meanEdge = edgeCount ? edgeSum / double(edgeCount) : 0.0;
    const std::vector<float> before = welded;

    ProgressBar bar;
    for (int i = 0; i < iterations; ++i)
    {
        bar.setCaption(format("Smoothing (%s, step %d of %d)",
                              bilateral ? "bilateral" : "Laplacian", i + 1, iterations)
                           .c_str());
        qyUtil::Progress step;
        bar.subPhase(1.0 / iterations, step);
        if (bilateral)
        {
            // The filter moves each vertex along its normal: normals of the surface as it
            // is now, every step.
            qyGeom::meshComputeNormals(mesh);
            qyGeom::meshSmoothBilateral(mesh, adjVertices, sigma, step);
        }
        else
            qyGeom::meshSmoothLaplacian(mesh, adjVertices, step);
        requireNotCancelled();
    }
    bar.finish();

    const float* after = mesh.getVerticesRaw();
    double moveSum = 0, moveMax = 0;
    int moved = 0;
    for (int v = 0; v < mesh.getNumVertices(); ++v)
    {
        const float* a = before.data() + 3 * std::ptrdiff_t(v);
        const float* b = after + 3 * std::ptrdiff_t(v);
        for (int c = 0; c < 3; ++c)
            if (!std::isfinite(b[c]))
                throw Failure("smoothing gave a position that is not a number; nothing written");
        const double d =
            std::sqrt(double(b[0] - a[0]) * (b[0] - a[0]) + double(b[1] - a[1]) * (b[1] - a[1]) +
                      double(b[2] - a[2]) * (b[2] - a[2]));
        moved += d > 0;
        moveSum += d;
        moveMax = std::max(moveMax, d);
    }
    for (int v = 0; v < model.numVertices(); ++v)
        std::copy_n(after + 3 * std::ptrdiff_t(weldedOf[std::size_t(v)]), 3,
                    model.positions.begin() + 3 * std::ptrdiff_t(v));

    if (bilateral)
        std::printf("bilateral smoothing, sigma %g (%.3g mean edge lengths), %d step%s\n", sigma,
                    meanEdge > 0 ? sigma / meanEdge : 0.0, iterations, iterations == 1 ? "" : "s");
    else
        std::printf("Laplacian smoothing, %d step%s\n", iterations, iterations == 1 ? "" : "s");
    std::printf("moved %d of %d vertices: %.6g on average, %.6g at most (mean edge length "
                "%.6g)\n",
                moved, selected.countBits(), moved ? moveSum / moved : 0.0, moveMax, meanEdge);
    if (bilateral && moved == 0)
        std::printf("no vertex moved: a sigma below the edge lengths finds no neighbours, and a "
                    "flat neighbourhood has nothing to remove\n");
    if (model.numNormals() > 0)
    {
        // The file's normals belong to the old shape; normals of the new one replace them.
        qyGeom::meshComputeNormals(mesh);
        const float* n = mesh.getNormalsRaw();
        const int replaced = model.numNormals();
        model.normals.resize(model.positions.size());
        for (int v = 0; v < model.numVertices(); ++v)
            std::copy_n(n + 3 * std::ptrdiff_t(weldedOf[std::size_t(v)]), 3,
                        model.normals.begin() + 3 * std::ptrdiff_t(v));
        for (ObjCorner& c : model.corners)
            c.vn = c.v;
        std::printf("normals recomputed for the smoothed surface (replacing the file's %d)\n",
                    replaced);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------
// orient

void reverseFace(ObjModel& model, int f)
{
    // The first corner stays first; the others run the other way.
    auto first = model.corners.begin() + model.faceStarts[std::size_t(f)] + 1;
    auto end = model.corners.begin() + model.faceStarts[std::size_t(f) + 1];
    std::reverse(first, end);
}

int orientModel(ObjModel& model, bool reverse)
{
    if (reverse)
    {
        for (int f = 0; f < model.numFaces(); ++f)
            reverseFace(model, f);
        for (float& x : model.normals)
            x = 0.0f - x; // a zero stays +0, not -0
        std::printf("reversed the winding of all %d faces\n", model.numFaces());
        if (model.numNormals() > 0)
            std::printf("negated the file's %d normals to face the new front\n",
                        model.numNormals());
        return 0;
    }

    std::vector<int> weldedOf, faceOf;
    const std::vector<float> welded = weldPositions(model, weldedOf);
    CompactMesh mesh = weldedTriangles(model, welded, weldedOf, faceOf);
    const int numTris = mesh.getNumTriangles();
    if (numTris == 0)
        throw Failure("no triangle is left to orient");
    qyGeom::MeshAdjTris adjTris;
    qyGeom::meshAdjTris(mesh, adjTris);
    qy::Array<int> labels;
    const int pieces = qyGeom::meshComponents(mesh, adjTris, &labels);

    // Each piece is oriented on its own, so that one that cannot be (a Moebius band) does
    // not stop the others; it is left as it was.
    std::vector<std::vector<int>> trianglesOf(static_cast<std::size_t>(pieces));
    const int* t = mesh.getTrianglesRaw();
    for (int i = 0; i < numTris; ++i)
        trianglesOf[std::size_t(labels[t[3 * i]])].push_back(i);
    std::vector<char> flipped(std::size_t(numTris), 0);
    int flippedTris = 0, notOrientable = 0, notOrientableTris = 0, turnedOutward = 0;
    std::vector<int> local(std::size_t(mesh.getNumVertices()), -1);
    for (const std::vector<int>& piece : trianglesOf)
    {
        std::vector<int> vertices, tris;
        for (const int i : piece)
            for (int k = 0; k < 3; ++k)
            {
                int& l = local[std::size_t(t[3 * i + k])];
                if (l < 0)
                {
                    l = int(vertices.size());
                    vertices.push_back(t[3 * i + k]);
                }
                tris.push_back(l);
            }
        std::vector<float> xyz;
        for (const int v : vertices)
        {
            xyz.insert(xyz.end(), welded.begin() + 3 * std::ptrdiff_t(v),
                       welded.begin() + 3 * std::ptrdiff_t(v) + 3);
            local[std::size_t(v)] = -1;
        }
        CompactMesh part(int(vertices.size()),
                         reinterpret_cast<const qyGeom::MeshVertex*>(xyz.data()));
        part.copyTriangles(int(piece.size()), tris.data());
        qyGeom::MeshAdjTris partAdj;
        qyGeom::meshAdjTris(part, partAdj);
        qyGeom::MeshOrient orient(part, partAdj);
        orient.orient();
        if (!orient.isOriented())
        {
            ++notOrientable;
            notOrientableTris += int(piece.size());
            continue;
        }
        const int* after = part.getTrianglesRaw();
        // A closed piece is turned to face outward: the volume that its triangles enclose,
        // summed over the cones from the piece's centre, comes out positive.
        bool inward = false;
        qyGeom::MeshEdges edges;
        qyGeom::meshEdges(part, edges);
        if (edges.numBoundary() == 0 && edges.numNonManifold() == 0)
        {
            const qyLinear::Point origin(0, 0, 0);
            qyLinear::Vector sum(0, 0, 0);
            const qyGeom::MeshVertex* q = part.getVertices();
            for (int v = 0; v < part.getNumVertices(); ++v)
                sum += q[v].asPoint() - origin;
            const qyLinear::Point centre = origin + sum / double(part.getNumVertices());
            double volume = 0;
            for (std::size_t j = 0; j < piece.size(); ++j)
            {
                const qyLinear::Vector a = q[after[3 * j]].asPoint() - centre;
                const qyLinear::Vector b = q[after[3 * j + 1]].asPoint() - centre;
                const qyLinear::Vector c = q[after[3 * j + 2]].asPoint() - centre;
                volume += qyLinear::dot(a, qyLinear::cross(b, c));
            }
            inward = volume < 0;
            turnedOutward += inward;
        }
        for (std::size_t j = 0; j < piece.size(); ++j)
            if ((after[3 * j + 1] != tris[3 * j + 1]) != inward)
            {
                flipped[std::size_t(piece[j])] = 1;
                ++flippedTris;
            }
        requireNotCancelled();
    }

    // A face turns when most of its triangles did (all of them, on a surface that can be
    // oriented: the triangles of a polygon share its diagonals).
    std::vector<int> votes(std::size_t(model.numFaces()), 0);
    for (int i = 0; i < numTris; ++i)
        votes[std::size_t(faceOf[std::size_t(i)])] += flipped[std::size_t(i)] ? 1 : -1;
    int flippedFaces = 0;
    for (int f = 0; f < model.numFaces(); ++f)
        if (votes[std::size_t(f)] > 0)
        {
            reverseFace(model, f);
            ++flippedFaces;
        }

    std::printf("orientable: %s\n", notOrientable ? "no" : "yes");
    if (flippedTris == 0 && notOrientable == 0)
        std::printf("already consistently oriented: no triangle flipped (%d triangles in %d "
                    "piece%s)\n",
                    numTris, pieces, pieces == 1 ? "" : "s");
    else if (notOrientable == pieces)
        std::printf("no triangle flipped (%d triangles)\n", numTris);
    else
        std::printf("flipped %d of %d triangles (%d faces) to give %s one consistent "
                    "winding\n",
                    flippedTris, numTris, flippedFaces,
                    notOrientable ? "the orientable pieces"
                    : pieces == 1 ? "the surface"
                                  : "each piece");
    if (turnedOutward > 0)
        std::printf("%d closed piece%s faced inward and %s turned to face outward\n", turnedOutward,
                    turnedOutward == 1 ? "" : "s", turnedOutward == 1 ? "was" : "were");
    if (flippedFaces > 0 && model.numNormals() > 0)
        std::printf("the file's %d normals are kept as they were (qygeom normals recomputes "
                    "them)\n",
                    model.numNormals());
    if (notOrientable == 0)
        return 0;
    warning("%d of %d pieces (%d triangles) cannot be given one consistent winding (a Moebius "
            "band or a non-manifold edge); they are written as they were",
            notOrientable, pieces, notOrientableTris);
    return 3;
}

// ---------------------------------------------------------------------------------------
// raycast

struct Rays
{
    std::vector<float> origins;
    std::vector<double> directions; // unit length
    std::vector<long> numbers;      // the ray's line in the file, 1 for --from/--dir
};

// Reads "X Y Z DX DY DZ" lines (spaces, tabs or commas between the numbers; '#' starts a
// comment; blank lines are skipped) from `path`, "-" being standard input.
void readRays(const std::string& path, Rays& rays)
{
    std::ifstream file;
    std::istream* in = &std::cin;
    if (path != "-")
    {
        std::error_code ec;
        if (fs::is_directory(path, ec))
            throw Failure(format("cannot read '%s': it is a directory", path.c_str()));
        file.open(path, std::ios::binary);
        if (!file)
            throw Failure(format("cannot read '%s': %s", path.c_str(), std::strerror(errno)));
        in = &file;
    }
    const char* shown = path == "-" ? "standard input" : path.c_str();
    long number = 0;
    for (std::string line; std::getline(*in, line);)
    {
        ++number;
        line = line.substr(0, line.find('#'));
        for (char& c : line)
            if (c == ',' || c == '\t' || c == '\r')
                c = ' ';
        std::vector<std::string> words;
        for (std::size_t at = 0; (at = line.find_first_not_of(' ', at)) != std::string::npos;)
        {
            const std::size_t end = std::min(line.find(' ', at), line.size());
            words.push_back(line.substr(at, end - at));
            at = end;
        }
        if (words.empty())
            continue;
        double v[6];
        bool ok = words.size() == 6;
        for (std::size_t k = 0; ok && k < 6; ++k)
            ok = parseNumber(words[k], v[k]);
        if (!ok)
            throw Failure(
                format("%s: line %ld: a ray is six finite numbers X Y Z DX DY DZ", shown, number));
        const double length = std::sqrt(v[3] * v[3] + v[4] * v[4] + v[5] * v[5]);
        if (!(length > 0) || !std::isfinite(length))
            throw Failure(format("%s: line %ld: the direction has no length", shown, number));
        rays.origins.insert(rays.origins.end(), {float(v[0]), float(v[1]), float(v[2])});
        rays.directions.insert(rays.directions.end(),
                               {v[3] / length, v[4] / length, v[5] / length});
        rays.numbers.push_back(number);
    }
    if (in->bad())
        throw Failure(format("cannot read '%s'", shown));
}

// ---------------------------------------------------------------------------------------
// reduce

// The largest distance from `points` to the triangles of `mesh`, and the mean in `mean`.
double largestDistance(const CompactMesh& mesh, const qy::vector<qyLinear::Point>& points,
                       double& mean)
{
    mean = 0;
    if (points.empty())
        return 0;
    qyGeom::SimpleMeshCache cache;
    const auto octree = cache.getOctree(mesh, -1);
    const auto octreeTris = cache.getOctreeTris(mesh);
    qyGeom::MeshClosestPoint closest(mesh, *octree, *octreeTris);
    qyGeom::MeshClosestPointResult found;
    double largest = 0, sum = 0;
    for (std::size_t i = 0; i < points.size(); ++i)
    {
        const double d = closest.compute(points[i], found);
        largest = std::max(largest, d);
        sum += d;
        if (i % 10000 == 0)
            requireNotCancelled();
    }
    mean = sum / double(points.size());
    return largest;
}

int reduceModel(ObjModel& model, bool byFraction, double amount)
{
    dropColours(model, "reduce");
    if (model.numTexCoords() > 0 || model.numNormals() > 0)
        warning("texture coordinates and normals are not carried through reduce (its triangles "
                "are new); left out %d texture coordinates, %d normals",
                model.numTexCoords(), model.numNormals());
    std::vector<int> weldedOf, faceOf;
    const std::vector<float> welded = weldPositions(model, weldedOf);
    CompactMesh mesh = weldedTriangles(model, welded, weldedOf, faceOf);
    if (mesh.getNumTriangles() == 0)
        throw Failure("no triangle is left to reduce");
    {
        // The hole filling reads the winding to keep the surface from folding: make it
        // consistent where it can be.
        qyGeom::MeshAdjTris adjTris;
        qyGeom::meshAdjTris(mesh, adjTris);
        if (!qyGeom::meshOriented(mesh, adjTris) && qyGeom::meshMakeOriented(mesh, adjTris))
            std::printf("turned triangles to give the surface one consistent winding\n");
    }
    const CompactMesh original = mesh;
    const int vertsBefore = mesh.getNumVertices(), trisBefore = mesh.getNumTriangles();

    qy::vector<qyLinear::Point> removed;
    double reported = 0;
    {
        ProgressBar bar;
        bar.setCaption("Reducing");
        if (byFraction)
            qyGeom::meshReduceToFraction(mesh, amount, bar, removed);
        else
            reported = qyGeom::meshReduceWithTolerance(mesh, amount, bar, removed);
        bar.finish();
    }
    requireNotCancelled();
    double mean = 0;
    const double largest = largestDistance(mesh, removed, mean);

    // The result as a model: its vertices, and its triangles, each in the state (object,
    // group, material) of the input face nearest to its centre.
    ObjModel out;
    out.directory = model.directory;
    out.libraries = model.libraries;
    const float* xyz = mesh.getVerticesRaw();
    out.positions.assign(xyz, xyz + 3 * std::ptrdiff_t(mesh.getNumVertices()));
    qyGeom::SimpleMeshCache cache;
    const auto octree = cache.getOctree(original, -1);
    const auto octreeTris = cache.getOctreeTris(original);
    qyGeom::MeshClosestPoint nearest(original, *octree, *octreeTris);
    qyGeom::MeshClosestPointResult found;
    const int* t = mesh.getTrianglesRaw();
    const qyGeom::MeshVertex* p = mesh.getVertices();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
    {
        const qyLinear::Point a = p[t[3 * i]].asPoint(), b = p[t[3 * i + 1]].asPoint(),
                              c = p[t[3 * i + 2]].asPoint();
        const qyLinear::Point centre = a + ((b - a) + (c - a)) / 3.0;
        nearest.compute(centre, found);
        const int face = found.triangle >= 0 ? faceOf[std::size_t(found.triangle)] : 0;
        const ObjCorner corners[3] = {
            {t[3 * i], -1, -1}, {t[3 * i + 1], -1, -1}, {t[3 * i + 2], -1, -1}};
        out.addFace(corners, 3, model.states[std::size_t(model.faceStates[std::size_t(face)])]);
    }

    std::printf("reduced %d vertices, %d triangles to %d vertices, %d triangles (%d vertices "
                "removed)\n",
                vertsBefore, trisBefore, mesh.getNumVertices(), mesh.getNumTriangles(),
                vertsBefore - mesh.getNumVertices());
    std::printf("the removed vertices lie within %.6g of the result (%.6g on average)\n", largest,
                mean);
    model = std::move(out);
    if (byFraction)
    {
        const int target = int(amount * vertsBefore);
        if (mesh.getNumVertices() > target)
            std::printf("stopped above the target of %d vertices: the others lie on a boundary "
                        "or cannot go without folding the surface\n",
                        target);
        return 0;
    }
    // The library keeps every removed vertex within the tolerance; the measure checks it.
    if (largest > amount * (1 + 1e-6) + 1e-12)
    {
        warning("a removed vertex lies %.6g from the result, beyond the tolerance %.6g (the "
                "reduction measured %.6g)",
                largest, amount, reported);
        return 3;
    }
    return 0;
}

} // namespace

// ---------------------------------------------------------------------------------------
// The commands

int runSubdivide(Args& args)
{
    const int levels = countOption(args, "--levels", 1, 10);
    return editFile(args, [levels](ObjModel& model) { return subdivideModel(model, levels); });
}

int runSmooth(Args& args)
{
    const bool laplacian = args.flag("--laplacian");
    const std::string sigmaText = args.option("--bilateral");
    const int iterations = countOption(args, "--iterations", 1, 100000);
    const bool bilateral = !sigmaText.empty();
    if (laplacian == bilateral)
        usageError("choose one filter: --laplacian or --bilateral SIGMA");
    double sigma = 0;
    if (bilateral && (!parseNumber(sigmaText, sigma) || !(sigma > 0)))
        usageError(format("--bilateral needs a positive length in mesh units (the neighbourhood's "
                          "radius), not '%s'",
                          sigmaText.c_str()));
    return editFile(args, [&](ObjModel& model)
                    { return smoothModel(model, bilateral, sigma, iterations); });
}

int runOrient(Args& args)
{
    const bool reverse = args.flag("--reverse");
    return editFile(args, [reverse](ObjModel& model) { return orientModel(model, reverse); });
}

int runRaycast(Args& args)
{
    const std::string from = args.option("--from");
    const std::string dir = args.option("--dir");
    const std::string raysPath = args.option("--rays");
    const std::string in = args.positional("mesh file");
    args.finish();
    Rays rays;
    if (!raysPath.empty())
    {
        if (!from.empty() || !dir.empty())
            usageError("give either --rays FILE or --from X,Y,Z --dir X,Y,Z");
    }
    else
    {
        if (from.empty() || dir.empty())
            usageError("give --from X,Y,Z and --dir X,Y,Z, or --rays FILE");
        const qyLinear::Vector o = parseTriple("--from", from);
        const qyLinear::Vector d = parseTriple("--dir", dir);
        const double length = d.length();
        if (!(length > 0) || !std::isfinite(length))
            usageError("--dir: the direction has no length");
        rays.origins = {float(o.x), float(o.y), float(o.z)};
        rays.directions = {d.x / length, d.y / length, d.z / length};
        rays.numbers = {1};
    }
    formatOf(in);
    ObjModel model;
    readModel(in, model);
    if (!raysPath.empty())
        readRays(raysPath, rays);
    ObjTriangles tris;
    triangulateObjModel(model, true, tris);
    if (tris.mesh.getNumTriangles() == 0)
        throw Failure(format("'%s' holds no triangle", in.c_str()));

    const qyGeom::RayTracer tracer(tris.mesh);
    requireNotCancelled();
    const int numRays = int(rays.numbers.size());
    std::vector<qyGeom::MeshRayHit> hits(static_cast<std::size_t>(numRays));
    // In batches, so that Ctrl-C is heard and the bar moves; nothing is printed until all
    // rays are cast.
    constexpr int batch = 1 << 16;
    ProgressBar bar;
    bar.setCaption("Casting rays");
    for (int first = 0; first < numRays; first += batch)
    {
        const int n = std::min(batch, numRays - first);
        qyGeom::meshRayIntersect(tracer, n, rays.origins.data() + 3 * std::ptrdiff_t(first),
                                 rays.directions.data() + 3 * std::ptrdiff_t(first),
                                 hits.data() + first);
        bar.set(double(first + n) / numRays);
        requireNotCancelled();
    }
    bar.finish();

    const qyGeom::MeshVertex* p = tris.mesh.getVertices();
    const int* t = tris.mesh.getTrianglesRaw();
    for (int r = 0; r < numRays; ++r)
    {
        const qyGeom::MeshRayHit& hit = hits[std::size_t(r)];
        if (hit.triangle < 0)
        {
            std::printf("%ld miss\n", rays.numbers[std::size_t(r)]);
            continue;
        }
        const float* o = rays.origins.data() + 3 * std::ptrdiff_t(r);
        const double* d = rays.directions.data() + 3 * std::ptrdiff_t(r);
        const int* c = t + 3 * std::ptrdiff_t(hit.triangle);
        const qyLinear::Vector normal = qyLinear::cross(p[c[1]].asPoint() - p[c[0]].asPoint(),
                                                        p[c[2]].asPoint() - p[c[0]].asPoint());
        const bool front = qyLinear::dot(normal, qyLinear::Vector(d[0], d[1], d[2])) < 0;
        std::printf("%ld hit %.9g %.9g %.9g %.9g %d %s\n", rays.numbers[std::size_t(r)], hit.t,
                    double(o[0]) + hit.t * d[0], double(o[1]) + hit.t * d[1],
                    double(o[2]) + hit.t * d[2], tris.faces[std::size_t(hit.triangle)] + 1,
                    front ? "front" : "back");
    }
    if (std::fflush(stdout) != 0 || std::ferror(stdout))
        throw Failure(format("cannot write the hits: %s", std::strerror(errno)));
    return 0;
}

int runReduce(Args& args)
{
    const std::string fraction = args.option("--fraction");
    const std::string tolerance = args.option("--tolerance");
    if (fraction.empty() == tolerance.empty())
        usageError("choose one target: --fraction F or --tolerance D");
    double amount = 0;
    if (!fraction.empty() && (!parseNumber(fraction, amount) || amount < 0 || amount > 1))
        usageError(format("--fraction needs the share of the vertices to keep, from 0 to 1, not "
                          "'%s'",
                          fraction.c_str()));
    if (!tolerance.empty() && (!parseNumber(tolerance, amount) || amount < 0))
        usageError(format("--tolerance needs a distance in mesh units, 0 or more, not '%s'",
                          tolerance.c_str()));
    const bool byFraction = !fraction.empty();
    return editFile(args, [byFraction, amount](ObjModel& model)
                    { return reduceModel(model, byFraction, amount); });
}

} // namespace qyCli
