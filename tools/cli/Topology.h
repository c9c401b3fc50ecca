// The topology that `info` reports: edges, pieces, boundary loops, Euler characteristic and
// genus, each piece on its own, over the vertices that triangles use.
#pragma once

#include "model/CompactMesh.h"
#include "qyGeom/meshTopology.h"

namespace qyCli
{

/// What `info` reports of a triangle mesh: the core topology summary (pieces, edges, loops,
/// Euler characteristic and genus over the vertices that triangles use) and the checks of
/// the triangles themselves.
struct TopologySummary
{
    qyGeom::MeshTopology topology;
    int degenerate = 0, duplicates = 0;
    bool oriented = false;
};

/// Measures `mesh` (whose triangle selection it uses as scratch). Degenerate triangles have a
/// repeated corner or no area; duplicates repeat an earlier triangle's corners.
TopologySummary summarizeTopology(qyGeom::CompactMesh& mesh);

} // namespace qyCli
