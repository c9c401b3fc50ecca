// TopoMesh: a polygonal half-edge mesh with index handles for vertices, half-edges and faces.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

#include "base/Containers.h"
#include "base/Linear.h"
#include "base/Memory.h"
#include "base/Reference.h"
#include "base/Signal.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class TopoMesh;
class TopoMeshEdge;
class TopoMeshFace;

namespace detail
{
/// Orders two handles: by mesh address first, then by index within the mesh.
inline std::strong_ordering compareHandles(const TopoMesh* ma, int ia, const TopoMesh* mb, int ib)
{
    if (ma != mb)
    {
        const auto a = reinterpret_cast<std::uintptr_t>(ma);
        const auto b = reinterpret_cast<std::uintptr_t>(mb);
        return a <=> b;
    }
    return ia <=> ib;
}
inline std::size_t hashHandle(const TopoMesh* m, int i)
{
    const std::size_t h = std::hash<const void*>()(m);
    return h ^ (std::size_t(unsigned(i)) * 0x9E3779B97F4A7C15ull + (h << 6) + (h >> 2));
}
} // namespace detail

/// A vertex of a TopoMesh: the mesh and an index into its vertex arrays. A small value: copy
/// it freely. A default handle is invalid. Handles compare by mesh, then index; within one
/// mesh the order is the index order. A handle stays valid until its vertex is deleted; the
/// slot of a deleted element may be reused by a later allocation.
class TopoMeshVertex
{
public:
    TopoMeshVertex() = default;
    TopoMeshVertex(TopoMesh* mesh, int index) : m_mesh(mesh), m_index(index) {}

    TopoMesh* getMesh() const { return m_mesh; }
    int getIndex() const { return m_index; }
    /// Refers to a vertex slot (not checked against deletion; see TopoMesh::isAlive).
    bool isValid() const { return m_mesh != nullptr && m_index >= 0; }
    explicit operator bool() const { return isValid(); }

    /// The position (double precision).
    inline const qyLinear::Point& point() const;
    inline void setPoint(const qyLinear::Point& p) const;
    /// One half-edge leaving the vertex; on a boundary vertex the leaving half-edge without a
    /// twin. Invalid for a vertex used by no face.
    inline TopoMeshEdge edge() const;
    /// Number of edges at the vertex (spokes): the faces around it, plus one on the boundary.
    inline int valence() const;
    /// True when one of its spokes is a half-edge without a twin.
    inline bool onBoundary() const;
    /// A free int per vertex (-1 after allocation); the edit regions keep the index of the
    /// vertex in the indexed mesh there.
    inline int getTag() const;
    inline void setTag(int tag) const;
    /// The next live vertex in the mesh's vertex list (invalid after the last).
    inline TopoMeshVertex nextInList() const;

    friend bool operator==(const TopoMeshVertex&, const TopoMeshVertex&) = default;
    friend std::strong_ordering operator<=>(const TopoMeshVertex& a, const TopoMeshVertex& b)
    {
        return detail::compareHandles(a.m_mesh, a.m_index, b.m_mesh, b.m_index);
    }

private:
    TopoMesh* m_mesh = nullptr;
    int m_index = -1;
};

/// A half-edge of a TopoMesh. It leaves vertex() and belongs to exactly one face, in which
/// it runs counter-clockwise from vertex() to endVertex(). An edge between two faces has two
/// half-edges, twins of each other; a boundary edge has one half-edge and no twin.
class TopoMeshEdge
{
public:
    TopoMeshEdge() = default;
    TopoMeshEdge(TopoMesh* mesh, int index) : m_mesh(mesh), m_index(index) {}

    TopoMesh* getMesh() const { return m_mesh; }
    int getIndex() const { return m_index; }
    bool isValid() const { return m_mesh != nullptr && m_index >= 0; }
    explicit operator bool() const { return isValid(); }

    /// The vertex the half-edge leaves.
    inline TopoMeshVertex vertex() const;
    /// The vertex it arrives at (the vertex of next()).
    inline TopoMeshVertex endVertex() const;
    /// Of the two ends, the one that is not v.
    inline TopoMeshVertex otherVertex(TopoMeshVertex v) const;
    inline TopoMeshEdge next() const;
    inline TopoMeshEdge prev() const;
    /// The opposite half-edge, or an invalid handle on a boundary edge.
    inline TopoMeshEdge twin() const;
    inline bool hasTwin() const;
    inline TopoMeshFace face() const;
    /// The next live half-edge in the mesh's edge list (invalid after the last).
    inline TopoMeshEdge nextInList() const;

    friend bool operator==(const TopoMeshEdge&, const TopoMeshEdge&) = default;
    friend std::strong_ordering operator<=>(const TopoMeshEdge& a, const TopoMeshEdge& b)
    {
        return detail::compareHandles(a.m_mesh, a.m_index, b.m_mesh, b.m_index);
    }

private:
    TopoMesh* m_mesh = nullptr;
    int m_index = -1;
};

/// A face of a TopoMesh: a polygon of three or more corners, counter-clockwise.
class TopoMeshFace
{
public:
    TopoMeshFace() = default;
    TopoMeshFace(TopoMesh* mesh, int index) : m_mesh(mesh), m_index(index) {}

    TopoMesh* getMesh() const { return m_mesh; }
    int getIndex() const { return m_index; }
    bool isValid() const { return m_mesh != nullptr && m_index >= 0; }
    explicit operator bool() const { return isValid(); }

    /// The face's first half-edge; the others follow by next().
    inline TopoMeshEdge edge() const;
    /// Number of corners (= half-edges). Cost: O(corners).
    inline int numCorners() const;
    /// The average of the corners' positions.
    inline qyLinear::Point centroid() const;
    /// A free int per face (-1 after allocation); the edit regions keep the index of the
    /// triangle in the indexed mesh there.
    inline int getTag() const;
    inline void setTag(int tag) const;
    inline TopoMeshFace nextInList() const;

    friend bool operator==(const TopoMeshFace&, const TopoMeshFace&) = default;
    friend std::strong_ordering operator<=>(const TopoMeshFace& a, const TopoMeshFace& b)
    {
        return detail::compareHandles(a.m_mesh, a.m_index, b.m_mesh, b.m_index);
    }

private:
    TopoMesh* m_mesh = nullptr;
    int m_index = -1;
};

/// A tagged handle: a vertex, a half-edge or a face. Entities of different kinds never
/// compare equal; the order is by kind (vertices, edges, faces), then by handle.
class TopoMeshEntity
{
public:
    enum Kind : int
    {
        None = 0,
        Vertex = 1,
        Edge = 2,
        Face = 3,
    };

    TopoMeshEntity() = default;
    TopoMeshEntity(TopoMeshVertex v) : m_mesh(v.getMesh()), m_index(v.getIndex()), m_kind(Vertex) {}
    TopoMeshEntity(TopoMeshEdge e) : m_mesh(e.getMesh()), m_index(e.getIndex()), m_kind(Edge) {}
    TopoMeshEntity(TopoMeshFace f) : m_mesh(f.getMesh()), m_index(f.getIndex()), m_kind(Face) {}

    Kind getKind() const { return m_kind; }
    TopoMesh* getMesh() const { return m_mesh; }
    int getIndex() const { return m_index; }
    bool isVertex() const { return m_kind == Vertex; }
    bool isEdge() const { return m_kind == Edge; }
    bool isFace() const { return m_kind == Face; }
    bool isValid() const { return m_kind != None && m_mesh != nullptr && m_index >= 0; }
    explicit operator bool() const { return isValid(); }
    /// The handle of the held kind; an invalid handle when the kind differs.
    TopoMeshVertex asVertex() const
    {
        return m_kind == Vertex ? TopoMeshVertex(m_mesh, m_index) : TopoMeshVertex();
    }
    TopoMeshEdge asEdge() const
    {
        return m_kind == Edge ? TopoMeshEdge(m_mesh, m_index) : TopoMeshEdge();
    }
    TopoMeshFace asFace() const
    {
        return m_kind == Face ? TopoMeshFace(m_mesh, m_index) : TopoMeshFace();
    }

    friend bool operator==(const TopoMeshEntity&, const TopoMeshEntity&) = default;
    friend std::strong_ordering operator<=>(const TopoMeshEntity& a, const TopoMeshEntity& b)
    {
        if (a.m_kind != b.m_kind)
            return int(a.m_kind) <=> int(b.m_kind);
        return detail::compareHandles(a.m_mesh, a.m_index, b.m_mesh, b.m_index);
    }

private:
    TopoMesh* m_mesh = nullptr;
    int m_index = -1;
    Kind m_kind = None;
};

/// The record handed to TopoMesh::modified after a change. Type 0: positions moved; type 1:
/// connectivity changed (elements added, removed or reconnected).
class QYGEOM_API TopoMeshModification : public qyRTB::EntityModification
{
public:
    enum Type
    {
        PositionsChanged = 0,
        TopologyChanged = 1,
    };
    TopoMeshModification(const TopoMesh& mesh, int type);
    TopoMeshModification(const TopoMesh* mesh, int type);
    ~TopoMeshModification() override;

    const TopoMesh* getMesh() const { return m_mesh; }
    int getType() const { return m_type; }

private:
    const TopoMesh* m_mesh;
    int m_type;
};

/// A polygonal half-edge mesh.
///
/// Storage: contiguous arrays indexed by the handles' ints, with a free list per element
/// kind; there is no heap node per element. A half-edge holds its vertex, face, next, prev
/// and twin (20 bytes); a vertex its position (3 doubles), one leaving half-edge and its count
/// of leaving half-edges (2 bytes while every count is below 65535, 4 from the first that
/// reaches it, and always 4 in a mesh laid out by allocBulk); a face one half-edge. The tags
/// take no room until one is set to something other than -1: then the tags of that kind get
/// one int per slot. A triangle mesh of V = F / 2 vertices thus holds 79 bytes per triangle.
/// Deleted slots are reused last-freed first; the element lists (firstVertex ... nextInList)
/// visit the live slots in index order.
///
/// Building: allocate the vertices, then the faces (any corner count >= 3), then call
/// meshTwin() to pair the twin half-edges. Every half-edge belongs to a face; a boundary edge
/// is a half-edge without a twin. Each vertex keeps a leaving half-edge; on a boundary vertex
/// it is the leaving half-edge without a twin, so that the walk around the vertex starts at
/// one end of its fan.
///
/// What the structure refuses, so that bad input never corrupts it:
/// - allocFace returns an invalid face (and allocates nothing) for fewer than 3 corners, an
///   invalid or deleted vertex, or a vertex named twice in the face.
/// - meshTwin pairs a half-edge a->b with b->a only when each is the only twinless half-edge
///   in its direction. Edges of three or more faces (non-manifold) and edges run the same way
///   by two faces (inconsistent orientation) stay unpaired: each of their half-edges is a
///   boundary half-edge. A vertex where several fans meet (a non-manifold vertex) is walked
///   around one fan only (an open one when it has one): valence, onBoundary, findEdge and the
///   vertex-edge iterator see that fan.
/// - Faces allocated after meshTwin() stay unpaired until it runs again: call it again before
///   walking or editing around them.
/// - The editing operations refuse (return false or an invalid handle and change nothing)
///   what they cannot do without breaking those rules; each says when. deleteVertex refuses
///   a vertex with half-edges outside its walked fan.
///
/// Threads: one thread at a time may change a mesh; concurrent reads are safe.
class QYGEOM_API TopoMesh : public qy::ReferenceCount, public qyRTB::Entity
{
public:
    TopoMesh();
    /// A copy with the same indices: a handle of the source with its mesh replaced refers to
    /// the corresponding element of the copy. No observer connection is copied.
    TopoMesh(const TopoMesh& other);
    TopoMesh& operator=(const TopoMesh& other);
    /// Takes the other's elements (handles must be re-pointed at this mesh); the other is left
    /// empty. No observer connection moves.
    TopoMesh(TopoMesh&& other) noexcept;
    TopoMesh& operator=(TopoMesh&& other) noexcept;
    ~TopoMesh() override;

    // Counts ----------------------------------------------------------------------------
    int getNumVertices() const { return m_numVertices; }
    /// Number of half-edges (a TopoMeshEdge is a half-edge).
    int getNumEdges() const { return m_numEdges; }
    int getNumFaces() const { return m_numFaces; }
    /// Slots in use plus free slots: indices of live elements are below these.
    int getVertexCapacity() const { return int(m_vertexEdge.size()); }
    int getEdgeCapacity() const { return int(m_edges.size()); }
    int getFaceCapacity() const { return int(m_faceEdge.size()); }
    /// Bytes held by the arrays (capacity, not only size).
    std::size_t getSizeInBytes() const;

    /// Makes room for that many elements of each kind without reallocating. Large reserved
    /// arrays ask the system for huge pages (where it gives them on request), which makes a
    /// build of millions of elements markedly faster: reserve before a large build.
    void reserve(int numVertices, int numEdges, int numFaces);
    /// Removes everything.
    void clear();

    // Building --------------------------------------------------------------------------
    TopoMeshVertex allocVertex(const qyLinear::Point& p);
    TopoMeshVertex allocVertex(double x, double y, double z) { return allocVertex({x, y, z}); }
    /// A face over n corners in counter-clockwise order. Its half-edges have no twin until
    /// meshTwin() runs. Invalid (nothing allocated) for n < 3, an invalid or deleted corner,
    /// or a corner named twice.
    TopoMeshFace allocFace(int n, const TopoMeshVertex* corners);
    TopoMeshFace allocFace(std::initializer_list<TopoMeshVertex> corners)
    {
        return allocFace(int(corners.size()), corners.begin());
    }
    TopoMeshFace allocFace(const std::vector<TopoMeshVertex>& corners)
    {
        return allocFace(int(corners.size()), corners.data());
    }
    /// The same with corners given as vertex indices of this mesh.
    TopoMeshFace allocFace(int n, const int* vertexIndices);
    TopoMeshFace allocTriangle(TopoMeshVertex a, TopoMeshVertex b, TopoMeshVertex c)
    {
        return allocFace({a, b, c});
    }
    TopoMeshFace allocQuad(TopoMeshVertex a, TopoMeshVertex b, TopoMeshVertex c, TopoMeshVertex d)
    {
        return allocFace({a, b, c, d});
    }
    /// Pairs the twinless half-edges a->b and b->a (see the class comment for what stays
    /// unpaired) and points every vertex at its leaving boundary half-edge when it has one.
    /// Pairs made before are kept. Cost: O(V + E) for vertices of bounded valence, a sort of
    /// its corners for a vertex of many; no temporary but the corners of one vertex (the work
    /// lists live in the mesh's own arrays, which are whole again on return).
    void meshTwin();

    // Lookup and iteration --------------------------------------------------------------
    TopoMeshVertex vertex(int index) { return {this, index}; }
    TopoMeshEdge edge(int index) { return {this, index}; }
    TopoMeshFace face(int index) { return {this, index}; }
    bool isAlive(TopoMeshVertex v) const;
    bool isAlive(TopoMeshEdge e) const;
    bool isAlive(TopoMeshFace f) const;
    /// The first live element of each list; invalid when there is none.
    TopoMeshVertex firstVertex();
    TopoMeshEdge firstEdge();
    TopoMeshFace firstFace();
    /// The half-edge from a to b, or invalid. Searches the fan of a (see the class comment);
    /// before meshTwin() only the half-edges that a's walk can reach are found.
    TopoMeshEdge findEdge(TopoMeshVertex a, TopoMeshVertex b);
    /// The neighbours of v (the other ends of its spokes) in walk order; `out` is replaced.
    void getAdjacentVertices(TopoMeshVertex v, qy::vector<TopoMeshVertex>& out);
    /// Appends the entities adjacent to `entity` to `out` (without clearing it):
    /// - a vertex: its faces and its spokes' half-edges (both half-edges of an interior
    ///   spoke), in walk order;
    /// - a half-edge: its two vertices, its face, its twin and the twin's face;
    /// - a face: its corners and its half-edges.
    void getAdjacentEntities(TopoMeshEntity entity, qy::vector<TopoMeshEntity>& out);

    // Editing ---------------------------------------------------------------------------
    /// Replaces the diagonal of the two triangles on e by the other diagonal. With a = e's
    /// vertex, b = its end, c the third corner of e's face and d that of the twin's face,
    /// afterwards e runs d->c in e's face (c, a, d) and its twin c->d in the twin's face
    /// (d, b, c). Refused (false, nothing changed): e invalid or without a twin, a face that
    /// is not a triangle, c == d, an edge between c and d already there, or a or b at
    /// valence 3 or less when interior (2 or less on the boundary).
    bool swapEdge(TopoMeshEdge e);
    /// Removes an interior vertex, its spokes and its faces, and fills the hole with one
    /// face over the ring of neighbours, which it returns (it keeps the slot and tag of one
    /// removed face). Refused (invalid result, nothing changed): a boundary vertex, one used
    /// by no face, one with faces outside its fan, or one whose ring names a vertex twice.
    TopoMeshFace deleteVertex(TopoMeshVertex v);
    /// Splits f into one face per corner around a new vertex at p joined to every corner;
    /// returns the vertex. The first new face keeps f's slot and tag. Invalid (nothing
    /// changed) for an invalid face.
    TopoMeshVertex subdivideFace(TopoMeshFace f, const qyLinear::Point& p);
    /// The same joining the new vertex to every stride-th corner only, starting at the vertex
    /// of `first` (a half-edge of f): stride 2 on a face whose edges were split turns it
    /// into quads. Refused when `first` is not in f, stride < 1, or fewer than 2 corners
    /// would be joined.
    TopoMeshVertex subdivideFace(TopoMeshFace f, const qyLinear::Point& p, TopoMeshEdge first,
                                 int stride);
    /// Splits the edge of e (and its twin) at a new vertex at p; returns the vertex. e keeps
    /// its vertex and now ends at the new vertex; the faces on both sides gain a corner.
    TopoMeshVertex subdivideEdge(TopoMeshEdge e, const qyLinear::Point& p);
    /// Deletes a vertex used by no face. Refused (false) otherwise.
    bool deleteIsolatedVertex(TopoMeshVertex v);

    /// The notification entry point: emits the record on the modified signal.
    void modified(const TopoMeshModification& modification);

    // Raw access for hot loops (read only) ----------------------------------------------
    struct HalfEdge
    {
        int vertex; ///< the vertex it leaves; -1 in a free slot
        int face;
        int next;
        int prev;
        int twin; ///< -1 on a boundary
    };
    const HalfEdge* getHalfEdges() const { return m_edges.data(); }
    const qyLinear::Point* getPoints() const { return m_points.data(); }

    /// The arrays of a mesh laid out whole by its builder (see allocBulk).
    struct BulkArrays
    {
        HalfEdge* edges;
        qyLinear::Point* points;
        int* vertexEdge;
        int* vertexDegree;
        int* faceEdge;
    };
    /// For builders that know the whole connectivity, twins included (subdivision): replaces
    /// the contents by numVertices vertices, numEdges half-edges and numFaces faces, all live
    /// with tag -1, and returns the arrays for the caller to fill. Half-edges, leaving
    /// half-edges, degrees and face half-edges hold nothing meaningful (points are at the
    /// origin) until the caller sets every one: each half-edge whole, with its twin (-1 on a
    /// boundary) set on both sides; each face's first half-edge; each vertex's degree and leaving
    /// half-edge as meshTwin leaves them, that is, its lowest-numbered twinless leaving
    /// half-edge when it has one, else its lowest-numbered leaving half-edge (-1 for an
    /// isolated vertex). Nothing is checked.
    BulkArrays allocBulk(int numVertices, int numEdges, int numFaces);
    /// Ends a build through allocBulk whose builder wrote everything as meshTwin would leave
    /// it: every twin, every leaving half-edge and every degree. The builder tells whether
    /// each vertex has one fan, which its walk from its leaving half-edge covers; then the
    /// valences are read off the degrees instead of walked. meshTwin need not run after it.
    /// Debug builds check all of this against meshTwin on a copy.
    void endBulk(bool singleFans);

    // Element access used by the handles ------------------------------------------------
    const qyLinear::Point& getPoint(int v) const { return m_points[std::size_t(v)]; }
    void setPoint(int v, const qyLinear::Point& p) { m_points[std::size_t(v)] = p; }
    int getVertexEdge(int v) const { return m_vertexEdge[std::size_t(v)]; }
    int getVertexTag(int v) const { return m_vertexTag.empty() ? -1 : m_vertexTag[std::size_t(v)]; }
    void setVertexTag(int v, int tag)
    {
        if (m_vertexTag.empty())
        {
            if (tag == -1)
                return;
            allocVertexTags();
        }
        m_vertexTag[std::size_t(v)] = tag;
    }
    /// Number of half-edges leaving v (all its fans).
    int getVertexDegree(int v) const
    {
        return m_wideDegrees ? m_degreeWide[std::size_t(v)] : int(m_degreeNarrow[std::size_t(v)]);
    }
    const HalfEdge& getHalfEdge(int e) const { return m_edges[std::size_t(e)]; }
    int getFaceEdge(int f) const { return m_faceEdge[std::size_t(f)]; }
    int getFaceTag(int f) const { return m_faceTag.empty() ? -1 : m_faceTag[std::size_t(f)]; }
    void setFaceTag(int f, int tag)
    {
        if (m_faceTag.empty())
        {
            if (tag == -1)
                return;
            allocFaceTags();
        }
        m_faceTag[std::size_t(f)] = tag;
    }
    int nextVertexIndex(int v) const;
    int nextEdgeIndex(int e) const;
    int nextFaceIndex(int f) const;
    /// Spokes of v (see TopoMeshVertex::valence); 0 for an isolated or invalid vertex.
    int vertexValence(int v) const;
    bool vertexOnBoundary(int v) const;
    /// The leaving half-edge of v from which the walk around v covers its whole fan.
    int fanStart(int v) const
    {
        const int first = unsigned(v) < unsigned(getVertexCapacity()) ? getVertexEdge(v) : -1;
        return first < 0 || m_fanStartsKnown ? first : searchFanStart(first);
    }
    /// vertexValence, also telling whether the fan is open (one walk).
    int fanValence(int v, bool& boundary) const;
    /// True when b is at the far end of a spoke of a (in a's fan).
    bool isNeighbour(int a, int b) const
    {
        return isNeighbourFrom(m_vertexEdge[std::size_t(a)], b);
    }
    /// Whether the fan of a vertex, walked from its leaving half-edge `first` (-1: the vertex
    /// has none), reaches b.
    bool isNeighbourFrom(int first, int b) const;

    /// Gives every vertex a 64-bit mask with the bits (neighbourBit) of each vertex that
    /// shares a half-edge with it, and keeps the masks up as swapEdge and subdivideFace add
    /// edges (deleting leaves stale bits, which only mean "maybe"). swapEdge then proves most
    /// new diagonals absent from two words instead of walking a ring. Any other edit that adds
    /// an edge drops the masks. Cost: one pass over the half-edges, 8 bytes per vertex.
    void buildNeighbourMasks();
    /// The mask bits of vertex v: two bits, from two 6-bit fields of a multiplicative hash of v
    /// (they may coincide). Two bits a vertex rather than one halve the masks' false "maybe"s
    /// at the valences of a triangle mesh.
    static std::uint64_t neighbourBit(int v)
    {
        const unsigned h = unsigned(v) * 0x9E3779B1u;
        return (std::uint64_t(1) << (h >> 26)) | (std::uint64_t(1) << ((h >> 20) & 63u));
    }
    /// False when a and b surely share no half-edge; true when they may (always true without
    /// masks).
    bool mayBeNeighbours(int a, int b) const
    {
        const std::uint64_t bits = neighbourBit(b);
        return !m_masksValid || (m_neighbourMasks[std::size_t(a)] & bits) == bits;
    }

private:
    /// The narrow counts hold values below this; the first count to reach it widens them all.
    static constexpr int narrowDegreeLimit = 0xFFFF;

    int searchFanStart(int first) const;
    void allocVertexTags();
    void allocFaceTags();
    /// Degree updates, in whichever width the counts have.
    void setDegree(int v, int degree)
    {
        if (m_wideDegrees)
            m_degreeWide[std::size_t(v)] = degree;
        else if (degree < narrowDegreeLimit)
            m_degreeNarrow[std::size_t(v)] = std::uint16_t(degree);
        else
        {
            widenDegrees();
            m_degreeWide[std::size_t(v)] = degree;
        }
    }
    void incrementDegree(int v)
    {
        if (m_wideDegrees)
            ++m_degreeWide[std::size_t(v)];
        else if (++m_degreeNarrow[std::size_t(v)] == narrowDegreeLimit)
            widenDegrees();
    }
    void decrementDegree(int v)
    {
        if (m_wideDegrees)
            --m_degreeWide[std::size_t(v)];
        else
            --m_degreeNarrow[std::size_t(v)];
    }
    void pushDegree();
    void widenDegrees();
    void reserveDegrees(std::size_t n);
    std::size_t numDegreeSlots() const
    {
        return m_wideDegrees ? m_degreeWide.size() : m_degreeNarrow.size();
    }
    template <class Degree> void pairTwins(const Degree* degree);
    void recountDegrees();
    int newVertexSlot();
    int newEdgeSlot();
    int newFaceSlot();
    void freeVertex(int v);
    void freeEdge(int e);
    void freeFace(int f);
    TopoMeshFace buildFace(int n, const int* vertices);

    qy::RawVector<HalfEdge> m_edges; ///< resized unset: every slot is written next
    std::vector<qyLinear::Point> m_points;
    std::vector<int> m_vertexEdge; ///< a leaving half-edge; -1 isolated; -2 free slot
    std::vector<int> m_vertexTag;  ///< empty while every vertex tag is -1
    /// Half-edges leaving each vertex: m_degreeNarrow while m_wideDegrees is false (each
    /// count below narrowDegreeLimit), else m_degreeWide; the other one is empty.
    std::vector<std::uint16_t> m_degreeNarrow;
    std::vector<int> m_degreeWide;
    std::vector<int> m_faceEdge; ///< -1 in a free slot
    std::vector<int> m_faceTag;  ///< empty while every face tag is -1
    std::vector<int> m_freeVertices, m_freeEdges, m_freeFaces;
    std::vector<int> m_scratch; ///< reused by the edits, so that they rarely allocate
    int m_numVertices = 0, m_numEdges = 0, m_numFaces = 0;
    /// True while every vertex's half-edge is the start of its fan (its leaving boundary
    /// half-edge when it has one): set by meshTwin, kept by the edits, cleared by allocFace.
    bool m_fanStartsKnown = true;
    /// True while every vertex has one fan, which its walk covers: its valence is then its
    /// degree, plus one on the boundary. Set by meshTwin when it finds so, kept by the edits
    /// (none of them splits a fan), cleared by allocFace and allocBulk.
    bool m_singleFans = true;
    bool m_wideDegrees = false;
    /// True while m_neighbourMasks holds, for every half-edge a->b, neighbourBit(b) in a's
    /// mask and neighbourBit(a) in b's (see buildNeighbourMasks).
    bool m_masksValid = false;
    std::vector<std::uint64_t> m_neighbourMasks;
    /// True after allocBulk: the counts are the builder's, not yet checked by meshTwin.
    bool m_degreesFromBuilder = false;
};

/// Pairs the twin half-edges of a mesh after its faces were allocated (TopoMesh::meshTwin).
inline void meshTwin(TopoMesh& mesh)
{
    mesh.meshTwin();
}

/// Walks the spokes of a vertex without allocating, once around. Each spoke is given as the
/// half-edge leaving the vertex, except the last spoke of a boundary vertex, which has no
/// leaving half-edge and is given as the half-edge arriving at it. On a boundary vertex the
/// walk runs from one end of the fan to the other.
///
/// The iterator survives a swap of the spoke it has just moved past: callers may take the
/// current edge, call next(), then swap the taken edge. It stops after as many steps as the
/// vertex had spokes when the iterator was made.
class QYGEOM_API TopoMeshEdgeVertexIterator
{
public:
    inline explicit TopoMeshEdgeVertexIterator(TopoMeshVertex v);

    bool valid() const { return m_current >= 0; }
    TopoMeshEdge edge() const { return {m_mesh, m_current}; }
    TopoMeshEdge operator*() const { return edge(); }
    /// The far end of the current spoke.
    inline TopoMeshVertex otherVertex() const;
    inline void next();
    TopoMeshEdgeVertexIterator& operator++()
    {
        next();
        return *this;
    }

private:
    TopoMesh* m_mesh = nullptr;
    int m_vertex = -1;
    int m_start = -1;
    int m_current = -1;
    int m_remaining = 0;
};

/// Walks one boundary loop: from a half-edge without a twin to the next one along the
/// boundary (leaving the end vertex), until it is back at the first. Starting from a
/// half-edge with a twin gives an empty walk.
class QYGEOM_API TopoMeshBoundaryIterator
{
public:
    explicit TopoMeshBoundaryIterator(TopoMeshEdge start);

    bool valid() const { return m_current >= 0; }
    TopoMeshEdge edge() const { return {m_mesh, m_current}; }
    TopoMeshEdge operator*() const { return edge(); }
    void next();
    TopoMeshBoundaryIterator& operator++()
    {
        next();
        return *this;
    }

private:
    TopoMesh* m_mesh = nullptr;
    int m_start = -1;
    int m_current = -1;
    int m_steps = 0;
};

// Inline handle operations ----------------------------------------------------------------

inline bool TopoMesh::isAlive(TopoMeshVertex v) const
{
    return v.getMesh() == this && v.getIndex() >= 0 && v.getIndex() < getVertexCapacity() &&
           m_vertexEdge[std::size_t(v.getIndex())] != -2;
}

inline bool TopoMesh::isAlive(TopoMeshEdge e) const
{
    return e.getMesh() == this && e.getIndex() >= 0 && e.getIndex() < getEdgeCapacity() &&
           m_edges[std::size_t(e.getIndex())].vertex >= 0;
}

inline bool TopoMesh::isAlive(TopoMeshFace f) const
{
    return f.getMesh() == this && f.getIndex() >= 0 && f.getIndex() < getFaceCapacity() &&
           m_faceEdge[std::size_t(f.getIndex())] >= 0;
}

inline int TopoMesh::nextVertexIndex(int v) const
{
    const int n = getVertexCapacity();
    for (int i = std::max(v + 1, 0); i < n; ++i)
        if (m_vertexEdge[std::size_t(i)] != -2)
            return i;
    return -1;
}

inline int TopoMesh::nextEdgeIndex(int e) const
{
    const int n = getEdgeCapacity();
    for (int i = std::max(e + 1, 0); i < n; ++i)
        if (m_edges[std::size_t(i)].vertex >= 0)
            return i;
    return -1;
}

inline int TopoMesh::nextFaceIndex(int f) const
{
    const int n = getFaceCapacity();
    for (int i = std::max(f + 1, 0); i < n; ++i)
        if (m_faceEdge[std::size_t(i)] >= 0)
            return i;
    return -1;
}

inline TopoMeshEdgeVertexIterator::TopoMeshEdgeVertexIterator(TopoMeshVertex v)
    : m_mesh(v.getMesh()), m_vertex(v.getIndex())
{
    if (!m_mesh || !m_mesh->isAlive(v))
        return;
    m_start = m_mesh->fanStart(m_vertex);
    m_current = m_start;
    // The spoke count without another walk: an interior fan has one spoke per leaving
    // half-edge, a boundary fan one more. (A vertex with several fans ends its walk at the
    // fan's end well before this bound.)
    if (m_start >= 0)
        m_remaining = m_mesh->getVertexDegree(m_vertex) + (m_mesh->getHalfEdge(m_start).twin < 0);
}

inline const qyLinear::Point& TopoMeshVertex::point() const
{
    return m_mesh->getPoint(m_index);
}
inline void TopoMeshVertex::setPoint(const qyLinear::Point& p) const
{
    m_mesh->setPoint(m_index, p);
}
inline TopoMeshEdge TopoMeshVertex::edge() const
{
    const int e = m_mesh->getVertexEdge(m_index);
    return e >= 0 ? TopoMeshEdge(m_mesh, e) : TopoMeshEdge();
}
inline int TopoMeshVertex::valence() const
{
    return m_mesh->vertexValence(m_index);
}
inline bool TopoMeshVertex::onBoundary() const
{
    return m_mesh->vertexOnBoundary(m_index);
}
inline int TopoMeshVertex::getTag() const
{
    return m_mesh->getVertexTag(m_index);
}
inline void TopoMeshVertex::setTag(int tag) const
{
    m_mesh->setVertexTag(m_index, tag);
}
inline TopoMeshVertex TopoMeshVertex::nextInList() const
{
    const int v = m_mesh->nextVertexIndex(m_index);
    return v >= 0 ? TopoMeshVertex(m_mesh, v) : TopoMeshVertex();
}

inline TopoMeshVertex TopoMeshEdge::vertex() const
{
    return {m_mesh, m_mesh->getHalfEdge(m_index).vertex};
}
inline TopoMeshVertex TopoMeshEdge::endVertex() const
{
    const TopoMesh::HalfEdge& h = m_mesh->getHalfEdge(m_index);
    return {m_mesh, m_mesh->getHalfEdge(h.next).vertex};
}
inline TopoMeshVertex TopoMeshEdge::otherVertex(TopoMeshVertex v) const
{
    const TopoMeshVertex a = vertex();
    return a == v ? endVertex() : a;
}
inline TopoMeshEdge TopoMeshEdge::next() const
{
    return {m_mesh, m_mesh->getHalfEdge(m_index).next};
}
inline TopoMeshEdge TopoMeshEdge::prev() const
{
    return {m_mesh, m_mesh->getHalfEdge(m_index).prev};
}
inline TopoMeshEdge TopoMeshEdge::twin() const
{
    const int t = m_mesh->getHalfEdge(m_index).twin;
    return t >= 0 ? TopoMeshEdge(m_mesh, t) : TopoMeshEdge();
}
inline bool TopoMeshEdge::hasTwin() const
{
    return m_mesh->getHalfEdge(m_index).twin >= 0;
}
inline TopoMeshFace TopoMeshEdge::face() const
{
    return {m_mesh, m_mesh->getHalfEdge(m_index).face};
}
inline TopoMeshEdge TopoMeshEdge::nextInList() const
{
    const int e = m_mesh->nextEdgeIndex(m_index);
    return e >= 0 ? TopoMeshEdge(m_mesh, e) : TopoMeshEdge();
}

inline TopoMeshVertex TopoMeshEdgeVertexIterator::otherVertex() const
{
    const TopoMesh::HalfEdge& h = m_mesh->getHalfEdge(m_current);
    return {m_mesh, h.vertex == m_vertex ? m_mesh->getHalfEdge(h.next).vertex : h.vertex};
}

inline void TopoMeshEdgeVertexIterator::next()
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

inline TopoMeshEdge TopoMeshFace::edge() const
{
    return {m_mesh, m_mesh->getFaceEdge(m_index)};
}
inline int TopoMeshFace::numCorners() const
{
    const int first = m_mesh->getFaceEdge(m_index);
    int n = 0, e = first;
    do
    {
        ++n;
        e = m_mesh->getHalfEdge(e).next;
    } while (e != first);
    return n;
}
inline qyLinear::Point TopoMeshFace::centroid() const
{
    const int first = m_mesh->getFaceEdge(m_index);
    double x = 0, y = 0, z = 0;
    int n = 0, e = first;
    do
    {
        const qyLinear::Point& p = m_mesh->getPoint(m_mesh->getHalfEdge(e).vertex);
        x += p.x;
        y += p.y;
        z += p.z;
        ++n;
        e = m_mesh->getHalfEdge(e).next;
    } while (e != first);
    return {x / n, y / n, z / n};
}
inline int TopoMeshFace::getTag() const
{
    return m_mesh->getFaceTag(m_index);
}
inline void TopoMeshFace::setTag(int tag) const
{
    m_mesh->setFaceTag(m_index, tag);
}
inline TopoMeshFace TopoMeshFace::nextInList() const
{
    const int f = m_mesh->nextFaceIndex(m_index);
    return f >= 0 ? TopoMeshFace(m_mesh, f) : TopoMeshFace();
}

} // namespace qyGeom

template <> struct std::hash<qyGeom::TopoMeshVertex>
{
    std::size_t operator()(const qyGeom::TopoMeshVertex& v) const noexcept
    {
        return qyGeom::detail::hashHandle(v.getMesh(), v.getIndex());
    }
};
template <> struct std::hash<qyGeom::TopoMeshEdge>
{
    std::size_t operator()(const qyGeom::TopoMeshEdge& e) const noexcept
    {
        return qyGeom::detail::hashHandle(e.getMesh(), e.getIndex());
    }
};
template <> struct std::hash<qyGeom::TopoMeshFace>
{
    std::size_t operator()(const qyGeom::TopoMeshFace& f) const noexcept
    {
        return qyGeom::detail::hashHandle(f.getMesh(), f.getIndex());
    }
};
template <> struct std::hash<qyGeom::TopoMeshEntity>
{
    std::size_t operator()(const qyGeom::TopoMeshEntity& x) const noexcept
    {
        return qyGeom::detail::hashHandle(x.getMesh(), x.getIndex()) * 4u +
               std::size_t(x.getKind());
    }
};
