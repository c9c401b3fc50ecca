// Meshes made in code for tests and benchmarks, and a mesh that records its notifications.
// Not part of the shipped library.
#pragma once

#include <string>
#include <vector>

#include "base/Progress.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"

namespace qyTest
{

using qyGeom::CompactMesh;

/// Regular grid in the z = 0 plane over [0, nx] x [0, ny] with unit spacing: (nx + 1)(ny + 1)
/// vertices, 2 nx ny counter-clockwise triangles (normals +z).
CompactMesh makeGrid(int nx, int ny);
/// Axis-aligned cube [-1, 1]^3: 8 vertices, 12 triangles, outward.
CompactMesh makeCube();
/// Icosahedron subdivided `levels` times, projected to the unit sphere: 20 * 4^levels
/// triangles, 10 * 4^levels + 2 vertices, outward. Level 8 has 1,310,720 triangles.
CompactMesh makeIcosphere(int levels);
/// Latitude-longitude unit sphere: `rings` >= 2 bands, `segments` >= 3 around; poles shared.
CompactMesh makeUVSphere(int rings, int segments);
/// Torus around the z axis with radii R > r: nu * nv vertices, 2 nu nv triangles, outward.
CompactMesh makeTorus(int nu, int nv, double R = 1.0, double r = 0.25);
/// Open upper unit hemisphere (z >= 0): `rings` bands down from the pole, `segments`
/// around; one boundary loop on z = 0.
CompactMesh makeHemisphere(int rings, int segments);
/// Every triangle of `mesh` with its own three vertices (3T vertices, T triangles).
CompactMesh makeTriangleSoup(const CompactMesh& mesh);
/// A mesh from literal vertex coordinates (3 per vertex) and triangle indices (3 per triangle).
CompactMesh makeMesh(const std::vector<float>& xyz, const std::vector<int>& triangles);

/// Small meshes grouped by property, for tests that loop over cases with SCOPED_TRACE.
struct TestMesh
{
    std::string name;
    CompactMesh mesh;
};
namespace testMeshes
{
/// empty, one triangle, tetrahedron, open quad, two components, cube, non-manifold edge,
/// zero-area triangle, repeated-index triangle, flipped face, isolated vertex.
std::vector<TestMesh> all();
} // namespace testMeshes

/// A CompactMesh that records every record handed to modified() (type and flags), then lets
/// the mesh act on it as usual.
class RecordingMesh : public CompactMesh
{
public:
    struct Entry
    {
        qyGeom::MeshModification::Type type;
        unsigned flags;
        bool hasVertexRemap;
        bool hasTriangleRemap;
    };

    RecordingMesh() = default;
    explicit RecordingMesh(const CompactMesh& mesh) : CompactMesh(mesh) {}

    void modified(qyGeom::MeshModification& modification) override;

    const std::vector<Entry>& entries() const { return m_entries; }
    int count() const { return int(m_entries.size()); }
    int count(qyGeom::MeshModification::Type type) const;
    void clearEntries() { m_entries.clear(); }

private:
    std::vector<Entry> m_entries;
};

/// A progress object that reports nowhere and is never cancelled.
qyUtil::Progress& quietProgress();

} // namespace qyTest
