// TopoMesh.
#include "model/TopoMesh.h"

#include <algorithm>
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
        reserve(int(other.m_points.size()), int(other.m_edges.size()),
                int(other.m_faceEdge.size()));
        m_edges = other.m_edges;
        m_points = other.m_points;
        m_vertexEdge = other.m_vertexEdge;
        m_vertexTag = other.m_vertexTag;
        m_vertexDegree = other.m_vertexDegree;
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
        m_vertexDegree = std::move(other.m_vertexDegree);
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
        other.clear();
    }
    return *this;
}

TopoMesh::~TopoMesh() = default;

std::size_t TopoMesh::getSizeInBytes() const
{
    return sizeof(*this) + m_edges.capacity() * sizeof(HalfEdge) +
           m_points.capacity() * sizeof(qyLinear::Point) +
           (m_vertexEdge.capacity() + m_vertexTag.capacity() + m_vertexDegree.capacity() +
            m_faceEdge.capacity() + m_faceTag.capacity() + m_freeVertices.capacity() +
            m_freeEdges.capacity() + m_freeFaces.capacity() + m_scratch.capacity()) *
               sizeof(int);
}

void TopoMesh::reserve(int numVertices, int numEdges, int numFaces)
{
    m_points.reserve(std::size_t(std::max(numVertices, 0)));
    m_vertexEdge.reserve(std::size_t(std::max(numVertices, 0)));
    m_vertexTag.reserve(std::size_t(std::max(numVertices, 0)));
    m_vertexDegree.reserve(std::size_t(std::max(numVertices, 0)));
    m_edges.reserve(std::size_t(std::max(numEdges, 0)));
    m_faceEdge.reserve(std::size_t(std::max(numFaces, 0)));
    m_faceTag.reserve(std::size_t(std::max(numFaces, 0)));
    adviseHugePages(m_edges);
    adviseHugePages(m_points);
}

void TopoMesh::clear()
{
    m_edges.clear();
    m_points.clear();
    m_vertexEdge.clear();
    m_vertexTag.clear();
    m_vertexDegree.clear();
    m_faceEdge.clear();
    m_faceTag.clear();
    m_freeVertices.clear();
    m_freeEdges.clear();
    m_freeFaces.clear();
    m_numVertices = m_numEdges = m_numFaces = 0;
    m_fanStartsKnown = true;
    m_singleFans = true;
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
        m_vertexTag.push_back(-1);
        m_vertexDegree.push_back(0);
    }
    m_vertexEdge[std::size_t(v)] = -1;
    m_vertexTag[std::size_t(v)] = -1;
    m_vertexDegree[std::size_t(v)] = 0;
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
        m_faceTag.push_back(-1);
    }
    m_faceEdge[std::size_t(f)] = -1;
    m_faceTag[std::size_t(f)] = -1;
    ++m_numFaces;
    return f;
}

void TopoMesh::freeVertex(int v)
{
    m_vertexEdge[std::size_t(v)] = -2;
    m_vertexTag[std::size_t(v)] = -1;
    m_vertexDegree[std::size_t(v)] = 0;
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
    m_faceTag[std::size_t(f)] = -1;
    m_freeFaces.push_back(f);
    --m_numFaces;
}

// Building ---------------------------------------------------------------------------------

TopoMeshVertex TopoMesh::allocVertex(const qyLinear::Point& point)
{
    const qyLinear::Point p = point; // it may be one of this mesh's points
    if (m_freeVertices.empty())
    {
        const int v = int(m_vertexEdge.size());
        m_points.push_back(p);
        m_vertexEdge.push_back(-1);
        m_vertexTag.push_back(-1);
        m_vertexDegree.push_back(0);
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
            ++m_vertexDegree[std::size_t(v)];
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
        ++m_vertexDegree[std::size_t(vertices[i])];
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
    const int numSlots = getVertexCapacity();
    const int numEdgeSlots = getEdgeCapacity();
    HalfEdge* edges = m_edges.data();

    // Half-edges bucketed by the vertex they leave (counting sort), each with its end vertex.
    // The search below reads only the buckets, so it stays in short contiguous runs instead
    // of jumping through the half-edge array; an entry whose half-edge has a twin has its end
    // set to -1, so that it matches nothing. start[v + 1] first counts v's half-edges, then
    // holds the end of v's bucket; filling moves start[v] from v's beginning to its end, and
    // the shift back restores the beginnings.
    struct Entry
    {
        int end;
        int edge;
        int twin; ///< the half-edge's twin, kept up to date below
        int prev; ///< the half-edge before it in its face, which arrives at the vertex
    };
    std::vector<int> start(std::size_t(numSlots) + 1, 0);
    for (int e = 0; e < numEdgeSlots; ++e)
        if (edges[e].vertex >= 0)
            ++start[std::size_t(edges[e].vertex) + 1];
    for (int v = 0; v < numSlots; ++v)
        start[std::size_t(v) + 1] += start[std::size_t(v)];
    std::unique_ptr<Entry[]> bucket(new Entry[static_cast<std::size_t>(m_numEdges)]);
    adviseHugePages(bucket.get(), sizeof(Entry) * static_cast<std::size_t>(m_numEdges));
    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const int v = edges[e].vertex;
        if (v < 0)
            continue;
        const int end = edges[e].twin >= 0 ? -1 : edges[edges[e].next].vertex;
        bucket[std::size_t(start[std::size_t(v)]++)] = Entry{end, e, edges[e].twin, edges[e].prev};
    }
    for (int v = numSlots; v > 0; --v)
        start[std::size_t(v)] = start[std::size_t(v) - 1];
    start[0] = 0;

    // A half-edge a->b pairs with b->a when each is the only twinless one of its direction.
    // Whether a pair is made does not depend on the order of the search.
    for (int a = 0; a < numSlots; ++a)
    {
        const int aBegin = start[std::size_t(a)], aEnd = start[std::size_t(a) + 1];
        for (int p = aBegin; p < aEnd; ++p)
        {
            const int b = bucket[std::size_t(p)].end;
            if (b < 0)
                continue;
            int same = 0;
            for (int k = aBegin; k < aEnd; ++k)
                same += bucket[std::size_t(k)].end == b;
            if (same != 1)
                continue;
            int opposite = -1, count = 0;
            for (int k = start[std::size_t(b)], kEnd = start[std::size_t(b) + 1]; k < kEnd; ++k)
                if (bucket[std::size_t(k)].end == a)
                {
                    opposite = k;
                    ++count;
                }
            if (count != 1)
                continue;
            const int e = bucket[std::size_t(p)].edge, g = bucket[std::size_t(opposite)].edge;
            edges[e].twin = g;
            edges[g].twin = e;
            bucket[std::size_t(p)].end = -1;
            bucket[std::size_t(opposite)].end = -1;
            bucket[std::size_t(p)].twin = g;
            bucket[std::size_t(opposite)].twin = e;
        }
    }

    // Each vertex leaves by its first boundary half-edge, if it has one: the entries still
    // carrying an end vertex are the twinless ones.
    for (int v = 0; v < numSlots; ++v)
        for (int k = start[std::size_t(v)], kEnd = start[std::size_t(v) + 1]; k < kEnd; ++k)
            if (bucket[std::size_t(k)].end >= 0)
            {
                m_vertexEdge[std::size_t(v)] = bucket[std::size_t(k)].edge;
                break;
            }
    m_fanStartsKnown = true;

    // One fan per vertex when the walk around it meets all its leaving half-edges. The walk
    // goes from a leaving half-edge to the twin of the half-edge before it in its face, which
    // leaves the vertex too: it stays in the vertex's bucket, so it is followed there (a
    // short scan for the entry whose twin is that half-edge) rather than through the
    // half-edge array. A twinless leaving half-edge is where an open fan starts.
    bool single = true;
    for (int v = 0; v < numSlots && single; ++v)
    {
        const int begin = start[std::size_t(v)], end = start[std::size_t(v) + 1];
        if (begin == end)
            continue;
        int first = begin;
        for (int k = begin; k < end; ++k)
            if (bucket[std::size_t(k)].twin < 0)
            {
                first = k;
                break;
            }
        int count = 1;
        for (int k = first;;)
        {
            const int arriving = bucket[std::size_t(k)].prev;
            int next = -1;
            for (int j = begin; j < end && next < 0; ++j)
                if (bucket[std::size_t(j)].twin == arriving)
                    next = j;
            if (next < 0 || next == first)
                break;
            k = next;
            ++count;
        }
        single = count == end - begin && count == m_vertexDegree[std::size_t(v)];
    }
    m_singleFans = single;
}

TopoMesh::BulkArrays TopoMesh::allocBulk(int numVertices, int numEdges, int numFaces)
{
    clear();
    const std::size_t nv = std::size_t(std::max(numVertices, 0));
    const std::size_t ne = std::size_t(std::max(numEdges, 0));
    const std::size_t nf = std::size_t(std::max(numFaces, 0));
    reserve(int(nv), int(ne), int(nf));
    m_edges.resize(ne);
    m_points.resize(nv);
    m_vertexEdge.resize(nv);
    m_vertexTag.assign(nv, -1);
    m_vertexDegree.resize(nv);
    m_faceEdge.resize(nf);
    m_faceTag.assign(nf, -1);
    m_numVertices = int(nv);
    m_numEdges = int(ne);
    m_numFaces = int(nf);
    m_fanStartsKnown = true;
    // Whatever the builder writes may have vertices where several fans meet: the valences
    // are walked.
    m_singleFans = false;
    return {m_edges.data(), m_points.data(), m_vertexEdge.data(), m_vertexDegree.data(),
            m_faceEdge.data()};
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
        return m_vertexDegree[std::size_t(v)] + int(boundary);
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

bool TopoMesh::isNeighbour(int a, int b) const
{
    const int first = m_vertexEdge[std::size_t(a)];
    if (first < 0)
        return false;
    // Forwards from a's half-edge, then, if the fan is open, backwards from it: every spoke
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
        bool boundary;
        if (fanValence(v, boundary) <= (boundary ? 2 : 3))
            return false;
    }
    if (isNeighbour(c, d))
        return false;

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
    --m_vertexDegree[std::size_t(a)];
    --m_vertexDegree[std::size_t(b)];
    ++m_vertexDegree[std::size_t(c)];
    ++m_vertexDegree[std::size_t(d)];
    if (m_vertexEdge[std::size_t(a)] == e)
        m_vertexEdge[std::size_t(a)] = t1;
    if (m_vertexEdge[std::size_t(b)] == t)
        m_vertexEdge[std::size_t(b)] = e1;
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
    if (int(k) != m_vertexDegree[std::size_t(v)])
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
        --m_vertexDegree[std::size_t(y)];
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
        ++m_vertexDegree[std::size_t(E[nextJoined].vertex)];
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
    m_vertexDegree[std::size_t(w)] = m;
    return {this, w};
}

TopoMeshVertex TopoMesh::subdivideEdge(TopoMeshEdge edge, const qyLinear::Point& point)
{
    const qyLinear::Point p = point; // it may be one of this mesh's points
    if (!isAlive(edge))
        return {};
    const int e = edge.getIndex();
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
    m_vertexDegree[std::size_t(w)] = t >= 0 ? 2 : 1;
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
