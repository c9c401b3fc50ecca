// TopoMesh.
#include "model/TopoMesh.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <utility>

#include "base/Memory.h"

namespace qyGeom
{
using qy::adviseHugePages;

TopoMeshModification::TopoMeshModification(const TopoMesh& mesh, int type)
    : TopoMeshModification(&mesh, type)
{
}

TopoMeshModification::TopoMeshModification(const TopoMesh* mesh, int type)
    : qyRTB::EntityModification(mesh), m_mesh(mesh), m_type(type)
{
}

TopoMeshModification::~TopoMeshModification() = default;

TopoMesh::TopoMesh() = default;

TopoMesh::TopoMesh(const TopoMesh& other) : qy::ReferenceCount(other), qyRTB::Entity(other)
{
    *this = other;
}

TopoMesh::TopoMesh(TopoMesh&& other) noexcept : qy::ReferenceCount(), qyRTB::Entity()
{
    *this = std::move(other);
}

TopoMesh& TopoMesh::operator=(const TopoMesh& other)
{
    if (this != &other)
    {
        // Room first, so that a large copy gets huge pages like a large build.
        clear();
        m_wideDegrees = other.m_wideDegrees;
        reserve(int(other.m_points.size()), int(other.m_edges.size()),
                int(other.m_faceEdge.size()));
        m_edges = other.m_edges;
        m_points = other.m_points;
        m_vertexEdge = other.m_vertexEdge;
        m_vertexTag = other.m_vertexTag;
        m_degreeNarrow = other.m_degreeNarrow;
        m_degreeWide = other.m_degreeWide;
        m_faceEdge = other.m_faceEdge;
        m_faceTag = other.m_faceTag;
        m_freeVertices = other.m_freeVertices;
        m_freeEdges = other.m_freeEdges;
        m_freeFaces = other.m_freeFaces;
        m_numVertices = other.m_numVertices;
        m_numEdges = other.m_numEdges;
        m_numFaces = other.m_numFaces;
        m_fanStartsKnown = other.m_fanStartsKnown;
        m_singleFans = other.m_singleFans;
        m_wideDegrees = other.m_wideDegrees;
        m_degreesFromBuilder = other.m_degreesFromBuilder;
        m_neighbourMasks = other.m_neighbourMasks;
        m_masksValid = other.m_masksValid;
    }
    return *this;
}

TopoMesh& TopoMesh::operator=(TopoMesh&& other) noexcept
{
    if (this != &other)
    {
        m_edges = std::move(other.m_edges);
        m_points = std::move(other.m_points);
        m_vertexEdge = std::move(other.m_vertexEdge);
        m_vertexTag = std::move(other.m_vertexTag);
        m_degreeNarrow = std::move(other.m_degreeNarrow);
        m_degreeWide = std::move(other.m_degreeWide);
        m_faceEdge = std::move(other.m_faceEdge);
        m_faceTag = std::move(other.m_faceTag);
        m_freeVertices = std::move(other.m_freeVertices);
        m_freeEdges = std::move(other.m_freeEdges);
        m_freeFaces = std::move(other.m_freeFaces);
        m_numVertices = other.m_numVertices;
        m_numEdges = other.m_numEdges;
        m_numFaces = other.m_numFaces;
        m_fanStartsKnown = other.m_fanStartsKnown;
        m_singleFans = other.m_singleFans;
        m_wideDegrees = other.m_wideDegrees;
        m_degreesFromBuilder = other.m_degreesFromBuilder;
        m_neighbourMasks = std::move(other.m_neighbourMasks);
        m_masksValid = other.m_masksValid;
        other.clear();
    }
    return *this;
}

TopoMesh::~TopoMesh() = default;

std::size_t TopoMesh::getSizeInBytes() const
{
    return sizeof(*this) + m_edges.capacity() * sizeof(HalfEdge) +
           m_points.capacity() * sizeof(qyLinear::Point) +
           m_degreeNarrow.capacity() * sizeof(std::uint16_t) +
           (m_vertexEdge.capacity() + m_vertexTag.capacity() + m_degreeWide.capacity() +
            m_faceEdge.capacity() + m_faceTag.capacity() + m_freeVertices.capacity() +
            m_freeEdges.capacity() + m_freeFaces.capacity() + m_scratch.capacity()) *
               sizeof(int);
}

void TopoMesh::reserve(int numVertices, int numEdges, int numFaces)
{
    const std::size_t nv = std::size_t(std::max(numVertices, 0));
    const std::size_t nf = std::size_t(std::max(numFaces, 0));
    m_points.reserve(nv);
    m_vertexEdge.reserve(nv);
    reserveDegrees(nv);
    // Tags get room only once they exist: most meshes never set one.
    if (!m_vertexTag.empty())
        m_vertexTag.reserve(nv);
    m_edges.reserve(std::size_t(std::max(numEdges, 0)));
    m_faceEdge.reserve(nf);
    if (!m_faceTag.empty())
        m_faceTag.reserve(nf);
    adviseHugePages(m_edges);
    adviseHugePages(m_points);
}

void TopoMesh::clear()
{
    m_edges.clear();
    m_points.clear();
    m_vertexEdge.clear();
    m_faceEdge.clear();
    m_freeVertices.clear();
    m_freeEdges.clear();
    m_freeFaces.clear();
    // The tags and the counts of the other width go with their memory: a rebuild that sets no
    // tag, or whose counts stay narrow, should not carry them.
    std::vector<int>().swap(m_vertexTag);
    std::vector<int>().swap(m_faceTag);
    m_degreeNarrow.clear();
    std::vector<int>().swap(m_degreeWide);
    m_wideDegrees = false;
    m_degreesFromBuilder = false;
    m_numVertices = m_numEdges = m_numFaces = 0;
    m_fanStartsKnown = true;
    m_singleFans = true;
    // The masks keep their memory for the next build that asks for them.
    m_neighbourMasks.clear();
    m_masksValid = false;
}

void TopoMesh::allocVertexTags()
{
    m_vertexTag.reserve(m_vertexEdge.capacity());
    m_vertexTag.assign(m_vertexEdge.size(), -1);
}

void TopoMesh::allocFaceTags()
{
    m_faceTag.reserve(m_faceEdge.capacity());
    m_faceTag.assign(m_faceEdge.size(), -1);
}

void TopoMesh::pushDegree()
{
    if (m_wideDegrees)
        m_degreeWide.push_back(0);
    else
        m_degreeNarrow.push_back(0);
}

void TopoMesh::widenDegrees()
{
    std::vector<int> wide;
    wide.reserve(std::max(m_degreeNarrow.capacity(), m_vertexEdge.capacity()));
    wide.assign(m_degreeNarrow.begin(), m_degreeNarrow.end());
    m_degreeWide.swap(wide);
    std::vector<std::uint16_t>().swap(m_degreeNarrow);
    m_wideDegrees = true;
}

void TopoMesh::reserveDegrees(std::size_t n)
{
    if (m_wideDegrees)
        m_degreeWide.reserve(n);
    else
        m_degreeNarrow.reserve(n);
}

// Slots ------------------------------------------------------------------------------------

int TopoMesh::newVertexSlot()
{
    int v;
    if (!m_freeVertices.empty())
    {
        v = m_freeVertices.back();
        m_freeVertices.pop_back();
    }
    else
    {
        v = int(m_vertexEdge.size());
        m_points.emplace_back();
        m_vertexEdge.push_back(-1);
        if (!m_vertexTag.empty())
            m_vertexTag.push_back(-1);
        pushDegree();
    }
    m_vertexEdge[std::size_t(v)] = -1;
    if (!m_vertexTag.empty())
        m_vertexTag[std::size_t(v)] = -1;
    setDegree(v, 0);
    if (m_masksValid)
    {
        if (std::size_t(v) >= m_neighbourMasks.size())
            m_neighbourMasks.resize(m_vertexEdge.size(), 0);
        m_neighbourMasks[std::size_t(v)] = 0;
    }
    ++m_numVertices;
    return v;
}

int TopoMesh::newEdgeSlot()
{
    int e;
    if (!m_freeEdges.empty())
    {
        e = m_freeEdges.back();
        m_freeEdges.pop_back();
    }
    else
    {
        e = int(m_edges.size());
        m_edges.emplace_back();
    }
    m_edges[std::size_t(e)] = HalfEdge{-1, -1, -1, -1, -1};
    ++m_numEdges;
    return e;
}

int TopoMesh::newFaceSlot()
{
    int f;
    if (!m_freeFaces.empty())
    {
        f = m_freeFaces.back();
        m_freeFaces.pop_back();
    }
    else
    {
        f = int(m_faceEdge.size());
        m_faceEdge.push_back(-1);
        if (!m_faceTag.empty())
            m_faceTag.push_back(-1);
    }
    m_faceEdge[std::size_t(f)] = -1;
    if (!m_faceTag.empty())
        m_faceTag[std::size_t(f)] = -1;
    ++m_numFaces;
    return f;
}

void TopoMesh::freeVertex(int v)
{
    m_vertexEdge[std::size_t(v)] = -2;
    if (!m_vertexTag.empty())
        m_vertexTag[std::size_t(v)] = -1;
    setDegree(v, 0);
    m_freeVertices.push_back(v);
    --m_numVertices;
}

void TopoMesh::freeEdge(int e)
{
    m_edges[std::size_t(e)] = HalfEdge{-1, -1, -1, -1, -1};
    m_freeEdges.push_back(e);
    --m_numEdges;
}

void TopoMesh::freeFace(int f)
{
    m_faceEdge[std::size_t(f)] = -1;
    if (!m_faceTag.empty())
        m_faceTag[std::size_t(f)] = -1;
    m_freeFaces.push_back(f);
    --m_numFaces;
}

// Building ---------------------------------------------------------------------------------

TopoMeshVertex TopoMesh::allocVertex(const qyLinear::Point& point)
{
    const qyLinear::Point p = point; // it may be one of this mesh's points
    m_masksValid = false;
    if (m_freeVertices.empty())
    {
        const int v = int(m_vertexEdge.size());
        m_points.push_back(p);
        m_vertexEdge.push_back(-1);
        if (!m_vertexTag.empty())
            m_vertexTag.push_back(-1);
        pushDegree();
        ++m_numVertices;
        return {this, v};
    }
    const int v = newVertexSlot();
    m_points[std::size_t(v)] = p;
    return {this, v};
}

TopoMeshFace TopoMesh::allocFace(int n, const TopoMeshVertex* corners)
{
    if (n < 3 || !corners)
        return {};
    int local[8];
    std::vector<int> heap;
    int* indices = local;
    if (n > 8)
    {
        heap.resize(std::size_t(n));
        indices = heap.data();
    }
    for (int i = 0; i < n; ++i)
    {
        if (corners[i].getMesh() != this)
            return {};
        indices[i] = corners[i].getIndex();
    }
    return buildFace(n, indices);
}

TopoMeshFace TopoMesh::allocFace(int n, const int* vertexIndices)
{
    if (n < 3 || !vertexIndices)
        return {};
    return buildFace(n, vertexIndices);
}

TopoMeshFace TopoMesh::buildFace(int n, const int* vertices)
{
    const int numSlots = getVertexCapacity();
    for (int i = 0; i < n; ++i)
    {
        const int v = vertices[i];
        if (v < 0 || v >= numSlots || m_vertexEdge[std::size_t(v)] == -2)
            return {};
    }
    // A vertex named twice would make a face touch itself; the walks around a vertex assume
    // each face passes a vertex at most once.
    if (n <= 16)
    {
        for (int i = 1; i < n; ++i)
            for (int j = 0; j < i; ++j)
                if (vertices[i] == vertices[j])
                    return {};
    }
    else
    {
        std::vector<int> sorted(vertices, vertices + n);
        std::sort(sorted.begin(), sorted.end());
        if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end())
            return {};
    }

    // The new half-edges have no twins yet: a vertex's half-edge may no longer start its fan.
    m_fanStartsKnown = false;
    m_singleFans = false;
    m_masksValid = false;
    const int f = newFaceSlot();
    if (m_freeEdges.empty())
    {
        // The usual case while building: the face's half-edges are consecutive new slots.
        const int first = int(m_edges.size());
        for (int i = 0; i < n; ++i)
        {
            const int v = vertices[i];
            m_edges.push_back(HalfEdge{v, f, first + (i + 1 == n ? 0 : i + 1),
                                       first + (i == 0 ? n - 1 : i - 1), -1});
            incrementDegree(v);
            int& vertexEdge = m_vertexEdge[std::size_t(v)];
            if (vertexEdge < 0)
                vertexEdge = first + i;
        }
        m_numEdges += n;
        m_faceEdge[std::size_t(f)] = first;
        return {this, f};
    }
    int first = -1, previous = -1;
    for (int i = 0; i < n; ++i)
    {
        const int e = newEdgeSlot();
        HalfEdge& h = m_edges[std::size_t(e)];
        h.vertex = vertices[i];
        h.face = f;
        h.prev = previous;
        if (previous >= 0)
            m_edges[std::size_t(previous)].next = e;
        else
            first = e;
        incrementDegree(vertices[i]);
        int& vertexEdge = m_vertexEdge[std::size_t(vertices[i])];
        if (vertexEdge < 0)
            vertexEdge = e;
        previous = e;
    }
    m_edges[std::size_t(previous)].next = first;
    m_edges[std::size_t(first)].prev = previous;
    m_faceEdge[std::size_t(f)] = first;
    return {this, f};
}

void TopoMesh::meshTwin()
{
    // The counts of leaving half-edges size the work lists below. This class keeps them
    // right; those written by a builder through allocBulk are counted again.
    if (m_degreesFromBuilder)
        recountDegrees();
    m_degreesFromBuilder = false;
    if (m_wideDegrees)
        pairTwins(m_degreeWide.data());
    else
        pairTwins(m_degreeNarrow.data());
}

void TopoMesh::recountDegrees()
{
    for (int v = 0; v < getVertexCapacity(); ++v)
        setDegree(v, 0);
    for (const HalfEdge& h : m_edges)
        if (h.vertex >= 0)
            incrementDegree(h.vertex);
}

// The pairing works without a temporary of the mesh's size. Every corner of a face at a
// vertex v is a half-edge arriving at v followed by one leaving it; the corners are listed
// vertex after vertex (a counting sort by the degrees), each by its arriving half-edge, in
// the prev links, which next determines and which are rebuilt from it at the end: list entry
// k is edges[k].prev. While the lists exist, vertexEdge[v] holds the end of v's list. The
// half-edge that v left by before (kept when v turns out to have no boundary half-edge) is
// remembered by its corner's entry, stored as ~entry; it is told apart while the lists are
// filled by its twin link, which carries it as -3 - twin (below -1) from the moment
// vertexEdge is taken over until the fill restores it.
template <class Degree> void TopoMesh::pairTwins(const Degree* degree)
{
    const int numSlots = getVertexCapacity();
    const int numEdgeSlots = getEdgeCapacity();
    HalfEdge* edges = m_edges.data();
    int* vertexEdge = m_vertexEdge.data();

    // The only allocations, made before anything changes: room for one vertex's corners.
    int maxDegree = 0;
    for (int v = 0; v < numSlots; ++v)
        maxDegree = std::max(maxDegree, int(degree[v]));
    struct Corner
    {
        int in;   ///< the half-edge arriving at the vertex
        int out;  ///< the one after it, leaving the vertex
        int from; ///< the vertex `in` leaves
        int to;   ///< the vertex `out` arrives at
    };
    std::vector<Corner> corners;
    corners.reserve(std::size_t(maxDegree));
    // For a vertex of many corners, sorted (vertex, half-edge) pairs instead of scans.
    constexpr int fewCorners = 16;
    std::vector<std::pair<int, int>> leaving, arriving, byOut;
    if (maxDegree > fewCorners)
    {
        leaving.reserve(std::size_t(maxDegree));
        arriving.reserve(std::size_t(maxDegree));
        byOut.reserve(std::size_t(maxDegree));
    }
    constexpr int prefetchDistance = 24; // list entries, about four vertices

    // Each list's beginning, and the mark on the half-edge each vertex leaves by. A vertex
    // without half-edges (isolated, or a free slot) keeps its vertexEdge and has no list.
    int running = 0;
    for (int v = 0; v < numSlots; ++v)
    {
        if (degree[v] == 0)
            continue;
        const int kept = vertexEdge[v];
        if (unsigned(kept) < unsigned(numEdgeSlots) && edges[kept].vertex == v)
            edges[kept].twin = -3 - edges[kept].twin;
        vertexEdge[v] = running;
        running += int(degree[v]);
    }
    const int numListed = running;
    for (int in = 0; in < numEdgeSlots; ++in)
    {
        if (edges[in].vertex < 0)
            continue;
        HalfEdge& out = edges[edges[in].next];
        int entry = in;
        if (out.twin < -1)
        {
            out.twin = -3 - out.twin;
            entry = ~in;
        }
        edges[vertexEdge[out.vertex]++].prev = entry;
    }

    // A half-edge a->b pairs with b->a when each is the only twinless half-edge of its
    // direction. No pairing changes the count of a direction that has more than one, so the
    // pairs do not depend on the order of the search. Each edge is settled at its lower end
    // a, from a's corners alone: the half-edges a->b leave a, those b->a arrive at it. Once
    // a is done, every half-edge at a has its final twin, so a's leaving half-edge and its
    // fan are settled there too.
    bool single = true;
    for (int a = 0; a < numSlots; ++a)
    {
        const int end = vertexEdge[a], begin = end - int(degree[a]);
        if (begin == end)
            continue;
        corners.clear();
        int kept = -1;
        for (int k = begin; k < end; ++k)
        {
            // The lists run on from vertex to vertex: ask early for the face of a corner a
            // few vertices on, which lies elsewhere in the half-edge array.
            if (k + prefetchDistance < numListed)
            {
                const int ahead = edges[k + prefetchDistance].prev;
                __builtin_prefetch(edges + (ahead < 0 ? ~ahead : ahead));
            }
            const int entry = edges[k].prev;
            const int in = entry < 0 ? ~entry : entry;
            const int out = edges[in].next;
            if (entry < 0)
                kept = out;
            corners.push_back({in, out, edges[in].vertex, edges[edges[out].next].vertex});
        }
        const int n = int(corners.size());
        if (n <= fewCorners)
        {
            for (const Corner& c : corners)
            {
                const int b = c.to;
                if (b < a || edges[c.out].twin >= 0)
                    continue;
                int same = 0, count = 0, opposite = -1;
                for (const Corner& d : corners)
                {
                    same += d.to == b && edges[d.out].twin < 0;
                    if (d.from == b && edges[d.in].twin < 0)
                    {
                        opposite = d.in;
                        ++count;
                    }
                }
                if (same != 1 || count != 1)
                    continue;
                edges[c.out].twin = opposite;
                edges[opposite].twin = c.out;
            }
        }
        else
        {
            // Many corners: the twinless half-edges to and from higher vertices, each sorted
            // by the other vertex, and a pair where each vertex occurs once on both sides.
            leaving.clear();
            arriving.clear();
            for (const Corner& c : corners)
            {
                if (c.to > a && edges[c.out].twin < 0)
                    leaving.emplace_back(c.to, c.out);
                if (c.from > a && edges[c.in].twin < 0)
                    arriving.emplace_back(c.from, c.in);
            }
            std::sort(leaving.begin(), leaving.end());
            std::sort(arriving.begin(), arriving.end());
            const std::size_t numLeaving = leaving.size(), numArriving = arriving.size();
            for (std::size_t i = 0, j = 0; i < numLeaving; ++i)
            {
                const int b = leaving[i].first;
                if ((i > 0 && leaving[i - 1].first == b) ||
                    (i + 1 < numLeaving && leaving[i + 1].first == b))
                    continue;
                while (j < numArriving && arriving[j].first < b)
                    ++j;
                if (j < numArriving && arriving[j].first == b &&
                    (j + 1 == numArriving || arriving[j + 1].first != b))
                {
                    edges[leaving[i].second].twin = arriving[j].second;
                    edges[arriving[j].second].twin = leaving[i].second;
                }
            }
        }

        // a leaves by its lowest-numbered boundary half-edge if it has one, else by the
        // half-edge it left by before (the lowest-numbered one if that was not one of its own).
        int boundary = -1, lowest = -1;
        for (const Corner& c : corners)
        {
            if (lowest < 0 || c.out < lowest)
                lowest = c.out;
            if (edges[c.out].twin < 0 && (boundary < 0 || c.out < boundary))
                boundary = c.out;
        }
        const int first = boundary >= 0 ? boundary : kept >= 0 ? kept : lowest;
        vertexEdge[a] = first;

        // One fan when the walk around a from that half-edge meets all its leaving half-edges:
        // from a corner's leaving half-edge to the twin of its arriving one, which leaves a.
        if (!single)
            continue;
        if (n > fewCorners)
        {
            byOut.clear();
            for (int i = 0; i < n; ++i)
                byOut.emplace_back(corners[std::size_t(i)].out, i);
            std::sort(byOut.begin(), byOut.end());
        }
        // (-1 for a half-edge that does not leave a: only a builder's wrong twin gives one)
        const auto cornerLeavingBy = [&](int out)
        {
            if (n > fewCorners)
            {
                const auto it =
                    std::lower_bound(byOut.begin(), byOut.end(), std::make_pair(out, 0));
                return it != byOut.end() && it->first == out ? it->second : -1;
            }
            for (int i = 0; i < n; ++i)
                if (corners[std::size_t(i)].out == out)
                    return i;
            return -1;
        };
        int count = 1;
        for (int i = cornerLeavingBy(first); count <= n; ++count)
        {
            if (i < 0)
            {
                count = 0;
                break;
            }
            const int t = edges[corners[std::size_t(i)].in].twin;
            if (t < 0 || t == first)
                break;
            i = cornerLeavingBy(t);
        }
        single = count == n;
    }
    m_fanStartsKnown = true;
    m_singleFans = single;

    // The prev links again, from next.
    for (int e = 0; e < numEdgeSlots; ++e)
    {
        if (edges[e].vertex < 0)
            edges[e].prev = -1;
        else
            edges[edges[e].next].prev = e;
    }
}

TopoMesh::BulkArrays TopoMesh::allocBulk(int numVertices, int numEdges, int numFaces)
{
    clear();
    const std::size_t nv = std::size_t(std::max(numVertices, 0));
    const std::size_t ne = std::size_t(std::max(numEdges, 0));
    const std::size_t nf = std::size_t(std::max(numFaces, 0));
    // The builder writes the counts as ints, possibly from several threads: they stay wide,
    // and a later meshTwin counts them again rather than size its work lists by them.
    m_wideDegrees = true;
    m_degreesFromBuilder = true;
    reserve(int(nv), int(ne), int(nf));
    m_edges.resize(ne);
    m_points.resize(nv);
    m_vertexEdge.resize(nv);
    m_degreeWide.resize(nv);
    m_faceEdge.resize(nf);
    m_numVertices = int(nv);
    m_numEdges = int(ne);
    m_numFaces = int(nf);
    m_fanStartsKnown = true;
    // Whatever the builder writes may have vertices where several fans meet: the valences
    // are walked.
    m_singleFans = false;
    return {m_edges.data(), m_points.data(), m_vertexEdge.data(), m_degreeWide.data(),
            m_faceEdge.data()};
}

void TopoMesh::endBulk(bool singleFans)
{
#ifndef NDEBUG
    {
        TopoMesh check(*this);
        check.meshTwin();
        assert(check.m_singleFans == singleFans);
        for (int v = 0; v < getVertexCapacity(); ++v)
        {
            assert(check.getVertexEdge(v) == getVertexEdge(v));
            assert(check.getVertexDegree(v) == getVertexDegree(v));
        }
        for (int e = 0; e < getEdgeCapacity(); ++e)
        {
            const HalfEdge& a = check.getHalfEdge(e);
            const HalfEdge& b = getHalfEdge(e);
            assert(a.vertex == b.vertex && a.face == b.face && a.next == b.next &&
                   a.prev == b.prev && a.twin == b.twin);
        }
    }
#endif
    m_degreesFromBuilder = false;
    m_fanStartsKnown = true;
    m_singleFans = singleFans;
}

// Iteration --------------------------------------------------------------------------------

TopoMeshVertex TopoMesh::firstVertex()
{
    const int v = nextVertexIndex(-1);
    return v >= 0 ? TopoMeshVertex(this, v) : TopoMeshVertex();
}

TopoMeshEdge TopoMesh::firstEdge()
{
    const int e = nextEdgeIndex(-1);
    return e >= 0 ? TopoMeshEdge(this, e) : TopoMeshEdge();
}

TopoMeshFace TopoMesh::firstFace()
{
    const int f = nextFaceIndex(-1);
    return f >= 0 ? TopoMeshFace(this, f) : TopoMeshFace();
}

// The walk around a vertex: from a leaving half-edge e, the next leaving half-edge is
// twin(prev(e)), the previous one next(twin(e)). Both maps are one-to-one, so a walk either
// stops at a missing twin or comes back to where it began; it cannot circle forever.

int TopoMesh::searchFanStart(int first) const
{
    int e = first;
    for (;;)
    {
        const int t = m_edges[std::size_t(e)].twin;
        if (t < 0)
            return e;
        e = m_edges[std::size_t(t)].next;
        if (e == first)
            return first;
    }
}

int TopoMesh::vertexValence(int v) const
{
    bool boundary;
    return fanValence(v, boundary);
}

int TopoMesh::fanValence(int v, bool& boundary) const
{
    boundary = false;
    if (v < 0 || v >= getVertexCapacity())
        return 0;
    const int first = m_vertexEdge[std::size_t(v)];
    if (first < 0)
        return 0;
    // A vertex with one fan, starting at its half-edge: its leaving half-edges are its spokes,
    // and one more arrives on the boundary.
    if (m_singleFans && m_fanStartsKnown)
    {
        boundary = m_edges[std::size_t(first)].twin < 0;
        return getVertexDegree(v) + int(boundary);
    }
    // Backwards from the vertex's half-edge: an interior fan closes after `valence` steps, so
    // one walk both finds the fan's start and counts it; a boundary fan is counted forwards
    // from its start (where the vertex's half-edge already is, normally).
    int count = 0, e = first;
    for (;;)
    {
        const int t = m_edges[std::size_t(e)].twin;
        if (t < 0)
            break;
        ++count;
        e = m_edges[std::size_t(t)].next;
        if (e == first)
            return count;
    }
    boundary = true;
    count = 0;
    for (;;)
    {
        ++count;
        const int t = m_edges[std::size_t(m_edges[std::size_t(e)].prev)].twin;
        if (t < 0)
            return count + 1;
        e = t;
    }
}

bool TopoMesh::isNeighbourFrom(int first, int b) const
{
    if (first < 0)
        return false;
    // Forwards from the given half-edge, then, if the fan is open, backwards from it: every spoke
    // once, without first looking for the fan's start.
    int e = first;
    for (;;)
    {
        const HalfEdge& h = m_edges[std::size_t(e)];
        if (m_edges[std::size_t(h.next)].vertex == b)
            return true;
        const int in = h.prev;
        const int t = m_edges[std::size_t(in)].twin;
        if (t < 0)
        {
            if (m_edges[std::size_t(in)].vertex == b)
                return true;
            break;
        }
        if (t == first)
            return false;
        e = t;
    }
    for (int t = m_edges[std::size_t(first)].twin; t >= 0; t = m_edges[std::size_t(e)].twin)
    {
        e = m_edges[std::size_t(t)].next;
        if (m_edges[std::size_t(m_edges[std::size_t(e)].next)].vertex == b)
            return true;
    }
    return false;
}

void TopoMesh::buildNeighbourMasks()
{
    const std::size_t numSlots = m_vertexEdge.size();
    m_neighbourMasks.assign(numSlots, 0);
    std::uint64_t* masks = m_neighbourMasks.data();
    const HalfEdge* E = m_edges.data();
    for (int e = 0, n = getEdgeCapacity(); e < n; ++e)
    {
        const int a = E[e].vertex;
        if (a < 0)
            continue;
        const int b = E[E[e].next].vertex;
        masks[a] |= neighbourBit(b);
        masks[b] |= neighbourBit(a);
    }
    m_masksValid = true;
}

bool TopoMesh::vertexOnBoundary(int v) const
{
    const int s = fanStart(v);
    return s >= 0 && m_edges[std::size_t(s)].twin < 0;
}

TopoMeshEdge TopoMesh::findEdge(TopoMeshVertex a, TopoMeshVertex b)
{
    if (!isAlive(a) || !isAlive(b))
        return {};
    const int s = fanStart(a.getIndex());
    if (s < 0)
        return {};
    const int target = b.getIndex();
    int e = s;
    for (;;)
    {
        const HalfEdge& h = m_edges[std::size_t(e)];
        if (m_edges[std::size_t(h.next)].vertex == target)
            return {this, e};
        const int t = m_edges[std::size_t(h.prev)].twin;
        if (t < 0 || t == s)
            return {};
        e = t;
    }
}

void TopoMesh::getAdjacentVertices(TopoMeshVertex v, qy::vector<TopoMeshVertex>& out)
{
    out.clear();
    if (!isAlive(v))
        return;
    for (TopoMeshEdgeVertexIterator it(v); it.valid(); it.next())
        out.push_back(it.otherVertex());
}

void TopoMesh::getAdjacentEntities(TopoMeshEntity entity, qy::vector<TopoMeshEntity>& out)
{
    switch (entity.getKind())
    {
    case TopoMeshEntity::Vertex:
    {
        const TopoMeshVertex v = entity.asVertex();
        if (!isAlive(v))
            return;
        for (TopoMeshEdgeVertexIterator it(v); it.valid(); it.next())
        {
            const TopoMeshEdge e = it.edge();
            out.emplace_back(e);
            if (e.hasTwin())
                out.emplace_back(e.twin());
            if (e.vertex() == v) // a leaving spoke: its face lies around v
                out.emplace_back(e.face());
        }
        break;
    }
    case TopoMeshEntity::Edge:
    {
        const TopoMeshEdge e = entity.asEdge();
        if (!isAlive(e))
            return;
        out.emplace_back(e.vertex());
        out.emplace_back(e.endVertex());
        out.emplace_back(e.face());
        if (e.hasTwin())
        {
            out.emplace_back(e.twin());
            out.emplace_back(e.twin().face());
        }
        break;
    }
    case TopoMeshEntity::Face:
    {
        const TopoMeshFace f = entity.asFace();
        if (!isAlive(f))
            return;
        const TopoMeshEdge first = f.edge();
        TopoMeshEdge e = first;
        do
        {
            out.emplace_back(e.vertex());
            e = e.next();
        } while (e != first);
        do
        {
            out.emplace_back(e);
            e = e.next();
        } while (e != first);
        break;
    }
    default:
        break;
    }
}

// Editing ----------------------------------------------------------------------------------

bool TopoMesh::swapEdge(TopoMeshEdge edge)
{
    if (!isAlive(edge))
        return false;
    const int e = edge.getIndex();
    HalfEdge* E = m_edges.data();
    const int t = E[e].twin;
    if (t < 0)
        return false;
    const int e1 = E[e].next, e2 = E[e1].next;
    const int t1 = E[t].next, t2 = E[t1].next;
    if (E[e2].next != e || E[t2].next != t)
        return false; // only triangles
    const int a = E[e].vertex, b = E[t].vertex, c = E[e2].vertex, d = E[t2].vertex;
    if (c == d)
        return false;
    for (const int v : {a, b})
    {
        // With one fan per vertex the valence is the degree, plus one on the boundary: a
        // degree of 4 or more passes either way, without looking at the vertex's half-edge.
        if (m_singleFans && m_fanStartsKnown && getVertexDegree(v) >= 4)
            continue;
        bool boundary;
        if (fanValence(v, boundary) <= (boundary ? 2 : 3))
            return false;
    }
    // Masks without each other's bit prove that no edge joins c and d: most diagonals end
    // there. Otherwise the ring is walked. With one fan per vertex, a vertex's walk meets
    // every half-edge at it, so c and d are neighbours seen from either end: walk the shorter
    // ring, starting from the quad's own faces, which are at hand, rather than from the
    // vertex's half-edge (with one fan per vertex, every start meets every spoke).
    if (mayBeNeighbours(c, d))
    {
        if (m_singleFans && m_fanStartsKnown)
        {
            if (getVertexDegree(d) < getVertexDegree(c) ? isNeighbourFrom(t2, c)
                                                        : isNeighbourFrom(e2, d))
                return false;
        }
        else if (isNeighbour(c, d))
            return false;
    }

    const int f1 = E[e].face, f2 = E[t].face;
    E[e].vertex = d;
    E[t].vertex = c;
    // f1: e (d->c), e2 (c->a), t1 (a->d); f2: t (c->d), t2 (d->b), e1 (b->c)
    E[e].next = e2, E[e2].prev = e;
    E[e2].next = t1, E[t1].prev = e2;
    E[t1].next = e, E[e].prev = t1;
    E[t].next = t2, E[t2].prev = t;
    E[t2].next = e1, E[e1].prev = t2;
    E[e1].next = t, E[t].prev = e1;
    E[t1].face = f1;
    E[e1].face = f2;
    m_faceEdge[std::size_t(f1)] = e;
    m_faceEdge[std::size_t(f2)] = t;
    // a and b lost a leaving half-edge; a boundary vertex never leaves by e or t (both have
    // twins), so any other leaving half-edge will do.
    decrementDegree(a);
    decrementDegree(b);
    incrementDegree(c);
    incrementDegree(d);
    if (m_vertexEdge[std::size_t(a)] == e)
        m_vertexEdge[std::size_t(a)] = t1;
    if (m_vertexEdge[std::size_t(b)] == t)
        m_vertexEdge[std::size_t(b)] = e1;
    if (m_masksValid)
    {
        m_neighbourMasks[std::size_t(c)] |= neighbourBit(d);
        m_neighbourMasks[std::size_t(d)] |= neighbourBit(c);
    }
    return true;
}

TopoMeshFace TopoMesh::deleteVertex(TopoMeshVertex vertex)
{
    if (!isAlive(vertex))
        return {};
    const int v = vertex.getIndex();
    const int s = fanStart(v);
    if (s < 0 || m_edges[std::size_t(s)].twin < 0)
        return {}; // isolated or on the boundary

    // Spokes in walk order, then the ring's vertices: the hole's border runs through the
    // half-edges of each face that do not touch v.
    std::vector<int>& spokes = m_scratch;
    spokes.clear();
    int e = s;
    do
    {
        spokes.push_back(e);
        e = m_edges[std::size_t(m_edges[std::size_t(e)].prev)].twin;
    } while (e != s);
    const std::size_t k = spokes.size();
    // Half-edges of v outside the walked fan (a vertex where several fans meet, or faces added
    // since the twins were paired) would be left naming a deleted vertex.
    if (int(k) != getVertexDegree(v))
        return {};
    const std::size_t ringBegin = spokes.size();
    for (std::size_t i = 0; i < k; ++i)
    {
        const int last = m_edges[std::size_t(spokes[i])].prev;
        for (int h = m_edges[std::size_t(spokes[i])].next; h != last;
             h = m_edges[std::size_t(h)].next)
            spokes.push_back(m_edges[std::size_t(h)].vertex);
    }
    const std::size_t ringSize = spokes.size() - ringBegin;
    if (ringSize < 3)
        return {};
    std::sort(spokes.begin() + std::ptrdiff_t(ringBegin), spokes.end());
    if (std::adjacent_find(spokes.begin() + std::ptrdiff_t(ringBegin), spokes.end()) !=
        spokes.end())
        return {};
    spokes.resize(k);

    HalfEdge* E = m_edges.data();
    const int fill = E[s].face;
    int firstBorder = -1, lastBorder = -1;
    for (std::size_t i = 0; i < k; ++i)
    {
        const int spoke = spokes[i];
        const int in = E[spoke].prev;
        const int begin = E[spoke].next;
        for (int h = begin; h != in; h = E[h].next)
            E[h].face = fill;
        const int end = E[in].prev;
        if (lastBorder >= 0)
        {
            E[lastBorder].next = begin;
            E[begin].prev = lastBorder;
        }
        else
            firstBorder = begin;
        lastBorder = end;
        // The ring vertex that leaves by the spoke arriving at v leaves by the next border
        // half-edge instead (the one that starts the next face's part of the border).
        const int y = E[in].vertex;
        decrementDegree(y);
        if (m_vertexEdge[std::size_t(y)] == in)
            m_vertexEdge[std::size_t(y)] = E[spokes[(i + 1) % k]].next;
    }
    E[lastBorder].next = firstBorder;
    E[firstBorder].prev = lastBorder;
    m_faceEdge[std::size_t(fill)] = firstBorder;

    for (std::size_t i = 0; i < k; ++i)
    {
        const int spoke = spokes[i];
        const int in = m_edges[std::size_t(spoke)].prev;
        const int face = m_edges[std::size_t(spoke)].face;
        if (face != fill)
            freeFace(face);
        freeEdge(in);
        freeEdge(spoke);
    }
    freeVertex(v);
    return {this, fill};
}

TopoMeshVertex TopoMesh::subdivideFace(TopoMeshFace f, const qyLinear::Point& p)
{
    if (!isAlive(f))
        return {};
    return subdivideFace(f, p, f.edge(), 1);
}

TopoMeshVertex TopoMesh::subdivideFace(TopoMeshFace f, const qyLinear::Point& point,
                                       TopoMeshEdge first, int stride)
{
    const qyLinear::Point p = point; // it may be one of this mesh's points
    if (!isAlive(f) || !isAlive(first) || stride < 1 ||
        m_edges[std::size_t(first.getIndex())].face != f.getIndex())
        return {};
    // The face's half-edges from `first`, then the joined ones among them.
    std::vector<int>& corners = m_scratch;
    corners.clear();
    int e = first.getIndex();
    do
    {
        corners.push_back(e);
        e = m_edges[std::size_t(e)].next;
    } while (e != first.getIndex());
    const int n = int(corners.size());
    const int m = (n + stride - 1) / stride;
    if (m < 2)
        return {};

    // Slots first: allocation may move the arrays.
    const int w = newVertexSlot();
    m_points[std::size_t(w)] = p;
    const std::size_t spokeBase = corners.size();
    for (int i = 0; i < 2 * m; ++i)
        corners.push_back(newEdgeSlot());
    const std::size_t faceBase = corners.size();
    corners.push_back(f.getIndex());
    for (int i = 1; i < m; ++i)
        corners.push_back(newFaceSlot());

    HalfEdge* E = m_edges.data();
    for (int i = 0; i < m; ++i)
    {
        const int out = corners[spokeBase + std::size_t(2 * i)];    // w -> joined corner i
        const int in = corners[spokeBase + std::size_t(2 * i + 1)]; // joined corner i+1 -> w
        const int face = corners[faceBase + std::size_t(i)];
        const int chainBegin = corners[std::size_t(i * stride)];
        const int chainEnd = corners[std::size_t(std::min((i + 1) * stride, n) - 1)];
        const int nextJoined = corners[std::size_t(((i + 1) % m) * stride)];
        E[out] = HalfEdge{w, face, chainBegin, in, -1};
        E[in] = HalfEdge{E[nextJoined].vertex, face, out, chainEnd, -1};
        incrementDegree(E[nextJoined].vertex);
        if (m_masksValid)
        {
            m_neighbourMasks[std::size_t(w)] |= neighbourBit(E[nextJoined].vertex);
            m_neighbourMasks[std::size_t(E[nextJoined].vertex)] |= neighbourBit(w);
        }
        E[chainBegin].prev = out;
        E[chainEnd].next = in;
        for (int h = chainBegin;; h = E[h].next)
        {
            E[h].face = face;
            if (h == chainEnd)
                break;
        }
        m_faceEdge[std::size_t(face)] = out;
    }
    for (int i = 0; i < m; ++i)
    {
        const int in = corners[spokeBase + std::size_t(2 * i + 1)];
        const int nextOut = corners[spokeBase + std::size_t(2 * ((i + 1) % m))];
        E[in].twin = nextOut;
        E[nextOut].twin = in;
    }
    m_vertexEdge[std::size_t(w)] = corners[spokeBase];
    setDegree(w, m);
    return {this, w};
}

TopoMeshVertex TopoMesh::subdivideEdge(TopoMeshEdge edge, const qyLinear::Point& point)
{
    const qyLinear::Point p = point; // it may be one of this mesh's points
    if (!isAlive(edge))
        return {};
    const int e = edge.getIndex();
    m_masksValid = false;
    const int w = newVertexSlot();
    m_points[std::size_t(w)] = p;
    const int t = m_edges[std::size_t(e)].twin;
    const int n = newEdgeSlot();
    const int m = t >= 0 ? newEdgeSlot() : -1;

    HalfEdge* E = m_edges.data();
    // n: w -> old end of e, after e in e's face.
    E[n] = HalfEdge{w, E[e].face, E[e].next, e, t};
    E[E[e].next].prev = n;
    E[e].next = n;
    if (t >= 0)
    {
        // m: w -> e's vertex, after t in t's face.
        E[m] = HalfEdge{w, E[t].face, E[t].next, t, e};
        E[E[t].next].prev = m;
        E[t].next = m;
        E[e].twin = m;
        E[t].twin = n;
    }
    m_vertexEdge[std::size_t(w)] = n; // without a twin on the boundary, as it should be
    setDegree(w, t >= 0 ? 2 : 1);
    return {this, w};
}

bool TopoMesh::deleteIsolatedVertex(TopoMeshVertex v)
{
    if (!isAlive(v) || m_vertexEdge[std::size_t(v.getIndex())] != -1)
        return false;
    freeVertex(v.getIndex());
    return true;
}

void TopoMesh::modified(const TopoMeshModification& modification)
{
    getModifiedSignal().emit(modification);
}

// Iterators --------------------------------------------------------------------------------

TopoMeshBoundaryIterator::TopoMeshBoundaryIterator(TopoMeshEdge start) : m_mesh(start.getMesh())
{
    if (!m_mesh || !m_mesh->isAlive(start) || start.hasTwin())
        return;
    m_start = m_current = start.getIndex();
}

void TopoMeshBoundaryIterator::next()
{
    if (m_current < 0)
        return;
    int g = m_mesh->getHalfEdge(m_current).next;
    for (int t = m_mesh->getHalfEdge(g).twin; t >= 0; t = m_mesh->getHalfEdge(g).twin)
        g = m_mesh->getHalfEdge(t).next;
    // A loop has at most as many half-edges as the mesh; the bound only guards a loop that
    // the structure's rules already make impossible.
    if (g == m_start || ++m_steps > m_mesh->getEdgeCapacity())
        m_current = -1;
    else
        m_current = g;
}

} // namespace qyGeom
