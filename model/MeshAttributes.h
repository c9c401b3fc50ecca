// MeshAttributes: one named per-vertex array of 1 to 4 floats per vertex.
#pragma once

#include <string>

#include "model/MeshArray.h"
#include "model/MeshElements.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// A per-vertex array owned by a PointMesh, which keeps its element count equal to the
/// vertex count. The vertex positions, normals, UVs, STs and colours are attribute arrays
/// too, under the PointMesh names.
///
/// Computed: the data was derived from the geometry and may be dropped and recomputed at
/// will; cleared, it is explicit data to be preserved. Needs storage: the data belongs in a
/// saved file.
class QYGEOM_API MeshAttributes
{
public:
    MeshAttributes(std::string name, int numComponents, int numElements,
                   qy::Reference<ArrayAllocator> allocator = {});

    const std::string& getName() const { return m_name; }
    int getNumElements() const { return m_data.size(); }
    int getNumComponents() const { return m_numComponents; }
    bool isComputed() const { return m_computed; }
    void setComputed(bool on) { m_computed = on; }
    bool needsStorage() const { return m_needsStorage; }
    void setNeedsStorage(bool on) { m_needsStorage = on; }

    /// numElements * numComponents floats.
    float* getFloats() { return m_data.as<float>(); }
    const float* getFloats() const { return m_data.as<float>(); }
    /// The data as UV records. @pre getNumComponents() == 2
    MeshUV* getUVs() { return m_data.as<MeshUV>(); }
    const MeshUV* getUVs() const { return m_data.as<MeshUV>(); }

    /// Used by the owning mesh to follow its vertex count.
    void resize(int numElements) { m_data.resize(numElements); }
    MeshArray& storage() { return m_data; }
    const MeshArray& storage() const { return m_data; }

private:
    std::string m_name;
    int m_numComponents;
    bool m_computed = false;
    bool m_needsStorage = true;
    MeshArray m_data;
};

} // namespace qyGeom
