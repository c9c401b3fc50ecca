// MeshModification and MeshRemap: the record an algorithm hands to a mesh after changing it.
#pragma once

#include <string>
#include <vector>

#include "base/Signal.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class PointMesh;
class Remap;

/// The vertex and triangle maps applied by a renumbering; a null map means those elements
/// kept their numbers.
struct MeshRemap
{
    Remap* vertices = nullptr;
    Remap* triangles = nullptr;
};

/// Made on the stack by an algorithm that changed a mesh, filled with what changed, and
/// passed to the mesh's modified(). The mesh keeps or drops its derived data by the record,
/// then forwards it to its observers.
///
/// "Modified" flags say an array was rewritten by the algorithm and is up to date; "valid"
/// assertions say an array was not touched but is still right after the change. An array
/// for which neither is said is treated as stale when the change affects it.
class QYGEOM_API MeshModification : public qyRTB::EntityModification
{
public:
    enum Type
    {
        PositionsChanged = 0,  ///< positions moved in place; counts unchanged
        Remapped = 1,          ///< vertices and/or triangles renumbered, merged or deleted
        AttributesChanged = 2, ///< only per-vertex attributes changed
    };

    enum Flag : unsigned
    {
        NormalsModified = 1u << 0,
        UVsModified = 1u << 1,
        STsModified = 1u << 2,
        TriangleNormalsModified = 1u << 3,
        StripsAndFansModified = 1u << 4,
        LinesModified = 1u << 5,
        LineStripsModified = 1u << 6,
        PolysModified = 1u << 7,
        NormalsValid = 1u << 8,
        UVsValid = 1u << 9,
        STsValid = 1u << 10,
        ColoursValid = 1u << 11,
        TriangleNormalsValid = 1u << 12,
    };

    /// @param remap  required for Remapped (may be null otherwise); borrowed.
    MeshModification(const PointMesh* mesh, Type type, MeshRemap* remap = nullptr);
    ~MeshModification() override;

    void normalsModified() { m_flags |= NormalsModified; }
    void uvsModified() { m_flags |= UVsModified; }
    void stsModified() { m_flags |= STsModified; }
    void triangleNormalsModified() { m_flags |= TriangleNormalsModified; }
    void stripsAndFansModified() { m_flags |= StripsAndFansModified; }
    void linesModified() { m_flags |= LinesModified; }
    void lineStripsModified() { m_flags |= LineStripsModified; }
    void polysModified() { m_flags |= PolysModified; }
    /// The named per-vertex attribute array was rewritten.
    void vertexAttribsModified(const char* name);

    void normalsValid() { m_flags |= NormalsValid; }
    void uvsValid() { m_flags |= UVsValid; }
    void stsValid() { m_flags |= STsValid; }
    void coloursValid() { m_flags |= ColoursValid; }
    void triangleNormalsValid() { m_flags |= TriangleNormalsValid; }

    const PointMesh* getMesh() const { return m_mesh; }
    Type getType() const { return m_type; }
    const MeshRemap* getRemap() const { return m_remap; }
    /// The vertex / triangle remap, or null when none was given.
    const Remap* getVertexRemap() const { return m_remap ? m_remap->vertices : nullptr; }
    const Remap* getTriangleRemap() const { return m_remap ? m_remap->triangles : nullptr; }

    bool has(Flag f) const { return (m_flags & f) != 0; }
    unsigned getFlags() const { return m_flags; }
    const std::vector<std::string>& getModifiedAttributes() const { return m_attributes; }
    bool isAttributeModified(const std::string& name) const;

private:
    const PointMesh* m_mesh;
    Type m_type;
    MeshRemap* m_remap;
    unsigned m_flags = 0;
    std::vector<std::string> m_attributes;
};

} // namespace qyGeom
