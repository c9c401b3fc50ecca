#include "DemoMesh.h"

#include <cmath>
#include <cstdio>
#include <numbers>
#include <vector>

namespace qyCli
{

std::string demoMeshObj(int rings, int segments)
{
    const double pi = std::numbers::pi;
    const double capAngle = 75.0 * pi / 180.0;
    struct P
    {
        double x, y, z;
    };
    // Vertex 0 is the pole; ring r (1..rings) has `segments` vertices.
    std::vector<P> points;
    points.push_back({0, 0, 1});
    for (int r = 1; r <= rings; ++r)
        for (int s = 0; s < segments; ++s)
        {
            const double theta = capAngle * r / rings, phi = 2 * pi * s / segments;
            const double ripple = 1.0 + 0.06 * std::sin(3 * phi) * std::sin(pi * r / rings);
            points.push_back({ripple * std::sin(theta) * std::cos(phi),
                              ripple * std::sin(theta) * std::sin(phi), std::cos(theta)});
        }
    auto at = [&](int r, int s) { return r == 0 ? 0 : 1 + (r - 1) * segments + s % segments; };
    std::vector<int> corners;
    for (int s = 0; s < segments; ++s)
        corners.insert(corners.end(), {at(0, 0), at(1, s), at(1, s + 1)});
    for (int r = 1; r < rings; ++r)
        for (int s = 0; s < segments; ++s)
        {
            const int a = at(r, s), b = at(r + 1, s), c = at(r + 1, s + 1), d = at(r, s + 1);
            corners.insert(corners.end(), {a, b, c, a, c, d});
        }

    std::string text = "# qygeom demo: a rippled dome written as a triangle soup\n";
    char line[128];
    for (int c : corners)
    {
        std::snprintf(line, sizeof line, "v %.7g %.7g %.7g\n", points[std::size_t(c)].x,
                      points[std::size_t(c)].y, points[std::size_t(c)].z);
        text += line;
    }
    for (std::size_t f = 0; f < corners.size() / 3; ++f)
    {
        std::snprintf(line, sizeof line, "f %zu %zu %zu\n", 3 * f + 1, 3 * f + 2, 3 * f + 3);
        text += line;
    }
    return text;
}

} // namespace qyCli
