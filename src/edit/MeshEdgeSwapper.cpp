// MeshEdgeSwapper: vetoable edge swaps on a half-edge mesh, the four criteria and the sweeps.
#include "qyGeom/MeshEdgeSwapper.h"

#include <cmath>
#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif
#include <set>
#include <string>

#include "base/Linear.h"
#include "base/StopWatch.h"
#include "model/CompactMesh.h"
#include "model/MeshAttributes.h"
#include "model/MeshModification.h"
#include "model/debugChannel.h"
#include "src/core/detail/avx2.h"

namespace qyGeom
{
namespace
{

using qyLinear::Normal;
using qyLinear::Point;
using qyLinear::Vector;

// 2.5 degrees: the largest change of a crease that preserveFeatures lets a swap make.
constexpr double maxCreaseChange = 0.04363323129985824;
constexpr double halfPi = 1.5707963267948966;

// The corners of the quad of e (see the class comment). Read straight from the half-edge
// records: the criteria run once per edge and sweep, so they avoid the handle walks.
struct Quad
{
    int a, b, c, d;
};

Quad quadOf(TopoMeshEdge e)
{
    const TopoMesh& mesh = *e.getMesh();
    const TopoMesh::HalfEdge& h = mesh.getHalfEdge(e.getIndex());
    const TopoMesh::HalfEdge& t = mesh.getHalfEdge(h.twin);
    return {h.vertex, t.vertex, mesh.getHalfEdge(h.prev).vertex, mesh.getHalfEdge(t.prev).vertex};
}

// True, with the veto set, for an edge without a twin: it has no quad to swap in.
bool vetoWithoutQuad(TopoMeshEdge e, bool& veto)
{
    if (e.hasTwin())
        return false;
    veto = true;
    return true;
}

// The positions of quadOf(e)'s corners, in the same order.
struct QuadPoints
{
    const Point &A, &B, &C, &D;
};

QuadPoints pointsOf(TopoMeshEdge e)
{
    const TopoMesh& mesh = *e.getMesh();
    const Quad q = quadOf(e);
    return {mesh.getPoint(q.a), mesh.getPoint(q.b), mesh.getPoint(q.c), mesh.getPoint(q.d)};
}

// Normal of the triangle (p, q, r): (r - q) x (p - q), invalid when degenerate.
Normal triangleNormal(const Point& p, const Point& q, const Point& r)
{
    return Normal(qyLinear::cross(r - q, p - q));
}

// Angle at x between the directions to p and to q, in [0, pi].
double angleAt(const Point& x, const Point& p, const Point& q)
{
    return qyLinear::angle(Normal(p - x).asVector(), Normal(q - x).asVector());
}

// The criteria below first decide from cheap estimates, and compute exactly (as the
// decision is defined) only when an estimate is too close to call. An estimate decides only
// where its error bound cannot change the outcome, so the decisions are those of the exact
// computation.

// Squared lengths between these bounds keep products of two of them finite and normal, and
// normalizing a vector of such length takes the plain path of Normal.
constexpr double smallSquare = 1e-140;
constexpr double largeSquare = 1e140;

inline bool safeSquare(double lengthSquared)
{
    return lengthSquared > smallSquare && lengthSquared < largeSquare;
}

// atan on [0, 1] by a minimax polynomial; the error is below 2e-6 (the order of evaluation
// changes it by rounding only, some 1e-16). T is double or a Pair. The odd polynomial
// x p(x^2) is evaluated by Estrin's scheme, in pairs of terms, which is half as deep as
// Horner's rule: the criterion waits on it.
template <class T> inline T atanUnit(T x)
{
    const T x2 = x * x;
    const T x4 = x2 * x2;
    const T x8 = x4 * x4;
    const T low = 0.99997726 + x2 * -0.33262347;
    const T middle = 0.19354346 + x2 * -0.11643287;
    const T high = 0.05265332 + x2 * -0.01172120;
    return x * ((low + x4 * middle) + x8 * high);
}

// Two doubles in one SSE2 register, and the lane masks of their comparisons: the criteria
// estimate two angles at once.
typedef double Pair __attribute__((vector_size(16)));
typedef long long PairMask __attribute__((vector_size(16)));

inline Pair sqrtPair(Pair x)
{
#if defined(__SSE2__)
    return _mm_sqrt_pd(x);
#else
    return Pair{std::sqrt(x[0]), std::sqrt(x[1])};
#endif
}

inline Pair absPair(Pair x)
{
    const PairMask magnitude = {0x7FFFFFFFFFFFFFFFll, 0x7FFFFFFFFFFFFFFFll};
    return Pair(PairMask(x) & magnitude);
}

// Three coordinates of two points or vectors, one to each lane.
struct PairVector
{
    Pair x, y, z;
};

inline PairVector operator-(const PairVector& a, const PairVector& b)
{
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}

inline PairVector pairOf(const Point& p, const Point& q)
{
    return {Pair{p.x, q.x}, Pair{p.y, q.y}, Pair{p.z, q.z}};
}

inline Pair dotPair(const PairVector& a, const PairVector& b)
{
    return a.x * b.x + a.y * b.y + a.z * b.z;
}

// The angles at x0 between the directions to p0 and q0, and at x1 between those to p1 and q1,
// each within 2e-6; false when a direction is too short or too long to estimate safely.
// Without branches on the angles: which of the two octant forms applies, and whether the
// angle is obtuse, are chosen per lane by selects.
inline bool estimateAnglesAt(const PairVector& x, const PairVector& p, const PairVector& q,
                             Pair& angles)
{
    const PairVector u = p - x, v = q - x;
    const Pair uu = dotPair(u, u), vv = dotPair(v, v);
    const Pair small = {smallSquare, smallSquare}, large = {largeSquare, largeSquare};
    const PairMask safe = (uu > small) & (uu < large) & (vv > small) & (vv < large);
    if ((safe[0] & safe[1]) == 0)
        return false;
    const PairVector w = {u.y * v.z - u.z * v.y, u.z * v.x - u.x * v.z, u.x * v.y - u.y * v.x};
    const Pair s = sqrtPair(dotPair(w, w));
    const Pair c = dotPair(u, v);
    const Pair ac = absPair(c);
    const PairMask steep = s <= ac;
    const Pair ratio = (steep ? s : ac) / (steep ? ac : s);
    const Pair atan = atanUnit(ratio);
    const Pair right = {halfPi, halfPi}, straight = {3.141592653589793, 3.141592653589793};
    const Pair a = steep ? atan : right - atan;
    const Pair zero = {0.0, 0.0};
    angles = c < zero ? straight - a : a;
    return true;
}

#if defined(__x86_64__) || defined(__i386__)
// The same four angles of a quad in one AVX2 register, where the processor has AVX2: at C
// and D between the directions to A and B, at B and A between those to C and D. Gives the
// estimated swapped sum minus the current one, added as the two-lane form adds them; false
// when a direction is too short or too long to estimate safely. Points go in and a double
// comes out, so no vector crosses the call.
__attribute__((target("avx2"))) bool estimateSumDifferenceAvx2(const Point& A, const Point& B,
                                                               const Point& C, const Point& D,
                                                               double& difference)
{
    typedef double Four __attribute__((vector_size(32)));
    typedef long long FourMask __attribute__((vector_size(32)));
    const Four xx = {C.x, D.x, B.x, A.x}, xy = {C.y, D.y, B.y, A.y}, xz = {C.z, D.z, B.z, A.z};
    const Four ux = Four{A.x, A.x, C.x, C.x} - xx, uy = Four{A.y, A.y, C.y, C.y} - xy,
               uz = Four{A.z, A.z, C.z, C.z} - xz;
    const Four vx = Four{B.x, B.x, D.x, D.x} - xx, vy = Four{B.y, B.y, D.y, D.y} - xy,
               vz = Four{B.z, B.z, D.z, D.z} - xz;
    const Four uu = ux * ux + uy * uy + uz * uz, vv = vx * vx + vy * vy + vz * vz;
    const Four small = Four{} + smallSquare, large = Four{} + largeSquare;
    const FourMask safe = (uu > small) & (uu < large) & (vv > small) & (vv < large);
    if ((safe[0] & safe[1] & safe[2] & safe[3]) == 0)
        return false;
    const Four wx = uy * vz - uz * vy, wy = uz * vx - ux * vz, wz = ux * vy - uy * vx;
    const Four s = _mm256_sqrt_pd(wx * wx + wy * wy + wz * wz);
    const Four c = ux * vx + uy * vy + uz * vz;
    const Four ac = Four(FourMask(c) & (FourMask{} + 0x7FFFFFFFFFFFFFFFll));
    const FourMask steep = s <= ac;
    const Four ratio = (steep ? s : ac) / (steep ? ac : s);
    // atanUnit, written out: a 32-byte vector must not be passed to a function that is not
    // compiled for AVX.
    const Four x2 = ratio * ratio, x4 = x2 * x2, x8 = x4 * x4;
    const Four atan =
        ratio * (((0.99997726 + x2 * -0.33262347) + x4 * (0.19354346 + x2 * -0.11643287)) +
                 x8 * (0.05265332 + x2 * -0.01172120));
    const Four a = steep ? atan : (Four{} + halfPi) - atan;
    const Four angles = c < Four{} ? (Four{} + 3.141592653589793) - a : a;
    difference = (angles[2] + angles[3]) - (angles[0] + angles[1]);
    return true;
}
#endif

// A decision from sums of two estimated angles each must clear their combined error
// (4 * 2e-6) with room to spare.
constexpr double angleSumMargin = 1e-4;

// Signed dihedral angle across p-q between the triangles (p, q, r) and (q, p, s); false when
// either triangle is degenerate.
bool signedDihedral(const Point& p, const Point& q, const Point& r, const Point& s, double& out)
{
    const Normal n1 = triangleNormal(p, q, r);
    const Normal n2 = triangleNormal(q, p, s);
    if (!n1.isValid() || !n2.isValid())
        return false;
    out = qyLinear::angle(n1.asVector(), n2.asVector());
    if (qyLinear::isAbove(qyLinear::Plane(p, n1), s))
        out = -out;
    return true;
}

// One sweep. Whole mesh: each interior edge once, through the half-edge lower than its
// twin. Set form: every member with a twin. No notification here: the callers decide.
int sweepMesh(TopoMesh& mesh, MeshEdgeSwapper& swapper)
{
    int swaps = 0;
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
    {
        const int twin = mesh.getHalfEdge(e.getIndex()).twin;
        if (twin < e.getIndex()) // no twin (-1), or the pair was met at the twin
            continue;
        if (swapper.shouldSwap(e) && mesh.swapEdge(e))
            ++swaps;
    }
    return swaps;
}

int sweepSet(TopoMesh& mesh, const qy::set<TopoMeshEdge>& edges, MeshEdgeSwapper& swapper)
{
    int swaps = 0;
    for (const TopoMeshEdge e : edges)
    {
        if (e.getMesh() != &mesh || !mesh.isAlive(e) || !e.hasTwin())
            continue;
        if (swapper.shouldSwap(e) && mesh.swapEdge(e))
            ++swaps;
    }
    return swaps;
}

template <class Sweep> int sweepRepeatedly(TopoMesh& mesh, const char* name, Sweep sweep)
{
    debugChannel().print("%s: %d vertices, %d edges, %d faces\n", name, mesh.getNumVertices(),
                         mesh.getNumEdges(), mesh.getNumFaces());
    qyOS::StopWatch watch;
    watch.start();
    int total = 0, sweeps = 0;
    for (;;)
    {
        const int swaps = sweep();
        ++sweeps;
        total += swaps;
        if (swaps == 0)
            break;
    }
    debugChannel().print("  swapped %d edges in %d sweeps: %f s\n", total, sweeps, watch.clear());
    if (total != 0)
        mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
    return total;
}

template <class Sweep> int sweepOnce(TopoMesh& mesh, const char* name, Sweep sweep)
{
    debugChannel().print("%s: %d vertices, %d edges, %d faces\n", name, mesh.getNumVertices(),
                         mesh.getNumEdges(), mesh.getNumFaces());
    qyOS::StopWatch watch;
    watch.start();
    const int swaps = sweep();
    debugChannel().print("  swapped %d edges: %f s\n", swaps, watch.clear());
    if (swaps != 0)
        mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
    return swaps;
}

} // namespace

MeshEdgeSwapper::MeshEdgeSwapper() = default;

MeshEdgeSwapper::~MeshEdgeSwapper()
{
    clearVetoSignal();
}

MeshEdgeSwapper::VetoSignal& MeshEdgeSwapper::getVetoSignal()
{
    if (!m_vetoSignal)
        m_vetoSignal = std::make_unique<VetoSignal>();
    return *m_vetoSignal;
}

void MeshEdgeSwapper::clearVetoSignal()
{
    m_vetoSignal.reset();
}

bool MeshEdgeSwapper::shouldSwap(TopoMeshEdge e)
{
    if (!m_vetoSignal || m_vetoSignal->getNumConnections() == 0 || !e.hasTwin())
        return false;
    bool veto = false;
    m_vetoSignal->emit(e, veto);
    return !veto;
}

void MeshEdgeSwapper::minimizeOppositeAngleSum(TopoMeshEdge e, bool& veto)
{
    if (vetoWithoutQuad(e, veto))
        return;
    const auto [A, B, C, D] = pointsOf(e);
    // The angles opposite A-B (at C and at D) and opposite C-D (at B and at A).
    double difference = 0.0;
    bool estimated = false;
#if defined(__x86_64__) || defined(__i386__)
    if (detail::useAvx2())
        estimated = estimateSumDifferenceAvx2(A, B, C, D, difference);
    else
#endif
    {
        Pair before, after;
        estimated = estimateAnglesAt(pairOf(C, D), pairOf(A, A), pairOf(B, B), before) &&
                    estimateAnglesAt(pairOf(B, A), pairOf(C, C), pairOf(D, D), after);
        if (estimated)
            difference = (after[0] + after[1]) - (before[0] + before[1]);
    }
    if (estimated)
    {
        if (difference > angleSumMargin)
        {
            veto = true;
            return;
        }
        if (difference < -angleSumMargin)
            return;
    }
    const double current = angleAt(C, A, B) + angleAt(D, A, B);
    const double swapped = angleAt(B, C, D) + angleAt(A, C, D);
    if (swapped >= current)
        veto = true;
}

void MeshEdgeSwapper::preserveBoundary(TopoMeshEdge e, bool& veto)
{
    if (vetoWithoutQuad(e, veto))
        return;
    const TopoMesh& mesh = *e.getMesh();
    const Quad q = quadOf(e);
    if ((mesh.vertexOnBoundary(q.a) && mesh.vertexOnBoundary(q.b)) ||
        (mesh.vertexOnBoundary(q.c) && mesh.vertexOnBoundary(q.d)))
        veto = true;
}

void MeshEdgeSwapper::preserveFeatures(TopoMeshEdge e, bool& veto)
{
    if (vetoWithoutQuad(e, veto))
        return;
    const auto [A, B, C, D] = pointsOf(e);
    double before = 0, after = 0;
    if (!signedDihedral(A, B, C, D, before) || !signedDihedral(D, C, A, B, after) ||
        !(std::abs(before - after) < maxCreaseChange))
        veto = true;
}

void MeshEdgeSwapper::preventFoldover(TopoMeshEdge e, bool& veto)
{
    if (vetoWithoutQuad(e, veto))
        return;
    const auto [A, B, C, D] = pointsOf(e);
    {
        // The angle between the normals is above a right angle where their dot product is
        // negative; it is decided here unless the product is within 1e-6 of the lengths'.
        const Vector n1 = qyLinear::cross(B - D, C - D);
        const Vector n2 = qyLinear::cross(C - D, A - D);
        const double l1 = dot(n1, n1), l2 = dot(n2, n2);
        if (safeSquare(l1) && safeSquare(l2))
        {
            const double c = dot(n1, n2);
            if (c * c > 1e-12 * l1 * l2)
            {
                if (c < 0.0)
                    veto = true;
                return;
            }
        }
    }
    const Normal n1 = triangleNormal(C, D, B);
    const Normal n2 = triangleNormal(A, D, C);
    if (!n1.isValid() || !n2.isValid() || qyLinear::angle(n1.asVector(), n2.asVector()) > halfPi)
        veto = true;
}

int meshSwapEdgesOnce(TopoMesh& mesh, MeshEdgeSwapper& swapper)
{
    return sweepOnce(mesh, "meshSwapEdgesOnce", [&] { return sweepMesh(mesh, swapper); });
}

int meshSwapEdgesOnce(TopoMesh& mesh, const qy::set<TopoMeshEdge>& edges, MeshEdgeSwapper& swapper)
{
    return sweepOnce(mesh, "meshSwapEdgesOnce", [&] { return sweepSet(mesh, edges, swapper); });
}

int meshSwapEdgesRepeatedly(TopoMesh& mesh, MeshEdgeSwapper& swapper)
{
    return sweepRepeatedly(mesh, "meshSwapEdgesRepeatedly",
                           [&] { return sweepMesh(mesh, swapper); });
}

int meshSwapEdgesRepeatedly(TopoMesh& mesh, const qy::set<TopoMeshEdge>& edges,
                            MeshEdgeSwapper& swapper)
{
    return sweepRepeatedly(mesh, "meshSwapEdgesRepeatedly",
                           [&] { return sweepSet(mesh, edges, swapper); });
}

void meshSwap(CompactMesh& a, CompactMesh& b)
{
    a.swap(b);
    MeshModification changeA(&a, MeshModification::Remapped, nullptr);
    MeshModification changeB(&b, MeshModification::Remapped, nullptr);
    // The names of both meshes' attribute arrays: each mesh now holds what the other had.
    std::set<std::string> names;
    a.getAttributeNames(names);
    b.getAttributeNames(names);
    for (const std::string& name : names)
    {
        changeA.vertexAttribsModified(name.c_str());
        changeB.vertexAttribsModified(name.c_str());
    }
    const auto both = [&](void (MeshModification::*flag)())
    {
        (changeA.*flag)();
        (changeB.*flag)();
    };
    if (a.getNumPolys() || b.getNumPolys())
        both(&MeshModification::polysModified);
    if (a.getNumTriStrips() || b.getNumTriStrips() || a.getNumTriFans() || b.getNumTriFans())
        both(&MeshModification::stripsAndFansModified);
    if (a.getTriangleNormals() || b.getTriangleNormals())
        both(&MeshModification::triangleNormalsModified);
    if (a.getNumLines() || b.getNumLines())
        both(&MeshModification::linesModified);
    if (a.getNumLineStrips() || b.getNumLineStrips())
        both(&MeshModification::lineStripsModified);
    a.modified(changeA);
    b.modified(changeB);
}

} // namespace qyGeom
