// computeSubdivMesh at 1 and 2 levels on bunny00 (75,408 triangles) from the peers' data
// folder, $QYGEOM_PEER_DATA/bunny00.obj (default: the working directory); skipped when the
// file is absent. "faces/s" counts output faces; "bytes/face" is the memory of the result
// per output face.
#include "qyGeom/computeSubdivMesh.h"

#include <cstdlib>
#include <memory>
#include <string>

#include <benchmark/benchmark.h>

#include "base/Filename.h"
#include "model/TopoMesh.h"
#include "qyGeom/meshReadObj.h"

namespace
{

using namespace qyGeom;

// Null when the file cannot be read.
const TopoMesh* bunny()
{
    static const std::unique_ptr<TopoMesh> mesh = []
    {
        const char* dir = std::getenv("QYGEOM_PEER_DATA");
        const std::string path = std::string(dir ? dir : ".") + "/bunny00.obj";
        auto m = std::make_unique<TopoMesh>();
        if (!meshReadObj(*m, qyOS::Filename(path.c_str())))
            m.reset();
        return m;
    }();
    return mesh.get();
}

void BM_ComputeSubdivMesh(benchmark::State& state)
{
    const TopoMesh* input = bunny();
    if (!input)
    {
        state.SkipWithError("bunny00.obj not found (set QYGEOM_PEER_DATA)");
        return;
    }
    TopoMesh& mesh = const_cast<TopoMesh&>(*input); // read only
    const int levels = int(state.range(0));
    int faces = 0;
    std::size_t bytes = 0;
    for (auto _ : state)
    {
        std::unique_ptr<TopoMesh> out(computeSubdivMesh(mesh, levels));
        faces = out->getNumFaces();
        bytes = out->getSizeInBytes();
        benchmark::DoNotOptimize(out->getHalfEdges());
    }
    state.SetItemsProcessed(state.iterations() * faces);
    state.counters["faces"] = faces;
    state.counters["faces/s"] =
        benchmark::Counter(double(faces), benchmark::Counter::kIsIterationInvariantRate);
    state.counters["bytes/face"] = double(bytes) / faces;
}

BENCHMARK(BM_ComputeSubdivMesh)->Arg(1)->Arg(2)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
