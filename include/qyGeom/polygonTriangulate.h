// polygonTriangulate: triangles that cover a simple polygon given by its corners in 3D.
#pragma once
#include <vector>

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// The unit normal of the plane that best fits a closed polygon (Newell's method: the sum of
/// the edges' projected areas), oriented so that the corners run counter-clockwise around it.
/// Invalid (Normal::isValid() false) when the polygon has no area in any direction.
QYGEOM_API qyLinear::Normal polygonNormal(int n, const qyLinear::Point* points);

/// Triangulates the simple polygon whose n corners are `points`, in order, by clipping ears in
/// the polygon's best-fit plane (polygonNormal; with no valid normal, the coordinate plane of
/// the largest extent). Each round clips the ear whose smallest angle is largest, so slivers
/// are avoided where the polygon allows. An ear is a convex corner whose triangle holds no
/// other corner; when a polygon has none (it crosses itself after projection, or its corners
/// are collinear), the corner with the largest turn is clipped instead, so the call never
/// fails and always gives n - 2 triangles for n >= 3. Corners with a non-finite coordinate
/// leave no turn to compare: the polygon is then cut into a fan-like strip in loop order, so
/// any input, however broken, gives valid indices and terminates.
///
/// @param[in] points  n corners; consecutive duplicates are allowed (they give zero-area
///   triangles).
/// @param[out] triangles  replaced by 3 (n - 2) corner indices in [0, n), each triangle in the
///   polygon's own turning sense (counter-clockwise around polygonNormal). Empty for n < 3.
/// @return the number of triangles.
/// Cost: O(n^2) time, O(n) memory.
QYGEOM_API int polygonTriangulate(int n, const qyLinear::Point* points,
                                  std::vector<int>& triangles);

} // namespace qyGeom
