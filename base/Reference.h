// qy::ReferenceCount and qy::Reference: intrusive reference counting for shared structures
// (cached adjacency, octrees, materials, subsets).
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <utility>

namespace qy
{

/// Base of reference-counted objects: the count lives in the object. A new object has count
/// 0; the last unref() deletes it. Copying an object does not copy its count. The count is
/// atomic, so references may be taken and dropped on several threads.
class ReferenceCount
{
public:
    void ref() const noexcept { m_count.fetch_add(1, std::memory_order_relaxed); }
    /// Drops one reference; deletes the object when none is left.
    void unref() const noexcept
    {
        if (m_count.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete this;
    }
    int getRefCount() const noexcept { return m_count.load(std::memory_order_relaxed); }

protected:
    ReferenceCount() = default;
    ReferenceCount(const ReferenceCount&) noexcept {}
    ReferenceCount& operator=(const ReferenceCount&) noexcept { return *this; }
    virtual ~ReferenceCount() = default;

private:
    mutable std::atomic<int> m_count{0};
};

/// A counted handle to a T derived from ReferenceCount; null by default. Copying adds a
/// reference, destruction or reset releases one.
template <class T> class Reference
{
public:
    Reference() noexcept = default;
    Reference(std::nullptr_t) noexcept {}
    /// Takes a reference to p (which may already be held elsewhere).
    explicit Reference(T* p) noexcept : m_p(p)
    {
        if (m_p)
            m_p->ref();
    }
    Reference(const Reference& o) noexcept : Reference(o.m_p) {}
    Reference(Reference&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
    template <class U> Reference(const Reference<U>& o) noexcept : Reference(o.get()) {}
    ~Reference()
    {
        if (m_p)
            m_p->unref();
    }

    Reference& operator=(Reference o) noexcept
    {
        swap(o);
        return *this;
    }
    void swap(Reference& o) noexcept { std::swap(m_p, o.m_p); }
    void reset() noexcept { Reference().swap(*this); }

    T* get() const noexcept { return m_p; }
    T* operator->() const noexcept { return m_p; }
    T& operator*() const noexcept { return *m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

    friend bool operator==(const Reference& a, const Reference& b) { return a.m_p == b.m_p; }
    friend bool operator==(const Reference& a, std::nullptr_t) { return a.m_p == nullptr; }
    friend bool operator<(const Reference& a, const Reference& b)
    {
        return std::less<T*>()(a.m_p, b.m_p);
    }

private:
    T* m_p = nullptr;
};

/// Constructs a T and returns the first reference to it.
template <class T, class... Args> Reference<T> makeReference(Args&&... args)
{
    return Reference<T>(new T(std::forward<Args>(args)...));
}

} // namespace qy
