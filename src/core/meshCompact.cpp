// Vertex welding. Two routes give the same welded mesh and remap:
//
// - Any checker: the vertex indices are sorted by key (position, then explicit normal, then
//   UV) and one scan merges each run of vertices that the checker finds equal to the run's
//   first vertex.
// - The exact default checker: equal keys are equal vertices, so the vertices are grouped by
//   hashing their keys, and only one vertex per group is sorted. Each group is a run of the
//   sorted order (NaN keys stay alone), numbered by its place in that order, which is what
//   the scan would give for a fraction of the cost. On one thread the groups keep their keys
//   in a dense array of their own (SerialGrouping); on two, each task groups one half of the
//   vertices and the halves are joined (KeyGrouping).
//
// Both sort by a total order that agrees with the key comparison on NaN-free keys: +0 equals
// -0, NaN comes after every number, and identical keys are ordered by vertex index, so the
// result never depends on the sort algorithm or the thread count.
#include "qyGeom/meshCompact.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

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
// below it the whole weld stays on the calling thread. Measured in process CPU time on sphere
// soups: two tasks take 1.05 to 1.3 times the work of one when the copies of a position lie
// near each other in the array, but 1.9 to 2.4 times when they are spread over it (each half
// then holds most keys, and the join looks most of them up again). So spread soups gain
// nothing from a second core at any size measured (up to 1.9 million vertices), soups in mesh
// order gain from about 200,000; the limit keeps small meshes such as the bunny's soup
// (226,224 vertices, spread: 5 ms on one thread, 12 ms of CPU on two) on one thread.
constexpr int parallelGroupingItems = 1 << 20;

template <class T> std::unique_ptr<T[]> uninitialized(std::size_t n)
{
    return std::make_unique_for_overwrite<T[]>(n);
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

// Hash of a NaN-free key that gives +0 and -0 the same value, as they are equal.
template <int W> std::uint64_t hashKey(const float* key)
{
    static constexpr std::uint64_t mul[8] = {
        0x9E3779B97F4A7C15ull, 0xC2B2AE3D27D4EB4Full, 0x165667B19E3779F9ull, 0xD6E8FEB86659FD93ull,
        0xFF51AFD7ED558CCDull, 0xC4CEB9FE1A85EC53ull, 0x94D049BB133111EBull, 0xBF58476D1CE4E5B9ull};
    std::uint64_t h = 0;
    for (int k = 0; k < W; ++k)
    {
        std::uint32_t b = std::bit_cast<std::uint32_t>(key[k]);
        b = (b << 1) == 0 ? 0 : b;
        h ^= (std::uint64_t(b) + std::uint64_t(k)) * mul[k];
    }
    h ^= h >> 32;
    h *= 0xD6E8FEB86659FD93ull;
    h ^= h >> 32;
    return h;
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

// Groups the vertices of one index range by identical keys, with an open-addressing table of
// the first vertex of each key in the range (the group's representative). The result goes to
// the remap's entry array, which needs no second array for it: for a vertex i that joined the
// group of r, map[i] = r < i; for a representative r, map[r] = the highest index of its group
// so far, >= r. A key with a NaN is equal to nothing: its vertex is a group of its own and is
// not entered in the table.
template <int W> class RangeGrouper
{
public:
    // The table is sized for one distinct key in four vertices at a load of at most a half,
    // and doubles beyond that. It is made and filled by run(), on the task's own thread, so
    // that the two tasks write their fresh tables side by side.
    //
    // With `filtered`, the grouper also keeps a bit array of four bits per initial slot, one
    // set for each key entered (by other bits of the hash than the slot's): find() can then
    // turn most absent keys away without touching the much larger table.
    RangeGrouper(const KeyReader<W>& keys, std::ptrdiff_t begin, std::ptrdiff_t end, bool filtered)
        : m_keys(keys), m_begin(begin), m_end(end), m_capacity(64), m_filtered(filtered)
    {
        while (m_capacity < std::size_t(m_end - m_begin) / 2)
            m_capacity *= 2;
    }

    void run(int* map)
    {
        m_table.assign(m_capacity, -1);
        m_reps.reserve(m_capacity / 2);
        if (m_filtered)
            m_filter.assign(m_capacity / 16, 0); // 4 bits per slot in 64-bit words
        std::size_t mask = m_table.size() - 1, occupied = 0;
        // The first visit of a key finds a cold slot: the slot of the vertex `ahead` places on
        // is fetched early, its hash kept in a ring for when the loop gets there.
        auto hashAhead = [&](std::ptrdiff_t j)
        {
            float key[W];
            m_keys.load(j, key);
            return hashAndPrefetch(key);
        };
        std::uint64_t hashes[ahead];
        for (std::ptrdiff_t j = m_begin; j < std::min(m_begin + ahead, m_end); ++j)
            hashes[j % ahead] = hashAhead(j);
        for (std::ptrdiff_t i = m_begin; i < m_end; ++i)
        {
            const std::uint64_t hash = hashes[i % ahead];
            if (i + ahead < m_end)
                hashes[i % ahead] = hashAhead(i + ahead);
            float key[W];
            m_keys.load(i, key);
            if (hasNaN<W>(key))
            {
                map[i] = int(i);
                m_reps.push_back(int(i));
                continue;
            }
            for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask)
            {
                const int r = m_table[slot];
                if (r < 0)
                {
                    m_table[slot] = int(i);
                    map[i] = int(i);
                    m_reps.push_back(int(i));
                    if (!m_filter.empty())
                        setFilterBit(hash);
                    if (2 * ++occupied > m_table.size())
                        mask = grow();
                    break;
                }
                float other[W];
                m_keys.load(r, other);
                if (sameKey<W>(key, other))
                {
                    map[i] = r;
                    map[r] = int(i);
                    break;
                }
            }
        }
    }

    // The hash of `key`, after asking for its first slot to be fetched.
    std::uint64_t hashAndPrefetch(const float* key) const
    {
        const std::uint64_t hash = hashKey<W>(key);
        __builtin_prefetch(m_table.data() + (hash & (m_table.size() - 1)));
        return hash;
    }

    // The hash of `key`, after asking for its filter word (or its first slot, without a
    // filter) to be fetched.
    std::uint64_t hashAndPrefetchForFind(const float* key) const
    {
        if (m_filter.empty())
            return hashAndPrefetch(key);
        const std::uint64_t hash = hashKey<W>(key);
        __builtin_prefetch(m_filter.data() + filterIndex(hash) / 64);
        return hash;
    }

    // The representative of `key` (NaN-free, of hash `hash`) in this range, or -1.
    int find(const float* key, std::uint64_t hash) const
    {
        if (!m_filter.empty() && !filterBit(hash))
            return -1;
        const std::size_t mask = m_table.size() - 1;
        for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask)
        {
            const int r = m_table[slot];
            if (r < 0)
                return -1;
            float other[W];
            m_keys.load(r, other);
            if (sameKey<W>(key, other))
                return r;
        }
    }

    // Representatives in increasing index order, NaN keys included.
    const std::vector<int>& reps() const { return m_reps; }

    // Frees the table (and filter) once no more lookups will come, so that the sort that
    // follows can take the same memory.
    void releaseTable()
    {
        std::vector<int>().swap(m_table);
        std::vector<std::uint64_t>().swap(m_filter);
    }

private:
    std::size_t filterIndex(std::uint64_t hash) const
    {
        return std::size_t(hash >> 32) & (64 * m_filter.size() - 1);
    }
    bool filterBit(std::uint64_t hash) const
    {
        const std::size_t b = filterIndex(hash);
        return (m_filter[b / 64] >> (b % 64)) & 1u;
    }
    void setFilterBit(std::uint64_t hash)
    {
        const std::size_t b = filterIndex(hash);
        m_filter[b / 64] |= std::uint64_t(1) << (b % 64);
    }

    std::size_t grow()
    {
        std::vector<int> old(m_table.size() * 2, -1);
        old.swap(m_table);
        const std::size_t mask = m_table.size() - 1;
        for (int r : old)
        {
            if (r < 0)
                continue;
            float key[W];
            m_keys.load(r, key);
            std::size_t slot = hashKey<W>(key) & mask;
            while (m_table[slot] >= 0)
                slot = (slot + 1) & mask;
            m_table[slot] = r;
        }
        return mask;
    }

    KeyReader<W> m_keys;
    std::ptrdiff_t m_begin, m_end;
    std::size_t m_capacity;
    bool m_filtered;
    std::vector<int> m_table;
    std::vector<std::uint64_t> m_filter;
    std::vector<int> m_reps;
};

// A representative in the sort: the sortable forms of its first varying key component (the
// primary, `word`) and of the two after it (0 past the end of the key), and its index.
struct SortItem
{
    std::uint32_t word;
    std::uint32_t next[2];
    int index;
};

// The total order on representatives, for items built on component `primary` (the components
// before it are the same in every key). Only keys that tie in all three words of the items are
// read again from the mesh.
template <class Order> struct SortItemLess
{
    Order order;

    bool operator()(const SortItem& a, const SortItem& b) const
    {
        if (a.word != b.word)
            return a.word < b.word;
        if (a.next[0] != b.next[0])
            return a.next[0] < b.next[0];
        if (a.next[1] != b.next[1])
            return a.next[1] < b.next[1];
        return order(a.index, b.index);
    }
};

// Sorts m items, given in increasing index order, by `less`, using `scratch` (m items). Keys
// rarely tie in their primary component, so a stable radix sort on it (digits of `DigitBits`
// bits from the lowest; a digit that is the same in every item is skipped) leaves only short
// runs of equal words, each then sorted by the full order. Eleven-bit digits take three passes;
// eight-bit ones take four, but their 256 buckets are written within the first-level cache,
// which pays while the items are few.
template <int DigitBits = 11, class Item, class Less>
void sortItems(Item* items, Item* scratch, std::ptrdiff_t m, Less less)
{
    constexpr int numBuckets = 1 << DigitBits;
    constexpr int numDigits = (32 + DigitBits - 1) / DigitBits;
    std::vector<std::ptrdiff_t> counts(numDigits * numBuckets, 0);
    for (std::ptrdiff_t i = 0; i < m; ++i)
    {
        const std::uint32_t w = items[i].word;
        for (int d = 0; d < numDigits; ++d)
            ++counts[std::size_t(d * numBuckets) + ((w >> (d * DigitBits)) & (numBuckets - 1))];
    }
    Item* from = items;
    Item* to = scratch;
    for (int digit = 0; digit < numDigits && m > 1; ++digit)
    {
        std::ptrdiff_t* offsets = counts.data() + digit * numBuckets;
        const int shift = digit * DigitBits;
        if (offsets[(from[0].word >> shift) & (numBuckets - 1)] == m)
            continue;
        std::ptrdiff_t sum = 0;
        for (int b = 0; b < numBuckets; ++b)
        {
            const std::ptrdiff_t c = offsets[b];
            offsets[b] = sum;
            sum += c;
        }
        for (std::ptrdiff_t i = 0; i < m; ++i)
            to[offsets[(from[i].word >> shift) & (numBuckets - 1)]++] = from[i];
        std::swap(from, to);
    }
    if (from != items)
        std::memcpy(static_cast<void*>(items), from, sizeof(Item) * std::size_t(m));

    for (std::ptrdiff_t i = 0; i < m;)
    {
        std::ptrdiff_t j = i + 1;
        while (j < m && items[j].word == items[i].word)
            ++j;
        if (j - i > 1)
            std::sort(items + i, items + j, less);
        i = j;
    }
}

// A group in the sort of SerialGrouping: the sortable form of its primary key component and
// its number. Half the size of a SortItem: the other components are read from the groups'
// dense keys in the rare case of a tie.
struct WordItem
{
    std::uint32_t word;
    int index;
};

template <class Order> struct WordItemLess
{
    Order order;

    bool operator()(const WordItem& a, const WordItem& b) const
    {
        if (a.word != b.word)
            return a.word < b.word;
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

// The default checker's route on the calling thread alone. One pass numbers the groups of
// identical keys in the order of their first vertex (map[i] = the group of vertex i), keeping
// each group's key in a dense array and its highest vertex index; the groups' keys are then
// sorted, and a second pass turns group numbers into new indices. The table and every key
// read while grouping sit in small dense arrays, not spread over the vertex array.
template <int W> class SerialGrouping
{
    // Below this many groups the sort takes eight-bit digits.
    static constexpr std::ptrdiff_t smallSort = std::ptrdiff_t(1) << 17;

public:
    SerialGrouping(const KeyReader<W>& keys, int n, int* map) : m_keys(keys), m_n(n), m_map(map) {}

    // Returns the number of groups.
    int group()
    {
        std::size_t capacity = 64;
        while (capacity < std::size_t(m_n) / 2)
            capacity *= 2;
        std::vector<int> table(capacity, -1);
        std::size_t mask = capacity - 1;
        // Written only as far as groups are found.
        m_groupKeys = uninitialized<float>(std::size_t(W) * std::size_t(m_n));
        m_last = uninitialized<int>(std::size_t(m_n));
        float* groupKeys = m_groupKeys.get();
        int* last = m_last.get();
        int* map = m_map;
        int count = 0;

        auto hashAhead = [&](std::ptrdiff_t j)
        {
            float key[W];
            m_keys.load(j, key);
            const std::uint64_t hash = hashKey<W>(key);
            __builtin_prefetch(table.data() + (hash & mask));
            return hash;
        };
        std::uint64_t hashes[ahead];
        const std::ptrdiff_t n = m_n;
        for (std::ptrdiff_t j = 0; j < std::min(ahead, n); ++j)
            hashes[j % ahead] = hashAhead(j);
        for (std::ptrdiff_t i = 0; i < n; ++i)
        {
            const std::uint64_t hash = hashes[i % ahead];
            // Half way, the slot fetched for a vertex is there to be read: the key of the
            // group that it names (the one that vertex most likely joins) is fetched too.
            if (i + ahead / 2 < n)
            {
                const int r = table[hashes[(i + ahead / 2) % ahead] & mask];
                if (r >= 0)
                    __builtin_prefetch(groupKeys + std::ptrdiff_t(W) * r);
            }
            if (i + ahead < n)
                hashes[i % ahead] = hashAhead(i + ahead);
            float key[W];
            m_keys.load(i, key);
            int g = -1;
            if (!hasNaN<W>(key))
            {
                for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask)
                {
                    const int r = table[slot];
                    if (r < 0)
                    {
                        table[slot] = count;
                        break;
                    }
                    if (sameKey<W>(key, groupKeys + std::ptrdiff_t(W) * r))
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
                std::memcpy(groupKeys + std::ptrdiff_t(W) * g, key, sizeof(key));
                if (2 * std::size_t(count) > table.size())
                    mask = grow(table);
            }
            map[i] = g;
            last[g] = int(i);
        }
        m_count = count;
        if (count < m_n)
            sortGroups();
        return count;
    }

    void number(std::vector<int>& source)
    {
        const std::ptrdiff_t count = m_count;
        const WordItem* items = m_items.get();
        // The group's highest vertex supplies the data; its entry then holds its new index.
        source.resize(std::size_t(count));
        int* last = m_last.get();
        for (std::ptrdiff_t k = 0; k < count; ++k)
        {
            const int g = items[k].index;
            source[std::size_t(k)] = last[g];
            last[g] = int(k);
        }
        m_items.reset();
        int* map = m_map;
        for (std::ptrdiff_t i = 0; i < m_n; ++i)
            map[i] = last[map[i]];
    }

private:
    // Orders the groups by key into m_items.
    void sortGroups()
    {
        const std::ptrdiff_t count = m_count;
        m_items = uninitialized<WordItem>(std::size_t(count));
        WordItem* items = m_items.get();
        {
            std::unique_ptr<WordItem[]> scratch = uninitialized<WordItem>(std::size_t(count));
            const float* keys = m_groupKeys.get();
            // The primary component is the first that is not the same in every key.
            unsigned mask = 0;
            for (std::ptrdiff_t g = 1; g < count; ++g)
                for (int c = 0; c < W; ++c)
                    mask |= unsigned(orderKey(keys[W * g + c]) != orderKey(keys[c])) << c;
            const int primary = mask == 0 ? 0 : std::countr_zero(mask);
            for (std::ptrdiff_t g = 0; g < count; ++g)
            {
                const float* key = keys + W * g;
                items[g] = {orderKey(key[primary]), int(g)};
            }
            const WordItemLess<DenseKeyOrder<W>> less{DenseKeyOrder<W>{keys}};
            if (count < smallSort)
                sortItems<8>(items, scratch.get(), count, less);
            else
                sortItems(items, scratch.get(), count, less);
        }
        m_groupKeys.reset();
    }

    std::size_t grow(std::vector<int>& table) const
    {
        std::vector<int> old(table.size() * 2, -1);
        old.swap(table);
        const std::size_t mask = table.size() - 1;
        for (int g : old)
        {
            if (g < 0)
                continue;
            std::size_t slot = hashKey<W>(m_groupKeys.get() + std::ptrdiff_t(W) * g) & mask;
            while (table[slot] >= 0)
                slot = (slot + 1) & mask;
            table[slot] = g;
        }
        return mask;
    }

    KeyReader<W> m_keys;
    int m_n;
    int* m_map;
    int m_count = 0;
    std::unique_ptr<float[]> m_groupKeys;
    std::unique_ptr<int[]> m_last;
    std::unique_ptr<WordItem[]> m_items;
};

// The default checker's route, in two steps. group() finds the groups of identical keys and
// orders one representative per group by key; number() gives every vertex its new index
// (map) and every new index the old vertex that supplies its data (source: the highest old
// index of the group).
//
// With two tasks, each groups one half of the vertices; then the second half's
// representatives are looked up in the first half's table, so that a group spread over both
// halves takes the first half's representative (the lower index) and the second half's last
// index (the higher). The result is the same as with one task.
template <int W> class KeyGrouping
{
public:
    KeyGrouping(const KeyReader<W>& keys, int n, int* map, qyUtil::ThreadPool& pool, bool parallel)
        : m_keys(keys), m_n(n), m_map(map), m_pool(pool), m_parallel(parallel)
    {
    }

    // Returns the number of groups.
    int group()
    {
        for (int p = 0; p < (m_parallel ? 2 : 1); ++p)
        {
            std::ptrdiff_t begin = 0, end = m_n;
            if (m_parallel)
                half(m_n, p, begin, end);
            m_parts.emplace_back(m_keys, begin, end, m_parallel && p == 0);
        }
        runTwoTasks(m_pool, m_parallel,
                    [&](int task)
                    {
                        if (task < int(m_parts.size()))
                            m_parts[std::size_t(task)].run(m_map);
                    });
        m_reps = m_parts[0].reps();
        if (m_parallel)
            joinHalves();
        for (RangeGrouper<W>& part : m_parts)
            part.releaseTable();
        const int count = int(m_reps.size());
        if (count < m_n)
            sortReps();
        return count;
    }

    void number(std::vector<int>& source)
    {
        const std::ptrdiff_t count = std::ptrdiff_t(m_reps.size());
        int* map = m_map;
        // A representative's entry holds its group's last index; it gives that to the source
        // and takes -(new index + 1) instead, told apart from the other entries by its sign.
        source.resize(std::size_t(count));
        const SortItem* items = m_items.get();
        runTwoTasks(m_pool, m_parallel,
                    [&](int task)
                    {
                        std::ptrdiff_t begin, end;
                        half(count, task, begin, end);
                        for (std::ptrdiff_t k = begin; k < end; ++k)
                        {
                            if (k + ahead < end)
                                __builtin_prefetch(map + items[k + ahead].index);
                            const int r = items[k].index;
                            source[std::size_t(k)] = map[r];
                            map[r] = -int(k) - 1;
                        }
                    });
        m_items.reset();
        if (m_parallel)
        {
            // A second-half representative that joined a first-half group points at that
            // group's representative; it takes the same code.
            const std::vector<int>& reps1 = m_parts[1].reps();
            runTwoTasks(m_pool, true,
                        [&](int task)
                        {
                            std::ptrdiff_t begin, end;
                            half(std::ptrdiff_t(reps1.size()), task, begin, end);
                            for (std::ptrdiff_t k = begin; k < end; ++k)
                            {
                                const int r = reps1[std::size_t(k)];
                                if (map[r] >= 0)
                                    map[r] = map[map[r]];
                            }
                        });
        }
        // Every other vertex points at a representative of its own half with a lower index;
        // going down, that entry still holds the code when the vertex reads it.
        runTwoTasks(m_pool, m_parallel,
                    [&](int task)
                    {
                        std::ptrdiff_t begin = 0, end = m_n;
                        if (m_parallel)
                            half(m_n, task, begin, end);
                        else if (task == 1)
                            return;
                        for (std::ptrdiff_t i = end - 1; i >= begin; --i)
                        {
                            const int v = map[i];
                            map[i] = v < 0 ? -v - 1 : -map[v] - 1;
                        }
                    });
    }

private:
    void joinHalves()
    {
        // Each task looks up its share of the second half's representatives; the writes go to
        // distinct entries, as distinct representatives have distinct keys.
        const RangeGrouper<W>& first = m_parts[0];
        const std::vector<int>& reps1 = m_parts[1].reps();
        int* map = m_map;
        std::vector<int> unmatched[2];
        runTwoTasks(m_pool, true,
                    [&](int task)
                    {
                        std::ptrdiff_t begin, end;
                        half(std::ptrdiff_t(reps1.size()), task, begin, end);
                        auto hashAhead = [&](std::ptrdiff_t k)
                        {
                            float key[W];
                            m_keys.load(reps1[std::size_t(k)], key);
                            return first.hashAndPrefetchForFind(key);
                        };
                        std::uint64_t hashes[ahead];
                        for (std::ptrdiff_t k = begin; k < std::min(begin + ahead, end); ++k)
                            hashes[k % ahead] = hashAhead(k);
                        for (std::ptrdiff_t k = begin; k < end; ++k)
                        {
                            const std::uint64_t hash = hashes[k % ahead];
                            if (k + ahead < end)
                                hashes[k % ahead] = hashAhead(k + ahead);
                            const int r = reps1[std::size_t(k)];
                            float key[W];
                            m_keys.load(r, key);
                            const int r0 = hasNaN<W>(key) ? -1 : first.find(key, hash);
                            if (r0 < 0)
                                unmatched[task].push_back(r);
                            else
                            {
                                map[r0] = map[r]; // the group's last index, from this half
                                map[r] = r0;
                            }
                        }
                    });
        m_reps.insert(m_reps.end(), unmatched[0].begin(), unmatched[0].end());
        m_reps.insert(m_reps.end(), unmatched[1].begin(), unmatched[1].end());
    }

    // Orders m_reps by key, then index, into m_items: each task sorts one half, and the
    // halves are merged as in smpSort.
    void sortReps()
    {
        const std::ptrdiff_t count = std::ptrdiff_t(m_reps.size());
        m_items = uninitialized<SortItem>(std::size_t(count));
        std::unique_ptr<SortItem[]> scratch = uninitialized<SortItem>(std::size_t(count));
        SortItem* items = m_items.get();

        // The primary component is the first that is not the same in every key; items are
        // built on component 0 and rebuilt in the rare case that it is constant.
        std::uint32_t first[W];
        {
            float key[W];
            m_keys.load(m_reps[0], key);
            for (int c = 0; c < W; ++c)
                first[c] = orderKey(key[c]);
        }
        unsigned varies[2] = {0, 0};
        auto build = [&](int primary)
        {
            runTwoTasks(m_pool, m_parallel,
                        [&](int task)
                        {
                            std::ptrdiff_t begin, end;
                            half(count, task, begin, end);
                            unsigned mask = 0;
                            for (std::ptrdiff_t k = begin; k < end; ++k)
                            {
                                float key[W];
                                m_keys.load(m_reps[std::size_t(k)], key);
                                for (int c = 0; c < W; ++c)
                                    mask |= unsigned(orderKey(key[c]) != first[c]) << c;
                                SortItem& item = items[k];
                                item.word = orderKey(key[primary]);
                                for (int t = 0; t < 2; ++t)
                                    item.next[t] =
                                        primary + 1 + t < W ? orderKey(key[primary + 1 + t]) : 0u;
                                item.index = m_reps[std::size_t(k)];
                            }
                            varies[task] = mask;
                        });
        };
        build(0);
        const unsigned mask = varies[0] | varies[1];
        const int primary = mask == 0 ? 0 : std::countr_zero(mask);
        if (primary > 0)
            build(primary);

        const SortItemLess<KeyIndexOrder<W>> less{KeyIndexOrder<W>{m_keys}};
        runTwoTasks(m_pool, m_parallel,
                    [&](int task)
                    {
                        std::ptrdiff_t begin = 0, end = count;
                        if (m_parallel)
                            half(count, task, begin, end);
                        else if (task == 1)
                            return;
                        sortItems(items + begin, scratch.get() + begin, end - begin, less);
                    });
        scratch.reset();
        if (m_parallel)
        {
            SMPSortMerge<SortItem, SortItemLess<KeyIndexOrder<W>>> merge(items, items + count,
                                                                         less);
            m_pool.run(merge);
        }
    }

    KeyReader<W> m_keys;
    int m_n;
    int* m_map;
    qyUtil::ThreadPool& m_pool;
    bool m_parallel;
    std::vector<RangeGrouper<W>> m_parts;
    std::vector<int> m_reps;
    std::unique_ptr<SortItem[]> m_items;
};

// Any checker's route: the index sort, then the scan that merges each run of vertices equal to
// the run's first. Fills map with the new index of every vertex and source with the old vertex
// that supplies the data of each new one (the highest old index mapped to it); returns the new
// vertex count.
template <int W>
int sortAndScan(const KeyReader<W>& keys, int n, int* map, std::vector<int>& source,
                const IMeshVertexEqualityChecker& checker, qyUtil::ThreadPool& pool, bool parallel,
                qyUtil::Progress& progress, qyUtil::Progress& child, qyOS::StopWatch& watch)
{
    std::vector<int> order(static_cast<std::size_t>(n));
    std::iota(order.begin(), order.end(), 0);
    smpSort(order.data(), order.data() + n, KeyIndexOrder<W>{keys},
            parallel ? pool : qyUtil::ThreadPool::getSingleThreadedPool());
    child.set(1.0);
    debugChannel().print("  sorted vertices: %f s\n", watch.clear());
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
    source.assign(std::size_t(count), 0);
    for (int i = 0; i < n; ++i)
        source[std::size_t(map[i])] = i;
    return count;
}

// new[k] = data[source[k]] for k < count, through one temporary, copied back in one block (a
// half per task, once both have gathered).
template <class T>
void gather(T* data, const std::vector<int>& source, qyUtil::ThreadPool& pool, bool parallel)
{
    const std::size_t count = source.size();
    std::unique_ptr<T[]> moved = uninitialized<T>(count);
    runTwoTasks(pool, parallel,
                [&](int task)
                {
                    std::ptrdiff_t begin, end;
                    half(std::ptrdiff_t(count), task, begin, end);
                    for (std::ptrdiff_t k = begin; k < end; ++k)
                        moved[std::size_t(k)] = data[source[std::size_t(k)]];
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

template <int W>
int buildMap(const KeyReader<W>& keys, int n, int* map, std::vector<int>& source,
             IMeshVertexEqualityChecker* checker, qyUtil::ThreadPool& pool, bool parallel,
             qyUtil::Progress& progress, qyUtil::Progress& child, qyOS::StopWatch& watch)
{
    if (checker)
        return sortAndScan<W>(keys, n, map, source, *checker, pool, parallel, progress, child,
                              watch);
    auto run = [&](auto& grouping)
    {
        const int count = grouping.group();
        child.set(1.0);
        debugChannel().print("  sorted vertices: %f s\n", watch.clear());
        progress.subPhase(0.2, child);
        if (count < n)
            grouping.number(source);
        return count;
    };
    if (!parallel)
    {
        SerialGrouping<W> grouping(keys, n, map);
        return run(grouping);
    }
    KeyGrouping<W> grouping(keys, n, map, pool, parallel);
    return run(grouping);
}

/// The weld itself. A null checker means exact equality of positions, which takes the
/// grouping route; any other checker is asked run by run after a sort.
void weld(CompactMesh& mesh, qyUtil::Progress& progress, Remap& remap,
          IMeshVertexEqualityChecker* checker)
{
    const int n = mesh.getNumVertices();
    debugChannel().print("meshCompact: %d vertices, %d triangles\n", n, mesh.getNumTriangles());
    qyOS::StopWatch watch;
    watch.start();

    // UVs join the key only beside explicit normals; computed normals are not data.
    const bool useNormals = mesh.getNormalsRaw() != nullptr && !mesh.getNormalsComputed();
    const bool useUVs = mesh.getUVsRaw() != nullptr;
    remap.resize(n, n);
    int* map = remap.getMap();
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    const bool parallel =
        pool.getNumThreads() > 1 && n >= (checker ? parallelItems : parallelGroupingItems);

    qyUtil::Progress child;
    progress.subPhase(0.8, child);
    std::vector<int> source;
    int count;
    if (useNormals && useUVs)
        count = buildMap<8>({mesh.getVerticesRaw(), mesh.getNormalsRaw(), mesh.getUVsRaw()}, n, map,
                            source, checker, pool, parallel, progress, child, watch);
    else if (useNormals)
        count = buildMap<6>({mesh.getVerticesRaw(), mesh.getNormalsRaw(), nullptr}, n, map, source,
                            checker, pool, parallel, progress, child, watch);
    else
        count = buildMap<3>({mesh.getVerticesRaw(), nullptr, nullptr}, n, map, source, checker,
                            pool, parallel, progress, child, watch);
    child.set(1.0);
    debugChannel().print("  initialized remap: %f s\n", watch.clear());

    if (count == n)
    {
        remap.setSequential();
        return;
    }
    remap.setRangeSize(count);
    MeshRemap meshRemap;
    meshRemap.vertices = &remap;
    MeshModification change(&mesh, MeshModification::Remapped, &meshRemap);

    const bool parallelMoves = parallel && count >= parallelItems;
    gather(mesh.getVertices(), source, pool, parallelMoves);
    debugChannel().print("  remapped vertices: %f s\n", watch.clear());
    if (useNormals)
    {
        gather(mesh.getNormals(), source, pool, parallelMoves);
        change.normalsModified();
        debugChannel().print("  remapped normals: %f s\n", watch.clear());
    }
    if (useUVs)
    {
        gather(mesh.getUVs(), source, pool, parallelMoves);
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

    const std::ptrdiff_t numIndices = 3 * std::ptrdiff_t(mesh.getNumTriangles());
    renumber(mesh.getTrianglesRaw(), numIndices, map, n, pool,
             pool.getNumThreads() > 1 && (checker || numIndices >= parallelGroupingItems));
    change.triangleNormalsValid();
    mesh.modified(change);
    debugChannel().print("  remapped triangles: %f s\n", watch.clear());
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
