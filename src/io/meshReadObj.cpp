#include "qyGeom/meshReadObj.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>

#include "base/Progress.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "io/ObjLineReader.h"
#include "io/objText.h"
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

/// Replaces `mesh` by `numVertices` vertices from `xyz` and the reader's faces, with corner
/// c on vertex cornerVertex[c]: a triangle list when every face is a triangle, otherwise
/// polygons.
void buildMesh(CompactMesh& mesh, int numVertices, const float* xyz, const ObjLineReader& r,
               const int* cornerVertex)
{
    CompactMesh built(numVertices, reinterpret_cast<const MeshVertex*>(xyz));
    const int nFaces = r.numFaces();
    const int nCorners = r.faceStart.back();
    if (nCorners == 3 * nFaces)
    {
        built.copyTriangles(nFaces, cornerVertex);
    }
    else
    {
        built.resizePolyArrays(nFaces, nCorners);
        int* lengths = built.getPolyLengths();
        for (int f = 0; f < nFaces; ++f)
            lengths[f] = r.faceSize(f);
        std::copy(cornerVertex, cornerVertex + nCorners, built.getPolyPoints());
    }
    mesh = std::move(built);
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
void sortFacesByMaterial(ObjLineReader& r)
{
    const int nFaces = r.numFaces();
    const int nMat = int(r.materialNames.size());
    if (nMat == 0 || r.faceMaterial.size() != std::size_t(nFaces))
        return;
    std::vector<int> bucketStart(std::size_t(nMat) + 2, 0);
    for (int f = 0; f < nFaces; ++f)
        bucketStart[std::size_t(r.faceMaterial[std::size_t(f)] + 2)] += r.faceSize(f);
    for (std::size_t k = 1; k < bucketStart.size(); ++k)
        bucketStart[k] += bucketStart[k - 1];
    qy::RawVector<int> pos(r.cornerPos.size()), tex(pos.size());
    std::vector<int> faceSizes(static_cast<std::size_t>(nFaces));
    qy::RawVector<int> material(faceSizes.size());
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

double since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

/// The read with subsets, after the parse (`parsed` tells whether it succeeded).
bool buildWithSubsets(ObjLineReader& r, bool parsed, double parseSeconds, CompactMesh& mesh,
                      qy::list<qy::Reference<MeshSubset>>& subsets,
                      qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs,
                      qy::vector<qyString::IString>* materialNames, qyOS::Filename* mtlFile,
                      const qyOS::Filename* file)
{
    qyOS::DebugChannel& dbg = debugChannel();
    dbg.print("Parse Obj File: %f s, v=%f s, n=%f s, uv=%f s\n", parseSeconds, r.timeV, r.timeN,
              r.timeT);
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
    if (r.faceStart.back() != 3 * nFaces)
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
        buildMesh(mesh, nPos, r.positions.data(), r, r.cornerPos.data());
        meshCompact(mesh, quiet);
        removeDuplicateTriangles(mesh);
        return true;
    }

    // Split each position by texture coordinate: the (position, texture) pairs in use,
    // ascending; the first pair of a position keeps its vertex, every further one becomes a
    // new vertex after the positions.
    const std::size_t nCorners = r.cornerPos.size();
    // A counting sort by position, then each position's texture indices sorted and made
    // unique in place: pairTex[pairStart[p] .. pairStart[p + 1]) are position p's.
    std::vector<int> pairStart(std::size_t(nPos) + 1, 0);
    for (std::size_t c = 0; c < nCorners; ++c)
        if (r.cornerTex[c] >= 0)
            ++pairStart[std::size_t(r.cornerPos[c]) + 1];
    for (std::size_t k = 1; k < pairStart.size(); ++k)
        pairStart[k] += pairStart[k - 1];
    std::vector<int> pairTex(std::size_t(pairStart.back()));
    {
        std::vector<int> fill(pairStart.begin(), pairStart.end() - 1);
        for (std::size_t c = 0; c < nCorners; ++c)
            if (r.cornerTex[c] >= 0)
                pairTex[std::size_t(fill[std::size_t(r.cornerPos[c])]++)] = r.cornerTex[c];
    }
    int numPairs = 0;
    for (int p = 0; p < nPos; ++p)
    {
        int* b = pairTex.data() + pairStart[std::size_t(p)];
        int* e = pairTex.data() + pairStart[std::size_t(p) + 1];
        if (e - b > 16)
            std::sort(b, e);
        else if (e - b > 1) // (b may be null when no corner has a texture index)
            for (int* i = b + 1; i < e; ++i)
                for (int* j = i; j > b && j[-1] > *j; --j)
                    std::swap(j[-1], *j);
        e = std::unique(b, e);
        pairStart[std::size_t(p)] = numPairs;
        numPairs = int(std::copy(b, e, pairTex.data() + numPairs) - pairTex.data());
    }
    pairStart[std::size_t(nPos)] = numPairs;
    pairTex.resize(std::size_t(numPairs));
    std::vector<int> pairVertex(pairTex.size());
    std::vector<int> splitSource; // new vertex - nPos -> source position
    std::vector<int> vertexTex(std::size_t(nPos), -1);
    for (int p = 0; p < nPos; ++p)
        for (int k = pairStart[std::size_t(p)]; k < pairStart[std::size_t(p) + 1]; ++k)
        {
            const int tex = pairTex[std::size_t(k)];
            if (k == pairStart[std::size_t(p)])
            {
                pairVertex[std::size_t(k)] = p;
                vertexTex[std::size_t(p)] = tex;
            }
            else
            {
                pairVertex[std::size_t(k)] = nPos + int(splitSource.size());
                splitSource.push_back(p);
                vertexTex.push_back(tex);
            }
        }
    const int splitCount = int(splitSource.size());

    if (splitCount > nPos && splitCount >= 101)
    {
        dbg.print("Texture coords deleted!\n");
        buildMesh(mesh, nPos, r.positions.data(), r, r.cornerPos.data());
        removeDuplicateTriangles(mesh);
        return true;
    }

    auto t0 = std::chrono::steady_clock::now();
    // The expanded mesh is a local one: the caller's mesh is replaced once, at the end. It
    // is written in place: the positions, the split copies after them, and every corner
    // re-pointed to the vertex of its (position, texture) pair.
    const int nVerts = nPos + splitCount;
    CompactMesh expanded;
    expanded.resizeVertexArray(nVerts);
    expanded.resizeTriangleArray(nFaces);
    {
        float* xyz = expanded.getVerticesRaw();
        std::copy(r.positions.begin(), r.positions.end(), xyz);
        for (int k = 0; k < splitCount; ++k)
            std::copy_n(r.positions.begin() + 3 * std::ptrdiff_t(splitSource[std::size_t(k)]), 3,
                        xyz + 3 * std::ptrdiff_t(nPos + k));
        int* cornerVertex = expanded.getTrianglesRaw();
        const int* cornerPos = r.cornerPos.data();
        const int* cornerTex = r.cornerTex.data();
        qyUtil::runChunks(qyUtil::ThreadPool::get(), int(nCorners),
                          [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
                          {
                              for (int c = begin; c < end; ++c)
                              {
                                  const int p = cornerPos[c], t = cornerTex[c];
                                  int v = p;
                                  if (t >= 0)
                                      for (int k = pairStart[std::size_t(p)];
                                           k < pairStart[std::size_t(p) + 1]; ++k)
                                          if (pairTex[std::size_t(k)] == t)
                                          {
                                              v = pairVertex[std::size_t(k)];
                                              break;
                                          }
                                  cornerVertex[c] = v;
                              }
                          });
    }
    dbg.print("Expand Compact Mesh For Determining Subsets: %f (sec)\n", since(t0));

    t0 = std::chrono::steady_clock::now();
    qy::Array<int> labels;
    const int nComponents = meshComponents(expanded, MeshAdjTris(), &labels);
    std::vector<qy::Reference<MeshSubset>> parts(static_cast<std::size_t>(nComponents));
    {
        // Each list is sized first, so that a chart of a million triangles is written once.
        std::vector<int> numVerts(parts.size(), 0), numTris(parts.size(), 0);
        for (int v = 0; v < nVerts; ++v)
            if (labels[std::size_t(v)] >= 0)
                ++numVerts[std::size_t(labels[std::size_t(v)])];
        const int* tris = expanded.getTrianglesRaw();
        for (int t = 0; t < nFaces; ++t)
            if (labels[std::size_t(tris[3 * t])] >= 0)
                ++numTris[std::size_t(labels[std::size_t(tris[3 * t])])];
        for (std::size_t k = 0; k < parts.size(); ++k)
        {
            parts[k] = qy::makeReference<MeshSubset>();
            objText::reserveHuge(parts[k]->vertices(), std::size_t(numVerts[k]));
            objText::reserveHuge(parts[k]->triangles(), std::size_t(numTris[k]));
        }
        for (int v = 0; v < nVerts; ++v)
            if (labels[std::size_t(v)] >= 0)
                parts[std::size_t(labels[std::size_t(v)])]->vertices().push_back(v);
        for (int t = 0; t < nFaces; ++t)
        {
            const int label = labels[std::size_t(tris[3 * t])];
            if (label >= 0)
                parts[std::size_t(label)]->triangles().push_back(t);
        }
    }
    for (const auto& s : parts)
    {
        qy::vector<qyLinear::Point2Flt> list;
        list.reserve(s->vertices().size());
        for (const int v : s->vertices())
        {
            const int t = vertexTex[std::size_t(v)];
            if (t < 0)
            {
                list.clear();
                break;
            }
            list.emplace_back(r.texCoords[2 * std::size_t(t)], r.texCoords[2 * std::size_t(t) + 1]);
        }
        uvs.push_back(std::move(list));
    }
    dbg.print("Determining Subsets: %f (sec)\n", since(t0));

    const bool anyMaterial =
        std::any_of(r.faceMaterial.begin(), r.faceMaterial.end(), [](int m) { return m >= 0; });
    if (anyMaterial && materialNames)
    {
        t0 = std::chrono::steady_clock::now();
        for (const auto& s : parts)
        {
            const int m =
                s->triangles().empty() ? -1 : r.faceMaterial[std::size_t(s->triangles()[0])];
            materialNames->push_back(m >= 0 ? r.materialNames[std::size_t(m)] : std::string());
        }
        dbg.print("Map Material To Subsets: %f (sec)\n", since(t0));
    }
    else
    {
        dbg.print("Warning: None of the faces have material assignment!\n");
    }

    if (splitCount != 0)
    {
        t0 = std::chrono::steady_clock::now();
        for (const auto& s : parts)
            for (int& v : s->vertices())
                if (v >= nPos)
                    v = splitSource[std::size_t(v - nPos)];
        // Back to one vertex per position: the copies sit after the positions, so cutting
        // the vertex array and re-pointing the triangles restores the mesh in place.
        expanded.resizeVertexArray(nPos);
        int* t = expanded.getTrianglesRaw();
        for (std::size_t c = 0; c < nCorners; ++c)
            if (t[c] >= nPos)
                t[c] = splitSource[std::size_t(t[c] - nPos)];
        dbg.print("Restore compact mesh to unexploded state: %f (sec)\n", since(t0));
    }
    mesh = std::move(expanded);
    subsets.assign(parts.begin(), parts.end());
    return true;
}

} // namespace

bool meshReadObj(CompactMesh& mesh, const qyOS::Filename& file)
{
    ObjLineReader r(false, false, true);
    return r.readFile(file.c_str()) && r.buildPlainMesh(mesh);
}

bool meshReadObj(CompactMesh& mesh, qy::list<qy::Reference<MeshSubset>>& subsets,
                 qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs,
                 qy::vector<qyString::IString>& materialNames, qyOS::Filename& mtlFile,
                 const qyOS::Filename& file)
{
    const auto t0 = std::chrono::steady_clock::now();
    ObjLineReader r(true, true, true);
    const bool parsed = r.readFile(file.c_str()) && r.finish();
    return buildWithSubsets(r, parsed, since(t0), mesh, subsets, uvs, &materialNames, &mtlFile,
                            &file);
}

bool meshReadObj(CompactMesh& mesh, qy::list<qy::Reference<MeshSubset>>& subsets,
                 qy::vector<qy::vector<qyLinear::Point2Flt>>& uvs, const char* data,
                 unsigned int length)
{
    const auto t0 = std::chrono::steady_clock::now();
    ObjLineReader r(true, false, true);
    const bool parsed = r.readMemory(data, length) && r.finish();
    return buildWithSubsets(r, parsed, since(t0), mesh, subsets, uvs, nullptr, nullptr, nullptr);
}

} // namespace qyGeom

namespace qyGeom
{

bool meshReadObj(TopoMesh& mesh, const qyOS::Filename& file)
{
    return meshReadObj(mesh, file, true);
}

bool meshReadObj(TopoMesh& mesh, const qyOS::Filename& file, bool allowNonManifold)
{
    ObjLineReader r(false, false, allowNonManifold);
    mesh.clear();
    if (!r.readFile(file.c_str()) || !r.finish())
        return false;
    const int nPos = r.numPositions(), nFaces = r.numFaces();
    if (nPos == 0 || nFaces == 0)
        return false;
    mesh.reserve(nPos, r.faceStart.back(), nFaces);
    const float* xyz = r.positions.data();
    for (int v = 0; v < nPos; ++v)
        mesh.allocVertex(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]);
    for (int f = 0; f < nFaces; ++f)
        mesh.allocFace(r.faceSize(f), r.cornerPos.data() + r.faceStart[std::size_t(f)]);
    mesh.meshTwin();
    mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
    return true;
}

} // namespace qyGeom
