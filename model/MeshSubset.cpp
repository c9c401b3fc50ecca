// MeshSubset.
#include "model/MeshSubset.h"

namespace qyGeom
{

MeshSubset::MeshSubset(std::vector<int> vertices, std::vector<int> triangles)
    : m_vertices(std::move(vertices)), m_triangles(std::move(triangles))
{
}

MeshSubset::~MeshSubset() = default;

} // namespace qyGeom
