// OctreeTris and OctreeLines: memory accounting; the rest is inline.
#include "model/OctreeTris.h"

#include <algorithm>
#include <climits>
#include <cstddef>

namespace qyGeom
{
namespace
{

// The offsets (sets + 1) and the members; both are sized exactly by their builders.
int setBytes(std::size_t self, const ArrayOfSets& sets)
{
    const std::size_t numSets = std::size_t(sets.getNumSets());
    const std::size_t bytes = self + sizeof(int) * (numSets ? numSets + 1 : 0) +
                              sizeof(int) * std::size_t(sets.getTotalSize());
    return int(std::min<std::size_t>(bytes, INT_MAX));
}

} // namespace

int OctreeTris::getSizeInBytes() const
{
    return setBytes(sizeof(*this), m_sets);
}

int OctreeLines::getSizeInBytes() const
{
    return setBytes(sizeof(*this), m_sets);
}

} // namespace qyGeom
