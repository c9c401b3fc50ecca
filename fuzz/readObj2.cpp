// Fuzz target: the strict OBJ parser, through a file.
#include "fuzzSupport.h"
#include "qyGeom/meshReadObj.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string path = qyFuzz::writeTempFile(data, size, "obj");
    auto file = qy::makeReference<qyGeom::MeshObjFile>();
    const qyUtil::Error e = qyGeom::meshReadObj2(path, file);
    // Every resolved index must lie inside its list.
    for (const auto& g : file->groups)
        for (const qyGeom::MeshObjCorner& c : g->getCorners())
            if (c.vertex < 0 || std::size_t(c.vertex) >= file->vertices.size() ||
                c.texCoord >= int(file->texCoords.size()) || c.normal >= int(file->normals.size()))
                __builtin_trap();
    (void)e;
    return 0;
}
