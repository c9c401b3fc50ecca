// The half-edge mesh built as a reader builds it, for the benchmarks that time the build.
#pragma once
#include <cstddef>

#include "model/CompactMesh.h"
#include "model/TopoMesh.h"

namespace qyBench
{

// Vertices, then faces over the raw triangle indices, then twins.
inline void buildTopo(const qyGeom::CompactMesh& mesh, qyGeom::TopoMesh& topo)
{
    const int numVerts = mesh.getNumVertices(), numTris = mesh.getNumTriangles();
    topo.clear();
    topo.reserve(numVerts, 3 * numTris, numTris);
    const float* xyz = mesh.getVerticesRaw();
    for (int v = 0; v < numVerts; ++v)
        topo.allocVertex(xyz[3 * v], xyz[3 * v + 1], xyz[3 * v + 2]);
    const int* tris = mesh.getTrianglesRaw();
    for (int t = 0; t < numTris; ++t)
        topo.allocFace(3, tris + 3 * std::ptrdiff_t(t));
    topo.meshTwin();
}

} // namespace qyBench
