// Vertex welding. Two routes give the same welded mesh and remap:
//
// - Any checker: the vertex indices are sorted by key (position, then explicit normal, then
//   UV) and one scan merges each run of vertices that the checker finds equal to the run's
//   first vertex.
// - The exact default checker: equal keys are equal vertices, so the vertices are grouped by
//   hashing their keys, and only one vertex per group is sorted. Each group is a run of the
//   sorted order (NaN keys stay alone), numbered by its place in that order, which is what
//   the scan would give for a fraction of the cost. The groups keep their keys in a dense
//   array of their own (StreamGrouper). On one thread one grouper takes every vertex
//   (SerialGrouping); on two, each task groups and sorts one half of the vertices, and the
//   two sorted lists of groups are merged (HalvesGrouping).
//
// Both sort by a total order that agrees with the key comparison on NaN-free keys: +0 equals
// -0, NaN comes after every number, and identical keys are ordered by vertex index, so the
// result never depends on the sort algorithm or the thread count.
#include "qyGeom/meshCompact.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include "base/Memory.h"
#include "base/Progress.h"
#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "model/CompactMesh.h"
#include "model/MeshModification.h"
#include "model/Remap.h"
#include "model/debugChannel.h"
#include "qyGeom/SMPSort.h"

namespace qyGeom
{

IMeshVertexEqualityChecker::~IMeshVertexEqualityChecker() = default;
DefaultMeshVertexEqualityChecker::~DefaultMeshVertexEqualityChecker() = default;

namespace
{

// Below this many vertices (or indices) the work stays on the calling thread: waking the
// pool would cost more than it saves.
constexpr int parallelItems = 4096;

// The exact route splits its grouping between two tasks only from this many vertices, and
// below it the whole weld stays on the calling thread. Where the copies of a position lie
// near each other in the array (a soup in mesh order) two tasks take the process CPU time of
// one; where they are spread over it, both halves find most keys and two tasks take about 1.4
// times the CPU time of one. Below the limit that margin and the pool's wake-ups eat most of
// the gain (the bunny's soup, 226,224 vertices, welds in about 4 ms on one thread).
constexpr int parallelGroupingItems = 1 << 20;

// An array of n elements left uninitialised, on huge pages where it is large: most of the
// weld's temporaries are written once, just after they are made, and with small pages their
// first writes would mostly be page faults.
template <class T> std::unique_ptr<T[]> uninitialized(std::size_t n)
{
    std::unique_ptr<T[]> p = std::make_unique_for_overwrite<T[]>(n);
    qy::adviseHugePages(p.get(), n * sizeof(T));
    return p;
}

// Runs fn(0) and fn(1), as two tasks of the pool when `parallel`, else in turn on the calling
// thread. The tasks of a larger pool beyond the second do nothing.
template <class Fn> void runTwoTasks(qyUtil::ThreadPool& pool, bool parallel, Fn&& fn)
{
    if (!parallel)
    {
        fn(0);
        fn(1);
        return;
    }
    class Job final : public qyUtil::ThreadedAlg
    {
    public:
        explicit Job(Fn& f) : m_fn(f) {}
        void execute(int task, int) override
        {
            if (task < 2)
                m_fn(task);
        }

    private:
        Fn& m_fn;
    };
    Job job(fn);
    pool.run(job);
}

// The half of [0, n) that task `task` (0 or 1) works on: ceil(n/2) items first, then the rest.
inline void half(std::ptrdiff_t n, int task, std::ptrdiff_t& begin, std::ptrdiff_t& end)
{
    const std::ptrdiff_t h = (n + 1) / 2;
    begin = task == 0 ? 0 : h;
    end = task == 0 ? h : n;
}

// A float as an unsigned key whose order is the float order, with +0 and -0 one key and NaN
// (any payload) after +infinity.
inline std::uint32_t orderKey(float f)
{
    if (f != f)
        return 0xFFFFFFFFu;
    const std::uint32_t b = std::bit_cast<std::uint32_t>(f);
    if ((b << 1) == 0)
        return 0x80000000u;
    return (b & 0x80000000u) ? ~b : (b | 0x80000000u);
}

// The welding key of a vertex: W floats, position (3), then normal (3), then UV (2).
template <int W> struct KeyReader
{
    static_assert(W == 3 || W == 6 || W == 8);
    const float* vertices;
    const float* normals;
    const float* uvs;

    void load(std::ptrdiff_t i, float* key) const
    {
        const float* v = vertices + 3 * i;
        key[0] = v[0];
        key[1] = v[1];
        key[2] = v[2];
        if constexpr (W >= 6)
        {
            const float* n = normals + 3 * i;
            key[3] = n[0];
            key[4] = n[1];
            key[5] = n[2];
        }
        if constexpr (W == 8)
        {
            const float* t = uvs + 2 * i;
            key[6] = t[0];
            key[7] = t[1];
        }
    }
};

// The total order of the sort: keys compared component by component through orderKey, then
// vertex indices. A strict weak order whatever the floats are.
template <int W> struct KeyIndexOrder
{
    KeyReader<W> keys;

    bool operator()(int a, int b) const
    {
        float ka[W], kb[W];
        keys.load(a, ka);
        keys.load(b, kb);
        for (int k = 0; k < W; ++k)
        {
            const std::uint32_t x = orderKey(ka[k]), y = orderKey(kb[k]);
            if (x != y)
                return x < y;
        }
        return a < b;
    }
};

template <int W> bool hasNaN(const float* key)
{
    bool nan = false;
    for (int k = 0; k < W; ++k)
        nan |= key[k] != key[k];
    return nan;
}

// The bits of a key's floats with -0 made +0: two NaN-free keys are equal exactly when these
// are. Returns whether the key holds a NaN.
template <int W> inline bool keyBits(const float* key, std::uint32_t* bits)
{
    bool nan = false;
    for (int k = 0; k < W; ++k)
    {
        const std::uint32_t b = std::bit_cast<std::uint32_t>(key[k]);
        nan |= (b & 0x7FFFFFFFu) > 0x7F800000u;
        bits[k] = (b << 1) == 0 ? 0 : b;
    }
    return nan;
}

// Hash of the bits of a NaN-free key (keyBits): one product per component by a constant of its
// own, the products xor-ed. Tables take the top bits of the hash, which every bit of every
// component reaches.
template <int W> inline std::uint64_t hashBits(const std::uint32_t* bits)
{
    static constexpr std::uint64_t mul[8] = {
        0x9E3779B97F4A7C15ull, 0xC2B2AE3D27D4EB4Full, 0x165667B19E3779F9ull, 0xD6E8FEB86659FD93ull,
        0xFF51AFD7ED558CCDull, 0xC4CEB9FE1A85EC53ull, 0x94D049BB133111EBull, 0xBF58476D1CE4E5B9ull};
    std::uint64_t h = 0;
    for (int k = 0; k < W; ++k)
        h ^= std::uint64_t(bits[k]) * mul[k];
    return h;
}

// The same hash of a NaN-free key, which gives +0 and -0 the same value as they are equal.
template <int W> inline std::uint64_t hashKey(const float* key)
{
    std::uint32_t bits[W];
    keyBits<W>(key, bits);
    return hashBits<W>(bits);
}

// Whether a NaN-free key's bits (keyBits) are those of a group's key, stored as such: eight
// bytes at a time.
template <int W> inline bool sameBits(const std::uint32_t* bits, const float* groupKey)
{
    std::uint64_t diff = 0;
    for (int k = 0; k + 1 < W; k += 2)
    {
        // The key's half from registers: read from memory as one word, the two words just
        // written would not be forwarded to the load.
        const std::uint64_t a = bits[k] | std::uint64_t(bits[k + 1]) << 32;
        std::uint64_t b;
        std::memcpy(&b, groupKey + k, sizeof(b));
        diff |= a ^ b;
    }
    if constexpr (W % 2 != 0)
    {
        std::uint32_t b;
        std::memcpy(&b, groupKey + W - 1, sizeof(b));
        diff |= bits[W - 1] ^ b;
    }
    return diff == 0;
}

// How many items ahead the hash-table loops ask for the memory they will read.
constexpr std::ptrdiff_t ahead = 16;

template <int W> bool sameKey(const float* a, const float* b)
{
    bool same = true;
    for (int k = 0; k < W; ++k)
        same &= a[k] == b[k];
    return same;
}

// A group in the sort of a StreamGrouper: the sortable form of its primary key component (the
// first that is not the same in every key), those of the two after it (0 past the end of the
// key) as one number, the first in the high half, and its number. Only groups that tie in all
// three words have their keys read again.
struct KeyItem
{
    std::uint32_t word;
    int index;
    std::uint64_t next;
};

// Puts the smaller of next words a and b first, with their indices, without a branch. The
// compiler turns selects on these values into branches, which mispredict about half the time
// in the networks below, so on x86-64 the exchange is written as four conditional moves.
[[gnu::always_inline]] inline void exchange(std::uint64_t& na, std::uint64_t& nb, int& ia, int& ib)
{
#if defined(__x86_64__) && defined(__GNUC__)
    std::uint64_t a = na, b = nb, oldA = na;
    int x = ia, y = ib, oldX = ia;
    asm("cmpq %[a], %[b]\n\t"
        "cmovbq %[b], %[a]\n\t"
        "cmovbq %[oldA], %[b]\n\t"
        "cmovbl %[y], %[x]\n\t"
        "cmovbl %[oldX], %[y]"
        : [a] "+r"(a), [b] "+r"(b), [x] "+r"(x), [y] "+r"(y), [oldA] "+r"(oldA), [oldX] "+r"(oldX)
        :
        : "cc");
    na = a;
    nb = b;
    ia = x;
    ib = y;
#else
    const bool swap = nb < na;
    const std::uint64_t low = std::min(na, nb);
    nb = na ^ nb ^ low;
    na = low;
    const int d = (ia ^ ib) & -int(swap);
    ia ^= d;
    ib ^= d;
#endif
}

// Sorts a run of 2 to N items (N = 2, 4 or 8; exactly N with Full) that share their word by
// their next words, with no branch on the data: a sorting network over the run padded with items
// after every other (Batcher's odd-even merge sort for eight). Leaves the run as it was and
// returns false when two of its items have the same next words (or the largest next words),
// whose order only the keys decide.
template <int N, bool Full = false> bool sortRunByNext(KeyItem* run, int size)
{
    if constexpr (Full)
        size = N;
    std::uint64_t n[N];
    int x[N];
    for (int t = 0; t < N; ++t)
    {
        n[t] = t < size ? run[t].next : ~std::uint64_t(0);
        x[t] = t < size ? run[t].index : -1;
    }
    auto ce = [&](int a, int b) { exchange(n[a], n[b], x[a], x[b]); };
    if constexpr (N == 2)
        ce(0, 1);
    else if constexpr (N == 4)
    {
        ce(0, 1), ce(2, 3);
        ce(0, 2), ce(1, 3);
        ce(1, 2);
    }
    else
    {
        static_assert(N == 8);
        ce(0, 1), ce(2, 3), ce(4, 5), ce(6, 7);
        ce(0, 2), ce(1, 3), ce(4, 6), ce(5, 7);
        ce(1, 2), ce(5, 6);
        ce(0, 4), ce(1, 5), ce(2, 6), ce(3, 7);
        ce(2, 4), ce(3, 5);
        ce(1, 2), ce(3, 4), ce(5, 6);
    }
    // A tie within the run, or with the padding after it.
    bool tie = false;
    for (int t = 0; t + 1 < N; ++t)
        tie |= (t < size) & (n[t] == n[t + 1]);
    if (tie)
        return false;
    for (int t = 0; t < N; ++t)
        if (t < size)
        {
            run[t].index = x[t];
            run[t].next = n[t];
        }
    return true;
}

// Sorts m items, given in increasing index order, by `less`, using `scratch` (m items); the
// two arrays may come back swapped, the sorted items always in `items`. Keys
// rarely tie in their primary component, so a stable radix sort on it (digits of `DigitBits`
// bits from the lowest; a digit that is the same in every item is skipped) leaves only short
// runs of equal words, each then sorted by the full order: up to eight by a sorting network on
// the next key words that the items carry (a mirror-symmetric mesh has runs of two, four or
// eight, whose order a branch would mispredict half the time), longer ones by insertion while
// they are short, and only ties in the next words read the keys. Eleven-bit digits
// take three passes; eight-bit ones take four, but their 256 buckets are written within the
// first-level cache, which pays while the items are few.
template <int DigitBits = 11, class Less>
void sortItems(std::unique_ptr<KeyItem[]>& itemsArray, std::unique_ptr<KeyItem[]>& scratchArray,
               std::ptrdiff_t m, Less less)
{
    using Item = KeyItem;
    Item* items = itemsArray.get();
    Item* scratch = scratchArray.get();
    constexpr int numBuckets = 1 << DigitBits;
    constexpr int numDigits = (32 + DigitBits - 1) / DigitBits;
    constexpr std::uint32_t digitMask = numBuckets - 1;
    // Counts fit in 32 bits: m is at most the vertex count, an int.
    std::uint32_t counts[numDigits][numBuckets] = {};
    for (std::ptrdiff_t i = 0; i < m; ++i)
    {
        const std::uint32_t w = items[i].word;
        for (int d = 0; d < numDigits; ++d)
            ++counts[d][(w >> (d * DigitBits)) & digitMask];
    }
    // A digit that is the same in every item needs no pass. The offsets of all digits are
    // summed in one loop, as independent chains.
    bool pass[numDigits];
    for (int d = 0; d < numDigits; ++d)
        pass[d] =
            m > 1 && std::ptrdiff_t(counts[d][(items[0].word >> (d * DigitBits)) & digitMask]) != m;
    std::uint32_t sums[numDigits] = {};
    for (int b = 0; b < numBuckets; ++b)
        for (int d = 0; d < numDigits; ++d)
        {
            const std::uint32_t c = counts[d][b];
            counts[d][b] = sums[d];
            sums[d] += c;
        }
    Item* from = items;
    Item* to = scratch;
    for (int digit = 0; digit < numDigits; ++digit)
    {
        if (!pass[digit])
            continue;
        std::uint32_t* offsets = counts[digit];
        const int shift = digit * DigitBits;
        for (std::ptrdiff_t i = 0; i < m; ++i)
            to[offsets[(from[i].word >> shift) & digitMask]++] = from[i];
        std::swap(from, to);
    }
    // After an odd number of passes the sorted items are in the scratch array, which then
    // becomes the items' array rather than being copied back.
    if (from != items)
    {
        itemsArray.swap(scratchArray);
        items = from;
    }

    constexpr std::ptrdiff_t shortRun = 16;
    for (std::ptrdiff_t i = 0; i < m;)
    {
        std::ptrdiff_t j = i + 1;
        while (j < m && items[j].word == items[i].word)
            ++j;
        const std::ptrdiff_t size = j - i;
        // Runs of up to eight (a position's mirror images share a coordinate) are sorted by
        // their next words without branches on the data, unless two of them tie there.
        const bool sorted = size == 1 || (size == 2 && sortRunByNext<2, true>(items + i, 2)) ||
                            (size == 4 && sortRunByNext<4, true>(items + i, 4)) ||
                            (size == 8 && sortRunByNext<8, true>(items + i, 8)) ||
                            (size == 3 && sortRunByNext<4>(items + i, 3)) ||
                            (size > 4 && size < 8 && sortRunByNext<8>(items + i, int(size)));
        if (sorted)
            ;
        else if (size > shortRun)
            std::sort(items + i, items + j, less);
        else
            for (std::ptrdiff_t k = i + 1; k < j; ++k)
            {
                const Item item = items[k];
                std::ptrdiff_t p = k;
                for (; p > i && less(item, items[p - 1]); --p)
                    items[p] = items[p - 1];
                items[p] = item;
            }
        i = j;
    }
}

template <class Order> struct KeyItemLess
{
    Order order;

    bool operator()(const KeyItem& a, const KeyItem& b) const
    {
        if (a.word != b.word)
            return a.word < b.word;
        if (a.next != b.next)
            return a.next < b.next;
        return order(a.index, b.index);
    }
};

// The total order of KeyIndexOrder over keys stored back to back (W floats each) and indexed
// by group number; groups are numbered in the order of their first vertex, so comparing the
// numbers compares the first vertices' indices.
template <int W> struct DenseKeyOrder
{
    const float* keys;

    bool operator()(int a, int b) const
    {
        const float* ka = keys + std::ptrdiff_t(W) * a;
        const float* kb = keys + std::ptrdiff_t(W) * b;
        for (int k = 0; k < W; ++k)
        {
            const std::uint32_t x = orderKey(ka[k]), y = orderKey(kb[k]);
            if (x != y)
                return x < y;
        }
        return a < b;
    }
};

// The vertices that a StreamGrouper takes, in turn, and where it leaves each one's group:
// vertex(j) is the j-th vertex, put(j, g) records its group.

// The vertices first, first + 1, first + 2 ..., their groups going to the remap's entries.
struct RangeStream
{
    int* map;
    std::ptrdiff_t first;

    int vertex(std::ptrdiff_t j) const { return int(first + j); }
    void put(std::ptrdiff_t j, int g) const { map[first + j] = g; }
};

// Groups vertices by identical keys, numbering the groups in the order of their first vertex
// (the vertices must come in increasing index order), and keeps each group's key in a dense
// array (as its first vertex's key with -0 made +0) and its highest vertex index. The groups are
// then sorted by key and given their new indices. The table and every key read while grouping sit
// in small dense arrays, not spread over the vertex array. A key with a NaN is equal to nothing:
// its vertex is a group of its own and is not entered in the table.
template <int W> class StreamGrouper
{
    // Below this many groups the sort takes eight-bit digits.
    static constexpr std::ptrdiff_t smallSort = std::ptrdiff_t(1) << 13;

    // From this many vertices the table takes one slot per two vertices instead of one per
    // vertex, as a table of one slot per vertex (4 MB and more) then costs more in cache misses
    // than it saves in mispredictions. Below, the sparser table ends most lookups at their first
    // slot, so that the exit of the probe loop is well predicted: with half as many slots the welds
    // of sphere soups of 477,600 and 937,440 vertices took 7 to 15 % longer, those of 1.9 and 3
    // million vertices 5 to 7 % less.
    static constexpr std::ptrdiff_t largeItems = std::ptrdiff_t(1) << 20;

    // From this many vertices the grouping asks for the slots and keys that it will read a few
    // vertices ahead: the table (one slot per vertex) and the keys no longer sit in the half of
    // the second-level cache that they may have, and a lookup would wait for both in turn
    // (6 to 10 % of the weld of sphere soups of 233,520 vertices). Below, the requests would
    // only cost instructions (4 to 7 % of soups of 48,384 and 118,800 in mesh order).
    static constexpr std::ptrdiff_t prefetchItems = std::ptrdiff_t(1) << 17;

public:
    // For `m` vertices in all. The table doubles when groups fill half of it.
    StreamGrouper(const KeyReader<W>& keys, std::ptrdiff_t m)
        : m_keys(keys), m_prefetch(m >= prefetchItems)
    {
        int bits = 6;
        while ((std::size_t(1) << bits) < std::size_t(m) / (m >= largeItems ? 2 : 1))
            ++bits;
        const std::size_t capacity = std::size_t(1) << bits;
        m_shift = 64 - bits;
        m_table.reserve(capacity);
        qy::adviseHugePages(m_table);
        m_table.assign(capacity, -1);
        // Written only as far as groups are found.
        m_groupKeys = uninitialized<float>(std::size_t(W) * std::size_t(m));
        m_last = uninitialized<int>(std::size_t(m));
    }

    // Takes the m vertices of `stream`, whose indices are all above those taken before.
    template <class Stream> void add(const Stream& stream, std::ptrdiff_t m)
    {
        if (m_prefetch)
            addAll<true>(stream, m);
        else
            addAll<false>(stream, m);
    }

    int count() const { return m_count; }

    // Whether a group has the key (never for a key with a NaN). The table must not have been
    // freed by sortGroups().
    bool contains(const float* key) const
    {
        if (hasNaN<W>(key))
            return false;
        const std::size_t mask = m_table.size() - 1;
        const float* groupKeys = m_groupKeys.get();
        for (std::size_t slot = hashKey<W>(key) >> m_shift;; slot = (slot + 1) & mask)
        {
            const int r = m_table[slot];
            if (r < 0)
                return false;
            if (sameKey<W>(key, groupKeys + std::ptrdiff_t(W) * r))
                return true;
        }
    }

    // Group g's key (W floats), until the keys are freed.
    const float* key(int g) const { return m_groupKeys.get() + std::ptrdiff_t(W) * g; }

    // Orders the groups by key, then number: the k-th item names the k-th group. Frees the
    // table; the keys stay. The items' words are those of the keys' components from
    // primary() on.
    std::unique_ptr<KeyItem[]> sortGroups()
    {
        std::vector<int>().swap(m_table);
        const std::ptrdiff_t count = m_count;
        std::unique_ptr<KeyItem[]> items = uninitialized<KeyItem>(std::size_t(count));
        {
            std::unique_ptr<KeyItem[]> scratch = uninitialized<KeyItem>(std::size_t(count));
            const float* keys = m_groupKeys.get();
            auto build = [&](int primary)
            {
                std::uint32_t differ = 0;
                const std::uint32_t first = count > 0 ? orderKey(keys[primary]) : 0;
                for (std::ptrdiff_t g = 0; g < count; ++g)
                {
                    const float* key = keys + W * g;
                    KeyItem& item = items[g];
                    item.word = orderKey(key[primary]);
                    const std::uint32_t next0 = primary + 1 < W ? orderKey(key[primary + 1]) : 0u;
                    const std::uint32_t next1 = primary + 2 < W ? orderKey(key[primary + 2]) : 0u;
                    item.next = std::uint64_t(next0) << 32 | next1;
                    item.index = int(g);
                    differ |= item.word ^ first;
                }
                return differ != 0;
            };
            // The items are built on component 0, and built again in the rare case that it is
            // the same in every key.
            if (!build(0))
            {
                unsigned mask = 0;
                for (std::ptrdiff_t g = 1; g < count; ++g)
                    for (int c = 0; c < W; ++c)
                        mask |= unsigned(orderKey(keys[W * g + c]) != orderKey(keys[c])) << c;
                if (mask != 0)
                {
                    m_primary = std::countr_zero(mask);
                    build(m_primary);
                }
            }
            // Keys that tie in the three words of their items are rare but for NaN keys.
            const KeyItemLess<DenseKeyOrder<W>> less{DenseKeyOrder<W>{keys}};
            if (count < smallSort)
                sortItems<8>(items, scratch, count, less);
            else
                sortItems(items, scratch, count, less);
        }
        return items;
    }

    // The key component that the items of sortGroups() begin with.
    int primary() const { return m_primary; }

    void freeKeys() { m_groupKeys.reset(); }

    // Orders the groups by key, then number, and numbers them in that order from `offset`:
    // source[k] = the highest vertex of the k-th group, and newIndex() of the group is then
    // offset + k. Frees the table and the keys.
    void sortAndNumber(int* source, int offset)
    {
        const std::ptrdiff_t count = m_count;
        const std::unique_ptr<KeyItem[]> items = sortGroups();
        freeKeys();
        // The group's highest vertex supplies the data; its entry then holds its new index.
        int* last = m_last.get();
        for (std::ptrdiff_t k = 0; k < count; ++k)
        {
            const int g = items[k].index;
            source[k] = last[g];
            last[g] = offset + int(k);
        }
    }

    // The new index of each group, after sortAndNumber(); before, its highest vertex.
    const int* newIndex() const { return m_last.get(); }
    int* last() { return m_last.get(); }

private:
    template <bool Prefetch, class Stream> void addAll(const Stream& stream, std::ptrdiff_t m)
    {
        std::vector<int>& table = m_table;
        std::size_t mask = table.size() - 1;
        int shift = m_shift;
        float* groupKeys = m_groupKeys.get();
        int* last = m_last.get();
        int count = m_count;

        // With Prefetch, the slot of the vertex `ahead` places on is fetched early, its hash
        // kept in a ring for when the loop gets there.
        [[maybe_unused]] std::uint64_t hashes[Prefetch ? ahead : 1];
        auto hashAhead = [&](std::ptrdiff_t j)
        {
            float key[W];
            m_keys.load(stream.vertex(j), key);
            const std::uint64_t hash = hashKey<W>(key);
            __builtin_prefetch(table.data() + (hash >> shift));
            return hash;
        };
        if constexpr (Prefetch)
            for (std::ptrdiff_t j = 0; j < std::min(ahead, m); ++j)
                hashes[j % ahead] = hashAhead(j);
        for (std::ptrdiff_t j = 0; j < m; ++j)
        {
            const int i = stream.vertex(j);
            float key[W];
            m_keys.load(i, key);
            // Where the table and keys are fetched ahead, the lookup waits on memory less than
            // on its own instructions, and the floats are compared as they are; the bits of
            // the key are made only for a new group.
            std::uint32_t bits[W];
            const bool nan = Prefetch ? hasNaN<W>(key) : keyBits<W>(key, bits);
            std::uint64_t hash;
            if constexpr (Prefetch)
            {
                hash = hashes[j % ahead];
                // Half way, the slot fetched for a vertex is there to be read: the key of the
                // group that it names (the one that vertex most likely joins) is fetched too.
                // An empty slot fetches row 0, harmlessly: a test would be mispredicted for most
                // new groups.
                if (j + ahead / 2 < m)
                {
                    const int r = table[hashes[(j + ahead / 2) % ahead] >> shift];
                    __builtin_prefetch(groupKeys + std::ptrdiff_t(W) * std::max(r, 0));
                }
                if (j + ahead < m)
                    hashes[j % ahead] = hashAhead(j + ahead);
            }
            else
                hash = hashBits<W>(bits);
            int g = -1;
            if (!nan)
            {
                for (std::size_t slot = hash >> shift;; slot = (slot + 1) & mask)
                {
                    const int r = table[slot];
                    if (r < 0)
                    {
                        table[slot] = count;
                        break;
                    }
                    const float* groupKey = groupKeys + std::ptrdiff_t(W) * r;
                    if (Prefetch ? sameKey<W>(key, groupKey) : sameBits<W>(bits, groupKey))
                    {
                        g = r;
                        break;
                    }
                }
            }
            if (g < 0)
            {
                // A new group (a NaN key is one of its own, outside the table).
                g = count++;
                if constexpr (Prefetch)
                    keyBits<W>(key, bits);
                for (int k = 0; k < W; ++k)
                    groupKeys[std::ptrdiff_t(W) * g + k] = std::bit_cast<float>(bits[k]);
                if (2 * std::size_t(count) > table.size())
                {
                    grow();
                    mask = table.size() - 1;
                    shift = m_shift;
                }
            }
            stream.put(j, g);
            last[g] = i;
        }
        m_count = count;
    }

    // Doubles the table; the groups in it are entered again (NaN keys' groups never are).
    void grow()
    {
        std::vector<int> old(m_table.size() * 2, -1);
        old.swap(m_table);
        --m_shift;
        const std::size_t mask = m_table.size() - 1;
        const float* groupKeys = m_groupKeys.get();
        for (int g : old)
        {
            if (g < 0)
                continue;
            std::size_t slot = hashKey<W>(groupKeys + std::ptrdiff_t(W) * g) >> m_shift;
            while (m_table[slot] >= 0)
                slot = (slot + 1) & mask;
            m_table[slot] = g;
        }
    }

    KeyReader<W> m_keys;
    bool m_prefetch;
    int m_count = 0;
    int m_primary = 0;
    std::vector<int> m_table;
    // The table has 2^(64 - m_shift) slots; a key's first slot is its hash >> m_shift.
    int m_shift = 0;
    std::unique_ptr<float[]> m_groupKeys;
    std::unique_ptr<int[]> m_last;
};

// The old vertices that supply the data of the new ones, in one or two parts: new vertex k
// takes the data of parts[0][k], then of parts[1][k - sizes[0]].
struct Sources
{
    std::unique_ptr<int[]> parts[2];
    std::ptrdiff_t sizes[2] = {0, 0};

    std::ptrdiff_t total() const { return sizes[0] + sizes[1]; }
};

// The default checker's route on the calling thread alone: one StreamGrouper over all the
// vertices, whose groups go to map and are then turned into new indices.
template <int W> class SerialGrouping
{
public:
    SerialGrouping(const KeyReader<W>& keys, int n, int* map)
        : m_grouper(keys, n), m_n(n), m_map(map)
    {
    }

    // Returns the number of groups; when some vertices were welded, also orders the groups
    // and fills the sources.
    int group(Sources& sources)
    {
        m_grouper.add(RangeStream{m_map, 0}, m_n);
        const int count = m_grouper.count();
        if (count < m_n)
        {
            sources.parts[0] = uninitialized<int>(std::size_t(count));
            sources.sizes[0] = count;
            m_grouper.sortAndNumber(sources.parts[0].get(), 0);
        }
        return count;
    }

    // Gives every vertex its new index; only when some vertices were welded. The leading
    // corners that name their own position's vertex (all of them in a soup as a triangle file
    // gives it) get their new index in the same pass, which then reads the map only once;
    // returns how many did.
    std::ptrdiff_t number(int* corners, std::ptrdiff_t numCorners)
    {
        const int* newIndex = m_grouper.newIndex();
        int* map = m_map;
        const std::ptrdiff_t both = std::min<std::ptrdiff_t>(m_n, numCorners);
        std::ptrdiff_t i = 0;
        for (; i < both && corners[i] == i; ++i)
        {
            const int v = newIndex[map[i]];
            map[i] = v;
            corners[i] = v;
        }
        const std::ptrdiff_t renumbered = i;
        for (; i < m_n; ++i)
            map[i] = newIndex[map[i]];
        return renumbered;
    }

private:
    StreamGrouper<W> m_grouper;
    int m_n;
    int* m_map;
};

// The default checker's route on two tasks. Each task groups the vertices of one half of the
// index range with a StreamGrouper of its own and sorts its groups; the two sorted lists are
// then merged, a key found in both halves making one new vertex, and the merged order numbers
// the new vertices. The merge is split between the tasks at a key of the first list: the
// groups below it in both lists go to task 0, the others to task 1, so that equal keys meet in
// one task. The result is that of SerialGrouping: the halves' groups are runs of the sort
// order of all the vertices, and every group of the lower half has lower vertex indices than
// any group of the upper half, which decides between keys that compare equal but do not weld
// (NaN keys).
//
// When the copies of a position lie near each other in the array (a soup in mesh order) most
// keys are found in one half only, and the work of each task is half that of one task alone.
// When they are spread over the array each half finds most keys, and each task sorts as many
// groups as one task alone would, but looks up only half the vertices.
template <int W> class HalvesGrouping
{
public:
    // Sizes the remap (n entries, all written) in task 0 while task 1 groups its part, which
    // goes to a buffer of its own until then. Task 0 takes fewer vertices to make up for the
    // fill, which takes about as long as n / 32 lookups.
    HalvesGrouping(const KeyReader<W>& keys, int n, Remap& remap, qyUtil::ThreadPool& pool)
        : m_keys(keys), m_n(n), m_remap(remap), m_pool(pool), m_middle(n / 2 - n / 64)
    {
    }

    // Returns the number of groups; when some vertices were welded, also orders the groups
    // and fills the sources.
    int group(Sources& sources)
    {
        runTwoTasks(m_pool, true,
                    [&](int side)
                    {
                        const std::ptrdiff_t begin = side ? m_middle : 0,
                                             end = side ? m_n : m_middle;
                        int* ids;
                        if (side == 0)
                        {
                            m_remap.resize(m_n, m_n);
                            ids = m_remap.getMap();
                        }
                        else
                        {
                            m_ids = uninitialized<int>(std::size_t(end - begin));
                            ids = m_ids.get() - begin;
                        }
                        m_groupers[side] = std::make_unique<StreamGrouper<W>>(m_keys, end - begin);
                        m_groupers[side]->add(RangeStream{ids, begin}, end - begin);
                    });
        m_map = m_remap.getMap();
        StreamGrouper<W>& low = *m_groupers[0];
        StreamGrouper<W>& high = *m_groupers[1];
        const int counts[2] = {low.count(), high.count()};
        if (counts[0] + counts[1] == m_n && !sharedKey())
            return m_n;

        runTwoTasks(m_pool, true,
                    [&](int side) { m_items[side] = m_groupers[side]->sortGroups(); });
        // The first list's middle group splits the merge; equal keys go to task 1 in both.
        const KeyItem* lists[2] = {m_items[0].get(), m_items[1].get()};
        const GroupOrder order{low.key(0), high.key(0), low.primary() == 0 && high.primary() == 0};
        std::ptrdiff_t split[2] = {counts[0] / 2, 0};
        {
            const KeyItem& pivot = lists[0][split[0]];
            const float* pivotKey = low.key(pivot.index);
            // Below the pivot in the first list: the groups before it, as the list is sorted.
            std::ptrdiff_t lo = 0, hi = counts[1];
            while (lo < hi)
            {
                const std::ptrdiff_t mid = (lo + hi) / 2;
                if (order.compare(lists[1][mid], high.key(lists[1][mid].index), pivot, pivotKey) <
                    0)
                    lo = mid + 1;
                else
                    hi = mid;
            }
            split[1] = lo;
            // Groups of the first list equal to the pivot but before it (NaN keys) go to task 1
            // too.
            while (split[0] > 0 &&
                   order.compare(lists[0][split[0] - 1], low.key(lists[0][split[0] - 1].index),
                                 pivot, pivotKey) == 0)
                --split[0];
        }
        int found[2] = {0, 0};
        runTwoTasks(m_pool, true,
                    [&](int part)
                    {
                        const std::ptrdiff_t a = part ? split[0] : 0,
                                             aEnd = part ? counts[0] : split[0];
                        const std::ptrdiff_t b = part ? split[1] : 0,
                                             bEnd = part ? counts[1] : split[1];
                        sources.parts[part] = uninitialized<int>(std::size_t(aEnd - a + bEnd - b));
                        found[part] = merge(order, lists[0] + a, aEnd - a, lists[1] + b, bEnd - b,
                                            part ? tagged : 0, sources.parts[part].get());
                        sources.sizes[part] = found[part];
                    });
        m_offset = found[0];
        return found[0] + found[1];
    }

    // Gives every vertex its new index; only when some vertices were welded. Renumbers no
    // corner (returns 0).
    std::ptrdiff_t number(int*, std::ptrdiff_t)
    {
        int* map = m_map;
        const int offset = m_offset;
        runTwoTasks(m_pool, true,
                    [&](int side)
                    {
                        const std::ptrdiff_t begin = side ? m_middle : 0,
                                             end = side ? m_n : m_middle;
                        const int* ids = side ? m_ids.get() - begin : map;
                        const int* newIndex = m_groupers[side]->newIndex();
                        for (std::ptrdiff_t i = begin; i < end; ++i)
                        {
                            const int v = newIndex[ids[i]];
                            map[i] = (v & ~tagged) + (offset & (v >> 31));
                        }
                    });
        return 0;
    }

private:
    // Marks the new indices numbered by task 1 of the merge, which counts from 0 before it
    // knows where task 0 ends.
    static constexpr int tagged = int(0x80000000u);

    // The key order of the groups of the two halves, by their items where both are built on
    // component 0 (then the words are the first three components), else by their keys.
    struct GroupOrder
    {
        const float* lowKeys;
        const float* highKeys;
        bool byWords;

        // <0, 0 or >0 as a's key sorts before, equal to or after b's; 0 for two keys that
        // hold a NaN in the same components and are otherwise equal.
        int compare(const KeyItem& a, const float* aKey, const KeyItem& b, const float* bKey) const
        {
            if (byWords)
            {
                if (a.word != b.word)
                    return a.word < b.word ? -1 : 1;
                if (a.next != b.next)
                    return a.next < b.next ? -1 : 1;
                if constexpr (W == 3)
                    return 0;
            }
            for (int k = 0; k < W; ++k)
            {
                const std::uint32_t x = orderKey(aKey[k]), y = orderKey(bKey[k]);
                if (x != y)
                    return x < y ? -1 : 1;
            }
            return 0;
        }

        // Whether a's key holds a NaN (orderKey gives all ones to a NaN and to nothing else).
        bool keyHasNaN(const KeyItem& a) const
        {
            if constexpr (W == 3)
                if (byWords)
                    return a.word == ~0u || std::uint32_t(a.next >> 32) == ~0u ||
                           std::uint32_t(a.next) == ~0u;
            return hasNaN<W>(lowKeys + std::ptrdiff_t(W) * a.index);
        }

        int compare(const KeyItem& a, const KeyItem& b) const
        {
            return compare(a, lowKeys + std::ptrdiff_t(W) * a.index, b,
                           highKeys + std::ptrdiff_t(W) * b.index);
        }
    };

    // Merges m sorted groups of the lower half with p of the upper: writes each new vertex's
    // source (the highest vertex of its groups, so the upper half's where a key is in both)
    // and leaves its number, from 0 and or-ed with `tag`, as the new index of its groups.
    // Returns the number of new vertices.
    int merge(const GroupOrder& order, const KeyItem* a, std::ptrdiff_t m, const KeyItem* b,
              std::ptrdiff_t p, int tag, int* source)
    {
        int* lastLow = m_groupers[0]->last();
        int* lastHigh = m_groupers[1]->last();
        int k = 0;
        std::ptrdiff_t i = 0, j = 0;
        while (i < m && j < p)
        {
            const int c = order.compare(a[i], b[j]);
            const int ga = a[i].index, gb = b[j].index;
            if (c < 0 || (c == 0 && order.keyHasNaN(a[i])))
            {
                // Of two NaN keys that compare equal the lower half's has the lower index.
                source[k] = lastLow[ga];
                lastLow[ga] = k++ | tag;
                ++i;
            }
            else if (c > 0)
            {
                source[k] = lastHigh[gb];
                lastHigh[gb] = k++ | tag;
                ++j;
            }
            else
            {
                source[k] = lastHigh[gb];
                lastLow[ga] = lastHigh[gb] = k++ | tag;
                ++i;
                ++j;
            }
        }
        for (; i < m; ++i)
        {
            const int ga = a[i].index;
            source[k] = lastLow[ga];
            lastLow[ga] = k++ | tag;
        }
        for (; j < p; ++j)
        {
            const int gb = b[j].index;
            source[k] = lastHigh[gb];
            lastHigh[gb] = k++ | tag;
        }
        return k;
    }

    // Whether a key of the upper half is also in the lower half; asked only when neither
    // half welded anything, to tell whether anything is welded at all.
    bool sharedKey()
    {
        const StreamGrouper<W>& low = *m_groupers[0];
        const StreamGrouper<W>& high = *m_groupers[1];
        bool shared[2] = {false, false};
        runTwoTasks(m_pool, true,
                    [&](int task)
                    {
                        std::ptrdiff_t begin, end;
                        half(high.count(), task, begin, end);
                        for (std::ptrdiff_t g = begin; g < end && !shared[task]; ++g)
                            shared[task] = low.contains(high.key(int(g)));
                    });
        return shared[0] || shared[1];
    }

    KeyReader<W> m_keys;
    int m_n;
    Remap& m_remap;
    int* m_map = nullptr;
    qyUtil::ThreadPool& m_pool;
    // Task 0 groups the vertices below m_middle, task 1 the others, into m_ids.
    const std::ptrdiff_t m_middle;
    std::unique_ptr<int[]> m_ids;
    std::unique_ptr<StreamGrouper<W>> m_groupers[2];
    std::unique_ptr<KeyItem[]> m_items[2];
    // The number of new vertices that task 0 of the merge numbered.
    int m_offset = 0;
};

// Prints how long each phase of a weld took when the debug channel is on, and reads no clock
// otherwise: the smallest welds take a few microseconds, of which five readings would take 2 %.
class PhaseTimer
{
public:
    PhaseTimer() : m_on(debugChannel().isEnabled())
    {
        if (m_on)
            m_watch.start();
    }

    // Prints the time since the last phase (or since construction) under `phase`.
    void print(const char* phase)
    {
        if (m_on)
            debugChannel().print("  %s: %f s\n", phase, m_watch.clear());
    }

private:
    bool m_on;
    qyOS::StopWatch m_watch;
};

// Any checker's route: the index sort, then the scan that merges each run of vertices equal to
// the run's first. Fills map with the new index of every vertex and source with the old vertex
// that supplies the data of each new one (the highest old index mapped to it); returns the new
// vertex count.
template <int W>
int sortAndScan(const KeyReader<W>& keys, int n, int* map, Sources& sources,
                const IMeshVertexEqualityChecker& checker, qyUtil::ThreadPool& pool, bool parallel,
                qyUtil::Progress& progress, qyUtil::Progress& child, PhaseTimer& watch)
{
    std::vector<int> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0);
    smpSort(order.data(), order.data() + n, KeyIndexOrder<W>{keys},
            parallel ? pool : qyUtil::ThreadPool::getSingleThreadedPool());
    child.set(1.0);
    watch.print("sorted vertices");
    progress.subPhase(0.2, child);

    int count = 0;
    if (n > 0)
    {
        map[order[0]] = 0;
        count = 1;
    }
    for (int i = 1; i < n; ++i)
    {
        const std::ptrdiff_t rep = order[std::size_t(i) - 1], cur = order[std::size_t(i)];
        bool equal = checker.equal(keys.vertices + 3 * rep, keys.vertices + 3 * cur);
        if constexpr (W > 3)
        {
            if (equal)
            {
                float a[W], b[W];
                keys.load(rep, a);
                keys.load(cur, b);
                equal = sameKey<W - 3>(a + 3, b + 3);
            }
        }
        if (equal)
        {
            map[cur] = count - 1;
            order[std::size_t(i)] = int(rep); // the next vertex is compared with the run's first
        }
        else
            map[cur] = count++;
    }
    // The highest old index of each new vertex supplies its data.
    sources.parts[0] = uninitialized<int>(std::size_t(count));
    sources.sizes[0] = count;
    int* source = sources.parts[0].get();
    for (int i = 0; i < n; ++i)
        source[map[i]] = i;
    return count;
}

// new[k] = data[sources' k-th] for k < count, through one temporary, copied back in one block
// (a half per task, once both have gathered).
template <class T>
void gather(T* data, const Sources& sources, qyUtil::ThreadPool& pool, bool parallel)
{
    const std::size_t count = std::size_t(sources.total());
    std::unique_ptr<T[]> moved = uninitialized<T>(count);
    runTwoTasks(pool, parallel,
                [&](int task)
                {
                    std::ptrdiff_t begin, end;
                    half(std::ptrdiff_t(count), task, begin, end);
                    std::ptrdiff_t offset = 0;
                    for (int p = 0; p < 2; ++p)
                    {
                        const int* source = sources.parts[p].get();
                        const std::ptrdiff_t from = std::max(begin, offset),
                                             to = std::min(end, offset + sources.sizes[p]);
                        for (std::ptrdiff_t k = from; k < to; ++k)
                            moved[std::size_t(k)] = data[source[k - offset]];
                        offset += sources.sizes[p];
                    }
                });
    if (!parallel)
    {
        std::memcpy(static_cast<void*>(data), moved.get(), sizeof(T) * count);
        return;
    }
    runTwoTasks(pool, true,
                [&](int task)
                {
                    std::ptrdiff_t begin, end;
                    half(std::ptrdiff_t(count), task, begin, end);
                    std::memcpy(static_cast<void*>(data + begin), moved.get() + begin,
                                sizeof(T) * std::size_t(end - begin));
                });
}

// Rewrites vertex indices through the map; an index outside [0, n) is left as it is.
void renumber(int* indices, std::ptrdiff_t numIndices, const int* map, int n,
              qyUtil::ThreadPool& pool, bool parallel)
{
    runTwoTasks(pool, parallel && numIndices >= parallelItems,
                [&](int task)
                {
                    std::ptrdiff_t begin, end;
                    half(numIndices, task, begin, end);
                    for (std::ptrdiff_t k = begin; k < end; ++k)
                    {
                        const int v = indices[k];
                        indices[k] = unsigned(v) < unsigned(n) ? map[v] : v;
                    }
                });
}

// Fills the remap and the sources; returns the new vertex count. The grouping route may give
// the leading corners (numCorners in all) their new indices too: `renumbered` says how many.
template <int W>
int buildMap(const KeyReader<W>& keys, int n, Remap& remap, Sources& sources,
             IMeshVertexEqualityChecker* checker, qyUtil::ThreadPool& pool, bool parallel,
             qyUtil::Progress& progress, qyUtil::Progress& child, PhaseTimer& watch, int* corners,
             std::ptrdiff_t numCorners, std::ptrdiff_t& renumbered)
{
    auto run = [&](auto& grouping)
    {
        const int count = grouping.group(sources);
        child.set(1.0);
        watch.print("sorted vertices");
        progress.subPhase(0.2, child);
        if (count < n)
            renumbered = grouping.number(corners, numCorners);
        return count;
    };
    if (parallel && !checker)
    {
        HalvesGrouping<W> grouping(keys, n, remap, pool);
        return run(grouping);
    }
    // The grouping writes every entry when it takes the vertices.
    if (checker)
        remap.resize(n, n);
    else
        remap.resizeForOverwrite(n, n);
    int* map = remap.getMap();
    if (checker)
        return sortAndScan<W>(keys, n, map, sources, *checker, pool, parallel, progress, child,
                              watch);
    SerialGrouping<W> grouping(keys, n, map);
    return run(grouping);
}

/// The weld itself. A null checker means exact equality of positions, which takes the
/// grouping route; any other checker is asked run by run after a sort.
void weld(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap,
          IMeshVertexEqualityChecker* checker)
{
    const int n = mesh.getNumVertices();
    debugChannel().print("meshCompact: %d vertices, %d triangles\n", n, mesh.getNumTriangles());
    PhaseTimer watch;

    // UVs join the key only beside explicit normals; computed normals are not data.
    const bool useNormals = mesh.getNormalsRaw() != nullptr && !mesh.getNormalsComputed();
    const bool useUVs = mesh.getUVsRaw() != nullptr;
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    const bool parallel =
        pool.getNumThreads() > 1 && n >= (checker ? parallelItems : parallelGroupingItems);

    qyUtil::Progress child;
    progress.subPhase(0.8, child);
    Sources sources;
    int* corners = mesh.getTrianglesRaw();
    const std::ptrdiff_t numCorners = 3 * std::ptrdiff_t(mesh.getNumTriangles());
    std::ptrdiff_t renumbered = 0;
    auto build = [&]<int W>(const KeyReader<W>& keys)
    {
        return buildMap<W>(keys, n, remap, sources, checker, pool, parallel, progress, child, watch,
                           corners, numCorners, renumbered);
    };
    const float* vertices = mesh.getVerticesRaw();
    const int count = useNormals && useUVs
                          ? build(KeyReader<8>{vertices, mesh.getNormalsRaw(), mesh.getUVsRaw()})
                      : useNormals ? build(KeyReader<6>{vertices, mesh.getNormalsRaw(), nullptr})
                                   : build(KeyReader<3>{vertices, nullptr, nullptr});
    child.set(1.0);
    watch.print("initialized remap");

    if (count == n)
    {
        remap.setSequential();
        return;
    }
    const int* map = remap.getMap();
    remap.setRangeSize(count);
    MeshRemap meshRemap;
    meshRemap.vertices = &remap;
    MeshModification change(&mesh, MeshModification::Remapped, &meshRemap);

    const bool parallelMoves = parallel && count >= parallelItems;
    gather(mesh.getVertices(), sources, pool, parallelMoves);
    watch.print("remapped vertices");
    if (useNormals)
    {
        gather(mesh.getNormals(), sources, pool, parallelMoves);
        change.normalsModified();
        watch.print("remapped normals");
    }
    if (useUVs)
    {
        gather(mesh.getUVs(), sources, pool, parallelMoves);
        change.uvsModified();
    }

    if (mesh.getNumTriStrips() > 0)
    {
        renumber(mesh.getTriStripPoints(), mesh.getNumTriStripPoints(), map, n, pool, false);
        change.stripsAndFansModified();
    }
    if (mesh.getNumTriFans() > 0)
    {
        renumber(mesh.getTriFanPoints(), mesh.getNumTriFanPoints(), map, n, pool, false);
        change.stripsAndFansModified();
    }
    mesh.resizeVertexArray(count);

    // The corners that the grouping did not renumber.
    const std::ptrdiff_t numIndices = numCorners - renumbered;
    renumber(corners + renumbered, numIndices, map, n, pool,
             pool.getNumThreads() > 1 && (checker || numIndices >= parallelGroupingItems));
    change.triangleNormalsValid();
    mesh.modified(change);
    watch.print("remapped triangles");
}

} // namespace

void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress)
{
    Remap remap;
    meshCompact(mesh, progress, remap);
}

void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap)
{
    weld(mesh, progress, remap, nullptr);
}

void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap,
                 DefaultMeshVertexEqualityChecker&)
{
    weld(mesh, progress, remap, nullptr);
}

void meshCompact(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap,
                 IMeshVertexEqualityChecker& checker)
{
    weld(mesh, progress, remap, &checker);
}

} // namespace qyGeom
