// Edge swapping: replaces the diagonal of the quadrilateral of two triangles that share an
// edge, when a list of connected veto criteria allows it; sweeps over a whole half-edge mesh
// or a set of its edges. Also the exchange of two indexed meshes' contents.
#pragma once

#include <memory>

#include "base/Containers.h"
#include "base/Signal.h"
#include "model/TopoMesh.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;

/// Decides whether an edge of a TopoMesh is swapped by asking the criteria connected to its
/// veto signal.
///
/// The quad of a half-edge e with a twin names four vertices: a = e's vertex, b = its end,
/// c = the third corner of e's face, d = the third corner of the twin's face:
///
///            c
///          /   \     e's face: (a, b, c)
///         a --e-> b
///          \   /     the twin's face: (b, a, d)
///            d
///
/// Swapping e replaces the diagonal a-b by c-d.
///
/// A criterion is a callback (TopoMeshEdge e, bool& veto) that may set veto to true and
/// never clears it. The four static criteria below can be connected, or called directly.
///
/// Lifetime: the signal is created by the first getVetoSignal() and owned by the swapper
/// until clearVetoSignal() or destruction; its connections live as long as it does. An
/// object whose member is connected must outlive the connection.
/// Threads: one thread at a time uses a swapper.
class QYGEOM_API MeshEdgeSwapper
{
public:
    using VetoSignal = qyRTB::Signal2Args<TopoMeshEdge, bool&>;

    /// A swapper with no signal: it swaps nothing until a criterion is connected.
    MeshEdgeSwapper();
    /// Calls clearVetoSignal().
    virtual ~MeshEdgeSwapper();
    MeshEdgeSwapper(const MeshEdgeSwapper&) = delete;
    MeshEdgeSwapper& operator=(const MeshEdgeSwapper&) = delete;

    /// The veto signal, created on first use. Connect criteria with its connect operations
    /// (free functions, function objects, or an object and one of its member functions);
    /// they are asked in connection order.
    VetoSignal& getVetoSignal();
    /// Destroys the signal and all its connections; the next getVetoSignal() makes a new one.
    void clearVetoSignal();

    /// False when there is no signal, it has no connection, or e has no twin (a boundary
    /// edge). Otherwise emits (e, veto) with veto cleared first: every connected callback
    /// that is neither blocked nor disconnected runs, in connection order, even after one
    /// has vetoed; only stopping the signal ends the emission early. Returns !veto.
    /// @pre e is a live half-edge.
    virtual bool shouldSwap(TopoMeshEdge e);

    // The four criteria read the quad of e, the two triangles on either side of it; each
    // vetoes an edge without a twin (a boundary edge, or one whose neighbour runs the same
    // way on a surface that is not consistently wound), which has no such quad.

    /// Delaunay-style: vetoes unless the swap strictly lowers the sum of the two angles
    /// opposite the diagonal (angle(C; A, B) + angle(D; A, B) against angle(B; C, D) +
    /// angle(A; C, D), each in [0, pi]). Ties, as in a square, keep the current diagonal.
    static void minimizeOppositeAngleSum(TopoMeshEdge e, bool& veto);
    /// Vetoes when a and b are both on the boundary (an edge joining two boundary vertices,
    /// a chord across a strip among them), or when c and d are (the swap would make one).
    static void preserveBoundary(TopoMeshEdge e, bool& veto);
    /// Vetoes unless the signed dihedral angle across the quad's diagonal changes by less
    /// than 2.5 degrees: the crease across a-b, measured with the triangles (a, b, c) and
    /// (b, a, d), against the crease across d-c after the swap. Negative when the far
    /// corner lies above the first triangle's plane (by more than qyLinear::epsilonTol).
    /// A degenerate triangle (no normal) on either side vetoes.
    static void preserveFeatures(TopoMeshEdge e, bool& veto);
    /// Vetoes when the two triangles after the swap, (c, d, b) and (a, d, c), have normals
    /// more than 90 degrees apart (the new diagonal lies outside the quad: the surface would
    /// fold), or when either is degenerate (no normal).
    static void preventFoldover(TopoMeshEdge e, bool& veto);

private:
    std::unique_ptr<VetoSignal> m_vetoSignal; ///< null until first asked for
};

/// One sweep over the whole mesh: walks the edge list from firstEdge() and asks the swapper
/// once per interior edge (for the half-edge that compares lower than its twin), swapping
/// with TopoMesh::swapEdge when it agrees. A swapped edge stays in the list; the walk goes on
/// from it. Returns the number of swaps (a swap that swapEdge refuses does not count).
/// Notifies: TopoMeshModification(mesh, TopologyChanged) once when the count is not 0.
/// Cost: O(E) criterion calls; no allocation.
QYGEOM_API int meshSwapEdgesOnce(TopoMesh& mesh, MeshEdgeSwapper& swapper);
/// The same over the members of `edges` in the set's order. Every member with a twin is
/// asked, both half-edges of a pair included; members of another mesh are skipped.
/// @pre the members of `edges` that belong to `mesh` are live half-edges.
QYGEOM_API int meshSwapEdgesOnce(TopoMesh& mesh, const qy::set<TopoMeshEdge>& edges,
                                 MeshEdgeSwapper& swapper);

/// Sweeps (as meshSwapEdgesOnce) until a sweep swaps nothing; returns the total number of
/// swaps. There is no cap on the number of sweeps: criteria that allow a cycle of swaps never
/// end (with minimizeOppositeAngleSum connected every swap strictly lowers an angle sum, so
/// the sweeps end).
/// Notifies: TopoMeshModification(mesh, TopologyChanged) once at the end, when the total is
/// not 0; a mesh that needs no swap gets no notification.
QYGEOM_API int meshSwapEdgesRepeatedly(TopoMesh& mesh, MeshEdgeSwapper& swapper);
/// The same over the members of `edges` (see the set form of meshSwapEdgesOnce).
QYGEOM_API int meshSwapEdgesRepeatedly(TopoMesh& mesh, const qy::set<TopoMeshEdge>& edges,
                                       MeshEdgeSwapper& swapper);

/// Exchanges the whole contents of two meshes (CompactMesh::swap), then tells each one with
/// a Remapped MeshModification without maps that names every vertex attribute array of
/// either mesh, and polygons, strips and fans, triangle normals, lines and line strips when
/// either mesh has them. a is told first, then b.
QYGEOM_API void meshSwap(CompactMesh& a, CompactMesh& b);

} // namespace qyGeom
