// Fuzz target: the OFF reader, through a file and from memory; the mesh pipeline on the
// triangles read, and a round trip through the writer.
#include <cstddef>
#include <cstdint>

#include "formatCheck.h"
#include "qyGeom/meshOff.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    qyGeom::CompactMesh mesh;
    auto readFile = [](qyGeom::CompactMesh& m, const qyOS::Filename& f)
    { return qyGeom::meshReadOff(m, f); };
    auto readMemory = [](qyGeom::CompactMesh& m, const char* d, unsigned n)
    { return qyGeom::meshReadOff(m, d, n); };
    if (!qyFuzz::readBothWays(data, size, "off", readFile, readMemory, mesh))
        return 0;
    const std::string path = qyFuzz::writeTempFile(nullptr, 0, "out.off");
    QYFUZZ_CHECK(qyGeom::meshWriteOff(mesh, qyOS::Filename(path.c_str())));
    qyGeom::CompactMesh back;
    QYFUZZ_CHECK(qyGeom::meshReadOff(back, qyOS::Filename(path.c_str())).isSuccess());
    QYFUZZ_CHECK(back.getNumVertices() == mesh.getNumVertices());
    QYFUZZ_CHECK(!qyFuzz::allFinite(mesh) || qyFuzz::sameMesh(mesh, back));
    if (mesh.getNumPolys() == 0)
        qyFuzz::runMeshPipeline(mesh);
    return 0;
}
