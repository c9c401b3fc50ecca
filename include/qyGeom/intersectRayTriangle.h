// Ray and triangle tests: the intersection of a ray with one triangle, with and without
// back-face culling, the line-through-triangle sign test, and the Ray value with the data of
// the slab test against boxes stored as six floats.
#pragma once

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// A ray: a single-precision origin and a double-precision direction (not normalised, so the
/// ray parameter t measures multiples of the direction), with the data of the slab test of
/// an axis-aligned box stored as six floats (min x, min y, min z, max x, max y, max z): the
/// inverse direction rounded to single precision, and per axis the index of the box
/// coordinate that the ray meets first (near) and last (far). An axis whose inverse is below
/// zero, -0.0 directions included (inverse minus infinity), enters at the maximum.
///
/// The ray also carries a far distance, the largest float at construction, and the t, u and
/// v of the nearest hit that intersectTriangle has accepted (the far distance is that t).
class QYGEOM_API Ray
{
public:
    Ray(const qyLinear::PointFlt& origin, const qyLinear::Vector& direction);

    const qyLinear::PointFlt& origin() const { return m_origin; }
    const qyLinear::Vector& direction() const { return m_direction; }
    const float* inverseDirection() const { return m_inverse; }
    /// Index into a six-float box of the coordinate where the ray enters (near) or leaves
    /// (far) the slab of `axis` (0, 1, 2).
    int nearIndex(int axis) const { return m_near[axis]; }
    int farIndex(int axis) const { return m_far[axis]; }

    /// Hits at or beyond this parameter are not looked for.
    double farDistance() const { return m_farDistance; }
    void setFarDistance(double t) { m_farDistance = t; }

    /// True when the ray meets the closed box (six floats) for some t in [0, farDistance()],
    /// by the slab test in single precision, its interval widened by a few units of the
    /// test's own rounding.
    bool intersects(const float* box) const;

    /// Two-sided test against the triangle p0 p1 p2 (three floats each), as the short form of
    /// intersectRayTriangle; a hit with t below farDistance() becomes the ray's nearest hit:
    /// the far distance becomes its t and its u and v are kept. True when that happened.
    bool intersectTriangle(const float* p0, const float* p1, const float* p2);
    /// The t, u and v of the nearest accepted hit (t is the far distance; u and v are 0
    /// until a hit is accepted).
    double triIntersectionRayParam() const { return m_farDistance; }
    double triIntersectionBaryU() const { return m_u; }
    double triIntersectionBaryV() const { return m_v; }

private:
    qyLinear::PointFlt m_origin;
    qyLinear::Vector m_direction;
    float m_inverse[3];
    double m_farDistance = 3.4028234663852886e38; // the largest float
    double m_u = 0, m_v = 0;
    int m_near[3], m_far[3];
};

/// Two-sided intersection of the ray orig + t dir with the triangle p0 p1 p2 (three floats
/// each; dir three doubles). Edges are taken in single precision and the rest is computed in
/// double. On success t is the ray parameter and u, v the barycentric coordinates of p1 and
/// p2: the hit point is (1 - u - v) p0 + u p1 + v p2. The edges are inclusive.
///
/// A hit on the front face (counter-clockwise seen from the ray's origin) is accepted at any
/// t, behind the origin included; a hit on the back face only when t is at least the
/// back-face cull distance (setBackfaceCullDistance). Callers that need t > 0 use the short
/// form or test t. A ray within 1e-6 of parallel to the plane (|e1 . (dir x e2)|, so the
/// threshold scales with the triangle's size and the direction's length) or a degenerate
/// triangle never hits.
/// Failure: t, u and v may hold partial values and must not be used.
/// Threads: pure apart from reading the back-face cull distance.
QYGEOM_API bool intersectRayTriangle(const double* dir, const float* orig, const float* p0,
                                     const float* p1, const float* p2, double& t, double& u,
                                     double& v);

/// True when the full form succeeds with t greater than qyLinear::epsilonTol.
QYGEOM_API bool intersectRayTriangle(const qyLinear::Vector& dir, const qyLinear::PointFlt& orig,
                                     const qyLinear::PointFlt& p0, const qyLinear::PointFlt& p1,
                                     const qyLinear::PointFlt& p2);

/// One-sided intersection: only a triangle whose front faces the ray can be hit, at any t
/// (a hit behind the origin is reported with a negative t). Results as the full form.
QYGEOM_API bool intersectRayTriangleCull(const double* dir, const float* orig, const float* p0,
                                         const float* p1, const float* p2, double& t, double& u,
                                         double& v);

/// Sets the process-wide distance below which back-face hits of the full
/// intersectRayTriangle are rejected (1e-6 at load).
/// Threads: written without synchronisation; set it before ray queries start, not while they
/// run on other threads.
QYGEOM_API void setBackfaceCullDistance(double distance);
/// The current back-face cull distance.
QYGEOM_API double getBackfaceCullDistance();

/// True when the line through p and q (three doubles each) passes through the triangle
/// a b c (three floats each): the signs of the line against the three edges agree, zeros
/// (the line through an edge or a corner) aside. A line in the triangle's plane, or a
/// degenerate triangle, gives false.
QYGEOM_API bool checkRayTriangle(const double* p, const double* q, const float* a, const float* b,
                                 const float* c);

} // namespace qyGeom
