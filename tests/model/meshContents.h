// Mesh and bit arrays as comparable vectors, for the model tests.
#pragma once

#include <vector>

#include "model/BitVector.h"
#include "model/CompactMesh.h"

namespace qyTest
{

inline std::vector<int> ints(const int* p, int n)
{
    return n > 0 ? std::vector<int>(p, p + n) : std::vector<int>();
}

/// The indices of the set bits, increasing.
inline std::vector<int> setBits(const qyGeom::BitVector& bits)
{
    std::vector<int> out;
    for (qyGeom::BitIterator it(bits); it.valid(); it.next())
        out.push_back(it.index());
    return out;
}

/// Every index array of the faces: triangles, then lengths and points of strips, fans, line
/// strips and polygons, then the lines.
inline std::vector<std::vector<int>> faceIndexArrays(const qyGeom::CompactMesh& m)
{
    return {ints(m.getTrianglesRaw(), 3 * m.getNumTriangles()),
            ints(m.getTriStripLengths(), m.getNumTriStrips()),
            ints(m.getTriStripPoints(), m.getNumTriStripPoints()),
            ints(m.getTriFanLengths(), m.getNumTriFans()),
            ints(m.getTriFanPoints(), m.getNumTriFanPoints()),
            ints(m.getLineStripLengths(), m.getNumLineStrips()),
            ints(m.getLineStripPoints(), m.getNumLineStripPoints()),
            ints(m.getPolyLengths(), m.getNumPolys()),
            ints(m.getPolyPoints(), m.getNumPolyPoints()),
            ints(reinterpret_cast<const int*>(m.getLines()), 2 * m.getNumLines())};
}

} // namespace qyTest
