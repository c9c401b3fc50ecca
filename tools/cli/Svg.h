// The UV layout of a mesh drawn as an SVG picture.
#pragma once

#include <cstdio>

#include "model/CompactMesh.h"

namespace qyCli
{

/// Counts of what writeUvSvg drew.
struct UvLayoutStats
{
    int triangles = 0; // polygons drawn (one per triangle with UVs on all three corners)
    int flipped = 0;   // triangles whose UV orientation opposes the majority's
    int degenerate = 0;
};

/// Orientation of each triangle in UV: +1, -1, or 0 for no area. The majority sign is the
/// layout's orientation; triangles of the other sign are flipped.
UvLayoutStats measureUvLayout(const qyGeom::CompactMesh& mesh);

/// Writes the unit square and one polygon per triangle (flipped ones in red) to `file`.
/// Returns false, writing nothing, when the mesh has no UVs; the caller checks the writes
/// when it closes the file.
bool writeUvSvg(const qyGeom::CompactMesh& mesh, std::FILE* file, UvLayoutStats& stats);

} // namespace qyCli
