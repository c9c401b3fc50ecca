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

/// rayTriangleEdges (two-sided) on four triangles at once. `rows` holds them coordinate by
/// coordinate (rows[row][lane]): rows 0 to 2 the first corner, 3 to 5 the edge p1 - p0, 6 to 8
/// the edge p2 - p0, the edges subtracted in single precision as rayTriangle does it; a lane
/// of zeros has determinant 0 and never hits. Each lane runs the same operations in the same
/// order as the scalar test, so its det, t, u and v are that test's to the last bit; there
/// are no branches, so that the loop vectorises and unpredictable outcomes cost nothing, and
/// the division is done for every lane. u and v are left unscaled (times det): only the hit
/// kept needs them divided. Returns the mask of the lanes that the scalar test accepts (a
/// comparison with NaN rejects nothing there, nor here).
inline int rayTriangleBlock(const double* dir, const float* orig, const float (*rows)[4],
                            double* det, double* t, double* u, double* v)
{
#if defined(__GNUC__)
    // Two lanes at a time in the compiler's vector types: two doubles fill an SSE2 register,
    // the baseline of x86-64, and other targets split them as they must.
    typedef double Double2 __attribute__((vector_size(16)));
    typedef long long Mask2 __attribute__((vector_size(16)));
    int mask = 0;
    for (int h = 0; h < 4; h += 2)
    {
        const auto lanes = [&](int row) { return Double2{rows[row][h], rows[row][h + 1]}; };
        const auto offset = [&](int k) {
            return Double2{double(orig[k] - rows[k][h]), double(orig[k] - rows[k][h + 1])};
        };
        const Double2 e1x = lanes(3), e1y = lanes(4), e1z = lanes(5);
        const Double2 e2x = lanes(6), e2y = lanes(7), e2z = lanes(8);
        const Double2 tx = offset(0), ty = offset(1), tz = offset(2);
        const Double2 px = dir[1] * e2z - dir[2] * e2y, py = dir[2] * e2x - dir[0] * e2z,
                      pz = dir[0] * e2y - dir[1] * e2x;
        const Double2 d = e1x * px + e1y * py + e1z * pz;
        const Double2 uu = tx * px + ty * py + tz * pz;
        const Double2 qx = ty * e1z - tz * e1y, qy = tz * e1x - tx * e1z, qz = tx * e1y - ty * e1x;
        const Double2 vv = dir[0] * qx + dir[1] * qy + dir[2] * qz;
        const Double2 sum = uu + vv;
        const Double2 tt = (e2x * qx + e2y * qy + e2z * qz) * (1.0 / d);
        const Mask2 front = (d > parallelDet) & ~(uu < 0) & ~(uu > d) & ~(vv < 0) & ~(sum > d);
        const Mask2 back = (d < -parallelDet) & ~(uu > 0) & ~(uu < d) & ~(vv > 0) & ~(sum < d);
        const Mask2 hit = front | back;
        for (int l = 0; l < 2; ++l)
        {
            det[h + l] = d[l];
            t[h + l] = tt[l];
            u[h + l] = uu[l];
            v[h + l] = vv[l];
            mask |= int(hit[l] & 1) << (h + l);
        }
    }
    return mask;
#else
    int mask = 0;
    for (int l = 0; l < 4; ++l)
    {
        const double e1[3] = {rows[3][l], rows[4][l], rows[5][l]};
        const double e2[3] = {rows[6][l], rows[7][l], rows[8][l]};
        const double tvec[3] = {double(orig[0] - rows[0][l]), double(orig[1] - rows[1][l]),
                                double(orig[2] - rows[2][l])};
        double pvec[3], qvec[3];
        cross(dir, e2, pvec);
        const double d = dot(e1, pvec);
        const double uu = dot(tvec, pvec);
        cross(tvec, e1, qvec);
        const double vv = dot(dir, qvec);
        const double sum = uu + vv;
        t[l] = dot(e2, qvec) * (1.0 / d);
        det[l] = d;
        u[l] = uu;
        v[l] = vv;
        const bool front = (d > parallelDet) & !(uu < 0) & !(uu > d) & !(vv < 0) & !(sum > d);
        const bool back = (d < -parallelDet) & !(uu > 0) & !(uu < d) & !(vv > 0) & !(sum < d);
        mask |= int(front | back) << l;
    }
    return mask;
#endif
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
