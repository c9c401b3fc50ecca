// The two-task parallel sort: each half of a range is sorted by one task, then two tasks merge
// the halves, one from the front and one from the back.
#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <utility>

#include "base/ThreadPool.h"

namespace qyGeom
{

/// Sorts the two halves of [begin, end) on the pool: task 0 sorts the first ceil(n/2)
/// elements, task 1 the last floor(n/2), each with std::sort; tasks 2 and up do nothing.
///
/// @tparam T        the element type: moveable and swappable (std::sort's requirements).
/// @tparam Compare  a strict weak order on T, called concurrently from both tasks.
/// Lifetime: the range and the comparator are borrowed until the pool returns.
template <class T, class Compare> class SMPSortPiecewise : public qyUtil::ThreadedAlg
{
public:
    SMPSortPiecewise(T* begin, T* end, Compare comp) : m_begin(begin), m_end(end), m_comp(comp) {}

    void execute(int task, int) override
    {
        T* mid = m_begin + (m_end - m_begin + 1) / 2;
        if (task == 0)
            std::sort(m_begin, mid, m_comp);
        else if (task == 1)
            std::sort(mid, m_end, m_comp);
    }

private:
    T* m_begin;
    T* m_end;
    Compare m_comp;
};

/// Merges the two sorted halves of [begin, end) (the first ceil(n/2) elements and the last
/// floor(n/2), as SMPSortPiecewise leaves them) into a temporary array of n elements, then
/// finalize() moves the result back over the range and frees the temporary.
///
/// Task 0 merges from the front and writes the first ceil(n/2) outputs, taking the second
/// half's element only when it is strictly before the first half's; task 1 merges from the
/// back and writes the last floor(n/2) outputs, placing the first half's element last only
/// when the second half's element is strictly before it. On a tie the first half's element
/// therefore comes first, as in a stable merge, and the two tasks write disjoint parts of
/// the temporary. Tasks 2 and up do nothing.
///
/// @tparam T        default-constructible and copy-assignable. The halves are read, never
///                  moved from, so a faulty comparator cannot make the tasks race.
/// @tparam Compare  a strict weak order on T. With a comparator that is not one, the output
///                  may hold some elements twice and lose others, but no read or write
///                  leaves the range or the temporary.
/// Cost: O(n) time, one temporary of n elements, allocated by initialize().
template <class T, class Compare> class SMPSortMerge : public qyUtil::ThreadedAlg
{
public:
    SMPSortMerge(T* begin, T* end, Compare comp) : m_begin(begin), m_end(end), m_comp(comp) {}

    void initialize(int) override
    {
        m_merged = std::make_unique_for_overwrite<T[]>(std::size_t(m_end - m_begin));
    }

    void execute(int task, int) override
    {
        const std::ptrdiff_t n = m_end - m_begin, h = (n + 1) / 2;
        const T* a = m_begin;     // first half: [0, h)
        const T* b = m_begin + h; // second half: [0, n - h)
        if (task == 0)
        {
            std::ptrdiff_t i = 0, j = 0;
            for (std::ptrdiff_t k = 0; k < h; ++k)
            {
                if (j < n - h && (i == h || m_comp(b[j], a[i])))
                    m_merged[k] = b[j++];
                else
                    m_merged[k] = a[i++];
            }
        }
        else if (task == 1)
        {
            std::ptrdiff_t i = h - 1, j = n - h - 1;
            for (std::ptrdiff_t k = n - 1; k >= h; --k)
            {
                if (i >= 0 && (j < 0 || m_comp(b[j], a[i])))
                    m_merged[k] = a[i--];
                else
                    m_merged[k] = b[j--];
            }
        }
    }

    void finalize() override
    {
        std::move(m_merged.get(), m_merged.get() + (m_end - m_begin), m_begin);
        m_merged.reset();
    }

private:
    T* m_begin;
    T* m_end;
    Compare m_comp;
    std::unique_ptr<T[]> m_merged;
};

/// Sorts [begin, end) by `comp` with at most two tasks of `pool`: with a pool of one thread,
/// std::sort on the calling thread; otherwise SMPSortPiecewise sorts the two halves
/// concurrently and SMPSortMerge merges them.
///
/// Elements that compare equal may end in a different order with one thread than with
/// several (std::sort is not stable); give the comparator a final tie-break (an index, say)
/// when the order of equal elements matters.
///
/// @pre `comp` is a strict weak order on the elements (std::sort may read outside the range
///      otherwise: a comparator over floats must place NaN somewhere definite).
/// Threads: two tasks of the pool at most, whatever its size; blocks until both are done.
/// Cost: O(n log n) comparisons; a temporary of n elements when the pool has several threads.
/// Failure: an allocation failure propagates as std::bad_alloc with the range only partly
///   sorted (a permutation of the original elements).
template <class T, class Compare>
void smpSort(T* begin, T* end, Compare comp, qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get())
{
    if (end - begin < 2 || pool.getNumThreads() == 1)
    {
        std::sort(begin, end, comp);
        return;
    }
    SMPSortPiecewise<T, Compare> piecewise(begin, end, comp);
    pool.run(piecewise);
    SMPSortMerge<T, Compare> merge(begin, end, comp);
    pool.run(merge);
}

} // namespace qyGeom
