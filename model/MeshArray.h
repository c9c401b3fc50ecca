// ArrayAllocator and MeshArray: the storage behind every array of a mesh.
#pragma once

#include <cstddef>

#include "base/Reference.h"
#include "qyGeom/qyGeomExport.h"

namespace qyGeom
{

/// Where a mesh takes the memory of its arrays from. The default one uses operator new; an
/// application may supply its own (a pool, an accounting wrapper) through
/// PointMesh::setArrayAllocator.
class QYGEOM_API ArrayAllocator : public qy::ReferenceCount
{
public:
    /// Throws std::bad_alloc when the memory cannot be had.
    virtual void* allocate(std::size_t bytes) = 0;
    virtual void deallocate(void* p, std::size_t bytes) noexcept = 0;
    /// Memory that reads as zero. The default allocates and clears; the default allocator
    /// takes fresh zero pages from the system for large blocks instead of writing them.
    virtual void* allocateZeroed(std::size_t bytes);

    static qy::Reference<ArrayAllocator> getDefault();
};

/// An owned array of trivially copyable elements of a fixed byte size. Resizing keeps the
/// elements below the new size and zero-fills new ones; shrinking below half the capacity
/// gives the memory back. Copies use the source's allocator.
class QYGEOM_API MeshArray
{
public:
    explicit MeshArray(std::size_t elementSize, qy::Reference<ArrayAllocator> allocator = {});
    MeshArray(const MeshArray& other);
    MeshArray& operator=(const MeshArray& other);
    MeshArray(MeshArray&& other) noexcept;
    MeshArray& operator=(MeshArray&& other) noexcept;
    ~MeshArray();

    int size() const { return m_size; }
    bool empty() const { return m_size == 0; }
    std::size_t getElementSize() const { return m_elementSize; }
    void* data() { return m_data; }
    const void* data() const { return m_data; }
    template <class T> T* as() { return static_cast<T*>(m_data); }
    template <class T> const T* as() const { return static_cast<const T*>(m_data); }

    void resize(int n);
    /// Sets the size as resize() does, but leaves the elements added as the memory had them:
    /// for a caller that writes every one of them before anything reads them.
    void resizeForOverwrite(int n);
    /// Replaces the contents by n elements copied from src.
    void assign(int n, const void* src);
    /// Takes over `data`, a block of `capacity` elements taken from `allocator` (null: the
    /// default), of which the first `size` are the contents, in place of the array's own
    /// memory: no element is copied. The block goes back to `allocator`, which serves this
    /// array from then on, as a setAllocator() would have made it.
    /// @pre 0 <= size <= capacity; the block's byte size is capacity * getElementSize().
    void adopt(void* data, int size, int capacity, qy::Reference<ArrayAllocator> allocator);
    void clear() { resize(0); }
    /// Moves the contents into memory from another allocator (null: the default).
    void setAllocator(qy::Reference<ArrayAllocator> allocator);
    std::size_t getSizeInBytes() const { return std::size_t(m_capacity) * m_elementSize; }
    void swap(MeshArray& other) noexcept;

private:
    /// Moves the first min(size, capacity) elements to a buffer of `capacity`; with `zeroed`
    /// the rest of the new buffer reads as zero, otherwise it is left as allocated.
    void reallocate(int capacity, bool zeroed = true);

    void* m_data = nullptr;
    int m_size = 0;
    int m_capacity = 0;
    std::size_t m_elementSize;
    qy::Reference<ArrayAllocator> m_allocator;
};

} // namespace qyGeom
