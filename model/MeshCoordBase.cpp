// Nearest point of a triangle by Voronoi regions: the vertex regions first, then the edge
// regions, then the face (Ericson, Real-Time Collision Detection, 5.1.5). Each region test
// uses the signs of dot products of the same few edge vectors, so neighbouring regions
// agree on their shared borders and the result is continuous.
#include "model/MeshCoordBase.h"

#include <algorithm>

namespace qyGeom
{

using qyLinear::Point;
using qyLinear::Point2;
using qyLinear::Vector;

Point2 MeshCoordBase::projectBase(const Point& p0, const Point& p1, const Point& p2,
                                  const Point& point)
{
    const Vector ab = p1 - p0;
    const Vector ac = p2 - p0;
    const Vector ap = point - p0;
    const double d1 = dot(ab, ap);
    const double d2 = dot(ac, ap);
    if (d1 <= 0.0 && d2 <= 0.0)
        return {0.0, 0.0};

    const Vector bp = point - p1;
    const double d3 = dot(ab, bp);
    const double d4 = dot(ac, bp);
    if (d3 >= 0.0 && d4 <= d3)
        return {1.0, 0.0};

    const double vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0)
    {
        const double denom = d1 - d3;
        return {denom > 0.0 ? d1 / denom : 0.0, 0.0};
    }

    const Vector cp = point - p2;
    const double d5 = dot(ab, cp);
    const double d6 = dot(ac, cp);
    if (d6 >= 0.0 && d5 <= d6)
        return {0.0, 1.0};

    const double vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0)
    {
        const double denom = d2 - d6;
        return {0.0, denom > 0.0 ? d2 / denom : 0.0};
    }

    const double va = d3 * d6 - d5 * d4;
    if (va <= 0.0 && (d4 - d3) >= 0.0 && (d5 - d6) >= 0.0)
    {
        const double denom = (d4 - d3) + (d5 - d6);
        const double w = denom > 0.0 ? (d4 - d3) / denom : 0.0;
        return {1.0 - w, w};
    }

    const double sum = va + vb + vc;
    if (!(sum > 0.0))
    {
        // Only reached by a degenerate triangle whose region tests all failed through
        // rounding: take the nearest of its three edges.
        auto onSegment = [&](const Point& a, const Vector& d)
        {
            const double len2 = dot(d, d);
            const double u = len2 > 0.0 ? std::clamp(dot(point - a, d) / len2, 0.0, 1.0) : 0.0;
            return u;
        };
        const double u0 = onSegment(p0, ab), u1 = onSegment(p0, ac), u2 = onSegment(p1, p2 - p1);
        const Point2 c0{u0, 0.0}, c1{0.0, u1}, c2{1.0 - u2, u2};
        auto dist2 = [&](const Point2& st)
        {
            const Vector d = evaluateBase(p0, p1, p2, st) - point;
            return dot(d, d);
        };
        const double e0 = dist2(c0), e1 = dist2(c1), e2 = dist2(c2);
        return e0 <= e1 && e0 <= e2 ? c0 : (e1 <= e2 ? c1 : c2);
    }
    return {vb / sum, vc / sum};
}

double MeshCoordBase::squaredDistance(const Point& p0, const Point& p1, const Point& p2,
                                      const Point& point)
{
    const Vector d = evaluateBase(p0, p1, p2, projectBase(p0, p1, p2, point)) - point;
    return dot(d, d);
}

} // namespace qyGeom
