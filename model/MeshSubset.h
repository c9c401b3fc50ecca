// MeshSubset: a selection of a mesh as vertex and triangle index lists.
#pragma once

#include <vector>

#include "base/Reference.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Owns its two index lists, not the mesh they index. Shared through qy::Reference.
class QYGEOM_API MeshSubset : public qy::ReferenceCount
{
public:
    MeshSubset() = default;
    MeshSubset(std::vector<int> vertices, std::vector<int> triangles);
    ~MeshSubset() override;

    int getNumVertices() const { return int(m_vertices.size()); }
    const int* getVertices() const { return m_vertices.data(); }
    int getNumTriangles() const { return int(m_triangles.size()); }
    const int* getTriangles() const { return m_triangles.data(); }

    std::vector<int>& vertices() { return m_vertices; }
    const std::vector<int>& vertices() const { return m_vertices; }
    std::vector<int>& triangles() { return m_triangles; }
    const std::vector<int>& triangles() const { return m_triangles; }

private:
    std::vector<int> m_vertices;
    std::vector<int> m_triangles;
};

} // namespace qyGeom
