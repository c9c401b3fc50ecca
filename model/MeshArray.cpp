// ArrayAllocator and MeshArray.
#include "model/MeshArray.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

#include "base/Memory.h"

namespace qyGeom
{
namespace
{

class MallocAllocator final : public ArrayAllocator
{
public:
    void* allocate(std::size_t bytes) override { return check(std::malloc(bytes), bytes); }
    void* allocateZeroed(std::size_t bytes) override { return check(std::calloc(bytes, 1), bytes); }
    void deallocate(void* p, std::size_t) noexcept override { std::free(p); }

private:
    static void* check(void* p, std::size_t bytes)
    {
        if (!p && bytes > 0)
            throw std::bad_alloc();
        return p;
    }
};

} // namespace

qy::Reference<ArrayAllocator> ArrayAllocator::getDefault()
{
    static qy::Reference<ArrayAllocator> instance(new MallocAllocator);
    return instance;
}

void* ArrayAllocator::allocateZeroed(std::size_t bytes)
{
    void* p = allocate(bytes);
    if (p && bytes > 0)
        std::memset(p, 0, bytes);
    return p;
}

MeshArray::MeshArray(std::size_t elementSize, qy::Reference<ArrayAllocator> allocator)
    : m_elementSize(elementSize),
      m_allocator(allocator ? std::move(allocator) : ArrayAllocator::getDefault())
{
}

MeshArray::MeshArray(const MeshArray& other)
    : m_elementSize(other.m_elementSize), m_allocator(other.m_allocator)
{
    assign(other.m_size, other.m_data);
}

MeshArray& MeshArray::operator=(const MeshArray& other)
{
    if (this != &other)
    {
        // Elements of another size cannot share the buffer: start from scratch.
        if (m_elementSize != other.m_elementSize)
        {
            reallocate(0);
            m_size = 0;
            m_elementSize = other.m_elementSize;
        }
        assign(other.m_size, other.m_data);
    }
    return *this;
}

MeshArray::MeshArray(MeshArray&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_size(std::exchange(other.m_size, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)), m_elementSize(other.m_elementSize),
      m_allocator(other.m_allocator)
{
}

MeshArray& MeshArray::operator=(MeshArray&& other) noexcept
{
    MeshArray moved(std::move(other));
    swap(moved);
    return *this;
}

MeshArray::~MeshArray()
{
    if (m_data)
        m_allocator->deallocate(m_data, getSizeInBytes());
}

void MeshArray::swap(MeshArray& other) noexcept
{
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    std::swap(m_capacity, other.m_capacity);
    std::swap(m_elementSize, other.m_elementSize);
    m_allocator.swap(other.m_allocator);
}

void MeshArray::reallocate(int capacity, bool zeroed)
{
    void* fresh = nullptr;
    if (capacity > 0)
    {
        const std::size_t bytes = qy::byteSize(capacity, m_elementSize);
        fresh = zeroed ? m_allocator->allocateZeroed(bytes) : m_allocator->allocate(bytes);
        // A large array is usually written from end to end next: huge pages make that a few
        // faults instead of one per 4 KiB.
        qy::adviseHugePages(fresh, bytes);
        const int keep = std::min(m_size, capacity);
        if (keep > 0)
            std::memcpy(fresh, m_data, std::size_t(keep) * m_elementSize);
    }
    if (m_data)
        m_allocator->deallocate(m_data, getSizeInBytes());
    m_data = fresh;
    m_capacity = capacity;
    m_size = std::min(m_size, capacity);
}

void MeshArray::resize(int n)
{
    n = std::max(n, 0);
    if (n > m_capacity || n < m_capacity / 2)
    {
        // A new buffer reads as zero past the elements kept.
        reallocate(n);
        m_size = n;
        return;
    }
    if (n > m_size)
        std::memset(static_cast<char*>(m_data) + std::size_t(m_size) * m_elementSize, 0,
                    std::size_t(n - m_size) * m_elementSize);
    m_size = n;
}

void MeshArray::resizeForOverwrite(int n)
{
    n = std::max(n, 0);
    if (n > m_capacity || n < m_capacity / 2)
        reallocate(n, false);
    m_size = n;
}

void MeshArray::assign(int n, const void* src)
{
    n = std::max(n, 0);
    if (n > m_capacity || n < m_capacity / 2)
    {
        // Fill a new buffer before the old one goes: src may point into it. Every element
        // is written, so the buffer need not be cleared first.
        MeshArray fresh(m_elementSize, m_allocator);
        fresh.reallocate(n, false);
        if (n > 0)
            std::memcpy(fresh.m_data, src, std::size_t(n) * m_elementSize);
        fresh.m_size = n;
        swap(fresh);
        return;
    }
    if (n > 0)
        std::memmove(m_data, src, std::size_t(n) * m_elementSize);
    m_size = n;
}

void MeshArray::adopt(void* data, int size, int capacity, qy::Reference<ArrayAllocator> allocator)
{
    if (m_data)
        m_allocator->deallocate(m_data, getSizeInBytes());
    m_data = data;
    m_size = size;
    m_capacity = capacity;
    m_allocator = allocator ? std::move(allocator) : ArrayAllocator::getDefault();
}

void MeshArray::setAllocator(qy::Reference<ArrayAllocator> allocator)
{
    if (!allocator)
        allocator = ArrayAllocator::getDefault();
    if (allocator == m_allocator)
        return;
    MeshArray moved(m_elementSize, std::move(allocator));
    moved.assign(m_size, m_data);
    swap(moved);
}

} // namespace qyGeom
