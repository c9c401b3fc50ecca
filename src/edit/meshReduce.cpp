// Mesh reduction by vertex removal.
//
// Follows the vertex-removal scheme of Schroeder, Zarge and Lorensen, "Decimation of triangle
// meshes" (SIGGRAPH 1992): a vertex goes when its fan is flat enough, and its hole is
// re-triangulated. Here the hole is closed inside a half-edge edit region by swapping the
// vertex's spokes away until it has three, deleting it, and then improving the new edges by
// Delaunay-style swaps (Lawson's flip algorithm restricted to the hole). Vertices are taken in
// passes over independent sets (no two candidates adjacent), so that every removal touches
// only its own one-ring and a whole batch shares one edit region.
#include "qyGeom/meshReduce.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <limits>
#include <memory>
#include <vector>

#include "base/Progress.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/ArrayOfSets.h"
#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshCoordBase.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "model/Remap.h"
#include "model/TopoMesh.h"
#include "model/debugChannel.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshClosestPoint.h"
#include "qyGeom/MeshConvertRep.h"
#include "qyGeom/MeshEdgeSwapper.h"
#include "qyGeom/MeshSelect.h"
#include "qyGeom/fit.h"

namespace qyGeom
{
namespace
{

using qyLinear::Point;

/// Batches hold this many candidates, except that a remainder of up to wholeRemainder is
/// taken at once rather than leaving a small last batch.
constexpr int batchSize = 65536;
constexpr int wholeRemainder = 98304;
/// Passes of angle-sum swaps over the new edges of a hole.
constexpr int improvementPasses = 10;
/// Depth argument for the vertex octree that the closest-point searches run over.
constexpr int octreeDepth = 64;

/// The reduction engine: passes of flatness, ordering, independent-set selection and batch
/// removal; the subclasses decide when to stop and which removals to accept.
class MeshReduceBase
{
public:
    explicit MeshReduceBase(CompactMesh& mesh)
        : m_mesh(&mesh), m_startCount(mesh.getNumVertices()),
          m_flatness(std::make_unique<double[]>(std::size_t(std::max(m_startCount, 0))))
    {
    }
    virtual ~MeshReduceBase() = default;
    MeshReduceBase(const MeshReduceBase&) = delete;
    MeshReduceBase& operator=(const MeshReduceBase&) = delete;

    /// Asked after every successful removal; false ends the batch.
    virtual bool keepRemoving() { return true; }
    virtual void beginPass(int /*pass*/, int /*candidates*/, qyUtil::Progress& /*progress*/) {}
    virtual void endPass() {}
    virtual void beginBatch(int /*batchCandidates*/, int /*passCandidates*/) {}
    virtual void endBatch() {}
    virtual bool wantMoreVertices(int vertexCount) = 0;
    /// `triangles` holds the hole's new triangles, three points each.
    virtual bool acceptRemoval(int /*vertex*/, const std::vector<Point>& /*triangles*/)
    {
        return true;
    }
    virtual bool mayRemove(int /*vertex*/) { return true; }
    virtual void beforeMerge() {}
    virtual void afterMerge(const Remap& /*vertexRemap*/) {}

    /// Runs the passes (until no candidate, cancellation, a pass below 1 % or the target).
    void reduce(qyUtil::Progress& progress);
    /// Appends the removed positions, in removal order.
    void appendRemoved(qy::vector<Point>& out) const
    {
        out.reserve(out.size() + m_removed.size());
        out.insert(out.end(), m_removed.begin(), m_removed.end());
    }
    int getNumPasses() const { return m_pass; }

protected:
    CompactMesh* m_mesh;
    SimpleMeshCache m_cache;
    int m_startCount;
    std::unique_ptr<double[]> m_flatness; ///< one per starting vertex
    std::deque<Point> m_removed;
    int m_pass = 0;
    std::unique_ptr<MeshModifyRep> m_region; ///< the edit region while a batch runs
    /// False for an engine whose acceptRemoval accepts every removal without reading the
    /// hole's triangles: they are then not gathered.
    bool m_readsHoles = true;

private:
    void computeFlatness();
    void sortByFlatness(std::vector<int>& order);
    void selectCandidates(const std::vector<int>& order, std::vector<int>& candidates);
    int runPass(std::vector<int>& candidates, qyUtil::Progress& progress);
    int removeBatch(BitVector& batch, Remap& vertexRemap, bool& merged);
    bool removeOne(TopoMesh& topo, TopoMeshVertex v, int index);
    const std::vector<Point>& holeTriangles(TopoMeshFace fill);
    static void undoSwaps(TopoMesh& topo, const std::vector<TopoMeshEdge>& swaps);

    // Scratch of the removals, kept across them so that they rarely allocate.
    std::vector<TopoMeshEdge> m_swapsA, m_swapsB;
    /// The corners of an edge's quad: the edge's two ends, then its face's and its twin's
    /// third corners.
    struct Quad
    {
        int a, b, c, d;
        bool operator==(const Quad&) const = default;
    };
    std::vector<Quad> m_refusedQuads; ///< per edge of A, the quad it was last refused with
    std::vector<TopoMeshFace> m_faces;
    std::vector<Point> m_holeTriangles;
    std::vector<int> m_batchVertices;
    TopoMesh m_spareTopo; ///< the last region's TopoMesh, whose arrays the pass's next one reuses
    struct FlatnessKey
    {
        std::uint64_t bits; ///< the flatness's bit pattern
        int vertex;
    };
    std::vector<FlatnessKey> m_keys, m_keysOther; ///< the sort's keys, kept across passes
    std::vector<int> m_histogram;                 ///< the sort's digit counts
    std::vector<Point> m_fans;                    ///< the fans of a group of the flatness loop
};

void MeshReduceBase::reduce(qyUtil::Progress& progress)
{
    qyOS::StopWatch watch;
    watch.start();
    if (wantMoreVertices(m_mesh->getNumVertices()))
    {
        std::vector<int> order, candidates;
        while (!progress.cancelled())
        {
            computeFlatness();
            sortByFlatness(order);
            selectCandidates(order, candidates);
            if (candidates.empty())
                break;
            const int removed = runPass(candidates, progress);
            if (progress.cancelled())
                break;
            const int n = m_mesh->getNumVertices();
            if (removed < 0.01 * n || !wantMoreVertices(n))
                break;
        }
    }
    debugChannel().print("MeshReduce: reduced from %d vertices to %d vertices: %f s\n",
                         m_startCount, m_mesh->getNumVertices(), watch.check());
}

void MeshReduceBase::computeFlatness()
{
    qyOS::StopWatch watch;
    watch.start();
    const int n = m_mesh->getNumVertices();
    const qy::Reference<MeshAdjVertices> adjacency = m_cache.getAdjVertices(*m_mesh);
    const MeshVertex* vertices = m_mesh->getVertices();
    const std::size_t room = std::size_t(adjacency->getMaxValence()) + 1;
    m_fans.resize(8 * room);
    constexpr double never = std::numeric_limits<double>::max();
    // The fan of v, then v: k + 1 points.
    auto gather = [&](int v, int k, Point* fan)
    {
        const int* ring = adjacency->vertexIndices(v);
        for (int i = 0; i < k; ++i)
            fan[i] = vertices[ring[i]].asPoint();
        fan[k] = vertices[v].asPoint();
    };
    auto flatnessOf = [](const Point* fan, int count, const qyLinear::Plane& plane)
    {
        double flatness = 0.0;
        for (int i = 0; i < count; ++i)
            flatness = std::max(flatness, std::fabs(plane.eval(fan[i])));
        // A fan with a coordinate that is not finite is never taken (and keeps the order a
        // strict weak one).
        return std::isfinite(flatness) ? flatness : never;
    };
    // The fans are fitted a group at a time (fitEach interleaves their eigen-solves).
    constexpr int group = 8;
    int members[group], counts[group];
    const Point* groupFans[group];
    qyLinear::Plane planes[group];
    bool fitted[group];
    int size = 0;
    auto fitGroup = [&]
    {
        for (int i = 0; i < size; ++i)
            planes[i] = qyLinear::Plane();
        fitEach(size, counts, groupFans, planes, fitted);
        for (int i = 0; i < size; ++i)
            m_flatness[members[i]] = flatnessOf(groupFans[i], counts[i], planes[i]);
        size = 0;
    };
    for (int v = 0; v < n; ++v)
    {
        const int k = adjacency->numVertices(v);
        if (k < 3)
        {
            m_flatness[v] = never;
            continue;
        }
        Point* fan = m_fans.data() + std::ptrdiff_t(size) * std::ptrdiff_t(room);
        gather(v, k, fan);
        members[size] = v;
        counts[size] = k + 1;
        groupFans[size] = fan;
        if (++size == group)
            fitGroup();
    }
    if (size > 0)
        fitGroup();
    debugChannel().print("MeshReduce: flatness computed in %f s\n", watch.check());
}

void MeshReduceBase::sortByFlatness(std::vector<int>& order)
{
    const int n = m_mesh->getNumVertices();
    // Every flatness is a non-negative double (+0, finite, or the largest finite one), so
    // its bit pattern read as an unsigned integer orders as the value does, and equal values
    // have equal patterns. A least-significant-digit radix sort of the vertices, taken in
    // ascending index order, is stable: it gives ascending flatness with ties in ascending
    // index, the order of the stable merge sort, in a few linear passes and on any pool.
    constexpr int digitBits = 11;
    constexpr int numDigits = (64 + digitBits - 1) / digitBits;
    constexpr int radix = 1 << digitBits;
    m_keys.resize(std::size_t(n));
    m_keysOther.resize(std::size_t(n));
    m_histogram.assign(std::size_t(numDigits) * radix, 0);
    int* histogram = m_histogram.data();
    FlatnessKey* keys = m_keys.data();
    for (int v = 0; v < n; ++v)
    {
        std::uint64_t bits;
        std::memcpy(&bits, &m_flatness[v], sizeof bits);
        keys[v] = {bits, v};
        for (int d = 0; d < numDigits; ++d)
            ++histogram[d * radix + int((bits >> (d * digitBits)) & (radix - 1))];
    }
    FlatnessKey* from = keys;
    FlatnessKey* to = m_keysOther.data();
    for (int d = 0; d < numDigits; ++d)
    {
        int* count = histogram + d * radix;
        const int shift = d * digitBits;
        // A digit that every key shares moves nothing.
        if (n == 0 || count[(from[0].bits >> shift) & (radix - 1)] == n)
            continue;
        int sum = 0;
        for (int i = 0; i < radix; ++i)
        {
            const int c = count[i];
            count[i] = sum;
            sum += c;
        }
        for (int i = 0; i < n; ++i)
            to[count[(from[i].bits >> shift) & (radix - 1)]++] = from[i];
        std::swap(from, to);
    }
    order.resize(std::size_t(n));
    for (int i = 0; i < n; ++i)
        order[std::size_t(i)] = from[i].vertex;
}

void MeshReduceBase::selectCandidates(const std::vector<int>& order, std::vector<int>& candidates)
{
    candidates.clear();
    const int n = m_mesh->getNumVertices();
    const qy::Reference<MeshAdjTris> adjTris = m_cache.getAdjTris(*m_mesh);
    const qy::Reference<MeshAdjVertices> adjVertices = m_cache.getAdjVertices(*m_mesh);
    BitVector blocked(n);
    int running = n;
    for (const int v : order)
    {
        if (blocked.isBitSet(v))
            continue;
        const int k = adjVertices->numVertices(v);
        // A closed fan has as many neighbours as triangles; a boundary vertex has one more.
        if (k < 3 || k != adjTris->numTris(v) || !mayRemove(v))
            continue;
        candidates.push_back(v);
        --running;
        const int* ring = adjVertices->vertexIndices(v);
        for (int i = 0; i < k; ++i)
            blocked.setBit(ring[i]);
        if (!wantMoreVertices(running))
            break;
    }
}

int MeshReduceBase::runPass(std::vector<int>& candidates, qyUtil::Progress& progress)
{
    const int numCandidates = int(candidates.size());
    beginPass(m_pass, numCandidates, progress);
    ++m_pass;
    int total = 0;
    Remap vertexRemap;
    for (int next = 0; next < numCandidates;)
    {
        const int remaining = numCandidates - next;
        const int count = remaining <= wholeRemainder ? remaining : batchSize;
        BitVector batch(m_mesh->getNumVertices());
        for (int i = next; i < next + count; ++i)
            batch.setBit(candidates[std::size_t(i)]);
        next += count;
        beginBatch(count, numCandidates);
        bool merged = false;
        const int removed = removeBatch(batch, vertexRemap, merged);
        endBatch();
        total += removed;
        if (progress.cancelled())
            break;
        if (merged)
            for (int i = next; i < numCandidates; ++i)
                candidates[std::size_t(i)] = vertexRemap(candidates[std::size_t(i)]);
    }
    // The spare region arrays stay for the next pass: its regions are no larger, so they are
    // never allocated (and their pages never faulted in) again.
    endPass();
    return total;
}

int MeshReduceBase::removeBatch(BitVector& batch, Remap& vertexRemap, bool& merged)
{
    for (;;)
    {
        const qy::Reference<MeshAdjTris> adjTris = m_cache.getAdjTris(*m_mesh);
        // The region: the batch and two rings around it, so that every edge between two
        // neighbours of a candidate is in it (a swap must see an existing edge to refuse it).
        m_mesh->clearSelection();
        m_mesh->getSelectedVertices() = batch;
        MeshSelect select(*m_mesh, *adjTris);
        for (int ring = 0; ring < 2; ++ring)
        {
            select.selectAllTrianglesFromVertices();
            select.selectVerticesFromTriangles();
        }
        m_region = std::make_unique<MeshModifyRep>(*m_mesh, *adjTris, std::move(m_spareTopo));
        // The region keeps its own copy of the selection, and the batch ends with the
        // selection clear: clearing it now spares the merge renumbering its bits.
        m_mesh->clearSelection();
        TopoMesh& topo = m_region->getTopoMesh();
        // Most swaps' new diagonals are then proved absent without walking a ring.
        topo.buildNeighbourMasks();

        m_batchVertices.clear();
        for (BitIterator it(batch); it.valid(); it.next())
            m_batchVertices.push_back(it.index());
        const int tried = int(m_batchVertices.size());
        int removed = 0;
        bool stopped = false;
        for (int i = 0; i < tried; ++i)
        {
            const int v = m_batchVertices[std::size_t(i)];
            if (stopped)
            {
                // Not tried: out of the batch, so that it neither counts against the
                // batch's success rate nor looks removed.
                batch.clearBit(v);
                continue;
            }
            if (removeOne(topo, m_region->getTopoMeshVertex(v), v))
            {
                ++removed;
                stopped = !keepRemoving();
            }
            else
                batch.clearBit(v);
        }

        if (!stopped && removed >= 1 && (3 * removed) / 2 < tried)
        {
            // Fewer than two thirds went: the failures may have been caused by neighbours
            // that went in the same region. Start again without them.
            m_spareTopo = m_region->takeTopoMesh();
            m_region.reset();
            m_mesh->clearSelection();
            continue;
        }
        if (removed >= 1)
        {
            beforeMerge();
            m_region->merge(vertexRemap, 0);
            merged = true;
        }
        m_spareTopo = m_region->takeTopoMesh();
        m_region.reset();
        m_mesh->clearSelection();
        if (merged)
            afterMerge(vertexRemap);
        return removed;
    }
}

void MeshReduceBase::undoSwaps(TopoMesh& topo, const std::vector<TopoMeshEdge>& swaps)
{
    for (auto it = swaps.rbegin(); it != swaps.rend(); ++it)
        topo.swapEdge(*it);
}

// Removing v: its spokes are swapped away until three are left, then v and its three
// triangles give way to the one triangle of its three neighbours:
//
//        c                 c                 c
//      / | \    swap     / | \   delete    /   \    spoke v-d becomes a-b, which
//     a--v--b   v-d ->  a--v--b   v  ->   a-----b   leaves v three spokes; deleting
//      \ | /             \   /             \   /    v leaves the triangle (a, b, c)
//        d                 d                 d      over a-b.
//
bool MeshReduceBase::removeOne(TopoMesh& topo, TopoMeshVertex v, int index)
{
    if (!v || !topo.isAlive(v))
        return false;
    m_swapsA.clear();
    m_swapsB.clear();

    // 1. Lower the valence to 3 by swaps that do not fold the surface.
    int valence = v.valence();
    for (TopoMeshEdgeVertexIterator it(v); valence > 3 && it.valid();)
    {
        const TopoMeshEdge spoke = it.edge();
        it.next();
        bool veto = false;
        MeshEdgeSwapper::preventFoldover(spoke, veto);
        if (!veto && topo.swapEdge(spoke))
        {
            --valence;
            m_swapsA.push_back(spoke);
        }
    }
    // Each accepted swap took exactly one spoke away, so the count is v's valence.
    if (valence != 3)
    {
        undoSwaps(topo, m_swapsA);
        return false;
    }

    // 2. Delete it; the hole is one triangle.
    const Point point = v.point();
    m_region->removeVertex(v);
    const TopoMeshFace fill = topo.deleteVertex(v);
    if (!fill)
    {
        v.setTag(index);
        undoSwaps(topo, m_swapsA);
        return false;
    }
    const TopoMeshVertex u0 = fill.edge().vertex();
    const TopoMeshVertex u1 = fill.edge().endVertex();

    // 3. Improve the new edges. A pass that swaps nothing leaves the hole as it was, so every
    //    later pass would swap nothing too: stopping there gives the same hole as all passes.
    //    The criterion depends only on the four corners of an edge's quad, so an edge whose
    //    quad is the one that it was last refused with is refused again without asking.
    m_refusedQuads.assign(m_swapsA.size(), Quad{-1, -1, -1, -1});
    for (int pass = 0; pass < improvementPasses; ++pass)
    {
        const std::size_t before = m_swapsB.size();
        for (std::size_t i = 0; i < m_swapsA.size(); ++i)
        {
            const TopoMeshEdge e = m_swapsA[i];
            const TopoMesh::HalfEdge& h = topo.getHalfEdge(e.getIndex());
            Quad quad{-1, -1, -1, -1};
            if (h.twin >= 0)
            {
                const TopoMesh::HalfEdge& t = topo.getHalfEdge(h.twin);
                quad = {h.vertex, t.vertex, topo.getHalfEdge(h.prev).vertex,
                        topo.getHalfEdge(t.prev).vertex};
                if (quad == m_refusedQuads[i])
                    continue;
            }
            bool veto = false;
            MeshEdgeSwapper::minimizeOppositeAngleSum(e, veto);
            if (veto)
                m_refusedQuads[i] = quad;
            else if (topo.swapEdge(e))
                m_swapsB.push_back(e);
        }
        if (m_swapsB.size() == before)
            break;
    }

    // 4. The triangles that replace the fan go to acceptRemoval, gathered only for an engine
    //    that reads them.
    if (!m_readsHoles || acceptRemoval(index, holeTriangles(fill)))
    {
        m_removed.push_back(point);
        return true;
    }

    // 5. Refused: put everything back as it was.
    undoSwaps(topo, m_swapsB);
    const TopoMeshEdge first = topo.findEdge(u0, u1);
    topo.subdivideFace(first.face(), point);
    undoSwaps(topo, m_swapsA);
    return false;
}

// The corners of the triangles that fill a removed vertex's hole: the fill and the two sides
// of every edge that lowering the valence made, each face once.
const std::vector<Point>& MeshReduceBase::holeTriangles(TopoMeshFace fill)
{
    m_faces.clear();
    m_faces.push_back(fill);
    for (const TopoMeshEdge e : m_swapsA)
        for (const TopoMeshFace f : {e.face(), e.twin().face()})
            if (std::find(m_faces.begin(), m_faces.end(), f) == m_faces.end())
                m_faces.push_back(f);
    m_holeTriangles.clear();
    for (const TopoMeshFace f : m_faces)
    {
        TopoMeshEdge e = f.edge();
        for (int k = 0; k < 3; ++k, e = e.next())
            m_holeTriangles.push_back(e.vertex().point());
    }
    return m_holeTriangles;
}

/// Reduction to a share of the starting vertex count.
class MeshReduceFraction final : public MeshReduceBase
{
public:
    MeshReduceFraction(CompactMesh& mesh, double fraction) : MeshReduceBase(mesh)
    {
        // NaN and 1 or more keep every vertex; the clamp keeps the product inside int.
        const double f = fraction == fraction ? std::clamp(fraction, 0.0, 1.0) : 1.0;
        m_target = int(double(m_startCount) * f);
        m_readsHoles = false;
    }

    bool keepRemoving() override
    {
        const int removed = int(m_removed.size());
        if (removed % 100 != 0 || !m_progress)
            return true;
        if (m_progress->cancelled())
            return false;
        const double done = double(removed) / double(m_startCount - m_target);
        if (done <= 1.0)
            m_progress->set(done);
        return true;
    }
    void beginPass(int, int, qyUtil::Progress& progress) override { m_progress = &progress; }
    void endPass() override { m_progress = nullptr; }
    bool wantMoreVertices(int vertexCount) override { return vertexCount > m_target; }

private:
    int m_target;
    qyUtil::Progress* m_progress = nullptr;
};

/// Finds the nearest triangle of the reduced mesh for each listed removed point, in equal
/// chunks (the first count % chunks one larger); each chunk keeps its largest distance.
class TriangleToVertices final : public qyUtil::ThreadedChunkAlg
{
public:
    /// pairs: 2 ints per queued point; the listed points get (triangle, point index).
    TriangleToVertices(const CompactMesh& mesh, const Octree& octree, const OctreeTris& octreeTris,
                       const std::deque<Point>& points, const std::vector<int>& list,
                       double searchBound, int* pairs, int numChunks)
        : ThreadedChunkAlg(numChunks, 1), m_mesh(mesh), m_octree(octree), m_octreeTris(octreeTris),
          m_points(points), m_list(list), m_bound(searchBound), m_pairs(pairs),
          m_numChunks(numChunks), m_chunkMax(std::size_t(numChunks), 0.0)
    {
    }

    void processChunk(int chunk, int, int) override
    {
        int begin = 0, end = 0;
        qyUtil::ThreadedAlg::evenShare(int(m_list.size()), chunk, m_numChunks, begin, end);
        MeshClosestPoint query(m_mesh, m_octree, m_octreeTris);
        MeshClosestPointResult result;
        double largest = 0.0;
        for (int i = begin; i < end; ++i)
        {
            if ((i - begin) % 1000 == 0 && !poll(chunk, i - begin, end - begin))
                break;
            const int index = m_list[std::size_t(i)];
            const Point& p = m_points[std::size_t(index)];
            // Every point lies within the bound of some triangle, so the bounded search
            // finds the same nearest triangle faster; the full one is the fallback.
            double d = query.compute(p, result, m_bound);
            if (result.triangle < 0)
                d = query.compute(p, result);
            m_pairs[2 * std::ptrdiff_t(index)] = result.triangle;
            m_pairs[2 * std::ptrdiff_t(index) + 1] = index;
            if (result.triangle >= 0)
                largest = std::max(largest, d);
        }
        m_chunkMax[std::size_t(chunk)] = largest;
    }

    double getLargestDistance() const
    {
        return *std::max_element(m_chunkMax.begin(), m_chunkMax.end());
    }

private:
    const CompactMesh& m_mesh;
    const Octree& m_octree;
    const OctreeTris& m_octreeTris;
    const std::deque<Point>& m_points;
    const std::vector<int>& m_list;
    double m_bound;
    int* m_pairs;
    int m_numChunks;
    std::vector<double> m_chunkMax;
};

/// Reduction that keeps every removed vertex within a distance of the result.
class MeshReduceTolerance final : public MeshReduceBase
{
public:
    MeshReduceTolerance(CompactMesh& mesh, double tolerance)
        : MeshReduceBase(mesh), m_tolerance(tolerance)
    {
    }

    double getMaxError() const { return m_maxError; }

    void beginPass(int pass, int candidates, qyUtil::Progress& progress) override
    {
        double share;
        if (pass == 0)
            share = 0.1;
        else if (pass == 1)
        {
            // The passes expected until a pass takes 1 % of the first one's candidates, at the
            // rate of shrinking seen so far.
            const double ratio = double(candidates) / double(std::max(m_previousCandidates, 1));
            const double k =
                ratio > 0.0 && ratio < 1.0 ? std::ceil(std::log(0.01) / std::log(ratio)) : 1.0;
            m_expectedPasses = int(std::clamp(k, 1.0, 1e6));
            share = 0.9 / m_expectedPasses;
        }
        else if (pass < m_expectedPasses)
            share = 0.9 / m_expectedPasses;
        else
            share = m_shareUsed / 2.0;
        progress.subPhase(share, m_passProgress);
        m_shareUsed += share;
        m_previousCandidates = candidates;
    }
    void endPass() override
    {
        m_passProgress.set(1.0);
        char caption[64];
        std::snprintf(caption, sizeof caption, "Reducing (%d verts)", m_mesh->getNumVertices());
        m_passProgress.setCaption(caption);
    }
    void beginBatch(int batchCandidates, int passCandidates) override
    {
        m_passProgress.subPhase(double(batchCandidates) / double(passCandidates), m_batchProgress);
    }
    void endBatch() override { m_batchProgress.set(1.0); }
    bool wantMoreVertices(int) override { return true; }
    bool mayRemove(int vertex) override { return m_tolerance > m_flatness[vertex]; }

    bool acceptRemoval(int vertex, const std::vector<Point>& triangles) override
    {
        if (!covered(m_mesh->getVertices()[vertex].asPoint(), triangles))
            return false;
        if (m_removedByTriangle.getNumSets() == 0)
            return true;
        const qy::Reference<MeshAdjTris> adjTris = m_cache.getAdjTris(*m_mesh);
        const int* fan = adjTris->triIndices(vertex);
        for (int i = 0, n = adjTris->numTris(vertex); i < n; ++i)
        {
            const int t = fan[i];
            if (t >= m_removedByTriangle.getNumSets())
                continue;
            const int* set = m_removedByTriangle.getSet(t);
            for (int j = 0, m = m_removedByTriangle.getSetSize(t); j < m; ++j)
                if (!covered(m_removed[std::size_t(set[j])], triangles))
                    return false;
        }
        return true;
    }

    void beforeMerge() override
    {
        if (m_removedByTriangle.getNumSets() > 0)
        {
            const int* tris = m_mesh->getTrianglesRaw();
            m_savedTriangles.assign(tris, tris + 3 * std::size_t(m_mesh->getNumTriangles()));
        }
    }

    void afterMerge(const Remap& vertexRemap) override;

private:
    bool covered(const Point& p, const std::vector<Point>& triangles) const
    {
        const double tolerance2 = m_tolerance * m_tolerance;
        for (std::size_t i = 0; i + 2 < triangles.size(); i += 3)
            if (MeshCoordBase::squaredDistance(triangles[i], triangles[i + 1], triangles[i + 2],
                                               p) <= tolerance2)
                return true;
        return false;
    }

    double m_tolerance;
    double m_maxError = 0.0;
    ArrayOfSets m_removedByTriangle;
    std::vector<int> m_savedTriangles;
    int m_previousCandidates = 0;
    int m_expectedPasses = 0;
    double m_shareUsed = 0.0;
    qyUtil::Progress m_passProgress;
    qyUtil::Progress m_batchProgress;
};

void MeshReduceTolerance::afterMerge(const Remap& vertexRemap)
{
    const int numPoints = int(m_removed.size());
    const int numTris = m_mesh->getNumTriangles();
    std::vector<int> pairs(2 * std::size_t(numPoints), -1);
    std::vector<char> inherited(std::size_t(numPoints), 0);

    // 1. Triangles that came through the merge unchanged keep their points.
    if (!m_savedTriangles.empty())
    {
        const qy::Reference<MeshAdjTris> adjTris = m_cache.getAdjTris(*m_mesh);
        const int* tris = m_mesh->getTrianglesRaw();
        const int domain = vertexRemap.getDomainSize();
        for (int t = 0; t < m_removedByTriangle.getNumSets(); ++t)
        {
            const int count = m_removedByTriangle.getSetSize(t);
            if (count == 0 || 3 * std::size_t(t) + 2 >= m_savedTriangles.size())
                continue;
            int corner[3];
            bool valid = true;
            for (int k = 0; k < 3 && valid; ++k)
            {
                const int old = m_savedTriangles[3 * std::size_t(t) + std::size_t(k)];
                corner[k] = unsigned(old) < unsigned(domain) ? vertexRemap(old) : -1;
                valid = corner[k] >= 0 && corner[k] < adjTris->getNumVertices();
            }
            if (!valid)
                continue;
            const int* around = adjTris->triIndices(corner[0]);
            int match = -1;
            for (int i = 0, n = adjTris->numTris(corner[0]); i < n && match < 0; ++i)
            {
                const int* c = tris + 3 * std::ptrdiff_t(around[i]);
                if (c[0] == corner[0] && c[1] == corner[1] && c[2] == corner[2])
                    match = around[i];
            }
            if (match < 0)
                continue;
            const int* set = m_removedByTriangle.getSet(t);
            for (int j = 0; j < count; ++j)
            {
                pairs[2 * std::size_t(set[j])] = match;
                pairs[2 * std::size_t(set[j]) + 1] = set[j];
                inherited[std::size_t(set[j])] = 1;
            }
        }
        m_savedTriangles.clear();
        m_savedTriangles.shrink_to_fit();
    }

    // 2. The others search the reduced mesh.
    std::vector<int> search;
    for (int i = 0; i < numPoints; ++i)
        if (!inherited[std::size_t(i)])
            search.push_back(i);
    bool cancelled = false;
    if (!search.empty())
    {
        const qy::Reference<Octree> octree = m_cache.getOctree(*m_mesh, octreeDepth);
        const qy::Reference<OctreeTris> octreeTris = m_cache.getOctreeTris(*m_mesh);
        const int numChunks = std::clamp((int(search.size()) + 1023) / 1024, 1, 64);
        TriangleToVertices job(*m_mesh, *octree, *octreeTris, m_removed, search, m_tolerance,
                               pairs.data(), numChunks);
        job.setProgress(&m_batchProgress);
        qyUtil::ThreadPool::get().run(job);
        cancelled = m_batchProgress.cancelled();
        m_maxError = std::max(m_maxError, job.getLargestDistance());
    }

    // 3. The sets of the new triangles. A cancelled search leaves some points unplaced;
    //    the engine stops after this batch, so the sets are simply dropped.
    if (cancelled)
    {
        m_removedByTriangle = ArrayOfSets();
        return;
    }
    int numPairs = 0;
    for (int i = 0; i < numPoints; ++i)
        if (pairs[2 * std::size_t(i)] >= 0)
        {
            pairs[2 * std::size_t(numPairs)] = pairs[2 * std::size_t(i)];
            pairs[2 * std::size_t(numPairs) + 1] = pairs[2 * std::size_t(i) + 1];
            ++numPairs;
        }
    m_removedByTriangle.assignFromPairs(numTris, numPairs, pairs.data());
}

} // namespace

void meshReduceToFraction(CompactMesh& mesh, double fraction, qyUtil::Progress& progress,
                          qy::vector<qyLinear::Point>& removed)
{
    MeshReduceFraction engine(mesh, fraction);
    engine.reduce(progress);
    engine.appendRemoved(removed);
}

double meshReduceWithTolerance(CompactMesh& mesh, double tolerance, qyUtil::Progress& progress,
                               qy::vector<qyLinear::Point>& removed)
{
    qyOS::StopWatch watch;
    watch.start();
    MeshReduceTolerance engine(mesh, tolerance);
    engine.reduce(progress);
    engine.appendRemoved(removed);
    debugChannel().print("meshReduce: iterations(%d): %f s\n", engine.getNumPasses(),
                         watch.check());
    return engine.getMaxError();
}

} // namespace qyGeom
