// The ray/triangle arithmetic shared by the single tests and the mesh ray caster, inline so
// that both compile the same operations and agree to the last bit.
#pragma once

namespace qyGeom::detail
{

/// Below this |det| the ray counts as parallel to the triangle's plane.
inline constexpr double parallelDet = 1e-6;

/// The back-face cull distance as the tests read it (one process-wide value).
double backfaceCullDistance();

inline void sub(const float* a, const float* b, double* out)
{
    // Subtracted in single precision first: the corners are stored so.
    out[0] = double(a[0] - b[0]);
    out[1] = double(a[1] - b[1]);
    out[2] = double(a[2] - b[2]);
}

inline void cross(const double* a, const double* b, double* out)
{
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

inline double dot(const double* a, const double* b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

/// The edge-vector test on the corner p0 and the edges e1 = p1 - p0, e2 = p2 - p0 (each
/// subtracted in single precision, then widened). Returns the determinant through `det`; true
/// when the ray meets the triangle (edges inclusive), with t, u and v scaled to the hit.
/// `twoSided` false rejects back faces and near-parallel rays at once.
inline bool rayTriangleEdges(const double* dir, const float* orig, const float* p0,
                             const double* e1, const double* e2, bool twoSided, double& det,
                             double& t, double& u, double& v)
{
    double pvec[3], tvec[3], qvec[3];
    cross(dir, e2, pvec);
    det = dot(e1, pvec);
    if (det > parallelDet)
    {
        sub(orig, p0, tvec);
        u = dot(tvec, pvec);
        if (u < 0 || u > det)
            return false;
        cross(tvec, e1, qvec);
        v = dot(dir, qvec);
        if (v < 0 || u + v > det)
            return false;
    }
    else if (twoSided && det < -parallelDet)
    {
        sub(orig, p0, tvec);
        u = dot(tvec, pvec);
        if (u > 0 || u < det)
            return false;
        cross(tvec, e1, qvec);
        v = dot(dir, qvec);
        if (v > 0 || u + v < det)
            return false;
    }
    else
        return false;
    const double inv = 1.0 / det;
    t = dot(e2, qvec) * inv;
    u *= inv;
    v *= inv;
    return true;
}

/// The same test on the three corners.
inline bool rayTriangle(const double* dir, const float* orig, const float* p0, const float* p1,
                        const float* p2, bool twoSided, double& det, double& t, double& u,
                        double& v)
{
    double e1[3], e2[3];
    sub(p1, p0, e1);
    sub(p2, p0, e2);
    return rayTriangleEdges(dir, orig, p0, e1, e2, twoSided, det, t, u, v);
}

/// The full two-sided test: front faces at any t, back faces from the cull distance on.
inline bool rayTriangleTwoSided(const double* dir, const float* orig, const float* p0,
                                const float* p1, const float* p2, double cullDistance, double& t,
                                double& u, double& v)
{
    double det;
    if (!rayTriangle(dir, orig, p0, p1, p2, true, det, t, u, v))
        return false;
    return det >= 0 || t >= cullDistance;
}

} // namespace qyGeom::detail
