// Plane fitting by principal components: the covariance about the centroid has the plane's
// normal as the eigenvector of its smallest eigenvalue. The eigen-solver is cyclic Jacobi
// (Golub and Van Loan, Matrix Computations, 8.5): slower than a closed-form cubic but exact
// to rounding for nearly equal eigenvalues, which are the common case here (flat fans have
// two large and one near-zero eigenvalue; round fans two equal ones).
#include "qyGeom/fit.h"

#include <algorithm>
#include <cmath>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qyGeom
{

using qyLinear::Point;
using qyLinear::Vector;

namespace
{

// The largest magnitude in the upper triangle of a symmetric matrix, or 1 when that is zero or
// not finite: the matrix is divided by it before the rotations.
double matrixScale(const double (*A)[3])
{
    double scale = 0.0;
    for (int i = 0; i < 3; ++i)
        for (int j = i; j < 3; ++j)
            scale = std::max(scale, std::fabs(A[i][j]));
    return scale > 0.0 && std::isfinite(scale) ? scale : 1.0;
}

// The Jacobi solve of L matrices side by side. Each lane runs exactly the operations of a
// solve on its own (a lane that has converged stops rotating while the others go on), so its
// results do not depend on its company; with several lanes the processor overlaps their chains
// of divisions and square roots, which a single solve leaves waiting on each other.
template <int L>
void eigenLanes(const double (*const* A)[3], double* const* values, Vector* const* vectors)
{
    double scale[L];
    double a[L][3][3];
    double v[L][3][3];
    bool active[L];
    for (int l = 0; l < L; ++l)
    {
        scale[l] = matrixScale(A[l]);
        const double inv = 1.0 / scale[l];
        for (int i = 0; i < 3; ++i)
            for (int j = i; j < 3; ++j)
                a[l][i][j] = a[l][j][i] = A[l][i][j] * inv;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                v[l][i][j] = i == j ? 1.0 : 0.0;
        active[l] = true;
    }

    // Each sweep zeroes the three off-diagonal entries in turn; convergence is quadratic, so a
    // handful of sweeps reach rounding level. A lane stops as soon as its off-diagonal part no
    // longer changes its diagonal.
    for (int sweep = 0; sweep < 32; ++sweep)
    {
        bool any = false;
        for (int l = 0; l < L; ++l)
        {
            if (!active[l])
                continue;
            const double off =
                std::fabs(a[l][0][1]) + std::fabs(a[l][0][2]) + std::fabs(a[l][1][2]);
            const double diag =
                std::fabs(a[l][0][0]) + std::fabs(a[l][1][1]) + std::fabs(a[l][2][2]);
            active[l] = !(off == 0.0 || diag + off * 1e-3 == diag);
            any = any || active[l];
        }
        if (!any)
            break;
        for (int p = 0; p < 2; ++p)
            for (int q = p + 1; q < 3; ++q)
                for (int l = 0; l < L; ++l)
                {
                    const double apq = a[l][p][q];
                    if (!active[l] || apq == 0.0)
                        continue;
                    double(&m)[3][3] = a[l];
                    double(&w)[3][3] = v[l];
                    const double theta = (m[q][q] - m[p][p]) / (2.0 * apq);
                    const double t = (theta >= 0.0 ? 1.0 : -1.0) /
                                     (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
                    const double c = 1.0 / std::sqrt(t * t + 1.0);
                    const double s = t * c;
                    // The rotation applied to the columns p and q, then to the rows. The
                    // matrix stays symmetric bit for bit (the row update of an entry repeats
                    // the column update of its mirror on the same values), so each changed
                    // pair of mirrored entries is computed once.
                    const int r = 3 - p - q;
                    const double app = m[p][p], aqq = m[q][q], arp = m[r][p], arq = m[r][q];
                    const double cpp = c * app - s * apq, cqp = c * apq - s * aqq;
                    const double cpq = s * app + c * apq, cqq = s * apq + c * aqq;
                    m[p][p] = c * cpp - s * cqp;
                    m[q][q] = s * cpq + c * cqq;
                    m[r][p] = m[p][r] = c * arp - s * arq;
                    m[r][q] = m[q][r] = s * arp + c * arq;
                    m[p][q] = m[q][p] = 0.0;
                    for (int k = 0; k < 3; ++k)
                    {
                        const double vkp = w[k][p], vkq = w[k][q];
                        w[k][p] = c * vkp - s * vkq;
                        w[k][q] = s * vkp + c * vkq;
                    }
                }
    }

    for (int l = 0; l < L; ++l)
    {
        int order[3] = {0, 1, 2};
        std::sort(order, order + 3, [&](int i, int j) { return a[l][i][i] < a[l][j][j]; });
        for (int i = 0; i < 3; ++i)
        {
            const int k = order[i];
            values[l][i] = a[l][k][k] * scale[l];
            vectors[l][i] = Vector(v[l][0][k], v[l][1][k], v[l][2][k]);
        }
    }
}

// The same solves with two lanes to a vector register. Every lane computes exactly what
// eigenLanes computes for it, operation for operation (the rotation of a lane that is done, or
// whose entry is already zero, is computed and then dropped by a select), so the results are
// those of the scalar solve bit for bit; the packed divisions and square roots double the
// throughput of the chains that bound the solve. W vectors hold 2W lanes; a lane beyond
// `count` is idle from the start.
typedef double Pair __attribute__((vector_size(16)));
typedef long long PairMask __attribute__((vector_size(16)));

inline Pair sqrtPair(Pair x)
{
#if defined(__SSE2__)
    return _mm_sqrt_pd(x);
#else
    return Pair{std::sqrt(x[0]), std::sqrt(x[1])};
#endif
}

// fabs of each lane: the sign bits cleared.
inline Pair absPair(Pair x)
{
    const PairMask sign = {0x7FFFFFFFFFFFFFFFll, 0x7FFFFFFFFFFFFFFFll};
    return Pair(PairMask(x) & sign);
}

template <int W>
void eigenPairs(int count, const double (*const* A)[3], double* const* values,
                Vector* const* vectors)
{
    constexpr int L = 2 * W;
    double scale[L];
    Pair a[3][3][W];
    Pair v[3][3][W];
    PairMask live[W];
    for (int l = 0; l < L; ++l)
    {
        const int x = l / 2, y = l % 2;
        const bool used = l < count;
        scale[l] = used ? matrixScale(A[l]) : 1.0;
        const double inv = 1.0 / scale[l];
        for (int i = 0; i < 3; ++i)
            for (int j = i; j < 3; ++j)
                a[i][j][x][y] = a[j][i][x][y] = used ? A[l][i][j] * inv : 0.0;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
                v[i][j][x][y] = i == j ? 1.0 : 0.0;
        live[x][y] = used ? -1 : 0;
    }

    const Pair one = {1.0, 1.0};
    const Pair zero = {0.0, 0.0};
    const Pair tolerance = {1e-3, 1e-3};
    for (int sweep = 0; sweep < 32; ++sweep)
    {
        // The convergence test of every lane at once: the packed sums add in the scalar
        // order, so each lane decides as a solve on its own does.
        PairMask any = {0, 0};
        for (int x = 0; x < W; ++x)
        {
            const Pair off = absPair(a[0][1][x]) + absPair(a[0][2][x]) + absPair(a[1][2][x]);
            const Pair diag = absPair(a[0][0][x]) + absPair(a[1][1][x]) + absPair(a[2][2][x]);
            live[x] = live[x] & ~((off == zero) | (diag + off * tolerance == diag));
            any |= live[x];
        }
        if ((any[0] | any[1]) == 0)
            break;
        for (int p = 0; p < 2; ++p)
            for (int q = p + 1; q < 3; ++q)
            {
                // Stage by stage over the W registers rather than register by register, so
                // that their chains of divisions and square roots are in flight together.
                const int r = 3 - p - q;
                PairMask on[W];
                Pair t[W], c[W], s[W];
                for (int x = 0; x < W; ++x)
                {
                    const Pair apq = a[p][q][x];
                    on[x] = live[x] & (apq != zero);
                    t[x] = (a[q][q][x] - a[p][p][x]) / (2.0 * apq);
                }
                for (int x = 0; x < W; ++x)
                {
                    const Pair theta = t[x];
                    const Pair sign = theta >= zero ? one : -one;
                    t[x] = sign / (absPair(theta) + sqrtPair(theta * theta + one));
                }
                for (int x = 0; x < W; ++x)
                {
                    c[x] = one / sqrtPair(t[x] * t[x] + one);
                    s[x] = t[x] * c[x];
                }
                for (int x = 0; x < W; ++x)
                {
                    const Pair apq = a[p][q][x];
                    const Pair app = a[p][p][x], aqq = a[q][q][x];
                    const Pair arp = a[r][p][x], arq = a[r][q][x];
                    const Pair cx = c[x], sx = s[x];
                    const Pair cpp = cx * app - sx * apq, cqp = cx * apq - sx * aqq;
                    const Pair cpq = sx * app + cx * apq, cqq = sx * apq + cx * aqq;
                    a[p][p][x] = on[x] ? cx * cpp - sx * cqp : app;
                    a[q][q][x] = on[x] ? sx * cpq + cx * cqq : aqq;
                    a[r][p][x] = a[p][r][x] = on[x] ? cx * arp - sx * arq : arp;
                    a[r][q][x] = a[q][r][x] = on[x] ? sx * arp + cx * arq : arq;
                    a[p][q][x] = a[q][p][x] = on[x] ? zero : apq;
                    for (int k = 0; k < 3; ++k)
                    {
                        const Pair vkp = v[k][p][x], vkq = v[k][q][x];
                        v[k][p][x] = on[x] ? cx * vkp - sx * vkq : vkp;
                        v[k][q][x] = on[x] ? sx * vkp + cx * vkq : vkq;
                    }
                }
            }
    }

    for (int l = 0; l < count; ++l)
    {
        const int x = l / 2, y = l % 2;
        int order[3] = {0, 1, 2};
        std::sort(order, order + 3, [&](int i, int j) { return a[i][i][x][y] < a[j][j][x][y]; });
        for (int i = 0; i < 3; ++i)
        {
            const int k = order[i];
            values[l][i] = a[k][k][x][y] * scale[l];
            vectors[l][i] = Vector(v[0][k][x][y], v[1][k][x][y], v[2][k][x][y]);
        }
    }
}

// The centroid and the covariance about it; false (nothing set) when n < 1 or the centroid
// is not finite.
bool covariance(int n, const Point* points, Point& centroid, double A[3][3])
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
    centroid = Point(cx / n, cy / n, cz / n);
    if (!std::isfinite(centroid.x) || !std::isfinite(centroid.y) || !std::isfinite(centroid.z))
        return false;
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 3; ++j)
            A[i][j] = 0.0;
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
    return true;
}

// The plane from the solve, and whether it is determined.
bool planeOf(const Point& centroid, const double values[3], const Vector vectors[3],
             qyLinear::Plane& plane)
{
    plane = qyLinear::Plane(centroid, qyLinear::Normal(vectors[0]));
    // The plane is unique when the middle eigenvalue stands clear of the smallest; for
    // points on a line (or one point) the two smallest vanish together.
    return values[1] > values[0] && values[1] > 1e-12 * values[2];
}

} // namespace

void eigenSymmetric3(const double A[3][3], double values[3], Vector vectors[3])
{
    const double(*const matrices[1])[3] = {A};
    double* const valueLanes[1] = {values};
    Vector* const vectorLanes[1] = {vectors};
    eigenLanes<1>(matrices, valueLanes, vectorLanes);
}

bool fit(int n, const Point* points, qyLinear::Plane& plane)
{
    Point centroid;
    double A[3][3];
    if (!covariance(n, points, centroid, A))
        return false;
    double values[3];
    Vector vectors[3];
    eigenSymmetric3(A, values, vectors);
    return planeOf(centroid, values, vectors, plane);
}

void fitEach(int count, const int* n, const Point* const* points, qyLinear::Plane* planes,
             bool* fitted)
{
    // Groups of up to eight sets that can be fitted; the others are left as fit leaves them.
    constexpr int lanes = 8;
    for (int first = 0; first < count;)
    {
        Point centroid[lanes];
        double A[lanes][3][3];
        int member[lanes];
        int size = 0;
        for (; first < count && size < lanes; ++first)
        {
            fitted[first] = false;
            if (covariance(n[first], points[first], centroid[size], A[size]))
                member[size++] = first;
        }
        double values[lanes][3];
        Vector vectors[lanes][3];
        const double(*matrices[lanes])[3];
        double* valueLanes[lanes];
        Vector* vectorLanes[lanes];
        for (int l = 0; l < lanes; ++l)
        {
            matrices[l] = A[l];
            valueLanes[l] = values[l];
            vectorLanes[l] = vectors[l];
        }
        if (size > 6)
            eigenPairs<4>(size, matrices, valueLanes, vectorLanes);
        else if (size > 4)
            eigenPairs<3>(size, matrices, valueLanes, vectorLanes);
        else if (size > 2)
            eigenPairs<2>(size, matrices, valueLanes, vectorLanes);
        else if (size > 0)
            eigenPairs<1>(size, matrices, valueLanes, vectorLanes);
        for (int l = 0; l < size; ++l)
            fitted[member[l]] = planeOf(centroid[l], values[l], vectors[l], planes[member[l]]);
    }
}

} // namespace qyGeom
