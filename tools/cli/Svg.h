// The UV layout of a mesh drawn as an SVG picture.
#pragma once

#include <string>

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

/// Writes the unit square and one polygon per triangle (flipped ones in red) to `path`.
/// The mesh must have UVs. Returns false when the file cannot be written.
bool writeUvSvg(const qyGeom::CompactMesh& mesh, const std::string& path, UvLayoutStats& stats);

} // namespace qyCli
