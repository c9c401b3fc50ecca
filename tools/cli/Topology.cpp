#include "Topology.h"

#include <algorithm>

#include "base/Linear.h"
#include "model/MeshAdjacency.h"
#include "qyGeom/MeshCache.h"
#include "qyGeom/MeshOrient.h"
#include "qyGeom/meshComponents.h"
#include "qyGeom/meshDuplicateTris.h"

namespace qyCli
{

long long TopologySummary::genus() const
{
    long long g = 0;
    for (const TopologyPiece& p : pieces)
        g += p.genus();
    return g;
}

int TopologySummary::piecesWithoutGenus() const
{
    return int(std::count_if(pieces.begin(), pieces.end(),
                             [](const TopologyPiece& p) { return !p.hasGenus(); }));
}

TopologySummary summarizeTopology(qyGeom::CompactMesh& mesh)
{
    TopologySummary out;
    out.triangles = mesh.getNumTriangles();
    qyGeom::SimpleMeshCache cache;
    const auto adjTris = cache.getAdjTris(mesh);
    const auto boundaries = cache.getBoundaries(mesh);
    qy::Array<int> label;
    const int numPieces = qyGeom::meshComponents(mesh, *adjTris, &label);
    out.pieces.resize(std::size_t(numPieces));
    const int* tris = mesh.getTrianglesRaw();
    for (int v = 0; v < mesh.getNumVertices(); ++v)
        if (label[std::size_t(v)] < 0)
            ++out.unreferenced;
        else
            ++out.pieces[std::size_t(label[std::size_t(v)])].vertices;
    out.vertices = mesh.getNumVertices() - out.unreferenced;
    // A triangle that names a vertex twice has no edges and no area: it is not a face of
    // the surface, and counting it would raise the Euler characteristic.
    out.triangles = 0;
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const int* c = tris + 3 * t;
        if (c[0] == c[1] || c[1] == c[2] || c[2] == c[0])
            continue;
        ++out.triangles;
        ++out.pieces[std::size_t(label[std::size_t(c[0])])].triangles;
    }

    // Edges by the number of triangles on them: each is keyed by its smaller vertex, so a
    // sort per vertex suffices. A degenerate triangle has no proper edges.
    std::vector<int> others;
    for (int v = 0; v < adjTris->getNumVertices(); ++v)
    {
        others.clear();
        const int* list = adjTris->triIndices(v);
        for (int i = 0; i < adjTris->numTris(v); ++i)
        {
            const int* t = tris + 3 * list[i];
            if (t[0] == t[1] || t[1] == t[2] || t[2] == t[0])
                continue;
            for (int k = 0; k < 3; ++k)
                if (t[k] == v)
                    for (const int w : {t[(k + 1) % 3], t[(k + 2) % 3]})
                        if (w > v)
                            others.push_back(w);
        }
        std::sort(others.begin(), others.end());
        TopologyPiece* piece =
            label[std::size_t(v)] >= 0 ? &out.pieces[std::size_t(label[std::size_t(v)])] : nullptr;
        for (std::size_t i = 0; i < others.size();)
        {
            std::size_t j = i;
            while (j < others.size() && others[j] == others[i])
                ++j;
            ++out.edges;
            ++piece->edges;
            out.boundaryEdges += j - i == 1;
            out.nonManifoldEdges += j - i > 2;
            piece->nonManifoldEdges += j - i > 2;
            i = j;
        }
    }
    out.boundaryLoops = boundaries->size();
    for (int b = 0; b < boundaries->size(); ++b)
        if (boundaries->getLength(b) > 0)
            ++out.pieces[std::size_t(label[std::size_t(*boundaries->getStart(b))])].boundaryLoops;

    const float* xyz = mesh.getVerticesRaw();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        // A repeated corner, or three corners on one line (or on one point): the two edges
        // from the first corner are parallel, which a zero cross product also says.
        const int* c = tris + 3 * t;
        auto corner = [&](int k)
        {
            const float* p = xyz + 3 * std::ptrdiff_t(c[k]);
            return qyLinear::Point(p[0], p[1], p[2]);
        };
        const qyLinear::Point a = corner(0);
        out.degenerate += c[0] == c[1] || c[1] == c[2] || c[2] == c[0] ||
                          qyLinear::isParallel(corner(1) - a, corner(2) - a);
    }
    out.oriented = qyGeom::meshOriented(mesh, *adjTris);
    // The search selects duplicates and triangles that name a vertex twice; count the former.
    qyGeom::meshDuplicateTris(mesh, *adjTris);
    const qyGeom::BitVector& selected = mesh.getSelectedTriangles();
    for (int t = 0; t < mesh.getNumTriangles(); ++t)
    {
        const int* c = tris + 3 * t;
        out.duplicates += selected.isBitSet(t) && c[0] != c[1] && c[1] != c[2] && c[2] != c[0];
    }
    return out;
}

} // namespace qyCli
