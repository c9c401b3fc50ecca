// Smoothing of the selected vertices of a mesh, in place: one step of uniform Laplacian
// averaging, or one step of feature-preserving bilateral denoising along the vertex normals.
#pragma once

#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{
class Progress;
}

namespace qyGeom
{

class CompactMesh;
class MeshAdjVertices;

/// One step of uniform Laplacian smoothing: every vertex selected in the mesh's vertex
/// selection moves to the plain average of its adjacent vertices (itself excluded), summed in
/// single precision in adjacency order and divided by their count. No weights and no border
/// rule: a selected border vertex is averaged like any other, so open borders shrink. Every
/// new position is computed from the unchanged mesh and all are written at the end, so the
/// result does not depend on the order of the vertices.
///
/// @param[in,out] mesh       positions of the selected vertices are rewritten; nothing else.
/// @param[in]     adjacency  meshAdjVertices of this mesh (one record per vertex).
/// @param[in,out] progress   polled every 1000 selected vertices; no caption is set.
///
/// @pre adjacency was built from this mesh. A selected vertex without neighbours gets the
///   average 0 / 0: not-a-number coordinates. Selection bits past the vertex count are ignored.
/// Cancel:   leaves every position as it was and sends no notice.
/// Notifies: PositionsChanged with no flags, once, also when nothing is selected.
/// Cost:     O(selected vertices + their neighbours); one array of 16 bytes per selected
///   vertex holds the new positions until the write-back.
/// Threads:  the selected vertices are shared over the pool; any thread count gives the same
///   floats.
QYGEOM_API void meshSmoothLaplacian(CompactMesh& mesh, const MeshAdjVertices& adjacency,
                                    qyUtil::Progress& progress);

/// One step of bilateral denoising: every selected vertex v at p moves along its unit normal n
/// by a weighted mean of its neighbours' heights h above the tangent plane (p, n).
///
/// The neighbours are found by a depth-first flood over `adjacency` from v that enters only
/// vertices within distance `sigma` of p: a vertex outside that ball stops the flood there,
/// even when the ball holds vertices beyond it. With N neighbours of mean height m and height
/// variance s2 = (1/N) sum (h - m)^2, v keeps its place when N is 0 or s2 < epsilonTol;
/// otherwise, with d2 a neighbour's squared distance from p,
///   wc = exp(-d2 / (2 sigma^2)), ws = exp(-h^2 / (2 s2)),
///   S = sum h wc ws, W = sum wc ws (in double precision),
/// and v moves to p + n S / W, unless W < epsilonTol. All new positions are computed from the
/// unchanged mesh and written at the end.
///
/// @param[in,out] mesh       positions of the selected vertices are rewritten; its per-vertex
///                           normals are read (normalised here, so any length will do).
/// @param[in]     adjacency  meshAdjVertices of this mesh.
/// @param[in]     sigma      in mesh units: the spatial Gaussian's sigma and the radius of the
///                           neighbourhood (it enters squared, so its sign does not matter).
/// @param[in,out] progress   polled every 1000 selected vertices; no caption is set.
///
/// @pre adjacency was built from this mesh.
/// Failure:  a mesh without normals is left unchanged and the application output says
///   "Smoothing needs vertex normals, none found. No changes made.\n". A selected vertex whose
///   normal has no direction (zero or not finite) keeps its place.
/// Cancel:   leaves every position as it was and sends no notice.
/// Notifies: PositionsChanged with no flags, once, when at least one vertex is selected.
/// Cost:     O(selected vertices x their neighbourhoods); 16 bytes per selected vertex for the
///   results, and per thread 4 bytes per mesh vertex of visit stamps (never cleared between
///   vertices) and a stack reserved to 1000 entries.
/// Threads:  the selected vertices are shared over the pool; any thread count gives the same
///   floats.
QYGEOM_API void meshSmoothBilateral(CompactMesh& mesh, const MeshAdjVertices& adjacency,
                                    double sigma, qyUtil::Progress& progress);

} // namespace qyGeom
