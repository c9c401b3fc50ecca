// ArrayOfSets: both builders are counting sorts, O(sets + members).
#include "model/ArrayOfSets.h"

#include <algorithm>
#include <utility>

namespace qyGeom
{

ArrayOfSets::ArrayOfSets(int numSets, int totalSize)
    : m_offsets(std::size_t(std::max(numSets, 0)) + 1, 0),
      m_members(std::size_t(std::max(totalSize, 0)), 0), m_numSets(std::max(numSets, 0))
{
}

ArrayOfSets::ArrayOfSets(int numSets, int totalSize, UnsetMembers)
    : m_offsets(std::size_t(std::max(numSets, 0)) + 1, 0),
      m_members(std::size_t(std::max(totalSize, 0))), m_numSets(std::max(numSets, 0))
{
}

// The implicit moves would empty the arrays but copy the set count, leaving the source
// claiming sets it has no offsets for.
ArrayOfSets::ArrayOfSets(ArrayOfSets&& other) noexcept
{
    swap(other);
}

ArrayOfSets& ArrayOfSets::operator=(ArrayOfSets&& other) noexcept
{
    if (this != &other)
    {
        ArrayOfSets moved;
        moved.swap(other);
        swap(moved);
    }
    return *this;
}

void ArrayOfSets::assignFromPairs(int numSets, int numPairs, const int* pairs)
{
    ArrayOfSets result(numSets, numPairs);
    int* offsets = result.m_offsets.data();
    for (int p = 0; p < numPairs; ++p)
        ++offsets[pairs[2 * std::size_t(p)] + 1];
    for (int s = 0; s < numSets; ++s)
        offsets[s + 1] += offsets[s];
    std::vector<int> fill(offsets, offsets + numSets);
    for (int p = 0; p < numPairs; ++p)
        result.m_members[std::size_t(fill[pairs[2 * std::size_t(p)]]++)] =
            pairs[2 * std::size_t(p) + 1];
    swap(result);
}

void ArrayOfSets::assignInverse(int numSets, const ArrayOfSets& other)
{
    ArrayOfSets result(numSets, other.getTotalSize());
    int* offsets = result.m_offsets.data();
    const int total = other.getTotalSize();
    for (int k = 0; k < total; ++k)
        ++offsets[other.m_members[std::size_t(k)] + 1];
    for (int s = 0; s < numSets; ++s)
        offsets[s + 1] += offsets[s];
    std::vector<int> fill(offsets, offsets + numSets);
    for (int i = 0; i < other.m_numSets; ++i)
        for (int k = other.m_offsets[i]; k < other.m_offsets[i + 1]; ++k)
            result.m_members[std::size_t(fill[other.m_members[std::size_t(k)]]++)] = i;
    swap(result);
}

void ArrayOfSets::swap(ArrayOfSets& other) noexcept
{
    m_offsets.swap(other.m_offsets);
    m_members.swap(other.m_members);
    std::swap(m_numSets, other.m_numSets);
}

bool ArrayOfSets::operator==(const ArrayOfSets& other) const
{
    if (m_numSets != other.m_numSets)
        return false;
    for (int i = 0; i < m_numSets; ++i)
        if (getSetSize(i) != other.getSetSize(i) ||
            !std::equal(getSet(i), getSet(i) + getSetSize(i), other.getSet(i)))
            return false;
    return true;
}

} // namespace qyGeom
