// Ray and triangle tests. The intersection is the edge-vector method (Moller and Trumbore,
// "Fast, minimum storage ray/triangle intersection", 1997) in its two-sided form, with the
// barycentric bounds tested before the division.
#include "qyGeom/intersectRayTriangle.h"

#include "detail/rayTriangleKernel.h"

namespace qyGeom
{
namespace
{

double cullDistance = 1e-6;

// The sign of ((x - p) x (q - p)) . (y - p): which side of the line pq the edge x y passes.
int edgeSign(const double* p, const double* q, const float* x, const float* y)
{
    const double xp[3] = {x[0] - p[0], x[1] - p[1], x[2] - p[2]};
    const double qp[3] = {q[0] - p[0], q[1] - p[1], q[2] - p[2]};
    const double yp[3] = {y[0] - p[0], y[1] - p[1], y[2] - p[2]};
    double c[3];
    detail::cross(xp, qp, c);
    const double s = detail::dot(c, yp);
    return s > 0.0 ? 1 : (s < 0.0 ? -1 : 0);
}

} // namespace

double detail::backfaceCullDistance()
{
    return cullDistance;
}

Ray::Ray(const qyLinear::PointFlt& origin, const qyLinear::Vector& direction)
    : m_origin(origin), m_direction(direction)
{
    for (int axis = 0; axis < 3; ++axis)
    {
        m_inverse[axis] = float(1.0 / direction[axis]);
        // std::signbit would do for the sign too, but the inverse is what the slab test
        // multiplies by: -0.0 gives minus infinity, which must enter at the maximum.
        const bool negative = m_inverse[axis] < 0.0f;
        m_near[axis] = negative ? axis + 3 : axis;
        m_far[axis] = negative ? axis : axis + 3;
    }
}

bool Ray::intersects(const float* box) const
{
    // A zero product of an infinite inverse gives NaN (the origin on the slab's plane): the
    // comparisons are written so that NaN leaves the interval as it was.
    float tNear = 0.0f, tFar = float(m_farDistance);
    for (int axis = 0; axis < 3; ++axis)
    {
        const float a = (box[m_near[axis]] - m_origin[axis]) * m_inverse[axis];
        const float b = (box[m_far[axis]] - m_origin[axis]) * m_inverse[axis];
        tNear = a > tNear ? a : tNear;
        tFar = b < tFar ? b : tFar;
    }
    // Three roundings per bound (PBRT's gamma(3) argument), taken twice over for the inverse
    // that was rounded from double.
    return tNear <= tFar * (1.0f + 8.0f * 5.96e-8f);
}

bool Ray::intersectTriangle(const float* p0, const float* p1, const float* p2)
{
    double t, u, v;
    const float orig[3] = {m_origin.x, m_origin.y, m_origin.z};
    if (!detail::rayTriangleTwoSided(&m_direction.x, orig, p0, p1, p2, cullDistance, t, u, v) ||
        !(t > qyLinear::epsilonTol) || !(t < m_farDistance))
        return false;
    m_farDistance = t;
    m_u = u;
    m_v = v;
    return true;
}

bool intersectRayTriangle(const double* dir, const float* orig, const float* p0, const float* p1,
                          const float* p2, double& t, double& u, double& v)
{
    return detail::rayTriangleTwoSided(dir, orig, p0, p1, p2, cullDistance, t, u, v);
}

bool intersectRayTriangle(const qyLinear::Vector& dir, const qyLinear::PointFlt& orig,
                          const qyLinear::PointFlt& p0, const qyLinear::PointFlt& p1,
                          const qyLinear::PointFlt& p2)
{
    double t, u, v;
    return intersectRayTriangle(&dir.x, &orig.x, &p0.x, &p1.x, &p2.x, t, u, v) &&
           t > qyLinear::epsilonTol;
}

bool intersectRayTriangleCull(const double* dir, const float* orig, const float* p0,
                              const float* p1, const float* p2, double& t, double& u, double& v)
{
    double det;
    return detail::rayTriangle(dir, orig, p0, p1, p2, false, det, t, u, v);
}

void setBackfaceCullDistance(double distance)
{
    cullDistance = distance;
}

double getBackfaceCullDistance()
{
    return cullDistance;
}

bool checkRayTriangle(const double* p, const double* q, const float* a, const float* b,
                      const float* c)
{
    const int s1 = edgeSign(p, q, a, b), s2 = edgeSign(p, q, b, c), s3 = edgeSign(p, q, c, a);
    if (s1 == 0 && s2 == 0)
        return s3 != 0;
    if ((s1 == 0 || s1 == s2) && s2 == s3)
        return true;
    if ((s2 == 0 && s1 == s3) || (s3 == 0 && s1 == s2))
        return true;
    if (s1 == 0 && (s2 == 0 || s3 == 0))
        return true;
    return s2 == 0 && s3 == 0;
}

} // namespace qyGeom
