// Catmull-Clark subdivision of a polygonal half-edge mesh: into a new mesh, in place, or over
// a chosen region only; and vertex normals of a subdivided mesh.
#pragma once

#include "base/Containers.h"
#include "base/Linear.h"
#include "model/TopoMesh.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Refines `mesh` by `levels` levels of Catmull-Clark subdivision into a new mesh. One level
/// turns each n-sided face into n quads (face point, edge point, vertex point, edge point,
/// counter-clockwise like the face) and places:
/// - a face point at the face's centroid;
/// - an edge point at (A + B + F1 + F2) / 4 on an interior edge (ends A, B, face points F1,
///   F2), at the midpoint on a boundary edge;
/// - a vertex point at (Q + 2R + (n - 3) S) / n for an interior vertex S with n faces (Q the
///   average of their face points, R of the midpoints of its edges), at E1/8 + E2/8 + 3S/4
///   for a boundary vertex with its two boundary neighbours E1, E2. A vertex where the
///   boundary passes more than once (several fans) and a vertex that no face uses keep
///   their position.
///
/// The new mesh is built vertices first (face points, edge points, vertex points, each in
/// the order of the input's slots), its twins paired.
///
/// @param[in] mesh    twinned (TopoMesh::meshTwin); unchanged.
/// @param[in] levels  0 or less returns null.
/// @return a new mesh owned by the caller (delete it), or null.
/// Cost: per level O(V + E + F) and the new mesh (4x the half-edges); one level's
///   intermediate mesh lives beside the next one while it is built, then goes.
/// Failure: std::bad_alloc passes through; nothing is left allocated.
QYGEOM_API TopoMesh* computeSubdivMesh(TopoMesh& mesh, int levels);

/// The same, and fills the origin maps (cleared first), all in terms of `mesh`'s entities
/// however many levels were applied:
/// - `faces`: every face of the result to the input face it subdivides;
/// - `edges`: every half-edge of the result that lies on an input half-edge to that
///   half-edge (a half-edge on the twin side maps to the twin); half-edges inside an input
///   face have no entry;
/// - `vertices`: every vertex point of an input vertex to that vertex; face and edge points
///   (and what they became at later levels) have no entry.
/// Failure: on std::bad_alloc the maps are left empty.
QYGEOM_API TopoMesh* computeSubdivMesh(TopoMesh& mesh, int levels,
                                       qy::map<TopoMeshFace, TopoMeshFace>& faces,
                                       qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
                                       qy::map<TopoMeshVertex, TopoMeshVertex>& vertices);

/// Subdivides `mesh` itself by `levels` levels with the rules of computeSubdivMesh: each
/// edge is split at its edge point (TopoMesh::subdivideEdge), the old vertices move to their
/// vertex points, and each face is split into quads around its face point
/// (TopoMesh::subdivideFace joining every other corner). The positions equal those of
/// computeSubdivMesh; the numbering differs. Nothing is done for levels <= 0.
/// @pre mesh is twinned.
/// Notifies: TopoMeshModification(mesh, TopologyChanged) once, when levels > 0 and the mesh
///   has a face.
QYGEOM_API void computeSubdivMeshInPlace(TopoMesh& mesh, int levels);

/// The same, and fills (after clearing them):
/// - `faces`: every face of the result to the face of the input it lies in (an input face
///   keeps its handle and maps to itself);
/// - `edges`: every half-edge that lies on an input half-edge to that half-edge (input
///   half-edges keep their handles and map to themselves);
/// - `vertices`: the input's vertices, which keep their handles (moved to their vertex points).
QYGEOM_API void computeSubdivMeshInPlace(TopoMesh& mesh, int levels,
                                         qy::map<TopoMeshFace, TopoMeshFace>& faces,
                                         qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
                                         qy::unordered_set<TopoMeshVertex>& vertices);

/// Subdivides only a region of a mesh, into a new mesh that holds the refined region and a
/// ring of unrefined faces around it.
///
/// The refined faces are the faces of the region, the faces around its vertices and the
/// faces on both sides of its half-edges. The copy holds them and every face around their
/// corners and those corners' neighbours, so that each refined face's corner has all its
/// faces in the copy.
///
/// Where the refined region meets the ring, the ring is left as it is: a vertex that has
/// an unrefined face keeps its position, and an edge between a refined and an unrefined
/// face is split at its midpoint. The ring's faces keep their shape and gain those midpoints
/// as corners, so the result has no T-junctions: after L levels a ring face has 2^L - 1 new
/// corners on each edge it shares with the region. Inside the region the rules are those
/// of computeSubdivMesh (boundary rules on the input's boundary).
///
/// @param[in] region  entities (vertices, half-edges, faces) of one twinned mesh; entities
///                    that are not alive are ignored. An empty region gives null.
/// @return a new mesh owned by the caller, or null for levels <= 0 or an empty region.
/// Cost: O(copy) per level, plus O(region log region) to collect it; the input is unchanged.
QYGEOM_API TopoMesh* computePartialSubdivMesh(qy::unordered_set<TopoMeshEntity>& region,
                                              int levels);

/// The same, and fills the origin maps (cleared first) in terms of the input mesh, as the
/// maps of computeSubdivMesh: a ring face maps to its input face, each piece of a split
/// border edge to its input half-edge, a ring vertex and a vertex point to its input vertex.
QYGEOM_API TopoMesh* computePartialSubdivMesh(qy::unordered_set<TopoMeshEntity>& region, int levels,
                                              qy::map<TopoMeshFace, TopoMeshFace>& faces,
                                              qy::map<TopoMeshEdge, TopoMeshEdge>& edges,
                                              qy::map<TopoMeshVertex, TopoMeshVertex>& vertices);

/// One unit normal per vertex of a (subdivided) mesh, stored under the vertex in `normals`
/// (cleared first). Each face around the vertex contributes the cross product of its two
/// edges at the vertex, (next - v) x (prev - v): the corner's parallelogram, so a face
/// counts by the area it spans at that corner, which on the near-planar quads of a
/// subdivided mesh is close to area weighting and stays defined on non-planar ones. A vertex
/// whose sum vanishes (or that no face uses) gets an invalid Normal.
/// Cost: O(E) plus the map's O(V log V).
QYGEOM_API void computeSubdivMeshNormals(const TopoMesh& mesh,
                                         qy::map<TopoMeshVertex, qyLinear::Normal>& normals);

} // namespace qyGeom
