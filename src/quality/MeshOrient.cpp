// Orientation: the consistency test and in-place orientation of MeshOrient, and reversal of
// the winding of a whole mesh, of a connected region or of the selected triangles.
#include "qyGeom/MeshOrient.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <utility>
#include <vector>

#include "base/StopWatch.h"
#include "model/MeshModification.h"
#include "model/debugChannel.h"
#include "qyGeom/MeshSelect.h"

namespace qyGeom
{

namespace
{

enum class EdgeDirection
{
    Absent,
    Same,
    Opposite
};

// How triangle u traverses the directed edge (a, b). The corners are searched for a in the
// order u0, u1, u2.
EdgeDirection edgeDirection(const int* u, int a, int b)
{
    for (int k = 0; k < 3; ++k)
    {
        if (u[k] != a)
            continue;
        if (u[(k + 1) % 3] == b)
            return EdgeDirection::Same;
        if (u[(k + 2) % 3] == b)
            return EdgeDirection::Opposite;
    }
    return EdgeDirection::Absent;
}

// Calls visit(u, direction) for every triangle u other than t in the adjacency list of the
// vertex at corner i of t, in list order, with how u traverses t's edge from corner i to the
// next corner. Stops and returns false as soon as visit does.
template <class Visit>
bool forEachSharer(const MeshAdjTris& adjacency, const int* tris, int n, int t, int i, Visit visit)
{
    const int a = tris[3 * t + i], b = tris[3 * t + (i + 1) % 3];
    if (a < 0 || a >= adjacency.getNumVertices())
        return true;
    const int* list = adjacency.triIndices(a);
    const int count = adjacency.numTris(a);
    for (int j = 0; j < count; ++j)
    {
        const int u = list[j];
        if (u != t && u >= 0 && u < n && !visit(u, edgeDirection(tris + 3 * u, a, b)))
            return false;
    }
    return true;
}

void negate(float* values, std::ptrdiff_t count)
{
    for (std::ptrdiff_t i = 0; i < count; ++i)
        values[i] = -values[i];
}

// Strips of fewer than 3 points draw no triangle; they are kept as they are.
bool splitsOnReversal(int length)
{
    return length % 2 == 0 && length != 4 && length >= 3;
}

// Reverses the strips of the mesh. An even strip reversed point for point keeps its winding
// (its last triangle is an odd one), so length 4 exchanges its middle points and longer even
// strips are cut after their first triangle, which leaves an odd remainder.
void reverseStrips(CompactMesh& mesh)
{
    const int numStrips = mesh.getNumTriStrips();
    const int* lengths = mesh.getTriStripLengths();
    int numSplit = 0;
    for (int s = 0; s < numStrips; ++s)
        numSplit += splitsOnReversal(lengths[s]) ? 1 : 0;

    if (numSplit == 0)
    {
        int* points = mesh.getTriStripPoints();
        for (int s = 0; s < numStrips; ++s)
        {
            const int length = lengths[s];
            if (length == 4)
                std::swap(points[1], points[2]);
            else if (length >= 3)
                std::reverse(points, points + length);
            points += length;
        }
        return;
    }

    const int numPoints = mesh.getNumTriStripPoints();
    std::vector<int> newLengths;
    std::vector<int> newPoints;
    newLengths.reserve(std::size_t(numStrips + numSplit));
    newPoints.reserve(std::size_t(numPoints) + 2 * std::size_t(numSplit));
    const int* p = mesh.getTriStripPoints();
    for (int s = 0; s < numStrips; ++s)
    {
        const int length = lengths[s];
        if (splitsOnReversal(length))
        {
            newLengths.push_back(3);
            newPoints.insert(newPoints.end(), {p[2], p[1], p[0]});
            newLengths.push_back(length - 1);
            newPoints.insert(newPoints.end(), p + 1, p + length);
        }
        else
        {
            newLengths.push_back(length);
            const std::size_t first = newPoints.size();
            newPoints.insert(newPoints.end(), p, p + length);
            if (length == 4)
                std::swap(newPoints[first + 1], newPoints[first + 2]);
            else if (length >= 3)
                std::reverse(newPoints.begin() + std::ptrdiff_t(first), newPoints.end());
        }
        p += length;
    }
    mesh.resizeTriStripArrays(int(newPoints.size()), int(newLengths.size()));
    std::copy(newLengths.begin(), newLengths.end(), mesh.getTriStripLengths());
    std::copy(newPoints.begin(), newPoints.end(), mesh.getTriStripPoints());
}

// A fan keeps its hub first; its rim is traversed the other way round.
void reverseFans(CompactMesh& mesh)
{
    const int numFans = mesh.getNumTriFans();
    const int* lengths = mesh.getTriFanLengths();
    int* points = mesh.getTriFanPoints();
    for (int f = 0; f < numFans; ++f)
    {
        if (lengths[f] > 1)
            std::reverse(points + 1, points + lengths[f]);
        points += lengths[f];
    }
}

} // namespace

MeshOrient::MeshOrient(CompactMesh& mesh, const MeshAdjTris& adjacency)
    : m_mesh(mesh), m_adjacency(adjacency)
{
    compute();
}

void MeshOrient::compute()
{
    m_oriented = computeOriented();
    if (m_oriented)
        m_orientable = true;
}

bool MeshOrient::computeOriented() const
{
    const int* tris = m_mesh.getTrianglesRaw();
    const int n = m_mesh.getNumTriangles();
    for (int t = 0; t < n; ++t)
        for (int i = 0; i < 3; ++i)
            if (!forEachSharer(m_adjacency, tris, n, t, i,
                               [](int, EdgeDirection direction)
                               { return direction != EdgeDirection::Same; }))
                return false;
    return true;
}

void MeshOrient::orient()
{
    if (m_oriented)
        return;
    bool flipped = false;
    m_oriented = computeOrientation(flipped);
    if (m_oriented)
        m_orientable = true;
    if (flipped)
    {
        // Only the corner order changed: per-vertex data other than the normals stays right.
        MeshModification modification(&m_mesh, MeshModification::Remapped, nullptr);
        modification.uvsValid();
        modification.stsValid();
        modification.coloursValid();
        m_mesh.modified(modification);
    }
}

bool MeshOrient::computeOrientation(bool& flipped)
{
    const int n = m_mesh.getNumTriangles();
    m_affected.resize(n);
    m_affected.clearBits();
    m_queue.assign(std::size_t(n > 0 ? n : 0), 0);
    flipped = false;
    if (n < 1)
        return true;
    for (int t = 0; t < n; ++t)
        if (!m_affected.isBitSet(t) && !search(flipped, t))
        {
            // Report the region reached from the conflict: search again from there.
            m_affected.clearBits();
            search(flipped, m_conflictTriangle);
            return false;
        }
    return true;
}

bool MeshOrient::search(bool& flipped, int start)
{
    int* tris = m_mesh.getTrianglesRaw();
    const int n = m_mesh.getNumTriangles();
    m_affected.setBit(start);
    int tail = 0, head = 0;
    m_queue[std::size_t(tail++)] = start;
    while (head < tail)
    {
        const int t = m_queue[std::size_t(head++)];
        for (int i = 0; i < 3; ++i)
        {
            // The edge is read afresh for each corner: t itself may have been flipped when
            // it was reached.
            const bool consistent =
                forEachSharer(m_adjacency, tris, n, t, i,
                              [&](int u, EdgeDirection direction)
                              {
                                  if (direction == EdgeDirection::Absent)
                                      return true;
                                  if (direction == EdgeDirection::Same)
                                  {
                                      if (m_affected.isBitSet(u))
                                      {
                                          m_conflictTriangle = u;
                                          return false;
                                      }
                                      std::swap(tris[3 * u + 1], tris[3 * u + 2]);
                                      flipped = true;
                                  }
                                  if (!m_affected.isBitSet(u))
                                  {
                                      m_affected.setBit(u);
                                      m_queue[std::size_t(tail++)] = u;
                                  }
                                  return true;
                              });
            if (!consistent)
                return false;
        }
    }
    return true;
}

bool meshOriented(const CompactMesh& mesh, const MeshAdjTris& adjacency)
{
    // The test only reads the mesh; the class holds it by non-const reference for orient().
    MeshOrient orientation(const_cast<CompactMesh&>(mesh), adjacency);
    return orientation.isOriented();
}

bool meshMakeOriented(CompactMesh& mesh, const MeshAdjTris& adjacency)
{
    MeshOrient orientation(mesh, adjacency);
    orientation.orient();
    return orientation.isOriented();
}

void meshReverseWinding(CompactMesh& mesh, bool reverseNormals)
{
    const int numTris = mesh.getNumTriangles();
    debugChannel().print("meshReverseWinding: %d triangles\n", numTris);
    qyOS::StopWatch watch;
    watch.start();

    int* tris = mesh.getTrianglesRaw();
    for (std::ptrdiff_t t = 0; t < numTris; ++t)
        std::swap(tris[3 * t], tris[3 * t + 1]);
    reverseStrips(mesh);
    reverseFans(mesh);

    if (reverseNormals && mesh.getNormalsRaw())
        negate(mesh.getNormalsRaw(), 3 * std::ptrdiff_t(mesh.getNumVertices()));
    if (mesh.getTriangleNormalsRaw())
        negate(mesh.getTriangleNormalsRaw(), 3 * std::ptrdiff_t(numTris));

    MeshModification modification(&mesh, MeshModification::Remapped, nullptr);
    if (reverseNormals)
        modification.normalsModified();
    else
        modification.normalsValid();
    modification.triangleNormalsModified();
    modification.uvsValid();
    modification.stripsAndFansModified();
    mesh.modified(modification);
    debugChannel().print("  remapped triangle indices: %f s\n", watch.clear());
}

void meshReverseWinding(CompactMesh& mesh, const MeshAdjTris& adjacency, int triangle)
{
    MeshSelect select(mesh, adjacency, mesh.getSelectedTriangles(), mesh.getSelectedVertices());
    mesh.getSelectedTriangles().resize(mesh.getNumTriangles());
    mesh.getSelectedTriangles().setBit(triangle);
    select.selectTrianglesRecursive(0);
    meshReverseSelectedWinding(mesh);
}

void meshReverseSelectedWinding(CompactMesh& mesh)
{
    const BitVector& selected = mesh.getSelectedTriangles();
    debugChannel().print("meshReverseSelectedWinding: %d triangles\n", selected.size());
    qyOS::StopWatch watch;
    watch.start();

    const int numTris = std::min(mesh.getNumTriangles(), selected.size());
    const int numVerts = mesh.getNumVertices();
    int* tris = mesh.getTrianglesRaw();
    float* normals = mesh.getNormalsRaw();
    float* triNormals = mesh.getTriangleNormalsRaw();
    BitVector done(normals ? numVerts : 0);
    const BitVector::Word* words = selected.getWords();
    for (int w = 0; w * BitVector::bitsPerWord < numTris; ++w)
    {
        for (BitVector::Word bits = words[w]; bits != 0; bits &= bits - 1)
        {
            const int t = w * BitVector::bitsPerWord + std::countr_zero(bits);
            if (t >= numTris)
                break;
            int* corners = tris + 3 * std::ptrdiff_t(t);
            std::swap(corners[0], corners[1]);
            if (normals)
                for (int k = 0; k < 3; ++k)
                {
                    const int v = corners[k];
                    if (v < 0 || v >= numVerts || done.isBitSet(v))
                        continue;
                    done.setBit(v);
                    negate(normals + 3 * std::ptrdiff_t(v), 3);
                }
            if (triNormals)
                negate(triNormals + 3 * std::ptrdiff_t(t), 3);
        }
    }

    MeshModification modification(&mesh, MeshModification::Remapped, nullptr);
    modification.normalsModified();
    modification.triangleNormalsModified();
    modification.uvsValid();
    mesh.modified(modification);
    debugChannel().print("  mesh reverse selected winding: %f s\n", watch.clear());
}

} // namespace qyGeom
