// The element records of the mesh arrays. Their layouts are fixed: algorithms also read the
// arrays as flat float and int arrays.
#pragma once

#include <type_traits>

#include "base/Linear.h"

namespace qyGeom
{

/// A vertex position: x, y, z in single precision.
struct MeshVertex
{
    float x, y, z;

    qyLinear::Point asPoint() const { return {x, y, z}; }
    qyLinear::PointFlt asPointFlt() const { return {x, y, z}; }
    void set(float x_, float y_, float z_)
    {
        x = x_;
        y = y_;
        z = z_;
    }
    void set(const qyLinear::Point& p) { set(float(p.x), float(p.y), float(p.z)); }
    void set(const qyLinear::PointFlt& p) { set(p.x, p.y, p.z); }
    float& operator[](int i) { return (&x)[i]; }
    float operator[](int i) const { return (&x)[i]; }
};

/// A normal: x, y, z in single precision.
struct MeshNormal
{
    float x, y, z;

    qyLinear::Vector asVector() const { return {x, y, z}; }
    qyLinear::VectorFlt asVectorFlt() const { return {x, y, z}; }
    void set(float x_, float y_, float z_)
    {
        x = x_;
        y = y_;
        z = z_;
    }
    void set(const qyLinear::Vector& v) { set(float(v.x), float(v.y), float(v.z)); }
    float& operator[](int i) { return (&x)[i]; }
    float operator[](int i) const { return (&x)[i]; }
};

/// A texture coordinate (also the record of the second texture set, the "sts").
struct MeshUV
{
    float u, v;

    void set(float u_, float v_)
    {
        u = u_;
        v = v_;
    }
    qyLinear::Point2Flt asPoint2Flt() const { return {u, v}; }
};

/// A vertex colour: red, green, blue, alpha in [0, 1].
struct MeshColour
{
    float r, g, b, a;
};

/// Three vertex indices; counter-clockwise order defines the front side.
struct MeshTriangle
{
    int v[3];

    int& operator[](int i) { return v[i]; }
    int operator[](int i) const { return v[i]; }
};

/// Two vertex indices.
struct MeshLine
{
    int v[2];

    int& operator[](int i) { return v[i]; }
    int operator[](int i) const { return v[i]; }
};

static_assert(sizeof(MeshVertex) == 3 * sizeof(float) && std::is_standard_layout_v<MeshVertex>);
static_assert(sizeof(MeshNormal) == 3 * sizeof(float) && std::is_standard_layout_v<MeshNormal>);
static_assert(sizeof(MeshUV) == 2 * sizeof(float) && std::is_standard_layout_v<MeshUV>);
static_assert(sizeof(MeshColour) == 4 * sizeof(float));
static_assert(sizeof(MeshTriangle) == 3 * sizeof(int) &&
              std::is_trivially_copyable_v<MeshTriangle>);
static_assert(sizeof(MeshLine) == 2 * sizeof(int));
static_assert(sizeof(int) == 4 && sizeof(float) == 4);

} // namespace qyGeom
