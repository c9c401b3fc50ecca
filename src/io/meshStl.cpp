// STL files: binary (an 80-byte header, a triangle count, 50 bytes per triangle) streamed
// through the weld block by block, or ASCII facets read word by word.
#include "qyGeom/meshStl.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "base/Memory.h"
#include "base/ThreadPool.h"
#include "io/detail/MeshFormat.h"
#include "io/detail/TextOut.h"
#include "model/CompactMesh.h"

namespace qyGeom
{

namespace
{

using detail::Lines;
using detail::MeshArrays;
using detail::ReadFailure;
using detail::Words;

constexpr std::size_t headerBytes = 84, triangleBytes = 50;
/// The most triangles whose corners still count in an int.
constexpr std::uint64_t maxTriangles = 715827882;

/// Starts loading the cache line at p. An instruction of its own on x86, since GCC 12 drops
/// __builtin_prefetch from the weld's loop.
inline void prefetchRead(const void* p)
{
#if defined(__GNUC__) && defined(__x86_64__)
    asm volatile("prefetcht0 (%0)" : : "r"(p));
#else
    __builtin_prefetch(p);
#endif
}

/// The slot hash of a corner, on the bits of its coordinates with -0 taken for 0 (they
/// compare equal, so both must land in one slot): the tables take its high bits (the low
/// bits of a product see only the low bits of its factors, and short decimals leave the
/// low mantissa bits of a float zero).
inline std::uint64_t hashCorner(const float* p)
{
    std::uint32_t b[3];
    std::memcpy(b, p, sizeof b);
    for (std::uint32_t& x : b)
        x = x == 0x80000000u ? 0 : x;
    const std::uint64_t h = (std::uint64_t(b[0]) << 32 | b[1]) * 0x9E3779B97F4A7C15ull;
    return (h ^ b[2]) * 0xC2B2AE3D27D4EB4Full;
}

/// Corner k of the triangle record at p.
inline void cornerOf(const char* p, int k, float* c)
{
    for (int j = 0; j < 3; ++j)
    {
        const std::uint32_t b = detail::loadU32LE(p + 12 + 12 * k + 4 * j);
        std::memcpy(&c[j], &b, 4);
    }
}

/// The triangle records of a binary body, handed out in runs: from memory at once, or from
/// a file through a buffer of whole triangles that stays in the cache (the triangles in the
/// buffer of the file's head first).
class TriangleSource
{
public:
    /// The n records at body.
    TriangleSource(const char* body, std::size_t n) : m_cur(body), m_avail(n), m_n(n), m_given(n) {}
    /// The n records of a file whose first headBytes body bytes are at head (a whole number
    /// of records or not); the rest is read from `file`.
    TriangleSource(detail::TextSource& file, const char* head, std::size_t headBytes, std::size_t n,
                   const ReadFailure& failure)
        : m_file(&file), m_failure(&failure), m_head(head), m_headBytes(headBytes), m_n(n)
    {
    }

    /// The next records at p, at least one while any are left; returns their count.
    std::size_t peek(const char*& p)
    {
        if (m_avail == 0 && m_given < m_n)
            refill();
        p = m_cur;
        return m_avail;
    }
    /// Takes the first k records of the last peek.
    void consume(std::size_t k)
    {
        m_cur += k * triangleBytes;
        m_avail -= k;
    }

private:
    static constexpr std::size_t blockTriangles = 4096;

    void refill()
    {
        std::size_t carry = 0;
        if (m_head)
        {
            const std::size_t inHead = std::min(m_n, m_headBytes / triangleBytes);
            const std::size_t rest = m_headBytes - inHead * triangleBytes;
            const char* const restAt = m_head + inHead * triangleBytes;
            m_head = nullptr;
            m_block.resize(blockTriangles * triangleBytes);
            if (inHead > 0)
            {
                // The head's records are handed out from a copy, with the bytes after them
                // kept for the first read.
                std::memcpy(m_block.data(), restAt - inHead * triangleBytes, m_headBytes);
                m_cur = m_block.data();
                m_avail = inHead;
                m_given = inHead;
                m_carryFrom = inHead * triangleBytes;
                m_carry = rest;
                return;
            }
            std::memcpy(m_block.data(), restAt, rest);
            carry = rest;
        }
        else if (m_carry > 0)
        {
            std::memmove(m_block.data(), m_block.data() + m_carryFrom, m_carry);
            carry = m_carry;
            m_carry = 0;
        }
        const std::size_t want = std::min(blockTriangles, m_n - m_given) * triangleBytes - carry;
        const std::size_t got = m_file->read(m_block.data() + carry, want);
        if (got != want)
            m_failure->fail("the file shrank while it was read (at triangle %zu of %zu)",
                            m_given + 1, m_n);
        m_cur = m_block.data();
        m_avail = (carry + got) / triangleBytes;
        m_given += m_avail;
    }

    static constexpr std::size_t triangleBytes = 50;
    detail::TextSource* m_file = nullptr;
    const ReadFailure* m_failure = nullptr;
    const char* m_head = nullptr;
    std::size_t m_headBytes = 0;
    const char* m_cur = nullptr;
    std::size_t m_avail = 0, m_n, m_given = 0;
    std::size_t m_carryFrom = 0, m_carry = 0;
    std::vector<char> m_block;
};

/// Welds corners into vertices by their exact coordinates (as floats compare: -0 is 0 and
/// a NaN is equal to nothing), numbered in order of first use: an open-addressing hash
/// table of vertex indices over the vertex array, kept at most half full.
///
/// The binary reader welds in two levels. Corners are first welded within a window of some
/// thousands of triangles, in a small table that stays near the core: in a file written
/// from a mesh, most corners repeat one seen a few triangles before. Each window's distinct
/// corners, in their order of first use, then go through the table of the whole mesh, far
/// larger than the cache, and the window's triangles are rewritten from window to mesh
/// numbers. A vertex's first use in the file lies in the first window that holds it, at
/// its first use there, so the numbers are those of a weld corner by corner. A window whose
/// corners are mostly distinct (a file in no particular order) would only add a pass: the
/// triangles after it are welded corner by corner for a while.
class Welder
{
public:
    Welder(std::vector<float>& xyz, std::size_t expected) : m_xyz(xyz)
    {
        std::size_t capacity = 1024;
        while (capacity < 2 * expected)
            capacity *= 2;
        m_table.resize(capacity);
        std::fill(m_table.begin(), m_table.end(), -1);
        m_mask = capacity - 1;
        m_shift = 64 - std::countr_zero(capacity);
        m_xyz.reserve(3 * expected);
        qy::adviseHugePages(m_xyz.data(), m_xyz.capacity() * sizeof(float));
    }

    /// The vertex of the corner at p (three floats), added when new.
    int add(const float* p) { return find(p, hashCorner(p)); }

    /// Welds the n triangles of a binary body, writing their corners' vertices at `tri`.
    /// On a pool of several threads, a window's distinct corners are numbered on one task
    /// while the next window is read and welded on another; the result is the same.
    void weldAll(TriangleSource& source, std::size_t n, int* tri)
    {
        for (Window& w : m_windows)
        {
            w.table.assign(windowSlots, -1);
            w.keys.resize(windowKeys);
            w.vertexOf.resize(windowKeys);
        }
        const bool parallel = qyUtil::ThreadPool::get().getNumThreads() > 1;
        std::size_t done = 0;
        Window* pending = nullptr; // welded, its corners not yet numbered
        int next = 0;
        for (;;)
        {
            if (m_directTriangles > 0 && done < n)
            {
                if (pending)
                    finishWindow(*pending);
                pending = nullptr;
                while (m_directTriangles > 0 && done < n)
                {
                    const char* p;
                    const std::size_t count =
                        std::min({source.peek(p), n - done, m_directTriangles});
                    weldDirect(p, count, tri + 3 * done);
                    source.consume(count);
                    done += count;
                    m_directTriangles -= count;
                }
                continue;
            }
            if (done == n)
                break;
            Window& w = m_windows[next];
            next ^= 1;
            const auto fill = [&]
            {
                w.begin = tri + 3 * done;
                while (done < n && w.corners < windowCorners && w.numKeys <= windowKeys - 3)
                {
                    const char* p;
                    const std::size_t avail = source.peek(p);
                    const std::size_t count = weldWindow(
                        w, p, std::min({avail, n - done, (windowCorners - w.corners) / 3}),
                        tri + 3 * done);
                    source.consume(count);
                    done += count;
                    w.corners += 3 * count;
                }
            };
            if (pending && parallel)
            {
                Overlap job(fill, [&] { finishWindow(*pending); });
                qyUtil::ThreadPool::get().run(job);
            }
            else
            {
                if (pending)
                    finishWindow(*pending);
                fill();
            }
            if (2 * std::size_t(w.numKeys) > w.corners)
                m_directTriangles = directTriangles;
            pending = &w;
        }
        if (pending)
            finishWindow(*pending);
    }

private:
    static constexpr std::size_t triangleBytes = 50;
    /// A window ends after 32,768 triangles or 12,288 distinct corners, whichever comes
    /// first: its table then is at most 3/8 full whatever the file.
    static constexpr std::size_t windowCorners = 3 * 32768;
    static constexpr int windowBits = 15;
    static constexpr std::size_t windowSlots = std::size_t(1) << windowBits;
    static constexpr int windowKeys = int(3 * windowSlots / 8);
    /// The triangles welded corner by corner after a window whose distinct corners are
    /// more than half of its corners.
    static constexpr std::size_t directTriangles = 262144;

    /// A distinct corner of the window: its coordinates, its hash and its slot in the
    /// window's table.
    struct WindowKey
    {
        float xyz[3];
        std::uint32_t slot;
        std::uint64_t hash;
    };

    /// A window: its table of key numbers, its keys, their vertices once numbered, its
    /// corners and where their vertices go.
    struct Window
    {
        std::vector<int> table;
        qy::RawVector<WindowKey> keys;
        qy::RawVector<int> vertexOf;
        int numKeys = 0;
        std::size_t corners = 0;
        int* begin = nullptr;
    };

    /// Two jobs at once on the pool: task 0 runs the first, task 1 the second (one after
    /// the other when the pool runs its tasks in turn).
    template <class First, class Second> class Overlap final : public qyUtil::ThreadedAlg
    {
    public:
        Overlap(const First& first, const Second& second) : m_first(first), m_second(second) {}
        void execute(int task, int numTasks) override
        {
            if (numTasks < 2)
            {
                m_second();
                m_first();
            }
            else if (task == 0)
                m_first();
            else if (task == 1)
                m_second();
        }

    private:
        First m_first;
        Second m_second;
    };

    /// The vertex of the corner at p, whose hash is h, added when new.
    inline __attribute__((always_inline)) int find(const float* p, std::uint64_t h)
    {
        std::size_t slot = std::size_t(h >> m_shift);
        for (;;)
        {
            const int v = m_table[slot];
            if (v < 0)
                break;
            const float* q = m_xyz.data() + 3 * std::size_t(v);
            if (q[0] == p[0] && q[1] == p[1] && q[2] == p[2])
                return v;
            slot = (slot + 1) & m_mask;
        }
        const int v = int(m_xyz.size() / 3);
        m_xyz.push_back(p[0]);
        m_xyz.push_back(p[1]);
        m_xyz.push_back(p[2]);
        m_table[slot] = v;
        if (2 * std::size_t(v + 1) > m_table.size())
            grow();
        return v;
    }
    /// Starts loading the table entry of a corner that find() will see soon: the table is
    /// far larger than the cache, so each new corner would otherwise wait for memory.
    void prefetchSlot(std::uint64_t h) const { prefetchRead(m_table.data() + (h >> m_shift)); }
    /// The second step, nearer: the vertex that the corner's table entry names (when the
    /// entry is already in the cache, its vertex is next to wait for).
    void prefetchVertex(std::uint64_t h) const
    {
        const int v = m_table[std::size_t(h >> m_shift)];
        if (v >= 0)
            prefetchRead(m_xyz.data() + 3 * std::size_t(v));
    }

    /// Welds n triangles at p corner by corner into the mesh's table, writing their
    /// vertices at tri.
    void weldDirect(const char* p, std::size_t n, int* tri)
    {
        // The table entries of the triangles a few ahead are fetched while these are
        // welded.
        constexpr std::size_t ahead = 24, aheadVertex = 12;
        for (std::size_t t = 0; t < n; ++t, p += triangleBytes, tri += 3)
        {
            for (int k = 0; k < 3; ++k)
            {
                float c[3];
                if (t + ahead < n)
                {
                    cornerOf(p + ahead * triangleBytes, k, c);
                    prefetchSlot(hashCorner(c));
                }
                if (t + aheadVertex < n)
                {
                    cornerOf(p + aheadVertex * triangleBytes, k, c);
                    prefetchVertex(hashCorner(c));
                }
            }
            for (int k = 0; k < 3; ++k)
            {
                float c[3];
                cornerOf(p, k, c);
                tri[k] = find(c, hashCorner(c));
            }
        }
    }

    /// Welds up to n triangles at p into the window, writing window numbers at tri, and
    /// stops when the window holds as many keys as it takes; returns the triangles welded.
    static std::size_t weldWindow(Window& w, const char* p, std::size_t n, int* tri)
    {
        int* const window = w.table.data();
        WindowKey* const keys = w.keys.data();
        std::size_t t = 0;
        for (; t < n && w.numKeys <= windowKeys - 3; ++t, p += triangleBytes)
            for (int k = 0; k < 3; ++k)
            {
                float c[3];
                cornerOf(p, k, c);
                const std::uint64_t h = hashCorner(c);
                std::size_t slot = std::size_t(h >> (64 - windowBits));
                int v;
                for (;;)
                {
                    v = window[slot];
                    if (v < 0)
                    {
                        v = w.numKeys++;
                        window[slot] = v;
                        WindowKey& key = keys[v];
                        std::memcpy(key.xyz, c, sizeof c);
                        key.slot = std::uint32_t(slot);
                        key.hash = h;
                        break;
                    }
                    const float* q = keys[v].xyz;
                    if (q[0] == c[0] && q[1] == c[1] && q[2] == c[2])
                        break;
                    slot = (slot + 1) & (windowSlots - 1);
                }
                tri[3 * t + std::size_t(k)] = v;
            }
        return t;
    }

    /// Gives the window's distinct corners their vertices, in order, rewrites its
    /// triangles and empties it.
    void finishWindow(Window& w)
    {
        constexpr int ahead = 32, aheadVertex = 16;
        const WindowKey* const keys = w.keys.data();
        int* const vertexOf = w.vertexOf.data();
        const int n = w.numKeys;
        for (int i = 0; i < n; ++i)
        {
            if (i + ahead < n)
                prefetchSlot(keys[i + ahead].hash);
            if (i + aheadVertex < n)
                prefetchVertex(keys[i + aheadVertex].hash);
            vertexOf[i] = find(keys[i].xyz, keys[i].hash);
        }
        for (std::size_t c = 0; c < w.corners; ++c)
            w.begin[c] = vertexOf[w.begin[c]];
        for (int i = 0; i < n; ++i)
            w.table[keys[i].slot] = -1;
        w.numKeys = 0;
        w.corners = 0;
    }

    void grow()
    {
        m_table.resize(2 * m_table.size());
        std::fill(m_table.begin(), m_table.end(), -1);
        m_mask = m_table.size() - 1;
        --m_shift;
        const int n = int(m_xyz.size() / 3);
        for (int v = 0; v < n; ++v)
        {
            std::size_t slot =
                std::size_t(hashCorner(m_xyz.data() + 3 * std::size_t(v)) >> m_shift);
            while (m_table[slot] >= 0)
                slot = (slot + 1) & m_mask;
            m_table[slot] = v;
        }
    }

    std::vector<float>& m_xyz;
    qy::RawVector<int> m_table;
    std::size_t m_mask;
    int m_shift;
    Window m_windows[2];
    std::size_t m_directTriangles = 0;
};

bool isBinary(const char* head, std::size_t headSize, std::size_t size)
{
    if (size >= headerBytes &&
        headerBytes + triangleBytes * std::uint64_t(detail::loadU32LE(head + 80)) == size)
        return true;
    const char* p = head;
    const char* const end = head + headSize;
    while (p < end && (*p == ' ' || *p == '\t' || *p == '\r' || *p == '\n'))
        ++p;
    if (end - p < 5 || strncasecmp(p, "solid", 5) != 0)
        return true;
    return std::memchr(head, 0, headSize) != nullptr;
}

/// The mesh of a binary file: the triangles welded straight into the mesh's own array, the
/// vertices gathered by the weld and copied in at the end.
struct BinaryMesh
{
    explicit BinaryMesh(std::size_t n) : welder(xyz, n / 2 + 16)
    {
        mesh.resizeTriangleArray(int(n));
    }
    int* triangles() { return mesh.getTrianglesRaw(); }
    void build(CompactMesh& out)
    {
        mesh.resizeVertexArray(int(xyz.size() / 3));
        if (!xyz.empty())
            std::memcpy(mesh.getVerticesRaw(), xyz.data(), xyz.size() * sizeof(float));
        out = std::move(mesh);
    }

    CompactMesh mesh;
    std::vector<float> xyz;
    Welder welder;
};

/// Checks the binary file's size against its count; returns the count.
std::size_t binaryCount(const char* head, std::size_t size, const ReadFailure& failure)
{
    if (size < headerBytes)
        failure.fail("%zu bytes are too few for a binary STL file (84 at least) and it is not "
                     "ASCII STL (\"solid ...\")",
                     size);
    const std::uint64_t n = detail::loadU32LE(head + 80);
    const std::uint64_t need = headerBytes + triangleBytes * n;
    if (need > size)
        failure.fail("the header's %llu triangles need %llu bytes, but the file has %zu (it "
                     "ends inside triangle %llu)",
                     (unsigned long long)n, (unsigned long long)need, size,
                     (unsigned long long)((size - headerBytes) / triangleBytes + 1));
    if (need < size)
        failure.fail("%zu bytes after the header's %llu triangles", std::size_t(size - need),
                     (unsigned long long)n);
    if (n > maxTriangles)
        failure.fail("%llu triangles are more than this reader takes (%llu)", (unsigned long long)n,
                     (unsigned long long)maxTriangles);
    return std::size_t(n);
}

/// The ASCII form, word by word over the lines.
class AsciiStl
{
public:
    AsciiStl(const char* p, const char* end, const ReadFailure& failure)
        : m_lines(p, end), m_words(p, p), m_failure(failure)
    {
    }

    void read(MeshArrays& out)
    {
        Welder welder(out.xyz, 1024);
        std::string_view w;
        int solids = 0;
        while (nextWord(w))
        {
            if (!is(w, "solid"))
                m_failure.atLine(m_lines.line(), "expected \"solid\", found '%.*s'", int(w.size()),
                                 w.data());
            ++solids;
            skipLine(); // the solid's name
            for (;;)
            {
                need(w, "facet\" or \"endsolid");
                if (is(w, "endsolid"))
                {
                    skipLine();
                    break;
                }
                if (!is(w, "facet"))
                    unexpected(w, "facet\" or \"endsolid");
                expect("normal");
                float n[3];
                for (float& c : n)
                    number(c);
                expect("outer");
                expect("loop");
                int tri[3];
                for (int k = 0; k < 3; ++k)
                {
                    need(w, "vertex");
                    if (!is(w, "vertex"))
                        m_failure.atLine(m_lines.line(),
                                         k == 0 ? "expected \"vertex\", found '%.*s'"
                                                : "a facet of fewer than 3 vertices ('%.*s')",
                                         int(w.size()), w.data());
                    float c[3];
                    for (float& x : c)
                        number(x);
                    tri[k] = welder.add(c);
                }
                need(w, "endloop");
                if (is(w, "vertex"))
                    m_failure.atLine(m_lines.line(), "a facet of more than 3 vertices");
                if (!is(w, "endloop"))
                    unexpected(w, "endloop");
                expect("endfacet");
                out.corners.insert(out.corners.end(), tri, tri + 3);
            }
        }
        if (solids == 0)
            m_failure.fail("no \"solid\" in the file");
    }

private:
    static bool is(std::string_view w, const char* keyword)
    {
        return w.size() == std::strlen(keyword) && strncasecmp(w.data(), keyword, w.size()) == 0;
    }
    bool nextWord(std::string_view& w)
    {
        while (!m_words.next(w))
        {
            if (!m_lines.next())
                return false;
            m_words = Words(m_lines.begin, m_lines.end);
        }
        return true;
    }
    void skipLine() { m_words = Words(m_lines.end, m_lines.end); }
    [[noreturn]] void unexpected(std::string_view w, const char* what) const
    {
        m_failure.atLine(m_lines.line(), "expected \"%s\", found '%.*s'", what, int(w.size()),
                         w.data());
    }
    void need(std::string_view& w, const char* what)
    {
        if (!nextWord(w))
            m_failure.atLine(m_lines.endLine(), "the file ends where \"%s\" is expected", what);
    }
    void expect(const char* keyword)
    {
        std::string_view w;
        need(w, keyword);
        if (!is(w, keyword))
            unexpected(w, keyword);
    }
    void number(float& v)
    {
        std::string_view w;
        need(w, "a number");
        Words one(w.data(), w.data() + w.size());
        if (!one.number(v))
            m_failure.atLine(m_lines.line(), "'%.*s' is not a number", int(w.size()), w.data());
    }

    Lines m_lines;
    Words m_words;
    const ReadFailure& m_failure;
};

qyUtil::Error readMemory(CompactMesh& mesh, const char* p, std::size_t size,
                         const ReadFailure& failure)
{
    try
    {
        const std::size_t headSize = std::min<std::size_t>(size, 512);
        if (isBinary(p, headSize, size))
        {
            const std::size_t n = binaryCount(p, size, failure);
            BinaryMesh out(n);
            TriangleSource source(p + headerBytes, n);
            out.welder.weldAll(source, n, out.triangles());
            out.build(mesh);
            return {};
        }
        MeshArrays out;
        AsciiStl(p, p + size, failure).read(out);
        out.build(mesh);
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

// ---------------------------------------------------------------------------------------
// Writing

/// The unit normal of a triangle, 0 0 0 when it has no area.
void normalOf(const float* a, const float* b, const float* c, float* n)
{
    const double u[3] = {double(b[0]) - a[0], double(b[1]) - a[1], double(b[2]) - a[2]};
    const double v[3] = {double(c[0]) - a[0], double(c[1]) - a[1], double(c[2]) - a[2]};
    const double x = u[1] * v[2] - u[2] * v[1], y = u[2] * v[0] - u[0] * v[2],
                 z = u[0] * v[1] - u[1] * v[0];
    const double len = std::sqrt(x * x + y * y + z * z);
    const double s = len > 0 && std::isfinite(len) ? 1 / len : 0;
    n[0] = float(x * s);
    n[1] = float(y * s);
    n[2] = float(z * s);
}

/// Calls fn(a, b, c) for every triangle of the mesh: its triangles, then its polygons as
/// fans from their first corner.
template <class Fn> void forEachTriangle(const CompactMesh& mesh, Fn fn)
{
    detail::MeshFaces faces(mesh);
    for (int f = 0; f < faces.size(); ++f)
    {
        const int* c;
        const int n = faces.corners(f, c);
        for (int k = 1; k + 1 < n; ++k)
            fn(c[0], c[k], c[k + 1]);
    }
}

/// The 50-byte record of triangle (a, b, c) at p: its normal, its corners, a zero attribute.
inline void storeRecord(const float* xyz, int a, int b, int c, char* p)
{
    const float* corners[3] = {xyz + 3 * std::ptrdiff_t(a), xyz + 3 * std::ptrdiff_t(b),
                               xyz + 3 * std::ptrdiff_t(c)};
    float n[3];
    normalOf(corners[0], corners[1], corners[2], n);
    const float* parts[4] = {n, corners[0], corners[1], corners[2]};
    for (int k = 0; k < 4; ++k)
        for (int j = 0; j < 3; ++j)
        {
            std::uint32_t bits;
            std::memcpy(&bits, parts[k] + j, 4);
            detail::storeU32LE(p + 12 * k + 4 * j, bits);
        }
    p[48] = p[49] = 0;
}

/// Fills the records of triangles [begin, end) of a triangle array at out, on two tasks of
/// the pool when there are enough of them.
class RecordFill final : public qyUtil::ThreadedAlg
{
public:
    RecordFill(const float* xyz, const int* triangles, std::ptrdiff_t begin, std::ptrdiff_t end,
               char* out)
        : m_xyz(xyz), m_triangles(triangles), m_begin(begin), m_end(end), m_out(out)
    {
    }
    void execute(int task, int numTasks) override
    {
        const int parts = std::min(numTasks, 2);
        if (task >= parts)
            return;
        const std::ptrdiff_t n = m_end - m_begin;
        const std::ptrdiff_t from = m_begin + n * task / parts,
                             to = m_begin + n * (task + 1) / parts;
        char* p = m_out + (from - m_begin) * std::ptrdiff_t(triangleBytes);
        for (std::ptrdiff_t t = from; t < to; ++t, p += triangleBytes)
        {
            const int* v = m_triangles + 3 * t;
            storeRecord(m_xyz, v[0], v[1], v[2], p);
        }
    }

private:
    const float* m_xyz;
    const int* m_triangles;
    std::ptrdiff_t m_begin, m_end;
    char* m_out;
};

void writeBinaryStl(const CompactMesh& mesh, detail::TextOut& out)
{
    const float* xyz = mesh.getVerticesRaw();
    const std::ptrdiff_t numTriangles = mesh.getNumTriangles();
    std::uint64_t count = 0;
    forEachTriangle(mesh, [&](int, int, int) { ++count; });
    char header[headerBytes];
    std::memset(header, ' ', 80);
    const char title[] = "binary STL, qyGeom";
    std::memcpy(header, title, sizeof title - 1);
    detail::storeU32LE(header + 80, std::uint32_t(std::min<std::uint64_t>(count, 0xFFFFFFFFu)));
    out.put(header, headerBytes);

    // The triangle array's records are made in large blocks, each handed to the file in one
    // write (and filled by two tasks on a pool of several threads).
    constexpr std::ptrdiff_t blockTriangles = std::ptrdiff_t(1) << 18;
    constexpr std::ptrdiff_t parallelTriangles = 16384;
    const std::size_t blockBytes =
        std::size_t(std::min(numTriangles, blockTriangles)) * triangleBytes;
    std::unique_ptr<char[]> block = std::make_unique_for_overwrite<char[]>(blockBytes);
    qy::adviseHugePages(block.get(), blockBytes);
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    const int* triangles = mesh.getTrianglesRaw();
    for (std::ptrdiff_t begin = 0; begin < numTriangles; begin += blockTriangles)
    {
        const std::ptrdiff_t end = std::min(begin + blockTriangles, numTriangles);
        RecordFill fill(xyz, triangles, begin, end, block.get());
        if (pool.getNumThreads() > 1 && end - begin >= parallelTriangles)
            pool.run(fill);
        else
            fill.execute(0, 1);
        out.put(block.get(), std::size_t(end - begin) * triangleBytes);
    }
    block.reset();

    // Then the polygons, as fans.
    detail::MeshFaces faces(mesh);
    for (int f = int(numTriangles); f < faces.size(); ++f)
    {
        const int* c;
        const int n = faces.corners(f, c);
        for (int k = 1; k + 1 < n; ++k)
        {
            char* p = out.room(triangleBytes);
            storeRecord(xyz, c[0], c[k], c[k + 1], p);
            out.commit(p + triangleBytes);
        }
    }
}

void writeStl(const CompactMesh& mesh, detail::TextOut& out, StlEncoding encoding)
{
    const float* xyz = mesh.getVerticesRaw();
    auto corner = [&](int v) { return xyz + 3 * std::ptrdiff_t(v); };
    if (encoding == StlEncoding::Binary)
    {
        writeBinaryStl(mesh, out);
        return;
    }
    auto put3 = [&](const float* v)
    {
        for (int j = 0; j < 3; ++j)
        {
            out.put(' ');
            out.putFloatExact(v[j]);
        }
        out.put('\n');
    };
    out.put("solid mesh\n");
    forEachTriangle(mesh,
                    [&](int a, int b, int c)
                    {
                        float n[3];
                        normalOf(corner(a), corner(b), corner(c), n);
                        out.put("  facet normal");
                        put3(n);
                        out.put("    outer loop\n");
                        for (const int v : {a, b, c})
                        {
                            out.put("      vertex");
                            put3(corner(v));
                        }
                        out.put("    endloop\n  endfacet\n");
                    });
    out.put("endsolid mesh\n");
}

} // namespace

qyUtil::Error meshReadStl(CompactMesh& mesh, const qyOS::Filename& file)
{
    const ReadFailure failure(file);
    try
    {
        detail::TextSource source;
        errno = 0;
        if (!source.open(file.c_str(), detail::TextSource::Files::RegularOnly))
            failure.cannotRead(errno ? errno : EINVAL);
        const std::size_t size = source.size();
        char head[512];
        const std::size_t headSize = source.read(head, std::min(size, sizeof head));
        if (headSize != std::min(size, sizeof head))
            failure.cannotRead(errno ? errno : EIO);
        if (!isBinary(head, headSize, size))
        {
            // ASCII: read whole from a source of its own (this one has moved on).
            detail::TextSource::Whole text;
            detail::readWholeFile(file, text, failure);
            return readMemory(mesh, text.data(), text.size(), failure);
        }
        const std::size_t n = binaryCount(head, size, failure);
        BinaryMesh out(n);
        TriangleSource body(source, head + headerBytes, headSize - headerBytes, n, failure);
        out.welder.weldAll(body, n, out.triangles());
        out.build(mesh);
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

qyUtil::Error meshReadStl(CompactMesh& mesh, const char* data, unsigned int length)
{
    return readMemory(mesh, data, data ? length : 0, ReadFailure());
}

bool meshWriteStl(const CompactMesh& mesh, const qyOS::Filename& file, StlEncoding encoding,
                  const MeshWriteOptions& options)
{
    return detail::writeFileChecked("meshWriteStl", file, options,
                                    [&](detail::TextOut& out) { writeStl(mesh, out, encoding); });
}

} // namespace qyGeom
