// The checks that the PLY, STL and OFF fuzz targets share: a file read and a memory read of
// the same bytes agree, every index lies inside the mesh, the triangles go through the mesh
// pipeline, and what a writer writes reads back to the same counts and coordinates.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/Error.h"
#include "base/Filename.h"
#include "fuzzPipeline.h"
#include "fuzzSupport.h"
#include "model/CompactMesh.h"

namespace qyFuzz
{

/// Same vertices (bits), attributes and faces.
inline bool sameMesh(const qyGeom::CompactMesh& a, const qyGeom::CompactMesh& b)
{
    const std::size_t nv = std::size_t(a.getNumVertices());
    auto same = [](const void* x, const void* y, std::size_t bytes)
    { return (x == nullptr) == (y == nullptr) && (!x || std::memcmp(x, y, bytes) == 0); };
    return a.getNumVertices() == b.getNumVertices() && a.getNumTriangles() == b.getNumTriangles() &&
           a.getNumPolys() == b.getNumPolys() && a.getNumPolyPoints() == b.getNumPolyPoints() &&
           same(a.getVerticesRaw(), b.getVerticesRaw(), 12 * nv) &&
           same(a.getNormalsRaw(), b.getNormalsRaw(), 12 * nv) &&
           same(a.getUVsRaw(), b.getUVsRaw(), 8 * nv) &&
           same(a.getColours(), b.getColours(), 16 * nv) &&
           same(a.getTrianglesRaw(), b.getTrianglesRaw(), 12 * std::size_t(a.getNumTriangles())) &&
           same(a.getPolyLengths(), b.getPolyLengths(), 4 * std::size_t(a.getNumPolys())) &&
           same(a.getPolyPoints(), b.getPolyPoints(), 4 * std::size_t(a.getNumPolyPoints()));
}

/// True when every float of the mesh is finite (text keeps no NaN payload).
inline bool allFinite(const qyGeom::CompactMesh& mesh)
{
    const std::size_t nv = std::size_t(mesh.getNumVertices());
    auto finite = [](const float* f, std::size_t n)
    {
        for (std::size_t i = 0; f && i < n; ++i)
            if (!std::isfinite(f[i]))
                return false;
        return true;
    };
    return finite(mesh.getVerticesRaw(), 3 * nv) && finite(mesh.getNormalsRaw(), 3 * nv) &&
           finite(mesh.getUVsRaw(), 2 * nv) &&
           finite(reinterpret_cast<const float*>(mesh.getColours()), 4 * nv);
}

/// Reads the input through a file and from memory; checks what came back. Returns whether
/// the read succeeded, with the mesh in `mesh`.
template <class ReadFile, class ReadMemory>
bool readBothWays(const std::uint8_t* data, std::size_t size, const char* ext, ReadFile readFile,
                  ReadMemory readMemory, qyGeom::CompactMesh& mesh)
{
    const std::string path = writeTempFile(data, size, ext);
    const qyUtil::Error fromFile = readFile(mesh, qyOS::Filename(path.c_str()));
    qyGeom::CompactMesh inMemory;
    const qyUtil::Error fromMemory =
        readMemory(inMemory, reinterpret_cast<const char*>(data), unsigned(size));
    QYFUZZ_CHECK(fromFile.isSuccess() == fromMemory.isSuccess());
    if (!fromFile.isSuccess())
    {
        // One line, with the file's name.
        const std::string message = fromFile.message().c_str();
        QYFUZZ_CHECK(message.find('\n') == std::string::npos);
        QYFUZZ_CHECK(message.find(path) != std::string::npos);
        return false;
    }
    QYFUZZ_CHECK(sameMesh(mesh, inMemory));
    const int nv = mesh.getNumVertices();
    const int* tris = mesh.getTrianglesRaw();
    for (int i = 0; i < 3 * mesh.getNumTriangles(); ++i)
        QYFUZZ_CHECK(tris[i] >= 0 && tris[i] < nv);
    const int* points = mesh.getPolyPoints();
    for (int i = 0; i < mesh.getNumPolyPoints(); ++i)
        QYFUZZ_CHECK(points[i] >= 0 && points[i] < nv);
    int corners = 0;
    for (int p = 0; p < mesh.getNumPolys(); ++p)
    {
        QYFUZZ_CHECK(mesh.getPolyLengths()[p] >= 3);
        corners += mesh.getPolyLengths()[p];
    }
    QYFUZZ_CHECK(corners == mesh.getNumPolyPoints());
    return true;
}

} // namespace qyFuzz
