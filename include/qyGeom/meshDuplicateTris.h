// Duplicate and degenerate triangles: finding them (into the triangle selection) and
// removing them.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshAdjTris;

/// Replaces the mesh's triangle selection by the triangles to drop, and returns true when
/// there is any:
/// - degenerate triangles: a vertex named twice, or a corner outside [0, V);
/// - duplicates: triangles over the same three vertices as a lower-numbered triangle that is
///   not degenerate, in any rotation and also reversed (a triangle and its back face count
///   as one triangle named twice). The first of each group stays unselected.
///
/// @param adjTris  meshAdjTris of the mesh; the overload without it builds one.
/// Prints "meshDuplicateTris: %d vertices, %d triangles\n" and then
/// "  %d duplicate, %d degenerate: %f s\n" on the debug channel.
/// Cost: O(T x valence), one bit per triangle. Runs on the calling thread.
QYGEOM_API bool meshDuplicateTris(CompactMesh& mesh, const MeshAdjTris& adjTris);
QYGEOM_API bool meshDuplicateTris(CompactMesh& mesh);

/// Deletes the selected triangles (after meshDuplicateTris, the duplicates and degenerate
/// ones) and closes up the triangle array, keeping the order of the others; triangle normals
/// follow. Vertices are kept, also those no triangle uses any more.
/// Notifies: a MeshModification of type Remapped with the triangle map only (vertices keep
/// their numbers) and the triangle normals still valid; nothing when no triangle is selected.
/// Prints "meshRemoveDuplicateTris: %d triangles, %d removed\n".
QYGEOM_API void meshRemoveDuplicateTris(CompactMesh& mesh);

} // namespace qyGeom
