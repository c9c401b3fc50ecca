// Fuzz target: the forgiving OBJ reader over a memory block, with subsets, and the mesh
// pipeline on the mesh it returns.
#include <cstddef>
#include <cstdint>

#include "fuzzPipeline.h"
#include "model/CompactMesh.h"
#include "model/MeshSubset.h"
#include "qyGeom/meshReadObj.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    qyGeom::CompactMesh mesh;
    qy::list<qy::Reference<qyGeom::MeshSubset>> subsets;
    qy::vector<qy::vector<qyLinear::Point2Flt>> uvs;
    if (qyGeom::meshReadObj(mesh, subsets, uvs, reinterpret_cast<const char*>(data),
                            static_cast<unsigned int>(size)))
    {
        // Every index handed out must lie inside the mesh.
        const int nv = mesh.getNumVertices(), nt = mesh.getNumTriangles();
        const int* tris = mesh.getTrianglesRaw();
        for (int i = 0; i < 3 * nt; ++i)
            if (tris[i] < 0 || tris[i] >= nv)
                __builtin_trap();
        for (const auto& s : subsets)
        {
            for (const int v : s->vertices())
                if (v < 0 || v >= nv)
                    __builtin_trap();
            for (const int t : s->triangles())
                if (t < 0 || t >= nt)
                    __builtin_trap();
        }
        qyFuzz::runMeshPipeline(mesh);
    }
    return 0;
}
