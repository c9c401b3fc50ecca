#include "qyGeom/polygonTriangulate.h"

#include <cmath>
#include <set>
#include <vector>

#include <gtest/gtest.h>

using qyLinear::Point;

namespace
{

// Signed area of triangle (a, b, c) seen from `up`.
double signedArea(const Point& a, const Point& b, const Point& c, const qyLinear::Vector& up)
{
    return 0.5 * qyLinear::dot(qyLinear::cross(b - a, c - a), up);
}

// Checks n - 2 triangles over valid, distinct corners; every polygon edge used exactly once in
// the polygon's direction; the triangles' areas sum to the polygon's; none is inverted.
void expectCovers(const std::vector<Point>& poly, const std::vector<int>& tris)
{
    const int n = int(poly.size());
    ASSERT_EQ(int(tris.size()), 3 * (n - 2));
    const qyLinear::Vector up = qyGeom::polygonNormal(n, poly.data()).asVector();
    std::set<std::pair<int, int>> directed;
    double area = 0.0;
    for (std::size_t t = 0; t < tris.size(); t += 3)
    {
        const int a = tris[t], b = tris[t + 1], c = tris[t + 2];
        ASSERT_TRUE(a >= 0 && a < n && b >= 0 && b < n && c >= 0 && c < n);
        EXPECT_TRUE(a != b && b != c && a != c);
        const double s =
            signedArea(poly[std::size_t(a)], poly[std::size_t(b)], poly[std::size_t(c)], up);
        EXPECT_GE(s, -1e-12) << "inverted triangle " << t / 3;
        area += s;
        directed.insert({a, b});
        directed.insert({b, c});
        directed.insert({c, a});
    }
    double polyArea = 0.0;
    for (int i = 1; i + 1 < n; ++i)
        polyArea += signedArea(poly[0], poly[std::size_t(i)], poly[std::size_t(i) + 1], up);
    EXPECT_NEAR(area, polyArea, 1e-9 * std::max(1.0, std::fabs(polyArea)));
    for (int i = 0; i < n; ++i)
        EXPECT_TRUE(directed.count({i, (i + 1) % n})) << "edge " << i << " missing";
}

} // namespace

TEST(PolygonTriangulate, ConvexAndConcavePolygonsInAnyPlane)
{
    // A square, an L shape and a comb with deep notches, each tilted out of every axis plane.
    const std::vector<std::vector<Point>> shapes = {
        {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}},
        {{0, 0, 0}, {2, 0, 0}, {2, 1, 0}, {1, 1, 0}, {1, 2, 0}, {0, 2, 0}},
        {{0, 0, 0},
         {5, 0, 0},
         {5, 3, 0},
         {4, 3, 0},
         {4, 0.5, 0},
         {3, 0.5, 0},
         {3, 3, 0},
         {2, 3, 0},
         {2, 0.5, 0},
         {1, 0.5, 0},
         {1, 3, 0},
         {0, 3, 0}},
    };
    const qyLinear::AffineMatrix tilt =
        qyLinear::AffineMatrix::rotation(qyLinear::Vector(1, 2, 3) / std::sqrt(14.0), 1.1);
    for (const auto& shape : shapes)
    {
        for (bool reversed : {false, true})
        {
            std::vector<Point> poly;
            for (const Point& p : shape)
                poly.push_back(tilt.transformPoint(p));
            if (reversed)
                std::reverse(poly.begin(), poly.end());
            SCOPED_TRACE(testing::Message() << shape.size() << " corners, reversed " << reversed);
            std::vector<int> tris;
            EXPECT_EQ(qyGeom::polygonTriangulate(int(poly.size()), poly.data(), tris),
                      int(poly.size()) - 2);
            expectCovers(poly, tris);
        }
    }
}

TEST(PolygonTriangulate, ScanLikeHolesNeverFail)
{
    // A wobbly, non-planar, concave hole rim with collinear runs and a repeated corner.
    std::vector<Point> rim;
    const int n = 60;
    for (int i = 0; i < n; ++i)
    {
        const double a = 2.0 * M_PI * i / n;
        const double r = 1.0 + 0.4 * std::sin(5 * a);
        rim.emplace_back(r * std::cos(a), r * std::sin(a), 0.05 * std::sin(3 * a));
        if (i == 10)
            rim.push_back(rim.back()); // a duplicate corner
    }
    // Three collinear corners along a straight stretch.
    rim.insert(rim.begin() + 30, {Point(-2, 0, 0), Point(-2.5, 0, 0), Point(-3, 0, 0)});
    std::vector<int> tris;
    EXPECT_EQ(qyGeom::polygonTriangulate(int(rim.size()), rim.data(), tris), int(rim.size()) - 2);
    ASSERT_EQ(tris.size(), 3 * (rim.size() - 2));
    for (int c : tris)
        EXPECT_TRUE(c >= 0 && c < int(rim.size()));

    // Degenerate input: all corners on one line, and fewer than three corners.
    const std::vector<Point> line = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}};
    EXPECT_EQ(qyGeom::polygonTriangulate(4, line.data(), tris), 2);
    EXPECT_EQ(tris.size(), 6u);
    EXPECT_FALSE(qyGeom::polygonNormal(4, line.data()).isValid());
    EXPECT_EQ(qyGeom::polygonTriangulate(2, line.data(), tris), 0);
    EXPECT_TRUE(tris.empty());
}

TEST(PolygonTriangulate, PrefersWellShapedEars)
{
    // A 10 x 1 strip with corners every unit along both long sides: a first-ear clipper fans
    // slivers across the whole length; the best-ear rule keeps every triangle within one unit.
    std::vector<Point> poly;
    const int k = 10;
    for (int i = 0; i <= k; ++i)
        poly.emplace_back(i, 0, 0);
    for (int i = k; i >= 0; --i)
        poly.emplace_back(i, 1, 0);
    std::vector<int> tris;
    qyGeom::polygonTriangulate(int(poly.size()), poly.data(), tris);
    expectCovers(poly, tris);
    for (std::size_t t = 0; t < tris.size(); t += 3)
    {
        double span = 0.0;
        for (int a = 0; a < 3; ++a)
            for (int b = 0; b < 3; ++b)
                span = std::max(span, std::fabs(poly[std::size_t(tris[t + a])].x -
                                                poly[std::size_t(tris[t + b])].x));
        EXPECT_LE(span, 1.0) << "triangle " << t / 3;
    }
}

TEST(PolygonTriangulate, HostileCornersGiveValidIndicesAndTerminate)
{
    // Whatever the corners hold (infinities, NaN, one point repeated, a bow tie, a loop that
    // doubles back on itself), the result is n - 2 triangles of distinct, in-range corners that
    // use every polygon edge once.
    const double inf = HUGE_VAL, nan = std::nan("");
    const std::vector<std::vector<Point>> polygons = {
        // A square with one corner at infinity (how "1e400" reads), seen from the flattening's
        // hole filling.
        {{1, 1, 0}, {2, 1, 0}, {2, 2, inf}, {1, 2, 0}},
        {{0, 0, 0}, {1, 0, -inf}, {1, 1, 0}, {0.5, 2, inf}, {0, 1, 0}},
        {{0, 0, 0}, {1, 0, 0}, {nan, 1, 0}, {0, 1, 0}, {-1, 0.5, 0}},
        {{nan, nan, nan}, {nan, nan, nan}, {nan, nan, nan}, {nan, nan, nan}, {nan, nan, nan}},
        {{2, 2, 2}, {2, 2, 2}, {2, 2, 2}, {2, 2, 2}, {2, 2, 2}, {2, 2, 2}},
        {{0, 0, 0}, {1, 1, 0}, {1, 0, 0}, {0, 1, 0}},                           // bow tie
        {{0, 0, 0}, {3, 0, 0}, {3, 1, 0}, {-1, 1, 0}, {-1, -1, 0}, {2, -1, 0}}, // doubles back
        {{1e300, 0, 0}, {-1e300, 1e300, 0}, {0, -1e300, 1e300}, {1e-300, 0, 0}},
    };
    // A longer rim with non-finite corners scattered over it.
    std::vector<Point> rim;
    for (int i = 0; i < 40; ++i)
    {
        const double a = 2.0 * M_PI * i / 40;
        rim.emplace_back(std::cos(a), std::sin(a), i % 7 == 3 ? inf : i % 11 == 5 ? nan : 0.0);
    }
    std::vector<std::vector<Point>> all = polygons;
    all.push_back(rim);
    for (const auto& poly : all)
    {
        const int n = int(poly.size());
        SCOPED_TRACE(testing::Message() << n << " corners");
        std::vector<int> tris;
        EXPECT_EQ(qyGeom::polygonTriangulate(n, poly.data(), tris), n - 2);
        ASSERT_EQ(tris.size(), 3 * std::size_t(n - 2));
        std::set<std::pair<int, int>> directed;
        for (std::size_t t = 0; t < tris.size(); t += 3)
        {
            const int a = tris[t], b = tris[t + 1], c = tris[t + 2];
            ASSERT_TRUE(a >= 0 && a < n && b >= 0 && b < n && c >= 0 && c < n);
            EXPECT_TRUE(a != b && b != c && a != c);
            directed.insert({a, b});
            directed.insert({b, c});
            directed.insert({c, a});
        }
        for (int i = 0; i < n; ++i)
            EXPECT_TRUE(directed.count({i, (i + 1) % n})) << "edge " << i << " missing";
    }
}
