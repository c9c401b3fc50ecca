// Accessors and memory accounting of the adjacency structures; the builders live in
// src/core/meshAdjacency.cpp and src/core/meshBoundary.cpp.
#include "model/MeshAdjacency.h"

#include <utility>

namespace qyGeom
{
namespace
{

std::size_t setsBytes(const ArrayOfSets& sets)
{
    const std::size_t offsets = sets.getNumSets() ? std::size_t(sets.getNumSets()) + 1 : 0;
    return sizeof(int) * (offsets + std::size_t(sets.getTotalSize()));
}

int copySet(const ArrayOfSets& sets, int i, std::vector<int>& out)
{
    const int* set = sets.getSet(i);
    out.assign(set, set + sets.getSetSize(i));
    return int(out.size());
}

} // namespace

MeshAdjTris::MeshAdjTris(ArrayOfSets&& sets) : m_sets(std::move(sets)) {}

MeshAdjTris::~MeshAdjTris() = default;

int MeshAdjTris::copyTriangles(int v, std::vector<int>& out) const
{
    return copySet(m_sets, v, out);
}

std::size_t MeshAdjTris::getSizeInBytes() const
{
    return sizeof(*this) + setsBytes(m_sets);
}

MeshAdjVertices::MeshAdjVertices(int numVertices, int maxValence, std::vector<int>&& starts,
                                 std::vector<int>&& data)
    : m_starts(std::move(starts)), m_data(std::move(data)), m_numVertices(numVertices),
      m_maxValence(maxValence)
{
}

MeshAdjVertices::~MeshAdjVertices() = default;

void MeshAdjVertices::swap(MeshAdjVertices& other) noexcept
{
    m_starts.swap(other.m_starts);
    m_data.swap(other.m_data);
    std::swap(m_numVertices, other.m_numVertices);
    std::swap(m_maxValence, other.m_maxValence);
}

std::size_t MeshAdjVertices::getSizeInBytes() const
{
    return sizeof(*this) + sizeof(int) * (m_starts.capacity() + m_data.capacity());
}

MeshTriAdjTris::MeshTriAdjTris(ArrayOfSets&& sets) : m_sets(std::move(sets)) {}

MeshTriAdjTris::~MeshTriAdjTris() = default;

int MeshTriAdjTris::copyTriangles(int t, std::vector<int>& out) const
{
    return copySet(m_sets, t, out);
}

std::size_t MeshTriAdjTris::getSizeInBytes() const
{
    return sizeof(*this) + setsBytes(m_sets);
}

MeshBoundaries::~MeshBoundaries() = default;

void MeshBoundaries::addLoop(const int* vertices, int n)
{
    m_vertices.insert(m_vertices.end(), vertices, vertices + n);
    m_loopStarts.push_back(int(m_vertices.size()));
}

void MeshBoundaries::clear()
{
    m_vertices.clear();
    m_loopStarts.assign(1, 0);
}

void MeshBoundaries::swap(MeshBoundaries& other) noexcept
{
    m_vertices.swap(other.m_vertices);
    m_loopStarts.swap(other.m_loopStarts);
}

std::size_t MeshBoundaries::getSizeInBytes() const
{
    return sizeof(*this) + sizeof(int) * (m_vertices.capacity() + m_loopStarts.capacity());
}

} // namespace qyGeom
