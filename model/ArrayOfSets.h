// ArrayOfSets: many small int sets stored back to back with per-set offsets.
#pragma once

#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Set i is the contiguous run getSet(i)[0 .. getSetSize(i)). Members are stored in one array
/// and located by an offsets array of numSets + 1 entries (set i spans
/// [offsets[i], offsets[i + 1])), which builders may fill directly.
class QYGEOM_API ArrayOfSets
{
public:
    ArrayOfSets() = default;
    /// numSets empty sets with room for totalSize members; a builder writes getOffsets()
    /// (numSets + 1 non-decreasing entries from 0, at most totalSize) and getMembers().
    ArrayOfSets(int numSets, int totalSize);
    /// Asks the constructor below to leave the members unset.
    struct UnsetMembers
    {
    };
    /// As above, but the members are not zeroed (nor their fresh pages touched): for builders
    /// that write every member of every set, typically from several threads. Members past
    /// getTotalSize() stay unset.
    ArrayOfSets(int numSets, int totalSize, UnsetMembers);
    ArrayOfSets(const ArrayOfSets&) = default;
    ArrayOfSets& operator=(const ArrayOfSets&) = default;
    /// The source is left with no sets.
    ArrayOfSets(ArrayOfSets&& other) noexcept;
    ArrayOfSets& operator=(ArrayOfSets&& other) noexcept;

    int getNumSets() const { return m_numSets; }
    int getSetSize(int i) const { return m_offsets[i + 1] - m_offsets[i]; }
    int* getSet(int i) { return m_members.data() + m_offsets[i]; }
    const int* getSet(int i) const { return m_members.data() + m_offsets[i]; }
    /// Total number of members over all sets.
    int getTotalSize() const { return m_numSets ? m_offsets[m_numSets] : 0; }

    int* getOffsets() { return m_offsets.data(); }
    const int* getOffsets() const { return m_offsets.data(); }
    int* getMembers() { return m_members.data(); }
    const int* getMembers() const { return m_members.data(); }

    /// Builds numSets sets from numPairs (set, member) couples given as 2 * numPairs ints;
    /// each set lists its members in pair order. @pre 0 <= set < numSets
    void assignFromPairs(int numSets, int numPairs, const int* pairs);
    /// Set j of the result lists every i whose set in `other` contains j, in increasing i
    /// (twice if it contains j twice). @pre members of other in [0, numSets)
    void assignInverse(int numSets, const ArrayOfSets& other);

    void swap(ArrayOfSets& other) noexcept;
    bool operator==(const ArrayOfSets& other) const;

private:
    // Value-initialises as std::allocator does when given a value, default-initialises (leaves
    // unset) when not.
    template <class T> struct UnsetAllocator : std::allocator<T>
    {
        using value_type = T;
        template <class U> struct rebind
        {
            using other = UnsetAllocator<U>;
        };
        UnsetAllocator() = default;
        template <class U> UnsetAllocator(const UnsetAllocator<U>&) noexcept {}
        template <class U> void construct(U* p) noexcept { ::new (static_cast<void*>(p)) U; }
        template <class U, class... Args> void construct(U* p, Args&&... args)
        {
            ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
        }
    };

    std::vector<int> m_offsets; // numSets + 1 entries once sized
    std::vector<int, UnsetAllocator<int>> m_members;
    int m_numSets = 0;
};

} // namespace qyGeom
