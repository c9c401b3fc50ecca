// Undirected edges and the topology summary of a triangle mesh.
#include "qyGeom/meshTopology.h"

#include <algorithm>
#include <numeric>
#include <utility>

#include "base/StopWatch.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/debugChannel.h"

namespace qyGeom
{

namespace
{

std::uint64_t edgeKey(int a, int b)
{
    if (a > b)
        std::swap(a, b);
    return (std::uint64_t(std::uint32_t(a)) << 32) | std::uint64_t(std::uint32_t(b));
}

bool inRange(const int* t, int numVertices)
{
    return unsigned(t[0]) < unsigned(numVertices) && unsigned(t[1]) < unsigned(numVertices) &&
           unsigned(t[2]) < unsigned(numVertices);
}

bool proper(const int* t, int numVertices)
{
    return inRange(t, numVertices) && t[0] != t[1] && t[1] != t[2] && t[2] != t[0];
}

// Union-find over vertices; the smaller root wins, so the classes do not depend on the order
// of the unions.
int findRoot(std::vector<int>& parent, int x)
{
    while (parent[std::size_t(x)] != x)
    {
        parent[std::size_t(x)] = parent[std::size_t(parent[std::size_t(x)])];
        x = parent[std::size_t(x)];
    }
    return x;
}

} // namespace

int MeshEdges::find(int a, int b) const
{
    const std::uint64_t k = edgeKey(a, b);
    const auto it = std::lower_bound(m_keys.begin(), m_keys.end(), k);
    return it != m_keys.end() && *it == k ? int(it - m_keys.begin()) : -1;
}

namespace
{

/// Collects (edge key, half-edge) pairs from faces given by their corner ranges: face f has the
/// corners [start(f), start(f + 1)). A face with a corner outside the vertex array gives none,
/// and neither does a half-edge whose two ends are the same vertex.
template <class Start>
void collectHalfEdges(int numVertices, int numFaces, Start start, const int* corners,
                      std::vector<std::pair<std::uint64_t, int>>& items)
{
    for (int f = 0; f < numFaces; ++f)
    {
        const int b = start(f), e = start(f + 1);
        bool valid = true;
        for (int c = b; c < e && valid; ++c)
            valid = unsigned(corners[c]) < unsigned(numVertices);
        if (!valid)
            continue;
        for (int c = b; c < e; ++c)
        {
            const int v0 = corners[c], v1 = corners[c + 1 < e ? c + 1 : b];
            if (v0 != v1)
                items.emplace_back(edgeKey(v0, v1), c);
        }
    }
}

} // namespace

/// Builds MeshEdges from (edge key, half-edge) pairs; a friend of the class.
struct MeshEdgesBuilder
{
    static void build(std::vector<std::pair<std::uint64_t, int>>& items, std::size_t numHalfEdges,
                      MeshEdges& out);
};

/// Fills `out` from the (key, half-edge) pairs of numHalfEdges half-edges.
void MeshEdgesBuilder::build(std::vector<std::pair<std::uint64_t, int>>& items,
                             std::size_t numHalfEdges, MeshEdges& out)
{
    // Sorting the pairs gives the edges in key order and each edge's uses in increasing
    // order at once.
    std::sort(items.begin(), items.end());
    MeshEdges edges;
    edges.m_edgeOf.assign(numHalfEdges, -1);
    edges.m_uses.resize(items.size());
    for (std::size_t i = 0; i < items.size(); ++i)
    {
        if (i == 0 || items[i].first != items[i - 1].first)
        {
            edges.m_keys.push_back(items[i].first);
            edges.m_start.push_back(int(i));
        }
        edges.m_uses[i] = items[i].second;
        edges.m_edgeOf[std::size_t(items[i].second)] = int(edges.m_keys.size()) - 1;
    }
    edges.m_start.push_back(int(items.size()));
    for (int e = 0; e < edges.size(); ++e)
    {
        edges.m_numBoundary += edges.numUses(e) == 1;
        edges.m_numNonManifold += edges.numUses(e) > 2;
    }
    std::swap(out.m_keys, edges.m_keys);
    std::swap(out.m_start, edges.m_start);
    std::swap(out.m_uses, edges.m_uses);
    std::swap(out.m_edgeOf, edges.m_edgeOf);
    out.m_numBoundary = edges.m_numBoundary;
    out.m_numNonManifold = edges.m_numNonManifold;
}

void meshEdges(const CompactMesh& mesh, MeshEdges& out)
{
    qyOS::StopWatch watch;
    watch.start();
    const int numVertices = mesh.getNumVertices(), numTris = mesh.getNumTriangles();
    std::vector<std::pair<std::uint64_t, int>> items;
    items.reserve(3 * std::size_t(numTris));
    collectHalfEdges(
        numVertices, numTris, [](int t) { return 3 * t; }, mesh.getTrianglesRaw(), items);
    MeshEdgesBuilder::build(items, 3 * std::size_t(numTris), out);
    debugChannel().print("meshEdges: %d vertices, %d triangles, %d edges: %f s\n", numVertices,
                         numTris, out.size(), watch.stop());
}

void polygonEdges(int numVertices, int numFaces, const int* faceStart, const int* corners,
                  MeshEdges& out)
{
    std::vector<std::pair<std::uint64_t, int>> items;
    const std::size_t numCorners = numFaces > 0 ? std::size_t(faceStart[numFaces]) : 0;
    items.reserve(numCorners);
    collectHalfEdges(
        numVertices, numFaces, [faceStart](int f) { return faceStart[f]; }, corners, items);
    MeshEdgesBuilder::build(items, numCorners, out);
}

long long MeshTopology::genus() const
{
    long long sum = 0;
    for (const Piece& p : pieces)
    {
        if (p.genus < 0)
            return -1;
        sum += p.genus;
    }
    return sum;
}

void meshTopology(const CompactMesh& mesh, const MeshEdges& edges, const MeshBoundaries& boundaries,
                  MeshTopology& out)
{
    const int numVertices = mesh.getNumVertices(), numTris = mesh.getNumTriangles();
    const int* tris = mesh.getTrianglesRaw();
    MeshTopology topo;
    topo.vertices = numVertices;
    topo.triangles = numTris;

    // Pieces: vertices joined through proper triangles, numbered by their lowest triangle.
    std::vector<int> parent(static_cast<std::size_t>(numVertices));
    std::iota(parent.begin(), parent.end(), 0);
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        if (!inRange(c, numVertices))
        {
            ++topo.invalidTriangles;
            continue;
        }
        if (!proper(c, numVertices))
        {
            ++topo.degenerateTriangles;
            continue;
        }
        for (int k = 1; k < 3; ++k)
        {
            const int a = findRoot(parent, c[0]), b = findRoot(parent, c[k]);
            if (a != b)
                parent[std::size_t(std::max(a, b))] = std::min(a, b);
        }
    }
    std::vector<int> pieceOfRoot(static_cast<std::size_t>(numVertices), -1);
    topo.trianglePiece.assign(std::size_t(numTris), -1);
    topo.vertexPiece.assign(std::size_t(numVertices), -1);
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        if (!proper(c, numVertices))
            continue;
        int& piece = pieceOfRoot[std::size_t(findRoot(parent, c[0]))];
        if (piece < 0)
        {
            piece = int(topo.pieces.size());
            topo.pieces.emplace_back();
        }
        topo.trianglePiece[std::size_t(t)] = piece;
        ++topo.pieces[std::size_t(piece)].triangles;
        for (int k = 0; k < 3; ++k)
            topo.vertexPiece[std::size_t(c[k])] = piece;
    }
    for (int v = 0; v < numVertices; ++v)
    {
        const int piece = topo.vertexPiece[std::size_t(v)];
        if (piece >= 0)
            ++topo.pieces[std::size_t(piece)].vertices;
    }

    // Edges of proper triangles: a use by a degenerate triangle does not count.
    for (int e = 0; e < edges.size(); ++e)
    {
        int uses = 0;
        for (int i = 0; i < edges.numUses(e); ++i)
            uses += topo.trianglePiece[std::size_t(edges.uses(e)[i] / 3)] >= 0;
        if (uses == 0)
            continue;
        MeshTopology::Piece& p =
            topo.pieces[std::size_t(topo.vertexPiece[std::size_t(edges.vertex0(e))])];
        ++p.edges;
        p.boundaryEdges += uses == 1;
        p.nonManifoldEdges += uses > 2;
    }
    for (int b = 0; b < boundaries.size(); ++b)
    {
        ++topo.boundaryLoops;
        const int first = boundaries.getLength(b) > 0 ? *boundaries.getStart(b) : -1;
        const int piece =
            first >= 0 && first < numVertices ? topo.vertexPiece[std::size_t(first)] : -1;
        if (piece >= 0)
            ++topo.pieces[std::size_t(piece)].boundaryLoops;
    }

    for (MeshTopology::Piece& p : topo.pieces)
    {
        p.euler = p.vertices - p.edges + p.triangles;
        const long long twice = 2 - p.euler - p.boundaryLoops;
        p.genus = p.nonManifoldEdges == 0 && twice >= 0 && twice % 2 == 0 ? twice / 2 : -1;
        topo.referencedVertices += p.vertices;
        topo.edges += p.edges;
        topo.boundaryEdges += p.boundaryEdges;
        topo.nonManifoldEdges += p.nonManifoldEdges;
        topo.euler += p.euler;
    }
    topo.unreferencedVertices = numVertices - topo.referencedVertices;
    out = std::move(topo);
}

} // namespace qyGeom
