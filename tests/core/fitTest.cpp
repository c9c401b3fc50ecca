#include "qyGeom/fit.h"

#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "src/core/detail/avx2.h"

using namespace qyGeom;
using qyLinear::Point;
using qyLinear::Vector;

TEST(Fit, EigenSolverOnRotatedDiagonalsAtAnyScale)
{
    // R diag(d) R^T with distinct, repeated and zero eigenvalues, over 300 orders of magnitude.
    const double R[3][3] = {{0.36, 0.48, -0.8}, {-0.8, 0.6, 0.0}, {0.48, 0.64, 0.6}};
    const double diagonals[][3] = {{1, 2, 3}, {1, 1, 5}, {0, 4, 4}, {2, 2, 2}, {-1, 0, 1e-9}};
    for (const double scale : {1.0, 1e-150, 1e150})
        for (const auto& d : diagonals)
        {
            double A[3][3];
            for (int i = 0; i < 3; ++i)
                for (int j = 0; j < 3; ++j)
                {
                    A[i][j] = 0;
                    for (int k = 0; k < 3; ++k)
                        A[i][j] += R[i][k] * d[k] * R[j][k] * scale;
                }
            double values[3];
            Vector vectors[3];
            eigenSymmetric3(A, values, vectors);
            for (int i = 0; i < 3; ++i)
            {
                EXPECT_NEAR(values[i], d[i] * scale, 1e-12 * 5 * scale);
                EXPECT_NEAR(dot(vectors[i], vectors[i]), 1.0, 1e-14);
                for (int j = i + 1; j < 3; ++j)
                    EXPECT_NEAR(dot(vectors[i], vectors[j]), 0.0, 1e-14);
                for (int r = 0; r < 3; ++r)
                {
                    const double Av =
                        A[r][0] * vectors[i].x + A[r][1] * vectors[i].y + A[r][2] * vectors[i].z;
                    EXPECT_NEAR(Av, values[i] * vectors[i][r], 1e-12 * 5 * scale);
                }
            }
        }
}

TEST(Fit, PlaneThroughCentroidWithTheLeastSquaresNormal)
{
    // Points spread over a tilted plane, pushed alternately above and below it: the normal is
    // the plane's, the origin the centroid.
    const Vector n = Vector(1, -2, 2) * (1.0 / 3.0);
    const Vector u = Vector(2, 1, 0) * (1.0 / std::sqrt(5.0));
    const Vector w = cross(n, u);
    const Point o(10, -4, 7);
    std::mt19937 random(3);
    std::uniform_real_distribution<double> spread(-5, 5);
    std::vector<Point> points;
    Vector sum(0, 0, 0);
    for (int i = 0; i < 40; ++i)
    {
        const Point p = o + u * spread(random) + w * spread(random) + n * (i % 2 ? 1e-3 : -1e-3);
        points.push_back(p);
        sum = sum + (p - Point(0, 0, 0));
    }
    qyLinear::Plane plane;
    EXPECT_TRUE(fit(int(points.size()), points.data(), plane));
    EXPECT_NEAR(std::fabs(dot(plane.normal().asVector(), n)), 1.0, 1e-6);
    const Point centroid = Point(0, 0, 0) + sum * (1.0 / 40);
    EXPECT_NEAR(qyLinear::distance(plane.origin(), centroid), 0.0, 1e-12);
    // Least squares: no worse than the plane the points were made from, nor than a slightly
    // turned copy of the fit.
    const qyLinear::Plane made(o, qyLinear::Normal(n));
    const qyLinear::Plane turned(plane.origin(),
                                 qyLinear::Normal(plane.normal().asVector() + u * 1e-4));
    double fitted = 0, original = 0, other = 0;
    for (const Point& p : points)
    {
        fitted += plane.eval(p) * plane.eval(p);
        original += made.eval(p) * made.eval(p);
        other += turned.eval(p) * turned.eval(p);
    }
    EXPECT_LE(fitted, original * (1 + 1e-9));
    EXPECT_LT(fitted, other);

    // Points on a line, or a single point: no unique plane, but one through all of them.
    const Point line[] = {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {-3, -3, -3}};
    EXPECT_FALSE(fit(4, line, plane));
    for (const Point& p : line)
        EXPECT_NEAR(plane.eval(p), 0.0, 1e-12);
    EXPECT_FALSE(fit(1, line + 1, plane));
    EXPECT_NEAR(plane.eval(line[1]), 0.0, 1e-15);
    EXPECT_TRUE(plane.normal().isValid());
    const qyLinear::Plane before = plane;
    EXPECT_FALSE(fit(0, line, plane));
    EXPECT_EQ(plane.origin(), before.origin());
}

TEST(Fit, EachGivesTheResultsOfSingleFitsBitForBit)
{
    // Fans of varied sizes, flatness and scale, grouped with each other and with degenerate
    // sets (one point, collinear points, a non-finite coordinate, no point and the ones below) in
    // runs of every length from 1 to 19 (full groups of eight, then the rest, which leaves idle
    // lanes in a vector register): the lanes of a group converge after different numbers of sweeps,
    // and a set that cannot be fitted must leave its plane untouched as fit does.
    std::mt19937 random(7);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    std::vector<std::vector<Point>> sets;
    for (int s = 0; s < 40; ++s)
    {
        const int n = 3 + s % 9;
        const double flat = s % 4 == 0 ? 0.0 : std::pow(10.0, -(s % 13));
        const double scale = std::pow(10.0, (s % 7) - 3);
        std::vector<Point> points;
        for (int i = 0; i < n; ++i)
            points.emplace_back(scale * unit(random), scale * unit(random),
                                scale * flat * unit(random));
        sets.push_back(points);
    }
    sets.push_back({Point(1, 2, 3)});
    sets.push_back({Point(0, 0, 0), Point(1, 1, 1), Point(2, 2, 2)});
    sets.push_back({Point(0, 0, 0), Point(1, 0, 0), Point(0, std::nan(""), 0)});
    sets.push_back({});
    // Exactly equal eigenvalues (the square's two in-plane ones), coordinates whose squares
    // overflow (the solve runs on infinities and NaNs), and signed zeros.
    sets.push_back(
        {Point(1, 1, 0), Point(-1, 1, 0), Point(-1, -1, 0), Point(1, -1, 0), Point(0, 0, 0)});
    sets.push_back({Point(1e300, -1e300, 2e300), Point(-1e300, 3e300, 0), Point(0, 0, 1e300),
                    Point(2e300, 1e300, -3e300)});
    sets.push_back({Point(-0.0, 0, -0.0), Point(-0.0, 1, -0.0), Point(1, -0.0, -0.0),
                    Point(-0.0, -0.0, -0.0)});
    const std::size_t special = 7;

    const auto same = [](const qyLinear::Plane& a, const qyLinear::Plane& b)
    {
        const Point ao = a.origin(), bo = b.origin();
        const Vector an = a.normal().asVector(), bn = b.normal().asVector();
        return std::memcmp(&ao, &bo, sizeof ao) == 0 && std::memcmp(&an, &bn, sizeof an) == 0;
    };
    const qyLinear::Plane untouched(Point(9, 9, 9), qyLinear::Normal(Vector(1, 0, 0)));
    // With AVX2 (where the processor has it) four sets to a register, and two without.
    for (const bool avx2 : {true, false})
    {
        const bool previous = detail::allowAvx2(avx2);
        for (int length = 1; length <= 19; ++length)
            for (std::size_t first = 0; first + std::size_t(length) <= sets.size(); first += 2)
            {
                std::vector<int> n;
                std::vector<const Point*> points;
                for (int i = 0; i < length; ++i)
                {
                    // Interleave the degenerate sets at the end with the regular ones.
                    const std::size_t s = i % 3 == 2
                                              ? sets.size() - 1 - (first + std::size_t(i)) % special
                                              : first + std::size_t(i);
                    n.push_back(int(sets[s].size()));
                    points.push_back(sets[s].data());
                }
                std::vector<qyLinear::Plane> planes(std::size_t(length), untouched);
                std::unique_ptr<bool[]> fitted(new bool[std::size_t(length)]);
                fitEach(length, n.data(), points.data(), planes.data(), fitted.get());
                for (int l = 0; l < length; ++l)
                {
                    qyLinear::Plane single = untouched;
                    const bool result = fit(n[std::size_t(l)], points[std::size_t(l)], single);
                    EXPECT_EQ(fitted[std::size_t(l)], result)
                        << avx2 << " " << first << " " << length << " " << l;
                    EXPECT_TRUE(same(planes[std::size_t(l)], single))
                        << avx2 << " " << first << " " << length << " " << l;
                }
            }
        detail::allowAvx2(previous);
    }
}
