// MeshSelect: selections grown through the triangle corners and the vertex-to-triangle sets.
#include "qyGeom/MeshSelect.h"

#include <algorithm>
#include <cstddef>
#include <vector>

#include "model/BitVector.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"

namespace qyGeom
{
namespace
{

// True when bits 0..n-1 are all set; a region over the whole mesh leaves nothing to grow.
bool allSetBelow(const BitVector& bits, int n)
{
    if (bits.size() < n)
        return false;
    const BitVector::Word* words = bits.getWords();
    const int full = n / 32;
    for (int w = 0; w < full; ++w)
        if (words[w] != ~BitVector::Word(0))
            return false;
    if (n % 32 == 0)
        return true;
    const BitVector::Word mask = (BitVector::Word(1) << (n % 32)) - 1;
    return (words[full] & mask) == mask;
}

} // namespace

MeshSelect::MeshSelect(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                       BitVector& selectedTriangles, BitVector& selectedVertices)
    : m_mesh(mesh), m_adjTris(adjTris), m_triangles(selectedTriangles), m_vertices(selectedVertices)
{
}

MeshSelect::MeshSelect(CompactMesh& mesh, const MeshAdjTris& adjTris)
    : MeshSelect(mesh, adjTris, mesh.getSelectedTriangles(), mesh.getSelectedVertices())
{
}

void MeshSelect::fitSizes()
{
    if (m_triangles.size() < m_mesh.getNumTriangles())
        m_triangles.resize(m_mesh.getNumTriangles());
    if (m_vertices.size() < m_mesh.getNumVertices())
        m_vertices.resize(m_mesh.getNumVertices());
}

int MeshSelect::selectAllTrianglesFromVertices()
{
    fitSizes();
    const int numTris = m_mesh.getNumTriangles();
    const int numSets = std::min(m_mesh.getNumVertices(), m_adjTris.getNumVertices());
    if (allSetBelow(m_triangles, numTris))
        return 0;
    // The triangles are set while the vertex words are read, so both vectors are walked by
    // word here instead of through an iterator.
    const BitVector::Word* words = m_vertices.getWords();
    const int numWords = (numSets + 31) / 32;
    int added = 0;
    for (int w = 0; w < numWords; ++w)
    {
        for (BitVector::Word bits = words[w]; bits != 0; bits &= bits - 1)
        {
            const int v = 32 * w + __builtin_ctz(bits);
            if (v >= numSets)
                break;
            const int* set = m_adjTris.triIndices(v);
            for (int i = 0, n = m_adjTris.numTris(v); i < n; ++i)
            {
                const int t = set[i];
                if (unsigned(t) < unsigned(numTris) && !m_triangles.isBitSet(t))
                {
                    m_triangles.setBit(t);
                    ++added;
                }
            }
        }
    }
    return added;
}

int MeshSelect::selectVerticesFromTriangles()
{
    fitSizes();
    const int numVerts = m_mesh.getNumVertices();
    const int numTris = m_mesh.getNumTriangles();
    const int* tris = m_mesh.getTrianglesRaw();
    if (allSetBelow(m_vertices, numVerts))
        return 0;
    const BitVector::Word* words = m_triangles.getWords();
    const int numWords = (numTris + 31) / 32;
    int added = 0;
    for (int w = 0; w < numWords; ++w)
    {
        for (BitVector::Word bits = words[w]; bits != 0; bits &= bits - 1)
        {
            const int t = 32 * w + __builtin_ctz(bits);
            if (t >= numTris)
                break;
            for (int k = 0; k < 3; ++k)
            {
                const int v = tris[3 * std::ptrdiff_t(t) + k];
                if (unsigned(v) < unsigned(numVerts) && !m_vertices.isBitSet(v))
                {
                    m_vertices.setBit(v);
                    ++added;
                }
            }
        }
    }
    return added;
}

int MeshSelect::selectTrianglesRecursive(int maxRings)
{
    fitSizes();
    const int numVerts = m_mesh.getNumVertices();
    const int numSets = std::min(numVerts, m_adjTris.getNumVertices());
    const int numTris = m_mesh.getNumTriangles();
    const int* tris = m_mesh.getTrianglesRaw();

    // Breadth first, one ring per round: `current` holds the triangles selected last round.
    std::vector<int> current, grown;
    for (BitIterator it(m_triangles); it.valid() && it.index() < numTris; it.next())
        current.push_back(it.index());
    int added = 0;
    for (int ring = 0; !current.empty() && (maxRings <= 0 || ring < maxRings); ++ring)
    {
        grown.clear();
        for (const int t : current)
        {
            for (int k = 0; k < 3; ++k)
            {
                const int v = tris[3 * std::ptrdiff_t(t) + k];
                if (unsigned(v) >= unsigned(numSets))
                    continue;
                const int* set = m_adjTris.triIndices(v);
                for (int i = 0, n = m_adjTris.numTris(v); i < n; ++i)
                {
                    const int u = set[i];
                    if (unsigned(u) < unsigned(numTris) && !m_triangles.isBitSet(u))
                    {
                        m_triangles.setBit(u);
                        grown.push_back(u);
                    }
                }
            }
        }
        added += int(grown.size());
        current.swap(grown);
    }
    return added;
}

} // namespace qyGeom
