// MeshCache: derived structures of a mesh (adjacency, boundaries, octrees), built on first
// request and shared by reference until the mesh changes.
#pragma once

#include <memory>

#include "base/Reference.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class CompactMesh;
class MeshAdjTris;
class MeshAdjVertices;
class MeshBoundaries;
class MeshEdges;
class MeshTopology;
class Octree;
class OctreeLines;
class OctreeTris;
class RayTracer;

/// Hands out the derived structures of a CompactMesh, computing each on its first request.
/// The public getters are the same for every cache: on a miss they fetch the inputs through
/// the other getters (so those are cached too), build the structure, store it with the
/// matching set-Impl and return it. Subclasses decide how structures are stored and when they
/// are dropped. A structure handed out stays alive while the caller holds its reference, even
/// after the cache has dropped it.
/// Threads: a cache is not locked; one thread uses it at a time.
class QYGEOM_API MeshCache
{
public:
    virtual ~MeshCache();

    /// Vertex-to-triangle sets (built with meshAdjTris).
    qy::Reference<MeshAdjTris> getAdjTris(const CompactMesh& mesh);
    /// Vertex-to-vertex records (built with meshAdjVertices over getAdjTris).
    qy::Reference<MeshAdjVertices> getAdjVertices(const CompactMesh& mesh);
    /// Boundary loops (meshComputeBoundary over getAdjTris and getAdjVertices).
    qy::Reference<MeshBoundaries> getBoundaries(const CompactMesh& mesh);
    /// Octree over the mesh's vertices in their bounding box, with a depth limit of maxDepth
    /// when it is positive and 16 otherwise. A cached octree is returned whatever its depth
    /// limit: one octree is kept per mesh.
    qy::Reference<Octree> getOctree(const CompactMesh& mesh, int maxDepth);
    /// Triangles per voxel of getOctree(mesh, -1) (computeOctreeTris).
    qy::Reference<OctreeTris> getOctreeTris(const CompactMesh& mesh);
    /// Lines per voxel of getOctree(mesh, -1) (meshOctreeLines).
    qy::Reference<OctreeLines> getOctreeLines(const CompactMesh& mesh);
    /// Undirected edges (meshEdges).
    qy::Reference<MeshEdges> getEdges(const CompactMesh& mesh);
    /// Topology summary (meshTopology over getEdges and getBoundaries).
    qy::Reference<MeshTopology> getTopology(const CompactMesh& mesh);
    /// Bounding-volume hierarchy for ray casting over the triangles (RayTracer). Its queries
    /// may run on any number of threads at once, the cache itself on one.
    qy::Reference<RayTracer> getRayTracer(const CompactMesh& mesh);

protected:
    MeshCache() = default;
    MeshCache(const MeshCache&) = delete;
    MeshCache& operator=(const MeshCache&) = delete;

    /// The stored structure of the mesh, or null. The virtual operations keep this order.
    virtual qy::Reference<MeshAdjTris> getAdjTrisImpl(const CompactMesh& mesh) = 0;
    virtual qy::Reference<MeshAdjVertices> getAdjVerticesImpl(const CompactMesh& mesh) = 0;
    virtual qy::Reference<Octree> getOctreeImpl(const CompactMesh& mesh) = 0;
    virtual qy::Reference<OctreeTris> getOctreeTrisImpl(const CompactMesh& mesh) = 0;
    virtual qy::Reference<OctreeLines> getOctreeLinesImpl(const CompactMesh& mesh) = 0;
    virtual qy::Reference<MeshBoundaries> getBoundariesImpl(const CompactMesh& mesh) = 0;
    /// Stores a structure of the mesh, replacing (and releasing) the one stored before.
    virtual void setAdjTrisImpl(const CompactMesh& mesh, qy::Reference<MeshAdjTris> s) = 0;
    virtual void setAdjVerticesImpl(const CompactMesh& mesh, qy::Reference<MeshAdjVertices> s) = 0;
    virtual void setOctreeImpl(const CompactMesh& mesh, qy::Reference<Octree> s) = 0;
    virtual void setOctreeTrisImpl(const CompactMesh& mesh, qy::Reference<OctreeTris> s) = 0;
    virtual void setOctreeLinesImpl(const CompactMesh& mesh, qy::Reference<OctreeLines> s) = 0;
    virtual void setBoundariesImpl(const CompactMesh& mesh, qy::Reference<MeshBoundaries> s) = 0;
    /// The edges and the topology summary. These came after the others: a cache that does not
    /// override them stores nothing, and every request builds them anew.
    virtual qy::Reference<MeshEdges> getEdgesImpl(const CompactMesh& mesh);
    virtual qy::Reference<MeshTopology> getTopologyImpl(const CompactMesh& mesh);
    virtual void setEdgesImpl(const CompactMesh& mesh, qy::Reference<MeshEdges> s);
    virtual void setTopologyImpl(const CompactMesh& mesh, qy::Reference<MeshTopology> s);
    /// The ray-casting hierarchy, after the edges and topology, with the same default.
    virtual qy::Reference<RayTracer> getRayTracerImpl(const CompactMesh& mesh);
    virtual void setRayTracerImpl(const CompactMesh& mesh, qy::Reference<RayTracer> s);
};

/// A cache that keeps every structure of a mesh until the mesh is modified or destroyed.
/// The first request for a mesh subscribes the cache to the mesh's destroyed and modified
/// signals; either drops all the structures of that mesh at once, whatever the modification
/// record says, and the next request rebuilds. Meshes are told apart by their address.
/// The cache may be destroyed before or after the meshes it has seen.
class QYGEOM_API SimpleMeshCache : public MeshCache
{
public:
    SimpleMeshCache();
    ~SimpleMeshCache() override;

    /// Drops every structure of every mesh and all subscriptions.
    void clear();
    /// Number of meshes that currently have an entry.
    int getNumMeshes() const;

protected:
    qy::Reference<MeshAdjTris> getAdjTrisImpl(const CompactMesh& mesh) override;
    qy::Reference<MeshAdjVertices> getAdjVerticesImpl(const CompactMesh& mesh) override;
    qy::Reference<Octree> getOctreeImpl(const CompactMesh& mesh) override;
    qy::Reference<OctreeTris> getOctreeTrisImpl(const CompactMesh& mesh) override;
    qy::Reference<OctreeLines> getOctreeLinesImpl(const CompactMesh& mesh) override;
    qy::Reference<MeshBoundaries> getBoundariesImpl(const CompactMesh& mesh) override;
    void setAdjTrisImpl(const CompactMesh& mesh, qy::Reference<MeshAdjTris> s) override;
    void setAdjVerticesImpl(const CompactMesh& mesh, qy::Reference<MeshAdjVertices> s) override;
    void setOctreeImpl(const CompactMesh& mesh, qy::Reference<Octree> s) override;
    void setOctreeTrisImpl(const CompactMesh& mesh, qy::Reference<OctreeTris> s) override;
    void setOctreeLinesImpl(const CompactMesh& mesh, qy::Reference<OctreeLines> s) override;
    void setBoundariesImpl(const CompactMesh& mesh, qy::Reference<MeshBoundaries> s) override;
    qy::Reference<MeshEdges> getEdgesImpl(const CompactMesh& mesh) override;
    qy::Reference<MeshTopology> getTopologyImpl(const CompactMesh& mesh) override;
    void setEdgesImpl(const CompactMesh& mesh, qy::Reference<MeshEdges> s) override;
    void setTopologyImpl(const CompactMesh& mesh, qy::Reference<MeshTopology> s) override;
    qy::Reference<RayTracer> getRayTracerImpl(const CompactMesh& mesh) override;
    void setRayTracerImpl(const CompactMesh& mesh, qy::Reference<RayTracer> s) override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace qyGeom
