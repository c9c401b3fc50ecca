// OctreeTris and OctreeLines: the triangles, or the lines, of a mesh listed per voxel of an
// Octree.
#pragma once

#include <utility>

#include "base/Reference.h"
#include "model/ArrayOfSets.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// One set per voxel of an octree, listing (in increasing order) the triangles that overlap
/// the voxel's box; a triangle that overlaps several voxels is in each of their sets. Built by
/// computeOctreeTris. A default-constructed object has no voxels.
class QYGEOM_API OctreeTris : public qy::ReferenceCount
{
public:
    OctreeTris() = default;
    /// Takes over `sets`, which holds one set per voxel.
    explicit OctreeTris(ArrayOfSets&& sets) : m_sets(std::move(sets)) {}

    int getNumVoxels() const { return m_sets.getNumSets(); }
    /// @pre 0 <= voxel < getNumVoxels()
    int numTris(int voxel) const { return m_sets.getSetSize(voxel); }
    const int* firstTri(int voxel) const { return m_sets.getSet(voxel); }
    const ArrayOfSets& getData() const { return m_sets; }

    void swap(OctreeTris& other) noexcept { m_sets.swap(other.m_sets); }
    /// Bytes held, this object included.
    int getSizeInBytes() const;

private:
    ArrayOfSets m_sets;
};

/// The same for a mesh's lines (MeshLine indices). Built by meshOctreeLines.
class QYGEOM_API OctreeLines : public qy::ReferenceCount
{
public:
    OctreeLines() = default;
    explicit OctreeLines(ArrayOfSets&& sets) : m_sets(std::move(sets)) {}

    int getNumVoxels() const { return m_sets.getNumSets(); }
    /// @pre 0 <= voxel < getNumVoxels()
    int numLines(int voxel) const { return m_sets.getSetSize(voxel); }
    const int* firstLine(int voxel) const { return m_sets.getSet(voxel); }
    const ArrayOfSets& getData() const { return m_sets; }

    void swap(OctreeLines& other) noexcept { m_sets.swap(other.m_sets); }
    int getSizeInBytes() const;

private:
    ArrayOfSets m_sets;
};

} // namespace qyGeom
