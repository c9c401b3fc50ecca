#include "qyGeom/MeshOrient.h"

#include <algorithm>
#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "model/BitVector.h"
#include "qyGeom/meshAdjacency.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;

qyGeom::MeshAdjTris adjacency(const CompactMesh& mesh)
{
    qyGeom::MeshAdjTris adj;
    qyGeom::meshAdjTris(mesh, adj);
    return adj;
}

std::vector<int> triangles(const CompactMesh& mesh)
{
    return {mesh.getTrianglesRaw(), mesh.getTrianglesRaw() + 3 * mesh.getNumTriangles()};
}

using Tri = std::array<int, 3>;

// The same triangle whatever corner it starts at: rotated so that its lowest index is first.
Tri canonical(int a, int b, int c)
{
    if (b < a && b < c)
        return {b, c, a};
    if (c < a && c < b)
        return {c, a, b};
    return {a, b, c};
}

// Every triangle that the strips (or the fans) draw, with its winding, sorted.
std::vector<Tri> drawnTriangles(const int* lengths, const int* points, int numRuns, bool fans)
{
    std::vector<Tri> out;
    for (int r = 0; r < numRuns; ++r)
    {
        for (int k = 0; k + 2 < lengths[r]; ++k)
        {
            if (fans)
                out.push_back(canonical(points[0], points[k + 1], points[k + 2]));
            else if (k % 2 == 0)
                out.push_back(canonical(points[k], points[k + 1], points[k + 2]));
            else
                out.push_back(canonical(points[k + 1], points[k], points[k + 2]));
        }
        points += lengths[r];
    }
    std::sort(out.begin(), out.end());
    return out;
}

std::vector<Tri> reversed(std::vector<Tri> tris)
{
    for (Tri& t : tris)
        t = canonical(t[1], t[0], t[2]);
    std::sort(tris.begin(), tris.end());
    return tris;
}

std::vector<Tri> stripTriangles(const CompactMesh& mesh)
{
    return drawnTriangles(mesh.getTriStripLengths(), mesh.getTriStripPoints(),
                          mesh.getNumTriStrips(), false);
}

void setStrips(CompactMesh& mesh, const std::vector<int>& lengths)
{
    int total = 0;
    for (int length : lengths)
        total += length;
    mesh.resizeTriStripArrays(total, int(lengths.size()));
    std::copy(lengths.begin(), lengths.end(), mesh.getTriStripLengths());
    for (int i = 0; i < total; ++i)
        mesh.getTriStripPoints()[i] = i;
}

std::vector<float> floats(const float* data, int n)
{
    return data ? std::vector<float>(data, data + n) : std::vector<float>();
}

std::vector<float> negated(std::vector<float> values)
{
    for (float& x : values)
        x = -x;
    return values;
}

// Three triangles on the edge 0-1, as a fin on a non-manifold edge: two traverse it from 0
// to 1, one from 1 to 0.
CompactMesh threeOnOneEdge()
{
    return qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0.5f, 1, 0, 0.5f, -1, 0, 0.5f, 0, 1},
                            {0, 1, 2, 1, 0, 3, 0, 1, 4});
}

TEST(MeshOrient, FlipsAgainstTheLowestTriangleOfEachRegionAndNotifiesOnce)
{
    CompactMesh empty;
    EXPECT_TRUE(qyGeom::meshOriented(empty, adjacency(empty)));
    EXPECT_TRUE(qyGeom::meshMakeOriented(empty, adjacency(empty)));

    // Two triangles traversing their shared edge 1-2 the same way.
    CompactMesh pair = qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 1, 0}, {0, 1, 2, 1, 2, 3});
    qyGeom::MeshAdjTris adj = adjacency(pair);
    EXPECT_FALSE(qyGeom::meshOriented(pair, adj));
    int notifications = 0;
    qyRTB::ScopedConnection c = pair.getModifiedSignal().connect(
        [&](const qyRTB::EntityModification&) { ++notifications; });
    EXPECT_TRUE(qyGeom::meshMakeOriented(pair, adj));
    EXPECT_EQ(triangles(pair), (std::vector<int>{0, 1, 2, 1, 3, 2}));
    EXPECT_EQ(notifications, 1);
    EXPECT_TRUE(qyGeom::meshMakeOriented(pair, adj));
    EXPECT_EQ(notifications, 1);

    // A sphere with every other triangle reversed comes back as it was.
    CompactMesh sphere = qyTest::makeIcosphere(2);
    const std::vector<int> original = triangles(sphere);
    int* t = sphere.getTrianglesRaw();
    for (int i = 1; i < sphere.getNumTriangles(); i += 2)
        std::swap(t[3 * i + 1], t[3 * i + 2]);
    qyGeom::MeshAdjTris sphereAdj = adjacency(sphere);
    EXPECT_FALSE(qyGeom::meshOriented(sphere, sphereAdj));
    qyGeom::MeshOrient orient(sphere, sphereAdj);
    orient.orient();
    EXPECT_TRUE(orient.isOriented() && orient.isOrientable());
    EXPECT_EQ(triangles(sphere), original);
}

TEST(MeshOrient, AMoebiusBandCannotBeOriented)
{
    CompactMesh band = qyTest::makeMoebiusBand(6);
    qyGeom::MeshAdjTris adj = adjacency(band);
    qyGeom::MeshOrient orient(band, adj);
    EXPECT_FALSE(orient.isOriented());
    orient.orient();
    EXPECT_FALSE(orient.isOriented());
    EXPECT_FALSE(orient.isOrientable());
    EXPECT_GT(orient.getAffectedTriangles().size(), 0);
}

TEST(MeshOrient, ThreeTrianglesOnOneEdgeCannotAllBeOpposite)
{
    CompactMesh fin = threeOnOneEdge();
    qyGeom::MeshAdjTris adj = adjacency(fin);
    EXPECT_FALSE(qyGeom::meshOriented(fin, adj));
    EXPECT_FALSE(qyGeom::meshMakeOriented(fin, adj));
}

TEST(MeshReverseWinding, ReversesEveryTriangleStripAndFanAndSplitsLongEvenStrips)
{
    for (const std::vector<int>& lengths :
         {std::vector<int>{3, 4, 5, 6}, std::vector<int>{3, 4, 5}, std::vector<int>{6, 4},
          std::vector<int>{8}, std::vector<int>{4, 2, 7}})
    {
        SCOPED_TRACE(::testing::PrintToString(lengths));
        qyTest::RecordingMesh mesh(qyTest::makeIcosphere(1));
        setStrips(mesh, lengths);
        const int fanLengths[] = {5, 3};
        const int fanPoints[] = {0, 1, 2, 3, 4, 5, 6, 7};
        mesh.resizeTriFanArrays(8, 2);
        std::copy(fanLengths, fanLengths + 2, mesh.getTriFanLengths());
        std::copy(fanPoints, fanPoints + 8, mesh.getTriFanPoints());
        mesh.resizeLineArray(1);
        mesh.getLines()[0] = {3, 4};

        const std::vector<int> tris = triangles(mesh);
        const std::vector<Tri> strips = stripTriangles(mesh);
        const std::vector<Tri> fans = drawnTriangles(fanLengths, fanPoints, 2, true);
        qyGeom::meshReverseWinding(mesh, true);

        const int* t = mesh.getTrianglesRaw();
        for (int i = 0; i < mesh.getNumTriangles(); ++i)
            EXPECT_EQ(canonical(t[3 * i], t[3 * i + 1], t[3 * i + 2]),
                      canonical(tris[3 * i + 1], tris[3 * i], tris[3 * i + 2]));
        EXPECT_EQ(stripTriangles(mesh), reversed(strips));
        EXPECT_EQ(drawnTriangles(mesh.getTriFanLengths(), mesh.getTriFanPoints(), 2, true),
                  reversed(fans));
        EXPECT_EQ(mesh.getTriFanPoints()[0], 0); // the hub stays first
        EXPECT_EQ(mesh.getLines()[0].v[0], 3);
        ASSERT_EQ(mesh.count(), 1);
        EXPECT_TRUE(mesh.entries()[0].flags & qyGeom::MeshModification::StripsAndFansModified);
    }

    // A strip of 6 becomes one of 3 then one of 5; one of 4 keeps its length.
    CompactMesh mesh = qyTest::makeIcosphere(0);
    setStrips(mesh, {6, 4});
    qyGeom::meshReverseWinding(mesh, false);
    ASSERT_EQ(mesh.getNumTriStrips(), 3);
    EXPECT_EQ(std::vector<int>(mesh.getTriStripLengths(), mesh.getTriStripLengths() + 3),
              (std::vector<int>{3, 5, 4}));
    EXPECT_EQ(std::vector<int>(mesh.getTriStripPoints(), mesh.getTriStripPoints() + 12),
              (std::vector<int>{2, 1, 0, 1, 2, 3, 4, 5, 6, 8, 7, 9}));

    // Reversing twice gives the triangles back.
    CompactMesh sphere = qyTest::makeIcosphere(2);
    qyGeom::meshReverseWinding(sphere, true);
    qyGeom::meshReverseWinding(sphere, true);
    EXPECT_EQ(triangles(sphere), triangles(qyTest::makeIcosphere(2)));
}

TEST(MeshReverseWinding, NegatesVertexNormalsOnlyWhenAskedAndTriangleNormalsAlways)
{
    for (bool reverseNormals : {false, true})
    {
        SCOPED_TRACE(reverseNormals);
        qyTest::RecordingMesh mesh(qyTest::makeCube());
        mesh.allocNormalArray();
        mesh.allocTriangleNormalArray();
        for (int i = 0; i < 3 * mesh.getNumVertices(); ++i)
            mesh.getNormalsRaw()[i] = float(i) + 0.5f;
        for (int i = 0; i < 3 * mesh.getNumTriangles(); ++i)
            mesh.getTriangleNormalsRaw()[i] = float(i) - 0.25f;
        const std::vector<float> normals = floats(mesh.getNormalsRaw(), 24);
        const std::vector<float> triNormals = floats(mesh.getTriangleNormalsRaw(), 36);

        qyGeom::meshReverseWinding(mesh, reverseNormals);
        EXPECT_EQ(floats(mesh.getNormalsRaw(), 24), reverseNormals ? negated(normals) : normals);
        EXPECT_EQ(floats(mesh.getTriangleNormalsRaw(), 36), negated(triNormals));
        ASSERT_EQ(mesh.count(), 1);
        const unsigned flags = mesh.entries()[0].flags;
        EXPECT_EQ(mesh.entries()[0].type, qyGeom::MeshModification::Remapped);
        EXPECT_EQ(bool(flags & qyGeom::MeshModification::NormalsModified), reverseNormals);
        EXPECT_EQ(bool(flags & qyGeom::MeshModification::NormalsValid), !reverseNormals);
        EXPECT_TRUE(flags & qyGeom::MeshModification::TriangleNormalsModified);
    }
}

TEST(MeshReverseWinding, RegionFormReversesTheConnectedPieceOnly)
{
    // A fin of three triangles on one edge, and a separate triangle.
    CompactMesh fin = threeOnOneEdge();
    std::vector<float> xyz(fin.getVerticesRaw(), fin.getVerticesRaw() + 15);
    xyz.insert(xyz.end(), {5, 5, 5, 6, 5, 5, 5, 6, 5});
    std::vector<int> tris = triangles(fin);
    tris.insert(tris.end(), {5, 6, 7});
    CompactMesh mesh = qyTest::makeMesh(xyz, tris);
    qyGeom::meshReverseWinding(mesh, adjacency(mesh), 2);
    EXPECT_EQ(triangles(mesh), (std::vector<int>{1, 0, 2, 0, 1, 3, 1, 0, 4, 5, 6, 7}));
    EXPECT_TRUE(mesh.getSelectedTriangles().isBitSet(0));
    EXPECT_FALSE(mesh.getSelectedTriangles().isBitSet(3));

    // A Moebius band is one piece: all of it is reversed, and it stays unorientable.
    CompactMesh band = qyTest::makeMoebiusBand(5);
    const std::vector<int> before = triangles(band);
    qyGeom::meshReverseWinding(band, adjacency(band), 7);
    const std::vector<int> after = triangles(band);
    for (int i = 0; i < band.getNumTriangles(); ++i)
        EXPECT_EQ(canonical(after[3 * i], after[3 * i + 1], after[3 * i + 2]),
                  canonical(before[3 * i + 1], before[3 * i], before[3 * i + 2]));
    EXPECT_FALSE(qyGeom::meshOriented(band, adjacency(band)));
}

TEST(MeshReverseSelectedWinding, NegatesEachVertexNormalOfTheSelectionExactlyOnce)
{
    // Two fins side by side; the first fin's three triangles share vertices 0 and 1, and
    // vertex 1 is also used by the unselected triangle 3.
    CompactMesh fin = threeOnOneEdge();
    std::vector<float> xyz(fin.getVerticesRaw(), fin.getVerticesRaw() + 15);
    xyz.insert(xyz.end(), {2, 0, 0, 2, 1, 0});
    std::vector<int> tris = triangles(fin);
    tris.insert(tris.end(), {1, 5, 6});
    qyTest::RecordingMesh mesh(qyTest::makeMesh(xyz, tris));
    mesh.allocNormalArray();
    mesh.allocTriangleNormalArray();
    for (int i = 0; i < 21; ++i)
        mesh.getNormalsRaw()[i] = float(i + 1);
    for (int i = 0; i < 12; ++i)
        mesh.getTriangleNormalsRaw()[i] = float(i + 1);
    mesh.getSelectedTriangles().resize(4);
    for (int t = 0; t < 3; ++t)
        mesh.getSelectedTriangles().setBit(t);

    qyGeom::meshReverseSelectedWinding(mesh);
    EXPECT_EQ(triangles(mesh), (std::vector<int>{1, 0, 2, 0, 1, 3, 1, 0, 4, 1, 5, 6}));
    const std::vector<float> normals = floats(mesh.getNormalsRaw(), 21);
    for (int v = 0; v < 7; ++v)
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(normals[3 * v + k], (v < 5 ? -1.0f : 1.0f) * float(3 * v + k + 1))
                << "vertex " << v;
    const std::vector<float> triNormals = floats(mesh.getTriangleNormalsRaw(), 12);
    for (int i = 0; i < 12; ++i)
        EXPECT_EQ(triNormals[i], (i < 9 ? -1.0f : 1.0f) * float(i + 1));
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_TRUE(mesh.entries()[0].flags & qyGeom::MeshModification::NormalsModified);

    // A selection shorter than the triangle array, and one that is empty, are fine too.
    CompactMesh cube = qyTest::makeCube();
    cube.getSelectedTriangles().resize(1);
    cube.getSelectedTriangles().setBit(0);
    qyGeom::meshReverseSelectedWinding(cube);
    std::vector<int> expected = triangles(qyTest::makeCube());
    std::swap(expected[0], expected[1]);
    EXPECT_EQ(triangles(cube), expected);
}

} // namespace
