// qyLinear: the out-of-line members of the value types.
#include "base/Linear.h"

#include <algorithm>

namespace qyLinear
{

Normal::Normal(const Vector& v)
{
    const double len = v.length();
    // Written so that NaN components leave the normal invalid as well.
    if (len > 0.0 && std::isfinite(len))
    {
        m_v = v / len;
        m_valid = true;
        return;
    }
    // The squared length under- or overflowed: divide by the largest component first, so a
    // finite non-zero vector keeps its direction whatever its magnitude.
    if (!std::isfinite(v.x) || !std::isfinite(v.y) || !std::isfinite(v.z))
        return;
    const double largest = std::max({std::abs(v.x), std::abs(v.y), std::abs(v.z)});
    if (largest > 0.0)
    {
        const Vector scaled = v / largest;
        m_v = scaled / scaled.length();
        m_valid = true;
    }
}

Normal Normal::operator-() const
{
    Normal n = *this;
    n.m_v = -n.m_v;
    return n;
}

double angle(const Vector& a, const Vector& b)
{
    // atan2 of |a x b| and a . b is accurate near 0 and pi, where acos of the cosine is not.
    const double s = cross(a, b).length();
    const double c = dot(a, b);
    if (s == 0.0 && c == 0.0)
        return 0.0;
    return std::atan2(s, c);
}

bool isParallel(const Vector& a, const Vector& b)
{
    const double la = a.length(), lb = b.length();
    if (!(la > 0.0) || !(lb > 0.0))
        return true;
    return cross(a, b).length() < parallelTol * la * lb;
}

Plane::Plane() : m_origin(0, 0, 0), m_normal(0, 0, 1) {}

Plane::Plane(const Point& origin, const Normal& normal) : m_origin(origin), m_normal(normal) {}

bool isAbove(const Plane& plane, const Point& p)
{
    return plane.eval(p) > epsilonTol;
}

void Range1d::makeEmpty()
{
    m_lo = 1.0;
    m_hi = 0.0;
}

void Range1d::extend(double v)
{
    if (std::isnan(v))
        return;
    if (isEmpty())
    {
        m_lo = m_hi = v;
        return;
    }
    m_lo = std::min(m_lo, v);
    m_hi = std::max(m_hi, v);
}

void Range1d::extend(const Range1d& r)
{
    if (r.isEmpty())
        return;
    extend(r.m_lo);
    extend(r.m_hi);
}

void Range2d::makeEmpty()
{
    m_r[0].makeEmpty();
    m_r[1].makeEmpty();
}

void Range2d::extend(const Point2& p)
{
    m_r[0].extend(p.x);
    m_r[1].extend(p.y);
}

void Range2d::extend(const Range2d& r)
{
    if (r.isEmpty())
        return;
    m_r[0].extend(r.m_r[0]);
    m_r[1].extend(r.m_r[1]);
}

bool Range2d::contains(const Point2& p) const
{
    return m_r[0].contains(p.x) && m_r[1].contains(p.y);
}

bool Range2d::intersects(const Range2d& r) const
{
    return m_r[0].intersects(r.m_r[0]) && m_r[1].intersects(r.m_r[1]);
}

void Range3d::makeEmpty()
{
    for (Range1d& r : m_r)
        r.makeEmpty();
}

void Range3d::extend(const Point& p)
{
    for (int i = 0; i < 3; ++i)
        m_r[i].extend(p[i]);
}

void Range3d::extend(const Range3d& r)
{
    if (r.isEmpty())
        return;
    for (int i = 0; i < 3; ++i)
        m_r[i].extend(r.m_r[i]);
}

bool Range3d::contains(const Point& p) const
{
    return m_r[0].contains(p.x) && m_r[1].contains(p.y) && m_r[2].contains(p.z);
}

bool Range3d::intersects(const Range3d& r) const
{
    return m_r[0].intersects(r.m_r[0]) && m_r[1].intersects(r.m_r[1]) &&
           m_r[2].intersects(r.m_r[2]);
}

} // namespace qyLinear
