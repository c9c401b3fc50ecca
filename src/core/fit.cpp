// Plane fitting by principal components: the covariance about the centroid has the plane's
// normal as the eigenvector of its smallest eigenvalue. The eigen-solver is cyclic Jacobi
// (Golub and Van Loan, Matrix Computations, 8.5): slower than a closed-form cubic but exact
// to rounding for nearly equal eigenvalues, which are the common case here (flat fans have
// two large and one near-zero eigenvalue; round fans two equal ones).
#include "qyGeom/fit.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>

#include "detail/avx2.h"
#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
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
bool planeOf(const Point& centroid, const double values[3], const Vector& smallest,
             qyLinear::Plane& plane)
{
    plane = qyLinear::Plane(centroid, qyLinear::Normal(smallest));
    // The plane is unique when the middle eigenvalue stands clear of the smallest; for
    // points on a line (or one point) the two smallest vanish together.
    return values[1] > values[0] && values[1] > 1e-12 * values[2];
}

// Whether the AVX2 forms may be used (see allowAvx2).
std::atomic<bool> avx2Allowed{true};

// K doubles to a vector register, with the lane masks of their comparisons: SSE2's two, and
// AVX2's four for the functions compiled for it. The helpers take and give vectors by
// reference: a 32-byte vector passed by value between a function compiled for AVX and one
// that is not would be passed differently on each side (this happens when fitQuads does not
// inline fitLanes, as without optimisation).
template <int K> struct Lanes;

template <> struct Lanes<2>
{
    typedef double Vec __attribute__((vector_size(16)));
    typedef long long Mask __attribute__((vector_size(16)));
    static void sqrt(const Vec& x, Vec& root)
    {
#if defined(__SSE2__)
        root = _mm_sqrt_pd(x);
#else
        root = Vec{std::sqrt(x[0]), std::sqrt(x[1])};
#endif
    }
};

#if defined(__x86_64__) || defined(__i386__)
#define QYGEOM_FIT_AVX2 1
template <> struct Lanes<4>
{
    typedef double Vec __attribute__((vector_size(32)));
    typedef long long Mask __attribute__((vector_size(32)));
    __attribute__((target("avx2"))) static void sqrt(const Vec& x, Vec& root)
    {
        root = _mm256_sqrt_pd(x);
    }
};
#endif

// Whether every lane, or any lane, of a mask is set.
template <int K> bool allLanes(const typename Lanes<K>::Mask& m)
{
    for (int k = 0; k < K; ++k)
        if (m[k] == 0)
            return false;
    return true;
}

template <int K> bool anyLane(const typename Lanes<K>::Mask& m)
{
    for (int k = 0; k < K; ++k)
        if (m[k] != 0)
            return true;
    return false;
}

// The 32-byte vectors of Lanes<4> stay inside fitLanes or go by reference, so the warning
// about their passing convention without AVX does not apply.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wpsabi"
// The fits of up to K W consecutive sets, K to a vector register: the centroids and
// covariances, the solves and the planes. Every lane computes exactly what covariance,
// eigenLanes and planeOf compute for its set, operation for operation: the sums run over its
// own points in order (the points beyond the shortest set of a register are added to their
// own lanes alone), the rotation of a lane that is done, or whose entry is already zero, is
// computed and then dropped by a select, and a lane whose set cannot be fitted is idle from
// the start. So the results are those of fit bit for bit, while the packed divisions and
// square roots raise the throughput of the chains that bound the solve.
template <int K, int W>
inline void fitLanes(int count, const int* n, const Point* const* points, qyLinear::Plane* planes,
                     bool* fitted)
{
    // K lanes of doubles, and the masks their comparisons give.
    typedef typename Lanes<K>::Vec Pack;
    typedef typename Lanes<K>::Mask Mask;
    // fabs of a lane is the lane with its sign bit cleared: Pack(Mask(x) & noSign).
    const Mask noSign = Mask{} + 0x7FFFFFFFFFFFFFFFll;
    const Pack one = Pack{} + 1.0;
    const Pack zero = Pack{};
    Pack centroid[3][W];
    Pack scale[W];
    Pack a[3][3][W];
    Pack v[3][3][W];
    Mask live[W];
    for (int x = 0; x < W; ++x)
    {
        int size[K];
        const Point* set[K];
        int both = std::numeric_limits<int>::max();
        for (int y = 0; y < K; ++y)
        {
            const int l = K * x + y;
            size[y] = l < count ? std::max(n[l], 0) : 0;
            set[y] = size[y] > 0 ? points[l] : nullptr;
            both = std::min(both, size[y]);
        }
        // Coordinate i of every set of the register, by reference: see the note on Lanes<4>.
        const auto load = [&](int i, double Point::*coordinate, Pack& value)
        {
            for (int y = 0; y < K; ++y)
                value[y] = set[y][i].*coordinate;
        };
        Pack sx = zero, sy = zero, sz = zero;
        for (int i = 0; i < both; ++i)
        {
            Pack px{}, py{}, pz{};
            load(i, &Point::x, px);
            load(i, &Point::y, py);
            load(i, &Point::z, pz);
            sx += px;
            sy += py;
            sz += pz;
        }
        for (int y = 0; y < K; ++y)
            for (int i = both; i < size[y]; ++i)
            {
                sx[y] += set[y][i].x;
                sy[y] += set[y][i].y;
                sz[y] += set[y][i].z;
            }
        Pack divisor;
        Mask some;
        for (int y = 0; y < K; ++y)
        {
            divisor[y] = double(std::max(size[y], 1));
            some[y] = size[y] > 0 ? -1 : 0;
        }
        const Pack cx = sx / divisor, cy = sy / divisor, cz = sz / divisor;
        centroid[0][x] = cx;
        centroid[1][x] = cy;
        centroid[2][x] = cz;
        const Pack infinity = Pack{} + HUGE_VAL;
        const Mask finite = (Pack(Mask(cx) & noSign) < infinity) &
                            (Pack(Mask(cy) & noSign) < infinity) &
                            (Pack(Mask(cz) & noSign) < infinity);
        live[x] = finite & some;

        Pack A00 = zero, A01 = zero, A02 = zero, A11 = zero, A12 = zero, A22 = zero;
        for (int i = 0; i < both; ++i)
        {
            Pack px{}, py{}, pz{};
            load(i, &Point::x, px);
            load(i, &Point::y, py);
            load(i, &Point::z, pz);
            const Pack dx = px - cx, dy = py - cy, dz = pz - cz;
            A00 += dx * dx;
            A01 += dx * dy;
            A02 += dx * dz;
            A11 += dy * dy;
            A12 += dy * dz;
            A22 += dz * dz;
        }
        for (int y = 0; y < K; ++y)
            for (int i = both; i < size[y]; ++i)
            {
                const Point& q = set[y][i];
                const double dx = q.x - cx[y], dy = q.y - cy[y], dz = q.z - cz[y];
                A00[y] += dx * dx;
                A01[y] += dx * dy;
                A02[y] += dx * dz;
                A11[y] += dy * dy;
                A12[y] += dy * dz;
                A22[y] += dz * dz;
            }

        // matrixScale of every lane: the largest magnitude (a NaN entry is passed over, as
        // std::max passes it over), or 1 when that is zero or not finite.
        const Pack entries[6] = {A00, A01, A02, A11, A12, A22};
        Pack largest = zero;
        for (const Pack e : entries)
        {
            const Pack magnitude = Pack(Mask(e) & noSign);
            largest = largest < magnitude ? magnitude : largest;
        }
        const Mask usable = (largest > zero) & (largest < infinity) & live[x];
        scale[x] = usable ? largest : one;
        const Pack inv = one / scale[x];
        const Pack m[3][3] = {{A00, A01, A02}, {A01, A11, A12}, {A02, A12, A22}};
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j)
            {
                a[i][j][x] = live[x] ? m[i][j] * inv : zero;
                v[i][j][x] = i == j ? one : zero;
            }
    }
    Mask live0[W];
    for (int x = 0; x < W; ++x)
        live0[x] = live[x];

    const Pack tolerance = Pack{} + 1e-3;
    for (int sweep = 0; sweep < 32; ++sweep)
    {
        // The convergence test of every lane at once: the packed sums add in the scalar
        // order, so each lane decides as a solve on its own does.
        Mask any = Mask{};
        for (int x = 0; x < W; ++x)
        {
            const Pack off = Pack(Mask(a[0][1][x]) & noSign) + Pack(Mask(a[0][2][x]) & noSign) +
                             Pack(Mask(a[1][2][x]) & noSign);
            const Pack diag = Pack(Mask(a[0][0][x]) & noSign) + Pack(Mask(a[1][1][x]) & noSign) +
                              Pack(Mask(a[2][2][x]) & noSign);
            live[x] = live[x] & ~((off == zero) | (diag + off * tolerance == diag));
            any |= live[x];
        }
        if (!anyLane<K>(any))
            break;
        for (int p = 0; p < 2; ++p)
            for (int q = p + 1; q < 3; ++q)
            {
                // Stage by stage over the W registers rather than register by register, so
                // that their chains of divisions and square roots are in flight together.
                const int r = 3 - p - q;
                Mask on[W];
                Pack t[W], c[W], s[W];
                for (int x = 0; x < W; ++x)
                {
                    const Pack apq = a[p][q][x];
                    on[x] = live[x] & (apq != zero);
                    t[x] = (a[q][q][x] - a[p][p][x]) / (2.0 * apq);
                }
                for (int x = 0; x < W; ++x)
                {
                    const Pack theta = t[x];
                    const Pack sign = theta >= zero ? one : -one;
                    Pack root;
                    Lanes<K>::sqrt(theta * theta + one, root);
                    t[x] = sign / (Pack(Mask(theta) & noSign) + root);
                }
                for (int x = 0; x < W; ++x)
                {
                    Pack root;
                    Lanes<K>::sqrt(t[x] * t[x] + one, root);
                    c[x] = one / root;
                    s[x] = t[x] * c[x];
                }
                for (int x = 0; x < W; ++x)
                {
                    const Pack apq = a[p][q][x];
                    const Pack app = a[p][p][x], aqq = a[q][q][x];
                    const Pack arp = a[r][p][x], arq = a[r][q][x];
                    const Pack cx = c[x], sx = s[x];
                    const Pack cpp = cx * app - sx * apq, cqp = cx * apq - sx * aqq;
                    const Pack cpq = sx * app + cx * apq, cqq = sx * apq + cx * aqq;
                    // All lanes rotating, the common case, needs no selects.
                    if (allLanes<K>(on[x]))
                    {
                        a[p][p][x] = cx * cpp - sx * cqp;
                        a[q][q][x] = sx * cpq + cx * cqq;
                        a[r][p][x] = a[p][r][x] = cx * arp - sx * arq;
                        a[r][q][x] = a[q][r][x] = sx * arp + cx * arq;
                        a[p][q][x] = a[q][p][x] = zero;
                        for (int k = 0; k < 3; ++k)
                        {
                            const Pack vkp = v[k][p][x], vkq = v[k][q][x];
                            v[k][p][x] = cx * vkp - sx * vkq;
                            v[k][q][x] = sx * vkp + cx * vkq;
                        }
                        continue;
                    }
                    a[p][p][x] = on[x] ? cx * cpp - sx * cqp : app;
                    a[q][q][x] = on[x] ? sx * cpq + cx * cqq : aqq;
                    a[r][p][x] = a[p][r][x] = on[x] ? cx * arp - sx * arq : arp;
                    a[r][q][x] = a[q][r][x] = on[x] ? sx * arp + cx * arq : arq;
                    a[p][q][x] = a[q][p][x] = on[x] ? zero : apq;
                    for (int k = 0; k < 3; ++k)
                    {
                        const Pack vkp = v[k][p][x], vkq = v[k][q][x];
                        v[k][p][x] = on[x] ? cx * vkp - sx * vkq : vkp;
                        v[k][q][x] = on[x] ? sx * vkp + cx * vkq : vkq;
                    }
                }
            }
    }

    for (int l = 0; l < count; ++l)
    {
        const int x = l / K, y = l % K;
        if (!live0[x][y])
        {
            fitted[l] = false;
            continue;
        }
        // The diagonal in ascending order, ties in index order, as eigenLanes's std::sort
        // (an insertion sort for three) leaves it: without a NaN that is each entry's rank.
        const double d[3] = {a[0][0][x][y], a[1][1][x][y], a[2][2][x][y]};
        int order[3] = {0, 1, 2};
        if (d[0] == d[0] && d[1] == d[1] && d[2] == d[2])
        {
            order[int(d[1] < d[0]) + int(d[2] < d[0])] = 0;
            order[int(d[0] <= d[1]) + int(d[2] < d[1])] = 1;
            order[int(d[0] <= d[2]) + int(d[1] <= d[2])] = 2;
        }
        else
            std::sort(order, order + 3, [&](int i, int j) { return d[i] < d[j]; });
        double values[3];
        for (int i = 0; i < 3; ++i)
            values[i] = d[order[i]] * scale[x][y];
        const int k = order[0];
        const Vector smallest(v[0][k][x][y], v[1][k][x][y], v[2][k][x][y]);
        const Point c(centroid[0][x][y], centroid[1][x][y], centroid[2][x][y]);
        fitted[l] = planeOf(c, values, smallest, planes[l]);
    }
}
#pragma GCC diagnostic pop

template <int W>
void fitPairs(int count, const int* n, const Point* const* points, qyLinear::Plane* planes,
              bool* fitted)
{
    fitLanes<2, W>(count, n, points, planes, fitted);
}

#if defined(QYGEOM_FIT_AVX2)
// The same, four to a register, where the processor has AVX2 (fitEach asks): fitLanes and
// its helpers are all compiled into this function for AVX2, without FMA, which would change
// the roundings.
template <int W>
__attribute__((target("avx2"), flatten)) void
fitQuads(int count, const int* n, const Point* const* points, qyLinear::Plane* planes, bool* fitted)
{
    fitLanes<4, W>(count, n, points, planes, fitted);
}
#endif

} // namespace

bool detail::allowAvx2(bool allow)
{
    return avx2Allowed.exchange(allow);
}

bool detail::useAvx2()
{
#if defined(QYGEOM_FIT_AVX2)
    static const bool hasAvx2 = __builtin_cpu_supports("avx2");
    return hasAvx2 && avx2Allowed.load(std::memory_order_relaxed);
#else
    return false;
#endif
}

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
    return planeOf(centroid, values, vectors[0], plane);
}

void fitEach(int count, const int* n, const Point* const* points, qyLinear::Plane* planes,
             bool* fitted)
{
#if defined(QYGEOM_FIT_AVX2)
    const bool avx2 = detail::useAvx2();
#endif
    // Eight sets at a time, in as few registers as they need. (Sixteen are no faster: the
    // rotations' updates, waiting on the chains, already fill the scheduler.)
    for (int first = 0; first < count; first += 8)
    {
        const int size = std::min(count - first, 8);
        const int* groupN = n + first;
        const Point* const* groupPoints = points + first;
        qyLinear::Plane* groupPlanes = planes + first;
        bool* groupFitted = fitted + first;
#if defined(QYGEOM_FIT_AVX2)
        if (avx2)
        {
            if (size > 4)
                fitQuads<2>(size, groupN, groupPoints, groupPlanes, groupFitted);
            else
                fitQuads<1>(size, groupN, groupPoints, groupPlanes, groupFitted);
            continue;
        }
#endif
        if (size > 6)
            fitPairs<4>(size, groupN, groupPoints, groupPlanes, groupFitted);
        else if (size > 4)
            fitPairs<3>(size, groupN, groupPoints, groupPlanes, groupFitted);
        else if (size > 2)
            fitPairs<2>(size, groupN, groupPoints, groupPlanes, groupFitted);
        else
            fitPairs<1>(size, groupN, groupPoints, groupPlanes, groupFitted);
    }
}

} // namespace qyGeom
