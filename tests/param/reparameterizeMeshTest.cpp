#include "qyGeom/reparameterizeMesh.h"

#include <algorithm>
#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "base/AppOutput.h"
#include "base/Progress.h"
#include "qyGeom/cutSurface.h"
#include "testMeshes.h"

using qyGeom::CompactMesh;
using qyGeom::reparameterizeMesh;

namespace
{

// Collects the application output while alive.
class OutputCapture
{
public:
    OutputCapture()
    {
        m_saved = qyOS::AppOutput::getInstance().setSink(
            [this](qyOS::AppOutput::Kind kind, const char* text)
            { (kind == qyOS::AppOutput::ErrorMessage ? m_errors : m_info) += text; });
    }
    ~OutputCapture() { qyOS::AppOutput::getInstance().setSink(m_saved); }
    const std::string& info() const { return m_info; }
    const std::string& errors() const { return m_errors; }

private:
    qyOS::AppOutput::Sink m_saved;
    std::string m_info, m_errors;
};

// Flat annulus in z = 0 between radii r0 < r1, counter-clockwise seen from +z. The inner loop
// has half as many vertices as the other rings, so the two loops can be told apart.
CompactMesh makeAnnulus(int rings, int segments, double r0, double r1)
{
    std::vector<float> xyz;
    std::vector<int> tris;
    auto ringStart = [&](int i) { return i == 0 ? 0 : segments / 2 + (i - 1) * segments; };
    for (int i = 0; i <= rings; ++i)
    {
        const int count = i == 0 ? segments / 2 : segments;
        for (int j = 0; j < count; ++j)
        {
            const double r = r0 + (r1 - r0) * i / rings, a = 2.0 * M_PI * j / count;
            xyz.insert(xyz.end(), {float(r * std::cos(a)), float(r * std::sin(a)), 0.0f});
        }
    }
    for (int j = 0; j < segments / 2; ++j)
    {
        const int a = j, b = (j + 1) % (segments / 2);
        const int c = ringStart(1) + 2 * j, d = c + 1, e = ringStart(1) + (2 * j + 2) % segments;
        tris.insert(tris.end(), {a, c, d, a, d, b, b, d, e});
    }
    for (int i = 1; i < rings; ++i)
        for (int j = 0; j < segments; ++j)
        {
            const int a = ringStart(i) + j, b = ringStart(i) + (j + 1) % segments;
            const int c = a + segments, d = b + segments;
            tris.insert(tris.end(), {a, d, b, a, c, d});
        }
    return qyTest::makeMesh(xyz, tris);
}

// Open cylinder of radius 1 and height h around z, cut open along x > 0: the seam's vertices are
// stored twice at the same position, so welding closes it into an annulus.
CompactMesh makeCutCylinder(int rows, int segments, double h)
{
    std::vector<float> xyz;
    std::vector<int> tris;
    for (int i = 0; i <= rows; ++i)
        for (int j = 0; j <= segments; ++j)
        {
            const double a = 2.0 * M_PI * (j % segments) / segments; // the seam repeats j = 0
            xyz.insert(xyz.end(), {float(std::cos(a)), float(std::sin(a)), float(h * i / rows)});
        }
    const int w = segments + 1;
    for (int i = 0; i < rows; ++i)
        for (int j = 0; j < segments; ++j)
        {
            const int a = i * w + j, b = a + 1, c = a + w, d = c + 1;
            tris.insert(tris.end(), {a, b, d, a, d, c});
        }
    return qyTest::makeMesh(xyz, tris);
}

double signedUVArea(const CompactMesh& m, int t)
{
    const int* c = m.getTrianglesRaw() + 3 * t;
    const qyGeom::MeshUV *a = m.getUVs() + c[0], *b = m.getUVs() + c[1], *d = m.getUVs() + c[2];
    return 0.5 * (double(b->u - a->u) * (d->v - a->v) - double(b->v - a->v) * (d->u - a->u));
}

// Triangles whose UV orientation differs from the majority's (zero area counts as flipped).
int countFlipped(const CompactMesh& m)
{
    int positive = 0, negative = 0;
    for (int t = 0; t < m.getNumTriangles(); ++t)
    {
        const double s = signedUVArea(m, t);
        positive += s > 0.0;
        negative += !(s > 0.0);
    }
    return std::min(positive, negative);
}

// UVs lie in the unit square and reach 0 on both axes and 1 on at least one. After a cut the
// copies on the seam, which the caller's mesh does not have, may be the ones that reach them.
void expectUnitSquare(const CompactMesh& m, bool reachesSides = true)
{
    ASSERT_NE(m.getUVs(), nullptr);
    float lo[2] = {1e9f, 1e9f}, hi[2] = {-1e9f, -1e9f};
    for (int v = 0; v < m.getNumVertices(); ++v)
    {
        const qyGeom::MeshUV& uv = m.getUVs()[v];
        lo[0] = std::min(lo[0], uv.u);
        lo[1] = std::min(lo[1], uv.v);
        hi[0] = std::max(hi[0], uv.u);
        hi[1] = std::max(hi[1], uv.v);
    }
    EXPECT_GE(std::min(lo[0], lo[1]), 0.0f);
    EXPECT_LE(std::max(hi[0], hi[1]), 1.0f + 1e-6f);
    if (reachesSides)
    {
        EXPECT_NEAR(lo[0], 0.0f, 1e-6f);
        EXPECT_NEAR(lo[1], 0.0f, 1e-6f);
        EXPECT_NEAR(std::max(hi[0], hi[1]), 1.0f, 1e-6f);
    }
}

} // namespace

TEST(ReparameterizeMesh, SingleTriangleKeepsItsShape)
{
    // N = 2: the pinned pair keeps its projected positions and the third corner lands where the
    // triangle's own angles put it; the longer side spans the unit square.
    qyTest::RecordingMesh mesh(qyTest::makeMesh({0, 0, 1, 3, 0, 1, 1, 2, 1.5f}, {0, 1, 2}));
    OutputCapture output;
    reparameterizeMesh flattener(mesh);
    ASSERT_TRUE(flattener.flatten());
    expectUnitSquare(mesh);
    EXPECT_EQ(countFlipped(mesh), 0);
    EXPECT_GT(signedUVArea(mesh, 0), 0.0) << "front faces stay counter-clockwise";
    ASSERT_EQ(mesh.count(), 1);
    EXPECT_EQ(mesh.entries()[0].type, qyGeom::MeshModification::AttributesChanged);
    auto angle = [](double ax, double ay, double bx, double by)
    { return std::acos((ax * bx + ay * by) / std::hypot(ax, ay) / std::hypot(bx, by)); };
    const qyGeom::MeshUV* uv = mesh.getUVs();
    const qyGeom::MeshVertex* p = mesh.getVertices();
    for (int k = 0; k < 3; ++k)
    {
        const int a = k, b = (k + 1) % 3, c = (k + 2) % 3;
        const double uvAngle =
            angle(uv[b].u - uv[a].u, uv[b].v - uv[a].v, uv[c].u - uv[a].u, uv[c].v - uv[a].v);
        const double angle3d =
            qyLinear::angle(p[b].asPoint() - p[a].asPoint(), p[c].asPoint() - p[a].asPoint());
        EXPECT_NEAR(uvAngle, angle3d, 1e-5) << "corner " << k;
    }
    EXPECT_NE(output.info().find("Parameterization: calculated planeNormal is good.  Using "
                                 "orthogonal component.\n"),
              std::string::npos);
}

TEST(ReparameterizeMesh, FlatMeshesKeepTheirLayout)
{
    // A flat disk and a flat annulus (inner hole covered by temporary triangles, the outer
    // loop picked by its larger extent): the conformal map of a flat mesh is a similarity, and
    // with the pinned pair on the x axis the layout is the mesh itself, scaled into the square.
    struct Case
    {
        const char* name;
        CompactMesh mesh;
        double minX, minY, size;
    };
    std::vector<Case> cases;
    cases.push_back({"grid 4 x 2", qyTest::makeGrid(4, 2), 0.0, 0.0, 4.0});
    cases.push_back({"annulus", makeAnnulus(3, 24, 1.0, 2.0), -2.0, -2.0, 4.0});
    for (Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        OutputCapture output;
        qyTest::DebugCapture debug;
        reparameterizeMesh flattener(c.mesh);
        ASSERT_TRUE(flattener.flatten());
        expectUnitSquare(c.mesh);
        EXPECT_EQ(countFlipped(c.mesh), 0);
        // Rows of the grid: the aspect 4 : 2 is kept (v reaches 0.5).
        double maxV = 0.0;
        for (int v = 0; v < c.mesh.getNumVertices(); ++v)
        {
            const qyGeom::MeshVertex& p = c.mesh.getVertices()[v];
            const qyGeom::MeshUV& uv = c.mesh.getUVs()[v];
            EXPECT_NEAR(uv.u, (p.x - c.minX) / c.size, 1e-4) << "vertex " << v;
            EXPECT_NEAR(uv.v, (p.y - c.minY) / c.size, 1e-4) << "vertex " << v;
            maxV = std::max(maxV, double(uv.v));
        }
        if (c.minX == 0.0)
        {
            EXPECT_NEAR(maxV, 0.5, 1e-6);
        }
        else
        {
            // The 12-vertex inner loop is covered (10 triangles), not the 24-vertex outer one.
            EXPECT_NE(debug.text().find(", 10 hole triangles\n"), std::string::npos);
        }
        EXPECT_NE(output.info().find("Parameterization: CG finished, code = "), std::string::npos);
        EXPECT_TRUE(output.errors().empty());
    }
}

TEST(ReparameterizeMesh, HemisphereHasNoFlippedTriangleOnAnyThreadCount)
{
    const CompactMesh hemisphere = qyTest::makeHemisphere(12, 32);
    std::vector<float> uvs[2];
    for (int i = 0; i < 2; ++i)
    {
        qyTest::ScopedThreadCount threads(i == 0 ? 1 : 4);
        CompactMesh mesh = hemisphere;
        OutputCapture output;
        reparameterizeMesh flattener(mesh);
        ASSERT_TRUE(flattener.flatten());
        expectUnitSquare(mesh);
        EXPECT_EQ(countFlipped(mesh), 0);
        uvs[i].assign(mesh.getUVsRaw(), mesh.getUVsRaw() + 2 * mesh.getNumVertices());
        // A second run of the same object starts again from the caller's mesh.
        ASSERT_TRUE(flattener.flatten());
        EXPECT_TRUE(std::equal(uvs[i].begin(), uvs[i].end(), mesh.getUVsRaw()));
        // The solver's progress lines, every twentieth of the step budget.
        EXPECT_NE(output.info().find("Parameterization   5.0% complete\n"), std::string::npos);
    }
    EXPECT_EQ(uvs[0], uvs[1]);
}

TEST(ReparameterizeMesh, TheLayoutDoesNotDependOnTheMeshSize)
{
    // The same surface at sizes a power of two apart: every step of the solve scales exactly,
    // so the layouts must agree to the bit and the solve must run to the same residual. A
    // solver whose stopping rule depends on the absolute size stops early on the small one.
    const CompactMesh torus = qyTest::makeTorus(48, 16);
    std::vector<float> reference;
    for (int exponent : {0, -12, 12})
    {
        SCOPED_TRACE(exponent);
        CompactMesh mesh = torus;
        float* xyz = mesh.getVerticesRaw();
        for (int i = 0; i < 3 * mesh.getNumVertices(); ++i)
            xyz[i] = std::ldexp(xyz[i], exponent);
        qyGeom::CutRegion region;
        ASSERT_TRUE(qyGeom::cutSurface(mesh, region, true));
        OutputCapture output;
        reparameterizeMesh flattener(mesh);
        flattener.enableMeshCompact(false);
        ASSERT_TRUE(flattener.flatten());
        EXPECT_NE(output.info().find("Parameterization: CG finished, code = 1\n"),
                  std::string::npos)
            << output.info();
        EXPECT_EQ(countFlipped(mesh), 0);
        const std::vector<float> uvs(mesh.getUVsRaw(),
                                     mesh.getUVsRaw() + 2 * mesh.getNumVertices());
        if (exponent == 0)
            reference = uvs;
        else
            EXPECT_TRUE(uvs == reference);
    }
}

TEST(ReparameterizeMesh, ClosedAndHigherGenusMeshes)
{
    // Closed, genus 0, cutting off: false after the genus lines, nothing else done.
    {
        qyTest::RecordingMesh sphere(qyTest::makeIcosphere(1));
        OutputCapture output;
        qyTest::DebugCapture debug;
        reparameterizeMesh flattener(sphere);
        flattener.enableMeshCutSurface(false);
        EXPECT_FALSE(flattener.flatten());
        EXPECT_EQ(sphere.count(), 0);
        EXPECT_EQ(sphere.getUVs(), nullptr);
        EXPECT_EQ(flattener.status(), qyGeom::FlattenStatus::NotADisk);
        EXPECT_NE(output.info().find("getMeshGenus: numBoundaries 0 \n"), std::string::npos);
        EXPECT_NE(output.info().find("getMeshGenus: genus = ( 2 - 2 ) / 2 = 0 \n"),
                  std::string::npos);
        EXPECT_NE(output.info().find("- - - MeshReparameterize: genus = 0\n"), std::string::npos);
        // Only the genus lines: no cut, no plane, no solve.
        std::istringstream lines(output.info());
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(line.starts_with("getMeshGenus: ") ||
                        line.starts_with("- - - MeshReparameterize: genus = "))
                << line;
        EXPECT_EQ(debug.text().find("cutSurface"), std::string::npos);
        EXPECT_EQ(debug.text().find("doCG"), std::string::npos);
        EXPECT_TRUE(output.errors().empty());
    }
    // A torus: chi = 0, genus 1; cut to a disk and flattened.
    {
        CompactMesh torus = qyTest::makeTorus(32, 12);
        OutputCapture output;
        qyTest::DebugCapture debug;
        reparameterizeMesh flattener(torus);
        ASSERT_TRUE(flattener.flatten());
        EXPECT_NE(output.info().find("getMeshGenus: chi = 0 + 384 + 768 - 1152 = 0 \n"),
                  std::string::npos);
        EXPECT_NE(output.info().find("getMeshGenus: genus = ( 2 - 0 ) / 2 = 1 \n"),
                  std::string::npos);
        EXPECT_NE(debug.text().find("cutSurface: 384 vertices, 768 triangles\n"),
                  std::string::npos);
        EXPECT_NE(output.info().find("getMeshGenus: numBoundaries 1 \n"), std::string::npos);
        EXPECT_NE(output.info().find("getMeshGenus: genus = ( 2 - 2 ) / 2 = 0 \n"),
                  std::string::npos);
        expectUnitSquare(torus, false);
    }
    // A closed sphere with cutting on is slit open and flattened.
    {
        CompactMesh sphere = qyTest::makeIcosphere(2);
        OutputCapture output;
        reparameterizeMesh flattener(sphere);
        ASSERT_TRUE(flattener.flatten());
        expectUnitSquare(sphere, false);
    }
}

TEST(ReparameterizeMesh, BadInputFailsWithTheMeshUntouched)
{
    struct Case
    {
        const char* name;
        CompactMesh mesh;
        const char* debugLine;
        qyGeom::FlattenStatus status;
    };
    using qyGeom::FlattenStatus;
    std::vector<Case> cases;
    cases.push_back({"repeated index", qyTest::testMeshes::get("repeated-index triangle"),
                     "getMeshGenus: testDegenerate == true\n", FlattenStatus::DegenerateTriangle});
    cases.push_back({"index out of range", qyTest::makeMesh({0, 0, 0, 1, 0, 0, 0, 1, 0}, {0, 1, 7}),
                     "getMeshGenus: testDegenerate == true\n", FlattenStatus::DegenerateTriangle});
    cases.push_back({"two components", qyTest::testMeshes::get("two components"),
                     "getMeshGenus: genus = -1 \n", FlattenStatus::SeveralPieces});
    cases.push_back(
        {"empty", CompactMesh(), "getMeshGenus: numBoundaries 0 \n", FlattenStatus::CutFailed});
    for (Case& c : cases)
    {
        SCOPED_TRACE(c.name);
        qyTest::RecordingMesh mesh(c.mesh);
        OutputCapture output;
        qyTest::DebugCapture debug;
        reparameterizeMesh flattener(mesh);
        EXPECT_FALSE(flattener.flatten());
        EXPECT_EQ(mesh.count(), 0);
        EXPECT_EQ(mesh.getUVs(), nullptr);
        EXPECT_NE(output.info().find(c.debugLine), std::string::npos) << output.info();
        EXPECT_EQ(flattener.status(), c.status);
        EXPECT_EQ(flattener.failureReason(), reparameterizeMesh::describe(c.status));
    }
}

TEST(ReparameterizeMesh, NeverReportsSuccessWithANonFiniteLayout)
{
    const float inf = HUGE_VALF, nan = std::nanf("");
    // A square annulus, outer square 0..3 around inner square 1..2: the inner hole is filled
    // by the polygon triangulation during the solve.
    const std::vector<float> annulus = {0, 0, 0, 3, 0, 0, 3, 3, 0, 0, 3, 0,
                                        1, 1, 0, 2, 1, 0, 2, 2, 0, 1, 2, 0};
    const std::vector<int> annulusTris = {0, 1, 5, 0, 5, 4, 1, 2, 6, 1, 6, 5,
                                          2, 3, 7, 2, 7, 6, 3, 0, 4, 3, 4, 7};
    // An open box of half-size 0.067 (no top), as scanned small parts come.
    const float h = 0.067f;
    std::vector<float> box;
    for (int k = 0; k < 8; ++k)
        box.insert(box.end(), {k & 1 ? h : -h, k & 2 ? h : -h, k & 4 ? h : -h});
    const std::vector<int> boxTris = {0, 2, 1, 1, 2, 3, 0, 1, 5, 0, 5, 4, 1, 3, 7,
                                      1, 7, 5, 3, 2, 6, 3, 6, 7, 2, 0, 4, 2, 4, 6};

    struct Case
    {
        const char* name;
        std::vector<float> xyz;
        std::vector<int> tris;
        int unusedFirst = 0, unusedLast = 0;
    };
    std::vector<Case> refused = {
        {"one outer and one inner corner at infinity", annulus, annulusTris},
        {"a NaN corner", annulus, annulusTris},
    };
    refused[0].xyz[3 * 2 + 2] = inf;
    refused[0].xyz[3 * 6 + 2] = inf;
    refused[1].xyz[3 * 5 + 0] = nan;
    for (const Case& c : refused)
    {
        SCOPED_TRACE(c.name);
        qyTest::RecordingMesh mesh(qyTest::makeMesh(c.xyz, c.tris));
        OutputCapture output;
        reparameterizeMesh flattener(mesh);
        EXPECT_FALSE(flattener.flatten());
        EXPECT_EQ(mesh.count(), 0);
        EXPECT_EQ(mesh.getUVs(), nullptr);
        EXPECT_EQ(flattener.status(), qyGeom::FlattenStatus::NonFiniteVertex);
        EXPECT_NE(flattener.failureReason().find("not a finite number"), std::string::npos)
            << flattener.failureReason();
    }

    // Unused vertices (finite, infinite and far away) change nothing for the others: the
    // layout is that of the annulus alone, to the bit, and the unused ones get (0, 0).
    std::vector<float> plainUVs;
    {
        CompactMesh plain = qyTest::makeMesh(annulus, annulusTris);
        OutputCapture output;
        reparameterizeMesh flattener(plain);
        ASSERT_TRUE(flattener.flatten());
        plainUVs.assign(plain.getUVsRaw(), plain.getUVsRaw() + 2 * plain.getNumVertices());
    }
    std::vector<float> padded = annulus;
    padded.insert(padded.begin(), {5, 5, 5, inf, 0, nan});
    padded.insert(padded.end(), {0, 6.7e16f, 0});
    std::vector<int> shifted = annulusTris;
    for (int& v : shifted)
        v += 2;
    for (bool compact : {true, false})
    {
        SCOPED_TRACE(compact ? "welded" : "not welded");
        CompactMesh mesh = qyTest::makeMesh(padded, shifted);
        OutputCapture output;
        reparameterizeMesh flattener(mesh);
        flattener.enableMeshCompact(compact);
        ASSERT_TRUE(flattener.flatten()) << flattener.failureReason();
        const float* uv = mesh.getUVsRaw();
        EXPECT_TRUE(std::equal(plainUVs.begin(), plainUVs.end(), uv + 4));
        for (int k : {0, 1, 2, 3, 20, 21})
            EXPECT_EQ(uv[k], 0.0f) << k;
    }

    // Meshes that are flattened, or refused with a reason, but never given a non-finite UV:
    // unused vertices, and one corner far from the others.
    std::vector<Case> others = {
        {"unused vertices", padded, shifted, 2, 1},
        {"a far corner", box, boxTris},
    };
    others[1].xyz[3 * 4 + 1] = 6.7e16f;
    for (const Case& c : others)
    {
        SCOPED_TRACE(c.name);
        qyTest::RecordingMesh mesh(qyTest::makeMesh(c.xyz, c.tris));
        OutputCapture output;
        reparameterizeMesh flattener(mesh);
        if (!flattener.flatten())
        {
            EXPECT_FALSE(flattener.failureReason().empty());
            EXPECT_EQ(mesh.getUVs(), nullptr);
            continue;
        }
        EXPECT_TRUE(flattener.failureReason().empty());
        expectUnitSquare(mesh);
        for (int v = 0; v < mesh.getNumVertices(); ++v)
        {
            EXPECT_TRUE(std::isfinite(mesh.getUVs()[v].u) && std::isfinite(mesh.getUVs()[v].v));
            // The vertices on the triangles fill the square; the unused ones sit at its corner.
            if (v < c.unusedFirst || v >= mesh.getNumVertices() - c.unusedLast)
            {
                EXPECT_TRUE(mesh.getUVs()[v].u == 0.0f && mesh.getUVs()[v].v == 0.0f) << v;
            }
        }
    }
}

TEST(ReparameterizeMesh, CancellingAnywhereLeavesTheMeshUntouched)
{
    const CompactMesh hemisphere = qyTest::makeHemisphere(3, 8);
    // Count the polls of an uncancelled run, then cancel from each poll on in turn.
    int polls = 0;
    {
        CompactMesh mesh = hemisphere;
        OutputCapture output;
        qyUtil::Progress progress({}, [&] { return ++polls < 0; });
        reparameterizeMesh flattener(mesh);
        ASSERT_TRUE(flattener.flatten(progress));
    }
    ASSERT_GT(polls, 8);
    for (int k = 1; k <= polls; ++k)
    {
        SCOPED_TRACE(k);
        qyTest::RecordingMesh mesh(hemisphere);
        OutputCapture output;
        int count = 0;
        qyUtil::Progress progress({}, [&] { return ++count >= k; });
        reparameterizeMesh flattener(mesh);
        EXPECT_FALSE(flattener.flatten(progress));
        EXPECT_EQ(flattener.status(), qyGeom::FlattenStatus::Cancelled);
        EXPECT_EQ(flattener.failureReason(), "cancelled");
        EXPECT_EQ(mesh.count(), 0);
        EXPECT_EQ(mesh.getUVs(), nullptr);
    }
}

TEST(ReparameterizeMesh, WeldRevertedWhenItChangesTheBoundaries)
{
    // A cylinder cut open along a seam of duplicated vertices. Welded, it is an annulus whose
    // smaller loop gets covered; with compaction off the weld is undone and the cut cylinder
    // unrolls to a strip of aspect about 2 pi : 1.
    const CompactMesh cylinder = makeCutCylinder(6, 24, 1.0);
    for (bool compact : {true, false})
    {
        SCOPED_TRACE(compact);
        CompactMesh mesh = cylinder;
        OutputCapture output;
        qyTest::DebugCapture debug;
        reparameterizeMesh flattener(mesh);
        flattener.enableMeshCompact(compact);
        ASSERT_TRUE(flattener.flatten());
        expectUnitSquare(mesh);
        EXPECT_EQ(countFlipped(mesh), 0);
        const bool reverted =
            output.info().find("prepareMesh: numBoundaries o = 1, c = 2\n"
                               "prepareMesh: compacting changed topology, reverting\n") !=
            std::string::npos;
        EXPECT_EQ(reverted, !compact) << output.info();
        if (!compact)
        {
            double maxU = 0.0, maxV = 0.0;
            for (int v = 0; v < mesh.getNumVertices(); ++v)
            {
                maxU = std::max(maxU, double(mesh.getUVs()[v].u));
                maxV = std::max(maxV, double(mesh.getUVs()[v].v));
            }
            EXPECT_NEAR(std::min(maxU, maxV), 1.0 / (2.0 * M_PI), 0.03);
        }
    }
}
