#include "qyGeom/MeshOrient.h"

#include "model/MeshModification.h"

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

} // namespace qyGeom
