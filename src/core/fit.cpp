// Plane fitting by principal components: the covariance about the centroid has the plane's
// normal as the eigenvector of its smallest eigenvalue. The eigen-solver is cyclic Jacobi
// (Golub and Van Loan, Matrix Computations, 8.5): slower than a closed-form cubic but exact
// to rounding for nearly equal eigenvalues, which are the common case here (flat fans have
// two large and one near-zero eigenvalue; round fans two equal ones).
#include "qyGeom/fit.h"

#include <algorithm>
#include <cmath>

namespace qyGeom
{

using qyLinear::Point;
using qyLinear::Vector;

void eigenSymmetric3(const double A[3][3], double values[3], Vector vectors[3])
{
    double scale = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j)
            scale = std::max(scale, std::fabs(A[i][j]));
    double a[3][3];
    if (!(scale > 0.0) || !std::isfinite(scale))
        scale = 1.0;
    const double inv = 1.0 / scale;
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j)
            a[i][j] = a[j][i] = A[i][j] * inv;
    double v[3][3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

    // Each sweep zeroes the three off-diagonal entries in turn; convergence is quadratic, so a
    // handful of sweeps reach rounding level. The loop stops as soon as the off-diagonal part
    // no longer changes the diagonal.
    for (int sweep = 0; sweep < 32; ++sweep)
    {
        const double off = std::fabs(a[0][1]) + std::fabs(a[0][2]) + std::fabs(a[1][2]);
        const double diag = std::fabs(a[0][0]) + std::fabs(a[1][1]) + std::fabs(a[2][2]);
        if (off == 0.0 || diag + off * 1e-3 == diag)
            break;
        for (int p = 0; p < 2; ++p)
            for (int q = p + 1; q < 3; ++q)
            {
                const double apq = a[p][q];
                if (apq == 0.0)
                    continue;
                const double theta = (a[q][q] - a[p][p]) / (2.0 * apq);
                const double t = (theta >= 0.0 ? 1.0 : -1.0) /
                                 (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
                const double c = 1.0 / std::sqrt(t * t + 1.0);
                const double s = t * c;
                for (int k = 0; k < 3; ++k)
                {
                    const double akp = a[k][p], akq = a[k][q];
                    a[k][p] = c * akp - s * akq;
                    a[k][q] = s * akp + c * akq;
                }
                for (int k = 0; k < 3; ++k)
                {
                    const double apk = a[p][k], aqk = a[q][k];
                    a[p][k] = c * apk - s * aqk;
                    a[q][k] = s * apk + c * aqk;
                }
                a[p][q] = a[q][p] = 0.0;
                for (int k = 0; k < 3; ++k)
                {
                    const double vkp = v[k][p], vkq = v[k][q];
                    v[k][p] = c * vkp - s * vkq;
                    v[k][q] = s * vkp + c * vkq;
                }
            }
    }

    int order[3] = {0, 1, 2};
    std::sort(order, order + 3, [&](int i, int j) { return a[i][i] < a[j][j]; });
    for (int i = 0; i < 3; ++i)
    {
        const int k = order[i];
        values[i] = a[k][k] * scale;
        vectors[i] = Vector(v[0][k], v[1][k], v[2][k]);
    }
}

bool fit(int n, const Point* points, qyLinear::Plane& plane)
{
    if (n < 1)
        return false;
    double cx = 0.0, cy = 0.0, cz = 0.0;
    for (int i = 0; i < n; ++i)
    {
        cx += points[i].x;
        cy += points[i].y;
        cz += points[i].z;
    }
    const Point centroid(cx / n, cy / n, cz / n);
    if (!std::isfinite(centroid.x) || !std::isfinite(centroid.y) || !std::isfinite(centroid.z))
        return false;

    double A[3][3] = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}};
    for (int i = 0; i < n; ++i)
    {
        const Vector d = points[i] - centroid;
        A[0][0] += d.x * d.x;
        A[0][1] += d.x * d.y;
        A[0][2] += d.x * d.z;
        A[1][1] += d.y * d.y;
        A[1][2] += d.y * d.z;
        A[2][2] += d.z * d.z;
    }
    double values[3];
    Vector vectors[3];
    eigenSymmetric3(A, values, vectors);
    plane = qyLinear::Plane(centroid, qyLinear::Normal(vectors[0]));
    // The plane is unique when the middle eigenvalue stands clear of the smallest; for
    // points on a line (or one point) the two smallest vanish together.
    return values[1] > values[0] && values[1] > 1e-12 * values[2];
}

} // namespace qyGeom
