// Fuzz target: the minimal counted mesh format, through a file.
#include "fuzzSupport.h"
#include "model/CompactMesh.h"
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
    return 0;
}
