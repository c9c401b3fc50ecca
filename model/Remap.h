// Remap: an old-to-new index map, and the one routine that moves per-element data by it.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

class BitVector;

namespace detail
{

/// A std::allocator whose vectors leave the elements they add without a value unset (an int is
/// then not written), for arrays that are written in full after they are sized.
template <class T> struct DefaultInitAllocator : std::allocator<T>
{
    template <class U> struct rebind
    {
        using other = DefaultInitAllocator<U>;
    };

    DefaultInitAllocator() = default;
    template <class U> DefaultInitAllocator(const DefaultInitAllocator<U>&) noexcept {}

    template <class U> void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>)
    {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args> void construct(U* p, Args&&... args)
    {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};

} // namespace detail

/// Maps the old indices [0, domainSize) to new indices [0, rangeSize); an entry of -1 means
/// the element was removed. A sequential map is the identity: nothing was renumbered and
/// consumers may skip remapping.
class QYGEOM_API Remap
{
public:
    /// An empty, non-sequential map.
    Remap() = default;
    /// Entries all -1 (no element mapped yet).
    Remap(int domainSize, int rangeSize);
    virtual ~Remap();

    /// Resizes to domainSize entries, all -1, and clears the sequential mark.
    void resize(int domainSize, int rangeSize);
    /// As resize(), but the entries are left unset: for a builder that writes every one of them.
    void resizeForOverwrite(int domainSize, int rangeSize);
    /// @pre 0 <= from < getDomainSize()
    void set(int from, int to) { m_map[std::size_t(from)] = to; }
    /// Makes the map the identity of its domain (range = domain); frees the entries.
    void setSequential();
    bool isSequential() const { return m_sequential; }
    /// The map that numbers the elements whose bit is clear 0, 1, 2 ... in increasing order
    /// and removes (-1) those whose bit is set; domain = deleted.size(), range = clear count.
    void setDeleteMap(const BitVector& deleted);

    int getDomainSize() const { return m_domainSize; }
    int getRangeSize() const { return m_rangeSize; }
    /// The range size is set by the builder of the map when it knows it.
    void setRangeSize(int n) { m_rangeSize = n; }
    /// The entry array (null while sequential).
    const int* getMap() const { return m_sequential ? nullptr : m_map.data(); }
    int* getMap() { return m_sequential ? nullptr : m_map.data(); }

    /// The new index of i.
    int operator()(int i) const { return m_sequential ? i : m_map[std::size_t(i)]; }
    /// Rewrites n indices in place. @pre each index in the domain
    void operator()(int* indices, int n) const;

private:
    std::vector<int, detail::DefaultInitAllocator<int>> m_map;
    int m_domainSize = 0;
    int m_rangeSize = 0;
    bool m_sequential = false;
};

/// Renumbers a selection: new bit remap(i) is set when old bit i is; bits of removed elements
/// (and past the map's domain) are dropped; the result has newSize bits.
QYGEOM_API void remapBits(BitVector& bits, const Remap& remap, int newSize);

/// Moves per-element data through a remap: new[remap(i)] = old[i] for increasing i, through
/// one temporary of the old size, so the last old element mapped to a slot supplies its data.
/// Elements mapped to -1, and those past the map's domain, are dropped. On return data[0 .. min(n,
/// range)) holds the new elements; the caller resizes the array. A sequential remap leaves data as
/// it is.
/// @param data  n elements of a trivially copyable type.
template <class T> void remapElements(const Remap& remap, T* data, int n)
{
    static_assert(std::is_trivially_copyable_v<T>);
    if (remap.isSequential() || n <= 0)
        return;
    std::vector<T> moved(data, data + n); // unmapped slots keep their old contents
    const int mapped = std::min(n, remap.getDomainSize());
    for (int i = 0; i < mapped; ++i)
    {
        const int j = remap(i);
        if (j >= 0 && j < n)
            moved[std::size_t(j)] = data[i];
    }
    const int keep = std::min(n, std::max(remap.getRangeSize(), 0));
    std::memcpy(static_cast<void*>(data), moved.data(), sizeof(T) * std::size_t(keep));
}

} // namespace qyGeom
