// Edit regions. The region is numbered by its increasing vertex list, read off a bit array of
// the mesh's vertices; a vertex's slot is its rank in that array (a popcount per word), so
// building the region and looking vertices up cost in proportion to the region plus a word
// per 32 mesh elements; only a merge that deletes elements walks the whole mesh, to close up
// the arrays.
#include "qyGeom/MeshConvertRep.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <emmintrin.h>
#include <memory>

#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/MeshModification.h"
#include "model/Remap.h"

namespace qyGeom
{
namespace
{

// Indices of the set bits below n, in increasing order.
void setBits(const BitVector& bits, int n, std::vector<int>& out)
{
    const BitVector::Word* words = bits.getWords();
    const int numWords = (std::min(n, bits.size()) + 31) / 32;
    for (int w = 0; w < numWords; ++w)
        for (BitVector::Word b = words[w]; b != 0; b &= b - 1)
        {
            const int i = 32 * w + __builtin_ctz(b);
            if (i >= n)
                return;
            out.push_back(i);
        }
}

// Set bits of a word (the library is built for the baseline instruction set, where
// std::popcount is a call).
inline int bitCount(BitVector::Word x)
{
    x = x - ((x >> 1) & 0x55555555u);
    x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
    return int((((x + (x >> 4)) & 0x0F0F0F0Fu) * 0x01010101u) >> 24);
}

// True when b is a rotation of a.
inline bool sameRotation(const MeshTriangle& a, const MeshTriangle& b)
{
    for (int r = 0; r < 3; ++r)
        if (a[0] == b[r] && a[1] == b[(r + 1) % 3] && a[2] == b[(r + 2) % 3])
            return true;
    return false;
}

} // namespace

void MeshConvertRep::RankedBits::assign(int n)
{
    bits = BitVector(std::max(n, 0));
    before.clear();
    count = 0;
    all = false;
}

void MeshConvertRep::RankedBits::rank()
{
    const int numWords = bits.getNumWords();
    const BitVector::Word* words = bits.getWords();
    before.resize(std::size_t(numWords));
    int total = 0;
    for (int w = 0; w < numWords; ++w)
    {
        before[std::size_t(w)] = total;
        total += bitCount(words[w]);
    }
    count = total;
    all = total == bits.size();
}

int MeshConvertRep::RankedBits::find(int i) const
{
    if (unsigned(i) >= unsigned(bits.size()))
        return -1;
    if (all)
        return i;
    const BitVector::Word word = bits.getWords()[unsigned(i) >> 5];
    const BitVector::Word bit = BitVector::Word(1) << (i & 31);
    if (!(word & bit))
        return -1;
    return before[unsigned(i) >> 5] + bitCount(word & (bit - 1));
}

MeshConvertRep::MeshConvertRep(CompactMesh& mesh, const MeshAdjTris& adjTris)
    : MeshConvertRep(mesh, adjTris, TopoMesh())
{
}

MeshConvertRep::MeshConvertRep(CompactMesh& mesh, const MeshAdjTris& adjTris, TopoMesh&& storage)
    : m_mesh(mesh), m_adjTris(adjTris), m_topo(std::move(storage))
{
    const int numVerts = mesh.getNumVertices();
    const int numTris = mesh.getNumTriangles();
    const MeshTriangle* tris = mesh.getTriangles();

    // The region's vertices as bits: the selected ones and the corners of the selected
    // triangles. Their set bits in increasing order are the slots, so the list comes out
    // sorted and unique without a sort, and a vertex's slot is its rank among them.
    m_vertexSlots.assign(numVerts);
    {
        BitVector::Word* words = m_vertexSlots.bits.getWords();
        const BitVector& chosen = mesh.getSelectedVertices();
        const int numWords = std::min(m_vertexSlots.bits.getNumWords(), chosen.getNumWords());
        std::copy(chosen.getWords(), chosen.getWords() + numWords, words);
        if (numVerts % 32 != 0 && numWords == m_vertexSlots.bits.getNumWords())
            words[numWords - 1] &= (BitVector::Word(1) << (numVerts % 32)) - 1;
    }
    // With every vertex selected (a region over the whole mesh) the corners need no marking.
    bool allVertices = true;
    {
        const BitVector::Word* words = m_vertexSlots.bits.getWords();
        for (int w = 0; w < numVerts / 32 && allVertices; ++w)
            allVertices = words[w] == ~BitVector::Word(0);
        if (allVertices && numVerts % 32 != 0)
        {
            const BitVector::Word tail = (BitVector::Word(1) << (numVerts % 32)) - 1;
            allVertices = (words[numVerts / 32] & tail) == tail;
        }
    }

    // The faces: the selected triangles with three distinct corners inside [0, V), numbered
    // in increasing triangle order. One sweep over the selected triangles also marks their
    // corners; the lists are reserved from the counts of set bits, so that they never grow.
    const BitVector& chosenTris = mesh.getSelectedTriangles();
    const BitVector::Word* triWords = chosenTris.getWords();
    const int numTriWords = (std::min(numTris, chosenTris.size()) + 31) / 32;
    int numChosen = 0;
    for (int w = 0; w < numTriWords; ++w)
        numChosen += bitCount(triWords[w]);
    m_triangles.reserve(std::size_t(numChosen));
    for (int w = 0; w < numTriWords; ++w)
        for (BitVector::Word b = triWords[w]; b != 0; b &= b - 1)
        {
            const int t = 32 * w + __builtin_ctz(b);
            if (t >= numTris)
                break;
            const int a = tris[t][0], c1 = tris[t][1], c2 = tris[t][2];
            if (!allVertices)
                for (const int corner : {a, c1, c2})
                    if (unsigned(corner) < unsigned(numVerts))
                        m_vertexSlots.bits.setBit(corner);
            if (unsigned(a) < unsigned(numVerts) && unsigned(c1) < unsigned(numVerts) &&
                unsigned(c2) < unsigned(numVerts) && a != c1 && c1 != c2 && a != c2)
                m_triangles.push_back(t);
        }
    m_vertexSlots.rank();
    m_vertices.reserve(std::size_t(m_vertexSlots.count));
    setBits(m_vertexSlots.bits, numVerts, m_vertices);

    m_triangleSlots.assign(numTris);
    if (int(m_triangles.size()) == numTris)
        m_triangleSlots.bits.setAllBits();
    else
        for (const int t : m_triangles)
            m_triangleSlots.bits.setBit(t);
    m_triangleSlots.rank();
    if (adjTris.getNumVertices() == numVerts)
        build();
    else
        buildByFaces();
}

void MeshConvertRep::buildByFaces()
{
    // Adjacency of another mesh (or sets that miss corners of the region): the faces one by
    // one, then the twins matched among them.
    const MeshTriangle* tris = m_mesh.getTriangles();
    const MeshVertex* points = m_mesh.getVertices();
    const int n = int(m_vertices.size());
    m_topo.clear();
    m_topo.reserve(n, 3 * int(m_triangles.size()), int(m_triangles.size()));
    for (int s = 0; s < n; ++s)
        m_topo.allocVertex(points[m_vertices[std::size_t(s)]].asPoint())
            .setTag(m_vertices[std::size_t(s)]);
    for (const int t : m_triangles)
    {
        const int slots[3] = {m_vertexSlots.find(tris[t][0]), m_vertexSlots.find(tris[t][1]),
                              m_vertexSlots.find(tris[t][2])};
        m_topo.allocFace(3, slots).setTag(t);
    }
    m_topo.meshTwin();
}

void MeshConvertRep::build()
{
    const MeshTriangle* tris = m_mesh.getTriangles();
    const MeshVertex* points = m_mesh.getVertices();
    const int n = int(m_vertices.size());
    const int numFaces = int(m_triangles.size());

    // The whole region at once: face i is triangle m_triangles[i] with half-edges 3i .. 3i+2,
    // vertex s is mesh vertex m_vertices[s]; this is the layout that allocating the vertices
    // and the faces one by one and pairing the twins afterwards gives.
    const TopoMesh::BulkArrays arrays = m_topo.allocBulk(n, 3 * numFaces, numFaces);
    TopoMesh::HalfEdge* edges = arrays.edges;
    for (int s = 0; s < n; ++s)
    {
        const int v = m_vertices[std::size_t(s)];
        arrays.points[s] = points[v].asPoint();
        arrays.vertexEdge[s] = -1;
        arrays.vertexDegree[s] = 0;
        m_topo.setVertexTag(s, v);
    }
    // The half-edges themselves are written whole, twin included, by the vertices they leave.
    for (int f = 0; f < numFaces; ++f)
    {
        arrays.faceEdge[f] = 3 * f;
        m_topo.setFaceTag(f, m_triangles[std::size_t(f)]);
    }

    // Twins, vertex by vertex from the mesh's vertex-to-triangle sets: every half-edge a->b
    // and every half-edge b->a lie in faces around a. A half-edge a->b pairs with b->a when
    // each is the only one of its direction in the region; a pair is set from the vertex that
    // each side leaves. A vertex leaves by its lowest twinless half-edge, else its lowest.
    // Both sides of a pair see the same counts, so the pairs agree from either end and are
    // those that meshTwin would make; what it would still find out, whether every vertex has
    // one fan, is found here from the same lists, so that the region needs no meshTwin pass.
    //
    // The vertices go in blocks: first the lists of the whole block are gathered (the scattered
    // triangle reads of different vertices overlap), then each list is scanned, long after its
    // stores have retired, four entries to a vector compare. Each list starts at a multiple of
    // four entries and is padded with -1, which no vertex index equals.
    constexpr int blockSize = 64;
    std::vector<int>& scratch = m_scratch;
    int listStart[blockSize + 1], listSize[blockSize];
    bool singleFans = true;
    std::ptrdiff_t written = 0; // half-edges, one per corner of a face met around its vertex
    for (int s0 = 0; s0 < n; s0 += blockSize)
    {
        const int s1 = std::min(n, s0 + blockSize);
        int room = 0;
        for (int s = s0; s < s1; ++s)
        {
            listStart[s - s0] = room;
            room += (m_adjTris.numTris(m_vertices[std::size_t(s)]) + 3) & ~3;
        }
        listStart[s1 - s0] = room;
        if (scratch.size() < 5 * std::size_t(room))
            scratch.resize(5 * std::size_t(room));
        int* const outV = scratch.data();
        int* const inV = outV + room;
        int* const outE = inV + room;
        int* const inE = outE + room;
        // succ[i]: the corner whose leaving half-edge is the twin of corner i's arriving one,
        // the next spoke of the walk around a; -1 where that half-edge has no twin.
        int* const succ = inE + room;
        for (int s = s0; s < s1; ++s)
        {
            const int a = m_vertices[std::size_t(s)];
            const int* around = m_adjTris.triIndices(a);
            const int count = m_adjTris.numTris(a);
            const int base = listStart[s - s0];
            int m = base;
            for (int i = 0; i < count; ++i)
            {
                const int u = around[i];
                const int f = m_triangleSlots.find(u);
                if (f < 0)
                    continue;
                const int j = tris[u][0] == a ? 0 : (tris[u][1] == a ? 1 : 2);
                if (tris[u][j] != a)
                {
                    // A set that lists a triangle without the vertex: not this mesh's.
                    written = -1;
                    continue;
                }
                const int jNext = j == 2 ? 0 : j + 1, jPrev = j == 0 ? 2 : j - 1;
                outV[m] = tris[u][jNext];
                inV[m] = tris[u][jPrev];
                outE[m] = 3 * f + j;
                inE[m] = 3 * f + jPrev;
                succ[m] = -1;
                ++m;
            }
            listSize[s - s0] = m - base;
            arrays.vertexDegree[s] = m - base;
            if (written >= 0)
                written += m - base;
            for (; m < listStart[s - s0 + 1]; ++m)
                outV[m] = inV[m] = -1;
        }
        for (int s = s0; s < s1; ++s)
        {
            const int base = listStart[s - s0];
            const int m = listSize[s - s0];
            const int* out = outV + base;
            const int* in = inV + base;
            const int* leaving = outE + base;
            const int* arriving = inE + base;
            int* next = succ + base;
            int lowest = -1, lowestTwinless = -1, lowestAt = -1, lowestTwinlessAt = -1;
            for (int i = 0; i < m; ++i)
            {
                // How often b ends a leaving and starts an arriving half-edge, and where.
                const int b = out[i];
                int opposite = -1;
                if (m <= 32)
                {
                    const __m128i key = _mm_set1_epi32(b);
                    unsigned outMask = 0, inMask = 0;
                    for (int k = 0; k < m; k += 4)
                    {
                        const __m128i o =
                            _mm_loadu_si128(reinterpret_cast<const __m128i*>(out + k));
                        const __m128i w = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + k));
                        outMask |=
                            unsigned(_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(o, key))))
                            << k;
                        inMask |=
                            unsigned(_mm_movemask_ps(_mm_castsi128_ps(_mm_cmpeq_epi32(w, key))))
                            << k;
                    }
                    if ((outMask & (outMask - 1)) == 0 && inMask != 0 &&
                        (inMask & (inMask - 1)) == 0)
                        opposite = __builtin_ctz(inMask);
                }
                else
                {
                    int sameOut = 0, sameIn = 0, at = -1;
                    for (int k = 0; k < m; ++k)
                    {
                        sameOut += out[k] == b;
                        const bool match = in[k] == b;
                        sameIn += match;
                        at = match ? k : at;
                    }
                    opposite = sameOut == 1 && sameIn == 1 ? at : -1;
                }
                const int e = leaving[i];
                const int f = e / 3, j = e - 3 * f;
                edges[e] = {s, f, j == 2 ? e - 2 : e + 1, j == 0 ? e + 2 : e - 1,
                            opposite >= 0 ? arriving[opposite] : -1};
                if (opposite >= 0)
                    next[opposite] = i;
                else if (lowestTwinless < 0 || e < lowestTwinless)
                {
                    lowestTwinless = e;
                    lowestTwinlessAt = i;
                }
                if (lowest < 0 || e < lowest)
                {
                    lowest = e;
                    lowestAt = i;
                }
            }
            arrays.vertexEdge[s] = lowestTwinless >= 0 ? lowestTwinless : lowest;
            // One fan when the walk from the leaving half-edge meets all m spokes: it stops
            // at a spoke without a twin or back at its start.
            if (singleFans && m > 0)
            {
                const int start = lowestTwinless >= 0 ? lowestTwinlessAt : lowestAt;
                int walked = 1;
                for (int i = next[start]; i >= 0 && i != start && walked <= m; i = next[i])
                    ++walked;
                singleFans = walked == m;
            }
        }
    }
    if (written != 3 * std::ptrdiff_t(numFaces))
    {
        // The sets do not list every corner of the region once (or name a triangle that
        // does not hold the vertex): lay the region out face by face.
        buildByFaces();
        return;
    }
    m_topo.endBulk(singleFans);
}

MeshConvertRep::~MeshConvertRep() = default;

TopoMeshVertex MeshConvertRep::getTopoMeshVertex(int index)
{
    const int slot = m_vertexSlots.find(index);
    if (slot < 0)
        return {};
    const TopoMeshVertex v = m_topo.vertex(slot);
    return m_topo.isAlive(v) && v.getTag() == index ? v : TopoMeshVertex();
}

int MeshConvertRep::getMeshVertex(TopoMeshVertex v) const
{
    return m_topo.isAlive(v) ? v.getTag() : -1;
}

MeshModifyRep::MeshModifyRep(CompactMesh& mesh, const MeshAdjTris& adjTris)
    : MeshConvertRep(mesh, adjTris)
{
}

MeshModifyRep::MeshModifyRep(CompactMesh& mesh, const MeshAdjTris& adjTris, TopoMesh&& storage)
    : MeshConvertRep(mesh, adjTris, std::move(storage))
{
}

MeshModifyRep::~MeshModifyRep() = default;

void MeshModifyRep::removeVertex(TopoMeshVertex v)
{
    if (!m_topo.isAlive(v) || v.getTag() < 0)
        return;
    m_removed.push_back({v.getIndex(), v.getTag(), v.point()});
    v.setTag(-1);
}

void MeshModifyRep::merge(Remap& vertexRemap, int /*flags*/)
{
    const int numVerts = m_mesh.getNumVertices();
    const int numTris = m_mesh.getNumTriangles();
    vertexRemap.resize(numVerts, numVerts);
    if (m_merged)
    {
        vertexRemap.setSequential();
        return;
    }
    m_merged = true;

    // Vertices: restore those re-created where they were, then sort the live slots into kept
    // region vertices (tag still theirs) and new ones (numbered in slot order).
    for (const Removed& r : m_removed)
    {
        const TopoMeshVertex v = m_topo.vertex(r.slot);
        if (m_topo.isAlive(v) && v.getTag() < 0 && v.point() == r.point &&
            r.slot < int(m_vertices.size()) && m_vertices[std::size_t(r.slot)] == r.meshVertex)
            v.setTag(r.meshVertex);
    }
    const int numRegion = int(m_vertices.size());
    const int numSlots = m_topo.getVertexCapacity();
    // slotVertex: the vertex of each live slot in the old numbering, with new vertices as
    // numVerts + k; -1 for dead slots.
    std::vector<int> slotVertex(static_cast<std::size_t>(numSlots), -1);
    std::vector<int> removed;
    int numNew = 0;
    for (int s = 0; s < numSlots; ++s)
    {
        const TopoMeshVertex v = m_topo.vertex(s);
        const bool alive = m_topo.isAlive(v);
        const bool kept = alive && s < numRegion && v.getTag() == m_vertices[std::size_t(s)];
        if (kept)
            slotVertex[std::size_t(s)] = m_vertices[std::size_t(s)];
        else if (alive)
            slotVertex[std::size_t(s)] = numVerts + numNew++;
        if (s < numRegion && !kept)
            removed.push_back(m_vertices[std::size_t(s)]);
    }

    // Faces as triangles in the old numbering: each tagged face back into its slot (keeping
    // the triangle's rotation when the corners did not change), the rest in face order.
    MeshTriangle* tris = m_mesh.getTriangles();
    const int numRegionTris = int(m_triangles.size());
    // Read only where isPlaced is set, so left uninitialised.
    const std::unique_ptr<MeshTriangle[]> placed(new MeshTriangle[std::size_t(numRegionTris)]);
    std::vector<char> isPlaced(static_cast<std::size_t>(numRegionTris), 0);
    std::vector<MeshTriangle> extra;
    bool changed = !removed.empty() || numNew > 0;
    std::vector<int> corners;
    const TopoMesh::HalfEdge* edges = m_topo.getHalfEdges();
    // A face's triangle goes back to its old slot (position, -1: none) unless that is taken;
    // keeping the old corner order when it is the same rotation.
    auto place = [&](MeshTriangle tri, int position)
    {
        if (position >= 0 && !isPlaced[std::size_t(position)])
        {
            const MeshTriangle& old = tris[m_triangles[std::size_t(position)]];
            if (sameRotation(tri, old))
                tri = old;
            else
                changed = true;
            placed[std::size_t(position)] = tri;
            isPlaced[std::size_t(position)] = 1;
        }
        else
            extra.push_back(tri);
    };
    constexpr int lookAhead = 16; // faces whose first half-edge is fetched ahead
    for (int f = 0, numFaceSlots = m_topo.getFaceCapacity(); f < numFaceSlots; ++f)
    {
        if (f + lookAhead < numFaceSlots)
        {
            const int ahead = m_topo.getFaceEdge(f + lookAhead);
            if (ahead >= 0)
                __builtin_prefetch(edges + ahead);
        }
        const int first = m_topo.getFaceEdge(f);
        if (first < 0)
            continue;
        const int position = m_triangleSlots.find(m_topo.getFaceTag(f));
        // A triangle's second and third half-edges are its first one's next and previous,
        // both read off the first: two loads deep instead of three.
        const int second = edges[first].next, third = edges[first].prev;
        if (edges[second].next == third && edges[third].next == first)
        {
            // A triangle, as nearly every face is: its corners straight off its half-edges.
            place(MeshTriangle{{slotVertex[std::size_t(edges[first].vertex)],
                                slotVertex[std::size_t(edges[second].vertex)],
                                slotVertex[std::size_t(edges[third].vertex)]}},
                  position);
            continue;
        }
        corners.clear();
        int e = first;
        do
        {
            corners.push_back(slotVertex[std::size_t(edges[e].vertex)]);
            e = edges[e].next;
        } while (e != first);
        // The fan's first triangle may take the face's slot; the others are extra.
        for (std::size_t k = 1; k + 1 < corners.size(); ++k)
            place(MeshTriangle{{corners[0], corners[k], corners[k + 1]}}, k == 1 ? position : -1);
    }
    // Extra triangles take the freed region slots first, in increasing order.
    std::size_t nextExtra = 0;
    BitVector deletedTris(numTris);
    int numDeletedTris = 0;
    for (int i = 0; i < numRegionTris; ++i)
    {
        if (isPlaced[std::size_t(i)])
            continue;
        changed = true;
        if (nextExtra < extra.size())
        {
            placed[std::size_t(i)] = extra[nextExtra++];
            isPlaced[std::size_t(i)] = 1;
        }
        else
        {
            deletedTris.setBit(m_triangles[std::size_t(i)]);
            ++numDeletedTris;
        }
    }
    const int numAppended = int(extra.size() - nextExtra);
    changed = changed || numAppended > 0;

    // Triangles outside the region that use a vertex that left go too.
    for (const int r : removed)
    {
        if (r >= m_adjTris.getNumVertices())
            continue;
        const int* set = m_adjTris.triIndices(r);
        for (int i = 0, n = m_adjTris.numTris(r); i < n; ++i)
        {
            const int u = set[i];
            if (unsigned(u) < unsigned(numTris) && m_triangleSlots.find(u) < 0 &&
                !deletedTris.isBitSet(u))
            {
                deletedTris.setBit(u);
                ++numDeletedTris;
            }
        }
    }

    // Positions moved inside the region count as a change too.
    const MeshVertex* points = m_mesh.getVertices();
    for (int s = 0; s < numRegion && !changed; ++s)
    {
        const int v = slotVertex[std::size_t(s)];
        if (v >= 0 && v < numVerts)
        {
            MeshVertex written;
            written.set(m_topo.getPoint(s));
            changed = std::memcmp(&written, &points[v], sizeof(MeshVertex)) != 0;
        }
    }
    if (!changed)
    {
        vertexRemap.setSequential();
        return;
    }

    // Vertex map: the deleted close up, the new ones follow the kept ones.
    const int numKept = numVerts - int(removed.size());
    if (removed.empty())
        vertexRemap.setSequential();
    else
    {
        BitVector deleted(numVerts);
        for (const int r : removed)
            deleted.setBit(r);
        vertexRemap.setDeleteMap(deleted);
    }
    vertexRemap.setRangeSize(numKept + numNew);
    auto newVertex = [&](int v)
    { return v < numVerts ? vertexRemap(v) : numKept + (v - numVerts); };

    Remap triangleRemap(numTris, numTris);
    if (numDeletedTris == 0)
        triangleRemap.setSequential();
    else
        triangleRemap.setDeleteMap(deletedTris);
    const int numFinalTris = numTris - numDeletedTris + numAppended;
    triangleRemap.setRangeSize(numFinalTris);

    MeshRemap meshRemap;
    meshRemap.vertices = &vertexRemap;
    meshRemap.triangles = &triangleRemap;
    MeshModification change(&m_mesh, MeshModification::Remapped, &meshRemap);

    // Per-vertex arrays close up in place (a pure deletion keeps the order), then grow by the
    // new vertices, which start zeroed.
    if (!removed.empty())
    {
        for (int a = 0; a < m_mesh.getNumAttributes(); ++a)
        {
            MeshAttributes* attributes = m_mesh.getAttributes(a);
            const int width = attributes->getNumComponents();
            float* data = attributes->getFloats();
            const int n = std::min(attributes->getNumElements(), numVerts);
            for (int v = 0; v < n; ++v)
            {
                const int to = vertexRemap(v);
                if (to >= 0 && to != v)
                    std::memcpy(data + std::ptrdiff_t(to) * width, data + std::ptrdiff_t(v) * width,
                                sizeof(float) * std::size_t(width));
            }
        }
    }
    m_mesh.resizeVertexArray(numKept + numNew);
    MeshVertex* newPoints = m_mesh.getVertices();
    for (int s = 0; s < numSlots; ++s)
        if (slotVertex[std::size_t(s)] >= 0)
            newPoints[newVertex(slotVertex[std::size_t(s)])].set(m_topo.getPoint(s));

    // Triangles: close up and renumber in one sweep (a deletion map never moves a triangle up,
    // so each is read before its new slot is written), then write the region's. The region's
    // own triangles are either rewritten from their faces or deleted, so the sweep skips them
    // (all of them, in a region over the whole mesh).
    tris = m_mesh.getTriangles();
    if ((numDeletedTris > 0 || !removed.empty()) && !m_triangleSlots.all)
    {
        const int* vertexMap = vertexRemap.getMap();
        const int* triangleMap = triangleRemap.getMap();
        const BitVector& inRegion = m_triangleSlots.bits;
        for (int t = 0; t < numTris; ++t)
        {
            if (inRegion.isBitSet(t))
                continue;
            const int to = triangleMap ? triangleMap[t] : t;
            if (to < 0)
                continue;
            MeshTriangle tri = tris[t];
            if (vertexMap)
                for (int k = 0; k < 3; ++k)
                    if (unsigned(tri[k]) < unsigned(numVerts))
                        tri[k] = vertexMap[tri[k]];
            tris[to] = tri;
        }
    }
    m_mesh.resizeTriangleArray(numFinalTris);
    tris = m_mesh.getTriangles();
    auto renumbered = [&](const MeshTriangle& t) {
        return MeshTriangle{{newVertex(t[0]), newVertex(t[1]), newVertex(t[2])}};
    };
    for (int i = 0; i < numRegionTris; ++i)
        if (isPlaced[std::size_t(i)])
            tris[triangleRemap(m_triangles[std::size_t(i)])] = renumbered(placed[std::size_t(i)]);
    for (int k = 0; k < numAppended; ++k)
        tris[numTris - numDeletedTris + k] = renumbered(extra[nextExtra + std::size_t(k)]);

    m_mesh.modified(change);
}

} // namespace qyGeom
