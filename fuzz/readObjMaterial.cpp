// Fuzz target: the MTL material reader, through a file.
#include "fuzzSupport.h"
#include "qyGeom/meshReadObjMaterial.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = qyFuzz::writeTempFile(data, size, "mtl");
    qy::vector<qy::Reference<qyGeom::MeshObjMaterial>> materials;
    const qyUtil::Error e = qyGeom::meshReadObjMaterial(path, materials);
    (void)e;
    return 0;
}
