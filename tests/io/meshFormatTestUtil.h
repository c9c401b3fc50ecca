// Helpers of the PLY, STL and OFF tests: meshes whose floats need every bit, and their
// comparison bit for bit.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"

namespace qyIoTest
{

/// A float of any finite bit pattern: huge, tiny, subnormal, negative zero, nine digits.
inline float anyFloat(std::mt19937& rng)
{
    for (;;)
    {
        const std::uint32_t bits = rng();
        float f;
        std::memcpy(&f, &bits, 4);
        if (std::isfinite(f))
            return f;
    }
}

/// A mesh of `nv` vertices with arbitrary float coordinates and the given faces (corner
/// counts in `lengths`, all triangles when empty); with `attributes`, normals, texture
/// coordinates of any bits and colours of whole 1/255 steps.
inline qyGeom::CompactMesh awkwardMesh(int nv, const std::vector<int>& corners,
                                       const std::vector<int>& lengths, bool attributes,
                                       unsigned seed = 7)
{
    std::mt19937 rng(seed);
    std::vector<float> xyz(3 * std::size_t(nv)), normals(xyz.size()), uvs(2 * std::size_t(nv));
    std::vector<float> colours(4 * std::size_t(nv));
    for (float& f : xyz)
        f = anyFloat(rng);
    for (float& f : normals)
        f = anyFloat(rng);
    for (float& f : uvs)
        f = anyFloat(rng);
    for (float& f : colours)
        f = float(rng() % 256) / 255.0f;
    qyGeom::CompactMesh mesh(
        nv, reinterpret_cast<const qyGeom::MeshVertex*>(xyz.data()),
        attributes ? reinterpret_cast<const qyGeom::MeshNormal*>(normals.data()) : nullptr,
        attributes ? reinterpret_cast<const qyGeom::MeshUV*>(uvs.data()) : nullptr,
        attributes ? reinterpret_cast<const qyGeom::MeshColour*>(colours.data()) : nullptr);
    if (lengths.empty())
        mesh.copyTriangles(int(corners.size() / 3), corners.data());
    else
    {
        mesh.resizePolyArrays(int(lengths.size()), int(corners.size()));
        std::copy(lengths.begin(), lengths.end(), mesh.getPolyLengths());
        std::copy(corners.begin(), corners.end(), mesh.getPolyPoints());
    }
    return mesh;
}

/// The same floats, bit for bit (a null array only matches a null one).
inline void expectSameBits(const float* a, const float* b, std::size_t n, const char* what)
{
    ASSERT_EQ(a == nullptr, b == nullptr) << what;
    if (a)
    {
        EXPECT_EQ(0, std::memcmp(a, b, n * sizeof(float))) << what;
    }
}

/// Same vertices (bits), attributes, triangles and polygons.
inline void expectSameMesh(const qyGeom::CompactMesh& a, const qyGeom::CompactMesh& b,
                           bool attributes = true)
{
    ASSERT_EQ(a.getNumVertices(), b.getNumVertices());
    ASSERT_EQ(a.getNumTriangles(), b.getNumTriangles());
    ASSERT_EQ(a.getNumPolys(), b.getNumPolys());
    ASSERT_EQ(a.getNumPolyPoints(), b.getNumPolyPoints());
    const std::size_t nv = std::size_t(a.getNumVertices());
    expectSameBits(a.getVerticesRaw(), b.getVerticesRaw(), 3 * nv, "positions");
    if (attributes)
    {
        expectSameBits(a.getNormalsRaw(), b.getNormalsRaw(), 3 * nv, "normals");
        expectSameBits(a.getUVsRaw(), b.getUVsRaw(), 2 * nv, "uvs");
        expectSameBits(reinterpret_cast<const float*>(a.getColours()),
                       reinterpret_cast<const float*>(b.getColours()), 4 * nv, "colours");
    }
    const int nt = a.getNumTriangles();
    EXPECT_TRUE(std::equal(a.getTrianglesRaw(), a.getTrianglesRaw() + 3 * nt, b.getTrianglesRaw()));
    EXPECT_TRUE(
        std::equal(a.getPolyLengths(), a.getPolyLengths() + a.getNumPolys(), b.getPolyLengths()));
    EXPECT_TRUE(
        std::equal(a.getPolyPoints(), a.getPolyPoints() + a.getNumPolyPoints(), b.getPolyPoints()));
}

/// Polygons of 3, 4 and 5 corners over 12 vertices.
inline std::vector<int> polygonCorners()
{
    return {0, 1, 2, 2, 3, 4, 5, 5, 6, 7, 8, 9, 9, 10, 11};
}
inline std::vector<int> polygonLengths()
{
    return {3, 4, 5, 3};
}

} // namespace qyIoTest
