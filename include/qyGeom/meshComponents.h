// Connected components of a mesh's triangles.
#pragma once

#include "base/Containers.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshAdjTris;
class TopoMesh;

/// Number of connected components of the triangles, where triangles that share a vertex are
/// connected (so two triangles touching at one vertex form one component, shared edges are
/// not needed). Components are numbered 0, 1, 2 ... in the order of their lowest triangle.
///
/// @param adjTris  meshAdjTris of the mesh. The components are found from the triangles
///                 directly (union-find over their corners), so the sets are not read; the
///                 parameter stays for callers that hold them.
/// @param labels   when not null, resized to V and set to each vertex's component, -1 for
///                 vertices that no triangle uses.
/// Triangles with an index outside [0, V) belong to no component.
///
/// Prints "meshComponents(): %d triangles\n" and then "   %d components: %f s\n" on the debug
/// channel. Cost: O(V + T α(V)); two arrays of V ints. Runs on the calling thread.
QYGEOM_API int meshComponents(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                              qy::Array<int>* labels = nullptr);

/// Number of connected components of a half-edge mesh's faces, connected as above through
/// shared vertices, numbered in the order of their lowest face slot.
///
/// @param labels  when not null, resized to the mesh's vertex capacity and set to each vertex
///                slot's component, -1 for free slots and vertices that no face uses.
///
/// Prints "meshComponents(): %d faces\n" and then "   %d components: %f s\n" on the debug
/// channel. Cost: O(V + E α(V)); two arrays of V ints. Runs on the calling thread.
QYGEOM_API int meshComponents(TopoMesh& mesh, qy::Array<int>* labels = nullptr);

} // namespace qyGeom
