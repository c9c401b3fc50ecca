// Cutting a mesh open along edges, and the tree-cotree cut graph that makes it a disk
// (Eppstein 2003, "Dynamic generators of topologically embedded graphs"; Erickson and
// Whittlesey 2005, "Greedy optimal homotopy and homology generators").
#include "qyGeom/cutSurface.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>
#include <queue>
#include <vector>

#include "base/Progress.h"
#include "base/StopWatch.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/debugChannel.h"
#include "qyGeom/meshTopology.h"

namespace qyGeom
{

CutRegion::CutRegion() = default;
CutRegion::~CutRegion() = default;

void CutRegion::addEdge(int a, int b)
{
    edges.push_back(a);
    edges.push_back(b);
}

namespace
{

struct DisjointSets
{
    std::vector<int> parent;
    explicit DisjointSets(std::size_t n) : parent(n) { std::iota(parent.begin(), parent.end(), 0); }
    int find(int x)
    {
        while (parent[std::size_t(x)] != x)
        {
            parent[std::size_t(x)] = parent[std::size_t(parent[std::size_t(x)])];
            x = parent[std::size_t(x)];
        }
        return x;
    }
    bool unite(int a, int b)
    {
        a = find(a);
        b = find(b);
        if (a == b)
            return false;
        // The smaller root wins, so the grouping does not depend on the order of the unions.
        if (a < b)
            parent[std::size_t(b)] = a;
        else
            parent[std::size_t(a)] = b;
        return true;
    }
};

bool validTriangle(const int* t, int numVertices)
{
    for (int k = 0; k < 3; ++k)
        if (t[k] < 0 || t[k] >= numVertices)
            return false;
    return true;
}

qyLinear::Vector faceNormal(const MeshVertex* verts, const int* c)
{
    const qyLinear::Point a = verts[c[0]].asPoint(), b = verts[c[1]].asPoint(),
                          d = verts[c[2]].asPoint();
    const qyLinear::Vector n = qyLinear::cross(b - a, d - a);
    const double len = n.length();
    return len > 0.0 ? n / len : qyLinear::Vector(0, 0, 0);
}

// Most paths added to the cut of one closed component.
constexpr int maxExtremityPaths = 24;
// A protrusion earns a path when h^2 / A (see below) exceeds this. Round caps stay below about
// 0.4 (a flat disk 1 / pi, a hemisphere pi / 8); a tube that runs on beyond its round tip for
// about its radius reaches 0.5, and its far end would shrink to exp(-pi) of its base's scale.
constexpr double protrusionScore = 0.5;
// Without such a protrusion, the farthest vertex earns a path while it is farther from the cut
// than this fraction of the component's bounding-box diagonal.
constexpr double extremityFraction = 0.25;

/// Priority queue of (distance, vertex), nearest first.
using PathHeap = std::priority_queue<std::pair<double, int>, std::vector<std::pair<double, int>>,
                                     std::greater<std::pair<double, int>>>;

/// Shortest paths from the vertices on `heap` (entered at their `dist`): pops the heap empty,
/// lowering `dist` and recording in `parentEdge` the edge each vertex was reached through, over
/// the edges incident to each vertex (`incStart` / `inc`) that `blocked(e)` does not exclude.
template <class Blocked>
void growPaths(const MeshEdges& table, const std::vector<double>& cost,
               const std::vector<int>& incStart, const std::vector<int>& inc, Blocked blocked,
               PathHeap& heap, std::vector<double>& dist, std::vector<int>& parentEdge)
{
    while (!heap.empty())
    {
        const auto [d, v] = heap.top();
        heap.pop();
        if (d > dist[std::size_t(v)])
            continue;
        for (int i = incStart[std::size_t(v)]; i < incStart[std::size_t(v) + 1]; ++i)
        {
            const int e = inc[std::size_t(i)];
            if (blocked(e))
                continue;
            const int w = table.vertex0(e) == v ? table.vertex1(e) : table.vertex0(e);
            const double nd = d + cost[std::size_t(e)];
            if (nd < dist[std::size_t(w)])
            {
                dist[std::size_t(w)] = nd;
                parentEdge[std::size_t(w)] = e;
                heap.emplace(nd, w);
            }
        }
    }
}

// Extends the cut graph `inGraph` of every closed component (root >= 0) by shortest paths to
// its extremities and returns the number of paths added. A conformal flattening of a disk cut
// from a closed surface shrinks exponentially into every protrusion the cut does not reach,
// until single-precision UVs fold or collapse; a cut that runs out to each protrusion's tip
// lets the layout open it up. Each round takes, per component, the tip of the protrusion that
// would shrink most (or the vertex farthest from the cut) and joins it to the cut along its
// shortest path, which meets the cut at its last vertex only: the cut stays a tree hanging on
// the existing cut graph and the component stays one disk. The distances are then updated
// from the new path alone.
int extendToExtremities(const CompactMesh& mesh, const MeshEdges& table,
                        const std::vector<char>& open, const std::vector<double>& cost,
                        const std::vector<int>& incStart, const std::vector<int>& inc,
                        DisjointSets& comps, const std::vector<int>& root,
                        std::vector<char>& inGraph, qyUtil::Progress& progress)
{
    const int numVertices = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    const int numEdges = table.size();
    const int* tris = mesh.getTrianglesRaw();
    const MeshVertex* verts = mesh.getVertices();

    // Component of every edge and vertex of a closed component (-1 elsewhere), and the
    // components' bounding boxes.
    std::vector<int> edgeComp(std::size_t(numEdges), -1), vertComp(std::size_t(numVertices), -1);
    std::vector<int> closed;
    std::vector<double> box(6 * std::size_t(numTris), 0.0);
    std::vector<char> boxSet(std::size_t(numTris), 0);
    std::vector<double> vertArea(std::size_t(numVertices), 0.0);
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        if (!validTriangle(c, numVertices))
            continue;
        const int r = comps.find(t);
        if (root[std::size_t(r)] < 0)
            continue;
        double* b = box.data() + 6 * std::size_t(r);
        if (!boxSet[std::size_t(r)])
        {
            boxSet[std::size_t(r)] = 1;
            closed.push_back(r);
            const qyLinear::Point p = verts[c[0]].asPoint();
            for (int k = 0; k < 3; ++k)
                b[k] = b[k + 3] = p[k];
        }
        const double third = qyLinear::cross(verts[c[1]].asPoint() - verts[c[0]].asPoint(),
                                             verts[c[2]].asPoint() - verts[c[0]].asPoint())
                                 .length() /
                             6.0;
        for (int j = 0; j < 3; ++j)
        {
            vertArea[std::size_t(c[j])] += third;
            if (vertComp[std::size_t(c[j])] < 0)
                vertComp[std::size_t(c[j])] = r;
            const qyLinear::Point p = verts[c[j]].asPoint();
            for (int k = 0; k < 3; ++k)
            {
                b[k] = std::min(b[k], p[k]);
                b[k + 3] = std::max(b[k + 3], p[k]);
            }
        }
    }
    if (closed.empty())
        return 0;
    for (int e = 0; e < numEdges; ++e)
        if (!open[std::size_t(e)])
        {
            const int t = table.uses(e)[0] / 3;
            const int r = comps.find(t);
            if (root[std::size_t(r)] >= 0)
                edgeComp[std::size_t(e)] = r;
        }
    std::vector<double> threshold(std::size_t(numTris), 0.0);
    for (int r : closed)
    {
        const double* b = box.data() + 6 * std::size_t(r);
        const double diagonal =
            std::sqrt((b[3] - b[0]) * (b[3] - b[0]) + (b[4] - b[1]) * (b[4] - b[1]) +
                      (b[5] - b[2]) * (b[5] - b[2]));
        threshold[std::size_t(r)] = extremityFraction * diagonal;
    }

    // Multi-source shortest paths from every vertex on the cut; `grow` takes the new sources
    // and lowers the distances they improve.
    std::vector<double> dist(std::size_t(numVertices), HUGE_VAL);
    std::vector<int> parentEdge(std::size_t(numVertices), -1);
    PathHeap heap;
    std::vector<int> sources;
    auto grow = [&]()
    {
        for (int v : sources)
        {
            dist[std::size_t(v)] = 0.0;
            parentEdge[std::size_t(v)] = -1;
            heap.emplace(0.0, v);
        }
        sources.clear();
        growPaths(
            table, cost, incStart, inc, [&](int e) { return edgeComp[std::size_t(e)] < 0; }, heap,
            dist, parentEdge);
    };
    std::vector<char> onCut(std::size_t(numVertices), 0);
    for (int e = 0; e < numEdges; ++e)
        if (inGraph[std::size_t(e)] && edgeComp[std::size_t(e)] >= 0)
            for (int v : {table.vertex0(e), table.vertex1(e)})
                if (!onCut[std::size_t(v)])
                {
                    onCut[std::size_t(v)] = 1;
                    sources.push_back(v);
                }
    grow();

    // A path is taken only if it stays in its component and ends on that component's cut
    // (a vertex shared with another component could lead elsewhere).
    auto endsOnOwnCut = [&](int v, int r)
    {
        while (parentEdge[std::size_t(v)] >= 0)
        {
            const int e = parentEdge[std::size_t(v)];
            if (edgeComp[std::size_t(e)] != r)
                return false;
            v = table.vertex0(e) == v ? table.vertex1(e) : table.vertex0(e);
        }
        for (int i = incStart[std::size_t(v)]; i < incStart[std::size_t(v) + 1]; ++i)
        {
            const int e = inc[std::size_t(i)];
            if (inGraph[std::size_t(e)] && edgeComp[std::size_t(e)] == r)
                return true;
        }
        return false;
    };

    // How far each local maximum of the distance sticks out: sweeping the vertices from the
    // farthest down, regions grow around their peaks (the local maxima) and merge at saddles,
    // where the lower peak's region joins the older one; a region that reaches the cut is the
    // oldest. At every level a region has a height h (its peak minus the level) and an area A.
    // A tube of radius r and length h has A = 2 pi r h, and a conformal map shrinks along it
    // like exp(-h / r) = exp(-2 pi h^2 / A): the largest h^2 / A a peak's region reaches ranks
    // the protrusions by how much their far end would shrink, whatever their size.
    std::vector<int> order, pos(std::size_t(numVertices), -1),
        peak(static_cast<std::size_t>(numVertices));
    std::vector<double> regionArea(static_cast<std::size_t>(numVertices));
    std::vector<double> bestScore(static_cast<std::size_t>(numTris));
    std::vector<int> far(std::size_t(numTris), -1), best(std::size_t(numTris), -1);
    std::vector<int> added(std::size_t(numTris), 0);
    DisjointSets regions(static_cast<std::size_t>(numVertices));
    auto rankProtrusions = [&]()
    {
        order.clear();
        for (int v = 0; v < numVertices; ++v)
            if (vertComp[std::size_t(v)] >= 0 && dist[std::size_t(v)] != HUGE_VAL)
                order.push_back(v);
        std::sort(order.begin(), order.end(),
                  [&](int a, int b)
                  {
                      return dist[std::size_t(a)] != dist[std::size_t(b)]
                                 ? dist[std::size_t(a)] > dist[std::size_t(b)]
                                 : a < b;
                  });
        for (int v : order)
            pos[std::size_t(v)] = -1;
        std::iota(regions.parent.begin(), regions.parent.end(), 0);
        for (int r : closed)
        {
            far[std::size_t(r)] = best[std::size_t(r)] = -1;
            bestScore[std::size_t(r)] = 0.0;
        }
        for (int i = 0; i < int(order.size()); ++i)
        {
            const int v = order[std::size_t(i)];
            pos[std::size_t(v)] = i;
            peak[std::size_t(v)] = dist[std::size_t(v)] > 0.0 ? v : -1;
            regionArea[std::size_t(v)] = vertArea[std::size_t(v)];
            const int r = vertComp[std::size_t(v)];
            if (far[std::size_t(r)] < 0)
                far[std::size_t(r)] = v;
            for (int k = incStart[std::size_t(v)]; k < incStart[std::size_t(v) + 1]; ++k)
            {
                const int e = inc[std::size_t(k)];
                if (edgeComp[std::size_t(e)] < 0)
                    continue;
                const int w = table.vertex0(e) == v ? table.vertex1(e) : table.vertex0(e);
                if (pos[std::size_t(w)] < 0)
                    continue;
                const int a = regions.find(v), b = regions.find(w);
                if (a == b)
                    continue;
                // A region that reached the cut (its peak -1) is older than any other.
                const int pa = peak[std::size_t(a)], pb = peak[std::size_t(b)];
                const bool aOlder =
                    pb < 0 || (pa >= 0 && pos[std::size_t(pa)] < pos[std::size_t(pb)]);
                const int older = aOlder ? pa : pb;
                const double sum = regionArea[std::size_t(a)] + regionArea[std::size_t(b)];
                regions.unite(a, b);
                const int top = regions.find(a);
                peak[std::size_t(top)] = older;
                regionArea[std::size_t(top)] = sum;
            }
            const int top = regions.find(v), p = peak[std::size_t(top)];
            if (p >= 0)
            {
                const double h = dist[std::size_t(p)] - dist[std::size_t(v)];
                const double area = regionArea[std::size_t(top)];
                const double score = area > 0.0 ? h * h / area : 0.0;
                const int rp = vertComp[std::size_t(p)];
                if (score > bestScore[std::size_t(rp)])
                {
                    bestScore[std::size_t(rp)] = score;
                    best[std::size_t(rp)] = p;
                }
            }
        }
    };
    for (int round = 0; round < maxExtremityPaths && !progress.cancelled(); ++round)
    {
        rankProtrusions();
        for (int r : closed)
        {
            // The protrusion that would shrink most, else the farthest vertex while it is far.
            int v = bestScore[std::size_t(r)] > protrusionScore ? best[std::size_t(r)] : -1;
            if (v < 0 && far[std::size_t(r)] >= 0 &&
                dist[std::size_t(far[std::size_t(r)])] >= threshold[std::size_t(r)])
                v = far[std::size_t(r)];
            if (v < 0 || added[std::size_t(r)] != round || !endsOnOwnCut(v, r))
                continue;
            ++added[std::size_t(r)];
            while (parentEdge[std::size_t(v)] >= 0)
            {
                const int e = parentEdge[std::size_t(v)];
                inGraph[std::size_t(e)] = 1;
                sources.push_back(v);
                v = table.vertex0(e) == v ? table.vertex1(e) : table.vertex0(e);
            }
        }
        if (sources.empty())
            break;
        grow();
    }
    int total = 0;
    for (int r : closed)
        total += added[std::size_t(r)];
    return total;
}

// Chooses the edges of a cut graph and marks them in `cut`. `open` marks the edges that are
// already boundaries of the surface (boundary, non-manifold or cut by the caller).
void chooseDiskCut(const CompactMesh& mesh, const MeshEdges& table, const std::vector<char>& open,
                   std::vector<char>& cut, bool reachExtremities, qyUtil::Progress& progress)
{
    const int numVertices = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    const int numEdges = table.size();
    const int* tris = mesh.getTrianglesRaw();
    const MeshVertex* verts = mesh.getVertices();
    auto triOf = [&](int e, int i) { return table.uses(e)[i] / 3; };

    // Cost: length, lowered where the two triangles fold (a crease hides a seam).
    std::vector<double> cost(static_cast<std::size_t>(numEdges));
    for (int e = 0; e < numEdges; ++e)
    {
        double c = qyLinear::distance(verts[table.vertex0(e)].asPoint(),
                                      verts[table.vertex1(e)].asPoint());
        if (!open[std::size_t(e)])
        {
            const double cosAngle =
                qyLinear::dot(faceNormal(verts, tris + 3 * std::size_t(triOf(e, 0))),
                              faceNormal(verts, tris + 3 * std::size_t(triOf(e, 1))));
            c *= 0.25 + 0.75 * 0.5 * (1.0 + std::clamp(cosAngle, -1.0, 1.0));
        }
        cost[std::size_t(e)] = c;
    }

    // Components of triangles across the edges that are not open.
    DisjointSets comps(static_cast<std::size_t>(numTris));
    for (int e = 0; e < numEdges; ++e)
        if (!open[std::size_t(e)])
            comps.unite(triOf(e, 0), triOf(e, 1));

    // Vertex -> incident edges.
    std::vector<int> incStart(std::size_t(numVertices) + 1, 0), inc(2 * std::size_t(numEdges));
    for (int e = 0; e < numEdges; ++e)
    {
        ++incStart[std::size_t(table.vertex0(e)) + 1];
        ++incStart[std::size_t(table.vertex1(e)) + 1];
    }
    std::partial_sum(incStart.begin(), incStart.end(), incStart.begin());
    {
        std::vector<int> fill(incStart.begin(), incStart.end() - 1);
        for (int e = 0; e < numEdges; ++e)
        {
            inc[std::size_t(fill[std::size_t(table.vertex0(e))]++)] = e;
            inc[std::size_t(fill[std::size_t(table.vertex1(e))]++)] = e;
        }
    }

    // Sources of the shortest-path forest: every vertex on an open edge, and one root per
    // closed component, its vertex farthest from the component's centroid.
    std::vector<char> compOpen(std::size_t(numTris), 0);
    for (int e = 0; e < numEdges; ++e)
        if (open[std::size_t(e)])
            for (int i = 0; i < table.numUses(e); ++i)
                compOpen[std::size_t(comps.find(triOf(e, i)))] = 1;
    std::vector<qyLinear::Vector> centroid(std::size_t(numTris), qyLinear::Vector(0, 0, 0));
    std::vector<int> compCount(std::size_t(numTris), 0);
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        if (!validTriangle(c, numVertices))
            continue;
        const int r = comps.find(t);
        for (int k = 0; k < 3; ++k)
            centroid[std::size_t(r)] += qyLinear::Vector(verts[c[k]].asPoint());
        compCount[std::size_t(r)] += 3;
    }
    std::vector<int> root(std::size_t(numTris), -1);
    std::vector<double> rootDist(std::size_t(numTris), -1.0);
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        const int r = comps.find(t);
        if (compOpen[std::size_t(r)] || !validTriangle(c, numVertices))
            continue;
        const qyLinear::Vector mean = centroid[std::size_t(r)] / double(compCount[std::size_t(r)]);
        const qyLinear::Point centre(mean.x, mean.y, mean.z);
        for (int k = 0; k < 3; ++k)
        {
            const double d = qyLinear::distance(verts[c[k]].asPoint(), centre);
            if (d > rootDist[std::size_t(r)])
            {
                rootDist[std::size_t(r)] = d;
                root[std::size_t(r)] = c[k];
            }
        }
    }

    std::vector<double> dist(std::size_t(numVertices), HUGE_VAL);
    std::vector<int> parentEdge(std::size_t(numVertices), -1);
    PathHeap heap;
    for (int e = 0; e < numEdges; ++e)
        if (open[std::size_t(e)])
            for (int v : {table.vertex0(e), table.vertex1(e)})
                if (dist[std::size_t(v)] != 0.0)
                {
                    dist[std::size_t(v)] = 0.0;
                    heap.emplace(0.0, v);
                }
    for (int t = 0; t < numTris; ++t)
        if (root[std::size_t(t)] >= 0 && dist[std::size_t(root[std::size_t(t)])] != 0.0)
        {
            dist[std::size_t(root[std::size_t(t)])] = 0.0;
            heap.emplace(0.0, root[std::size_t(t)]);
        }
    growPaths(
        table, cost, incStart, inc, [&](int e) { return open[std::size_t(e)] != 0; }, heap, dist,
        parentEdge);
    std::vector<char> inTree(std::size_t(numEdges), 0);
    for (int v = 0; v < numVertices; ++v)
        if (parentEdge[std::size_t(v)] >= 0)
            inTree[std::size_t(parentEdge[std::size_t(v)])] = 1;

    // Spanning tree of the triangles across the other edges, most expensive first; the tree
    // edges are crossed only where nothing else connects.
    std::vector<int> order;
    for (int e = 0; e < numEdges; ++e)
        if (!open[std::size_t(e)] && !inTree[std::size_t(e)])
            order.push_back(e);
    std::stable_sort(order.begin(), order.end(),
                     [&](int a, int b) { return cost[std::size_t(a)] > cost[std::size_t(b)]; });
    for (int e = 0; e < numEdges; ++e)
        if (!open[std::size_t(e)] && inTree[std::size_t(e)])
            order.push_back(e);
    DisjointSets dual(static_cast<std::size_t>(numTris));
    std::vector<char> inGraph(std::size_t(numEdges), 0);
    for (int e : order)
        if (!dual.unite(triOf(e, 0), triOf(e, 1)))
            inGraph[std::size_t(e)] = 1;
    for (int e = 0; e < numEdges; ++e)
        if (open[std::size_t(e)])
            inGraph[std::size_t(e)] = 1;

    // Prune dangling branches; open edges stay.
    std::vector<int> degree(std::size_t(numVertices), 0);
    for (int e = 0; e < numEdges; ++e)
        if (inGraph[std::size_t(e)])
        {
            ++degree[std::size_t(table.vertex0(e))];
            ++degree[std::size_t(table.vertex1(e))];
        }
    std::vector<int> stack;
    for (int v = 0; v < numVertices; ++v)
        if (degree[std::size_t(v)] == 1)
            stack.push_back(v);
    while (!stack.empty())
    {
        const int v = stack.back();
        stack.pop_back();
        if (degree[std::size_t(v)] != 1)
            continue;
        for (int i = incStart[std::size_t(v)]; i < incStart[std::size_t(v) + 1]; ++i)
        {
            const int e = inc[std::size_t(i)];
            if (!inGraph[std::size_t(e)])
                continue;
            if (open[std::size_t(e)])
                break;
            inGraph[std::size_t(e)] = 0;
            const int w = table.vertex0(e) == v ? table.vertex1(e) : table.vertex0(e);
            --degree[std::size_t(v)];
            if (--degree[std::size_t(w)] == 1)
                stack.push_back(w);
            break;
        }
    }

    // A closed component of genus 0 has nothing left: slit it from its root to the vertex
    // farthest from it (by the path costs), along the shortest-path tree.
    std::vector<char> compCut(std::size_t(numTris), 0);
    for (int e = 0; e < numEdges; ++e)
        if (inGraph[std::size_t(e)])
            compCut[std::size_t(comps.find(triOf(e, 0)))] = 1;
    std::vector<int> farthest(std::size_t(numTris), -1);
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        const int r = comps.find(t);
        if (root[std::size_t(r)] < 0 || compCut[std::size_t(r)] || !validTriangle(c, numVertices))
            continue;
        for (int k = 0; k < 3; ++k)
        {
            const int v = c[k];
            const int f = farthest[std::size_t(r)];
            if (dist[std::size_t(v)] != HUGE_VAL &&
                (f < 0 || dist[std::size_t(v)] > dist[std::size_t(f)]))
                farthest[std::size_t(r)] = v;
        }
    }
    for (int r = 0; r < numTris; ++r)
    {
        int v = farthest[std::size_t(r)];
        if (v < 0)
            continue;
        int length = 0;
        const int far = v;
        while (parentEdge[std::size_t(v)] >= 0)
        {
            const int e = parentEdge[std::size_t(v)];
            inGraph[std::size_t(e)] = 1;
            v = table.vertex0(e) == v ? table.vertex1(e) : table.vertex0(e);
            ++length;
        }
        // One edge would open a boundary of two edges; extend the slit by one more.
        if (length == 1)
        {
            for (int i = incStart[std::size_t(far)]; i < incStart[std::size_t(far) + 1]; ++i)
            {
                const int e = inc[std::size_t(i)];
                if (!inGraph[std::size_t(e)] && !open[std::size_t(e)])
                {
                    inGraph[std::size_t(e)] = 1;
                    break;
                }
            }
        }
    }
    if (reachExtremities && !progress.cancelled())
    {
        const int paths = extendToExtremities(mesh, table, open, cost, incStart, inc, comps, root,
                                              inGraph, progress);
        debugChannel().print("  extended the cut to %d extremities\n", paths);
    }
    for (int e = 0; e < numEdges; ++e)
        if (inGraph[std::size_t(e)] && !open[std::size_t(e)])
            cut[std::size_t(e)] = 1;
}

} // namespace

bool cutSurface(CompactMesh& mesh, CutRegion& region, bool makeDisk)
{
    qyUtil::Progress progress;
    return cutSurface(mesh, region, makeDisk, progress);
}

bool cutSurface(CompactMesh& mesh, CutRegion& region, bool makeDisk, qyUtil::Progress& progress,
                bool reachExtremities)
{
    const int numVertices = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    debugChannel().print("cutSurface: %d vertices, %d triangles\n", numVertices, numTris);
    qyOS::StopWatch watch;
    watch.start();

    MeshEdges table;
    meshEdges(mesh, table);
    const int numEdges = table.size();
    debugChannel().print("  built edges: %f s\n", watch.clear());

    // Edges that are open already: boundary (one triangle), non-manifold (three or more) and
    // those the caller cuts.
    std::vector<char> cut(std::size_t(numEdges), 0), open(std::size_t(numEdges), 0);
    for (int e = 0; e < numEdges; ++e)
        open[std::size_t(e)] = table.numUses(e) != 2;
    for (std::size_t i = 0; i + 1 < region.edges.size(); i += 2)
    {
        const int e = table.find(region.edges[i], region.edges[i + 1]);
        if (e >= 0)
            cut[std::size_t(e)] = open[std::size_t(e)] = 1;
    }
    if (makeDisk)
    {
        chooseDiskCut(mesh, table, open, cut, reachExtremities, progress);
        debugChannel().print("  chose cut graph: %f s\n", watch.clear());
    }
    if (progress.cancelled())
        return false; // nothing changed yet: the mesh and the region are as they came
    region.originalVertex.resize(static_cast<std::size_t>(numVertices));
    std::iota(region.originalVertex.begin(), region.originalVertex.end(), 0);

    // Group the corners of each vertex into fans across uncut manifold edges.
    const int* tris = mesh.getTrianglesRaw();
    DisjointSets corners(3 * std::size_t(numTris));
    for (int t = 0; t < numTris; ++t)
    {
        const int* c = tris + 3 * std::size_t(t);
        for (int k = 0; k < 3; ++k)
            if (c[k] == c[(k + 1) % 3])
                corners.unite(3 * t + k, 3 * t + (k + 1) % 3);
    }
    int numCut = 0;
    region.edges.clear();
    for (int e = 0; e < numEdges; ++e)
    {
        if (cut[std::size_t(e)] || table.numUses(e) != 2)
        {
            if (cut[std::size_t(e)] || table.numUses(e) > 2)
            {
                region.edges.push_back(table.vertex0(e));
                region.edges.push_back(table.vertex1(e));
                ++numCut;
            }
            continue;
        }
        const int h0 = table.uses(e)[0];
        const int h1 = table.uses(e)[1];
        const int t1 = h1 / 3, k1 = h1 % 3;
        const int a0 = h0, b0 = 3 * (h0 / 3) + (h0 % 3 + 1) % 3;
        const int a1 = 3 * t1 + k1, b1 = 3 * t1 + (k1 + 1) % 3;
        if (tris[a0] == tris[a1])
        {
            corners.unite(a0, a1);
            corners.unite(b0, b1);
        }
        else
        {
            corners.unite(a0, b1);
            corners.unite(b0, a1);
        }
    }

    std::vector<int> fanVertex(3 * std::size_t(numTris), -1);
    std::vector<char> used(std::size_t(numVertices), 0);
    std::vector<int> newTris(tris, tris + 3 * std::size_t(numTris));
    int newCount = numVertices;
    for (int t = 0; t < numTris; ++t)
    {
        if (!validTriangle(tris + 3 * std::size_t(t), numVertices))
            continue;
        for (int k = 0; k < 3; ++k)
        {
            const int c = 3 * t + k, v = tris[c];
            const int r = corners.find(c);
            if (fanVertex[std::size_t(r)] < 0)
            {
                if (!used[std::size_t(v)])
                {
                    used[std::size_t(v)] = 1;
                    fanVertex[std::size_t(r)] = v;
                }
                else
                {
                    fanVertex[std::size_t(r)] = newCount++;
                    region.originalVertex.push_back(v);
                }
            }
            newTris[std::size_t(c)] = fanVertex[std::size_t(r)];
        }
    }
    debugChannel().print("  grouped corners: %f s\n", watch.clear());
    debugChannel().print("  cut %d edges, added %d vertices\n", numCut, newCount - numVertices);
    if (newCount == numVertices)
        return false;

    mesh.resizeVertexArray(newCount);
    MeshVertex* verts = mesh.getVertices();
    MeshNormal* normals = mesh.getNormals();
    MeshUV* uvs = mesh.getUVs();
    MeshUV* sts = mesh.getSTs();
    for (int v = numVertices; v < newCount; ++v)
    {
        const int o = region.originalVertex[std::size_t(v)];
        verts[v] = verts[o];
        if (normals)
            normals[v] = normals[o];
        if (uvs)
            uvs[v] = uvs[o];
        if (sts)
            sts[v] = sts[o];
    }
    std::copy(newTris.begin(), newTris.end(), mesh.getTrianglesRaw());
    MeshModification modification(&mesh, MeshModification::Remapped);
    if (normals)
        modification.normalsModified();
    if (uvs)
        modification.uvsModified();
    if (sts)
        modification.stsModified();
    modification.triangleNormalsValid();
    mesh.modified(modification);
    debugChannel().print("  duplicated vertices: %f s\n", watch.clear());
    return true;
}

} // namespace qyGeom
