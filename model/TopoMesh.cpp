// TopoMesh.
#include "model/TopoMesh.h"

#include <algorithm>

namespace qyGeom
{

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

TopoMesh::TopoMesh(const TopoMesh& other)
    : qy::ReferenceCount(other), qyRTB::Entity(other), m_edges(other.m_edges),
      m_points(other.m_points), m_vertexEdge(other.m_vertexEdge), m_vertexTag(other.m_vertexTag),
      m_faceEdge(other.m_faceEdge), m_faceTag(other.m_faceTag),
      m_freeVertices(other.m_freeVertices), m_freeEdges(other.m_freeEdges),
      m_freeFaces(other.m_freeFaces), m_numVertices(other.m_numVertices),
      m_numEdges(other.m_numEdges), m_numFaces(other.m_numFaces)
{
}

TopoMesh& TopoMesh::operator=(const TopoMesh& other)
{
    if (this != &other)
    {
        m_edges = other.m_edges;
        m_points = other.m_points;
        m_vertexEdge = other.m_vertexEdge;
        m_vertexTag = other.m_vertexTag;
        m_faceEdge = other.m_faceEdge;
        m_faceTag = other.m_faceTag;
        m_freeVertices = other.m_freeVertices;
        m_freeEdges = other.m_freeEdges;
        m_freeFaces = other.m_freeFaces;
        m_numVertices = other.m_numVertices;
        m_numEdges = other.m_numEdges;
        m_numFaces = other.m_numFaces;
    }
    return *this;
}

TopoMesh::~TopoMesh() = default;

std::size_t TopoMesh::getSizeInBytes() const
{
    return sizeof(*this) + m_edges.capacity() * sizeof(HalfEdge) +
           m_points.capacity() * sizeof(qyLinear::Point) +
           (m_vertexEdge.capacity() + m_vertexTag.capacity() + m_faceEdge.capacity() +
            m_faceTag.capacity() + m_freeVertices.capacity() + m_freeEdges.capacity() +
            m_freeFaces.capacity() + m_scratch.capacity()) *
               sizeof(int);
}

void TopoMesh::reserve(int numVertices, int numEdges, int numFaces)
{
    m_points.reserve(std::size_t(std::max(numVertices, 0)));
    m_vertexEdge.reserve(std::size_t(std::max(numVertices, 0)));
    m_vertexTag.reserve(std::size_t(std::max(numVertices, 0)));
    m_edges.reserve(std::size_t(std::max(numEdges, 0)));
    m_faceEdge.reserve(std::size_t(std::max(numFaces, 0)));
    m_faceTag.reserve(std::size_t(std::max(numFaces, 0)));
}

void TopoMesh::clear()
{
    m_edges.clear();
    m_points.clear();
    m_vertexEdge.clear();
    m_vertexTag.clear();
    m_faceEdge.clear();
    m_faceTag.clear();
    m_freeVertices.clear();
    m_freeEdges.clear();
    m_freeFaces.clear();
    m_numVertices = m_numEdges = m_numFaces = 0;
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
    }
    m_vertexEdge[std::size_t(v)] = -1;
    m_vertexTag[std::size_t(v)] = -1;
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

bool TopoMesh::isAlive(TopoMeshVertex v) const
{
    return v.getMesh() == this && v.getIndex() >= 0 && v.getIndex() < getVertexCapacity() &&
           m_vertexEdge[std::size_t(v.getIndex())] != -2;
}

bool TopoMesh::isAlive(TopoMeshEdge e) const
{
    return e.getMesh() == this && e.getIndex() >= 0 && e.getIndex() < getEdgeCapacity() &&
           m_edges[std::size_t(e.getIndex())].vertex >= 0;
}

bool TopoMesh::isAlive(TopoMeshFace f) const
{
    return f.getMesh() == this && f.getIndex() >= 0 && f.getIndex() < getFaceCapacity() &&
           m_faceEdge[std::size_t(f.getIndex())] >= 0;
}

// Building ---------------------------------------------------------------------------------

TopoMeshVertex TopoMesh::allocVertex(const qyLinear::Point& p)
{
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

    const int f = newFaceSlot();
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

    // Half-edges bucketed by the vertex they leave (counting sort), each with its end vertex,
    // so that the searches below scan short contiguous runs.
    std::vector<int> start(std::size_t(numSlots) + 1, 0);
    for (int e = 0; e < numEdgeSlots; ++e)
        if (edges[e].vertex >= 0)
            ++start[std::size_t(edges[e].vertex) + 1];
    for (int v = 0; v < numSlots; ++v)
        start[std::size_t(v) + 1] += start[std::size_t(v)];
    std::vector<int> fill(start.begin(), start.end() - 1);
    const auto numEdges = static_cast<std::size_t>(m_numEdges);
    std::vector<int> bucketEnd(numEdges), bucketEdge(numEdges);
    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const int v = edges[e].vertex;
        if (v < 0)
            continue;
        const std::size_t pos = std::size_t(fill[std::size_t(v)]++);
        bucketEnd[pos] = edges[edges[e].next].vertex;
        bucketEdge[pos] = e;
    }

    for (int e = 0; e < numEdgeSlots; ++e)
    {
        const int a = edges[e].vertex;
        if (a < 0 || edges[e].twin >= 0)
            continue;
        const int b = edges[edges[e].next].vertex;
        // e must be the only twinless half-edge a->b ...
        int same = 0;
        for (int k = start[std::size_t(a)], end = start[std::size_t(a) + 1]; k < end; ++k)
            same += (bucketEnd[std::size_t(k)] == b && edges[bucketEdge[std::size_t(k)]].twin < 0);
        if (same != 1)
            continue;
        // ... and find the only twinless half-edge b->a.
        int opposite = -1, count = 0;
        for (int k = start[std::size_t(b)], end = start[std::size_t(b) + 1]; k < end; ++k)
        {
            const int g = bucketEdge[std::size_t(k)];
            if (bucketEnd[std::size_t(k)] == a && edges[g].twin < 0)
            {
                opposite = g;
                ++count;
            }
        }
        if (count != 1)
            continue;
        edges[e].twin = opposite;
        edges[opposite].twin = e;
    }

    // Each vertex leaves by its first boundary half-edge, if it has one.
    for (int v = 0; v < numSlots; ++v)
    {
        for (int k = start[std::size_t(v)], end = start[std::size_t(v) + 1]; k < end; ++k)
        {
            const int e = bucketEdge[std::size_t(k)];
            if (edges[e].twin < 0)
            {
                m_vertexEdge[std::size_t(v)] = e;
                break;
            }
        }
    }
}

// Iteration --------------------------------------------------------------------------------

int TopoMesh::nextVertexIndex(int v) const
{
    const int n = getVertexCapacity();
    for (int i = std::max(v + 1, 0); i < n; ++i)
        if (m_vertexEdge[std::size_t(i)] != -2)
            return i;
    return -1;
}

int TopoMesh::nextEdgeIndex(int e) const
{
    const int n = getEdgeCapacity();
    for (int i = std::max(e + 1, 0); i < n; ++i)
        if (m_edges[std::size_t(i)].vertex >= 0)
            return i;
    return -1;
}

int TopoMesh::nextFaceIndex(int f) const
{
    const int n = getFaceCapacity();
    for (int i = std::max(f + 1, 0); i < n; ++i)
        if (m_faceEdge[std::size_t(i)] >= 0)
            return i;
    return -1;
}

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

int TopoMesh::fanStart(int v) const
{
    if (v < 0 || v >= getVertexCapacity())
        return -1;
    const int first = m_vertexEdge[std::size_t(v)];
    if (first < 0)
        return -1;
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
    const int s = fanStart(v);
    if (s < 0)
        return 0;
    int count = 0, e = s;
    for (;;)
    {
        ++count;
        const int t = m_edges[std::size_t(m_edges[std::size_t(e)].prev)].twin;
        if (t < 0)
            return count + 1;
        if (t == s)
            return count;
        e = t;
    }
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
        const int valence = vertexValence(v);
        if (valence <= (vertexOnBoundary(v) ? 2 : 3))
            return false;
    }
    if (findEdge({this, c}, {this, d}) || findEdge({this, d}, {this, c}))
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

TopoMeshVertex TopoMesh::subdivideFace(TopoMeshFace f, const qyLinear::Point& p, TopoMeshEdge first,
                                       int stride)
{
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
    return {this, w};
}

TopoMeshVertex TopoMesh::subdivideEdge(TopoMeshEdge edge, const qyLinear::Point& p)
{
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

TopoMeshEdgeVertexIterator::TopoMeshEdgeVertexIterator(TopoMeshVertex v)
    : m_mesh(v.getMesh()), m_vertex(v.getIndex())
{
    if (!m_mesh || !m_mesh->isAlive(v))
        return;
    m_start = m_mesh->fanStart(m_vertex);
    m_current = m_start;
    m_remaining = m_mesh->vertexValence(m_vertex);
}

TopoMeshVertex TopoMeshEdgeVertexIterator::otherVertex() const
{
    const TopoMeshEdge e = edge();
    return e.vertex().getIndex() == m_vertex ? e.endVertex() : e.vertex();
}

void TopoMeshEdgeVertexIterator::next()
{
    if (m_current < 0)
        return;
    const TopoMesh::HalfEdge& h = m_mesh->getHalfEdge(m_current);
    if (--m_remaining <= 0 || h.vertex != m_vertex)
    {
        m_current = -1;
        return;
    }
    const int in = h.prev;
    const int t = m_mesh->getHalfEdge(in).twin;
    if (t < 0)
        m_current = in; // the last spoke of a boundary vertex arrives at it
    else
        m_current = t == m_start ? -1 : t;
}

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
