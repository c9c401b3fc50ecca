// reparameterizeMesh: conformal flattening of a disk-like triangle mesh into UV coordinates.
#pragma once
#include <memory>
#include <string>
#include <utility>

#include "base/Containers.h"
#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{
class Progress;
}

namespace qyGeom
{

class CompactMesh;

/// How a flattening ended (reparameterizeMesh::status()).
enum class FlattenStatus
{
    Ok,
    Cancelled,          ///< the progress object asked to stop
    NonFiniteVertex,    ///< a triangle corner has an infinite or NaN coordinate
    DegenerateTriangle, ///< a triangle repeats a corner or names a vertex that does not exist
    ShortBoundary,      ///< a boundary loop of fewer than three edges, or one that cannot be traced
    SeveralPieces,      ///< a negative genus: several pieces, or not a surface
    NotADisk,           ///< closed or with handles, and cutting is off
    CutFailed,          ///< cutting to a disk did not give genus 0
    NoOuterBoundary,    ///< no boundary loop has any extent
    SolverFailed,       ///< the solver met negative curvature
    NonFiniteLayout,    ///< the solution is not finite
};

/// Flattens a triangle mesh onto the plane with a conformal (angle-preserving) map and writes
/// the layout as the mesh's per-vertex UVs, fitted into the unit square with its aspect kept.
///
/// The map minimises the cotangent (Dirichlet) energy minus the signed area of the layout, with
/// the two boundary vertices farthest apart along the outer boundary's longest axis pinned to
/// their positions in the boundary's plane; the system is solved by conjugate gradient from the
/// orthographic projection onto that plane. The work happens on a welded copy: inner holes are
/// covered by temporary triangles (the mesh is not changed), and a closed surface or one with
/// handles is cut to a disk first (cutSurface), unless cutting is switched off.
///
/// Every vertex of the caller's mesh receives the UV of the welded vertex it became. After a cut
/// the vertices along the seam therefore carry the UV of one side only; a caller who wants the
/// seam in its own mesh cuts it first (cutSurface) and flattens it with compaction off.
/// Vertices that no triangle uses take no part (the working copy drops them before the genus
/// is counted, so they change nothing for the others) and receive UV (0, 0); a vertex whose
/// triangles all lack area is held at (0, 0) of the layout by the solve.
///
/// Lifetime: keeps a reference to the mesh until destroyed; the mesh must outlive the object.
/// Threads: runs on the calling thread.
class QYGEOM_API reparameterizeMesh
{
public:
    /// Copies `mesh` as the working mesh; compaction and cutting are on.
    explicit reparameterizeMesh(CompactMesh& mesh);
    ~reparameterizeMesh();
    reparameterizeMesh(const reparameterizeMesh&) = delete;
    reparameterizeMesh& operator=(const reparameterizeMesh&) = delete;

    /// Whether the working copy stays welded (default true). Off, the weld is undone when it
    /// changes the number of boundary loops.
    void enableMeshCompact(bool enable);
    /// Whether a mesh that is closed or has handles may be cut to a disk (default true).
    void enableMeshCutSurface(bool enable);

    /// flatten(Progress&) with a progress object of its own. Each run starts from the mesh as it
    /// is at the call.
    bool flatten();
    /// Computes the layout and writes it into the mesh's UVs.
    /// @return true when UVs were written. False on cancellation, a degenerate triangle (two
    ///   equal corners or an index outside the vertex array), a boundary loop shorter than three
    ///   edges, several components (negative genus), a closed or higher-genus mesh with cutting
    ///   off or a cut that fails, no outer boundary, or a solver failure; the mesh is then
    ///   untouched.
    /// Progress: "Copying Mesh" 0.025, "Finding Mesh Boundaries" 0.1, "Getting Extreme
    ///   Vertices" 0.025, "Creating Plane" 0.025, free index 0.025, "Filling Mesh Holes" 0.025,
    ///   "Solving" 0.75, "Applying to Mesh" 0.025; cancellation is polled after each step and
    ///   inside assembly and solve.
    /// Debug channel: the solve's statistics: "doCG: %d unknowns, %d hole triangles\n",
    ///   "  assembled %d entries: %f s\n", "  solved in %d steps, relative residual %g: %f
    ///   s\n". Application output, as info lines: the genus lines ("getMeshGenus: ...",
    ///   "- - - MeshReparameterize: genus = %d\n", "- - - MeshReparameterize: outerBoundary =
    ///   %d\n"), the compaction check ("prepareMesh: ..."), the plane choice, the solver's
    ///   progress and result; as an error line, "There must be a boundary for the disk, none
    ///   found. No changes made.\n".
    /// Notifies: AttributesChanged with uvsModified.
    /// Cost: the solve dominates: at most 2V - 4 conjugate-gradient steps on 2V - 4 unknowns.
    bool flatten(qyUtil::Progress& progress);

    /// How the last flatten() ended: Ok before the first run and after a success. The
    /// flattening never reports success with a non-finite UV: a triangle corner with an
    /// infinite or NaN coordinate is refused before any work (NonFiniteVertex), and a solution
    /// that is not finite (vertices spanning too many orders of magnitude) is refused before
    /// it is applied (NonFiniteLayout).
    FlattenStatus status() const;
    /// The status as a phrase for a message ("a boundary loop has fewer than three edges",
    /// "cancelled", ...; for NonFiniteVertex it names the caller's vertex); empty for Ok.
    const std::string& failureReason() const;
    /// The phrase of a status, as failureReason() gives it (without a vertex number).
    static const char* describe(FlattenStatus status);

    /// One boundary edge of the working mesh: (start, end) vertex indices.
    using boundaryEdge = std::pair<int, int>;
    /// A boundary loop as its edges in order; the last ends where the first starts.
    using Boundary = qy::vector<boundaryEdge>;

private:
    // The working copy, its cache and the steps of the flattening.
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace qyGeom
