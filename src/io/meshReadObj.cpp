#include "qyGeom/meshReadObj.h"

#include <algorithm>

#include "base/Progress.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "io/ObjLineReader.h"
#include "io/detail/text.h"
#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/MeshSubset.h"
#include "model/Remap.h"
#include "model/TopoMesh.h"
#include "model/debugChannel.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/meshCompact.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/meshDuplicateTris.h"
#include "qyGeom/meshTopology.h"

namespace qyGeom
{

MeshObjGroup::~MeshObjGroup() = default;
MeshObjFile::~MeshObjFile() = default;

void MeshObjGroup::addFace(int n, const MeshObjCorner* corners)
{
    m_corners.insert(m_corners.end(), corners, corners + n);
    m_faceStarts.push_back(int(m_corners.size()));
}

void MeshObjGroup::reserve(int numFaces, int numCorners)
{
    m_faceStarts.reserve(std::size_t(std::max(numFaces, 0)) + 1);
    m_corners.reserve(std::size_t(std::max(numCorners, 0)));
}

namespace
{

/// Replaces `mesh` by `numVertices` vertices from `xyz` and the faces, with corner c on
/// vertex cornerVertex[c]: a triangle list when every face is a triangle, otherwise polygons.
void buildMesh(CompactMesh& mesh, int numVertices, const float* xyz, const ObjFaces& faces,
               const int* cornerVertex)
{
    CompactMesh built(numVertices, reinterpret_cast<const MeshVertex*>(xyz));
    const int nFaces = faces.numFaces();
    const int nCorners = faces.numCorners();
    if (nCorners == 3 * nFaces)
    {
        built.copyTriangles(nFaces, cornerVertex);
    }
    else
    {
        built.resizePolyArrays(nFaces, nCorners);
        int* lengths = built.getPolyLengths();
        for (int f = 0; f < nFaces; ++f)
            lengths[f] = faces.faceSize(f);
        std::copy(cornerVertex, cornerVertex + nCorners, built.getPolyPoints());
    }
    mesh = std::move(built);
}

/// Replaces `mesh` by one vertex per position and the faces as they are, as buildMesh does.
/// A triangle list takes the position and corner arrays over without a copy (a float triple
/// is a MeshVertex, an int triple a MeshTriangle); `faces` is left without them then.
void buildMeshFromFaces(CompactMesh& mesh, ObjFaces& faces)
{
    if (faces.numCorners() != 3 * faces.numFaces())
    {
        buildMesh(mesh, faces.numPositions(), faces.positions.data(), faces,
                  faces.cornerPos.data());
        return;
    }
    MeshArray vertices(sizeof(MeshVertex)), triangles(sizeof(MeshTriangle));
    faces.positions.moveInto(vertices);
    faces.cornerPos.moveInto(triangles);
    CompactMesh built;
    built.adoptVerticesAndTriangles(vertices, triangles);
    mesh = std::move(built);
}

/// The mesh of the plain read: one vertex per position, the faces as they are. False when
/// there is no position or no face.
bool buildPlainMesh(ObjFaces&& faces, CompactMesh& mesh)
{
    if (faces.numPositions() == 0 || faces.numFaces() == 0)
        return false;
    buildMeshFromFaces(mesh, faces);
    return true;
}

/// True when every undirected edge is used by two faces at most and every directed edge by
/// one: a manifold, consistently oriented mesh. A corner repeated in place (an edge from a vertex
/// to itself) counts as a directed edge too, so two of them at one vertex fail.
bool edgesManifold(const ObjFaces& faces)
{
    const int nFaces = faces.numFaces();
    const int* corner = faces.cornerPos.data();
    const int* start = faces.faceStart.data();
    MeshEdges edges;
    polygonEdges(faces.numPositions(), nFaces, start, corner, edges);
    if (edges.numNonManifold() > 0)
        return false;
    // Two uses of one edge must run in opposite directions.
    for (int e = 0; e < edges.size(); ++e)
        if (edges.numUses(e) == 2 && corner[edges.uses(e)[0]] == corner[edges.uses(e)[1]])
            return false;
    std::vector<int> loops;
    for (int f = 0; f < nFaces; ++f)
        for (int c = start[f], e = start[f + 1]; c < e; ++c)
            if (corner[c] == corner[c + 1 < e ? c + 1 : start[f]])
                loops.push_back(corner[c]);
    std::sort(loops.begin(), loops.end());
    return std::adjacent_find(loops.begin(), loops.end()) == loops.end();
}

/// Removes duplicate and degenerate triangles, with the adjacency taken from a cache.
void removeDuplicateTriangles(CompactMesh& mesh)
{
    SimpleMeshCache cache;
    const qy::Reference<MeshAdjTris> adj = cache.getAdjTris(mesh);
    if (meshDuplicateTris(mesh, *adj))
        meshRemoveDuplicateTris(mesh);
}

/// Stable reorder of the faces by material, in the order of first use (faces without a
/// material first).
void sortFacesByMaterial(ObjFaces& r)
{
    const int nFaces = r.numFaces();
    const int nMat = int(r.materialNames.size());
    if (nMat == 0 || r.faceMaterial.size() != std::size_t(nFaces))
        return;
    r.makeFaceStarts();
    std::vector<int> bucketStart(std::size_t(nMat) + 2, 0);
    for (int f = 0; f < nFaces; ++f)
        bucketStart[std::size_t(r.faceMaterial[std::size_t(f)] + 2)] += r.faceSize(f);
    for (std::size_t k = 1; k < bucketStart.size(); ++k)
        bucketStart[k] += bucketStart[k - 1];
    GrowArray<int> pos, tex, material;
    pos.resize(r.cornerPos.size());
    tex.resize(pos.size());
    std::vector<int> faceSizes(static_cast<std::size_t>(nFaces));
    material.resize(faceSizes.size());
    std::vector<int> faceCount(std::size_t(nMat) + 2, 0);
    for (int f = 0; f < nFaces; ++f)
        ++faceCount[std::size_t(r.faceMaterial[std::size_t(f)] + 2)];
    for (std::size_t k = 1; k < faceCount.size(); ++k)
        faceCount[k] += faceCount[k - 1];
    for (int f = 0; f < nFaces; ++f)
    {
        const std::size_t bucket = std::size_t(r.faceMaterial[std::size_t(f)] + 1);
        const int b = r.faceStart[std::size_t(f)], n = r.faceSize(f);
        int& dst = bucketStart[bucket];
        std::copy_n(r.cornerPos.begin() + b, n, pos.begin() + dst);
        std::copy_n(r.cornerTex.begin() + b, n, tex.begin() + dst);
        dst += n;
        const int slot = faceCount[bucket]++;
        faceSizes[std::size_t(slot)] = n;
        material[std::size_t(slot)] = r.faceMaterial[std::size_t(f)];
    }
    r.cornerPos.swap(pos);
    r.cornerTex.swap(tex);
    r.faceMaterial.swap(material);
    for (int f = 0; f < nFaces; ++f)
        r.faceStart[std::size_t(f) + 1] = r.faceStart[std::size_t(f)] + faceSizes[std::size_t(f)];
}

/// Each position split by texture coordinate: the (position, texture) pairs in use,
/// ascending; the first pair of a position keeps its vertex, every further one becomes a new
/// vertex after the positions.
struct TextureSplit
{
    std::vector<int> pairStart;   ///< position p's pairs are [pairStart[p], pairStart[p + 1])
    std::vector<int> pairTex;     ///< the texture index of each pair
    std::vector<int> pairVertex;  ///< the vertex of each pair
    std::vector<int> splitSource; ///< new vertex - numPositions -> its position
    std::vector<int> vertexTex;   ///< vertex -> texture index, -1 for none
    int numSplit() const { return int(splitSource.size()); }
};

TextureSplit splitByTexture(const ObjFaces& r)
{
    const int nPos = r.numPositions();
    const std::size_t nCorners = r.cornerPos.size();
    TextureSplit s;
    // A counting sort by position, then each position's texture indices sorted and made
    // unique in place.
    s.pairStart.assign(std::size_t(nPos) + 1, 0);
    for (std::size_t c = 0; c < nCorners; ++c)
        if (r.cornerTex[c] >= 0)
            ++s.pairStart[std::size_t(r.cornerPos[c]) + 1];
    for (std::size_t k = 1; k < s.pairStart.size(); ++k)
        s.pairStart[k] += s.pairStart[k - 1];
    s.pairTex.resize(std::size_t(s.pairStart.back()));
    {
        std::vector<int> fill(s.pairStart.begin(), s.pairStart.end() - 1);
        for (std::size_t c = 0; c < nCorners; ++c)
            if (r.cornerTex[c] >= 0)
                s.pairTex[std::size_t(fill[std::size_t(r.cornerPos[c])]++)] = r.cornerTex[c];
    }
    int numPairs = 0;
    for (int p = 0; p < nPos; ++p)
    {
        int* b = s.pairTex.data() + s.pairStart[std::size_t(p)];
        int* e = s.pairTex.data() + s.pairStart[std::size_t(p) + 1];
        if (e - b > 16)
            std::sort(b, e);
        else if (e - b > 1) // (b may be null when no corner has a texture index)
            for (int* i = b + 1; i < e; ++i)
                for (int* j = i; j > b && j[-1] > *j; --j)
                    std::swap(j[-1], *j);
        e = std::unique(b, e);
        s.pairStart[std::size_t(p)] = numPairs;
        numPairs = int(std::copy(b, e, s.pairTex.data() + numPairs) - s.pairTex.data());
    }
    s.pairStart[std::size_t(nPos)] = numPairs;
    s.pairTex.resize(std::size_t(numPairs));
    s.pairVertex.resize(s.pairTex.size());
    s.vertexTex.assign(std::size_t(nPos), -1);
    for (int p = 0; p < nPos; ++p)
        for (int k = s.pairStart[std::size_t(p)]; k < s.pairStart[std::size_t(p) + 1]; ++k)
        {
            const int tex = s.pairTex[std::size_t(k)];
            if (k == s.pairStart[std::size_t(p)])
            {
                s.pairVertex[std::size_t(k)] = p;
                s.vertexTex[std::size_t(p)] = tex;
            }
            else
            {
                s.pairVertex[std::size_t(k)] = nPos + s.numSplit();
                s.splitSource.push_back(p);
                s.vertexTex.push_back(tex);
            }
        }
    return s;
}

/// The triangle mesh with the split vertices: the positions, the split copies after them,
/// and every corner re-pointed to the vertex of its (position, texture) pair.
CompactMesh expandBySplit(const ObjFaces& r, const TextureSplit& s)
{
    const int nPos = r.numPositions();
    CompactMesh expanded;
    expanded.resizeVertexArray(nPos + s.numSplit());
    expanded.resizeTriangleArray(r.numFaces());
    float* xyz = expanded.getVerticesRaw();
    std::copy(r.positions.begin(), r.positions.end(), xyz);
    for (int k = 0; k < s.numSplit(); ++k)
        std::copy_n(r.positions.begin() + 3 * std::ptrdiff_t(s.splitSource[std::size_t(k)]), 3,
                    xyz + 3 * std::ptrdiff_t(nPos + k));
    int* cornerVertex = expanded.getTrianglesRaw();
    const int* cornerPos = r.cornerPos.data();
    const int* cornerTex = r.cornerTex.data();
    qyUtil::runChunks(qyUtil::ThreadPool::get(), r.numCorners(),
                      [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
                      {
                          for (int c = begin; c < end; ++c)
                          {
                              const int p = cornerPos[c], t = cornerTex[c];
                              int v = p;
                              if (t >= 0)
                                  for (int k = s.pairStart[std::size_t(p)];
                                       k < s.pairStart[std::size_t(p) + 1]; ++k)
                                      if (s.pairTex[std::size_t(k)] == t)
                                      {
                                          v = s.pairVertex[std::size_t(k)];
                                          break;
                                      }
                              cornerVertex[c] = v;
                          }
                      });
    return expanded;
}

/// One subset per connected component of the expanded mesh (a texture chart): its vertices
/// and the triangles whose vertices lie in it; with one UV list per subset, empty when a
/// vertex of the subset has no texture coordinate.
std::vector<qy::Reference<MeshSubset>>
chartsFromComponents(const CompactMesh& expanded, const ObjFaces& r, const TextureSplit& s,
                     qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs)
{
    const int nVerts = expanded.getNumVertices(), nFaces = expanded.getNumTriangles();
    qy::Array<int> labels;
    const int nComponents = meshComponents(expanded, MeshAdjTris(), &labels);
    std::vector<qy::Reference<MeshSubset>> charts(static_cast<std::size_t>(nComponents));
    // Each list is sized first, so that a chart of a million triangles is written once.
    std::vector<int> numVerts(charts.size(), 0), numTris(charts.size(), 0);
    for (int v = 0; v < nVerts; ++v)
        if (labels[std::size_t(v)] >= 0)
            ++numVerts[std::size_t(labels[std::size_t(v)])];
    const int* tris = expanded.getTrianglesRaw();
    for (int t = 0; t < nFaces; ++t)
        if (labels[std::size_t(tris[3 * t])] >= 0)
            ++numTris[std::size_t(labels[std::size_t(tris[3 * t])])];
    for (std::size_t k = 0; k < charts.size(); ++k)
    {
        charts[k] = qy::makeReference<MeshSubset>();
        detail::reserveHuge(charts[k]->vertices(), std::size_t(numVerts[k]));
        detail::reserveHuge(charts[k]->triangles(), std::size_t(numTris[k]));
    }
    for (int v = 0; v < nVerts; ++v)
        if (labels[std::size_t(v)] >= 0)
            charts[std::size_t(labels[std::size_t(v)])]->vertices().push_back(v);
    for (int t = 0; t < nFaces; ++t)
    {
        const int label = labels[std::size_t(tris[3 * t])];
        if (label >= 0)
            charts[std::size_t(label)]->triangles().push_back(t);
    }
    for (const auto& chart : charts)
    {
        qy::vector<qyLinear::Point2Flt> list;
        list.reserve(chart->vertices().size());
        for (const int v : chart->vertices())
        {
            const int t = s.vertexTex[std::size_t(v)];
            if (t < 0)
            {
                list.clear();
                break;
            }
            list.emplace_back(r.texCoords[2 * std::size_t(t)], r.texCoords[2 * std::size_t(t) + 1]);
        }
        uvs.push_back(std::move(list));
    }
    return charts;
}

/// The material of each chart: that of its first triangle ("" for none).
void materialPerChart(const std::vector<qy::Reference<MeshSubset>>& charts, const ObjFaces& r,
                      qy::vector<qyString::IString>& materialNames)
{
    for (const auto& chart : charts)
    {
        const int m =
            chart->triangles().empty() ? -1 : r.faceMaterial[std::size_t(chart->triangles()[0])];
        materialNames.push_back(m >= 0 ? r.materialNames[std::size_t(m)] : std::string());
    }
}

/// Back to one vertex per position: the charts and the triangles re-pointed from the split
/// copies to their positions. The copies sit after the positions, so cutting the vertex
/// array restores the mesh in place.
void restorePositions(CompactMesh& expanded, const std::vector<qy::Reference<MeshSubset>>& charts,
                      const TextureSplit& s, int numPositions)
{
    for (const auto& chart : charts)
        for (int& v : chart->vertices())
            if (v >= numPositions)
                v = s.splitSource[std::size_t(v - numPositions)];
    expanded.resizeVertexArray(numPositions);
    int* t = expanded.getTrianglesRaw();
    for (std::size_t c = 0, n = 3 * std::size_t(expanded.getNumTriangles()); c < n; ++c)
        if (t[c] >= numPositions)
            t[c] = s.splitSource[std::size_t(t[c] - numPositions)];
}

/// The read with subsets, after the parse (`parsed` tells whether it succeeded).
bool buildWithSubsets(ObjFaces& r, bool parsed, double parseSeconds, CompactMesh& mesh,
                      qy::list<qy::Reference<MeshSubset>>& subsets,
                      qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs,
                      qy::vector<qyString::IString>* materialNames, qyOS::Filename* mtlFile,
                      const qyOS::Filename* file)
{
    qyOS::DebugChannel& dbg = debugChannel();
    dbg.print("Parse Obj File: %f s, v=%f s, n=%f s, uv=%f s\n", parseSeconds, r.secondsV,
              r.secondsN, r.secondsT);
    subsets.clear();
    uvs.clear();
    if (materialNames)
        materialNames->clear();
    if (!parsed)
        return false;
    const int nPos = r.numPositions();
    const int nFaces = r.numFaces();
    if (nPos == 0 || nFaces == 0)
    {
        dbg.print("Error: %d vertex, %d face descriptions found.. is Obj file valid?\n", nPos,
                  nFaces);
        return false;
    }
    sortFacesByMaterial(r);
    if (r.numCorners() != 3 * nFaces)
    {
        dbg.print("Error: Non-triangular face found - not handled!\n");
        return false;
    }
    if (mtlFile)
        *mtlFile = r.mtllib.empty() ? qyOS::Filename()
                                    : qyOS::Filename::join(file->getDirectory(), r.mtllib);

    qyUtil::Progress quiet;
    if (r.numTexCoords() == 0)
    {
        dbg.print("no texture coords found!  Doing the simple thing.\n");
        buildMeshFromFaces(mesh, r);
        meshCompact(mesh, quiet);
        removeDuplicateTriangles(mesh);
        return true;
    }

    const TextureSplit split = splitByTexture(r);
    if (split.numSplit() > nPos && split.numSplit() >= 101)
    {
        dbg.print("Texture coords deleted!\n");
        buildMeshFromFaces(mesh, r);
        removeDuplicateTriangles(mesh);
        return true;
    }

    // The expanded mesh is a local one: the caller's mesh is replaced once, at the end.
    qyOS::StopWatch watch;
    watch.start();
    CompactMesh expanded = expandBySplit(r, split);
    dbg.print("Expand Compact Mesh For Determining Subsets: %f (sec)\n", watch.clear());

    const std::vector<qy::Reference<MeshSubset>> charts =
        chartsFromComponents(expanded, r, split, uvs);
    dbg.print("Determining Subsets: %f (sec)\n", watch.clear());

    const bool anyMaterial =
        std::any_of(r.faceMaterial.begin(), r.faceMaterial.end(), [](int m) { return m >= 0; });
    if (anyMaterial && materialNames)
    {
        watch.clear();
        materialPerChart(charts, r, *materialNames);
        dbg.print("Map Material To Subsets: %f (sec)\n", watch.clear());
    }
    else
    {
        dbg.print("Warning: None of the faces have material assignment!\n");
    }

    if (split.numSplit() != 0)
    {
        watch.clear();
        restorePositions(expanded, charts, split, nPos);
        dbg.print("Restore compact mesh to unexploded state: %f (sec)\n", watch.clear());
    }
    mesh = std::move(expanded);
    subsets.assign(charts.begin(), charts.end());
    return true;
}

} // namespace

bool meshReadObj(CompactMesh& mesh, const qyOS::Filename& file)
{
    ObjLineReader reader(false, false);
    return reader.readFile(file.c_str()) && buildPlainMesh(reader.finish(), mesh);
}

bool meshReadObj(CompactMesh& mesh, qy::list<qy::Reference<MeshSubset>>& subsets,
                 qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs,
                 qy::vector<qyString::IString>& materialNames, qyOS::Filename& mtlFile,
                 const qyOS::Filename& file)
{
    qyOS::StopWatch watch;
    watch.start();
    ObjLineReader reader(true, true);
    const bool read = reader.readFile(file.c_str());
    ObjFaces faces = reader.finish();
    return buildWithSubsets(faces, read, watch.stop(), mesh, subsets, uvs, &materialNames, &mtlFile,
                            &file);
}

bool meshReadObj(CompactMesh& mesh, qy::list<qy::Reference<MeshSubset>>& subsets,
                 qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs, const char* data,
                 unsigned int length)
{
    qyOS::StopWatch watch;
    watch.start();
    ObjLineReader reader(true, false);
    const bool read = reader.readMemory(data, length);
    ObjFaces faces = reader.finish();
    return buildWithSubsets(faces, read, watch.stop(), mesh, subsets, uvs, nullptr, nullptr,
                            nullptr);
}

bool meshReadObj(TopoMesh& mesh, const qyOS::Filename& file)
{
    return meshReadObj(mesh, file, true);
}

bool meshReadObj(TopoMesh& mesh, const qyOS::Filename& file, bool allowNonManifold)
{
    ObjLineReader reader(false, false);
    mesh.clear();
    if (!reader.readFile(file.c_str()))
        return false;
    ObjFaces faces = reader.finish();
    faces.makeFaceStarts();
    if (!allowNonManifold && !edgesManifold(faces))
        return false;
    const int nPos = faces.numPositions(), nFaces = faces.numFaces();
    if (nPos == 0 || nFaces == 0)
        return false;
    mesh.reserve(nPos, faces.numCorners(), nFaces);
    const float* xyz = faces.positions.data();
    for (int v = 0; v < nPos; ++v)
        mesh.allocVertex(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]);
    for (int f = 0; f < nFaces; ++f)
        mesh.allocFace(faces.faceSize(f), faces.cornerPos.data() + faces.faceStart[std::size_t(f)]);
    mesh.meshTwin();
    mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
    return true;
}

} // namespace qyGeom
