// Fuzz target: the PLY reader, through a file and from memory; the mesh pipeline on the
// triangles read, and a round trip through each encoding.
#include <cstddef>
#include <cstdint>

#include "formatCheck.h"
#include "qyGeom/meshPly.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    qyGeom::CompactMesh mesh;
    auto readFile = [](qyGeom::CompactMesh& m, const qyOS::Filename& f)
    { return qyGeom::meshReadPly(m, f); };
    auto readMemory = [](qyGeom::CompactMesh& m, const char* d, unsigned n)
    { return qyGeom::meshReadPly(m, d, n); };
    if (!qyFuzz::readBothWays(data, size, "ply", readFile, readMemory, mesh))
        return 0;
    const std::string path = qyFuzz::writeTempFile(nullptr, 0, "out.ply");
    for (const qyGeom::PlyEncoding encoding :
         {qyGeom::PlyEncoding::Ascii, qyGeom::PlyEncoding::BinaryLittleEndian,
          qyGeom::PlyEncoding::BinaryBigEndian})
    {
        QYFUZZ_CHECK(qyGeom::meshWritePly(mesh, qyOS::Filename(path.c_str()), encoding));
        qyGeom::CompactMesh back;
        QYFUZZ_CHECK(qyGeom::meshReadPly(back, qyOS::Filename(path.c_str())).isSuccess());
        // Colours pass through bytes and text keeps no NaN payload; everything else comes
        // back bit for bit.
        if (!mesh.getColours() &&
            (encoding != qyGeom::PlyEncoding::Ascii || qyFuzz::allFinite(mesh)))
            QYFUZZ_CHECK(qyFuzz::sameMesh(mesh, back));
        QYFUZZ_CHECK(back.getNumVertices() == mesh.getNumVertices());
    }
    if (mesh.getNumPolys() == 0)
        qyFuzz::runMeshPipeline(mesh);
    return 0;
}
