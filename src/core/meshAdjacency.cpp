// Adjacency of a mesh's triangles. The builders stream the triangle array in index order and
// scatter what they find into per-vertex buckets (counting sorts), instead of walking each
// vertex's triangles, which lie far apart in memory; and they work inside their output
// arrays where they can, since fresh memory is slow to touch. Large meshes are cut into one
// part per pool thread; each part writes its own ranges, and the parts are laid out in index
// order, so the results are the same with any thread count.
#include "qyGeom/meshAdjacency.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include "base/Memory.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/ArrayOfSets.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/debugChannel.h"

namespace qyGeom
{
namespace
{

// Below this many triangles a pool job costs more than it saves.
constexpr int parallelTriangles = 20000;

// meshTriAdjTris buckets the edges in at least this many batches of smaller vertices, so that
// one thread's bucket buffer holds half the edges and is reused from batch to batch. Each
// batch reads the whole triangle array twice, so with several threads each takes just one.
constexpr int minEdgeBatches = 2;

// Buckets of at most this many entries are sorted by insertion; the edge buckets of ordinary
// meshes hold about six.
constexpr std::ptrdiff_t insertionSortLimit = 24;

inline bool validTriangle(const int* tri, int numVerts)
{
    return unsigned(tri[0]) < unsigned(numVerts) && unsigned(tri[1]) < unsigned(numVerts) &&
           unsigned(tri[2]) < unsigned(numVerts);
}

int numPartsFor(const qyUtil::ThreadPool& pool, int numTris)
{
    return numTris >= parallelTriangles ? std::max(pool.getNumThreads(), 1) : 1;
}

// Runs fn(part) for every part in [0, numParts): on the calling thread for a single part,
// otherwise on the pool, one chunk per part.
template <class Fn> void forEachPart(qyUtil::ThreadPool& pool, int numParts, Fn&& fn)
{
    if (numParts <= 1)
    {
        if (numParts == 1)
            fn(0);
        return;
    }
    qyUtil::runChunks(
        pool, numParts, [&](qyUtil::ThreadedChunkAlg&, int part, int, int) { fn(part); }, nullptr,
        1);
}

// The index where part `part` of numParts begins when [0, n) is split so that every part
// holds about the same share of offsets[n] (offsets non-decreasing, n + 1 entries).
int splitPoint(const int* offsets, int n, int part, int numParts)
{
    if (part <= 0)
        return 0;
    if (part >= numParts)
        return n;
    const long long target = (long long)(offsets[n]) * part / numParts;
    return int(std::lower_bound(offsets, offsets + n, target) - offsets);
}

void evenShare(int total, int part, int numParts, int& begin, int& end)
{
    qyUtil::ThreadedAlg::evenShare(total, part, numParts, begin, end);
}

// Vertex-to-triangle sets by counting sort, filled from the back so that the counts
// themselves become the set starts (no cursor array). With several parts, part 0 counts into
// the offsets and part p > 0 into an array of its own; each then fills its share of the
// triangles backwards from where the parts after it begin in every set.
void buildVertexSets(qyUtil::ThreadPool& pool, const int* tris, int numVerts, int numTris,
                     ArrayOfSets& out)
{
    // Every member of every set is written by the fill below, so the member array is left
    // unset: its pages are first touched by the parts that fill it, not zeroed here.
    ArrayOfSets sets(numVerts, numVerts > 0 ? 3 * numTris : 0, ArrayOfSets::UnsetMembers{});
    if (numVerts == 0)
    {
        out.swap(sets);
        return;
    }
    int* offsets = sets.getOffsets();
    int* members = sets.getMembers();
    const int numParts = numPartsFor(pool, numTris);
    std::vector<std::vector<int>> counts(static_cast<std::size_t>(numParts));
    auto cursorsOf = [&](int part)
    { return part == 0 ? offsets : counts[std::size_t(part)].data(); };
    forEachPart(pool, numParts,
                [&](int p)
                {
                    if (p > 0)
                        counts[std::size_t(p)].assign(std::size_t(numVerts), 0);
                    int* c = cursorsOf(p);
                    int begin, end;
                    evenShare(numTris, p, numParts, begin, end);
                    for (int t = begin; t < end; ++t)
                    {
                        const int* tri = tris + 3 * std::ptrdiff_t(t);
                        if (validTriangle(tri, numVerts))
                        {
                            ++c[tri[0]];
                            ++c[tri[1]];
                            ++c[tri[2]];
                        }
                    }
                });
    int running = 0;
    for (int v = 0; v < numVerts; ++v)
    {
        running += offsets[v];
        offsets[v] = running;
        for (int p = 1; p < numParts; ++p)
        {
            running += counts[std::size_t(p)][std::size_t(v)];
            counts[std::size_t(p)][std::size_t(v)] = running;
        }
    }
    offsets[numVerts] = running;
    forEachPart(pool, numParts,
                [&](int p)
                {
                    int* c = cursorsOf(p);
                    int begin, end;
                    evenShare(numTris, p, numParts, begin, end);
                    for (int t = end - 1; t >= begin; --t)
                    {
                        const int* tri = tris + 3 * std::ptrdiff_t(t);
                        if (validTriangle(tri, numVerts))
                        {
                            members[--c[tri[2]]] = t;
                            members[--c[tri[1]]] = t;
                            members[--c[tri[0]]] = t;
                        }
                    }
                });
    out.swap(sets);
}

// Moves the first occurrence of every vertex of items[0 .. n) other than v to dst, in order,
// and returns how many there are; dst may be items or lie before it. A vertex is marked in
// `stamp` with the bucket's own vertex v, so the array never needs clearing between buckets.
// (Faster than searching the vertices kept so far, even for a valence of six.)
int keepFirst(int v, const int* items, int n, int* dst, int* stamp)
{
    stamp[v] = v;
    int kept = 0;
    // Branch-free: whether a vertex repeats follows no pattern that a branch could learn. The
    // store to dst[kept] is overwritten when u was seen; it never passes the reads (dst lies
    // at or before items, and kept <= i).
    for (int i = 0; i < n; ++i)
    {
        const int u = items[i];
        const int seen = stamp[u];
        stamp[u] = v;
        dst[kept] = u;
        kept += int(seen != v);
    }
    return kept;
}

// An edge entry of meshTriAdjTris: the edge's larger vertex above its id 3t + e, so that the
// entries of one bucket (one smaller vertex) sorted as integers run edge by edge, each edge's
// entries in increasing (t, e) order.
using EdgeEntry = std::uint64_t;

inline EdgeEntry makeEntry(int hi, std::ptrdiff_t id)
{
    return (EdgeEntry(std::uint32_t(hi)) << 32) | EdgeEntry(std::uint32_t(id));
}
inline int entryHi(EdgeEntry e)
{
    return int(std::uint32_t(e >> 32));
}
inline int entryId(EdgeEntry e)
{
    return int(std::uint32_t(e));
}

void sortBucket(EdgeEntry* first, EdgeEntry* last)
{
    if (last - first > insertionSortLimit)
    {
        std::sort(first, last);
        return;
    }
    for (EdgeEntry* p = first + 1; p < last; ++p)
    {
        const EdgeEntry x = *p;
        EdgeEntry* q = p;
        for (; q > first && q[-1] > x; --q)
            *q = q[-1];
        *q = x;
    }
}

// What lies across each edge entry 3t + e ("mate"): -1 nothing (a boundary edge), j >= 0 the
// one other entry of the edge, or -2 - g for an edge of three or more entries, where g is the
// position of the group [k, id_1 .. id_k] of its entries in the group list.
constexpr int noMate = -1;

// Calls fn(u) for every triangle u other than t across edge entry id = 3t + e, in (u, edge)
// order.
template <class Fn> inline void forEachAcross(const int* mate, const int* groups, int id, Fn&& fn)
{
    const int t = id / 3;
    const int m = mate[id];
    if (m >= 0)
    {
        if (m / 3 != t)
            fn(m / 3);
    }
    else if (m != noMate)
    {
        const int* g = groups + (-2 - m);
        for (int k = 1; k <= g[0]; ++k)
            if (g[k] / 3 != t)
                fn(g[k] / 3);
    }
}

// Buckets the edges whose smaller vertex lies in [vBegin, vEnd) and records their mates: one
// pass counts the bucket sizes, a backward pass places the entries (so each bucket keeps
// increasing (t, e) order), and each bucket is sorted by larger vertex and split into edges.
// Groups of three or more entries go to `groups` with mate -2 - (their local position).
// Returns false when there was such a group.
bool matchEdgeBatch(const int* tris, int numVerts, int numTris, int vBegin, int vEnd, int* mate,
                    std::vector<int>& bucket, std::unique_ptr<EdgeEntry[]>& entries,
                    std::ptrdiff_t& entriesSize, std::vector<int>& groups)
{
    const int range = vEnd - vBegin;
    bucket.assign(std::size_t(range) + 1, 0);
    int* end = bucket.data();
    auto forEachEdge = [&](int t, auto&& fn)
    {
        const int* tri = tris + 3 * std::ptrdiff_t(t);
        if (!validTriangle(tri, numVerts))
            return;
        for (int e = 2; e >= 0; --e)
        {
            const int a = tri[e], b = tri[e == 2 ? 0 : e + 1];
            const int lo = std::min(a, b) - vBegin;
            if (unsigned(lo) < unsigned(range))
                fn(lo, std::max(a, b), 3 * std::ptrdiff_t(t) + e);
        }
    };
    for (int t = 0; t < numTris; ++t)
        forEachEdge(t, [end](int lo, int, std::ptrdiff_t) { ++end[lo]; });
    int running = 0;
    for (int i = 0; i < range; ++i)
    {
        running += end[i];
        end[i] = running;
    }
    end[range] = running;
    if (running == 0)
        return true; // no edge starts in this batch (its vertices are unused)
    if (entriesSize < running)
    {
        entries.reset();
        entries = qy::makeBuffer<EdgeEntry>(running);
        entriesSize = running;
    }
    EdgeEntry* e = entries.get();
    for (int t = numTris - 1; t >= 0; --t)
        forEachEdge(t, [end, e](int lo, int hi, std::ptrdiff_t id)
                    { e[--end[lo]] = makeEntry(hi, id); });

    bool manifold = true;
    for (int i = 0; i < range; ++i)
    {
        const int first = end[i], last = end[i + 1];
        sortBucket(e + first, e + last);
        for (int r = first; r < last;)
        {
            const int hi = entryHi(e[r]);
            int q = r + 1;
            while (q < last && entryHi(e[q]) == hi)
                ++q;
            if (q - r == 1)
                mate[entryId(e[r])] = noMate;
            else if (q - r == 2)
            {
                mate[entryId(e[r])] = entryId(e[r + 1]);
                mate[entryId(e[r + 1])] = entryId(e[r]);
            }
            else
            {
                manifold = false;
                const int g = int(groups.size());
                groups.push_back(q - r);
                for (int k = r; k < q; ++k)
                {
                    groups.push_back(entryId(e[k]));
                    mate[entryId(e[k])] = -2 - g;
                }
            }
            r = q;
        }
    }
    return manifold;
}

inline int cornerOf(const MeshTriangle& t, int v)
{
    return t[0] == v ? 0 : t[1] == v ? 1 : t[2] == v ? 2 : -1;
}

inline bool runsEdge(const MeshTriangle& t, int a, int b)
{
    return (t[0] == a && t[1] == b) || (t[1] == a && t[2] == b) || (t[2] == a && t[0] == b);
}

} // namespace

void meshAdjTris(const CompactMesh& mesh, MeshAdjTris& out)
{
    qyOS::StopWatch watch;
    watch.start();
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    ArrayOfSets sets;
    buildVertexSets(qyUtil::ThreadPool::get(), mesh.getTrianglesRaw(), numVerts, numTris, sets);
    MeshAdjTris result(std::move(sets));
    out.swap(result);
    debugChannel().print("MeshAdjTris: %d vertices %d triangles %f\n", numVerts, numTris,
                         watch.stop());
}

void meshAdjVertices(const CompactMesh& mesh, const MeshAdjTris& adjTris, MeshAdjVertices& out)
{
    qyOS::StopWatch watch;
    watch.start();
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    const int* tris = mesh.getTrianglesRaw();
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();

    // Walking the triangles of v in adjTris order reads them far apart in memory, so the walk
    // is made from the triangle array in index order instead: each corner of a valid triangle
    // puts its two other corners, in corner order, into its vertex's region, so region v
    // lists the vertices that the walk around v meets, in the order it meets them. Keeping the
    // first occurrence of each (other than v) gives v's neighbours in first-seen order.
    // Region v holds a count slot and two entries per use of v: it starts at
    // v + 2 * (uses of the vertices before v), read off the sets of adjTris.
    ArrayOfSets ownSets;
    const ArrayOfSets* sets = &adjTris.getSets();
    if (sets->getNumSets() != numVerts) // not built for this mesh: count the uses here
    {
        buildVertexSets(pool, tris, numVerts, numTris, ownSets);
        sets = &ownSets;
    }
    const int* uses = sets->getOffsets();
    auto region = [uses](int v) { return std::ptrdiff_t(v) + 2 * std::ptrdiff_t(uses[v]); };
    const std::ptrdiff_t workSize = numVerts > 0 ? region(numVerts) : 0;
    const std::unique_ptr<int[]> work = qy::makeBuffer<int>(workSize);
    int* w = work.get();

    // Each part takes a range of vertices with about the same number of uses. It fills the
    // regions of its vertices from a pass over all triangles, backwards, so that each
    // region's cursor (kept in `starts`) ends at its first entry; a region never takes more
    // than it has room for, even if the sets do not match the triangles. It then makes its
    // regions unique and packs the records to the front of its range.
    std::vector<int> starts(static_cast<std::size_t>(numVerts));
    int* cursor = starts.data();
    const int numParts = numVerts > 0 ? numPartsFor(pool, numTris) : 0;
    struct Part
    {
        int begin = 0, end = 0;
        std::ptrdiff_t size = 0, base = 0;
        int maxValence = 0;
    };
    std::vector<Part> parts(static_cast<std::size_t>(numParts));
    forEachPart(pool, numParts,
                [&](int p)
                {
                    Part& part = parts[std::size_t(p)];
                    part.begin = splitPoint(uses, numVerts, p, numParts);
                    part.end = splitPoint(uses, numVerts, p + 1, numParts);
                    const int first = part.begin;
                    const unsigned range = unsigned(part.end - part.begin);
                    for (int v = part.begin; v < part.end; ++v)
                        cursor[v] = int(region(v + 1));
                    auto put = [&](int v, int a, int b)
                    {
                        if (unsigned(v - first) >= range)
                            return;
                        const int c = cursor[v] - 2;
                        if (c > region(v))
                        {
                            w[c] = a;
                            w[c + 1] = b;
                            cursor[v] = c;
                        }
                    };
                    for (int t = numTris - 1; t >= 0; --t)
                    {
                        const int* tri = tris + 3 * std::ptrdiff_t(t);
                        if (!validTriangle(tri, numVerts))
                            continue;
                        put(tri[2], tri[0], tri[1]);
                        put(tri[1], tri[0], tri[2]);
                        put(tri[0], tri[1], tri[2]);
                    }

                    std::vector<int> stamp(static_cast<std::size_t>(numVerts), -1);
                    std::ptrdiff_t packed = region(part.begin);
                    for (int v = part.begin; v < part.end; ++v)
                    {
                        const int from = cursor[v];
                        int* record = w + packed;
                        const int kept = keepFirst(v, w + from, int(region(v + 1) - from),
                                                   record + 1, stamp.data());
                        *record = kept;
                        cursor[v] = int(packed);
                        packed += kept + 1;
                        part.maxValence = std::max(part.maxValence, kept);
                    }
                    part.size = packed - region(part.begin);
                });
    // Copy the packed ranges to their places in the joined array.
    std::ptrdiff_t total = 0;
    int maxValence = 0;
    for (Part& part : parts)
    {
        part.base = total;
        total += part.size;
        maxValence = std::max(maxValence, part.maxValence);
    }
    std::vector<int> data(static_cast<std::size_t>(total));
    forEachPart(pool, numParts,
                [&](int p)
                {
                    const Part& part = parts[std::size_t(p)];
                    const std::ptrdiff_t from = region(part.begin);
                    std::memcpy(data.data() + part.base, w + from,
                                sizeof(int) * std::size_t(part.size));
                    const int shift = int(part.base - from);
                    for (int v = part.begin; v < part.end; ++v)
                        cursor[v] += shift;
                });

    MeshAdjVertices result(numVerts, maxValence, std::move(starts), std::move(data));
    out.swap(result);
    debugChannel().print("MeshAdjVertices: %d vertices, %d triangles: %f s\n", numVerts, numTris,
                         watch.stop());
}

void meshTriAdjTris(const CompactMesh& mesh, MeshTriAdjTris& out)
{
    qyOS::StopWatch watch;
    watch.start();
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    const int* tris = mesh.getTrianglesRaw();
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    const int numParts = numPartsFor(pool, numTris);

    // 1. Record what lies across every edge. The member array of the result serves as the
    //    mate array first: it has room for one entry per edge.
    ArrayOfSets sets(numTris, 3 * numTris);
    int* mate = sets.getMembers();
    struct Part
    {
        std::vector<int> groups;
        bool manifold = true;
        int begin = 0, end = 0; // triangles
        int size = 0;
    };
    std::vector<Part> parts(static_cast<std::size_t>(numParts));
    const int numBatches = std::max(numParts, minEdgeBatches);
    forEachPart(pool, numParts,
                [&](int p)
                {
                    Part& part = parts[std::size_t(p)];
                    std::vector<int> bucket;
                    std::unique_ptr<EdgeEntry[]> entries;
                    std::ptrdiff_t entriesSize = 0;
                    for (int b = p; b < numBatches; b += numParts)
                    {
                        int vBegin, vEnd;
                        evenShare(numVerts, b, numBatches, vBegin, vEnd);
                        part.manifold &= matchEdgeBatch(tris, numVerts, numTris, vBegin, vEnd, mate,
                                                        bucket, entries, entriesSize, part.groups);
                    }
                });
    // Gather the groups of all parts into one list and point their mates at it.
    std::vector<int> groups;
    bool manifold = true;
    for (Part& part : parts)
    {
        manifold &= part.manifold;
        const int base = int(groups.size());
        for (std::size_t g = 0; g < part.groups.size(); g += std::size_t(part.groups[g]) + 1)
            for (int k = 1; k <= part.groups[g]; ++k)
                mate[part.groups[g + std::size_t(k)]] = -2 - (base + int(g));
        groups.insert(groups.end(), part.groups.begin(), part.groups.end());
        std::vector<int>().swap(part.groups);
    }

    // 2. Lay the sets out edge by edge. Without edges of three or more triangles each edge adds
    //    at most one neighbour, so each part packs the sets of its triangles in place towards
    //    the front of its range (the writes never pass the reads), and the packed ranges are
    //    then moved together. Otherwise the sets are counted first and written to a new array.
    int* offsets = sets.getOffsets();
    const int* g = groups.data();
    if (manifold)
    {
        forEachPart(pool, numParts,
                    [&](int p)
                    {
                        Part& part = parts[std::size_t(p)];
                        evenShare(numTris, p, numParts, part.begin, part.end);
                        int w = 3 * part.begin;
                        for (int t = part.begin; t < part.end; ++t)
                        {
                            offsets[t] = w;
                            if (!validTriangle(tris + 3 * std::ptrdiff_t(t), numVerts))
                                continue;
                            for (int e = 0; e < 3; ++e)
                                forEachAcross(mate, g, 3 * t + e, [&](int u) { mate[w++] = u; });
                        }
                        part.size = w - 3 * part.begin;
                    });
        int total = 0;
        for (const Part& part : parts)
        {
            const int from = 3 * part.begin;
            if (from != total)
            {
                std::memmove(mate + total, mate + from, sizeof(int) * std::size_t(part.size));
                for (int t = part.begin; t < part.end; ++t)
                    offsets[t] -= from - total;
            }
            total += part.size;
        }
        offsets[numTris] = total;
    }
    else
    {
        forEachPart(pool, numParts,
                    [&](int p)
                    {
                        int begin, end;
                        evenShare(numTris, p, numParts, begin, end);
                        for (int t = begin; t < end; ++t)
                        {
                            int n = 0;
                            if (validTriangle(tris + 3 * std::ptrdiff_t(t), numVerts))
                                for (int e = 0; e < 3; ++e)
                                    forEachAcross(mate, g, 3 * t + e, [&n](int) { ++n; });
                            offsets[t + 1] = n;
                        }
                    });
        offsets[0] = 0;
        for (int t = 0; t < numTris; ++t)
            offsets[t + 1] += offsets[t];
        ArrayOfSets grown(numTris, offsets[numTris]);
        std::copy(offsets, offsets + numTris + 1, grown.getOffsets());
        int* members = grown.getMembers();
        forEachPart(pool, numParts,
                    [&](int p)
                    {
                        int begin, end;
                        evenShare(numTris, p, numParts, begin, end);
                        for (int t = begin; t < end; ++t)
                        {
                            if (!validTriangle(tris + 3 * std::ptrdiff_t(t), numVerts))
                                continue;
                            int* w = members + offsets[t];
                            for (int e = 0; e < 3; ++e)
                                forEachAcross(mate, g, 3 * t + e, [&w](int u) { *w++ = u; });
                        }
                    });
        sets.swap(grown);
    }

    MeshTriAdjTris result(std::move(sets));
    out.swap(result);
    debugChannel().print("MeshTriAdjTris: %d vertices %d triangles %f\n", numVerts, numTris,
                         watch.stop());
}

void sortAdjTris(int v, int n, const int* tris, const MeshTriangle* triangles,
                 std::vector<int>& out)
{
    out.assign(tris, tris + std::max(n, 0));
    for (int i = 0; i + 1 < n; ++i)
    {
        const MeshTriangle& t = triangles[out[std::size_t(i)]];
        const int p = cornerOf(t, v);
        if (p < 0)
            continue;
        const int q = t[p == 0 ? 2 : p - 1];
        for (int j = i + 1; j < n; ++j)
            if (runsEdge(triangles[out[std::size_t(j)]], v, q))
            {
                std::swap(out[std::size_t(i) + 1], out[std::size_t(j)]);
                break;
            }
    }
}

bool getSharedEdgeAdjacentTriangle(const int& tri, int edge, const MeshTriangle* triangles,
                                   const MeshAdjTris& adjTris, int& outTri, int& outEdge)
{
    const int self = tri; // outTri may be the same variable as tri
    const MeshTriangle& t = triangles[self];
    const int a = t[edge], b = t[edge == 2 ? 0 : edge + 1];
    outEdge = -1;
    if (unsigned(a) >= unsigned(adjTris.getNumVertices()))
        return false;
    const int* set = adjTris.triIndices(a);
    for (int i = 0, n = adjTris.numTris(a); i < n; ++i)
    {
        const int u = set[i];
        if (u == self)
            continue;
        const int k = cornerOf(triangles[u], b);
        if (k >= 0)
        {
            outEdge = k;
            outTri = u;
            return true;
        }
    }
    return false;
}

} // namespace qyGeom
