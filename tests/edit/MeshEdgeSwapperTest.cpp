// Tests of edge swapping: the criteria on hand-made quads, their combination on one signal,
// the sweeps, and the exchange of two meshes.
#include "qyGeom/MeshEdgeSwapper.h"

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/TopoMesh.h"
#include "src/core/detail/avx2.h"
#include "testMeshes.h"

using namespace qyGeom;
using qyLinear::Point;

namespace
{

using Swapper = MeshEdgeSwapper;

// Two triangles (a, b, c) and (b, a, d) over four points; returns the half-edge a->b.
TopoMeshEdge makeQuad(TopoMesh& mesh, Point a, Point b, Point c, Point d)
{
    const TopoMeshVertex va = mesh.allocVertex(a), vb = mesh.allocVertex(b);
    const TopoMeshVertex vc = mesh.allocVertex(c), vd = mesh.allocVertex(d);
    mesh.allocTriangle(va, vb, vc);
    mesh.allocTriangle(vb, va, vd);
    mesh.meshTwin();
    return mesh.findEdge(va, vb);
}

// Whether a criterion alone vetoes the swap of a->b in the quad (a, b, c, d).
bool vetoes(void (*criterion)(TopoMeshEdge, bool&), Point a, Point b, Point c, Point d)
{
    TopoMesh mesh;
    bool veto = false;
    criterion(makeQuad(mesh, a, b, c, d), veto);
    return veto;
}

// A jittered n x n grid in the plane, each cell split along a random diagonal: a valid
// planar triangulation that is, in general, not Delaunay.
void makeRandomPlanarTriangulation(TopoMesh& mesh, int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> jitter(-0.3, 0.3);
    for (int j = 0; j <= n; ++j)
        for (int i = 0; i <= n; ++i)
        {
            const bool border = i == 0 || j == 0 || i == n || j == n;
            mesh.allocVertex(i + (border ? 0 : jitter(rng)), j + (border ? 0 : jitter(rng)), 0);
        }
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i)
        {
            const int v00 = j * (n + 1) + i, v10 = v00 + 1, v01 = v00 + n + 1, v11 = v01 + 1;
            const int t[2][3] = {{v00, v10, v11}, {v00, v11, v01}};
            const int u[2][3] = {{v00, v10, v01}, {v10, v11, v01}};
            const bool other = rng() & 1u;
            for (int k = 0; k < 2; ++k)
                mesh.allocFace(3, other ? u[k] : t[k]);
        }
    mesh.meshTwin();
}

// Independent of the criteria: no vertex lies strictly inside the circumcircle of any
// triangle (all of them against all vertices).
bool emptyCircumcircles(TopoMesh& mesh, double tol)
{
    for (TopoMeshFace f = mesh.firstFace(); f; f = f.nextInList())
    {
        const Point p = f.edge().vertex().point(), q = f.edge().next().vertex().point();
        const Point r = f.edge().prev().vertex().point();
        for (TopoMeshVertex v = mesh.firstVertex(); v; v = v.nextInList())
        {
            const Point s = v.point();
            // The classic in-circle determinant, positive inside for a counter-clockwise pqr.
            const double ax = p.x - s.x, ay = p.y - s.y, bx = q.x - s.x, by = q.y - s.y;
            const double cx = r.x - s.x, cy = r.y - s.y;
            const double det = (ax * ax + ay * ay) * (bx * cy - cx * by) -
                               (bx * bx + by * by) * (ax * cy - cx * ay) +
                               (cx * cx + cy * cy) * (ax * by - bx * ay);
            if (det > tol)
                return false;
        }
    }
    return true;
}

struct Log
{
    std::string text;
    void veto(TopoMeshEdge, bool& v)
    {
        text += "m";
        v = true;
    }
};

} // namespace

TEST(MeshEdgeSwapper, EachCriterionOnHandMadeQuads)
{
    const Point a(0, 0, 0), b(1, 1, 0), c(0, 1, 0), d(1, 0, 0); // unit square, diagonal a-b
    // The square's two diagonals tie: the current one stays.
    EXPECT_TRUE(vetoes(&Swapper::minimizeOppositeAngleSum, a, b, c, d));
    // A flat kite whose long diagonal a-b faces two obtuse angles: swapping lowers the sum.
    const Point ka(-2, 0, 0), kb(2, 0, 0), kc(0, 0.5, 0), kd(0, -0.5, 0);
    EXPECT_FALSE(vetoes(&Swapper::minimizeOppositeAngleSum, ka, kb, kc, kd));
    // ... and the other diagonal of the same kite is kept.
    EXPECT_TRUE(vetoes(&Swapper::minimizeOppositeAngleSum, kc, kd, kb, ka));

    // Planar: no crease to keep. Folded by 0.5 in z across a-b: the swap would move the fold.
    EXPECT_FALSE(vetoes(&Swapper::preserveFeatures, a, b, c, d));
    EXPECT_TRUE(vetoes(&Swapper::preserveFeatures, a, b, c, Point(1, 0, 0.5)));
    EXPECT_TRUE(vetoes(&Swapper::preserveFeatures, a, b, c, Point(1, 0, -0.5)));
    // A degenerate triangle (c on a-b) has no normal: vetoed.
    EXPECT_TRUE(vetoes(&Swapper::preserveFeatures, a, b, Point(0.5, 0.5, 0), d));

    // Convex quads may swap; the non-convex quad (reflex at a, new diagonal outside) may not,
    // nor one whose new triangle (c, d, b) would be degenerate.
    EXPECT_FALSE(vetoes(&Swapper::preventFoldover, a, b, c, d));
    EXPECT_FALSE(vetoes(&Swapper::preventFoldover, ka, kb, kc, kd));
    const Point na(0, 0, 0), nb(2, 0, 0), nc(-1, 1, 0), nd(-1, -1, 0);
    EXPECT_TRUE(vetoes(&Swapper::preventFoldover, na, nb, nc, nd));
    EXPECT_TRUE(vetoes(&Swapper::preventFoldover, a, b, Point(1, 2, 0), d));

    // On a lone quad every corner is on the boundary.
    EXPECT_TRUE(vetoes(&Swapper::preserveBoundary, a, b, c, d));
}

TEST(MeshEdgeSwapper, AngleAndFoldoverCriteriaDecideAsTheirDefinitions)
{
    // The criteria decide most quads from quick estimates; the decisions must be those of the
    // definitions, computed here plainly: random quads at scales from 1e-30 to 1e30, flat,
    // bent and folded, and quads whose two angle sums or two normals are nearly tied (a
    // cocircular quad nudged by up to 1e-3, two new triangles folded to nearly a right angle).
    using qyLinear::Normal;
    using qyLinear::Vector;
    const auto angleAt = [](const Point& x, const Point& p, const Point& q)
    { return qyLinear::angle(Normal(p - x).asVector(), Normal(q - x).asVector()); };
    const auto normal = [](const Point& p, const Point& q, const Point& r)
    { return Normal(qyLinear::cross(r - q, p - q)); };
    std::mt19937 rng(11u);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    int swapsAllowed = 0, foldsVetoed = 0;
    for (int i = 0; i < 20000; ++i)
    {
        const double scale = std::pow(10.0, double(i % 61) - 30.0);
        const double bend = i % 5 == 0 ? 0.0 : std::pow(10.0, -double(i % 7));
        Point a, b, c, d;
        if (i % 4 == 3)
        {
            // On a circle, then nudged: the angle sums nearly tie.
            const double nudge = std::pow(10.0, -3.0 - double(i % 13));
            const auto on = [&](double t)
            { return Point(std::cos(t), std::sin(t), bend * unit(rng)); };
            a = on(0.3 * unit(rng));
            c = on(2.0 + 0.5 * unit(rng));
            b = on(3.14 + 0.3 * unit(rng));
            d = on(4.5 + 0.5 * unit(rng));
            d = Point(d.x * (1 + nudge * unit(rng)), d.y, d.z);
        }
        else if (i % 8 == 5)
        {
            // Folded to nearly a right angle about the new diagonal c-d: the new triangles'
            // normals are nearly orthogonal.
            const double tilt = std::pow(10.0, -3.0 - double(i % 11)) * unit(rng);
            c = Point(0, 1, 0);
            d = Point(0, -1, 0);
            b = Point(1 + 0.5 * unit(rng), 0.5 * unit(rng), 0);
            a = Point(tilt, 0.5 * unit(rng), 1 + 0.5 * unit(rng));
        }
        else
        {
            a = Point(-1 + 0.5 * unit(rng), 0.5 * unit(rng), bend * unit(rng));
            b = Point(1 + 0.5 * unit(rng), 0.5 * unit(rng), bend * unit(rng));
            c = Point(unit(rng), 1 + unit(rng), bend * unit(rng));
            d = Point(unit(rng), -1 - unit(rng), (i % 6 == 1 ? 3.0 : bend) * unit(rng));
        }
        const auto scaled = [&](const Point& p)
        { return Point(p.x * scale, p.y * scale, p.z * scale); };
        a = scaled(a);
        b = scaled(b);
        c = scaled(c);
        d = scaled(d);

        const bool angleVeto =
            angleAt(b, c, d) + angleAt(a, c, d) >= angleAt(c, a, b) + angleAt(d, a, b);
        // With the AVX2 estimate (where the processor has AVX2) and the SSE2 one.
        for (const bool avx2 : {true, false})
        {
            const bool previous = detail::allowAvx2(avx2);
            EXPECT_EQ(vetoes(&Swapper::minimizeOppositeAngleSum, a, b, c, d), angleVeto)
                << i << " " << avx2;
            detail::allowAvx2(previous);
        }
        const Normal n1 = normal(c, d, b), n2 = normal(a, d, c);
        const bool foldVeto = !n1.isValid() || !n2.isValid() ||
                              qyLinear::angle(n1.asVector(), n2.asVector()) > 1.5707963267948966;
        EXPECT_EQ(vetoes(&Swapper::preventFoldover, a, b, c, d), foldVeto) << i;
        swapsAllowed += !angleVeto;
        foldsVetoed += foldVeto;
    }
    // Both outcomes of both criteria occur.
    EXPECT_GT(swapsAllowed, 1000);
    EXPECT_LT(swapsAllowed, 19000);
    EXPECT_GT(foldsVetoed, 100);
    EXPECT_LT(foldsVetoed, 19900);
}

TEST(MeshEdgeSwapper, BoundaryRuleOnAGridAndBoundaryEdgesAreNeverAsked)
{
    TopoMesh grid;
    makeRandomPlanarTriangulation(grid, 4, 7u);
    int interiorAllowed = 0, rimVetoed = 0, chordVetoed = 0;
    for (TopoMeshEdge e = grid.firstEdge(); e; e = e.nextInList())
    {
        if (!e.hasTwin())
            continue;
        bool veto = false;
        Swapper::preserveBoundary(e, veto);
        const bool abRim = e.vertex().onBoundary() && e.endVertex().onBoundary();
        const bool cdRim = e.prev().vertex().onBoundary() && e.twin().prev().vertex().onBoundary();
        EXPECT_EQ(veto, abRim || cdRim);
        interiorAllowed += !veto;
        rimVetoed += abRim;
        chordVetoed += cdRim && !abRim;
    }
    EXPECT_GT(interiorAllowed, 0);
    EXPECT_GT(rimVetoed, 0);
    EXPECT_GT(chordVetoed, 0); // corner triangles: a swap would join two rim vertices

    // A swapper whose only criterion allows everything is still never asked about a boundary
    // edge, and a single triangle has nothing to swap.
    Swapper swapper;
    int asked = 0;
    swapper.getVetoSignal().connect([&](TopoMeshEdge, bool&) { ++asked; });
    TopoMesh triangle;
    triangle.allocTriangle(triangle.allocVertex(0, 0, 0), triangle.allocVertex(1, 0, 0),
                           triangle.allocVertex(0, 1, 0));
    triangle.meshTwin();
    EXPECT_FALSE(swapper.shouldSwap(triangle.firstEdge()));
    // Asked directly, each criterion refuses an edge that has no quad.
    for (auto criterion : {&Swapper::minimizeOppositeAngleSum, &Swapper::preserveBoundary,
                           &Swapper::preserveFeatures, &Swapper::preventFoldover})
    {
        bool veto = false;
        criterion(triangle.firstEdge(), veto);
        EXPECT_TRUE(veto);
    }
    EXPECT_EQ(meshSwapEdgesOnce(triangle, swapper), 0);
    EXPECT_EQ(asked, 0);
}

TEST(MeshEdgeSwapper, CriteriaOnOneSignalRunInOrderAndAnyVetoForbids)
{
    TopoMesh mesh;
    const TopoMeshEdge square =
        makeQuad(mesh, Point(0, 0, 0), Point(1, 1, 0), Point(0, 1, 0), Point(1, 0, 0));

    Swapper swapper;
    EXPECT_FALSE(swapper.shouldSwap(square)); // no signal yet
    Swapper::VetoSignal& signal = swapper.getVetoSignal();
    EXPECT_FALSE(swapper.shouldSwap(square)); // a signal without connections

    Log log;
    std::string& text = log.text;
    qyRTB::Connection first = signal.connect([&](TopoMeshEdge, bool&) { text += "1"; });
    qyRTB::Connection feature = signal.connect(&Swapper::preserveFeatures); // planar: allows
    qyRTB::Connection member = signal.connect(&log, &Log::veto);
    qyRTB::Connection last = signal.connect([&](TopoMeshEdge, bool& v) { text += v ? "v" : "-"; });
    EXPECT_FALSE(swapper.shouldSwap(square));
    EXPECT_EQ(text, "1mv"); // every callback ran after the veto, in order, and saw it

    member.block();
    text.clear();
    EXPECT_TRUE(swapper.shouldSwap(square));
    EXPECT_EQ(text, "1-");
    member.unblock();

    // The square's tie is vetoed by the angle criterion even when the others allow.
    member.disconnect();
    signal.connect(&Swapper::minimizeOppositeAngleSum);
    text.clear();
    EXPECT_FALSE(swapper.shouldSwap(square));
    EXPECT_EQ(text, "1-");

    // Stopping the signal skips the rest: the veto that follows never runs.
    swapper.clearVetoSignal();
    Swapper::VetoSignal& fresh = swapper.getVetoSignal();
    fresh.connect([&](TopoMeshEdge, bool&) { swapper.getVetoSignal().stop(); });
    fresh.connect(&log, &Log::veto);
    text.clear();
    EXPECT_TRUE(swapper.shouldSwap(square));
    EXPECT_EQ(text, "");

    // Connections made on the cleared signal are gone with it.
    EXPECT_FALSE(first.isConnected() || feature.isConnected() || last.isConnected());
    swapper.clearVetoSignal();
    EXPECT_FALSE(swapper.shouldSwap(square));
}

TEST(MeshEdgeSwapper, RepeatedSweepsEndDelaunayAndThenFindNothing)
{
    TopoMesh mesh;
    makeRandomPlanarTriangulation(mesh, 16, 2024u);
    ASSERT_FALSE(emptyCircumcircles(mesh, 1e-9));
    int notices = 0;
    mesh.getModifiedSignal().connect(
        [&](const qyRTB::EntityModification& m)
        {
            ++notices;
            EXPECT_EQ(static_cast<const TopoMeshModification&>(m).getType(),
                      TopoMeshModification::TopologyChanged);
        });
    Swapper swapper;
    swapper.getVetoSignal().connect(&Swapper::minimizeOppositeAngleSum);
    const int faces = mesh.getNumFaces(), edges = mesh.getNumEdges();

    EXPECT_GT(meshSwapEdgesRepeatedly(mesh, swapper), 0);
    EXPECT_EQ(notices, 1);
    EXPECT_TRUE(emptyCircumcircles(mesh, 1e-9));
    EXPECT_EQ(mesh.getNumFaces(), faces);
    EXPECT_EQ(mesh.getNumEdges(), edges);
    for (TopoMeshFace f = mesh.firstFace(); f; f = f.nextInList()) // still counter-clockwise
    {
        const Point p = f.edge().vertex().point(), q = f.edge().next().vertex().point();
        const Point r = f.edge().prev().vertex().point();
        EXPECT_GT((q.x - p.x) * (r.y - p.y) - (q.y - p.y) * (r.x - p.x), 0);
    }

    // On the Delaunay result nothing moves, and the mesh is not told anything.
    EXPECT_EQ(meshSwapEdgesRepeatedly(mesh, swapper), 0);
    EXPECT_EQ(meshSwapEdgesOnce(mesh, swapper), 0);
    qy::set<TopoMeshEdge> all;
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
        all.insert(e);
    EXPECT_EQ(meshSwapEdgesRepeatedly(mesh, all, swapper), 0);
    EXPECT_EQ(notices, 1);
}

TEST(MeshEdgeSwapper, OneSweepAsksEachPairOnceButEverySetMember)
{
    std::vector<int> asked;
    Swapper swapper;
    swapper.getVetoSignal().connect([&](TopoMeshEdge e, bool&) { asked.push_back(e.getIndex()); });

    TopoMesh mesh;
    const TopoMeshEdge e =
        makeQuad(mesh, Point(0, 0, 0), Point(1, 1, 0), Point(0, 1, 0), Point(1, 0, 0));
    int notices = 0;
    mesh.getModifiedSignal().connect([&](const qyRTB::EntityModification&) { ++notices; });
    EXPECT_EQ(meshSwapEdgesOnce(mesh, swapper), 1);
    EXPECT_EQ(asked, std::vector<int>{std::min(e.getIndex(), e.twin().getIndex())});
    EXPECT_EQ(notices, 1);

    // Both half-edges in the set: each is asked; the second swaps the diagonal back.
    asked.clear();
    const qy::set<TopoMeshEdge> pair{e, e.twin()};
    EXPECT_EQ(meshSwapEdgesOnce(mesh, pair, swapper), 2);
    EXPECT_EQ(asked.size(), 2u);
    EXPECT_EQ(notices, 2);
    EXPECT_EQ(e.vertex().getIndex() + e.endVertex().getIndex(), 2 + 3); // c-d again after two
}

TEST(MeshEdgeSwapper, MeshSwapExchangesContentsAndTellsEachMesh)
{
    CompactMesh a = qyTest::makeCube();
    CompactMesh b = qyTest::makeGrid(2, 1);
    a.allocAttributes("weight", 1);
    b.resizeLineArray(2);
    b.resizePolyArrays(1, 4);
    struct Record
    {
        unsigned flags;
        bool weight;
    };
    std::vector<Record> toA, toB;
    const auto recorder = [](std::vector<Record>& out)
    {
        return [&out](const qyRTB::EntityModification& m)
        {
            const auto& mm = static_cast<const MeshModification&>(m);
            EXPECT_EQ(mm.getType(), MeshModification::Remapped);
            out.push_back({mm.getFlags(), mm.isAttributeModified("weight")});
        };
    };
    a.getModifiedSignal().connect(recorder(toA));
    b.getModifiedSignal().connect(recorder(toB));

    meshSwap(a, b);
    EXPECT_EQ(a.getNumTriangles(), 4);
    EXPECT_EQ(b.getNumTriangles(), 12);
    EXPECT_EQ(a.getNumLines(), 2);
    EXPECT_TRUE(b.getAttributes("weight"));
    ASSERT_FALSE(toA.empty());
    ASSERT_FALSE(toB.empty());
    for (const Record& r : {toA.back(), toB.back()})
    {
        EXPECT_TRUE(r.weight);
        EXPECT_TRUE(r.flags & MeshModification::PolysModified);
        EXPECT_TRUE(r.flags & MeshModification::LinesModified);
        EXPECT_FALSE(r.flags & MeshModification::StripsAndFansModified);
        EXPECT_FALSE(r.flags & MeshModification::LineStripsModified);
        EXPECT_FALSE(r.flags & MeshModification::TriangleNormalsModified);
    }
}
