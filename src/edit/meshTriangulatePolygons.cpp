// Triangles for polygon faces: quads by their better diagonal, larger faces by ear clipping.
#include "qyGeom/meshTriangulatePolygons.h"

#include <algorithm>
#include <cmath>

#include "base/Linear.h"
#include "qyGeom/polygonTriangulate.h"

namespace qyGeom
{

namespace
{

using qyLinear::Point;
using qyLinear::Vector;

double angleAt(const Point& o, const Point& a, const Point& b)
{
    const Vector u = a - o, v = b - o;
    return std::atan2(qyLinear::cross(u, v).length(), qyLinear::dot(u, v));
}

double smallestAngle(const Point& a, const Point& b, const Point& c)
{
    return std::min({angleAt(a, b, c), angleAt(b, c, a), angleAt(c, a, b)});
}

// True when triangle (a, b, c) turns the same way as `up` (strictly).
bool turnsWith(const Point& a, const Point& b, const Point& c, const Vector& up)
{
    return qyLinear::dot(qyLinear::cross(b - a, c - a), up) > 0.0;
}

// The diagonal of quad p[0..3] to split along: 0 for 0-2, 1 for 1-3, -1 when neither gives
// two triangles that turn like the quad (a bow tie, or no area).
int quadDiagonal(const Point* p)
{
    const qyLinear::Normal normal = polygonNormal(4, p);
    if (!normal.isValid())
        return -1;
    const Vector& up = normal.asVector();
    const bool first = turnsWith(p[0], p[1], p[2], up) && turnsWith(p[0], p[2], p[3], up);
    const bool second = turnsWith(p[0], p[1], p[3], up) && turnsWith(p[1], p[2], p[3], up);
    if (!first || !second)
        return first ? 0 : second ? 1 : -1;
    const double a = std::min(smallestAngle(p[0], p[1], p[2]), smallestAngle(p[0], p[2], p[3]));
    const double b = std::min(smallestAngle(p[0], p[1], p[3]), smallestAngle(p[1], p[2], p[3]));
    return b > a ? 1 : 0;
}

} // namespace

int meshTriangulatePolygons(const float* xyz, int numVertices, int numFaces, const int* faceStarts,
                            const int* corners, PolygonTriangulation& out)
{
    out.triangleCorners.clear();
    out.triangleFaces.clear();
    out.polygons = out.skipped = 0;
    if (numFaces <= 0)
        return 0;
    const std::size_t totalCorners = std::size_t(faceStarts[numFaces] - faceStarts[0]);
    out.triangleCorners.reserve(3 * totalCorners);
    out.triangleFaces.reserve(totalCorners);

    // Scratch for one face, grown to the largest face and reused.
    std::vector<int> kept;
    std::vector<Point> points;
    std::vector<int> local;
    auto emit = [&](int f, int a, int b, int c)
    {
        out.triangleCorners.insert(
            out.triangleCorners.end(),
            {kept[std::size_t(a)], kept[std::size_t(b)], kept[std::size_t(c)]});
        out.triangleFaces.push_back(f);
    };
    for (int f = 0; f < numFaces; ++f)
    {
        kept.clear();
        bool valid = true;
        for (int k = faceStarts[f]; k < faceStarts[f + 1]; ++k)
        {
            const int v = corners[k];
            if (v < 0 || v >= numVertices)
                valid = false;
            else if (kept.empty() || corners[kept.back()] != v)
                kept.push_back(k);
        }
        while (kept.size() > 1 && corners[kept.back()] == corners[kept.front()])
            kept.pop_back();
        const int n = int(kept.size());
        if (!valid || n < 3)
        {
            ++out.skipped;
            continue;
        }
        if (n == 3)
        {
            emit(f, 0, 1, 2);
            continue;
        }
        ++out.polygons;
        points.clear();
        for (int k : kept)
        {
            const float* p = xyz + 3 * std::size_t(corners[k]);
            points.emplace_back(p[0], p[1], p[2]);
        }
        const int diagonal = n == 4 ? quadDiagonal(points.data()) : -1;
        if (diagonal == 0)
        {
            emit(f, 0, 1, 2);
            emit(f, 0, 2, 3);
        }
        else if (diagonal == 1)
        {
            emit(f, 0, 1, 3);
            emit(f, 1, 2, 3);
        }
        else
        {
            polygonTriangulate(n, points.data(), local);
            for (std::size_t t = 0; t < local.size(); t += 3)
                emit(f, local[t], local[t + 1], local[t + 2]);
        }
    }
    return int(out.triangleFaces.size());
}

} // namespace qyGeom
