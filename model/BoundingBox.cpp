// BoundingBox.
#include "model/BoundingBox.h"

namespace qyGeom
{

void BoundingBox::extend(const BoundingBox& b)
{
    if (b.isEmpty())
        return;
    extend(b.m_min);
    extend(b.m_max);
}

bool BoundingBox::contains(const qyLinear::Point& p) const
{
    return p.x >= m_min.x && p.x <= m_max.x && p.y >= m_min.y && p.y <= m_max.y && p.z >= m_min.z &&
           p.z <= m_max.z;
}

bool BoundingBox::intersects(const BoundingBox& b) const
{
    return m_min.x <= b.m_max.x && b.m_min.x <= m_max.x && m_min.y <= b.m_max.y &&
           b.m_min.y <= m_max.y && m_min.z <= b.m_max.z && b.m_min.z <= m_max.z;
}

qyLinear::Point BoundingBox::center() const
{
    return {0.5 * (m_min.x + m_max.x), 0.5 * (m_min.y + m_max.y), 0.5 * (m_min.z + m_max.z)};
}

} // namespace qyGeom
