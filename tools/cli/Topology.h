// The topology that `info` reports: edges, pieces, boundary loops, Euler characteristic and
// genus, each piece on its own, over the vertices that triangles use.
#pragma once

#include <vector>

#include "model/CompactMesh.h"

namespace qyCli
{

/// One connected piece (triangles joined through shared vertices).
struct TopologyPiece
{
    int vertices = 0, triangles = 0, boundaryLoops = 0, nonManifoldEdges = 0;
    long long edges = 0;
    long long euler() const { return vertices - edges + triangles; }
    /// From chi = 2 - 2g - b; meaningful only for a surface (hasGenus()).
    long long genus() const { return (2 - boundaryLoops - euler()) / 2; }
    /// A surface: no non-manifold edge, and 2 - b - chi even and not negative (a vertex
    /// where two sheets touch breaks that).
    bool hasGenus() const
    {
        const long long twice = 2 - boundaryLoops - euler();
        return nonManifoldEdges == 0 && twice >= 0 && twice % 2 == 0;
    }
};

struct TopologySummary
{
    int vertices = 0;     ///< vertices that some triangle uses
    int unreferenced = 0; ///< vertices that no triangle uses, left out of the counts below
    int triangles = 0;    ///< triangles with three distinct corners
    long long edges = 0;
    int boundaryEdges = 0, nonManifoldEdges = 0, boundaryLoops = 0;
    int degenerate = 0, duplicates = 0;
    bool oriented = false;
    std::vector<TopologyPiece> pieces; ///< in the order of their lowest triangle

    long long euler() const { return vertices - edges + triangles; }
    /// The sum of the pieces' genus.
    long long genus() const;
    /// Pieces that are not surfaces (see TopologyPiece::hasGenus).
    int piecesWithoutGenus() const;
};

/// Measures `mesh` (whose triangle selection it uses as scratch). Degenerate triangles have a
/// repeated corner or no area; duplicates repeat an earlier triangle's corners.
TopologySummary summarizeTopology(qyGeom::CompactMesh& mesh);

} // namespace qyCli
