// The half-edge mesh of the peers' sphere.obj (998,000 triangles, poles of valence 1000, read
// from the folder that QYGEOM_PEER_DATA names) built from its indexed arrays beside CGAL's
// Surface_mesh, in the same run. The peer's row does what its
// harness times: reserve, add_vertex for every vertex, add_face for every triangle. Ours builds
// a TopoMesh as a reader does: vertices, faces, then twins. "bytes/tri" is the built mesh's own
// memory per triangle.
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "benchMain.h"
#include "model/CompactMesh.h"
#include "model/TopoMesh.h"
#include "qyGeom/meshReadObj.h"
#include "topoBuild.h"

namespace
{

using SurfaceMesh = CGAL::Surface_mesh<CGAL::Simple_cartesian<double>::Point_3>;

// The sphere as the peers' harness reads it, in the file's order; empty when it is missing.
const qyGeom::CompactMesh& uvSphere()
{
    static const qyGeom::CompactMesh mesh = []
    {
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        qyGeom::CompactMesh m;
        if (!qyGeom::meshReadObj(
                m,
                qyOS::Filename((std::filesystem::path(dir ? dir : ".") / "sphere.obj").string())))
            m = qyGeom::CompactMesh();
        return m;
    }();
    return mesh;
}

void BM_BuildSurfaceMesh(benchmark::State& state)
{
    const qyGeom::CompactMesh& mesh = uvSphere();
    const std::size_t numVerts = std::size_t(mesh.getNumVertices());
    const std::size_t numTris = std::size_t(mesh.getNumTriangles());
    const float* xyz = mesh.getVerticesRaw();
    const int* tris = mesh.getTrianglesRaw();
    if (numTris == 0)
        state.SkipWithError("sphere.obj not found: set QYGEOM_PEER_DATA");
    for (auto _ : state)
    {
        state.PauseTiming();
        auto sm = std::make_unique<SurfaceMesh>();
        state.ResumeTiming();
        std::vector<SurfaceMesh::Vertex_index> vh(numVerts);
        sm->reserve(SurfaceMesh::size_type(numVerts), SurfaceMesh::size_type(3 * numTris / 2),
                    SurfaceMesh::size_type(numTris));
        for (std::size_t v = 0; v < numVerts; ++v)
            vh[v] = sm->add_vertex({xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]});
        for (std::size_t t = 0; t < numTris; ++t)
            if (sm->add_face(vh[tris[3 * t]], vh[tris[3 * t + 1]], vh[tris[3 * t + 2]]) ==
                SurfaceMesh::null_face())
            {
                state.SkipWithError("Surface_mesh rejected a face");
                return;
            }
        benchmark::DoNotOptimize(sm->number_of_edges());
        state.PauseTiming();
        sm.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(numTris));
    state.SetLabel("CGAL Surface_mesh");
}

void BM_BuildTopoMesh(benchmark::State& state)
{
    const qyGeom::CompactMesh& mesh = uvSphere();
    std::size_t bytes = 0;
    if (mesh.getNumTriangles() == 0)
        state.SkipWithError("sphere.obj not found: set QYGEOM_PEER_DATA");
    for (auto _ : state)
    {
        state.PauseTiming();
        auto topo = std::make_unique<qyGeom::TopoMesh>();
        state.ResumeTiming();
        qyBench::buildTopo(mesh, *topo);
        bytes = topo->getSizeInBytes();
        benchmark::DoNotOptimize(topo->getHalfEdges());
        state.PauseTiming();
        topo.reset();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(mesh.getNumTriangles()));
    state.counters["bytes/tri"] = double(bytes) / mesh.getNumTriangles();
    state.SetLabel("ours");
}

} // namespace

BENCHMARK(BM_BuildSurfaceMesh)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_BuildTopoMesh)->Unit(benchmark::kMillisecond)->UseRealTime();

int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv);
}
