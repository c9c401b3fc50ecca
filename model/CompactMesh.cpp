// CompactMesh.
#include "model/CompactMesh.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <utility>

#include "model/MeshModification.h"
#include "model/Remap.h"

namespace qyGeom
{
namespace
{

// New index of vertex v, or -1 when v is removed or outside the map's domain.
inline int mapIndex(const Remap& remap, int v)
{
    return (v >= 0 && v < remap.getDomainSize()) ? remap(v) : -1;
}

// Renumbers runs of vertex indices (strips, fans, line strips, polygons) in place; a run
// that names a removed vertex is dropped as a whole, the others keep their order.
void remapRuns(MeshArray& lengthsArray, MeshArray& pointsArray, const Remap& remap)
{
    int* lengths = lengthsArray.as<int>();
    int* points = pointsArray.as<int>();
    const int numRuns = lengthsArray.size(), numPoints = pointsArray.size();
    int readPos = 0, writePos = 0, keptRuns = 0;
    for (int r = 0; r < numRuns; ++r)
    {
        const int len = std::clamp(lengths[r], 0, numPoints - readPos);
        bool keep = true;
        for (int k = 0; k < len; ++k)
            keep = keep && mapIndex(remap, points[readPos + k]) >= 0;
        if (keep)
        {
            for (int k = 0; k < len; ++k)
                points[writePos + k] = mapIndex(remap, points[readPos + k]);
            writePos += len;
            lengths[keptRuns++] = len;
        }
        readPos += len;
    }
    lengthsArray.resize(keptRuns);
    pointsArray.resize(writePos);
}

void remapLines(MeshArray& linesArray, const Remap& remap)
{
    MeshLine* lines = linesArray.as<MeshLine>();
    int kept = 0;
    for (int i = 0; i < linesArray.size(); ++i)
    {
        const int a = mapIndex(remap, lines[i][0]), b = mapIndex(remap, lines[i][1]);
        if (a >= 0 && b >= 0)
            lines[kept++] = MeshLine{{a, b}};
    }
    linesArray.resize(kept);
}

} // namespace

CompactMesh::CompactMesh() = default;

CompactMesh::CompactMesh(int n, const MeshVertex* vertices, const MeshNormal* normals,
                         const MeshUV* uvs, const MeshColour* colours)
    : PointMesh(n, vertices, normals, uvs, colours)
{
}

CompactMesh::CompactMesh(const CompactMesh& other) = default;

CompactMesh::CompactMesh(CompactMesh&& other) noexcept : CompactMesh()
{
    swapVertexData(other);
    swapFaceData(other);
    other.notifyReplaced(); // it is empty now
}

CompactMesh& CompactMesh::operator=(const CompactMesh& other)
{
    if (this != &other)
    {
        CompactMesh copy(other);
        copy.setArrayAllocator(getArrayAllocator()); // the target keeps its own allocator
        swapVertexData(copy);
        swapFaceData(copy);
        notifyReplaced();
    }
    return *this;
}

CompactMesh& CompactMesh::operator=(CompactMesh&& other) noexcept
{
    if (this != &other)
    {
        CompactMesh taken(std::move(other));
        swapVertexData(taken);
        swapFaceData(taken);
        notifyReplaced();
    }
    return *this;
}

CompactMesh::~CompactMesh() = default;

void CompactMesh::swap(CompactMesh& other) noexcept
{
    if (this == &other)
        return;
    swapVertexData(other);
    swapFaceData(other);
    notifyReplaced();
    other.notifyReplaced();
}

void CompactMesh::swapFaceData(CompactMesh& other) noexcept
{
    m_triangles.swap(other.m_triangles);
    m_triangleNormals.swap(other.m_triangleNormals);
    std::swap(m_hasTriangleNormals, other.m_hasTriangleNormals);
    for (auto [mine, theirs] :
         {std::pair{&m_strips, &other.m_strips}, std::pair{&m_fans, &other.m_fans},
          std::pair{&m_lineStrips, &other.m_lineStrips}, std::pair{&m_polys, &other.m_polys}})
    {
        mine->lengths.swap(theirs->lengths);
        mine->points.swap(theirs->points);
    }
    m_lines.swap(other.m_lines);
    std::swap(m_selectedTriangles, other.m_selectedTriangles);
}

std::vector<MeshArray*> CompactMesh::faceArrays()
{
    return {&m_triangles,         &m_triangleNormals, &m_strips.lengths, &m_strips.points,
            &m_fans.lengths,      &m_fans.points,     &m_lines,          &m_lineStrips.lengths,
            &m_lineStrips.points, &m_polys.lengths,   &m_polys.points};
}

std::vector<const MeshArray*> CompactMesh::faceArrays() const
{
    std::vector<MeshArray*> a = const_cast<CompactMesh*>(this)->faceArrays();
    return {a.begin(), a.end()};
}

void CompactMesh::resizeTriangleArray(int n)
{
    n = std::max(n, 0);
    m_triangles.resize(n);
    if (m_hasTriangleNormals)
        m_triangleNormals.resize(n);
    if (n > m_selectedTriangles.size())
        m_selectedTriangles.resize(n);
}

void CompactMesh::copyTriangles(int n, const int* indices)
{
    n = std::max(n, 0);
    m_triangles.assign(n, indices);
    if (m_hasTriangleNormals)
        m_triangleNormals.resize(n);
    if (n > m_selectedTriangles.size())
        m_selectedTriangles.resize(n);
}

void CompactMesh::adoptVerticesAndTriangles(MeshArray& vertices, MeshArray& triangles)
{
    assert(vertices.getElementSize() == sizeof(MeshVertex));
    assert(triangles.getElementSize() == sizeof(MeshTriangle));
    // The positions are attribute array 0; the others follow its count.
    getAttributes(0)->storage() = std::move(vertices);
    const int numVertices = getNumVertices();
    for (int i = 1; i < getNumAttributes(); ++i)
        getAttributes(i)->resize(numVertices);
    if (numVertices > getSelectedVertices().size())
        getSelectedVertices().resize(numVertices);
    m_triangles = std::move(triangles);
    const int n = getNumTriangles();
    if (m_hasTriangleNormals)
        m_triangleNormals.resize(n);
    if (n > m_selectedTriangles.size())
        m_selectedTriangles.resize(n);
}

MeshNormal* CompactMesh::getTriangleNormals()
{
    return m_hasTriangleNormals ? m_triangleNormals.as<MeshNormal>() : nullptr;
}

const MeshNormal* CompactMesh::getTriangleNormals() const
{
    return m_hasTriangleNormals ? m_triangleNormals.as<MeshNormal>() : nullptr;
}

void CompactMesh::allocTriangleNormalArray()
{
    if (m_hasTriangleNormals)
        return;
    m_triangleNormals.resize(getNumTriangles());
    m_hasTriangleNormals = true;
}

void CompactMesh::deleteTriangleNormals()
{
    m_triangleNormals.clear();
    m_hasTriangleNormals = false;
}

void CompactMesh::resizeTriStripArrays(int numPoints, int numStrips)
{
    m_strips.points.resize(numPoints);
    m_strips.lengths.resize(numStrips);
}

void CompactMesh::resizeTriFanArrays(int numPoints, int numFans)
{
    m_fans.points.resize(numPoints);
    m_fans.lengths.resize(numFans);
}

void CompactMesh::resizeLineArray(int n)
{
    m_lines.resize(n);
}

void CompactMesh::resizeLineStripArrays(int numPoints, int numStrips)
{
    m_lineStrips.points.resize(numPoints);
    m_lineStrips.lengths.resize(numStrips);
}

void CompactMesh::buildLineStripStarts() const
{
    const int n = getNumLineStrips(), numPoints = getNumLineStripPoints();
    const int* lengths = getLineStripLengths();
    int* points = const_cast<int*>(getLineStripPoints());
    m_lineStripStarts.resize(std::size_t(n));
    int pos = 0;
    for (int i = 0; i < n; ++i)
    {
        m_lineStripStarts[std::size_t(i)] = points + pos;
        pos = std::min(numPoints, pos + std::max(lengths[i], 0));
    }
}

int* const* CompactMesh::getLineStripStarts()
{
    buildLineStripStarts();
    return m_lineStripStarts.data();
}

const int* const* CompactMesh::getLineStripStarts() const
{
    buildLineStripStarts();
    return m_lineStripStarts.data();
}

void CompactMesh::resizePolyArrays(int numPolys, int numPoints)
{
    m_polys.lengths.resize(numPolys);
    m_polys.points.resize(numPoints);
}

void CompactMesh::clearSelection()
{
    getSelectedVertices().clearBits();
    m_selectedTriangles.clearBits();
}

void CompactMesh::applyModification(const MeshModification& mod)
{
    using M = MeshModification;
    PointMesh::applyModification(mod);

    const bool moved = mod.getType() == M::PositionsChanged || mod.getType() == M::Remapped;
    if (m_hasTriangleNormals && moved && !mod.has(M::TriangleNormalsModified) &&
        !mod.has(M::TriangleNormalsValid))
        deleteTriangleNormals();

    const Remap* vertexRemap = mod.getVertexRemap();
    if (vertexRemap && !vertexRemap->isSequential())
    {
        if (!mod.has(M::StripsAndFansModified))
        {
            remapRuns(m_strips.lengths, m_strips.points, *vertexRemap);
            remapRuns(m_fans.lengths, m_fans.points, *vertexRemap);
        }
        if (!mod.has(M::LinesModified))
            remapLines(m_lines, *vertexRemap);
        if (!mod.has(M::LineStripsModified))
            remapRuns(m_lineStrips.lengths, m_lineStrips.points, *vertexRemap);
        if (!mod.has(M::PolysModified))
            remapRuns(m_polys.lengths, m_polys.points, *vertexRemap);
    }

    if (const Remap* triangleRemap = mod.getTriangleRemap())
        remapBits(m_selectedTriangles, *triangleRemap, getNumTriangles());
    else if (m_selectedTriangles.size() != getNumTriangles())
        m_selectedTriangles.resize(getNumTriangles());
}

int CompactMesh::getSizeInBytes() const
{
    std::size_t bytes = std::size_t(PointMesh::getSizeInBytes()) + sizeof(*this) -
                        sizeof(PointMesh) +
                        sizeof(BitVector::Word) * std::size_t(m_selectedTriangles.getNumWords());
    for (const MeshArray* a : faceArrays())
        bytes += a->getSizeInBytes();
    return int(std::min<std::size_t>(bytes, INT_MAX));
}

void CompactMesh::setArrayAllocator(qy::Reference<ArrayAllocator> allocator)
{
    PointMesh::setArrayAllocator(allocator);
    for (MeshArray* a : faceArrays())
        a->setAllocator(getArrayAllocator());
}

} // namespace qyGeom
