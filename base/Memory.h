// qy memory helpers: byte counts that cannot wrap, and owned uninitialised arrays.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <new>

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

} // namespace qy
