// MeshCoordBase: coordinates of points over a triangle, and the point of a triangle nearest
// to a given point.
#pragma once

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Positions on a triangle (p0, p1, p2) given by two coordinates (s, t): the point
/// p0 + s (p1 - p0) + t (p2 - p0). Inside the closed triangle s >= 0, t >= 0 and s + t <= 1.
class QYGEOM_API MeshCoordBase
{
public:
    /// The coordinates of the point of the closed triangle nearest to `point` (exact in the
    /// sense of the region tests over the vertices, edges and face, in double precision).
    /// A degenerate triangle (a segment or a point) gives the nearest point of that segment
    /// or point.
    static qyLinear::Point2 projectBase(const qyLinear::Point& p0, const qyLinear::Point& p1,
                                        const qyLinear::Point& p2, const qyLinear::Point& point);
    /// The point of coordinates `st` on the triangle.
    static qyLinear::Point evaluateBase(const qyLinear::Point& p0, const qyLinear::Point& p1,
                                        const qyLinear::Point& p2, const qyLinear::Point2& st)
    {
        return p0 + (p1 - p0) * st.x + (p2 - p0) * st.y;
    }
    /// Squared distance from `point` to the closed triangle.
    static double squaredDistance(const qyLinear::Point& p0, const qyLinear::Point& p1,
                                  const qyLinear::Point& p2, const qyLinear::Point& point);
};

} // namespace qyGeom
