// Closest point over the triangle octree: best-first descent with a binary heap of nodes
// keyed by the squared distance from the query to their boxes.
#include "qyGeom/MeshClosestPoint.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "model/CompactMesh.h"
#include "model/MeshCoordBase.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "qyGeom/MeshCache.h"

namespace qyGeom
{
namespace
{

// Squared distance from p to a closed box (min x, y, z, max x, y, z).
inline double boxDistance2(const double p[3], const float* box)
{
    double d2 = 0.0;
    for (int k = 0; k < 3; ++k)
    {
        const double lo = box[k], hi = box[k + 3];
        const double d = p[k] < lo ? lo - p[k] : (p[k] > hi ? p[k] - hi : 0.0);
        d2 += d * d;
    }
    return d2;
}

// Min-heap order on (distance, node): nearer first, then lower node, so that the visiting
// order depends on the query alone.
inline bool heapAfter(const std::pair<double, int>& a, const std::pair<double, int>& b)
{
    return a.first > b.first || (a.first == b.first && a.second > b.second);
}

} // namespace

MeshClosestPoint::MeshClosestPoint(const CompactMesh& mesh, const Octree& octree,
                                   const OctreeTris& octreeTris)
    : m_mesh(mesh), m_octree(octree), m_octreeTris(octreeTris)
{
    m_heap.reserve(8 * (Octree::maxSupportedDepth + 1));
}

double MeshClosestPoint::compute(const qyLinear::Point& point, MeshClosestPointResult& result)
{
    return compute(point, result, std::numeric_limits<double>::infinity());
}

double MeshClosestPoint::compute(const qyLinear::Point& point, MeshClosestPointResult& result,
                                 double maxDistance)
{
    constexpr double infinity = std::numeric_limits<double>::infinity();
    result.triangle = -1;
    result.distance = infinity;
    result.point = point;
    if (m_octree.getNumNodes() == 0 || m_octreeTris.getNumVoxels() != m_octree.getNumVoxels())
        return infinity;

    const double p[3] = {point.x, point.y, point.z};
    // Triangles at maxDistance still count, also when it was computed as the square root of a
    // squared distance (squaring it back may land a few units in the last place higher).
    double best2 = maxDistance < infinity ? maxDistance * maxDistance * (1.0 + 1e-14) : infinity;
    int bestTri = -1;
    qyLinear::Point2 bestSt;

    const float* v = m_mesh.getVerticesRaw();
    const int* tris = m_mesh.getTrianglesRaw();
    auto corner = [&](int t, int k)
    {
        const float* c = v + 3 * std::ptrdiff_t(tris[3 * std::ptrdiff_t(t) + k]);
        return qyLinear::Point(c[0], c[1], c[2]);
    };

    m_heap.clear();
    m_heap.emplace_back(boxDistance2(p, m_octree.getNode(0).box), 0);
    while (!m_heap.empty())
    {
        std::pop_heap(m_heap.begin(), m_heap.end(), heapAfter);
        const auto [d2, node] = m_heap.back();
        m_heap.pop_back();
        if (!(d2 < best2))
            break;
        const Octree::Node& n = m_octree.getNode(node);
        if (n.child >= 0)
        {
            for (int i = 0; i < 8; ++i)
            {
                const double c2 = boxDistance2(p, m_octree.getNode(n.child + i).box);
                if (c2 < best2)
                {
                    m_heap.emplace_back(c2, n.child + i);
                    std::push_heap(m_heap.begin(), m_heap.end(), heapAfter);
                }
            }
            continue;
        }
        const int voxel = -n.child - 1;
        const int* set = m_octreeTris.firstTri(voxel);
        for (int i = 0, count = m_octreeTris.numTris(voxel); i < count; ++i)
        {
            const int t = set[i];
            const qyLinear::Point a = corner(t, 0), b = corner(t, 1), c = corner(t, 2);
            // The triangle's box bounds its distance from below: skip it when that alone
            // is no better.
            double lo2 = 0.0;
            for (int k = 0; k < 3; ++k)
            {
                const double lo = std::min({a[k], b[k], c[k]}), hi = std::max({a[k], b[k], c[k]});
                const double d = p[k] < lo ? lo - p[k] : (p[k] > hi ? p[k] - hi : 0.0);
                lo2 += d * d;
            }
            if (!(lo2 < best2))
                continue;
            const qyLinear::Point2 st = MeshCoordBase::projectBase(a, b, c, point);
            const qyLinear::Vector d = MeshCoordBase::evaluateBase(a, b, c, st) - point;
            const double t2 = dot(d, d);
            if (t2 < best2 || (t2 == best2 && bestTri >= 0 && t < bestTri))
            {
                best2 = t2;
                bestTri = t;
                bestSt = st;
            }
        }
    }
    if (bestTri < 0)
        return infinity;
    result.triangle = bestTri;
    result.point = MeshCoordBase::evaluateBase(corner(bestTri, 0), corner(bestTri, 1),
                                               corner(bestTri, 2), bestSt);
    result.distance = std::sqrt(best2);
    return result.distance;
}

bool meshClosestPoint(const CompactMesh& mesh, MeshCache& cache, const qyLinear::Point& point,
                      MeshClosestPointResult& result)
{
    const qy::Reference<Octree> octree = cache.getOctree(mesh, -1);
    const qy::Reference<OctreeTris> octreeTris = cache.getOctreeTris(mesh);
    MeshClosestPoint query(mesh, *octree, *octreeTris);
    query.compute(point, result);
    return result.triangle >= 0;
}

} // namespace qyGeom
