// Mesh reduction: removes interior vertices, flattest first, re-triangulating each hole by
// edge swaps; to a fraction of the vertices or within a distance tolerance.
#pragma once

#include "base/Containers.h"
#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{
class Progress;
}

namespace qyGeom
{

class CompactMesh;

/// Removes interior vertices of a triangle mesh until it has `fraction` of its starting
/// vertex count (truncated toward zero), or until no more can go. The flattest vertices
/// (smallest distance to their fan's least-squares plane) go first, in passes over
/// independent sets; each hole is closed by edge swaps that never fold the surface, then
/// improved by swaps that lower the angles opposite its new edges. Boundary vertices are never
/// removed, so open borders keep their exact shape; the surviving vertices keep their
/// positions and per-vertex data.
///
/// @param[in,out] mesh      a triangle mesh; its vertex and triangle selections are used as
///                          scratch and end cleared
/// @param[in]     fraction  target share of the vertices; 1 or more (or NaN) removes nothing,
///                          0 or less removes all that can go
/// @param[in,out] progress  reports removed / (start - target); polled every 100 removals
/// @param[out]    removed   the positions of the removed vertices are appended (the vector is
///                          not cleared first), in order of removal
/// Notifies: one Remapped MeshModification per merged batch of removals.
/// Cancel: stops within the running batch; the removals merged so far stay, and `removed`
///   holds every appended position. The mesh is always valid.
/// Threads: the flatness order is sorted on the shared pool; the result does not depend on
///   the thread count.
/// Cost: about 5 passes for a quarter of the vertices; each pass rebuilds the adjacency and
///   converts the two rings around its candidates to a half-edge mesh and back.
QYGEOM_API void meshReduceToFraction(CompactMesh& mesh, double fraction, qyUtil::Progress& progress,
                                     qy::vector<qyLinear::Point>& removed);

/// Removes interior vertices as meshReduceToFraction does, but only those whose removal keeps
/// every vertex removed so far within `tolerance` of the reduced surface (distance to the
/// nearest point of the triangles that replace its own), and only vertices whose fan lies
/// within `tolerance` of its plane. Returns the largest distance from a removed vertex to the
/// reduced mesh that was measured when the removed points were attached to their nearest
/// triangles (0 when no such search ran); it never exceeds `tolerance`.
/// Prints "meshReduce: iterations(%d): %f s\n".
/// Cancel: also polled every 1000 points while the removed points are attached.
QYGEOM_API double meshReduceWithTolerance(CompactMesh& mesh, double tolerance,
                                          qyUtil::Progress& progress,
                                          qy::vector<qyLinear::Point>& removed);

} // namespace qyGeom
