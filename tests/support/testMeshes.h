// Meshes made in code for tests and benchmarks, and a mesh that records its notifications.
// Not part of the shipped library.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "base/Linear.h"
#include "base/Progress.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"

namespace qyLinear
{
// Readable values in test failure messages.
template <class T> void PrintTo(const PointT<T>& p, std::ostream* os)
{
    *os << "(" << p.x << ", " << p.y << ", " << p.z << ")";
}
template <class T> void PrintTo(const VectorT<T>& v, std::ostream* os)
{
    *os << "(" << v.x << ", " << v.y << ", " << v.z << ")";
}
} // namespace qyLinear

namespace qyGeom
{
inline void PrintTo(const BoundingBox& box, std::ostream* os)
{
    *os << "[";
    qyLinear::PrintTo(box.minPt(), os);
    *os << " .. ";
    qyLinear::PrintTo(box.maxPt(), os);
    *os << "]";
}
} // namespace qyGeom

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
/// A strip of n unit quads (2n vertices, 2n triangles) whose ends are glued with a half
/// twist: one boundary loop, no consistent winding.
CompactMesh makeMoebiusBand(int n = 6);
/// Every triangle of `mesh` with its own three vertices (3T vertices, T triangles).
CompactMesh makeTriangleSoup(const CompactMesh& mesh);
/// A mesh from literal vertex coordinates (3 per vertex) and triangle indices (3 per triangle).
CompactMesh makeMesh(const std::vector<float>& xyz, const std::vector<int>& triangles);
/// `mesh`'s triangles over its vertices with unreferenced vertices inserted: `atStart` before
/// the first, `inMiddle` after the first half, `atEnd` after the last. Unused vertices sit at
/// (1e3, -1e3, 7) so that a builder that wrongly reads them moves its results visibly.
CompactMesh withUnusedVertices(const CompactMesh& mesh, int atStart, int inMiddle, int atEnd);

/// Small meshes grouped by property, for tests that loop over cases with SCOPED_TRACE.
struct TestMesh
{
    std::string name;
    CompactMesh mesh;
};
namespace testMeshes
{
/// empty, one triangle, tetrahedron, open quad, two components, cube, non-manifold edge,
/// zero-area triangle, repeated-index triangle, flipped face, isolated vertex, vertices only.
std::vector<TestMesh> all();
/// The mesh of that name from all(); throws std::out_of_range for an unknown name.
CompactMesh get(const std::string& name);
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
    };

    RecordingMesh() = default;
    explicit RecordingMesh(const CompactMesh& mesh) : CompactMesh(mesh) {}

    void modified(qyGeom::MeshModification& modification) override;

    const std::vector<Entry>& entries() const { return m_entries; }
    int count() const { return int(m_entries.size()); }

private:
    std::vector<Entry> m_entries;
};

/// A progress object that reports nowhere and is never cancelled.
qyUtil::Progress& quietProgress();

/// Switches qyGeom::debugChannel() on and collects the text printed to it while alive; the
/// destructor puts the channel back to its previous on/off state and to standard error.
class DebugCapture
{
public:
    DebugCapture();
    ~DebugCapture();
    DebugCapture(const DebugCapture&) = delete;
    DebugCapture& operator=(const DebugCapture&) = delete;

    const std::string& text() const { return m_text; }

private:
    bool m_wasEnabled;
    std::string m_text;
};

/// Sets the shared pool's thread count for a scope; the destructor restores the previous one.
class ScopedThreadCount
{
public:
    explicit ScopedThreadCount(int numThreads);
    ~ScopedThreadCount();
    ScopedThreadCount(const ScopedThreadCount&) = delete;
    ScopedThreadCount& operator=(const ScopedThreadCount&) = delete;

private:
    int m_saved;
};

} // namespace qyTest
