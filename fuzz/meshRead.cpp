// Fuzz target: the minimal counted mesh format, through a file, into both mesh kinds, and the
// mesh pipeline on the indexed mesh.
#include "fuzzPipeline.h"
#include "fuzzSupport.h"
#include "model/CompactMesh.h"
#include "model/TopoMesh.h"
#include "qyGeom/meshReadWrite.h"
#include "qyGeom/meshWriteObj.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = qyFuzz::writeTempFile(data, size, "mesh");
    qyGeom::CompactMesh mesh;
    qyGeom::meshRead(mesh, qyOS::Filename(path));
    const int nv = mesh.getNumVertices(), nt = mesh.getNumTriangles();
    const int* tris = mesh.getTrianglesRaw();
    for (int i = 0; i < 3 * nt; ++i)
        if (tris[i] < 0 || tris[i] >= nv)
            __builtin_trap();
    qyFuzz::runMeshPipeline(mesh);
    qyGeom::TopoMesh topo;
    qyGeom::meshRead(topo, qyOS::Filename(path));
    // Writing it back must walk every face.
    qyGeom::meshWrite(topo, qyOS::Filename(path));
    return 0;
}
