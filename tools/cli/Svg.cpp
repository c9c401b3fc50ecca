#include "Svg.h"

#include <cstdio>
#include <vector>

namespace qyCli
{

namespace
{

// Twice the signed UV area of triangle t, in double so that tiny triangles keep their sign.
double signedArea2(const qyGeom::MeshUV* uv, const int* tri)
{
    const double ax = uv[tri[0]].u, ay = uv[tri[0]].v;
    const double bx = uv[tri[1]].u - ax, by = uv[tri[1]].v - ay;
    const double cx = uv[tri[2]].u - ax, cy = uv[tri[2]].v - ay;
    return bx * cy - by * cx;
}

bool validTriangle(const int* tri, int numVertices)
{
    for (int k = 0; k < 3; ++k)
        if (tri[k] < 0 || tri[k] >= numVertices)
            return false;
    return true;
}

// The sign of each triangle and the majority's sign.
int orientations(const qyGeom::CompactMesh& mesh, std::vector<signed char>& sign)
{
    const qyGeom::MeshUV* uv = mesh.getUVs();
    const int* tris = mesh.getTrianglesRaw();
    const int n = mesh.getNumTriangles(), nv = mesh.getNumVertices();
    sign.assign(std::size_t(n), 0);
    long long positive = 0, negative = 0;
    for (int t = 0; uv && t < n; ++t)
    {
        if (!validTriangle(tris + 3 * t, nv))
            continue;
        const double a = signedArea2(uv, tris + 3 * t);
        sign[std::size_t(t)] = a > 0 ? 1 : a < 0 ? -1 : 0;
        positive += a > 0;
        negative += a < 0;
    }
    return positive >= negative ? 1 : -1;
}

} // namespace

UvLayoutStats measureUvLayout(const qyGeom::CompactMesh& mesh)
{
    UvLayoutStats stats;
    std::vector<signed char> sign;
    const int majority = orientations(mesh, sign);
    if (!mesh.getUVs())
        return stats;
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        if (!validTriangle(tris + 3 * t, mesh.getNumVertices()))
            continue;
        ++stats.triangles;
        stats.flipped += sign[std::size_t(t)] == -majority;
        stats.degenerate += sign[std::size_t(t)] == 0;
    }
    return stats;
}

bool writeUvSvg(const qyGeom::CompactMesh& mesh, std::FILE* f, UvLayoutStats& stats)
{
    stats = {};
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
    std::vector<signed char> sign;
    const int majority = orientations(mesh, sign);
    const int* tris = mesh.getTrianglesRaw();
    std::fputs("<g stroke-width=\"0.4\" stroke-linejoin=\"round\">\n", f);
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const int* tri = tris + 3 * t;
        if (!validTriangle(tri, mesh.getNumVertices()))
            continue;
        const bool flipped = sign[std::size_t(t)] == -majority;
        ++stats.triangles;
        stats.flipped += flipped;
        stats.degenerate += sign[std::size_t(t)] == 0;
        std::fputs("<polygon points=\"", f);
        for (int k = 0; k < 3; ++k)
            std::fprintf(f, "%s%.3f,%.3f", k ? " " : "", double(uv[tri[k]].u) * size,
                         (1.0 - double(uv[tri[k]].v)) * size);
        std::fputs(flipped ? "\" fill=\"#f4a0a0\" stroke=\"#c00000\"/>\n"
                           : "\" fill=\"#dce8f6\" stroke=\"#2a5a9a\"/>\n",
                   f);
    }
    std::fputs("</g>\n</svg>\n", f);
    return true;
}

} // namespace qyCli
