#include "Topology.h"

#include <algorithm>

#include "base/Linear.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/meshDuplicateTris.h"

namespace qyCli
{

TopologySummary summarizeTopology(qyGeom::CompactMesh& mesh)
{
    TopologySummary out;
    qyGeom::SimpleMeshCache cache;
    const auto adjTris = cache.getAdjTris(mesh);
    out.topology = *cache.getTopology(mesh);
    const int* tris = mesh.getTrianglesRaw();
    const float* xyz = mesh.getVerticesRaw();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        // A repeated corner, or three corners on one line (or on one point): the two edges
        // from the first corner are parallel, which a zero cross product also says.
        const int* c = tris + 3 * t;
        auto corner = [&](int k)
        {
            const float* p = xyz + 3 * std::ptrdiff_t(c[k]);
            return qyLinear::Point(p[0], p[1], p[2]);
        };
        const qyLinear::Point a = corner(0);
        out.degenerate += c[0] == c[1] || c[1] == c[2] || c[2] == c[0] ||
                          qyLinear::isParallel(corner(1) - a, corner(2) - a);
    }
    out.oriented = qyGeom::meshOriented(mesh, *adjTris);
    // The search selects duplicates and triangles that name a vertex twice; count the former.
    qyGeom::meshDuplicateTris(mesh, *adjTris);
    const qyGeom::BitVector& selected = mesh.getSelectedTriangles();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const int* c = tris + 3 * t;
        out.duplicates += selected.isBitSet(t) && c[0] != c[1] && c[1] != c[2] && c[2] != c[0];
    }
    return out;
}

} // namespace qyCli
