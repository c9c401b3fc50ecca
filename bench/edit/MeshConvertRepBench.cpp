// Small edit regions on a large UV sphere (998,000 triangles): select a vertex's two rings,
// build the region, edit, merge. Swap-only edits keep the counts, so the merge costs in
// proportion to the region; removing a vertex closes up the whole mesh's arrays (the
// adjacency rebuilt after each such merge is not timed).
#include "qyGeom/MeshConvertRep.h"

#include <benchmark/benchmark.h>

#include "model/CompactMesh.h"
#include "model/MeshAdjacency.h"
#include "model/Remap.h"
#include "qyGeom/MeshSelect.h"
#include "qyGeom/meshAdjacency.h"
#include "testMeshes.h"

namespace
{

using namespace qyGeom;

const CompactMesh& uvSphere()
{
    static const CompactMesh mesh = qyTest::makeUVSphere(500, 1000);
    return mesh;
}

void selectTwoRings(CompactMesh& mesh, const MeshAdjTris& adj, int vertex)
{
    mesh.clearSelection();
    mesh.getSelectedVertices().resize(mesh.getNumVertices());
    mesh.getSelectedVertices().setBit(vertex);
    MeshSelect select(mesh, adj);
    for (int r = 0; r < 2; ++r)
    {
        select.selectAllTrianglesFromVertices();
        select.selectVerticesFromTriangles();
    }
}

// Region centres spread over the sphere, away from the poles, far enough apart that no two
// regions share a vertex.
std::vector<int> centres(int count)
{
    const int numVerts = uvSphere().getNumVertices();
    std::vector<int> out;
    for (int i = count; i-- > 0;)
        out.push_back(2000 + int((long long)(numVerts - 4000) * i / count));
    return out;
}

void BM_EditRegionsSwapAndMerge(benchmark::State& state)
{
    const int count = int(state.range(0));
    const std::vector<int> at = centres(count);
    int swapped = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        CompactMesh mesh = uvSphere();
        MeshAdjTris adj;
        meshAdjTris(mesh, adj);
        state.ResumeTiming();
        swapped = 0;
        for (const int centre : at)
        {
            selectTwoRings(mesh, adj, centre);
            MeshModifyRep rep(mesh, adj);
            const TopoMeshVertex v = rep.getTopoMeshVertex(centre);
            swapped += rep.getTopoMesh().swapEdge(v.edge());
            Remap remap;
            rep.merge(remap, 0);
        }
        benchmark::DoNotOptimize(mesh.getTrianglesRaw());
    }
    state.counters["swapped"] = swapped;
    state.SetItemsProcessed(state.iterations() * count);
}

void BM_EditRegionsRemoveVertexAndMerge(benchmark::State& state)
{
    const int count = int(state.range(0));
    const std::vector<int> at = centres(count);
    int removed = 0;
    for (auto _ : state)
    {
        state.PauseTiming();
        CompactMesh mesh = uvSphere();
        MeshAdjTris adj;
        meshAdjTris(mesh, adj);
        state.ResumeTiming();
        removed = 0;
        for (const int centre : at)
        {
            selectTwoRings(mesh, adj, centre);
            MeshModifyRep rep(mesh, adj);
            TopoMesh& topo = rep.getTopoMesh();
            const TopoMeshVertex v = rep.getTopoMeshVertex(centre);
            for (TopoMeshEdgeVertexIterator it(v); it.valid() && v.valence() > 3;)
            {
                const TopoMeshEdge e = it.edge();
                it.next();
                topo.swapEdge(e);
            }
            if (v.valence() == 3)
            {
                rep.removeVertex(v);
                removed += bool(topo.deleteVertex(v));
            }
            Remap remap;
            rep.merge(remap, 0);
            // The merge deleted triangles: the next region needs the sets of the new mesh.
            state.PauseTiming();
            meshAdjTris(mesh, adj);
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(mesh.getTrianglesRaw());
    }
    state.counters["removed"] = removed;
    state.SetItemsProcessed(state.iterations() * count);
}

BENCHMARK(BM_EditRegionsSwapAndMerge)->Arg(1000)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EditRegionsRemoveVertexAndMerge)
    ->Arg(100)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
