// MeshModification.
#include "model/MeshModification.h"

#include <algorithm>

#include "model/PointMesh.h"

namespace qyGeom
{

MeshModification::MeshModification(const PointMesh* mesh, Type type, MeshRemap* remap)
    : qyRTB::EntityModification(mesh), m_mesh(mesh), m_type(type), m_remap(remap)
{
}

MeshModification::~MeshModification() = default;

void MeshModification::vertexAttribsModified(const char* name)
{
    if (name && !isAttributeModified(name))
        m_attributes.emplace_back(name);
}

bool MeshModification::isAttributeModified(const std::string& name) const
{
    return std::find(m_attributes.begin(), m_attributes.end(), name) != m_attributes.end();
}

} // namespace qyGeom
