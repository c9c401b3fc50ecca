// qy memory helpers: byte counts that cannot wrap, and owned uninitialised arrays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace qy
{

/// count * elementSize, or the largest size_t when that overflows (or count is negative), so
/// that an absurd request fails in the allocator instead of wrapping to a small buffer.
constexpr std::size_t byteSize(std::ptrdiff_t count, std::size_t elementSize) noexcept
{
    constexpr std::size_t maxSize = std::numeric_limits<std::size_t>::max();
    if (count < 0)
        return maxSize;
    const std::size_t n = std::size_t(count);
    if (elementSize != 0 && n > maxSize / elementSize)
        return maxSize;
    return n * elementSize;
}

/// Element count of k-tuples: k * n computed without int overflow (3 * numVerts floats...).
constexpr std::size_t tupleCount(int n, int k) noexcept
{
    return std::size_t(n < 0 ? 0 : n) * std::size_t(k < 0 ? 0 : k);
}

/// Allocates n default-initialised (for trivial types: uninitialised) elements; throws
/// std::bad_alloc for a request whose byte size overflows.
template <class T> std::unique_ptr<T[]> makeBuffer(std::ptrdiff_t n)
{
    if (byteSize(n, sizeof(T)) == std::numeric_limits<std::size_t>::max())
        throw std::bad_alloc();
    return std::unique_ptr<T[]>(new T[std::size_t(n)]);
}

/// Asks for huge pages for the whole 2 MiB pages inside a large block that is about to be
/// filled, where the system grants them on request: the first touch of a 100 MB array then
/// costs fifty page faults instead of twenty-five thousand, which in a virtual machine are
/// dear. A no-op elsewhere and for blocks under 4 MiB.
inline void adviseHugePages(const void* data, std::size_t bytes)
{
#if defined(__linux__) && defined(MADV_HUGEPAGE)
    constexpr std::size_t huge = std::size_t(2) << 20;
    if (bytes < 2 * huge)
        return;
    const auto begin = reinterpret_cast<std::uintptr_t>(data);
    const std::uintptr_t first = (begin + huge - 1) & ~(huge - 1);
    const std::uintptr_t last = (begin + bytes) & ~(huge - 1);
    if (last > first)
        madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#else
    (void)data;
    (void)bytes;
#endif
}

/// The same for the capacity of a vector.
template <class T, class Alloc> void adviseHugePages(const std::vector<T, Alloc>& v)
{
    adviseHugePages(v.data(), v.capacity() * sizeof(T));
}

/// A std::allocator that leaves the elements a vector's resize() adds default-initialised
/// (uninitialised for trivial types) and advises huge pages for large blocks: for arrays
/// that are written from end to end right after they are sized.
template <class T> class UninitAllocator : public std::allocator<T>
{
public:
    template <class U> struct rebind
    {
        using other = UninitAllocator<U>;
    };
    UninitAllocator() = default;
    template <class U> UninitAllocator(const UninitAllocator<U>&) noexcept {}

    T* allocate(std::size_t n)
    {
        T* p = std::allocator<T>::allocate(n);
        adviseHugePages(p, n * sizeof(T));
        return p;
    }
    template <class U> void construct(U* p) noexcept(std::is_nothrow_default_constructible_v<U>)
    {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args> void construct(U* p, Args&&... args)
    {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};

/// A vector whose resize() does not clear what it adds (see UninitAllocator).
template <class T> using RawVector = std::vector<T, UninitAllocator<T>>;

} // namespace qy
