// The UV layout of a mesh: how far it is from one-to-one (flipped triangles, overlapping
// area), and a drawing of it as an SVG picture.
#pragma once

#include <cstdio>
#include <vector>

#include "model/CompactMesh.h"

namespace qyCli
{

/// What measureUvLayout found.
struct UvLayoutStats
{
    int triangles = 0;       // triangles with UVs on all three corners
    int flipped = 0;         // triangles whose UV orientation opposes the majority's
    int degenerate = 0;      // triangles without UV area
    int overlapping = 0;     // triangles that cover ground that another triangle covers
    double overlapShare = 0; // the share of the covered UV area that is covered more than once
    int gridSize = 0;        // cells along the longer side of the measuring grid
    std::vector<signed char> orientation; // per triangle: +1, -1, or 0 for no area
    std::vector<bool> overlaps;           // per triangle: covers ground covered twice

    /// One-to-one: nothing flipped and nothing covered twice.
    bool oneToOne() const { return flipped == 0 && overlapping == 0; }
};

/// Measures the layout. The orientation of each triangle is the sign of its UV area in double
/// precision; the majority sign is the layout's, triangles of the other sign are flipped.
/// Overlap is measured on a grid over the layout's bounding box (gridSize cells along the
/// longer side): each triangle covers the cells whose centre lies inside it (a centre on a
/// shared edge belongs to exactly one of the two triangles), and the share is the cells
/// covered more than once over the cells covered at all. An overlap thinner than a cell can
/// be missed; flipped triangles are counted exactly. Cost: O(T + cells covered); one byte
/// per cell. Runs on the calling thread.
UvLayoutStats measureUvLayout(const qyGeom::CompactMesh& mesh, int gridSize = 2048);

/// Writes the unit square and one polygon per triangle to `file`: flipped triangles in red,
/// overlapping ones in orange, the others in blue. Returns false, writing nothing, when the
/// mesh has no UVs; the caller checks the writes when it closes the file.
bool writeUvSvg(const qyGeom::CompactMesh& mesh, const UvLayoutStats& stats, std::FILE* file);

} // namespace qyCli
