// Fuzz target: the STL reader, through a file (the binary form streamed) and from memory; the
// mesh pipeline on the welded triangles, and a round trip through each encoding.
#include <cstddef>
#include <cstdint>

#include "formatCheck.h"
#include "qyGeom/meshStl.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    qyGeom::CompactMesh mesh;
    auto readFile = [](qyGeom::CompactMesh& m, const qyOS::Filename& f)
    { return qyGeom::meshReadStl(m, f); };
    auto readMemory = [](qyGeom::CompactMesh& m, const char* d, unsigned n)
    { return qyGeom::meshReadStl(m, d, n); };
    if (!qyFuzz::readBothWays(data, size, "stl", readFile, readMemory, mesh))
        return 0;
    // Every vertex is used, in order of first use.
    int next = 0;
    const int* tris = mesh.getTrianglesRaw();
    for (int i = 0; i < 3 * mesh.getNumTriangles(); ++i)
    {
        QYFUZZ_CHECK(tris[i] <= next);
        next += tris[i] == next;
    }
    QYFUZZ_CHECK(next == mesh.getNumVertices());
    const std::string path = qyFuzz::writeTempFile(nullptr, 0, "out.stl");
    for (const qyGeom::StlEncoding encoding :
         {qyGeom::StlEncoding::Binary, qyGeom::StlEncoding::Ascii})
    {
        QYFUZZ_CHECK(qyGeom::meshWriteStl(mesh, qyOS::Filename(path.c_str()), encoding));
        qyGeom::CompactMesh back;
        QYFUZZ_CHECK(qyGeom::meshReadStl(back, qyOS::Filename(path.c_str())).isSuccess());
        // NaN corners never weld, so only a mesh without them welds back the same.
        QYFUZZ_CHECK(back.getNumTriangles() == mesh.getNumTriangles());
    }
    qyFuzz::runMeshPipeline(mesh);
    return 0;
}
