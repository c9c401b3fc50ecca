#include "qyGeom/MeshCache.h"

#include <map>
#include <tuple>

#include "base/Signal.h"
#include "model/BoundingBox.h"
#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/Octree.h"
#include "model/OctreeTris.h"
#include "qyGeom/meshAdjacency.h"
#include "qyGeom/meshBoundary.h"
#include "qyGeom/meshBoundingBox.h"
#include "qyGeom/meshOctree.h"
#include "qyGeom/meshRayIntersect.h"
#include "qyGeom/meshTopology.h"

namespace qyGeom
{

namespace
{
// Depth limit of the vertex octree when the caller names none.
constexpr int defaultOctreeDepth = 16;
} // namespace

MeshCache::~MeshCache() = default;

qy::Reference<MeshAdjTris> MeshCache::getAdjTris(const CompactMesh& mesh)
{
    if (qy::Reference<MeshAdjTris> cached = getAdjTrisImpl(mesh))
        return cached;
    qy::Reference<MeshAdjTris> built = qy::makeReference<MeshAdjTris>();
    meshAdjTris(mesh, *built);
    setAdjTrisImpl(mesh, built);
    return built;
}

qy::Reference<MeshAdjVertices> MeshCache::getAdjVertices(const CompactMesh& mesh)
{
    if (qy::Reference<MeshAdjVertices> cached = getAdjVerticesImpl(mesh))
        return cached;
    const qy::Reference<MeshAdjTris> adjTris = getAdjTris(mesh);
    qy::Reference<MeshAdjVertices> built = qy::makeReference<MeshAdjVertices>();
    meshAdjVertices(mesh, *adjTris, *built);
    setAdjVerticesImpl(mesh, built);
    return built;
}

qy::Reference<MeshBoundaries> MeshCache::getBoundaries(const CompactMesh& mesh)
{
    if (qy::Reference<MeshBoundaries> cached = getBoundariesImpl(mesh))
        return cached;
    const qy::Reference<MeshAdjTris> adjTris = getAdjTris(mesh);
    const qy::Reference<MeshAdjVertices> adjVertices = getAdjVertices(mesh);
    qy::Reference<MeshBoundaries> built = qy::makeReference<MeshBoundaries>();
    meshComputeBoundary(mesh, *adjTris, *adjVertices, *built);
    setBoundariesImpl(mesh, built);
    return built;
}

qy::Reference<Octree> MeshCache::getOctree(const CompactMesh& mesh, int maxDepth)
{
    if (qy::Reference<Octree> cached = getOctreeImpl(mesh))
        return cached;
    BoundingBox box; // starts empty
    meshBoundingBox(mesh, box);
    qy::Reference<Octree> built(new Octree(mesh.getNumVertices(), mesh.getVerticesRaw(), box, true,
                                           maxDepth > 0 ? maxDepth : defaultOctreeDepth));
    setOctreeImpl(mesh, built);
    return built;
}

qy::Reference<OctreeTris> MeshCache::getOctreeTris(const CompactMesh& mesh)
{
    if (qy::Reference<OctreeTris> cached = getOctreeTrisImpl(mesh))
        return cached;
    const qy::Reference<Octree> octree = getOctree(mesh, -1);
    qy::Reference<OctreeTris> built = qy::makeReference<OctreeTris>();
    computeOctreeTris(mesh, *octree, *built);
    setOctreeTrisImpl(mesh, built);
    return built;
}

qy::Reference<OctreeLines> MeshCache::getOctreeLines(const CompactMesh& mesh)
{
    if (qy::Reference<OctreeLines> cached = getOctreeLinesImpl(mesh))
        return cached;
    const qy::Reference<Octree> octree = getOctree(mesh, -1);
    qy::Reference<OctreeLines> built = qy::makeReference<OctreeLines>();
    meshOctreeLines(mesh, *octree, *built);
    setOctreeLinesImpl(mesh, built);
    return built;
}

qy::Reference<MeshEdges> MeshCache::getEdges(const CompactMesh& mesh)
{
    if (qy::Reference<MeshEdges> cached = getEdgesImpl(mesh))
        return cached;
    qy::Reference<MeshEdges> built = qy::makeReference<MeshEdges>();
    meshEdges(mesh, *built);
    setEdgesImpl(mesh, built);
    return built;
}

qy::Reference<MeshTopology> MeshCache::getTopology(const CompactMesh& mesh)
{
    if (qy::Reference<MeshTopology> cached = getTopologyImpl(mesh))
        return cached;
    const qy::Reference<MeshEdges> edges = getEdges(mesh);
    const qy::Reference<MeshBoundaries> boundaries = getBoundaries(mesh);
    qy::Reference<MeshTopology> built = qy::makeReference<MeshTopology>();
    meshTopology(mesh, *edges, *boundaries, *built);
    setTopologyImpl(mesh, built);
    return built;
}

qy::Reference<RayTracer> MeshCache::getRayTracer(const CompactMesh& mesh)
{
    if (qy::Reference<RayTracer> cached = getRayTracerImpl(mesh))
        return cached;
    qy::Reference<RayTracer> built = qy::makeReference<RayTracer>(mesh);
    setRayTracerImpl(mesh, built);
    return built;
}

qy::Reference<MeshEdges> MeshCache::getEdgesImpl(const CompactMesh&)
{
    return {};
}

qy::Reference<MeshTopology> MeshCache::getTopologyImpl(const CompactMesh&)
{
    return {};
}

void MeshCache::setEdgesImpl(const CompactMesh&, qy::Reference<MeshEdges>) {}

void MeshCache::setTopologyImpl(const CompactMesh&, qy::Reference<MeshTopology>) {}

qy::Reference<RayTracer> MeshCache::getRayTracerImpl(const CompactMesh&)
{
    return {};
}

void MeshCache::setRayTracerImpl(const CompactMesh&, qy::Reference<RayTracer>) {}

// ---------------------------------------------------------------------------------------------

namespace
{

// The handles of one mesh, and the two subscriptions that drop them. Erasing the entry
// disconnects both, so a mesh is subscribed to at most once per cache.
struct Entry
{
    std::tuple<qy::Reference<MeshAdjTris>, qy::Reference<MeshAdjVertices>, qy::Reference<Octree>,
               qy::Reference<OctreeTris>, qy::Reference<OctreeLines>, qy::Reference<MeshBoundaries>,
               qy::Reference<MeshEdges>, qy::Reference<MeshTopology>, qy::Reference<RayTracer>>
        handles;
    qyRTB::ScopedConnection destroyed;
    qyRTB::ScopedConnection modified;
};

} // namespace

struct SimpleMeshCache::Impl
{
    // Keyed by the mesh's entity address: the signals report the entity, not the mesh.
    std::map<const qyRTB::Entity*, Entry> entries;

    Entry& lookup(const CompactMesh& mesh)
    {
        const qyRTB::Entity* key = &mesh;
        auto found = entries.find(key);
        if (found != entries.end())
            return found->second;
        Entry& entry = entries[key];
        entry.destroyed = mesh.getDestroyedSignal().connect([this](const qyRTB::Entity* entity)
                                                            { entries.erase(entity); });
        entry.modified = mesh.getModifiedSignal().connect(
            [this](const qyRTB::EntityModification& record) { entries.erase(record.getEntity()); });
        return entry;
    }

    template <class T> qy::Reference<T> get(const CompactMesh& mesh)
    {
        return std::get<qy::Reference<T>>(lookup(mesh).handles);
    }

    template <class T> void set(const CompactMesh& mesh, qy::Reference<T> s)
    {
        std::get<qy::Reference<T>>(lookup(mesh).handles) = std::move(s);
    }
};

SimpleMeshCache::SimpleMeshCache() : m_impl(std::make_unique<Impl>()) {}

SimpleMeshCache::~SimpleMeshCache() = default;

void SimpleMeshCache::clear()
{
    m_impl->entries.clear();
}

int SimpleMeshCache::getNumMeshes() const
{
    return int(m_impl->entries.size());
}

qy::Reference<MeshAdjTris> SimpleMeshCache::getAdjTrisImpl(const CompactMesh& mesh)
{
    return m_impl->get<MeshAdjTris>(mesh);
}

qy::Reference<MeshAdjVertices> SimpleMeshCache::getAdjVerticesImpl(const CompactMesh& mesh)
{
    return m_impl->get<MeshAdjVertices>(mesh);
}

qy::Reference<Octree> SimpleMeshCache::getOctreeImpl(const CompactMesh& mesh)
{
    return m_impl->get<Octree>(mesh);
}

qy::Reference<OctreeTris> SimpleMeshCache::getOctreeTrisImpl(const CompactMesh& mesh)
{
    return m_impl->get<OctreeTris>(mesh);
}

qy::Reference<OctreeLines> SimpleMeshCache::getOctreeLinesImpl(const CompactMesh& mesh)
{
    return m_impl->get<OctreeLines>(mesh);
}

qy::Reference<MeshBoundaries> SimpleMeshCache::getBoundariesImpl(const CompactMesh& mesh)
{
    return m_impl->get<MeshBoundaries>(mesh);
}

void SimpleMeshCache::setAdjTrisImpl(const CompactMesh& mesh, qy::Reference<MeshAdjTris> s)
{
    m_impl->set(mesh, std::move(s));
}

void SimpleMeshCache::setAdjVerticesImpl(const CompactMesh& mesh, qy::Reference<MeshAdjVertices> s)
{
    m_impl->set(mesh, std::move(s));
}

void SimpleMeshCache::setOctreeImpl(const CompactMesh& mesh, qy::Reference<Octree> s)
{
    m_impl->set(mesh, std::move(s));
}

void SimpleMeshCache::setOctreeTrisImpl(const CompactMesh& mesh, qy::Reference<OctreeTris> s)
{
    m_impl->set(mesh, std::move(s));
}

void SimpleMeshCache::setOctreeLinesImpl(const CompactMesh& mesh, qy::Reference<OctreeLines> s)
{
    m_impl->set(mesh, std::move(s));
}

void SimpleMeshCache::setBoundariesImpl(const CompactMesh& mesh, qy::Reference<MeshBoundaries> s)
{
    m_impl->set(mesh, std::move(s));
}

qy::Reference<MeshEdges> SimpleMeshCache::getEdgesImpl(const CompactMesh& mesh)
{
    return m_impl->get<MeshEdges>(mesh);
}

qy::Reference<MeshTopology> SimpleMeshCache::getTopologyImpl(const CompactMesh& mesh)
{
    return m_impl->get<MeshTopology>(mesh);
}

void SimpleMeshCache::setEdgesImpl(const CompactMesh& mesh, qy::Reference<MeshEdges> s)
{
    m_impl->set(mesh, std::move(s));
}

void SimpleMeshCache::setTopologyImpl(const CompactMesh& mesh, qy::Reference<MeshTopology> s)
{
    m_impl->set(mesh, std::move(s));
}

qy::Reference<RayTracer> SimpleMeshCache::getRayTracerImpl(const CompactMesh& mesh)
{
    return m_impl->get<RayTracer>(mesh);
}

void SimpleMeshCache::setRayTracerImpl(const CompactMesh& mesh, qy::Reference<RayTracer> s)
{
    m_impl->set(mesh, std::move(s));
}

} // namespace qyGeom
