// PointMesh: the vertex container (positions, optional per-vertex arrays, selection).
#pragma once

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/Signal.h"
#include "model/BitVector.h"
#include "model/MeshAttributes.h"
#include "model/MeshElements.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class MeshModification;

/// Vertex positions (always present) and optional per-vertex arrays: normals, UVs, STs (a
/// second UV set), colours and any number of named attribute arrays. Every per-vertex array
/// holds exactly one entry per vertex; entry i belongs to vertex i.
///
/// The normals-computed flag set means the normals were derived from the geometry and may be
/// recomputed at will; cleared means they are explicit data. A new normal array is explicit.
///
/// Pointers from the accessors stay valid until the next resize, alloc, delete, swap or
/// assignment on the mesh.
///
/// The mesh is an entity: its modified signal carries each MeshModification record handed to
/// modified() (and a Remapped record without maps after an assignment or swap, when all of
/// its contents were replaced), its destroyed signal fires from the destructor.
class QYGEOM_API PointMesh : public qyRTB::Entity
{
public:
    static const char* const VerticesName; ///< "vertices", 3 floats
    static const char* const NormalsName;  ///< "normals", 3 floats
    static const char* const UVsName;      ///< "uvs", 2 floats
    static const char* const STsName;      ///< "sts", 2 floats
    static const char* const ColoursName;  ///< "colours", 4 floats

    PointMesh();
    /// n copied vertices and the given optional per-vertex arrays (null = absent).
    PointMesh(int n, const MeshVertex* vertices, const MeshNormal* normals = nullptr,
              const MeshUV* uvs = nullptr, const MeshColour* colours = nullptr);
    PointMesh(const PointMesh& other);
    PointMesh& operator=(const PointMesh& other);
    ~PointMesh() override;

    int getNumVertices() const { return m_vertices->getNumElements(); }
    MeshVertex* getVertices() { return reinterpret_cast<MeshVertex*>(m_vertices->getFloats()); }
    const MeshVertex* getVertices() const
    {
        return reinterpret_cast<const MeshVertex*>(m_vertices->getFloats());
    }
    /// The vertex array as 3n floats.
    float* getVerticesRaw() { return m_vertices->getFloats(); }
    const float* getVerticesRaw() const { return m_vertices->getFloats(); }

    /// Null when the mesh has no normals.
    MeshNormal* getNormals() { return reinterpret_cast<MeshNormal*>(getNormalsRaw()); }
    const MeshNormal* getNormals() const
    {
        return reinterpret_cast<const MeshNormal*>(getNormalsRaw());
    }
    float* getNormalsRaw() { return m_normals ? m_normals->getFloats() : nullptr; }
    const float* getNormalsRaw() const { return m_normals ? m_normals->getFloats() : nullptr; }
    bool getNormalsComputed() const { return m_normals && m_normals->isComputed(); }
    /// Ignored while the mesh has no normal array.
    void setNormalsComputed(bool computed);

    MeshUV* getUVs() { return m_uvs ? m_uvs->getUVs() : nullptr; }
    const MeshUV* getUVs() const { return m_uvs ? m_uvs->getUVs() : nullptr; }
    float* getUVsRaw() { return m_uvs ? m_uvs->getFloats() : nullptr; }
    const float* getUVsRaw() const { return m_uvs ? m_uvs->getFloats() : nullptr; }
    MeshUV* getSTs() { return m_sts ? m_sts->getUVs() : nullptr; }
    const MeshUV* getSTs() const { return m_sts ? m_sts->getUVs() : nullptr; }
    MeshColour* getColours()
    {
        return m_colours ? reinterpret_cast<MeshColour*>(m_colours->getFloats()) : nullptr;
    }
    const MeshColour* getColours() const
    {
        return m_colours ? reinterpret_cast<const MeshColour*>(m_colours->getFloats()) : nullptr;
    }

    /// Create the array with one entry per vertex (zero-filled); an existing array is kept.
    void allocNormalArray();
    void allocUVArray();
    void allocSTArray();
    void allocColourArray();
    void deleteNormals();
    void deleteUVs();
    void deleteSTs();
    void deleteColours();

    /// Sets the vertex count; every per-vertex array follows, keeping the entries below n and
    /// zero-filling new ones. The vertex selection grows with the count but keeps bits past
    /// a smaller count until the next modified() renumbers and trims it.
    void resizeVertexArray(int n);
    /// Replaces the vertex array by n copied vertices (resizing as resizeVertexArray).
    void copyVertices(int n, const MeshVertex* vertices);

    BitVector& getSelectedVertices() { return m_selectedVertices; }
    const BitVector& getSelectedVertices() const { return m_selectedVertices; }

    /// All per-vertex arrays, the vertex positions first, then the others in creation order.
    int getNumAttributes() const { return int(m_attributes.size()); }
    MeshAttributes* getAttributes(int i) { return m_attributes[std::size_t(i)].get(); }
    const MeshAttributes* getAttributes(int i) const { return m_attributes[std::size_t(i)].get(); }
    /// Null when the mesh has no array of that name.
    MeshAttributes* getAttributes(const std::string& name);
    const MeshAttributes* getAttributes(const std::string& name) const;
    /// Adds the name of every array to `names`.
    void getAttributeNames(std::set<std::string>& names) const;
    /// Creates (or returns the existing) array; the reserved names create the dedicated
    /// arrays. Null when the name exists with another component count, or the count is not
    /// 1 to 4.
    MeshAttributes* allocAttributes(const std::string& name, int numComponents);
    /// Removes a named array; the vertex positions cannot be removed.
    void deleteAttributes(const std::string& name);

    /// The notification entry point: keeps or drops derived data as the record says, then
    /// emits the record on the modified signal. Derived data is an array flagged computed
    /// (and, in CompactMesh, the triangle normals); it is dropped when the change affects it
    /// and the record neither marks it rewritten nor asserts it still valid. Computed normals
    /// and computed named arrays are affected by moved positions and by any renumbering;
    /// computed UVs, STs and colours only by a vertex renumbering. Explicit arrays are never
    /// dropped. On a vertex renumbering, the selection follows the map (a new vertex is
    /// selected when any vertex merged into it was).
    virtual void modified(MeshModification& modification);

    virtual int getSizeInBytes() const;
    /// Moves every array into memory from `allocator` (null: the default one).
    virtual void setArrayAllocator(qy::Reference<ArrayAllocator> allocator);

protected:
    /// The data part of modified(): derived classes extend it and call the base.
    virtual void applyModification(const MeshModification& modification);
    void swapVertexData(PointMesh& other) noexcept;
    /// Tells observers that the whole contents were replaced.
    void notifyReplaced();
    const qy::Reference<ArrayAllocator>& getArrayAllocator() const { return m_allocator; }

private:
    MeshAttributes* findAttributes(const std::string& name) const;
    MeshAttributes** slotFor(const std::string& name);
    void setSlot(const std::string& name, MeshAttributes* a);
    MeshAttributes* addAttributes(const std::string& name, int numComponents);
    void refreshSlots();

    std::vector<std::unique_ptr<MeshAttributes>> m_attributes; // [0] is the positions
    MeshAttributes* m_vertices = nullptr;
    MeshAttributes* m_normals = nullptr;
    MeshAttributes* m_uvs = nullptr;
    MeshAttributes* m_sts = nullptr;
    MeshAttributes* m_colours = nullptr;
    BitVector m_selectedVertices;
    qy::Reference<ArrayAllocator> m_allocator;
};

} // namespace qyGeom
