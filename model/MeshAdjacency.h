// Derived neighbourhood structures of a mesh's triangles: vertex to triangles, vertex to
// vertices, triangle to edge-neighbour triangles, and the boundary loops. Built by the
// functions of qyGeom/meshAdjacency.h and qyGeom/meshBoundary.h; shared through qy::Reference.
#pragma once

#include <cstddef>
#include <span>
#include <vector>

#include "base/Reference.h"
#include "model/ArrayOfSets.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Vertex-to-triangle sets: set v lists the triangles that use vertex v in increasing
/// triangle order; a triangle that names v twice appears twice.
class QYGEOM_API MeshAdjTris : public qy::ReferenceCount
{
public:
    MeshAdjTris() = default;
    /// Takes the sets over (one per vertex); `sets` is left empty.
    explicit MeshAdjTris(ArrayOfSets&& sets);
    MeshAdjTris(const MeshAdjTris&) = default;
    MeshAdjTris& operator=(const MeshAdjTris&) = default;
    ~MeshAdjTris() override;

    /// Number of vertices (sets).
    int getNumVertices() const { return m_sets.getNumSets(); }
    /// Number of triangles that use v. @pre 0 <= v < getNumVertices()
    int numTris(int v) const { return m_sets.getSetSize(v); }
    /// The triangles that use v, numTris(v) of them.
    const int* triIndices(int v) const { return m_sets.getSet(v); }
    /// Replaces `out` by the triangles of v; returns their number.
    int copyTriangles(int v, std::vector<int>& out) const;
    /// The sets themselves.
    const ArrayOfSets& getSets() const { return m_sets; }

    void swap(MeshAdjTris& other) noexcept { m_sets.swap(other.m_sets); }
    /// Bytes held by the object and its arrays.
    std::size_t getSizeInBytes() const;

private:
    ArrayOfSets m_sets;
};

/// Vertex-to-vertex records: for each vertex a count followed by that many neighbour vertex
/// indices, all records back to back in one int array, located by a start per vertex.
class QYGEOM_API MeshAdjVertices : public qy::ReferenceCount
{
public:
    MeshAdjVertices() = default;
    /// numVertices records; record v begins at data[starts[v]] (its count) and is followed by
    /// the neighbours. maxValence is the largest count. The arrays are taken over.
    MeshAdjVertices(int numVertices, int maxValence, std::vector<int>&& starts,
                    std::vector<int>&& data);
    MeshAdjVertices(const MeshAdjVertices&) = default;
    MeshAdjVertices& operator=(const MeshAdjVertices&) = default;
    ~MeshAdjVertices() override;

    /// Number of vertices (records).
    int getNumVertices() const { return m_numVertices; }
    /// Number of neighbours of v. @pre 0 <= v < getNumVertices()
    int numVertices(int v) const { return m_data[std::size_t(m_starts[std::size_t(v)])]; }
    /// The neighbours of v, numVertices(v) of them, in first-seen order.
    const int* vertexIndices(int v) const { return m_data.data() + m_starts[std::size_t(v)] + 1; }
    /// The largest neighbour count (0 without vertices).
    int getMaxValence() const { return m_maxValence; }
    /// The raw arrays: starts (one per vertex) and the records (getDataSize() ints).
    const int* getStarts() const { return m_starts.data(); }
    const int* getData() const { return m_data.data(); }
    std::size_t getDataSize() const { return m_data.size(); }

    void swap(MeshAdjVertices& other) noexcept;
    std::size_t getSizeInBytes() const;

private:
    std::vector<int> m_starts;
    std::vector<int> m_data;
    int m_numVertices = 0;
    int m_maxValence = 0;
};

/// Triangle-to-triangle sets: set t lists the triangles across edge 0 (corner 0 to 1), then
/// edge 1 (1 to 2), then edge 2 (2 to 0) of t. A boundary edge adds nothing, an edge shared
/// by k triangles adds the k - 1 others, and a neighbour across two edges appears twice.
class QYGEOM_API MeshTriAdjTris : public qy::ReferenceCount
{
public:
    MeshTriAdjTris() = default;
    /// Takes the sets over (one per triangle); `sets` is left empty.
    explicit MeshTriAdjTris(ArrayOfSets&& sets);
    MeshTriAdjTris(const MeshTriAdjTris&) = default;
    MeshTriAdjTris& operator=(const MeshTriAdjTris&) = default;
    ~MeshTriAdjTris() override;

    /// Number of triangles (sets).
    int getNumTriangles() const { return m_sets.getNumSets(); }
    /// Number of edge neighbours of t. @pre 0 <= t < getNumTriangles()
    int numTris(int t) const { return m_sets.getSetSize(t); }
    const int* triIndices(int t) const { return m_sets.getSet(t); }
    /// Replaces `out` by the neighbours of t; returns their number.
    int copyTriangles(int t, std::vector<int>& out) const;
    const ArrayOfSets& getSets() const { return m_sets; }

    void swap(MeshTriAdjTris& other) noexcept { m_sets.swap(other.m_sets); }
    /// Bytes of the object and of the offsets and members in use (meshTriAdjTris leaves the
    /// member array at one entry per edge when that is enough, so an open mesh holds a few
    /// more).
    std::size_t getSizeInBytes() const;

private:
    ArrayOfSets m_sets;
};

/// An ordered list of boundary loops, each a sequence of vertex indices; the edge from a
/// loop's last vertex back to its first is implied. Loops are stored back to back.
class QYGEOM_API MeshBoundaries : public qy::ReferenceCount
{
public:
    MeshBoundaries() = default;
    MeshBoundaries(const MeshBoundaries&) = default;
    MeshBoundaries& operator=(const MeshBoundaries&) = default;
    ~MeshBoundaries() override;

    /// Number of loops.
    int size() const { return int(m_loopStarts.size()) - 1; }
    bool empty() const { return size() == 0; }
    /// Number of vertices of loop i. @pre 0 <= i < size()
    int getLength(int i) const
    {
        return m_loopStarts[std::size_t(i) + 1] - m_loopStarts[std::size_t(i)];
    }
    /// The first vertex index of loop i, and one past its last: [getStart(i), getEnd(i)).
    const int* getStart(int i) const { return m_vertices.data() + m_loopStarts[std::size_t(i)]; }
    const int* getEnd(int i) const { return m_vertices.data() + m_loopStarts[std::size_t(i) + 1]; }
    /// Loop i as a span of vertex indices.
    std::span<const int> getLoop(int i) const { return {getStart(i), getEnd(i)}; }
    /// Total number of vertices over all loops.
    int getTotalLength() const { return int(m_vertices.size()); }

    /// Appends a loop of n vertex indices (n = 0 adds an empty loop).
    void addLoop(const int* vertices, int n);
    /// Removes every loop.
    void clear();
    void swap(MeshBoundaries& other) noexcept;
    std::size_t getSizeInBytes() const;

private:
    std::vector<int> m_vertices;
    std::vector<int> m_loopStarts{0}; // size() + 1 entries: loop i spans [starts[i], starts[i+1])
};

} // namespace qyGeom
