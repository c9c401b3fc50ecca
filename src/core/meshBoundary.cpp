// Boundary loops. One walk serves the whole mesh and a region of it; what differs is where
// a vertex's triangles and counts come from, which a small "region" object supplies.
#include "qyGeom/meshBoundary.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "model/ArrayOfSets.h"
#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshSubset.h"
#include "model/Remap.h"
#include "model/TopoMesh.h"

namespace qyGeom
{
namespace
{

inline bool runsEdge(const MeshTriangle& t, int a, int b)
{
    return (t[0] == a && t[1] == b) || (t[1] == a && t[2] == b) || (t[2] == a && t[0] == b);
}

// The whole mesh: triangles from the mesh's sets, counts from its adjacency. The neighbour
// counts are only read by the walk, so edge searches may leave them out.
struct MeshRegion
{
    const MeshAdjTris& adjTris;
    const MeshAdjVertices* adjVertices;
    int numVerts; // covered by both structures

    MeshRegion(const MeshAdjTris& tris, const MeshAdjVertices* verts)
        : adjTris(tris), adjVertices(verts),
          numVerts(verts ? std::min(tris.getNumVertices(), verts->getNumVertices())
                         : tris.getNumVertices())
    {
    }
    bool contains(int v) const { return unsigned(v) < unsigned(numVerts); }
    int triCount(int v) const { return adjTris.numTris(v); }
    const int* tris(int v) const { return adjTris.triIndices(v); }
    int neighbourCount(int v) const { return adjVertices->numVertices(v); }
};

// A region given by its own vertex-to-triangle sets over a local vertex numbering.
struct SubsetRegion
{
    const ArrayOfSets& sets;
    const Remap& toSubset;
    const int* neighbours; // per region vertex
    int numSubsetVertices;
    int numVerts; // of the mesh

    int local(int v) const
    {
        if (unsigned(v) >= unsigned(std::min(numVerts, toSubset.getDomainSize())))
            return -1;
        const int w = toSubset(v);
        return unsigned(w) < unsigned(numSubsetVertices) ? w : -1;
    }
    bool contains(int v) const { return local(v) >= 0; }
    int triCount(int v) const
    {
        const int w = local(v);
        return w >= 0 ? sets.getSetSize(w) : 0;
    }
    const int* tris(int v) const
    {
        const int w = local(v);
        return w >= 0 ? sets.getSet(w) : nullptr;
    }
    int neighbourCount(int v) const
    {
        const int w = local(v);
        return w >= 0 ? neighbours[w] : 0;
    }
};

// True when some triangle of the region runs a -> b. Such a triangle uses both vertices, so
// the smaller of the two sets is searched.
template <class Region>
bool regionHasEdge(const Region& region, const MeshTriangle* triangles, int a, int b)
{
    if (!region.contains(a) || !region.contains(b))
        return false;
    const int v = region.triCount(a) <= region.triCount(b) ? a : b;
    const int* set = region.tris(v);
    for (int i = 0, n = region.triCount(v); i < n; ++i)
        if (runsEdge(triangles[set[i]], a, b))
            return true;
    return false;
}

template <class Region>
bool regionWalk(const Region& region, const MeshTriangle* triangles, int v, int& next)
{
    if (!region.contains(v))
        return false;
    const int* set = region.tris(v);
    for (int i = 0, n = region.triCount(v); i < n; ++i)
    {
        next = Boundary::findEdge(v, triangles[set[i]]);
        if (region.contains(next) && region.neighbourCount(next) != region.triCount(next) &&
            !regionHasEdge(region, triangles, next, v))
            return true;
    }
    return false;
}

// Marks in `starts` every vertex that precedes open vertex v in one of v's triangles: the only
// vertices whose walk can find a boundary edge into v.
template <class Region>
void markPredecessors(const Region& region, const MeshTriangle* triangles, int v, BitVector& starts)
{
    const int* set = region.tris(v);
    for (int i = 0, n = region.triCount(v); i < n; ++i)
    {
        const MeshTriangle& t = triangles[set[i]];
        for (int k = 0; k < 3; ++k)
            if (const int p = t[k == 0 ? 2 : k - 1];
                t[k] == v && unsigned(p) < unsigned(starts.size()))
                starts.setBit(p);
    }
}

// The loops, walking from each vertex of `starts` in increasing order. A vertex outside
// `starts` has no boundary edge leaving it: a walk from it would add nothing, and a walk that
// reaches it ends there whether or not it was marked, so leaving it out changes no loop.
template <class Region>
void collectLoops(const Region& region, const MeshTriangle* triangles, const BitVector& starts,
                  MeshBoundaries& out)
{
    MeshBoundaries loops;
    BitVector visited(starts.size());
    std::vector<int> loop;
    const BitVector::Word* words = starts.getWords();
    for (int w = 0, numWords = starts.getNumWords(); w < numWords; ++w)
        for (BitVector::Word bits = words[w]; bits != 0; bits &= bits - 1)
        {
            const int s = w * BitVector::bitsPerWord + __builtin_ctz(bits);
            if (visited.isBitSet(s))
                continue;
            visited.setBit(s);
            loop.clear();
            int v = s, next = -1;
            while (regionWalk(region, triangles, v, next))
            {
                loop.push_back(v);
                v = next;
                if (visited.isBitSet(v))
                    break;
                visited.setBit(v);
            }
            if (!loop.empty())
                loops.addLoop(loop.data(), int(loop.size()));
        }
    out.swap(loops);
}

} // namespace

int Boundary::findEdge(int v, const MeshTriangle& t)
{
    return t[0] == v ? t[1] : t[1] == v ? t[2] : t[2] == v ? t[0] : -1;
}

bool Boundary::hasEdge(const CompactMesh& mesh, const MeshAdjTris& adjTris, int a, int b)
{
    return regionHasEdge(MeshRegion{adjTris, nullptr}, mesh.getTriangles(), a, b);
}

bool Boundary::walkBoundary(int v, int& next, const CompactMesh& mesh, const MeshAdjTris& adjTris,
                            const MeshAdjVertices& adjVertices)
{
    return regionWalk(MeshRegion{adjTris, &adjVertices}, mesh.getTriangles(), v, next);
}

void meshComputeBoundary(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                         const MeshAdjVertices& adjVertices, MeshBoundaries& out)
{
    const MeshRegion region{adjTris, &adjVertices};
    const MeshTriangle* triangles = mesh.getTriangles();
    const int numVerts = region.numVerts;
    BitVector starts(numVerts);
    for (int v = 0; v < numVerts; ++v)
        if (region.neighbourCount(v) != region.triCount(v))
            markPredecessors(region, triangles, v, starts);
    collectLoops(region, triangles, starts, out);
}

namespace
{

void subsetBoundary(const CompactMesh& mesh, int numSubsetVertices, const MeshAdjTris& adjTris,
                    const MeshAdjVertices& adjVertices, const ArrayOfSets& subsetAdjTris,
                    const Remap& toSubset, MeshBoundaries& out)
{
    const MeshTriangle* triangles = mesh.getTriangles();
    const int numVerts = mesh.getNumVertices();
    numSubsetVertices = std::max(std::min(numSubsetVertices, subsetAdjTris.getNumSets()), 0);

    // Neighbour counts within the region: a vertex with all its triangles in the region keeps
    // the mesh's count, the others are counted over their region triangles.
    std::vector<int> neighbours(std::size_t(numSubsetVertices), 0);
    std::vector<int> stamp(std::size_t(numVerts), -1);
    const SubsetRegion region{subsetAdjTris, toSubset, neighbours.data(), numSubsetVertices,
                              numVerts};
    for (int v = 0; v < numVerts; ++v)
    {
        const int w = region.local(v);
        if (w < 0)
            continue;
        if (v < adjTris.getNumVertices() && v < adjVertices.getNumVertices() &&
            region.triCount(v) == adjTris.numTris(v))
        {
            neighbours[std::size_t(w)] = adjVertices.numVertices(v);
            continue;
        }
        int count = 0;
        stamp[std::size_t(v)] = v;
        const int* set = region.tris(v);
        for (int i = 0, n = region.triCount(v); i < n; ++i)
            for (int k = 0; k < 3; ++k)
            {
                const int u = triangles[set[i]][k];
                if (stamp[std::size_t(u)] != v)
                {
                    stamp[std::size_t(u)] = v;
                    ++count;
                }
            }
        neighbours[std::size_t(w)] = count;
    }

    BitVector starts(numVerts);
    for (int v = 0; v < numVerts; ++v)
        if (region.contains(v) && region.neighbourCount(v) != region.triCount(v))
            markPredecessors(region, triangles, v, starts);
    collectLoops(region, triangles, starts, out);
}

} // namespace

void meshComputeSubsetBoundary(const CompactMesh& mesh, const MeshSubset& subset,
                               int numSubsetVertices, const MeshAdjTris& adjTris,
                               const MeshAdjVertices& adjVertices, const ArrayOfSets& subsetAdjTris,
                               const Remap& toSubset, MeshBoundaries& out)
{
    if (numSubsetVertices > 0 || subsetAdjTris.getNumSets() > 0 || toSubset.getDomainSize() > 0)
    {
        subsetBoundary(mesh, numSubsetVertices, adjTris, adjVertices, subsetAdjTris, toSubset, out);
        return;
    }
    ArrayOfSets sets;
    Remap remap;
    const int n = meshSubsetAdjTris(mesh, subset, adjTris, sets, remap);
    subsetBoundary(mesh, n, adjTris, adjVertices, sets, remap, out);
}

int meshSubsetAdjTris(const CompactMesh& mesh, const MeshSubset& subset, const MeshAdjTris& adjTris,
                      ArrayOfSets& subsetAdjTris, Remap& toSubset)
{
    const int numVerts = std::min(mesh.getNumVertices(), adjTris.getNumVertices());
    const int numTris = mesh.getNumTriangles();
    BitVector inRegion(numTris);
    for (int i = 0; i < subset.getNumTriangles(); ++i)
        if (unsigned(subset.getTriangles()[i]) < unsigned(numTris))
            inRegion.setBit(subset.getTriangles()[i]);

    auto regionCount = [&](int v)
    {
        int n = 0;
        const int* set = adjTris.triIndices(v);
        for (int i = 0, size = adjTris.numTris(v); i < size; ++i)
            n += inRegion.isBitSet(set[i]) ? 1 : 0;
        return n;
    };
    toSubset.resize(mesh.getNumVertices(), 0);
    int numSubsetVertices = 0, total = 0;
    for (int v = 0; v < numVerts; ++v)
        if (const int n = regionCount(v); n > 0)
        {
            toSubset.set(v, numSubsetVertices++);
            total += n;
        }
    toSubset.setRangeSize(numSubsetVertices);

    ArrayOfSets sets(numSubsetVertices, total);
    int* offsets = sets.getOffsets();
    int* members = sets.getMembers();
    int filled = 0;
    for (int v = 0; v < numVerts; ++v)
    {
        const int w = toSubset(v);
        if (w < 0)
            continue;
        offsets[w] = filled;
        const int* set = adjTris.triIndices(v);
        for (int i = 0, size = adjTris.numTris(v); i < size; ++i)
            if (inRegion.isBitSet(set[i]))
                members[filled++] = set[i];
    }
    if (numSubsetVertices > 0)
        offsets[numSubsetVertices] = filled;
    subsetAdjTris.swap(sets);
    return numSubsetVertices;
}

void meshComputeBoundary(const TopoMesh& mesh, qy::vector<qy::vector<TopoMeshEdge>>& out)
{
    out.clear();
    // Handles name a mutable mesh; nothing below changes it.
    TopoMesh& walked = const_cast<TopoMesh&>(mesh);
    const TopoMesh::HalfEdge* edges = mesh.getHalfEdges();
    const int numSlots = mesh.getEdgeCapacity();
    BitVector taken(numSlots);
    for (int e = 0; e < numSlots; ++e)
    {
        if (edges[e].vertex < 0 || edges[e].twin >= 0 || taken.isBitSet(e))
            continue;
        qy::vector<TopoMeshEdge>& loop = out.emplace_back();
        for (TopoMeshBoundaryIterator it(walked.edge(e)); it.valid(); it.next())
        {
            const int h = it.edge().getIndex();
            if (taken.isBitSet(h))
                break;
            taken.setBit(h);
            loop.push_back(it.edge());
        }
    }
}

} // namespace qyGeom
