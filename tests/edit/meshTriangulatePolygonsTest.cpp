#include "qyGeom/meshTriangulatePolygons.h"

#include <cmath>
#include <set>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/Linear.h"
#include "qyGeom/polygonTriangulate.h"

using qyGeom::PolygonTriangulation;
using qyLinear::Point;

namespace
{

struct Faces
{
    std::vector<float> xyz;
    std::vector<int> starts{0}, corners;

    int vertex(double x, double y, double z)
    {
        xyz.insert(xyz.end(), {float(x), float(y), float(z)});
        return int(xyz.size() / 3) - 1;
    }
    void face(std::initializer_list<int> vs)
    {
        corners.insert(corners.end(), vs);
        starts.push_back(int(corners.size()));
    }
    int numFaces() const { return int(starts.size()) - 1; }
    Point at(int corner) const
    {
        const float* p = &xyz[3 * std::size_t(corners[std::size_t(corner)])];
        return Point(p[0], p[1], p[2]);
    }
    int run(PolygonTriangulation& out) const
    {
        return qyGeom::meshTriangulatePolygons(xyz.data(), int(xyz.size() / 3), numFaces(),
                                               starts.data(), corners.data(), out);
    }
};

// Each face of n corners gives n - 2 triangles that use each of its edges once in the face's
// direction and turn like the face (seen from its best-fit normal).
void expectCoversEachFace(const Faces& faces, const PolygonTriangulation& out)
{
    ASSERT_EQ(out.triangleCorners.size(), 3 * out.triangleFaces.size());
    for (int f = 0; f < faces.numFaces(); ++f)
    {
        SCOPED_TRACE(f);
        const int begin = faces.starts[std::size_t(f)], end = faces.starts[std::size_t(f) + 1];
        std::vector<Point> poly;
        for (int k = begin; k < end; ++k)
            poly.push_back(faces.at(k));
        const qyLinear::Vector up = qyGeom::polygonNormal(int(poly.size()), poly.data()).asVector();
        std::set<std::pair<int, int>> directed;
        int count = 0;
        for (std::size_t t = 0; t < out.triangleFaces.size(); ++t)
        {
            if (out.triangleFaces[t] != f)
                continue;
            ++count;
            const int* c = &out.triangleCorners[3 * t];
            for (int k = 0; k < 3; ++k)
            {
                ASSERT_TRUE(c[k] >= begin && c[k] < end);
                directed.insert({c[k], c[(k + 1) % 3]});
            }
            const qyLinear::Vector n =
                qyLinear::cross(faces.at(c[1]) - faces.at(c[0]), faces.at(c[2]) - faces.at(c[0]));
            EXPECT_GT(qyLinear::dot(n, up), 0.0) << "triangle " << t << " turns the other way";
        }
        EXPECT_EQ(count, end - begin - 2);
        for (int k = begin; k < end; ++k)
            EXPECT_TRUE(directed.count({k, k + 1 < end ? k + 1 : begin})) << "edge " << k;
    }
}

} // namespace

TEST(MeshTriangulatePolygons, QuadsAndNGonsConvexNonConvexAndNonPlanar)
{
    Faces faces;
    // 0: a triangle, kept as it is.
    faces.face({faces.vertex(0, 0, 0), faces.vertex(1, 0, 0), faces.vertex(0, 1, 0)});
    // 1: a long rhombus: the short diagonal gives the better triangles.
    faces.face({faces.vertex(0, 0, 1), faces.vertex(5, -1, 1), faces.vertex(10, 0, 1),
                faces.vertex(5, 1, 1)});
    // 2: a dart (non-convex quad): only the diagonal from the reflex corner lies inside.
    faces.face({faces.vertex(0, 0, 2), faces.vertex(4, 0, 2), faces.vertex(1, 1, 2),
                faces.vertex(0, 4, 2)});
    // 3: a non-planar quad (a saddle's corner lifted).
    faces.face({faces.vertex(0, 0, 3), faces.vertex(1, 0, 3.4), faces.vertex(1, 1, 3),
                faces.vertex(0, 1, 3.4)});
    // 4: an L-shaped hexagon, tilted; 5: a wavy, non-planar octagon with a notch.
    faces.face({faces.vertex(0, 0, 4), faces.vertex(2, 0, 4.2), faces.vertex(2, 1, 4.4),
                faces.vertex(1, 1, 4.3), faces.vertex(1, 2, 4.5), faces.vertex(0, 2, 4.3)});
    std::vector<int> wavy;
    for (int i = 0; i < 8; ++i)
    {
        const double a = 2 * M_PI * i / 8, r = i == 3 ? 0.3 : 1.0;
        wavy.push_back(faces.vertex(r * std::cos(a), r * std::sin(a), 5 + 0.2 * std::sin(2 * a)));
    }
    faces.corners.insert(faces.corners.end(), wavy.begin(), wavy.end());
    faces.starts.push_back(int(faces.corners.size()));

    PolygonTriangulation out;
    EXPECT_EQ(faces.run(out), 1 + 2 + 2 + 2 + 4 + 6);
    EXPECT_EQ(out.polygons, 5);
    EXPECT_EQ(out.skipped, 0);
    expectCoversEachFace(faces, out);
    // The rhombus is split along its short diagonal 1-3 (corners 4 and 6 of the array).
    std::set<int> rhombusFirst(&out.triangleCorners[3], &out.triangleCorners[6]);
    EXPECT_EQ(rhombusFirst, (std::set<int>{3, 4, 6}));
    // The dart's split runs from its reflex corner (array corner 9) to the opposite one.
    for (std::size_t t = 0; t < out.triangleFaces.size(); ++t)
    {
        if (out.triangleFaces[t] == 2)
        {
            const std::set<int> corners(&out.triangleCorners[3 * t],
                                        &out.triangleCorners[3 * t + 3]);
            EXPECT_TRUE(corners.count(9));
        }
    }

    // The same input gives the same triangles.
    PolygonTriangulation again;
    faces.run(again);
    EXPECT_EQ(again.triangleCorners, out.triangleCorners);
}

TEST(MeshTriangulatePolygons, RepeatsAndBadCornersAreDroppedOrSkipped)
{
    Faces faces;
    const int a = faces.vertex(0, 0, 0), b = faces.vertex(1, 0, 0), c = faces.vertex(1, 1, 0),
              d = faces.vertex(0, 1, 0);
    faces.face({a, b, b, c, d}); // a repeated corner: a quad
    faces.face({a, b, c, a});    // the last corner closes the loop: a triangle
    faces.face({a, b, b, a});    // two distinct corners: nothing
    faces.face({a, b, 17, c});   // a corner outside the vertex array: nothing
    faces.face({a, b});          // too short
    faces.face({c, d, faces.vertex(HUGE_VAL, 0, 0), a, b}); // non-finite: still n - 2
    PolygonTriangulation out;
    EXPECT_EQ(faces.run(out), 2 + 1 + 3);
    EXPECT_EQ(out.skipped, 3);
    EXPECT_EQ(out.polygons, 2);
    EXPECT_EQ(out.triangleFaces, (std::vector<int>{0, 0, 1, 5, 5, 5}));
    // The repeated corner (array index 2) is never used; the quad's triangles name the others.
    for (int t = 0; t < 2; ++t)
        for (int k = 0; k < 3; ++k)
            EXPECT_NE(out.triangleCorners[std::size_t(3 * t + k)], 2);
    for (int k : out.triangleCorners)
        EXPECT_TRUE(k >= 0 && k < int(faces.corners.size()));

    Faces none;
    EXPECT_EQ(none.run(out), 0);
    EXPECT_TRUE(out.triangleCorners.empty());
}
