// Triangle and vertex normals of a mesh, and normalisation of normal arrays.
#pragma once

#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class PointMesh;

/// Unit normal of the counter-clockwise triangle p0, p1, p2: (p2 - p1) x (p0 - p1) in double
/// precision, normalised; (0, 0, 1) when the triangle has no direction (zero area).
QYGEOM_API qyLinear::Normal triNormal(const qyLinear::Point& p0, const qyLinear::Point& p1,
                                      const qyLinear::Point& p2);

/// triNormal of triangle `triangle` (3 vertex indices) of the raw vertex array (3V floats).
QYGEOM_API qyLinear::Normal meshTriNormal(const float* vertices, const int* triangle);

/// Per-vertex normals: each vertex gets the normalised sum of the unit normals of the
/// triangles that use it, every triangle counting equally whatever its area or angle. A
/// degenerate triangle adds (0, 0, 1) to its corners; a vertex that no triangle uses, or
/// whose normals cancel, gets (0, 0, 1).
///
/// Creates the normal array if needed and flags it computed. A mesh without vertices is left
/// alone (nothing printed, no notification).
/// Notifies: AttributesChanged with normalsModified.
/// Cost: O(V + T); the accumulation runs on the calling thread, the normalisation on the pool.
QYGEOM_API void meshComputeNormals(CompactMesh& mesh);

/// Per-triangle unit normals (triNormal of each triangle, in single precision), in the mesh's
/// triangle normal array. A mesh without triangles is left alone.
/// Notifies: AttributesChanged with triangleNormalsModified.
QYGEOM_API void meshComputeTriangleNormals(CompactMesh& mesh);

/// Makes the mesh's vertex normals unit length (see the array form). A mesh without a normal
/// array is left alone.
/// Notifies: AttributesChanged with normalsModified.
QYGEOM_API void meshNormalize(PointMesh& mesh);

/// Makes n normals (3n floats) unit length: with s = x*x + y*y + z*z in single precision,
/// each component is multiplied by 1 / sqrt(s) when s exceeds qyLinear::epsilon2Tol, and the
/// normal becomes (0, 0, 1) otherwise (NaN included).
/// Threads: the pool's tasks take even shares; any thread count gives the same floats.
QYGEOM_API void meshNormalize(float* normals, int n);

} // namespace qyGeom
