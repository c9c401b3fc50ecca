#include "qyGeom/meshRayIntersect.h"

#include <cmath>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "model/BoundingBox.h"
#include "qyGeom/intersectRayTriangle.h"
#include "qyGeom/meshBoundingBox.h"
#include "testMeshes.h"

namespace
{

using qyGeom::CompactMesh;
using qyGeom::MeshRayHit;

// The reference: every triangle in turn with the short form's rule, the first of equal t kept.
MeshRayHit bruteForce(const CompactMesh& mesh, const float* orig, const double* dir,
                      double farDistance)
{
    MeshRayHit best;
    best.t = farDistance;
    const int* tris = mesh.getTrianglesRaw();
    const float* v = mesh.getVerticesRaw();
    const int numVerts = mesh.getNumVertices();
    for (int i = 0; i < mesh.getNumTriangles(); ++i)
    {
        const int* c = tris + 3 * i;
        if (c[0] < 0 || c[1] < 0 || c[2] < 0 || c[0] >= numVerts || c[1] >= numVerts ||
            c[2] >= numVerts)
            continue;
        double t, u, w;
        if (qyGeom::intersectRayTriangle(dir, orig, v + 3 * c[0], v + 3 * c[1], v + 3 * c[2], t, u,
                                         w) &&
            t > qyLinear::epsilonTol && t < best.t)
            best = {i, t, u, w};
    }
    if (best.triangle < 0)
        best.t = 0;
    return best;
}

struct Rays
{
    std::vector<float> origins;
    std::vector<double> directions;
    int size() const { return int(origins.size() / 3); }
};

// Rays from a sphere around the mesh aimed at points of its box (mostly hits), rays from
// inside the box in any direction (hits from the back too), and rays along the axes through
// the vertices' coordinates, which meet shared edges and corners exactly.
Rays makeRays(const CompactMesh& mesh, int count, unsigned seed)
{
    qyGeom::BoundingBox box;
    qyGeom::meshBoundingBox(mesh, box);
    const qyLinear::Point lo = box.minPt(), hi = box.maxPt();
    const double diag = std::max(1.0, (hi - lo).length());
    std::mt19937 random(seed);
    std::uniform_real_distribution<double> unit(0, 1), signedUnit(-1, 1);
    Rays rays;
    auto add = [&](double ox, double oy, double oz, double dx, double dy, double dz)
    {
        rays.origins.insert(rays.origins.end(), {float(ox), float(oy), float(oz)});
        rays.directions.insert(rays.directions.end(), {dx, dy, dz});
    };
    auto inBox = [&](int k) { return lo[k] + (hi[k] - lo[k]) * unit(random); };
    for (int i = 0; i < count; ++i)
    {
        qyLinear::Vector d(signedUnit(random), signedUnit(random), signedUnit(random));
        if (d.length() < 1e-3)
            d = qyLinear::Vector(1, 0, 0);
        d = d * (1 / d.length());
        const double target[3] = {inBox(0), inBox(1), inBox(2)};
        const double c[3] = {0.5 * (lo.x + hi.x), 0.5 * (lo.y + hi.y), 0.5 * (lo.z + hi.z)};
        const double o[3] = {c[0] + diag * d.x, c[1] + diag * d.y, c[2] + diag * d.z};
        if (i % 3 == 0)
            add(o[0], o[1], o[2], target[0] - o[0], target[1] - o[1], target[2] - o[2]);
        else if (i % 3 == 1)
            add(target[0], target[1], target[2], d.x, d.y, d.z);
        else if (mesh.getNumVertices() > 0)
        {
            const float* p = mesh.getVerticesRaw() + 3 * (i % mesh.getNumVertices());
            const int axis = i % 2 ? 2 : 0; // down z or along -x, through a vertex
            add(p[0] + (axis == 0 ? 3 * diag : 0), p[1], p[2] + (axis == 2 ? 3 * diag : 0),
                axis == 0 ? -1 : 0, 0, axis == 2 ? -1 : 0);
        }
    }
    return rays;
}

std::vector<qyTest::TestMesh> castMeshes()
{
    std::vector<qyTest::TestMesh> meshes = qyTest::testMeshes::all();
    meshes.push_back({"icosphere 3", qyTest::makeIcosphere(3)});
    meshes.push_back({"torus", qyTest::makeTorus(24, 12)});
    meshes.push_back({"grid", qyTest::makeGrid(6, 5)});
    meshes.push_back({"soup with duplicates", qyTest::makeTriangleSoup(qyTest::makeCube())});
    CompactMesh bad = qyTest::makeCube();
    bad.getTrianglesRaw()[4] = 99; // a corner outside the vertex array
    bad.getTrianglesRaw()[9] = -1;
    meshes.push_back({"bad indices", bad});
    return meshes;
}

void expectSameHit(const MeshRayHit& hit, const MeshRayHit& expected)
{
    EXPECT_EQ(hit.triangle, expected.triangle);
    EXPECT_EQ(hit.t, expected.t);
    EXPECT_EQ(hit.u, expected.u);
    EXPECT_EQ(hit.v, expected.v);
}

TEST(RayTracer, FindsTheHitsOfALoopOverEveryTriangle)
{
    int hits = 0, misses = 0;
    for (const qyTest::TestMesh& m : castMeshes())
    {
        SCOPED_TRACE(m.name);
        const qyGeom::RayTracer tracer(m.mesh);
        const Rays rays = makeRays(m.mesh, 300, 7);
        for (int i = 0; i < rays.size(); ++i)
        {
            SCOPED_TRACE(i);
            const float* o = &rays.origins[3 * i];
            const double* d = &rays.directions[3 * i];
            for (double farDistance : {3.4028234663852886e38, 1.5})
            {
                qyGeom::Ray ray(qyLinear::PointFlt(o[0], o[1], o[2]),
                                qyLinear::Vector(d[0], d[1], d[2]));
                ray.setFarDistance(farDistance);
                const MeshRayHit expected = bruteForce(m.mesh, o, d, farDistance);
                MeshRayHit hit;
                EXPECT_EQ(tracer.intersect(ray, hit), expected.triangle >= 0);
                expectSameHit(hit, expected);
                EXPECT_EQ(tracer.occluded(ray), expected.triangle >= 0);
                (expected.triangle >= 0 ? hits : misses)++;
            }
        }
    }
    // Both kinds occur in numbers.
    EXPECT_GT(hits, 1000);
    EXPECT_GT(misses, 1000);

    // The one-off form and an empty mesh.
    const CompactMesh sphere = qyTest::makeIcosphere(2);
    MeshRayHit hit;
    EXPECT_TRUE(qyGeom::meshRayIntersect(sphere, qyLinear::PointFlt(0, 0, 0),
                                         qyLinear::Vector(0, 0, 2), hit));
    EXPECT_NEAR(hit.t, 0.5, 0.02);
    EXPECT_FALSE(qyGeom::meshRayIntersect(CompactMesh(), qyLinear::PointFlt(0, 0, 0),
                                          qyLinear::Vector(0, 0, 1), hit));
    EXPECT_EQ(hit.triangle, -1);
}

TEST(RayTracer, BatchesGiveTheSameHitsWithOneAndSeveralThreads)
{
    const CompactMesh mesh = qyTest::makeTorus(60, 30);
    const qyGeom::RayTracer tracer(mesh);
    const Rays rays = makeRays(mesh, 5000, 11);
    const int n = rays.size();
    std::vector<std::vector<MeshRayHit>> hits;
    std::vector<std::vector<unsigned char>> occluded;
    std::vector<int> counts;
    for (int threads : {1, 3})
    {
        qyTest::ScopedThreadCount scope(threads);
        hits.emplace_back(std::size_t(n));
        occluded.emplace_back(std::size_t(n), 7);
        counts.push_back(qyGeom::meshRayIntersect(tracer, n, rays.origins.data(),
                                                  rays.directions.data(), hits.back().data()));
        EXPECT_EQ(qyGeom::meshRayOccluded(tracer, n, rays.origins.data(), rays.directions.data(),
                                          occluded.back().data()),
                  counts.back());
    }
    EXPECT_EQ(counts[0], counts[1]);
    EXPECT_GT(counts[0], n / 4);
    EXPECT_LT(counts[0], n);
    EXPECT_EQ(occluded[0], occluded[1]);
    for (int i = 0; i < n; ++i)
    {
        SCOPED_TRACE(i);
        expectSameHit(hits[1][std::size_t(i)], hits[0][std::size_t(i)]);
        EXPECT_EQ(occluded[0][std::size_t(i)], hits[0][std::size_t(i)].triangle >= 0 ? 1 : 0);
        const float* o = &rays.origins[3 * std::size_t(i)];
        MeshRayHit single;
        tracer.intersect(qyGeom::Ray(qyLinear::PointFlt(o[0], o[1], o[2]),
                                     qyLinear::Vector(rays.directions[3 * std::size_t(i)],
                                                      rays.directions[3 * std::size_t(i) + 1],
                                                      rays.directions[3 * std::size_t(i) + 2])),
                         single);
        expectSameHit(hits[0][std::size_t(i)], single);
    }
}

} // namespace
