// The axis-aligned bounding box of a mesh's vertices.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class BitVector;
class BoundingBox;
class PointMesh;

/// Sets `box` to the extents of the mesh's vertices. A mesh without vertices gives the empty
/// box (min = (FLT_MAX, FLT_MAX, FLT_MAX), max = -min).
/// Threads: the pool's tasks take even shares of the vertices; the result does not depend on
/// the thread count. Prints "meshBoundingBox: %d vertices  %f s\n".
QYGEOM_API void meshBoundingBox(const PointMesh& mesh, BoundingBox& box);

/// The same over the vertices whose bit is set in `selection` (null: all vertices); an empty
/// selection gives the empty box. @pre selection->size() >= vertex count
QYGEOM_API void meshBoundingBox(const PointMesh& mesh, BoundingBox& box,
                                const BitVector* selection);

/// The same box as two corners of 3 doubles each.
QYGEOM_API void meshBoundingBox(const PointMesh& mesh, double* min, double* max);

} // namespace qyGeom
