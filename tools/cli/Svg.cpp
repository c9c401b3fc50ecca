#include "Svg.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

namespace qyCli
{

namespace
{

bool validTriangle(const int* tri, int numVertices)
{
    for (int k = 0; k < 3; ++k)
        if (tri[k] < 0 || tri[k] >= numVertices)
            return false;
    return true;
}

// Twice the signed UV area of a triangle, in double so that tiny triangles keep their sign.
double signedArea2(const qyGeom::MeshUV* uv, const int* tri)
{
    const double ax = uv[tri[0]].u, ay = uv[tri[0]].v;
    const double bx = uv[tri[1]].u - ax, by = uv[tri[1]].v - ay;
    const double cx = uv[tri[2]].u - ax, cy = uv[tri[2]].v - ay;
    return bx * cy - by * cx;
}

struct P2
{
    double x, y;
};

// Which side of the directed edge a -> b the point p lies on (positive: left). The value is
// computed from the edge's endpoints in one fixed order, so the two triangles on a shared
// edge get exactly opposite values and a point on the edge is decided the same way for both.
double side(const P2& a, const P2& b, const P2& p)
{
    const bool swap = b.x < a.x || (b.x == a.x && b.y < a.y);
    const P2& s = swap ? b : a;
    const P2& e = swap ? a : b;
    const double d = (e.x - s.x) * (p.y - s.y) - (e.y - s.y) * (p.x - s.x);
    return swap ? -d : d;
}

// A point exactly on an edge belongs to the triangle for which the edge is a "top" or "left"
// edge: of the two triangles on an edge, exactly one sees it so.
bool owns(const P2& a, const P2& b)
{
    return b.y < a.y || (b.y == a.y && b.x < a.x);
}

// Calls cell(ix, iy) for each grid cell whose centre lies inside the counter-clockwise
// triangle a, b, c (grid coordinates: cell (i, j) has its centre at (i + 0.5, j + 0.5)).
template <class Cell> void rasterize(P2 a, P2 b, P2 c, int nx, int ny, Cell cell)
{
    const int x0 = std::max(0, int(std::floor(std::min({a.x, b.x, c.x}) - 0.5)));
    const int x1 = std::min(nx - 1, int(std::ceil(std::max({a.x, b.x, c.x}) - 0.5)));
    const int y0 = std::max(0, int(std::floor(std::min({a.y, b.y, c.y}) - 0.5)));
    const int y1 = std::min(ny - 1, int(std::ceil(std::max({a.y, b.y, c.y}) - 0.5)));
    const P2* edges[3][2] = {{&a, &b}, {&b, &c}, {&c, &a}};
    bool own[3];
    for (int e = 0; e < 3; ++e)
        own[e] = owns(*edges[e][0], *edges[e][1]);
    for (int iy = y0; iy <= y1; ++iy)
        for (int ix = x0; ix <= x1; ++ix)
        {
            const P2 p{ix + 0.5, iy + 0.5};
            bool inside = true;
            for (int e = 0; e < 3 && inside; ++e)
            {
                const double s = side(*edges[e][0], *edges[e][1], p);
                inside = s > 0 || (s == 0 && own[e]);
            }
            if (inside)
                cell(ix, iy);
        }
}

} // namespace

UvLayoutStats measureUvLayout(const qyGeom::CompactMesh& mesh, int gridSize)
{
    UvLayoutStats stats;
    const qyGeom::MeshUV* uv = mesh.getUVs();
    const int n = mesh.getNumTriangles(), nv = mesh.getNumVertices();
    stats.orientation.assign(std::size_t(n), 0);
    stats.overlaps.assign(std::size_t(n), false);
    if (!uv)
        return stats;
    const int* tris = mesh.getTrianglesRaw();
    long long positive = 0, negative = 0;
    double lo[2] = {INFINITY, INFINITY}, hi[2] = {-INFINITY, -INFINITY};
    for (int t = 0; t < n; ++t)
    {
        const int* tri = tris + 3 * t;
        if (!validTriangle(tri, nv))
            continue;
        const double a = signedArea2(uv, tri);
        stats.orientation[std::size_t(t)] = a > 0 ? 1 : a < 0 ? -1 : 0;
        positive += a > 0;
        negative += a < 0;
        for (int k = 0; k < 3; ++k)
        {
            lo[0] = std::min(lo[0], double(uv[tri[k]].u));
            hi[0] = std::max(hi[0], double(uv[tri[k]].u));
            lo[1] = std::min(lo[1], double(uv[tri[k]].v));
            hi[1] = std::max(hi[1], double(uv[tri[k]].v));
        }
    }
    const int majority = positive >= negative ? 1 : -1;
    for (int t = 0; t < n; ++t)
    {
        if (!validTriangle(tris + 3 * t, nv))
            continue;
        ++stats.triangles;
        stats.flipped += stats.orientation[std::size_t(t)] == -majority;
        stats.degenerate += stats.orientation[std::size_t(t)] == 0;
    }
    const double extent = std::max(hi[0] - lo[0], hi[1] - lo[1]);
    if (!(extent > 0) || !std::isfinite(extent))
        return stats;

    // Coverage counts per cell, saturating at 2.
    const double scale = gridSize / extent;
    const int nx = std::max(1, int(std::ceil((hi[0] - lo[0]) * scale)));
    const int ny = std::max(1, int(std::ceil((hi[1] - lo[1]) * scale)));
    stats.gridSize = gridSize;
    std::vector<unsigned char> count(std::size_t(nx) * std::size_t(ny), 0);
    auto corners = [&](int t, P2& a, P2& b, P2& c)
    {
        const int* tri = tris + 3 * t;
        P2 p[3];
        for (int k = 0; k < 3; ++k)
            p[k] = {(uv[tri[k]].u - lo[0]) * scale, (uv[tri[k]].v - lo[1]) * scale};
        a = p[0];
        b = stats.orientation[std::size_t(t)] > 0 ? p[1] : p[2];
        c = stats.orientation[std::size_t(t)] > 0 ? p[2] : p[1];
    };
    for (int t = 0; t < n; ++t)
    {
        if (stats.orientation[std::size_t(t)] == 0)
            continue;
        P2 a, b, c;
        corners(t, a, b, c);
        rasterize(a, b, c, nx, ny,
                  [&](int ix, int iy)
                  {
                      unsigned char& k = count[std::size_t(iy) * std::size_t(nx) + std::size_t(ix)];
                      k = k < 2 ? k + 1 : 2;
                  });
    }
    long long covered = 0, twice = 0;
    for (const unsigned char k : count)
    {
        covered += k > 0;
        twice += k > 1;
    }
    stats.overlapShare = covered ? double(twice) / double(covered) : 0.0;
    if (twice == 0)
        return stats;
    for (int t = 0; t < n; ++t)
    {
        if (stats.orientation[std::size_t(t)] == 0)
            continue;
        P2 a, b, c;
        corners(t, a, b, c);
        bool hit = false;
        rasterize(a, b, c, nx, ny,
                  [&](int ix, int iy)
                  { hit = hit || count[std::size_t(iy) * std::size_t(nx) + std::size_t(ix)] > 1; });
        stats.overlaps[std::size_t(t)] = hit;
        stats.overlapping += hit;
    }
    return stats;
}

bool writeUvSvg(const qyGeom::CompactMesh& mesh, const UvLayoutStats& stats, std::FILE* f)
{
    const qyGeom::MeshUV* uv = mesh.getUVs();
    if (!uv)
        return false;
    // 1000 user units for the unit square, v pointing up as in texture space.
    constexpr double size = 1000.0, margin = 20.0;
    std::fprintf(f,
                 "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                 "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%g\" height=\"%g\" "
                 "viewBox=\"%g %g %g %g\">\n",
                 size / 2 + margin, size / 2 + margin, -margin, -margin, size + 2 * margin,
                 size + 2 * margin);
    std::fprintf(f,
                 "<rect x=\"0\" y=\"0\" width=\"%g\" height=\"%g\" fill=\"#ffffff\" "
                 "stroke=\"#888888\" stroke-width=\"1\"/>\n",
                 size, size);
    const int majority = [&]
    {
        long long balance = 0;
        for (const signed char s : stats.orientation)
            balance += s;
        return balance >= 0 ? 1 : -1;
    }();
    const int* tris = mesh.getTrianglesRaw();
    std::fputs("<g stroke-width=\"0.4\" stroke-linejoin=\"round\">\n", f);
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const int* tri = tris + 3 * t;
        if (!validTriangle(tri, mesh.getNumVertices()))
            continue;
        const bool flipped = stats.orientation[std::size_t(t)] == -majority;
        const bool overlapping = stats.overlaps[std::size_t(t)];
        std::fputs("<polygon points=\"", f);
        for (int k = 0; k < 3; ++k)
            std::fprintf(f, "%s%.3f,%.3f", k ? " " : "", double(uv[tri[k]].u) * size,
                         (1.0 - double(uv[tri[k]].v)) * size);
        std::fputs(flipped       ? "\" fill=\"#f4a0a0\" stroke=\"#c00000\"/>\n"
                   : overlapping ? "\" fill=\"#f8c880\" stroke=\"#d07000\"/>\n"
                                 : "\" fill=\"#dce8f6\" stroke=\"#2a5a9a\"/>\n",
                   f);
    }
    std::fputs("</g>\n</svg>\n", f);
    return true;
}

} // namespace qyCli
