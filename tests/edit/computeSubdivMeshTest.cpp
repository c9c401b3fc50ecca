// Tests of Catmull-Clark subdivision: the rules by hand on a quad and a cube, triangles to
// quads, origin maps over levels, in place against a new mesh, partial subdivision.
#include "qyGeom/computeSubdivMesh.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/TopoMesh.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyLinear::Point;
using qyLinear::Vector;

namespace
{

using FaceMap = qy::map<TopoMeshFace, TopoMeshFace>;
using EdgeMap = qy::map<TopoMeshEdge, TopoMeshEdge>;
using VertexMap = qy::map<TopoMeshVertex, TopoMeshVertex>;

void build(TopoMesh& topo, const CompactMesh& mesh)
{
    const float* xyz = mesh.getVerticesRaw();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        topo.allocVertex(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]);
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
        topo.allocFace(3, mesh.getTrianglesRaw() + 3 * t);
    topo.meshTwin();
}

// The cube [-1, 1]^3 as six outward quads; vertex i has x, y, z = +1 where bit 0, 1, 2 is set.
void buildQuadCube(TopoMesh& mesh)
{
    for (int i = 0; i < 8; ++i)
        mesh.allocVertex(i & 1 ? 1 : -1, i & 2 ? 1 : -1, i & 4 ? 1 : -1);
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                             {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces)
        mesh.allocFace(4, f);
    mesh.meshTwin();
}

// An n x n grid of unit quads with random heights, and a triangle and a pentagon beside it:
// polygons of three kinds, a boundary, interior vertices of several valences.
void buildBumpyMixedMesh(TopoMesh& mesh, int n)
{
    std::mt19937 rng(11u);
    std::uniform_real_distribution<double> height(-0.3, 0.3);
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
            mesh.allocVertex(i, j, height(rng));
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
        {
            const int v = j * (n + 1) + i;
            const int quad[4] = {v, v + 1, v + n + 2, v + n + 1};
            mesh.allocFace(4, quad);
        }
    // Below the first row: a pentagon under cells 0 and 1, a triangle under cell 2.
    const int p0 = mesh.allocVertex(0, -1, 0.2).getIndex();
    const int p1 = mesh.allocVertex(2, -1.2, -0.1).getIndex();
    const int p2 = mesh.allocVertex(3, -1, 0).getIndex();
    const int pentagon[5] = {p0, p1, 2, 1, 0};
    const int triangle[3] = {p1, p2, 2};
    mesh.allocFace(5, pentagon);
    mesh.allocFace(3, triangle);
    mesh.meshTwin();
}

std::vector<Point> sortedPoints(TopoMesh& mesh)
{
    std::vector<Point> out;
    for (TopoMeshVertex v = mesh.firstVertex(); v; v = v.nextInList())
        out.push_back(v.point());
    std::sort(out.begin(), out.end(),
              [](const Point& a, const Point& b) {
                  return a.x != b.x ? a.x < b.x : a.y != b.y ? a.y < b.y : a.z < b.z;
              });
    return out;
}

void expectSamePoints(TopoMesh& a, TopoMesh& b, double tol)
{
    const std::vector<Point> pa = sortedPoints(a), pb = sortedPoints(b);
    ASSERT_EQ(pa.size(), pb.size());
    for (std::size_t i = 0; i < pa.size(); ++i)
        EXPECT_LE(qyLinear::distance(pa[i], pb[i]), tol) << i;
}

// Faces all quads, twins consistent; returns the number of boundary half-edges.
int checkQuadMesh(TopoMesh& mesh)
{
    int boundary = 0;
    for (TopoMeshFace f = mesh.firstFace(); f; f = f.nextInList())
        EXPECT_EQ(f.numCorners(), 4);
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
    {
        if (!e.hasTwin())
            ++boundary;
        else
            EXPECT_EQ(e.twin().vertex(), e.endVertex());
    }
    return boundary;
}

bool near(const Point& a, const Point& b, double tol = 1e-12)
{
    return qyLinear::distance(a, b) <= tol;
}

} // namespace

TEST(computeSubdivMesh, OneQuadAndAClosedCubeFollowTheBoundaryAndInteriorRules)
{
    // A kite-shaped quad, so that each corner's two boundary neighbours matter.
    TopoMesh quad;
    const Point corners[4] = {{0, 0, 0}, {2, 0, 0}, {3, 2, 1}, {0, 1, 0}};
    for (const Point& p : corners)
        quad.allocVertex(p);
    quad.allocQuad(quad.vertex(0), quad.vertex(1), quad.vertex(2), quad.vertex(3));
    quad.meshTwin();
    FaceMap faces;
    EdgeMap edges;
    VertexMap vertices;
    std::unique_ptr<TopoMesh> fine(computeSubdivMesh(quad, 1, faces, edges, vertices));
    ASSERT_TRUE(fine);
    EXPECT_EQ(fine->getNumFaces(), 4);
    EXPECT_EQ(fine->getNumVertices(), 9);
    EXPECT_EQ(checkQuadMesh(*fine), 8);
    ASSERT_EQ(vertices.size(), 4u);
    for (const auto& [to, from] : vertices)
    {
        const int i = from.getIndex();
        const Point& S = corners[i];
        const Point& E1 = corners[(i + 1) % 4];
        const Point& E2 = corners[(i + 3) % 4];
        const Point expected(0.75 * S.x + (E1.x + E2.x) / 8, 0.75 * S.y + (E1.y + E2.y) / 8,
                             0.75 * S.z + (E1.z + E2.z) / 8);
        EXPECT_TRUE(near(to.point(), expected)) << i;
        EXPECT_TRUE(to.onBoundary());
        EXPECT_EQ(to.valence(), 2);
    }
    EXPECT_EQ(edges.size(), 8u); // the two halves of each side

    // Two triangles that share only a corner: four boundary edges meet there, so it stays;
    // the other corners follow the boundary rule of their own fan.
    TopoMesh bowtie;
    const Point bow[5] = {{0, 0, 0}, {1, 1, 0}, {-1, 1, 0}, {-1, -1, 0}, {1, -1, 0.5}};
    for (const Point& p : bow)
        bowtie.allocVertex(p);
    bowtie.allocTriangle(bowtie.vertex(0), bowtie.vertex(1), bowtie.vertex(2));
    bowtie.allocTriangle(bowtie.vertex(0), bowtie.vertex(3), bowtie.vertex(4));
    bowtie.meshTwin();
    for (const int levels : {1, 2})
    {
        std::unique_ptr<TopoMesh> tie(computeSubdivMesh(bowtie, levels, faces, edges, vertices));
        ASSERT_TRUE(tie);
        for (const auto& [to, from] : vertices)
        {
            if (from.getIndex() == 0)
                EXPECT_EQ(to.point(), bow[0]);
            else
                EXPECT_FALSE(near(to.point(), from.point()));
        }
    }

    // Cube: every corner by the interior rule with n = 3, (Q + 2R) / 3 = (5/9, 5/9, 5/9) up
    // to signs; edge points at (A + B + F1 + F2) / 4, e.g. (3/4, 3/4, 0).
    TopoMesh cube;
    buildQuadCube(cube);
    std::unique_ptr<TopoMesh> round(computeSubdivMesh(cube, 1, faces, edges, vertices));
    ASSERT_TRUE(round);
    EXPECT_EQ(round->getNumFaces(), 24);
    EXPECT_EQ(round->getNumVertices(), 26);
    EXPECT_EQ(checkQuadMesh(*round), 0);
    ASSERT_EQ(vertices.size(), 8u);
    for (const auto& [to, from] : vertices)
    {
        const Point& S = from.point();
        EXPECT_TRUE(near(to.point(), Point(S.x * 5 / 9, S.y * 5 / 9, S.z * 5 / 9)));
        EXPECT_EQ(to.valence(), 3);
    }
    int edgePoints = 0, facePoints = 0;
    for (TopoMeshVertex v = round->firstVertex(); v; v = v.nextInList())
    {
        const Point p = v.point();
        const int zeros = (p.x == 0) + (p.y == 0) + (p.z == 0);
        const int threeQuarters =
            (std::abs(p.x) == 0.75) + (std::abs(p.y) == 0.75) + (std::abs(p.z) == 0.75);
        edgePoints += zeros == 1 && threeQuarters == 2;
        facePoints += zeros == 2;
    }
    EXPECT_EQ(edgePoints, 12);
    EXPECT_EQ(facePoints, 6);

    // The normals of the smoothed cube point outward; at the corners along the diagonal.
    qy::map<TopoMeshVertex, qyLinear::Normal> normals;
    computeSubdivMeshNormals(*round, normals);
    ASSERT_EQ(normals.size(), 26u);
    for (const auto& [v, n] : normals)
    {
        ASSERT_TRUE(n.isValid());
        EXPECT_GT(qyLinear::dot(n.asVector(), Vector(v.point())), 0.5);
    }
    for (const auto& [to, from] : vertices)
        EXPECT_NEAR(qyLinear::dot(normals.at(to).asVector(), Vector(from.point())), std::sqrt(3.0),
                    1e-12);
}

TEST(computeSubdivMesh, TrianglesBecomeQuadsAndLevelsOfZeroGiveNothing)
{
    for (const bool open : {false, true})
    {
        SCOPED_TRACE(open ? "hemisphere" : "icosphere");
        TopoMesh mesh;
        build(mesh, open ? qyTest::makeHemisphere(4, 8) : qyTest::makeIcosphere(1));
        int boundary = 0;
        for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
            boundary += !e.hasTwin();
        std::unique_ptr<TopoMesh> fine(computeSubdivMesh(mesh, 1));
        ASSERT_TRUE(fine);
        EXPECT_EQ(fine->getNumFaces(), 3 * mesh.getNumFaces());
        const int numEdges = (mesh.getNumEdges() + boundary) / 2;
        EXPECT_EQ(fine->getNumVertices(), mesh.getNumVertices() + numEdges + mesh.getNumFaces());
        EXPECT_EQ(checkQuadMesh(*fine), 2 * boundary);
    }
    TopoMesh cube;
    buildQuadCube(cube);
    EXPECT_EQ(computeSubdivMesh(cube, 0), nullptr);
    FaceMap faces{{cube.face(0), cube.face(0)}};
    EdgeMap edges;
    VertexMap vertices;
    EXPECT_EQ(computeSubdivMesh(cube, -1, faces, edges, vertices), nullptr);
    EXPECT_TRUE(faces.empty());
}

TEST(computeSubdivMesh, OriginMapsComposeOverTwoLevels)
{
    TopoMesh cube;
    buildQuadCube(cube);
    FaceMap faces;
    EdgeMap edges;
    VertexMap vertices;
    std::unique_ptr<TopoMesh> fine(computeSubdivMesh(cube, 2, faces, edges, vertices));
    ASSERT_TRUE(fine);
    EXPECT_EQ(fine->getNumFaces(), 96);
    ASSERT_EQ(faces.size(), 96u);
    std::map<int, int> perFace, perEdge;
    for (const auto& [to, from] : faces)
    {
        EXPECT_EQ(to.getMesh(), fine.get());
        EXPECT_EQ(from.getMesh(), &cube);
        ++perFace[from.getIndex()];
        // Each of the 16 quads lies on the side of its input face (the cube is centred).
        const Point c = to.centroid(), n = from.centroid();
        EXPECT_GT(c.x * n.x + c.y * n.y + c.z * n.z, 0.3);
    }
    EXPECT_EQ(perFace.size(), 6u);
    for (const auto& [face, count] : perFace)
        EXPECT_EQ(count, 16) << face;
    // Four pieces per input half-edge, each in a quad of that half-edge's face.
    for (const auto& [to, from] : edges)
    {
        ++perEdge[from.getIndex()];
        EXPECT_EQ(faces.at(to.face()), from.face());
    }
    EXPECT_EQ(perEdge.size(), 24u);
    for (const auto& [edge, count] : perEdge)
        EXPECT_EQ(count, 4) << edge;
    // The vertex points of the eight corners only, each in its corner's octant.
    ASSERT_EQ(vertices.size(), 8u);
    for (const auto& [to, from] : vertices)
    {
        EXPECT_GT(to.point().x * from.point().x, 0);
        EXPECT_GT(to.point().y * from.point().y, 0);
        EXPECT_GT(to.point().z * from.point().z, 0);
    }
}

TEST(computeSubdivMesh, TheResultIsLinkedAsAFaceByFaceBuildWouldBe)
{
    // Input with a boundary, an inner hole (a missing cell), an isolated vertex, and free
    // slots left by a vertex deletion; the result is rebuilt from its own faces with
    // allocFace and meshTwin, and must match in every link and every vertex's leaving edge.
    TopoMesh input;
    buildBumpyMixedMesh(input, 5);
    input.allocVertex(9, 9, 9);
    ASSERT_TRUE(input.deleteVertex(input.vertex(2 * 6 + 2)));
    TopoMesh holed;
    std::vector<int> copied(std::size_t(input.getVertexCapacity()), -1);
    for (TopoMeshVertex v = input.firstVertex(); v; v = v.nextInList())
        copied[std::size_t(v.getIndex())] = holed.allocVertex(v.point()).getIndex();
    std::vector<int> corners;
    int skipped = 0;
    for (TopoMeshFace f = input.firstFace(); f; f = f.nextInList())
    {
        if (f.getIndex() == 3 * 5 + 3 && !skipped++)
            continue; // an interior cell away from the deleted vertex
        corners.clear();
        TopoMeshEdge e = f.edge();
        do
        {
            corners.push_back(copied[std::size_t(e.vertex().getIndex())]);
            e = e.next();
        } while (e != f.edge());
        holed.allocFace(int(corners.size()), corners.data());
    }
    holed.meshTwin();
    ASSERT_EQ(skipped, 1);

    for (TopoMesh* mesh : {&input, &holed})
    {
        std::unique_ptr<TopoMesh> fine(computeSubdivMesh(*mesh, 2));
        ASSERT_TRUE(fine);
        TopoMesh again;
        for (int v = 0; v < fine->getVertexCapacity(); ++v)
            again.allocVertex(fine->getPoint(v));
        for (int f = 0; f < fine->getFaceCapacity(); ++f)
        {
            corners.clear();
            TopoMeshEdge e = fine->face(f).edge();
            do
            {
                corners.push_back(e.vertex().getIndex());
                e = e.next();
            } while (e != fine->face(f).edge());
            ASSERT_EQ(again.allocFace(int(corners.size()), corners.data()).getIndex(), f);
        }
        again.meshTwin();
        ASSERT_EQ(again.getEdgeCapacity(), fine->getEdgeCapacity());
        int boundary = 0;
        for (int e = 0; e < again.getEdgeCapacity(); ++e)
        {
            const TopoMesh::HalfEdge& a = again.getHalfEdge(e);
            const TopoMesh::HalfEdge& b = fine->getHalfEdge(e);
            ASSERT_TRUE(a.vertex == b.vertex && a.face == b.face && a.next == b.next &&
                        a.prev == b.prev && a.twin == b.twin)
                << e;
            boundary += b.twin < 0;
        }
        EXPECT_GT(boundary, 0);
        for (int v = 0; v < again.getVertexCapacity(); ++v)
        {
            ASSERT_EQ(again.getVertexEdge(v), fine->getVertexEdge(v)) << v;
            ASSERT_EQ(again.getVertexDegree(v), fine->getVertexDegree(v)) << v;
            EXPECT_EQ(fine->getVertexTag(v), -1);
        }
        for (int f = 0; f < again.getFaceCapacity(); ++f)
            ASSERT_EQ(again.getFaceEdge(f), fine->getFaceEdge(f)) << f;
        EXPECT_EQ(fine->getVertexEdge(fine->getVertexCapacity() - 1), -1); // isolated
    }
}

TEST(computeSubdivMesh, OneThreadAndSeveralGiveTheSameMeshToTheBit)
{
    // Large enough for many chunks per pass: a closed triangle mesh and an open mixed one,
    // over two levels (the second reads the first's quads), with and without origin maps.
    for (const int kind : {0, 1})
    {
        SCOPED_TRACE(kind ? "mixed open mesh" : "icosphere");
        TopoMesh input;
        if (kind)
            buildBumpyMixedMesh(input, 40);
        else
            build(input, qyTest::makeIcosphere(4));
        std::unique_ptr<TopoMesh> results[2];
        FaceMap faces[2];
        EdgeMap edges[2];
        VertexMap vertices[2];
        for (const int threads : {1, 3})
        {
            qyTest::ScopedThreadCount scoped(threads);
            const int i = threads == 1 ? 0 : 1;
            results[i].reset(computeSubdivMesh(input, 2, faces[i], edges[i], vertices[i]));
            ASSERT_TRUE(results[i]);
            std::unique_ptr<TopoMesh> plain(computeSubdivMesh(input, 2));
            ASSERT_EQ(plain->getEdgeCapacity(), results[i]->getEdgeCapacity());
            EXPECT_EQ(
                0, std::memcmp(plain->getHalfEdges(), results[i]->getHalfEdges(),
                               sizeof(TopoMesh::HalfEdge) * std::size_t(plain->getEdgeCapacity())));
        }
        TopoMesh& a = *results[0];
        TopoMesh& b = *results[1];
        ASSERT_EQ(a.getVertexCapacity(), b.getVertexCapacity());
        ASSERT_EQ(a.getEdgeCapacity(), b.getEdgeCapacity());
        ASSERT_EQ(a.getFaceCapacity(), b.getFaceCapacity());
        EXPECT_EQ(0, std::memcmp(a.getPoints(), b.getPoints(),
                                 sizeof(Point) * std::size_t(a.getVertexCapacity())));
        EXPECT_EQ(0, std::memcmp(a.getHalfEdges(), b.getHalfEdges(),
                                 sizeof(TopoMesh::HalfEdge) * std::size_t(a.getEdgeCapacity())));
        for (int v = 0; v < a.getVertexCapacity(); ++v)
        {
            ASSERT_EQ(a.getVertexEdge(v), b.getVertexEdge(v)) << v;
            ASSERT_EQ(a.getVertexDegree(v), b.getVertexDegree(v)) << v;
        }
        for (int f = 0; f < a.getFaceCapacity(); ++f)
            ASSERT_EQ(a.getFaceEdge(f), b.getFaceEdge(f)) << f;
        const auto sameMaps = [](const auto& x, const auto& y)
        {
            if (x.size() != y.size())
                return false;
            for (auto i = x.begin(), j = y.begin(); i != x.end(); ++i, ++j)
                if (i->first.getIndex() != j->first.getIndex() ||
                    i->second.getIndex() != j->second.getIndex())
                    return false;
            return true;
        };
        EXPECT_TRUE(sameMaps(faces[0], faces[1]));
        EXPECT_TRUE(sameMaps(edges[0], edges[1]));
        EXPECT_TRUE(sameMaps(vertices[0], vertices[1]));
        EXPECT_GT(a.getNumFaces(), 20000);
    }
}

TEST(computeSubdivMesh, InPlaceGivesTheNewMeshPositions)
{
    for (const int kind : {0, 1})
    {
        SCOPED_TRACE(kind ? "mixed open mesh" : "cube");
        TopoMesh input;
        kind ? buildBumpyMixedMesh(input, 3) : buildQuadCube(input);
        FaceMap faces;
        EdgeMap edges;
        VertexMap vertices;
        std::unique_ptr<TopoMesh> fine(computeSubdivMesh(input, 2, faces, edges, vertices));
        ASSERT_TRUE(fine);

        TopoMesh inPlace(input);
        int notices = 0;
        inPlace.getModifiedSignal().connect([&](const qyRTB::EntityModification&) { ++notices; });
        FaceMap inFaces;
        EdgeMap inEdges;
        qy::unordered_set<TopoMeshVertex> kept;
        computeSubdivMeshInPlace(inPlace, 2, inFaces, inEdges, kept);
        EXPECT_EQ(notices, 1);
        EXPECT_EQ(inPlace.getNumFaces(), fine->getNumFaces());
        EXPECT_EQ(inPlace.getNumEdges(), fine->getNumEdges());
        EXPECT_EQ(checkQuadMesh(inPlace), checkQuadMesh(*fine));
        expectSamePoints(inPlace, *fine, 1e-12);

        // Same number of faces from each input face and of pieces on each input half-edge;
        // the input's vertices keep their handles and sit at their vertex points.
        std::map<int, int> countNew, countIn;
        for (const auto& [to, from] : faces)
            ++countNew[from.getIndex()];
        for (const auto& [to, from] : inFaces)
            ++countIn[from.getIndex()];
        EXPECT_EQ(countNew, countIn);
        countNew.clear();
        countIn.clear();
        for (const auto& [to, from] : edges)
            ++countNew[from.getIndex()];
        for (const auto& [to, from] : inEdges)
            ++countIn[from.getIndex()];
        EXPECT_EQ(countNew, countIn);
        EXPECT_EQ(int(kept.size()), input.getNumVertices());
        for (const auto& [to, from] : vertices)
        {
            const TopoMeshVertex same(&inPlace, from.getIndex());
            EXPECT_TRUE(kept.count(same));
            EXPECT_TRUE(near(same.point(), to.point()));
        }

        TopoMesh plain(input);
        computeSubdivMeshInPlace(plain, 2);
        expectSamePoints(plain, inPlace, 0);
    }
}

TEST(computePartialSubdivMesh, RefinesTheRegionAndLeavesTheRingAsItWas)
{
    TopoMesh input;
    buildBumpyMixedMesh(input, 6);
    const int n = 6;
    // Region: the cell (2, 2) as a face, and the vertex at (4, 3) (its four cells).
    qy::unordered_set<TopoMeshEntity> region{TopoMeshEntity(input.face(2 * n + 2)),
                                             TopoMeshEntity(input.vertex(3 * (n + 1) + 4))};
    const std::vector<int> refined{2 * n + 2, 2 * n + 3, 2 * n + 4, 3 * n + 3, 3 * n + 4};
    FaceMap faces;
    EdgeMap edges;
    VertexMap vertices;
    std::unique_ptr<TopoMesh> out(computePartialSubdivMesh(region, 2, faces, edges, vertices));
    ASSERT_TRUE(out);

    std::map<int, int> perFace;
    for (const auto& [to, from] : faces)
        ++perFace[from.getIndex()];
    for (const auto& [face, count] : perFace)
    {
        const bool isRefined = std::count(refined.begin(), refined.end(), face) != 0;
        EXPECT_EQ(count, isRefined ? 16 : 1) << face;
    }
    EXPECT_EQ(out->getNumFaces(), int(faces.size()));

    // Ring faces: their input corners are where they were, in the same cyclic order, and
    // every added corner lies on the side it splits.
    int ringFaces = 0, addedCorners = 0;
    for (const auto& [to, from] : faces)
    {
        if (perFace[from.getIndex()] != 1)
            continue;
        ++ringFaces;
        std::vector<Point> inputCorners;
        TopoMeshEdge e = from.edge();
        do
        {
            inputCorners.push_back(e.vertex().point());
            e = e.next();
        } while (e != from.edge());
        // Start at a corner that maps to an input vertex.
        TopoMeshEdge g = to.edge();
        while (!vertices.count(g.vertex()))
            g = g.next();
        const std::size_t k0 =
            std::find(inputCorners.begin(), inputCorners.end(), vertices.at(g.vertex()).point()) -
            inputCorners.begin();
        ASSERT_LT(k0, inputCorners.size());
        std::size_t k = k0;
        const TopoMeshEdge start = g;
        do
        {
            const Point p = g.vertex().point();
            if (vertices.count(g.vertex()))
            {
                EXPECT_EQ(p, inputCorners[k % inputCorners.size()]);
                ++k;
            }
            else
            {
                ++addedCorners;
                const Point a = inputCorners[(k - 1) % inputCorners.size()];
                const Point b = inputCorners[k % inputCorners.size()];
                EXPECT_NEAR(qyLinear::distance(a, p) + qyLinear::distance(p, b),
                            qyLinear::distance(a, b), 1e-12);
            }
            g = g.next();
        } while (g != start);
        EXPECT_EQ(k - k0, inputCorners.size());
    }
    EXPECT_GT(ringFaces, 0);
    // Each border side carries 3 added corners after two levels; the five cells have 10 sides
    // against the ring.
    EXPECT_EQ(addedCorners, 3 * 10);
    // No T-junction: every interior half-edge's twin runs back.
    for (TopoMeshEdge e = out->firstEdge(); e; e = e.nextInList())
    {
        if (e.hasTwin())
        {
            EXPECT_EQ(e.twin().vertex(), e.endVertex());
        }
    }

    // The whole of a closed mesh as the region: the same as subdividing it whole.
    TopoMesh cube;
    buildQuadCube(cube);
    qy::unordered_set<TopoMeshEntity> all;
    for (TopoMeshFace f = cube.firstFace(); f; f = f.nextInList())
        all.insert(f);
    std::unique_ptr<TopoMesh> partial(computePartialSubdivMesh(all, 2));
    std::unique_ptr<TopoMesh> whole(computeSubdivMesh(cube, 2));
    ASSERT_TRUE(partial && whole);
    expectSamePoints(*partial, *whole, 0);

    qy::unordered_set<TopoMeshEntity> none;
    EXPECT_EQ(computePartialSubdivMesh(none, 1), nullptr);
    EXPECT_EQ(computePartialSubdivMesh(all, 0), nullptr);
}
