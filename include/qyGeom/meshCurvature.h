// Cotangents of triangle corner angles, and discrete per-vertex curvature (mean, Gaussian,
// principal) by the mixed-Voronoi-area method.
#pragma once

#include "base/Containers.h"
#include "base/Linear.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshAdjTris;
class MeshAdjVertices;
struct MeshVertex;

/// The cotangents of a triangle's interior angles at its first, second and third corner.
/// Trivial, so that large arrays of it are not cleared before they are filled.
struct Cotangents
{
    double value[3];

    double& operator[](int corner) { return value[corner]; }
    double operator[](int corner) const { return value[corner]; }
};

/// What meshCurvature writes per vertex.
enum class MeshCurvature : int
{
    Mean = 0,         ///< signed mean curvature H (a sphere with outward normals: 1 / radius)
    Gaussian = 1,     ///< Gaussian curvature K
    MinPrincipal = 2, ///< the principal curvature of smaller magnitude
    MaxPrincipal = 3  ///< the principal curvature of larger magnitude
    // any other value: 0.0 at every interior vertex
};

/// For every triangle, the cotangents of its corner angles: at corner a with edges to b and c,
/// ((b - a) . (c - a)) / sqrt(|b - a|^2 |c - a|^2 - ((b - a) . (c - a))^2), in double
/// precision. A degenerate triangle gives infinite or NaN entries.
/// @param vertices  the mesh's vertex array or a transformed copy of it (one per vertex)
/// @param[out] out  resized to the triangle count
/// @pre every triangle index lies inside the vertex array
/// Threads: the triangles run in contiguous chunks on the pool.
QYGEOM_API void computeCotangents(const CompactMesh& mesh, const MeshVertex* vertices,
                                  qy::Array<Cotangents>& out);

/// Discrete curvature at every vertex of a triangle mesh, after mapping the mesh by `matrix`.
///
/// A vertex is interior when it has at least 2 neighbours and as many neighbours as triangles
/// (a closed fan). At an interior vertex v, with its triangles ordered around it:
/// - the mean curvature normal S = sum over the edges v-q of (cot a + cot b)(v - q), H = |S| /
///   (4 A), negative when S points against v's normal (unsigned when |S| < epsilonTol);
/// - K = (2 pi - sum of the angles at v) / A;
/// - the principal curvatures H +- sqrt(|H^2 - K|), ordered by magnitude;
/// where A is the mixed area: the Voronoi share of each non-obtuse triangle, half the area of
/// a triangle obtuse at v, a quarter of one obtuse elsewhere.
/// A vertex that is not interior takes the mean of its interior neighbours' values; one with at
/// most 2 neighbours (a corner) then takes the mean of its neighbours with more than 2
/// neighbours (0.0 when none qualify). Isolated vertices get 0.0.
///
/// v's normal is the mesh's normal array when it has one; otherwise the sum of the fan's
/// triangle cross products (the area-weighted normal of a consistently oriented fan), reversed
/// when the matrix mirrors, as a normal array would be mapped.
/// The matrix applies when it differs from the identity by more than epsilonTolFlt: vertices
/// and normals are then mapped into temporary copies.
///
/// @param adjTris, adjVertices  meshAdjTris and meshAdjVertices of the mesh
/// @param[out] out  one float per vertex, in vertex order
/// Threads: each pass runs the vertices in contiguous chunks on the pool; the
/// result does not depend on the thread count.
/// Cost: O(V + T) plus, per vertex, the square of its triangle count to order the fan; one
/// Cotangents (24 bytes) per triangle, and the copies when the matrix is not the identity.
QYGEOM_API void meshCurvature(const CompactMesh& mesh, const MeshAdjTris& adjTris,
                              const MeshAdjVertices& adjVertices,
                              const qyLinear::AffineMatrixFlt& matrix, MeshCurvature kind,
                              float* out);

} // namespace qyGeom
