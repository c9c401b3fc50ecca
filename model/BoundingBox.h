// BoundingBox: an axis-aligned box in double precision.
#pragma once

#include <cfloat>

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// A box that starts empty: min = (FLT_MAX, FLT_MAX, FLT_MAX), max = -min, the start values
/// of the mesh box computation, so that extending it by any float point makes it that point.
class QYGEOM_API BoundingBox
{
public:
    BoundingBox() { zero(); }
    BoundingBox(const qyLinear::Point& minPt, const qyLinear::Point& maxPt)
        : m_min(minPt), m_max(maxPt)
    {
    }

    /// Resets to the empty box.
    void zero()
    {
        m_min = {FLT_MAX, FLT_MAX, FLT_MAX};
        m_max = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    }
    /// True while no point was added (any min above its max).
    bool isEmpty() const { return m_min.x > m_max.x || m_min.y > m_max.y || m_min.z > m_max.z; }

    void extend(double x, double y, double z)
    {
        if (x < m_min.x)
            m_min.x = x;
        if (x > m_max.x)
            m_max.x = x;
        if (y < m_min.y)
            m_min.y = y;
        if (y > m_max.y)
            m_max.y = y;
        if (z < m_min.z)
            m_min.z = z;
        if (z > m_max.z)
            m_max.z = z;
    }
    void extend(const qyLinear::Point& p) { extend(p.x, p.y, p.z); }
    /// Joins another box (an empty one changes nothing).
    void extend(const BoundingBox& b);
    /// Closed containment.
    bool contains(const qyLinear::Point& p) const;
    bool intersects(const BoundingBox& b) const;

    const qyLinear::Point& minPt() const { return m_min; }
    const qyLinear::Point& maxPt() const { return m_max; }
    qyLinear::Point center() const;
    qyLinear::Vector diagonal() const { return m_max - m_min; }

    bool operator==(const BoundingBox&) const = default;

private:
    qyLinear::Point m_min, m_max;
};

} // namespace qyGeom
