// qyLinear: small fixed-size linear-algebra values (points, vectors, normals, matrices,
// planes, ranges) and the tolerances that the geometry code compares against.
#pragma once

#include <cmath>

#include "qyGeom/qyGeomExport.h"

namespace qyLinear
{

/// A value whose magnitude is below this counts as zero (lengths, areas, cotangents,
/// squared norms). Chosen well above double rounding noise for coordinates of order 1e3
/// and well below any meaningful feature of a model in metres or millimetres.
inline constexpr double epsilonTol = 1e-10;
/// Single-precision twin of epsilonTol, for comparisons made in float (matrix identity).
inline constexpr float epsilonTolFlt = 1e-6f;
/// Squared tolerance: a squared length at or below this has no usable direction.
inline constexpr double epsilon2Tol = epsilonTol * epsilonTol;
/// Two directions are parallel when the sine of the angle between them is below this.
inline constexpr double parallelTol = 1e-8;

template <class T> struct VectorT;

/// Position in 3-space. Point - Point is a vector, Point + Vector a point.
template <class T> struct PointT
{
    T x = 0, y = 0, z = 0;

    constexpr PointT() = default;
    constexpr PointT(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}
    template <class U>
    constexpr explicit PointT(const PointT<U>& p) : x(T(p.x)), y(T(p.y)), z(T(p.z))
    {
    }

    T& operator[](int i) { return (&x)[i]; }
    const T& operator[](int i) const { return (&x)[i]; }

    PointT& operator+=(const VectorT<T>& v);
    PointT& operator-=(const VectorT<T>& v);
    bool operator==(const PointT&) const = default;
};

/// Direction and length in 3-space.
template <class T> struct VectorT
{
    T x = 0, y = 0, z = 0;

    constexpr VectorT() = default;
    constexpr VectorT(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}
    template <class U>
    constexpr explicit VectorT(const VectorT<U>& v) : x(T(v.x)), y(T(v.y)), z(T(v.z))
    {
    }
    /// The vector from the origin to p.
    constexpr explicit VectorT(const PointT<T>& p) : x(p.x), y(p.y), z(p.z) {}

    T& operator[](int i) { return (&x)[i]; }
    const T& operator[](int i) const { return (&x)[i]; }

    T lengthSquared() const { return x * x + y * y + z * z; }
    T length() const { return std::sqrt(lengthSquared()); }

    VectorT operator-() const { return {-x, -y, -z}; }
    VectorT& operator+=(const VectorT& v)
    {
        x += v.x;
        y += v.y;
        z += v.z;
        return *this;
    }
    VectorT& operator-=(const VectorT& v)
    {
        x -= v.x;
        y -= v.y;
        z -= v.z;
        return *this;
    }
    VectorT& operator*=(T s)
    {
        x *= s;
        y *= s;
        z *= s;
        return *this;
    }
    VectorT& operator/=(T s)
    {
        x /= s;
        y /= s;
        z /= s;
        return *this;
    }
    bool operator==(const VectorT&) const = default;
};

template <class T> PointT<T>& PointT<T>::operator+=(const VectorT<T>& v)
{
    x += v.x;
    y += v.y;
    z += v.z;
    return *this;
}
template <class T> PointT<T>& PointT<T>::operator-=(const VectorT<T>& v)
{
    x -= v.x;
    y -= v.y;
    z -= v.z;
    return *this;
}

template <class T> VectorT<T> operator-(const PointT<T>& a, const PointT<T>& b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
template <class T> PointT<T> operator+(PointT<T> p, const VectorT<T>& v)
{
    return p += v;
}
template <class T> PointT<T> operator-(PointT<T> p, const VectorT<T>& v)
{
    return p -= v;
}
template <class T> VectorT<T> operator+(VectorT<T> a, const VectorT<T>& b)
{
    return a += b;
}
template <class T> VectorT<T> operator-(VectorT<T> a, const VectorT<T>& b)
{
    return a -= b;
}
template <class T> VectorT<T> operator*(VectorT<T> a, T s)
{
    return a *= s;
}
template <class T> VectorT<T> operator*(T s, VectorT<T> a)
{
    return a *= s;
}
template <class T> VectorT<T> operator/(VectorT<T> a, T s)
{
    return a /= s;
}

template <class T> T dot(const VectorT<T>& a, const VectorT<T>& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
template <class T> VectorT<T> cross(const VectorT<T>& a, const VectorT<T>& b)
{
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
template <class T> T distance(const PointT<T>& a, const PointT<T>& b)
{
    return (a - b).length();
}
/// A unit vector orthogonal to d (not zero): d crossed with the coordinate axis least aligned
/// with it, which keeps the result well conditioned and the same on every call.
template <class T> VectorT<T> orthogonalTo(const VectorT<T>& d)
{
    int axis = 0;
    for (int k = 1; k < 3; ++k)
        if (std::abs(d[k]) < std::abs(d[axis]))
            axis = k;
    VectorT<T> e(0, 0, 0);
    e[axis] = T(1);
    const VectorT<T> o = cross(d, e);
    return o / o.length();
}

/// Position in the plane.
template <class T> struct Point2T
{
    T x = 0, y = 0;

    constexpr Point2T() = default;
    constexpr Point2T(T x_, T y_) : x(x_), y(y_) {}
    template <class U> constexpr explicit Point2T(const Point2T<U>& p) : x(T(p.x)), y(T(p.y)) {}

    T& operator[](int i) { return (&x)[i]; }
    const T& operator[](int i) const { return (&x)[i]; }
    bool operator==(const Point2T&) const = default;
};

using Point = PointT<double>;
using PointFlt = PointT<float>;
using Vector = VectorT<double>;
using VectorFlt = VectorT<float>;
using Point2 = Point2T<double>;
using Point2Flt = Point2T<float>;

/// Unit direction in double precision. Built from a vector, it normalises it; the zero vector
/// (or one whose length is not finite) has no direction, and the normal says so through
/// isValid() and holds (0, 0, 0).
class QYGEOM_API Normal
{
public:
    /// The invalid normal (0, 0, 0).
    constexpr Normal() = default;
    /// Normalises v; invalid when |v| is 0 or not finite.
    explicit Normal(const Vector& v);
    Normal(double x, double y, double z) : Normal(Vector(x, y, z)) {}

    bool isValid() const { return m_valid; }
    double x() const { return m_v.x; }
    double y() const { return m_v.y; }
    double z() const { return m_v.z; }
    double operator[](int i) const { return m_v[i]; }
    const Vector& asVector() const { return m_v; }
    operator const Vector&() const { return m_v; }
    Normal operator-() const;

    bool operator==(const Normal& o) const { return m_v == o.m_v && m_valid == o.m_valid; }

private:
    Vector m_v;
    bool m_valid = false;
};

/// Angle between two vectors in radians, in [0, pi]; 0 when either has zero length.
QYGEOM_API double angle(const Vector& a, const Vector& b);

/// True when the sine of the angle between a and b is below parallelTol (parallel or
/// anti-parallel), or when either has zero length.
QYGEOM_API bool isParallel(const Vector& a, const Vector& b);

/// Plane through an origin with a unit normal.
class QYGEOM_API Plane
{
public:
    /// The plane z = 0.
    Plane();
    Plane(const Point& origin, const Normal& normal);

    const Point& origin() const { return m_origin; }
    const Normal& normal() const { return m_normal; }

    /// Signed distance of p from the plane, positive on the side the normal points to.
    double eval(const Point& p) const { return dot(p - m_origin, m_normal.asVector()); }
    /// Orthogonal projection of p onto the plane.
    Point project(const Point& p) const { return p - m_normal.asVector() * eval(p); }

private:
    Point m_origin;
    Normal m_normal;
};

/// True when p lies above the plane by more than epsilonTol.
QYGEOM_API bool isAbove(const Plane& plane, const Point& p);

/// Affine map x -> L x + t with a 3x3 linear part L (row major) and a translation t.
template <class T> class AffineMatrixT
{
public:
    /// The identity.
    AffineMatrixT() { setIdentity(); }
    /// From a row-major 3x3 linear part and a translation.
    AffineMatrixT(const T linear[9], const T translation[3])
    {
        for (int i = 0; i < 9; ++i)
            m_l[i] = linear[i];
        for (int i = 0; i < 3; ++i)
            m_t[i] = translation[i];
    }

    static AffineMatrixT identity() { return AffineMatrixT(); }
    static AffineMatrixT translation(const VectorT<T>& t)
    {
        AffineMatrixT m;
        m.m_t[0] = t.x;
        m.m_t[1] = t.y;
        m.m_t[2] = t.z;
        return m;
    }
    static AffineMatrixT scaling(T sx, T sy, T sz)
    {
        AffineMatrixT m;
        m.m_l[0] = sx;
        m.m_l[4] = sy;
        m.m_l[8] = sz;
        return m;
    }
    /// Rotation by `radians` about the unit axis, right-handed.
    static AffineMatrixT rotation(const VectorT<T>& axis, T radians);

    void setIdentity()
    {
        for (int i = 0; i < 9; ++i)
            m_l[i] = (i % 4 == 0) ? T(1) : T(0);
        m_t[0] = m_t[1] = m_t[2] = T(0);
    }

    T& linear(int row, int col) { return m_l[3 * row + col]; }
    T linear(int row, int col) const { return m_l[3 * row + col]; }
    T& translationPart(int i) { return m_t[i]; }
    T translationPart(int i) const { return m_t[i]; }

    /// Every entry within tol of the other's.
    bool isEqual(const AffineMatrixT& o, T tol) const
    {
        for (int i = 0; i < 9; ++i)
            if (!(std::abs(m_l[i] - o.m_l[i]) <= tol))
                return false;
        for (int i = 0; i < 3; ++i)
            if (!(std::abs(m_t[i] - o.m_t[i]) <= tol))
                return false;
        return true;
    }
    bool isIdentity(T tol) const { return isEqual(identity(), tol); }

    PointT<T> transformPoint(const PointT<T>& p) const
    {
        return {m_l[0] * p.x + m_l[1] * p.y + m_l[2] * p.z + m_t[0],
                m_l[3] * p.x + m_l[4] * p.y + m_l[5] * p.z + m_t[1],
                m_l[6] * p.x + m_l[7] * p.y + m_l[8] * p.z + m_t[2]};
    }
    VectorT<T> transformVector(const VectorT<T>& v) const
    {
        return {m_l[0] * v.x + m_l[1] * v.y + m_l[2] * v.z,
                m_l[3] * v.x + m_l[4] * v.y + m_l[5] * v.z,
                m_l[6] * v.x + m_l[7] * v.y + m_l[8] * v.z};
    }
    /// A surface normal under the map: the inverse transpose of L applied to n, normalised.
    /// A singular L leaves a zero vector.
    VectorT<T> transformNormal(const VectorT<T>& n) const;

    T determinant() const
    {
        return m_l[0] * (m_l[4] * m_l[8] - m_l[5] * m_l[7]) -
               m_l[1] * (m_l[3] * m_l[8] - m_l[5] * m_l[6]) +
               m_l[2] * (m_l[3] * m_l[7] - m_l[4] * m_l[6]);
    }
    /// The inverse map; false (and *this unchanged in out) when L is singular.
    bool inverse(AffineMatrixT& out) const;

    /// Composition: (a * b)(x) = a(b(x)).
    friend AffineMatrixT operator*(const AffineMatrixT& a, const AffineMatrixT& b)
    {
        AffineMatrixT r;
        for (int i = 0; i < 3; ++i)
        {
            for (int j = 0; j < 3; ++j)
                r.m_l[3 * i + j] = a.m_l[3 * i] * b.m_l[j] + a.m_l[3 * i + 1] * b.m_l[3 + j] +
                                   a.m_l[3 * i + 2] * b.m_l[6 + j];
            r.m_t[i] = a.m_l[3 * i] * b.m_t[0] + a.m_l[3 * i + 1] * b.m_t[1] +
                       a.m_l[3 * i + 2] * b.m_t[2] + a.m_t[i];
        }
        return r;
    }

private:
    T m_l[9];
    T m_t[3];
};

template <class T> AffineMatrixT<T> AffineMatrixT<T>::rotation(const VectorT<T>& axis, T radians)
{
    const T c = std::cos(radians), s = std::sin(radians), k = T(1) - c;
    const T x = axis.x, y = axis.y, z = axis.z;
    AffineMatrixT m;
    m.m_l[0] = c + x * x * k;
    m.m_l[1] = x * y * k - z * s;
    m.m_l[2] = x * z * k + y * s;
    m.m_l[3] = y * x * k + z * s;
    m.m_l[4] = c + y * y * k;
    m.m_l[5] = y * z * k - x * s;
    m.m_l[6] = z * x * k - y * s;
    m.m_l[7] = z * y * k + x * s;
    m.m_l[8] = c + z * z * k;
    return m;
}

template <class T> bool AffineMatrixT<T>::inverse(AffineMatrixT& out) const
{
    const T det = determinant();
    if (det == T(0) || !std::isfinite(det))
        return false;
    const T* l = m_l;
    AffineMatrixT r;
    r.m_l[0] = (l[4] * l[8] - l[5] * l[7]) / det;
    r.m_l[1] = (l[2] * l[7] - l[1] * l[8]) / det;
    r.m_l[2] = (l[1] * l[5] - l[2] * l[4]) / det;
    r.m_l[3] = (l[5] * l[6] - l[3] * l[8]) / det;
    r.m_l[4] = (l[0] * l[8] - l[2] * l[6]) / det;
    r.m_l[5] = (l[2] * l[3] - l[0] * l[5]) / det;
    r.m_l[6] = (l[3] * l[7] - l[4] * l[6]) / det;
    r.m_l[7] = (l[1] * l[6] - l[0] * l[7]) / det;
    r.m_l[8] = (l[0] * l[4] - l[1] * l[3]) / det;
    for (int i = 0; i < 3; ++i)
        r.m_t[i] = -(r.m_l[3 * i] * m_t[0] + r.m_l[3 * i + 1] * m_t[1] + r.m_l[3 * i + 2] * m_t[2]);
    out = r;
    return true;
}

template <class T> VectorT<T> AffineMatrixT<T>::transformNormal(const VectorT<T>& n) const
{
    AffineMatrixT inv;
    if (!inverse(inv))
        return {};
    // (L^-1)^T n: walk the inverse by columns.
    VectorT<T> r(inv.m_l[0] * n.x + inv.m_l[3] * n.y + inv.m_l[6] * n.z,
                 inv.m_l[1] * n.x + inv.m_l[4] * n.y + inv.m_l[7] * n.z,
                 inv.m_l[2] * n.x + inv.m_l[5] * n.y + inv.m_l[8] * n.z);
    const T len = r.length();
    return len > T(0) ? r / len : r;
}

using AffineMatrix = AffineMatrixT<double>;
using AffineMatrixFlt = AffineMatrixT<float>;

/// Closed interval [lo, hi]; empty while lo > hi (the default).
class QYGEOM_API Range1d
{
public:
    Range1d() = default;
    Range1d(double lo, double hi) : m_lo(lo), m_hi(hi) {}

    bool isEmpty() const { return m_lo > m_hi; }
    double lo() const { return m_lo; }
    double hi() const { return m_hi; }
    double size() const { return isEmpty() ? 0.0 : m_hi - m_lo; }
    double center() const { return 0.5 * (m_lo + m_hi); }
    void makeEmpty();
    /// Grows the range to hold v; NaN is ignored.
    void extend(double v);
    void extend(const Range1d& r);
    bool contains(double v) const { return v >= m_lo && v <= m_hi; }
    /// True when the two share a value; an empty range intersects nothing.
    bool intersects(const Range1d& r) const
    {
        return !isEmpty() && !r.isEmpty() && m_lo <= r.m_hi && r.m_lo <= m_hi;
    }

private:
    double m_lo = 1.0, m_hi = 0.0;
};

/// Axis-aligned rectangle: one Range1d per axis; empty when any axis is.
class QYGEOM_API Range2d
{
public:
    Range2d() = default;
    Range2d(const Range1d& x, const Range1d& y) : m_r{x, y} {}

    const Range1d& operator[](int axis) const { return m_r[axis]; }
    Range1d& operator[](int axis) { return m_r[axis]; }
    bool isEmpty() const { return m_r[0].isEmpty() || m_r[1].isEmpty(); }
    void makeEmpty();
    void extend(const Point2& p);
    void extend(const Range2d& r);
    bool contains(const Point2& p) const;
    bool intersects(const Range2d& r) const;

private:
    Range1d m_r[2];
};

/// Axis-aligned box: one Range1d per axis; empty when any axis is.
class QYGEOM_API Range3d
{
public:
    Range3d() = default;
    Range3d(const Range1d& x, const Range1d& y, const Range1d& z) : m_r{x, y, z} {}

    const Range1d& operator[](int axis) const { return m_r[axis]; }
    Range1d& operator[](int axis) { return m_r[axis]; }
    bool isEmpty() const { return m_r[0].isEmpty() || m_r[1].isEmpty() || m_r[2].isEmpty(); }
    void makeEmpty();
    void extend(const Point& p);
    void extend(const Range3d& r);
    bool contains(const Point& p) const;
    bool intersects(const Range3d& r) const;
    Point minPt() const { return {m_r[0].lo(), m_r[1].lo(), m_r[2].lo()}; }
    Point maxPt() const { return {m_r[0].hi(), m_r[1].hi(), m_r[2].hi()}; }

private:
    Range1d m_r[3];
};

} // namespace qyLinear
