// Catmull-Clark subdivision (E. Catmull and J. Clark, "Recursively generated B-spline
// surfaces on arbitrary topological meshes", 1978) over the half-edge mesh.
//
// A level first computes every new position from the unchanged mesh (face, edge and vertex
// points, in arrays indexed by the old slots), then builds: into a new mesh, or in place with
// the mesh's own edge and face splits. The new points of an old entity are looked up by its
// slot, which is the entity's key: the slot arrays are a hash table whose hash is the
// identity. The partial form runs the same level with a flag per face that says which faces
// are refined; the others are copied with the midpoints of their border edges as new corners.
// A level over the whole mesh into a new mesh (wholeLevel) writes the new mesh's arrays
// directly, on the thread pool, with the twins derived from the old mesh's.
#include "qyGeom/computeSubdivMesh.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "base/Memory.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

using qyLinear::Normal;
using qyLinear::Point;
using qyLinear::Vector;
using HalfEdge = TopoMesh::HalfEdge;

std::size_t sz(int i)
{
    return std::size_t(i);
}

// Per-level positions, indexed by the old mesh's slots.
struct LevelPoints
{
    std::vector<Point> face;   ///< face points of the refined faces, by face slot
    std::vector<Point> edge;   ///< edge points, by half-edge slot (both halves of a pair)
    std::vector<char> split;   ///< by half-edge slot: the edge gets an edge point
    std::vector<Point> vertex; ///< vertex points (or the kept position), by vertex slot
};

// The vertex-rule accumulator of one old vertex.
struct VertexSums
{
    Vector facePoints; ///< sum of the face points of its refined faces
    Vector midpoints;  ///< sum of the midpoints of its edges
    Vector rim;        ///< sum of the far ends of its boundary edges
    int numFaces = 0;  ///< refined faces around it
    int numEdges = 0;
    int numRim = 0;   ///< boundary edges at it
    int numFixed = 0; ///< unrefined faces around it: the vertex stays where it is
};

Vector asVector(const Point& p)
{
    return Vector(p);
}

Point asPoint(const Vector& v)
{
    return Point(v.x, v.y, v.z);
}

bool isRefined(const std::vector<char>* refine, int face)
{
    return !refine || (*refine)[sz(face)];
}

// Every new position of one level. `refine` flags the faces to refine (null: all of them).
void computeLevelPoints(const TopoMesh& mesh, const std::vector<char>* refine, LevelPoints& out)
{
    const HalfEdge* E = mesh.getHalfEdges();
    const Point* P = mesh.getPoints();
    const int numFaceSlots = mesh.getFaceCapacity(), numEdgeSlots = mesh.getEdgeCapacity();
    const int numVertexSlots = mesh.getVertexCapacity();
    out.face.assign(sz(numFaceSlots), Point());
    out.edge.assign(sz(numEdgeSlots), Point());
    out.split.assign(sz(numEdgeSlots), 0);
    out.vertex.assign(sz(numVertexSlots), Point());
    std::vector<VertexSums> sums(sz(numVertexSlots));

    for (int f = 0; f < numFaceSlots; ++f)
    {
        const int first = mesh.getFaceEdge(f);
        if (first < 0)
            continue;
        const bool refined = isRefined(refine, f);
        Vector sum;
        int n = 0, h = first;
        do
        {
            sum += asVector(P[E[h].vertex]);
            ++n;
            h = E[h].next;
        } while (h != first);
        const Vector centre = sum / double(n);
        if (refined)
            out.face[sz(f)] = asPoint(centre);
        h = first;
        do
        {
            VertexSums& s = sums[sz(E[h].vertex)];
            if (refined)
            {
                s.facePoints += centre;
                ++s.numFaces;
            }
            else
                ++s.numFixed;
            h = E[h].next;
        } while (h != first);
    }

    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const HalfEdge& h = E[e];
        if (h.vertex < 0 || (h.twin >= 0 && h.twin < e))
            continue; // a free slot, or the pair was met at the twin
        const int a = h.vertex, b = E[h.next].vertex;
        const Vector A = asVector(P[a]), B = asVector(P[b]);
        const Vector mid = (A + B) * 0.5;
        VertexSums& sa = sums[sz(a)];
        VertexSums& sb = sums[sz(b)];
        sa.midpoints += mid;
        sb.midpoints += mid;
        ++sa.numEdges;
        ++sb.numEdges;
        if (h.twin < 0)
        {
            sa.rim += B;
            sb.rim += A;
            ++sa.numRim;
            ++sb.numRim;
        }
        const bool refined = isRefined(refine, h.face);
        const bool twinRefined = h.twin >= 0 && isRefined(refine, E[h.twin].face);
        if (!refined && !twinRefined)
            continue; // an edge of the unrefined ring stays whole
        // Between a refined and an unrefined face the midpoint keeps the ring's face flat.
        const Vector p = refined && twinRefined ? (A + B + asVector(out.face[sz(h.face)]) +
                                                   asVector(out.face[sz(E[h.twin].face)])) *
                                                      0.25
                                                : mid;
        out.split[sz(e)] = 1;
        out.edge[sz(e)] = asPoint(p);
        if (h.twin >= 0)
        {
            out.split[sz(h.twin)] = 1;
            out.edge[sz(h.twin)] = asPoint(p);
        }
    }

    for (int v = 0; v < numVertexSlots; ++v)
    {
        if (mesh.getVertexEdge(v) < -1)
            continue; // a free slot
        const VertexSums& s = sums[sz(v)];
        const Vector S = asVector(P[v]);
        Vector q = S;
        if (s.numFixed == 0 && s.numFaces > 0)
        {
            if (s.numRim == 2)
                q = S * 0.75 + s.rim * 0.125;
            else if (s.numRim == 0)
            {
                const double n = s.numFaces;
                const Vector Q = s.facePoints / n, R = s.midpoints / double(s.numEdges);
                q = (Q + 2.0 * R + (n - 3.0) * S) / n;
            }
        }
        out.vertex[sz(v)] = asPoint(q);
    }
}

// For each element of a level's new mesh, the slot of the element of the level's input
// that it came from (-1: none). Composed across levels, the same arrays refer to the slots
// of the first input.
struct Origins
{
    std::vector<int> face, edge, vertex;
};

// One level into the empty mesh `out`: face points, edge points, vertex points, then the
// faces, then twins. `outRefine` receives the new faces' flags (children of refined faces
// are refined) when the level is partial.
void buildLevel(const TopoMesh& mesh, const std::vector<char>* refine, const LevelPoints& pts,
                TopoMesh& out, std::vector<char>* outRefine, Origins* origins)
{
    const HalfEdge* E = mesh.getHalfEdges();
    const int numFaceSlots = mesh.getFaceCapacity(), numEdgeSlots = mesh.getEdgeCapacity();
    const int numVertexSlots = mesh.getVertexCapacity();

    // Sizes first, so the new mesh is allocated once.
    int numFacePoints = 0, numEdgePoints = 0, newEdges = 0, newFaces = 0;
    for (int f = 0; f < numFaceSlots; ++f)
    {
        const int first = mesh.getFaceEdge(f);
        if (first < 0)
            continue;
        const bool refined = isRefined(refine, f);
        numFacePoints += refined;
        int h = first;
        do
        {
            newEdges += refined ? 4 : 1 + pts.split[sz(h)];
            newFaces += refined;
            h = E[h].next;
        } while (h != first);
        newFaces += !refined;
    }
    for (int e = 0; e < numEdgeSlots; ++e)
        numEdgePoints += pts.split[sz(e)] && (E[e].twin < 0 || E[e].twin > e);
    const int newVertices = numFacePoints + numEdgePoints + mesh.getNumVertices();
    out.reserve(newVertices, newEdges, newFaces);

    std::vector<int> facePoint(sz(numFaceSlots), -1), edgePoint(sz(numEdgeSlots), -1);
    std::vector<int> vertexPoint(sz(numVertexSlots), -1);
    for (int f = 0; f < numFaceSlots; ++f)
        if (mesh.getFaceEdge(f) >= 0 && isRefined(refine, f))
            facePoint[sz(f)] = out.allocVertex(pts.face[sz(f)]).getIndex();
    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const int t = E[e].twin;
        if (!pts.split[sz(e)] || (t >= 0 && t < e))
            continue;
        edgePoint[sz(e)] = out.allocVertex(pts.edge[sz(e)]).getIndex();
        if (t >= 0)
            edgePoint[sz(t)] = edgePoint[sz(e)];
    }
    for (int v = 0; v < numVertexSlots; ++v)
        if (mesh.getVertexEdge(v) >= -1)
            vertexPoint[sz(v)] = out.allocVertex(pts.vertex[sz(v)]).getIndex();

    if (origins)
    {
        origins->face.assign(sz(newFaces), -1);
        origins->edge.assign(sz(newEdges), -1);
        origins->vertex.assign(sz(newVertices), -1);
        for (int v = 0; v < numVertexSlots; ++v)
            if (vertexPoint[sz(v)] >= 0)
                origins->vertex[sz(vertexPoint[sz(v)])] = v;
    }
    if (outRefine)
        outRefine->assign(sz(newFaces), 0);

    // The new mesh has no free slots: each face's half-edges are new consecutive slots, in
    // the order of its corners.
    std::vector<int> corners;
    for (int f = 0; f < numFaceSlots; ++f)
    {
        const int first = mesh.getFaceEdge(f);
        if (first < 0)
            continue;
        if (isRefined(refine, f))
        {
            // One quad per corner: face point, edge point of the edge arriving at the
            // corner, the corner's vertex point, edge point of the edge leaving it.
            //
            //   vertex ---- ep(h) ---->
            //     |           |
            //   ep(prev) --- face point
            int h = first;
            do
            {
                const int quad[4] = {facePoint[sz(f)], edgePoint[sz(E[h].prev)],
                                     vertexPoint[sz(E[h].vertex)], edgePoint[sz(h)]};
                const int q = out.allocFace(4, quad).getIndex();
                if (origins)
                {
                    const int q0 = out.getFaceEdge(q);
                    origins->face[sz(q)] = f;
                    origins->edge[sz(q0 + 1)] = E[h].prev; // edge point -> vertex point
                    origins->edge[sz(q0 + 2)] = h;         // vertex point -> edge point
                }
                if (outRefine)
                    (*outRefine)[sz(q)] = 1;
                h = E[h].next;
            } while (h != first);
        }
        else
        {
            corners.clear();
            int h = first;
            do
            {
                corners.push_back(vertexPoint[sz(E[h].vertex)]);
                if (pts.split[sz(h)])
                    corners.push_back(edgePoint[sz(h)]);
                h = E[h].next;
            } while (h != first);
            const int g = out.allocFace(int(corners.size()), corners.data()).getIndex();
            if (origins)
            {
                origins->face[sz(g)] = f;
                int k = out.getFaceEdge(g);
                h = first;
                do
                {
                    origins->edge[sz(k++)] = h;
                    if (pts.split[sz(h)])
                        origins->edge[sz(k++)] = h;
                    h = E[h].next;
                } while (h != first);
            }
        }
    }
    out.meshTwin();
}

// Scratch of a level over the whole mesh, indexed by the old mesh's slots. It lives across
// the levels, so each buffer is allocated once per size it reaches.
struct WholeScratch
{
    qy::RawVector<int> quad;        ///< by half-edge slot: the new quad at its start corner
    qy::RawVector<int> edgePoint;   ///< by half-edge slot: the new vertex of its edge point
    qy::RawVector<int> facePoint;   ///< by face slot
    qy::RawVector<int> vertexPoint; ///< by vertex slot
    /// The half-edges at each vertex, in slot order: those leaving it and the boundary ones
    /// arriving at it. Vertex v's run starts at spokeStart[v] and ends at spokeStart[v + 1].
    qy::RawVector<int> spokeStart;
    struct Spoke
    {
        int face; ///< the face of a leaving half-edge; -1 for a boundary one arriving
        int quad; ///< the new quad at a leaving half-edge; -1 for a boundary one arriving
        int lead; ///< the lower half-edge of the edge (the only one on a boundary)
        int far;  ///< the edge's other end; ~end on a boundary edge
    };
    qy::RawVector<Spoke> spokes;
};

// The vertex rule from the sums around old position S.
Point vertexRule(const Vector& S, const VertexSums& sv)
{
    if (sv.numFaces == 0 || sv.numFixed != 0)
        return asPoint(S);
    if (sv.numRim == 2)
        return asPoint(S * 0.75 + sv.rim * 0.125);
    if (sv.numRim != 0)
        return asPoint(S);
    const double n = sv.numFaces;
    const Vector Q = sv.facePoints / n, R = sv.midpoints / double(sv.numEdges);
    return asPoint((Q + 2.0 * R + (n - 3.0) * S) / n);
}

// Runs fn(begin, end) over the chunks of [0, n) on the shared pool. Each pass below writes
// only the slots of its own items, so the result is the same with any number of threads.
template <class Fn> void forChunks(int n, Fn&& fn)
{
    qyUtil::runChunks(qyUtil::ThreadPool::get(), n,
                      [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end) { fn(begin, end); });
}

// One level over the whole mesh into `out`, written straight into its arrays. The same
// points as computeLevelPoints with no face flags, and the same mesh as buildLevel followed
// by meshTwin: the new elements are numbered in the same order, and the twins follow from
// the old ones. The quad at the corner where old half-edge h starts (vertex v, face f) has
// the half-edges, from 4q on:
//   +0  face point -> edge point of prev(h)   twin: +3 of the quad of prev(h)
//   +1  edge point of prev(h) -> vertex point   twin: +2 of the quad of twin(prev(h))
//   +2  vertex point -> edge point of h   twin: +1 of the quad of next(twin(h))
//   +3  edge point of h -> face point   twin: +0 of the quad of next(h)
// so that an old boundary half-edge leaves boundary half-edges at +1 and +2, and nothing else.
//
// Every pass on the pool computes each element from the old mesh alone and writes only its
// own slots; the sums of the vertex rule add their terms in a fixed order (slot order). So
// the result is the same to the bit whatever the number of threads.
//
// QuadLayout: the input is the output of an earlier level (no free slots; face f is a quad
// on half-edges 4f to 4f + 3). Then the quad of h is h and the links follow from the
// numbers; the general form looks them up.
template <bool QuadLayout>
void wholeLevel(const TopoMesh& mesh, WholeScratch& s, TopoMesh& out, Origins* origins)
{
    const HalfEdge* E = mesh.getHalfEdges();
    const Point* P = mesh.getPoints();
    const int numFaceSlots = mesh.getFaceCapacity(), numEdgeSlots = mesh.getEdgeCapacity();
    const int numVertexSlots = mesh.getVertexCapacity();
    if (!QuadLayout)
    {
        s.quad.resize(sz(numEdgeSlots));
        s.facePoint.resize(sz(numFaceSlots));
        s.vertexPoint.resize(sz(numVertexSlots));
    }
    s.edgePoint.resize(sz(numEdgeSlots));
    int* quadOf = s.quad.data();
    int* edgePoint = s.edgePoint.data();
    int* facePoint = s.facePoint.data();
    int* vertexPoint = s.vertexPoint.data();
    const auto quadAt = [quadOf](int h) { return QuadLayout ? h : quadOf[h]; };
    const auto nextOf = [E](int h)
    { return QuadLayout ? ((h & 3) == 3 ? h - 3 : h + 1) : E[h].next; };
    const auto prevOf = [E](int h)
    { return QuadLayout ? ((h & 3) == 0 ? h + 3 : h - 1) : E[h].prev; };

    // New vertices: face points, then edge points, then vertex points, each in slot order;
    // each face's quads get consecutive numbers from its first half-edge on.
    const int numFacePoints = mesh.getNumFaces();
    if (!QuadLayout)
    {
        int fp = 0, q = 0;
        for (int f = 0; f < numFaceSlots; ++f)
        {
            const int first = mesh.getFaceEdge(f);
            if (first < 0)
                continue;
            facePoint[f] = fp++;
            int h = first;
            do
            {
                quadOf[h] = q++;
                h = E[h].next;
            } while (h != first);
        }
    }
    // The spokes are filed by a counting sort: spokeStart[v + 1] first counts v's, then the
    // running sum turns the counts into the ends of the runs; filing moves spokeStart[v]
    // from the beginning of v's run to its end, and the shift back restores the beginnings.
    s.spokeStart.assign(sz(numVertexSlots) + 1, 0);
    int* spokeStart = s.spokeStart.data();
    int next = numFacePoints;
    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const HalfEdge& h = E[e];
        if (h.vertex < 0)
            continue;
        ++spokeStart[h.vertex + 1];
        if (h.twin < 0)
            ++spokeStart[E[nextOf(e)].vertex + 1];
        else if (h.twin < e)
            continue;
        edgePoint[e] = next;
        if (h.twin >= 0)
            edgePoint[h.twin] = next;
        ++next;
    }
    for (int v = 0; v < numVertexSlots; ++v)
        spokeStart[v + 1] += spokeStart[v];
    s.spokes.resize(sz(spokeStart[numVertexSlots]));
    WholeScratch::Spoke* spokes = s.spokes.data();
    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const HalfEdge& h = E[e];
        if (h.vertex < 0)
            continue;
        const int b = E[nextOf(e)].vertex;
        const int face = QuadLayout ? e >> 2 : h.face;
        if (h.twin < 0)
        {
            spokes[spokeStart[h.vertex]++] = {face, quadAt(e), e, ~b};
            spokes[spokeStart[b]++] = {-1, -1, e, ~h.vertex};
        }
        else
            spokes[spokeStart[h.vertex]++] = {face, quadAt(e), std::min(e, h.twin), b};
    }
    for (int v = numVertexSlots; v > 0; --v)
        spokeStart[v] = spokeStart[v - 1];
    spokeStart[0] = 0;
    const int firstVertexPoint = next;
    if (!QuadLayout)
        for (int v = 0; v < numVertexSlots; ++v)
            if (mesh.getVertexEdge(v) >= -1)
                vertexPoint[v] = next++;
    const int numNewVertices = firstVertexPoint + mesh.getNumVertices();
    const int numQuads = mesh.getNumEdges();
    const TopoMesh::BulkArrays A = out.allocBulk(numNewVertices, 4 * numQuads, numQuads);
    if (origins)
    {
        origins->face.assign(sz(numQuads), -1);
        origins->edge.assign(sz(4 * numQuads), -1);
        origins->vertex.assign(sz(numNewVertices), -1);
    }
    const auto facePointOf = [facePoint](int f) { return QuadLayout ? f : facePoint[f]; };
    const auto vertexPointOf = [vertexPoint, firstVertexPoint](int v)
    { return QuadLayout ? firstVertexPoint + v : vertexPoint[v]; };

    // Face points.
    forChunks(numFaceSlots,
              [&](int begin, int end)
              {
                  for (int f = begin; f < end; ++f)
                  {
                      if (QuadLayout && f + 8 < end) // the corners of a face further on
                          for (int k = 0; k < 4; ++k)
                              __builtin_prefetch(P + E[4 * (f + 8) + k].vertex);
                      const int first = mesh.getFaceEdge(f);
                      if (first < 0)
                          continue;
                      Vector sum;
                      int n = 0, h = first;
                      do
                      {
                          sum += asVector(P[E[h].vertex]);
                          ++n;
                          h = nextOf(h);
                      } while (h != first);
                      const int fp = facePointOf(f);
                      A.points[fp] = asPoint(sum / double(n));
                      A.vertexEdge[fp] = 4 * quadAt(first);
                      A.vertexDegree[fp] = n;
                  }
              });

    // Edge points.
    forChunks(
        numEdgeSlots,
        [&](int begin, int end)
        {
            for (int e = begin; e < end; ++e)
            {
                if (QuadLayout && e + 16 < end) // the points of an edge further on
                {
                    const HalfEdge& ahead = E[e + 16];
                    __builtin_prefetch(P + ahead.vertex);
                    if (ahead.twin > e + 16)
                        __builtin_prefetch(A.points + facePointOf(ahead.twin >> 2));
                }
                const HalfEdge& h = E[e];
                if (h.vertex < 0 || (h.twin >= 0 && h.twin < e))
                    continue;
                const Vector VA = asVector(P[h.vertex]), VB = asVector(P[E[nextOf(e)].vertex]);
                const int ep = edgePoint[e];
                const int afterE = 4 * quadAt(nextOf(e)) + 1; // leaves the edge point towards b
                if (h.twin < 0)
                {
                    A.points[ep] = asPoint((VA + VB) * 0.5);
                    A.vertexEdge[ep] = afterE;
                    A.vertexDegree[ep] = 2;
                    continue;
                }
                const int t = h.twin;
                const int faceE = QuadLayout ? e >> 2 : h.face;
                const int faceT = QuadLayout ? t >> 2 : E[t].face;
                A.points[ep] = asPoint((VA + VB + asVector(A.points[facePointOf(faceE)]) +
                                        asVector(A.points[facePointOf(faceT)])) *
                                       0.25);
                A.vertexEdge[ep] = std::min(std::min(4 * quadAt(e) + 3, afterE),
                                            std::min(4 * quadAt(t) + 3, 4 * quadAt(nextOf(t)) + 1));
                A.vertexDegree[ep] = 4;
            }
        });
    // Vertex points, from the sums of the vertex rule gathered at each vertex from its
    // spokes. A sum adds its terms in the order of the old slots (faces by face slot, edges
    // by the slot of their lower half-edge), the order in which one pass over the faces and
    // one over the edges would add them.
    forChunks(numVertexSlots,
              [&](int begin, int end)
              {
                  std::vector<int> faceTerms;                 // face slots
                  std::vector<std::pair<int, int>> edgeTerms; // (lower half-edge, far end)
                  for (int v = begin; v < end; ++v)
                  {
                      const int leaving = mesh.getVertexEdge(v);
                      if (leaving < -1)
                          continue; // a free slot
                      const int vp = vertexPointOf(v);
                      A.vertexDegree[vp] = mesh.getVertexDegree(v);
                      if (origins)
                          origins->vertex[sz(vp)] = v;
                      // The points are scattered over the old mesh: ask for those of a vertex a
                      // few steps ahead, so that they arrive while this one is summed.
                      if (v + 4 < end)
                          for (int k = spokeStart[v + 4]; k < spokeStart[v + 5]; ++k)
                          {
                              const WholeScratch::Spoke& ahead = spokes[k];
                              __builtin_prefetch(P + (ahead.far < 0 ? ~ahead.far : ahead.far));
                              if (ahead.face >= 0)
                                  __builtin_prefetch(A.points + facePointOf(ahead.face));
                          }
                      // The vertex point leaves by the +2 half-edge of the lowest-numbered
                      // quad at v, or of the lowest-numbered one on a boundary edge when
                      // there is one, as meshTwin would choose.
                      int lowest = -1;
                      bool boundary = false;
                      faceTerms.clear();
                      edgeTerms.clear();
                      for (int k = spokeStart[v]; k < spokeStart[v + 1]; ++k)
                      {
                          const WholeScratch::Spoke& spoke = spokes[k];
                          edgeTerms.emplace_back(spoke.lead, spoke.far);
                          if (spoke.face < 0)
                              continue; // a boundary half-edge arriving
                          const bool open = spoke.far < 0;
                          if (lowest < 0 || (open && !boundary) ||
                              (open == boundary && spoke.quad < lowest))
                          {
                              lowest = spoke.quad;
                              boundary = open;
                          }
                          faceTerms.push_back(spoke.face);
                      }
                      if (!QuadLayout) // quads of a quad layout come in the order of their faces
                          std::sort(faceTerms.begin(), faceTerms.end());
                      std::sort(edgeTerms.begin(), edgeTerms.end());
                      VertexSums sv;
                      for (const int face : faceTerms)
                          sv.facePoints += asVector(A.points[facePointOf(face)]);
                      const Vector S = asVector(P[v]);
                      for (const auto& [lead, far] : edgeTerms)
                      {
                          const Vector B = asVector(P[far < 0 ? ~far : far]);
                          sv.midpoints += (S + B) * 0.5;
                          if (far < 0)
                          {
                              sv.rim += B;
                              ++sv.numRim;
                          }
                      }
                      A.vertexEdge[vp] = lowest < 0 ? -1 : 4 * lowest + 2;
                      sv.numFaces = int(faceTerms.size());
                      sv.numEdges = int(edgeTerms.size());
                      A.points[vp] = vertexRule(S, sv);
                  }
              });

    // The quads.
    HalfEdge* out4 = A.edges;
    forChunks(
        numFaceSlots,
        [&](int begin, int end)
        {
            for (int f = begin; f < end; ++f)
            {
                const int first = mesh.getFaceEdge(f);
                if (first < 0)
                    continue;
                const int centre = facePointOf(f);
                int h = first;
                do
                {
                    const HalfEdge& he = E[h];
                    const int prev = prevOf(h), after = nextOf(h);
                    const int twinBefore = E[prev].twin;
                    const int quad = quadAt(h), base = 4 * quad;
                    const int twin1 = twinBefore < 0 ? -1 : 4 * quadAt(twinBefore) + 2;
                    const int twin2 = he.twin < 0 ? -1 : 4 * quadAt(nextOf(he.twin)) + 1;
                    HalfEdge* o = out4 + base;
                    o[0] = HalfEdge{centre, quad, base + 1, base + 3, 4 * quadAt(prev) + 3};
                    o[1] = HalfEdge{edgePoint[prev], quad, base + 2, base, twin1};
                    o[2] = HalfEdge{vertexPointOf(he.vertex), quad, base + 3, base + 1, twin2};
                    o[3] = HalfEdge{edgePoint[h], quad, base, base + 2, 4 * quadAt(after)};
                    A.faceEdge[quad] = base;
                    if (origins)
                    {
                        origins->face[sz(quad)] = f;
                        origins->edge[sz(base + 1)] = prev;
                        origins->edge[sz(base + 2)] = h;
                    }
                    h = after;
                } while (h != first);
            }
        });
}

// Follows one level's origins back to the first input: composed[i] = before[origins[i]].
void compose(std::vector<int>& before, const std::vector<int>& origins)
{
    std::vector<int> after(origins.size(), -1);
    for (std::size_t i = 0; i < origins.size(); ++i)
        if (origins[i] >= 0)
            after[i] = before[sz(origins[i])];
    before.swap(after);
}

// Runs `levels` levels from `start` (the input or a copy of part of it). `track` holds, for
// the slots of `start`, the input's slots; it is composed through each level. `refine` is
// empty for whole subdivision.
std::unique_ptr<TopoMesh> runLevels(const TopoMesh& start, std::unique_ptr<TopoMesh> owned,
                                    std::vector<char> refine, int levels, Origins* track,
                                    const char* name)
{
    qyOS::StopWatch watch;
    watch.start();
    const TopoMesh* current = &start;
    LevelPoints pts;
    WholeScratch scratch;
    for (int level = 1; level <= levels; ++level)
    {
        const std::vector<char>* flags = refine.empty() ? nullptr : &refine;
        auto next = std::make_unique<TopoMesh>();
        Origins origins;
        std::vector<char> nextRefine;
        if (flags)
        {
            computeLevelPoints(*current, flags, pts);
            buildLevel(*current, flags, pts, *next, &nextRefine, track ? &origins : nullptr);
        }
        else if (level == 1)
            wholeLevel<false>(*current, scratch, *next, track ? &origins : nullptr);
        else // the previous level's own output
            wholeLevel<true>(*current, scratch, *next, track ? &origins : nullptr);
        if (track)
        {
            compose(track->face, origins.face);
            compose(track->edge, origins.edge);
            compose(track->vertex, origins.vertex);
        }
        owned = std::move(next); // the previous intermediate mesh goes here
        current = owned.get();
        refine.swap(nextRefine);
        debugChannel().print("  %s level %d (%d faces): %f s\n", name, level,
                             current->getNumFaces(), watch.clear());
    }
    return owned;
}

Origins identityOrigins(const TopoMesh& mesh)
{
    Origins o;
    o.face.resize(sz(mesh.getFaceCapacity()));
    o.edge.resize(sz(mesh.getEdgeCapacity()));
    o.vertex.resize(sz(mesh.getVertexCapacity()));
    for (std::size_t i = 0; i < o.face.size(); ++i)
        o.face[i] = int(i);
    for (std::size_t i = 0; i < o.edge.size(); ++i)
        o.edge[i] = int(i);
    for (std::size_t i = 0; i < o.vertex.size(); ++i)
        o.vertex[i] = int(i);
    return o;
}

// The composed origins as maps from the result's handles to the input's. The result's slots
// are visited in increasing order, so each insertion goes at the end of its map.
void fillMaps(TopoMesh& result, TopoMesh& input, const Origins& track,
              qy::map<TopoMeshFace, TopoMeshFace>& faces,
              qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
              qy::map<TopoMeshVertex, TopoMeshVertex>& vertices)
{
    for (std::size_t i = 0; i < track.face.size(); ++i)
        if (track.face[i] >= 0)
            faces.emplace_hint(faces.end(), TopoMeshFace(&result, int(i)),
                               TopoMeshFace(&input, track.face[i]));
    for (std::size_t i = 0; i < track.edge.size(); ++i)
        if (track.edge[i] >= 0)
            edges.emplace_hint(edges.end(), TopoMeshEdge(&result, int(i)),
                               TopoMeshEdge(&input, track.edge[i]));
    for (std::size_t i = 0; i < track.vertex.size(); ++i)
        if (track.vertex[i] >= 0)
            vertices.emplace_hint(vertices.end(), TopoMeshVertex(&result, int(i)),
                                  TopoMeshVertex(&input, track.vertex[i]));
}

// Clears the caller's maps when a level fails to allocate, so that none refers to a mesh
// that was never returned.
template <class... Maps> class ClearOnUnwind
{
public:
    explicit ClearOnUnwind(Maps&... maps) : m_maps(maps...) {}
    ~ClearOnUnwind()
    {
        if (!m_done)
            std::apply([](auto&... m) { (m.get().clear(), ...); }, m_maps);
    }
    ClearOnUnwind(const ClearOnUnwind&) = delete;
    ClearOnUnwind& operator=(const ClearOnUnwind&) = delete;
    void done() { m_done = true; }

private:
    std::tuple<std::reference_wrapper<Maps>...> m_maps;
    bool m_done = false;
};

void printHeader(const char* name, const TopoMesh& mesh, int levels)
{
    debugChannel().print("%s: %d vertices, %d edges, %d faces, %d levels\n", name,
                         mesh.getNumVertices(), mesh.getNumEdges(), mesh.getNumFaces(), levels);
}

// The partial form's copy: the refined faces, and every face around their corners and those
// corners' neighbours. Fills `refine` for the copy's faces and `track` with the input's
// slots of the copy's elements. Returns null for an empty region.
std::unique_ptr<TopoMesh> copyRegion(qy::unordered_set<TopoMeshEntity>& region,
                                     std::vector<char>& refine, Origins& track, TopoMesh*& input)
{
    input = nullptr;
    for (const TopoMeshEntity& x : region)
        if (x.isValid())
        {
            input = x.getMesh();
            break;
        }
    if (!input)
        return nullptr;
    TopoMesh& mesh = *input;
    const HalfEdge* E = mesh.getHalfEdges();
    const int numFaceSlots = mesh.getFaceCapacity(), numVertexSlots = mesh.getVertexCapacity();

    std::vector<char> refined(sz(numFaceSlots), 0), inCopy(sz(numFaceSlots), 0);
    std::vector<char> corner(sz(numVertexSlots), 0), grown(sz(numVertexSlots), 0);
    const auto faceAlive = [&](int f) { return f >= 0 && mesh.isAlive(TopoMeshFace(&mesh, f)); };
    for (const TopoMeshEntity& x : region)
    {
        if (x.getMesh() != &mesh)
            continue;
        if (x.isFace() && mesh.isAlive(x.asFace()))
            refined[sz(x.getIndex())] = 1;
        else if (x.isEdge() && mesh.isAlive(x.asEdge()))
        {
            const HalfEdge& h = E[x.getIndex()];
            refined[sz(h.face)] = 1;
            if (h.twin >= 0)
                refined[sz(E[h.twin].face)] = 1;
        }
        else if (x.isVertex() && mesh.isAlive(x.asVertex()))
        {
            for (TopoMeshEdgeVertexIterator it(x.asVertex()); it.valid(); it.next())
                if (it.edge().vertex() == x.asVertex())
                    refined[sz(it.edge().face().getIndex())] = 1;
        }
    }
    // Corners of the refined faces, grown by their neighbours; the faces around those.
    for (int f = 0; f < numFaceSlots; ++f)
    {
        if (!refined[sz(f)] || !faceAlive(f))
            continue;
        const int first = mesh.getFaceEdge(f);
        int h = first;
        do
        {
            corner[sz(E[h].vertex)] = 1;
            h = E[h].next;
        } while (h != first);
    }
    for (int v = 0; v < numVertexSlots; ++v)
    {
        if (!corner[sz(v)])
            continue;
        grown[sz(v)] = 1;
        for (TopoMeshEdgeVertexIterator it(TopoMeshVertex(&mesh, v)); it.valid(); it.next())
            grown[sz(it.otherVertex().getIndex())] = 1;
    }
    for (int v = 0; v < numVertexSlots; ++v)
    {
        if (!grown[sz(v)])
            continue;
        for (TopoMeshEdgeVertexIterator it(TopoMeshVertex(&mesh, v)); it.valid(); it.next())
            if (it.edge().vertex().getIndex() == v)
                inCopy[sz(it.edge().face().getIndex())] = 1;
    }
    // The vertices of the copied faces (the second growth), numbered in slot order.
    std::vector<int> copyIndex(sz(numVertexSlots), -1);
    for (int f = 0; f < numFaceSlots; ++f)
    {
        if (!inCopy[sz(f)])
            continue;
        const int first = mesh.getFaceEdge(f);
        int h = first;
        do
        {
            copyIndex[sz(E[h].vertex)] = 0;
            h = E[h].next;
        } while (h != first);
    }
    auto copy = std::make_unique<TopoMesh>();
    track.vertex.clear();
    for (int v = 0; v < numVertexSlots; ++v)
        if (copyIndex[sz(v)] == 0)
        {
            copyIndex[sz(v)] = copy->allocVertex(mesh.getPoint(v)).getIndex();
            track.vertex.push_back(v);
        }
    track.face.clear();
    track.edge.clear();
    refine.clear();
    std::vector<int> corners;
    for (int f = 0; f < numFaceSlots; ++f)
    {
        if (!inCopy[sz(f)])
            continue;
        corners.clear();
        const int first = mesh.getFaceEdge(f);
        int h = first;
        do
        {
            corners.push_back(copyIndex[sz(E[h].vertex)]);
            track.edge.push_back(h); // the copy's half-edges are consecutive, in this order
            h = E[h].next;
        } while (h != first);
        copy->allocFace(int(corners.size()), corners.data());
        track.face.push_back(f);
        refine.push_back(refined[sz(f)]);
    }
    copy->meshTwin();
    return copy;
}

TopoMesh* partial(qy::unordered_set<TopoMeshEntity>& region, int levels,
                  qy::map<TopoMeshFace, TopoMeshFace>* faces,
                  qy::map<TopoMeshEdge, TopoMeshEdge>* edges,
                  qy::map<TopoMeshVertex, TopoMeshVertex>* vertices)
{
    debugChannel().print("computePartialSubdivMesh: %d entities, %d levels\n", int(region.size()),
                         levels);
    if (levels <= 0)
        return nullptr;
    qyOS::StopWatch watch;
    watch.start();
    std::vector<char> refine;
    Origins track;
    TopoMesh* input = nullptr;
    std::unique_ptr<TopoMesh> copy = copyRegion(region, refine, track, input);
    if (!copy)
        return nullptr;
    debugChannel().print("  copied %d of %d faces: %f s\n", copy->getNumFaces(),
                         input->getNumFaces(), watch.clear());
    const TopoMesh& start = *copy;
    std::unique_ptr<TopoMesh> result = runLevels(start, std::move(copy), std::move(refine), levels,
                                                 faces ? &track : nullptr, "refined");
    if (faces)
        fillMaps(*result, *input, track, *faces, *edges, *vertices);
    return result.release();
}

} // namespace

TopoMesh* computeSubdivMesh(TopoMesh& mesh, int levels)
{
    printHeader("computeSubdivMesh", mesh, levels);
    if (levels <= 0)
        return nullptr;
    return runLevels(mesh, nullptr, {}, levels, nullptr, "subdivided").release();
}

TopoMesh* computeSubdivMesh(TopoMesh& mesh, int levels, qy::map<TopoMeshFace, TopoMeshFace>& faces,
                            qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
                            qy::map<TopoMeshVertex, TopoMeshVertex>& vertices)
{
    printHeader("computeSubdivMesh", mesh, levels);
    faces.clear();
    edges.clear();
    vertices.clear();
    if (levels <= 0)
        return nullptr;
    ClearOnUnwind guard(faces, edges, vertices);
    Origins track = identityOrigins(mesh);
    std::unique_ptr<TopoMesh> result = runLevels(mesh, nullptr, {}, levels, &track, "subdivided");
    fillMaps(*result, mesh, track, faces, edges, vertices);
    guard.done();
    return result.release();
}

namespace
{

void inPlace(TopoMesh& mesh, int levels, qy::map<TopoMeshFace, TopoMeshFace>* faces,
             qy::map<TopoMeshEdge, TopoMeshEdge>* edges)
{
    qyOS::StopWatch watch;
    watch.start();
    LevelPoints pts;
    std::vector<int> splitEdges, oldFaces, oldVertices, edgePoints;
    std::vector<char> isEdgePoint;
    for (int level = 1; level <= levels && mesh.getNumFaces() > 0; ++level)
    {
        computeLevelPoints(mesh, nullptr, pts);
        splitEdges.clear();
        oldFaces.clear();
        oldVertices.clear();
        edgePoints.clear();
        const HalfEdge* E = mesh.getHalfEdges();
        for (int e = 0; e < mesh.getEdgeCapacity(); ++e)
            if (E[e].vertex >= 0 && (E[e].twin < 0 || E[e].twin > e))
                splitEdges.push_back(e);
        for (int f = 0; f < mesh.getFaceCapacity(); ++f)
            if (mesh.getFaceEdge(f) >= 0)
                oldFaces.push_back(f);
        for (int v = 0; v < mesh.getVertexCapacity(); ++v)
            if (mesh.getVertexEdge(v) >= -1)
                oldVertices.push_back(v);

        // Edge points. e keeps its vertex and now ends at the new vertex w; the half-edge
        // after e (w -> old end) lies on the same old edge, and likewise on the twin's side.
        for (const int e : splitEdges)
        {
            const TopoMeshEdge h(&mesh, e);
            const TopoMeshEdge t = h.twin();
            const TopoMeshVertex w = mesh.subdivideEdge(h, pts.edge[sz(e)]);
            edgePoints.push_back(w.getIndex());
            if (edges)
            {
                if (auto it = edges->find(h); it != edges->end())
                    (*edges)[h.next()] = it->second;
                if (t)
                    if (auto it = edges->find(t); it != edges->end())
                        (*edges)[t.next()] = it->second;
            }
        }
        // Vertex points, from the positions before any split.
        for (const int v : oldVertices)
            mesh.setPoint(v, pts.vertex[sz(v)]);
        // Face points: every face now alternates old vertices and edge points; joining the
        // face point to every other corner, from an edge point, makes one quad per old corner.
        isEdgePoint.assign(sz(mesh.getVertexCapacity()), 0);
        for (const int w : edgePoints)
            isEdgePoint[sz(w)] = 1;
        for (const int f : oldFaces)
        {
            const TopoMeshFace face(&mesh, f);
            TopoMeshEdge first = face.edge();
            if (!isEdgePoint[sz(first.vertex().getIndex())])
                first = first.next();
            const TopoMeshVertex centre = mesh.subdivideFace(face, pts.face[sz(f)], first, 2);
            if (faces && centre)
            {
                const TopoMeshFace origin = faces->at(face);
                for (TopoMeshEdgeVertexIterator it(centre); it.valid(); it.next())
                    (*faces)[it.edge().face()] = origin;
            }
        }
        debugChannel().print("  subdivided level %d (%d faces): %f s\n", level, mesh.getNumFaces(),
                             watch.clear());
    }
}

} // namespace

void computeSubdivMeshInPlace(TopoMesh& mesh, int levels)
{
    printHeader("computeSubdivMeshInPlace", mesh, levels);
    if (levels <= 0 || mesh.getNumFaces() == 0)
        return;
    inPlace(mesh, levels, nullptr, nullptr);
    mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
}

void computeSubdivMeshInPlace(TopoMesh& mesh, int levels,
                              qy::map<TopoMeshFace, TopoMeshFace>& faces,
                              qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
                              qy::unordered_set<TopoMeshVertex>& vertices)
{
    printHeader("computeSubdivMeshInPlace", mesh, levels);
    faces.clear();
    edges.clear();
    vertices.clear();
    for (TopoMeshFace f = mesh.firstFace(); f; f = f.nextInList())
        faces.emplace_hint(faces.end(), f, f);
    for (TopoMeshEdge e = mesh.firstEdge(); e; e = e.nextInList())
        edges.emplace_hint(edges.end(), e, e);
    for (TopoMeshVertex v = mesh.firstVertex(); v; v = v.nextInList())
        vertices.insert(v);
    if (levels <= 0 || mesh.getNumFaces() == 0)
        return;
    inPlace(mesh, levels, &faces, &edges);
    mesh.modified(TopoMeshModification(mesh, TopoMeshModification::TopologyChanged));
}

TopoMesh* computePartialSubdivMesh(qy::unordered_set<TopoMeshEntity>& region, int levels)
{
    return partial(region, levels, nullptr, nullptr, nullptr);
}

TopoMesh* computePartialSubdivMesh(qy::unordered_set<TopoMeshEntity>& region, int levels,
                                   qy::map<TopoMeshFace, TopoMeshFace>& faces,
                                   qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
                                   qy::map<TopoMeshVertex, TopoMeshVertex>& vertices)
{
    faces.clear();
    edges.clear();
    vertices.clear();
    ClearOnUnwind guard(faces, edges, vertices);
    TopoMesh* result = partial(region, levels, &faces, &edges, &vertices);
    guard.done();
    return result;
}

void computeSubdivMeshNormals(const TopoMesh& mesh,
                              qy::map<TopoMeshVertex, qyLinear::Normal>& normals)
{
    debugChannel().print("computeSubdivMeshNormals: %d vertices, %d faces\n", mesh.getNumVertices(),
                         mesh.getNumFaces());
    normals.clear();
    const HalfEdge* E = mesh.getHalfEdges();
    const Point* P = mesh.getPoints();
    std::vector<Vector> sums(sz(mesh.getVertexCapacity()));
    for (int e = 0, n = mesh.getEdgeCapacity(); e < n; ++e)
    {
        const HalfEdge& h = E[e];
        if (h.vertex < 0)
            continue;
        const Point& v = P[h.vertex];
        sums[sz(h.vertex)] += qyLinear::cross(P[E[h.next].vertex] - v, P[E[h.prev].vertex] - v);
    }
    // Handles name a mesh that callers may edit; reading through them changes nothing here.
    TopoMesh* handleMesh = const_cast<TopoMesh*>(&mesh);
    for (int v = 0, n = mesh.getVertexCapacity(); v < n; ++v)
        if (mesh.getVertexEdge(v) >= -1)
            normals.emplace_hint(normals.end(), TopoMeshVertex(handleMesh, v), Normal(sums[sz(v)]));
}

} // namespace qyGeom
