#include "qyGeom/meshCurvature.h"

#include <cmath>
#include <numbers>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshComputeNormals.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyLinear::AffineMatrixFlt;

namespace
{

std::vector<float> curvature(const CompactMesh& mesh, MeshCurvature kind,
                             const AffineMatrixFlt& matrix = AffineMatrixFlt())
{
    MeshAdjTris adjTris;
    meshAdjTris(mesh, adjTris);
    MeshAdjVertices adjVertices;
    meshAdjVertices(mesh, adjTris, adjVertices);
    std::vector<float> out(std::size_t(mesh.getNumVertices()), -99.0f);
    meshCurvature(mesh, adjTris, adjVertices, matrix, kind, out.data());
    return out;
}

// A closed fan: centre 0 at height h, six rim vertices on the unit circle, counter-clockwise
// seen from +z; the triangles listed in the order given by `order`.
CompactMesh hexagonFan(float h, const std::vector<int>& order = {0, 1, 2, 3, 4, 5})
{
    std::vector<float> xyz = {0, 0, h};
    for (int k = 0; k < 6; ++k)
    {
        const double a = std::numbers::pi / 3 * k;
        xyz.insert(xyz.end(), {float(std::cos(a)), float(std::sin(a)), 0.0f});
    }
    std::vector<int> tris;
    for (int k : order)
        tris.insert(tris.end(), {0, 1 + k, 1 + (k + 1) % 6});
    return qyTest::makeMesh(xyz, tris);
}

const MeshCurvature allKinds[] = {MeshCurvature::Mean, MeshCurvature::Gaussian,
                                  MeshCurvature::MinPrincipal, MeshCurvature::MaxPrincipal};

} // namespace

TEST(Cotangents, EquilateralAndRightTriangles)
{
    const float s3 = float(std::sqrt(3.0) / 2);
    const CompactMesh mesh = qyTest::makeMesh(
        {0, 0, 0, 1, 0, 0, 0.5f, s3, 0, /**/ 0, 0, 1, 4, 0, 1, 0, 3, 1}, {0, 1, 2, 3, 4, 5});
    qy::Array<Cotangents> cot;
    computeCotangents(mesh, mesh.getVertices(), cot);
    ASSERT_EQ(cot.size(), 2u);
    for (int k = 0; k < 3; ++k)
        EXPECT_NEAR(cot[0][k], 1.0 / std::sqrt(3.0), 1e-7);
    EXPECT_EQ(cot[1][0], 0.0); // the right angle: exactly 0, not negative
    EXPECT_DOUBLE_EQ(cot[1][1], 4.0 / 3.0);
    EXPECT_DOUBLE_EQ(cot[1][2], 3.0 / 4.0);

    // A degenerate triangle gives non-finite entries; the others are unaffected.
    const CompactMesh flat = qyTest::makeMesh({0, 0, 0, 1, 0, 0, 2, 0, 0}, {0, 1, 2});
    computeCotangents(flat, flat.getVertices(), cot);
    ASSERT_EQ(cot.size(), 1u);
    EXPECT_FALSE(std::isfinite(cot[0][0]));
}

TEST(MeshCurvature, FlatAndRaisedHexagonFans)
{
    const CompactMesh flat = hexagonFan(0.0f);
    for (MeshCurvature kind : allKinds)
    {
        const std::vector<float> out = curvature(flat, kind);
        for (float v : out)
            EXPECT_NEAR(v, 0.0f, 1e-6f) << int(kind);
    }

    // A raised centre: a cone point with positive K. The rim vertices (3 neighbours, 2
    // triangles) copy the mean of their one interior neighbour, the centre.
    CompactMesh cone = hexagonFan(0.5f);
    meshComputeNormals(cone);
    const std::vector<float> H = curvature(cone, MeshCurvature::Mean);
    const std::vector<float> K = curvature(cone, MeshCurvature::Gaussian);
    EXPECT_GT(H[0], 0.0f);
    EXPECT_GT(K[0], 0.0f);
    for (int v = 1; v < 7; ++v)
    {
        EXPECT_EQ(H[std::size_t(v)], H[0]);
        EXPECT_EQ(K[std::size_t(v)], K[0]);
    }
    // Angle deficit over the mixed area, by hand: the six apex angles and the Voronoi area.
    const double side = std::sqrt(1.0 + 0.25);
    const double apex = std::acos((side * side * 2 - 1.0) / (2 * side * side));
    const double cotBase = 0.5 / std::sqrt(side * side - 0.25); // at the rim corners
    const double area = 6 * (side * side * cotBase * 2) * 0.125;
    EXPECT_NEAR(K[0], (2 * std::numbers::pi - 6 * apex) / area, 1e-5);

    // Triangles listed out of rotational order are put in order first: same values.
    const CompactMesh shuffled = hexagonFan(0.5f, {3, 0, 5, 1, 4, 2});
    const std::vector<float> H2 = curvature(shuffled, MeshCurvature::Mean);
    const std::vector<float> K2 = curvature(shuffled, MeshCurvature::Gaussian);
    EXPECT_NEAR(H2[0], H[0], 1e-6f);
    EXPECT_NEAR(K2[0], K[0], 1e-6f);

    // Principal curvatures: k1 + k2 = 2H, ordered by magnitude.
    const std::vector<float> kMax = curvature(cone, MeshCurvature::MaxPrincipal);
    const std::vector<float> kMin = curvature(cone, MeshCurvature::MinPrincipal);
    EXPECT_NEAR(kMax[0] + kMin[0], 2 * H[0], 1e-5f);
    EXPECT_GE(std::abs(kMax[0]), std::abs(kMin[0]));
}

TEST(MeshCurvature, ConvexClosedMeshSignsFollowTheNormals)
{
    CompactMesh sphere = qyTest::makeIcosphere(2);
    // Without normals the fan's own orientation decides the sign.
    const std::vector<float> fromFans = curvature(sphere, MeshCurvature::Mean);
    meshComputeNormals(sphere);
    const std::vector<float> H = curvature(sphere, MeshCurvature::Mean);
    const std::vector<float> K = curvature(sphere, MeshCurvature::Gaussian);
    for (std::size_t v = 0; v < H.size(); ++v)
    {
        ASSERT_GT(H[v], 0.0f) << v;
        ASSERT_GT(K[v], 0.0f) << v;
        ASSERT_EQ(fromFans[v], H[v]) << v;
    }
    // A mirror keeps the sign, with or without normals.
    const AffineMatrixFlt mirror = AffineMatrixFlt::scaling(-1.0f, 1.0f, 1.0f);
    CompactMesh bare = qyTest::makeIcosphere(2);
    const std::vector<float> mirrored = curvature(sphere, MeshCurvature::Mean, mirror);
    const std::vector<float> mirroredBare = curvature(bare, MeshCurvature::Mean, mirror);
    for (std::size_t v = 0; v < H.size(); ++v)
    {
        ASSERT_GT(mirrored[v], 0.0f) << v;
        ASSERT_EQ(mirroredBare[v], mirrored[v]) << v;
    }
    float* n = sphere.getNormalsRaw();
    for (int i = 0; i < 3 * sphere.getNumVertices(); ++i)
        n[i] = -n[i];
    const std::vector<float> inward = curvature(sphere, MeshCurvature::Mean);
    for (std::size_t v = 0; v < H.size(); ++v)
        ASSERT_EQ(inward[v], -H[v]) << v;
}

TEST(MeshCurvature, SphereOfRadiusTwoThroughTheMatrix)
{
    CompactMesh sphere = qyTest::makeUVSphere(90, 180);
    meshComputeNormals(sphere);
    const AffineMatrixFlt scale = AffineMatrixFlt::scaling(2.0f, 2.0f, 2.0f);
    const std::vector<float> H = curvature(sphere, MeshCurvature::Mean, scale);
    const std::vector<float> K = curvature(sphere, MeshCurvature::Gaussian, scale);
    const std::vector<float> k1 = curvature(sphere, MeshCurvature::MaxPrincipal, scale);
    const std::vector<float> k2 = curvature(sphere, MeshCurvature::MinPrincipal, scale);
    const float* xyz = sphere.getVerticesRaw();
    int checked = 0;
    for (int v = 0; v < sphere.getNumVertices(); ++v)
    {
        if (std::abs(xyz[3 * v + 2]) > 0.8f) // away from the poles
            continue;
        ++checked;
        ASSERT_NEAR(H[std::size_t(v)], 0.5f, 0.01f) << v;
        ASSERT_NEAR(K[std::size_t(v)], 0.25f, 0.01f) << v;
        ASSERT_NEAR(k1[std::size_t(v)], 0.5f, 0.05f) << v;
        ASSERT_NEAR(k2[std::size_t(v)], 0.5f, 0.05f) << v;
    }
    EXPECT_GT(checked, 5000);

    // A matrix within epsilonTolFlt of the identity uses the mesh as it is.
    AffineMatrixFlt nearIdentity;
    nearIdentity.linear(0, 0) = 1.0f + 5e-7f;
    const std::vector<float> plain = curvature(sphere, MeshCurvature::Mean);
    EXPECT_EQ(curvature(sphere, MeshCurvature::Mean, nearIdentity), plain);
}

TEST(MeshCurvature, BoundaryFillOtherKindsAndTinyMeshes)
{
    const CompactMesh hemisphere = qyTest::makeHemisphere(16, 32);
    // Unused vertices at the start, middle and end leave thread shares without a triangle.
    const CompactMesh padded = qyTest::withUnusedVertices(hemisphere, 3000, 500, 3000);
    for (MeshCurvature kind : allKinds)
    {
        for (const CompactMesh* mesh : {&hemisphere, &padded})
        {
            std::vector<float> one, many;
            {
                qyTest::ScopedThreadCount threads(1);
                one = curvature(*mesh, kind);
            }
            {
                qyTest::ScopedThreadCount threads(3);
                many = curvature(*mesh, kind);
            }
            EXPECT_EQ(one, many) << int(kind);
            for (float c : many)
                ASSERT_TRUE(std::isfinite(c));
        }
    }
    // Rim vertices take the mean of their interior neighbours: close to the sphere's value.
    CompactMesh withNormals = hemisphere;
    meshComputeNormals(withNormals);
    const std::vector<float> H = curvature(withNormals, MeshCurvature::Mean);
    const float* xyz = withNormals.getVerticesRaw();
    for (int v = 0; v < withNormals.getNumVertices(); ++v)
    {
        if (std::abs(xyz[3 * v + 2]) < 1e-6f)
        {
            EXPECT_NEAR(H[std::size_t(v)], 1.0f, 0.05f) << v;
        }
    }

    for (float v : curvature(hemisphere, MeshCurvature(5)))
        ASSERT_EQ(v, 0.0f);

    // One triangle: every vertex has 2 neighbours and 1 triangle, and no neighbour with more
    // than 2 neighbours: all 0. An isolated vertex keeps 0.
    const CompactMesh single = qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 5, 5, 5}, {0, 1, 2});
    for (MeshCurvature kind : allKinds)
        EXPECT_EQ(curvature(single, kind), std::vector<float>(4, 0.0f));

    // An open quad of two triangles: the two corners of valence 2 average their neighbours with
    // more than two neighbours, which pass 1 set to 0 (no interior neighbour).
    const CompactMesh quad =
        qyTest::makeMesh({0, 0, 0, 1, 0, 0, 1, 1, 0, 0, 1, 0}, {0, 1, 2, 0, 2, 3});
    EXPECT_EQ(curvature(quad, MeshCurvature::Mean), std::vector<float>(4, 0.0f));

    const CompactMesh empty;
    EXPECT_TRUE(curvature(empty, MeshCurvature::Mean).empty());
}

TEST(MeshCurvature, PrintsItsHeaderAndPhases)
{
    const CompactMesh fan = hexagonFan(0.25f);
    qyTest::DebugCapture capture;
    curvature(fan, MeshCurvature::Gaussian);
    const std::string& text = capture.text();
    EXPECT_NE(text.find("meshCurvature:  vertices 7  triangles 6\n cotangents computed in: "),
              std::string::npos)
        << text;
    EXPECT_NE(text.find(" s\n  interior curvature computed: "), std::string::npos) << text;
    EXPECT_NE(text.find(" s\n  boundary curvature computed: "), std::string::npos) << text;
}
