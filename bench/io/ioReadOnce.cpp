// Reads one OBJ file once with the chosen reader, for peak-memory measurements:
//   ioReadOnce plain|subsets|strict file.obj
#include <cstdio>
#include <cstring>

#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "qyGeom/meshReadObj.h"

int main(int argc, char** argv)
{
    if (argc != 3)
    {
        std::fprintf(stderr, "usage: %s plain|subsets|strict file.obj\n", argv[0]);
        return 2;
    }
    const qyOS::Filename file(argv[2]);
    bool ok = false;
    if (std::strcmp(argv[1], "plain") == 0)
    {
        qyGeom::CompactMesh mesh;
        ok = qyGeom::meshReadObj(mesh, file);
        std::printf("%d vertices, %d triangles\n", mesh.getNumVertices(), mesh.getNumTriangles());
    }
    else if (std::strcmp(argv[1], "subsets") == 0)
    {
        qyGeom::CompactMesh mesh;
        qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
        qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
        qy::vector<qyString::IString> materials;
        qyOS::Filename mtl;
        ok = qyGeom::meshReadObj(mesh, subsets, uvs, materials, mtl, file);
        std::printf("%d vertices, %d triangles, %zu subsets\n", mesh.getNumVertices(),
                    mesh.getNumTriangles(), subsets.size());
    }
    else
    {
        auto obj = qy::makeReference<qyGeom::MeshObjFile>();
        const qyUtil::Error e = qyGeom::meshReadObj2(argv[2], obj);
        ok = e.isSuccess();
        std::printf("%zu vertices, %zu groups %s\n", obj->vertices.size(), obj->groups.size(),
                    e.message().c_str());
    }
    return ok ? 0 : 1;
}
