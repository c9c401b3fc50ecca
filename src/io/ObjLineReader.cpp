#include "io/ObjLineReader.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <sys/mman.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "base/StopWatch.h"
#include "base/ThreadPool.h"
#include "io/detail/TextSource.h"
#include "io/detail/text.h"

namespace qyGeom
{

namespace
{

bool startsWith(const char* p, const char* end, const char* word, std::size_t n)
{
    return std::size_t(end - p) >= n && std::memcmp(p, word, n) == 0;
}

/// Corners of a face line are separated by blanks, tabs and the '\r' of a CRLF line end.
bool isFaceBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

/// Bit i set when the byte p[i] is not above ' ' (0x00 to 0x20), for i from 0 to 31.
inline std::uint32_t lowBytes32(const char* p)
{
#if defined(__SSE2__)
    const __m128i blank = _mm_set1_epi8(0x20);
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 16));
    // A byte is not above ' ' when the unsigned minimum of it and ' ' is the byte itself.
    const auto la = std::uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(a, blank), a)));
    const auto lb = std::uint32_t(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_min_epu8(b, blank), b)));
    return la | lb << 16;
#else
    std::uint32_t mask = 0;
    for (int i = 0; i < 32; ++i)
        mask |= std::uint32_t(static_cast<unsigned char>(p[i]) <= 0x20) << i;
    return mask;
#endif
}

/// The end of the corner at q: the first face blank at or after q, or `end`. Eight bytes are
/// looked at a time for a byte not above ' ' (which every face blank is); the bytes from the
/// first such one on are checked one by one.
const char* cornerEnd(const char* q, const char* end)
{
    constexpr std::uint64_t ones = 0x0101010101010101u;
    while (end - q >= 8)
    {
        std::uint64_t w;
        std::memcpy(&w, q, 8);
        // The lowest flagged byte is the first one below 0x21 (flags above it may be false).
        const std::uint64_t low = (w - 0x21 * ones) & ~w & (0x80 * ones);
        if (low)
        {
            q += std::countr_zero(low) / 8;
            break;
        }
        q += 8;
    }
    while (q < end && !isFaceBlank(*q))
        ++q;
    return q;
}

/// A 1-based index as read (negative counts back from `count`); 0 when the result leaves
/// the int range, so that validation rejects it.
int resolveIndex(int value, int count)
{
    if (value >= 0)
        return value;
    const long long r = static_cast<long long>(value) + count + 1;
    return r < -1 || r > 0x7fffffff ? 0 : int(r);
}

/// Stores corner n of a face line: its 0-based position index v, and its texture index where
/// the read keeps them (keepTex); lo and hi follow the line's smallest and largest position
/// index.
[[gnu::always_inline]] inline void storeCorner(int* pos, bool keepTex, int* texOut, std::size_t n,
                                               int v, int tex, int& lo, int& hi)
{
    pos[n] = v;
    lo = std::min(lo, v);
    hi = std::max(hi, v);
    if (keepTex)
        texOut[n] = tex;
}

} // namespace

namespace detail
{

namespace
{

/// Blocks from this size on are mapped directly.
constexpr std::size_t MappedBytes = std::size_t(4) << 20;
constexpr std::size_t HugePageBytes = std::size_t(2) << 20;

std::size_t mappedSize(std::size_t bytes)
{
    return (bytes + HugePageBytes - 1) & ~(HugePageBytes - 1);
}

/// A fresh mapping of `bytes` (a multiple of the huge page size) at a huge page boundary.
void* mapAligned(std::size_t bytes)
{
    const std::size_t extra = bytes + HugePageBytes;
    void* p = mmap(nullptr, extra, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (p == MAP_FAILED)
        throw std::bad_alloc();
    const auto begin = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t aligned = (begin + HugePageBytes - 1) & ~(HugePageBytes - 1);
    if (aligned > begin)
        munmap(p, aligned - begin);
    if (begin + extra > aligned + bytes)
        munmap(reinterpret_cast<void*>(aligned + bytes), begin + extra - (aligned + bytes));
    return reinterpret_cast<void*>(aligned);
}

} // namespace

void* resizeBlock(void* p, std::size_t bytes, std::size_t used, std::size_t newBytes)
{
    void* out;
    if (newBytes < MappedBytes && bytes >= MappedBytes)
    {
        // A mapped block cut below the mapped size moves to the heap.
        out = std::malloc(newBytes);
        if (!out)
            throw std::bad_alloc();
        std::memcpy(out, p, std::min(used, newBytes));
        munmap(p, mappedSize(bytes));
        return out;
    }
    if (newBytes < MappedBytes)
    {
        out = std::realloc(p, newBytes);
        if (!out)
            throw std::bad_alloc();
        return out;
    }
    if (bytes >= MappedBytes)
    {
        out = mremap(p, mappedSize(bytes), mappedSize(newBytes), MREMAP_MAYMOVE);
        if (out == MAP_FAILED)
            throw std::bad_alloc();
    }
    else
    {
        out = mapAligned(mappedSize(newBytes));
        if (used > 0)
            std::memcpy(out, p, used);
        std::free(p);
    }
    qy::adviseHugePages(out, mappedSize(newBytes));
    return out;
}

void freeBlock(void* p, std::size_t bytes) noexcept
{
    if (bytes >= MappedBytes)
        munmap(p, mappedSize(bytes));
    else
        std::free(p);
}

namespace
{

/// Blocks of resizeBlock: a block is mapped or taken from the heap by its size alone, so
/// that freeBlock() gives it back given the same size.
class BlockAllocator final : public ArrayAllocator
{
public:
    void* allocate(std::size_t bytes) override { return resizeBlock(nullptr, 0, 0, bytes); }
    void* allocateZeroed(std::size_t bytes) override
    {
        void* p = allocate(bytes);
        // A fresh mapping reads as zero already.
        if (bytes < MappedBytes)
            std::memset(p, 0, bytes);
        return p;
    }
    void deallocate(void* p, std::size_t bytes) noexcept override
    {
        if (p)
            freeBlock(p, bytes);
    }
};

} // namespace

qy::Reference<ArrayAllocator> blockAllocator()
{
    static qy::Reference<ArrayAllocator> instance(new BlockAllocator);
    return instance;
}

} // namespace detail

ObjLineReader::ObjLineReader(bool keepTexCoords, bool wantMaterials)
    : m_keepTexCoords(keepTexCoords), m_wantMaterials(wantMaterials)
{
}

bool ObjLineReader::readFile(const char* path)
{
    qyOS::StopWatch watch;
    watch.start();
    detail::TextSource source;
    if (!source.open(path, detail::TextSource::Files::Streams))
        return false;
    // The arrays of a regular file are reserved at sizes that its lines seldom exceed:
    // unwritten capacity costs address space only, and an array that needs more grows
    // without a copy.
    if (source.isRegular())
    {
        const std::size_t bytes = source.size();
        m_positions.reserve(bytes / 8);
        m_cornerPos.reserve(bytes / 4);
        if (m_keepTexCoords)
        {
            m_texCoords.reserve(bytes / 8);
            m_cornerTex.reserve(bytes / 4);
        }
    }
    if (!(source.isRegular() && source.size() >= 2 * BlockBytes &&
          qyUtil::ThreadPool::get().getNumThreads() > 1 &&
          (m_wantMaterials ? parsePieces(source) : parsePiecesInOrder(source))))
    {
        // Block after block from the start; the block holds any line that the reading
        // takes whole.
        detail::TextSource::Blocks blocks;
        detail::TextRange text;
        while (source.nextBlock(blocks, BlockBytes + LineBufferSize, text))
            if (parseLines(text.begin, text.end, text.reachesEnd, true))
                break;
    }
    m_readSeconds = watch.stop();
    return true;
}

bool ObjLineReader::readMemory(const char* data, unsigned int length)
{
    if (!data || length == 0)
        return false;
    qyOS::StopWatch watch;
    watch.start();
    parseLines(data, data + length, false, false);
    m_readSeconds = watch.stop();
    return true;
}

bool ObjLineReader::parseLines(const char* p, const char* end, bool last, bool limitLines)
{
    m_readable = end;
    // Each block starts by taking the face lines to have corners with a '/', and goes on
    // without that from the first face line whose first corner is a plain index.
    bool slashes = true;
    const bool stopped = parseLineRun<true>(p, end, last, limitLines, slashes);
    return slashes ? stopped : parseLineRun<false>(p, end, last, limitLines, slashes);
}

template <bool SlashFaces>
bool ObjLineReader::parseLineRun(const char*& p, const char* end, bool last, bool limitLines,
                                 bool& slashes)
{
    while (p < end)
    {
        // The face lines with a '/' in their corners are parsed without looking for their
        // '\n' first: the parser stops at it and says where it is. A line that it cannot
        // finish takes the general way below, from its start.
        if (SlashFaces && *p == 'f' && end - p >= 2 && p[1] == ' ' && !m_firstLine)
        {
            const char* parsed = parseFaceLine(p, end, slashes);
            if (parsed)
            {
                p = parsed + 1;
                continue;
            }
            if (!slashes)
                return false;
        }
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
        if (!nl && !last)
            return false;
        const char* lineEnd = nl ? nl : end;
        if (limitLines && lineEnd - p >= LineBufferSize)
        {
            parseLine(p, p + LineBufferSize - 1);
            m_stopped = true;
            return true;
        }
        // The usual lines begin with their keyword and go straight to their parsers; the
        // others, and the first line (which may begin with a byte-order mark), to parseLine.
        const std::size_t length = std::size_t(lineEnd - p);
        if (length >= 3 && !m_firstLine && p[1] == ' ' && (*p == 'f' || *p == 'v'))
        {
            m_lineBytes[KindAll] += length;
            if (*p == 'f')
            {
                parseFace(p + 2, lineEnd);
            }
            else
            {
                m_lineBytes[KindV] += length;
                readNumbers(p + 2, lineEnd, 3, m_positions.extend(3));
                m_positions.resize(m_positions.size() + 3);
            }
        }
        else if (length >= 3 && !m_firstLine && !m_keepTexCoords && *p == 'v' && p[2] == ' ' &&
                 (p[1] == 'n' || p[1] == 't'))
        {
            // Normals and, in a read without them, texture coordinates are only counted.
            m_lineBytes[KindAll] += length;
        }
        else
        {
            parseLine(p, lineEnd);
        }
        if (!nl)
        {
            p = end;
            return false;
        }
        p = nl + 1;
    }
    return false;
}

bool ObjLineReader::parsePieces(const detail::TextSource& source)
{
    const std::size_t numPieces = (source.size() + PieceBytes - 1) / PieceBytes;
    std::vector<std::unique_ptr<ObjLineReader>> pieces(numPieces);
    for (std::size_t k = 0; k < numPieces; ++k)
    {
        pieces[k] = std::make_unique<ObjLineReader>(m_keepTexCoords, m_wantMaterials);
        if (k > 0)
        {
            pieces[k]->m_firstLine = false;
            pieces[k]->m_laterPiece = true;
            pieces[k]->m_currentMaterial = InheritedMaterial;
        }
    }
    // Every pool thread takes the next piece and parses it; the pieces' results are joined
    // in file order below, so the thread count does not matter.
    source.forEachPiece(PieceBytes, numPieces,
                        [&](int, std::size_t k, const detail::TextRange& text)
                        {
                            ObjLineReader& r = *pieces[k];
                            // The last piece of the file parses the text after its last '\n'
                            // too.
                            r.m_reachesEnd = text.reachesEnd;
                            r.parseLines(text.begin, text.end, text.reachesEnd, true);
                            return true;
                        });

    // The pieces up to the one that stopped the reading or reached the end of the file
    // count. Their result equals the whole-text parse unless a decimal comma was switched on
    // (the first comment of the file decides it), a later piece met a relative index, or the
    // corner count overflows.
    std::size_t used = 0, corners = 0;
    for (; used < numPieces; ++used)
    {
        const ObjLineReader& r = *pieces[used];
        if (r.m_commaDecimal || r.m_sawRelativeIndex)
            return false;
        corners += r.m_cornerPos.size();
        if (r.m_stopped || r.m_reachesEnd)
        {
            ++used;
            break;
        }
    }
    if (corners > std::size_t(0x7fffffff))
        return false;
    // Material numbers become the whole file's (in order of first use), and the faces before
    // a piece's first usemtl take the material in force at the piece's start.
    std::vector<int> materialMap;
    for (std::size_t k = 0; k < used; ++k)
    {
        ObjLineReader& piece = *pieces[k];
        for (int kind = 0; kind < 4; ++kind)
            m_lineBytes[kind] += piece.m_lineBytes[kind];
        if (piece.m_sawMtllib)
            m_mtllib = piece.m_mtllib;
        if (!m_wantMaterials)
            continue;
        materialMap.clear();
        for (const std::string& name : piece.m_materialNames)
        {
            const auto it = std::find(m_materialNames.begin(), m_materialNames.end(), name);
            materialMap.push_back(int(it - m_materialNames.begin()));
            if (it == m_materialNames.end())
                m_materialNames.push_back(name);
        }
        const int inherited = m_currentMaterial;
        auto global = [&](int m) {
            return m == InheritedMaterial ? inherited : m < 0 ? m : materialMap[std::size_t(m)];
        };
        for (int& m : piece.m_faceMaterial)
            m = global(m);
        m_currentMaterial = global(piece.m_currentMaterial);
    }
    pieces.resize(used);
    m_pieces = std::move(pieces);
    return true;
}

void ObjLineReader::resetForPiece(bool later)
{
    m_firstLine = !later;
    m_commaDecimal = false;
    m_firstCommentPending = true;
    m_laterPiece = later;
    m_sawRelativeIndex = false;
    m_sawMtllib = false;
    m_stopped = false;
    m_reachesEnd = false;
    m_currentMaterial = later ? InheritedMaterial : -1;
    std::fill(std::begin(m_lineBytes), std::end(m_lineBytes), std::size_t(0));
    m_materialNames.clear();
    m_mtllib.clear();
    m_positions.clear();
    m_texCoords.clear();
    m_numFaces = 0;
    m_allTriangles = true;
    m_faceSizes.clear();
    m_cornerPos.clear();
    m_cornerTex.clear();
    m_faceMaterial.clear();
    m_minPos = 0x7fffffff;
    m_maxPos = -1;
    m_maxTex = -1;
    m_sawDegenerate = false;
}

namespace
{

template <class T> void append(GrowArray<T>& to, const GrowArray<T>& from)
{
    if (from.empty())
        return;
    std::memcpy(to.extend(from.size()), from.data(), from.size() * sizeof(T));
    to.resize(to.size() + from.size());
}

} // namespace

ObjLineReader::Append ObjLineReader::appendPiece(const ObjLineReader& piece)
{
    // As in parsePieces: a decimal comma (decided by the file's first comment), a relative
    // index in a later piece or too many corners make the parse in pieces give way to the
    // reading from the start.
    if (piece.m_commaDecimal || piece.m_sawRelativeIndex ||
        m_cornerPos.size() + piece.m_cornerPos.size() > std::size_t(0x7fffffff))
        return Append::Discard;
    append(m_positions, piece.m_positions);
    append(m_texCoords, piece.m_texCoords);
    append(m_cornerPos, piece.m_cornerPos);
    append(m_cornerTex, piece.m_cornerTex);
    if (m_allTriangles && !piece.m_allTriangles)
    {
        m_faceSizes.resize(m_numFaces);
        std::fill(m_faceSizes.begin(), m_faceSizes.end(), 3);
        m_allTriangles = false;
    }
    if (!m_allTriangles)
    {
        if (piece.m_allTriangles)
            std::fill_n(m_faceSizes.extend(piece.m_numFaces), piece.m_numFaces, 3);
        else
            std::copy(piece.m_faceSizes.begin(), piece.m_faceSizes.end(),
                      m_faceSizes.extend(piece.m_numFaces));
        m_faceSizes.resize(m_faceSizes.size() + piece.m_numFaces);
    }
    m_numFaces += piece.m_numFaces;
    m_minPos = std::min(m_minPos, piece.m_minPos);
    m_maxPos = std::max(m_maxPos, piece.m_maxPos);
    m_maxTex = std::max(m_maxTex, piece.m_maxTex);
    m_sawDegenerate |= piece.m_sawDegenerate;
    for (int kind = 0; kind < 4; ++kind)
        m_lineBytes[kind] += piece.m_lineBytes[kind];
    m_stopped = piece.m_stopped;
    return piece.m_stopped || piece.m_reachesEnd ? Append::Last : Append::More;
}

bool ObjLineReader::parsePiecesInOrder(const detail::TextSource& source)
{
    // Each piece is parsed into one of a ring of scratch readers (piece k into slot k % n),
    // which keep their memory from piece to piece. A parsed piece is appended to this
    // reader by whichever thread holds the merge turn, in file order; only that thread
    // writes this reader's arrays, so they may grow. A piece waits for its slot until the
    // piece that used it before has been appended.
    constexpr std::size_t none = std::size_t(-1);
    struct Slot
    {
        ObjLineReader reader;
        std::atomic<std::size_t> ready{none}; ///< the piece parsed into it, not yet appended
        explicit Slot(bool keepTexCoords) : reader(keepTexCoords, false) {}
    };
    const std::size_t numPieces = (source.size() + PieceBytes - 1) / PieceBytes;
    std::vector<std::unique_ptr<Slot>> slots;
    std::atomic<std::size_t> appended{0}; // pieces appended so far
    std::atomic<bool> merging{false}, finished{false}, discard{false};
    // Counts the appends and the end of the parse, for the tasks that wait for a slot.
    std::atomic<std::size_t> events{0};
    auto signal = [&]
    {
        events.fetch_add(1);
        events.notify_all();
    };

    // Appends the parsed pieces that are next in order, unless another thread is at it. After
    // giving the turn back it looks again: a piece that became ready meanwhile may have been
    // missed by the thread that parsed it.
    auto merge = [&]
    {
        for (;;)
        {
            if (merging.exchange(true))
                return;
            while (!finished.load())
            {
                const std::size_t k = appended.load();
                Slot& slot = *slots[k % slots.size()];
                if (slot.ready.load() != k)
                    break;
                const Append result = appendPiece(slot.reader);
                slot.ready.store(none);
                if (result != Append::More)
                {
                    discard.store(result == Append::Discard);
                    finished.store(true);
                }
                appended.store(k + 1);
                signal();
            }
            merging.store(false);
            const std::size_t k = appended.load();
            if (finished.load() || slots[k % slots.size()]->ready.load() != k)
                return;
        }
    };
    source.forEachPiece(
        PieceBytes, numPieces,
        [&](int, std::size_t k, const detail::TextRange& text)
        {
            try
            {
                Slot& slot = *slots[k % slots.size()];
                // The slot is free once the piece before in it has been appended. Meanwhile
                // the task appends what it can, then sleeps until the next append.
                for (;;)
                {
                    const std::size_t seen = events.load();
                    if (appended.load() + slots.size() > k)
                        break;
                    if (finished.load())
                        return false;
                    merge();
                    if (appended.load() + slots.size() <= k && !finished.load())
                        events.wait(seen);
                }
                if (finished.load())
                    return false;
                ObjLineReader& r = slot.reader;
                r.resetForPiece(k > 0);
                // The last piece of the file parses the text after its last '\n' too.
                r.m_reachesEnd = text.reachesEnd;
                r.parseLines(text.begin, text.end, text.reachesEnd, true);
                slot.ready.store(k);
                merge();
                return !finished.load();
            }
            catch (...)
            {
                // Out of memory: the other tasks must not wait for this piece. The pool
                // passes the exception on.
                finished.store(true);
                signal();
                throw;
            }
        },
        [&](int numTasks)
        {
            const std::size_t n = 2 * std::size_t(std::max(numTasks, 1));
            for (std::size_t i = 0; i < n; ++i)
            {
                slots.push_back(std::make_unique<Slot>(m_keepTexCoords));
                slots.back()->reader.m_positions.reserve(PieceBytes / 8);
                slots.back()->reader.m_cornerPos.reserve(PieceBytes / 4);
            }
        });
    if (finished.load() && !discard.load())
        return true;
    // Nothing of the parse counts: this reader is left as it was before, with its capacity.
    resetForPiece(false);
    return false;
}

std::vector<const ObjLineReader*> ObjLineReader::parts() const
{
    if (m_pieces.empty())
        return {this};
    std::vector<const ObjLineReader*> out;
    for (const auto& piece : m_pieces)
        out.push_back(piece.get());
    return out;
}

const char* ObjLineReader::readCommaNumber(const char* p, const char* end, float& out)
{
    while (p < end && detail::isSpace(*p))
        ++p;
    char buf[310];
    std::size_t n = 0;
    while (p + n < end && n < 309 && !detail::isSpace(p[n]))
    {
        buf[n] = p[n] == ',' ? '.' : p[n];
        ++n;
    }
    const char* stop;
    out = float(detail::parseDouble(buf, buf + n, &stop));
    return p + (stop - buf);
}

inline void ObjLineReader::readNumbers(const char* p, const char* end, int count, float* out)
{
    for (int k = 0; k < count; ++k)
    {
        if (m_commaDecimal)
        {
            p = readCommaNumber(p, end, out[k]);
            continue;
        }
        const char* stop;
        out[k] = float(detail::parseDoubleShort(p, end, &stop));
        p = stop;
    }
}

const char* ObjLineReader::parseFaceLine(const char* line, const char* end, bool& slashes)
{
    // The corners are written in place and kept only when the line makes a face; a line of
    // more corners takes the general way.
    constexpr std::size_t maxCorners = 64;
    int* const pos = m_cornerPos.extend(maxCorners);
    const bool keepTex = m_keepTexCoords;
    int* const texOut = keepTex ? m_cornerTex.extend(maxCorners) : nullptr;
    int tex = -1;
    int lo = 0x7fffffff, hi = -1, texHi = -1;
    const char* p = line + 2;
    std::size_t n = 0;
    for (;; ++n)
    {
        while (p < end && isFaceBlank(*p))
            ++p;
        if (p == end)
            return nullptr;
        if (*p == '\n')
            break;
        // A corner ends at its first byte not above ' ', found at once among the 32 bytes
        // from its start: the next corner's start does not wait for the parse of this one.
        // Only corners of one to nine digits, each part followed by a '/' or the corner's
        // end, and whose end is a face blank or the line's '\n', are read here.
        if (n == maxCorners || m_readable - p < 32)
            return nullptr;
        const std::uint32_t low = lowBytes32(p);
        if (low == 0)
            return nullptr;
        const char* const e = p + std::countr_zero(low);
        if (!isFaceBlank(*e) && *e != '\n')
            return nullptr;
        std::uint64_t value;
        const char* const q = detail::scanDigits(p, e, m_readable, value);
        if (std::size_t(q - p) - 1 >= 9 || (q != e && *q != '/'))
            return nullptr;
        if (q == e && n == 0)
        {
            // Corners of plain indices end where their digits do: parseFace finds that
            // sooner. The lines after this one go there too.
            slashes = false;
            return nullptr;
        }
        if (keepTex && q != e)
        {
            std::uint64_t texValue;
            const char* t = detail::scanDigits(q + 1, e, m_readable, texValue);
            if (std::size_t(t - q - 1) - 1 >= 9 || (t != e && *t != '/'))
                return nullptr;
            tex = int(texValue) - 1;
            texHi = std::max(texHi, tex);
        }
        storeCorner(pos, keepTex, texOut, n, int(value) - 1, tex, lo, hi);
        p = e;
    }
    const std::size_t length = std::size_t(p - line);
    if (length >= std::size_t(LineBufferSize))
        return nullptr;
    m_lineBytes[KindAll] += length;
    addFace(pos, n, lo, hi, texHi);
    return p;
}

void ObjLineReader::parseLine(const char* p, const char* end)
{
    if (m_firstLine)
    {
        // A UTF-8 byte-order mark before the first line is no part of it.
        m_firstLine = false;
        p = detail::skipByteOrderMark(p, end);
    }
    m_lineBytes[KindAll] += std::size_t(end - p);
    while (p < end && detail::isBlank(*p))
        ++p;
    if (p == end)
        return;
    const char c = *p;
    if (c == '#' || c == '$')
    {
        if (m_firstCommentPending)
        {
            m_firstCommentPending = false;
            m_commaDecimal = startsWith(p, end, "# CATIA OBJ File:", 17);
        }
        return;
    }
    if (c == 'v' && end - p >= 2)
    {
        if (p[1] == ' ')
        {
            m_lineBytes[KindV] += std::size_t(end - p);
            readNumbers(p + 2, end, 3, m_positions.extend(3));
            m_positions.resize(m_positions.size() + 3);
            return;
        }
        if (end - p >= 3 && p[2] == ' ' && p[1] == 'n')
        {
            if (m_keepTexCoords)
                m_lineBytes[KindN] += std::size_t(end - p);
            return;
        }
        if (end - p >= 3 && p[2] == ' ' && p[1] == 't')
        {
            if (!m_keepTexCoords)
                return;
            m_lineBytes[KindT] += std::size_t(end - p);
            readNumbers(p + 3, end, 2, m_texCoords.extend(2));
            m_texCoords.resize(m_texCoords.size() + 2);
            return;
        }
    }
    if (c == 'f' && end - p >= 2 && p[1] == ' ')
    {
        parseFace(p + 2, end);
        return;
    }
    if (!m_wantMaterials)
        return;
    if (startsWith(p, end, "usemtl ", 7))
    {
        useMaterial(p + 7, end);
    }
    else if (startsWith(p, end, "mtllib ", 7))
    {
        const char* b = p + 7;
        const char* e = end;
        while (e > b && (e[-1] == '\r' || e[-1] == '\n'))
            --e;
        if (e - b >= 2 && *b == '"' && e[-1] == '"')
        {
            ++b;
            --e;
        }
        m_mtllib.assign(b, e);
        m_sawMtllib = true;
    }
}

void ObjLineReader::useMaterial(const char* p, const char* end)
{
    while (p < end && detail::isSpace(*p))
        ++p;
    while (end > p && detail::isSpace(end[-1]))
        --end;
    const std::string name(p, end);
    const auto it = std::find(m_materialNames.begin(), m_materialNames.end(), name);
    m_currentMaterial = int(it - m_materialNames.begin());
    if (it == m_materialNames.end())
        m_materialNames.push_back(name);
}

void ObjLineReader::parseFace(const char* p, const char* end)
{
    // A corner takes a byte at least and a blank after it, so the corners of the line fit in
    // this many entries: they are written in place and kept only when the line makes a face.
    const std::size_t room = std::size_t(end - p) / 2 + 1;
    int* const pos = m_cornerPos.extend(room);
    const bool keepTex = m_keepTexCoords;
    int* const texOut = keepTex ? m_cornerTex.extend(room) : nullptr;
    // One texture index for the whole line: a corner that does not give one keeps the value
    // of the previous corner. (Normal indices are not kept: no result uses them.)
    int tex = -1;
    int lo = 0x7fffffff, hi = -1, texHi = -1;
    bool relative = false;
    const int nPos = numPositions(), nTex = numTexCoords();
    std::size_t n = 0;
    for (;; ++n)
    {
        while (p < end && isFaceBlank(*p))
            ++p;
        if (p == end)
            break;
        // The usual corner: one to nine digits, then the end of the corner or a '/'. What
        // follows the '/' is skipped when texture indices are not kept, and is the same
        // plain texture index otherwise.
        std::uint64_t value;
        const char* q = detail::scanDigits(p, end, m_readable, value);
        bool plain = std::size_t(q - p) - 1 < 9 && (q == end || isFaceBlank(*q) || *q == '/');
        if (plain && q < end && *q == '/' && keepTex)
        {
            std::uint64_t texValue;
            const char* t = detail::scanDigits(q + 1, end, m_readable, texValue);
            plain = std::size_t(t - q - 1) - 1 < 9 && (t == end || isFaceBlank(*t) || *t == '/');
            if (plain)
            {
                tex = int(texValue) - 1;
                texHi = std::max(texHi, tex);
            }
        }
        if (plain)
        {
            // Only a corner with a '/' has more to skip.
            if (q < end && *q == '/')
                q = cornerEnd(q, end);
            storeCorner(pos, keepTex, texOut, n, int(value) - 1, tex, lo, hi);
            p = q;
            continue;
        }
        // Anything else: each part as atoi reads it. One pass finds the end of the corner
        // and its first two slashes.
        const char* slash = nullptr;
        const char* slash2 = nullptr;
        for (q = p; q < end && !isFaceBlank(*q); ++q)
            if (*q == '/')
            {
                if (!slash)
                    slash = q;
                else if (!slash2)
                    slash2 = q;
            }
        const int rawPos = detail::parseInt(p, q);
        relative |= rawPos < 0;
        const int v = resolveIndex(rawPos, nPos) - 1;
        pos[n] = v;
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        // Texture indices matter only to the reads that keep them.
        const char* texEnd = slash2 ? slash2 : q;
        if (keepTex)
        {
            if (slash && texEnd > slash + 1)
            {
                const int rawTex = detail::parseInt(slash + 1, texEnd);
                relative |= rawTex < 0;
                const int t = resolveIndex(rawTex, nTex);
                tex = t >= 1 ? t - 1 : -1;
                texHi = std::max(texHi, tex);
            }
            texOut[n] = tex;
        }
        p = q;
    }
    m_sawRelativeIndex |= m_laterPiece && relative;
    addFace(pos, n, lo, hi, texHi);
}

inline void ObjLineReader::addFace(const int* pos, std::size_t n, int lo, int hi, int texHi)
{
    if (n < 3 || m_cornerPos.size() + n > std::size_t(0x7fffffff))
        return;
    m_cornerPos.resize(m_cornerPos.size() + n);
    if (m_keepTexCoords)
        m_cornerTex.resize(m_cornerTex.size() + n);
    m_minPos = std::min(m_minPos, lo);
    m_maxPos = std::max(m_maxPos, hi);
    m_maxTex = std::max(m_maxTex, texHi);
    m_sawDegenerate |= n == 3 && (pos[0] == pos[1] || pos[0] == pos[2] || pos[1] == pos[2]);
    if (m_allTriangles && n != 3)
    {
        // The first face that is not a triangle: from now on every face's size is kept.
        m_faceSizes.resize(m_numFaces);
        std::fill(m_faceSizes.begin(), m_faceSizes.end(), 3);
        m_allTriangles = false;
    }
    if (!m_allTriangles)
        m_faceSizes.push_back(int(n));
    ++m_numFaces;
    if (m_wantMaterials)
        m_faceMaterial.push_back(m_currentMaterial);
}

/// What validation found in one part of a read: which faces stay, the degenerate
/// triangles to print (in order) and the counts.
struct ObjLineReader::PartCheck
{
    std::vector<unsigned char> keep; ///< per face; empty when every face is kept
    std::vector<int> degenerate;     ///< corner triples to print
    std::size_t keptFaces = 0, keptCorners = 0, setAside = 0;
};

std::vector<ObjLineReader::PartCheck>
ObjLineReader::validateParts(const std::vector<const ObjLineReader*>& all, int numPositions,
                             int& numSetAside) const
{
    // A face whose corner names a position out of range is set aside, and so is a triangle
    // with a repeated corner. Parts are checked in parallel; the degenerate triangles are
    // printed afterwards, in file order.
    std::vector<PartCheck> results(all.size());
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(all.size()),
        [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
        {
            for (int k = begin; k < end; ++k)
            {
                const ObjLineReader& part = *all[std::size_t(k)];
                PartCheck& res = results[std::size_t(k)];
                if (part.keepsEveryFace(numPositions))
                {
                    res.keptFaces = part.m_numFaces;
                    res.keptCorners = part.m_cornerPos.size();
                    continue;
                }
                res.keep.resize(part.m_numFaces);
                const int* corner = part.m_cornerPos.data();
                for (std::size_t f = 0; f < part.m_numFaces; ++f)
                {
                    const int n = part.parsedFaceSize(f);
                    bool inRange = true;
                    for (int i = 0; i < n; ++i)
                        inRange &= corner[i] >= 0 && corner[i] < numPositions;
                    const bool degenerate = inRange && n == 3 &&
                                            (corner[0] == corner[1] || corner[0] == corner[2] ||
                                             corner[1] == corner[2]);
                    res.keep[f] = inRange && !degenerate;
                    if (res.keep[f])
                    {
                        ++res.keptFaces;
                        res.keptCorners += std::size_t(n);
                    }
                    else
                    {
                        ++res.setAside;
                        // Printed as read: 1-based.
                        if (degenerate)
                            for (int i = 0; i < 3; ++i)
                                res.degenerate.push_back(corner[i] + 1);
                    }
                    corner += n;
                }
            }
        },
        nullptr, 1);
    for (const PartCheck& res : results)
    {
        for (std::size_t i = 0; i < res.degenerate.size(); i += 3)
            std::printf("%d, %d, %d\n", res.degenerate[i], res.degenerate[i + 1],
                        res.degenerate[i + 2]);
        numSetAside += int(res.setAside);
    }
    return results;
}

void ObjLineReader::moveOut(ObjFaces& out)
{
    const int nTex = numTexCoords();
    if (m_maxTex >= nTex)
        for (int& t : m_cornerTex)
            if (t >= nTex)
                t = -1;
    out.faceCount = int(m_numFaces);
    out.cornerCount = int(m_cornerPos.size());
    // A list of triangles needs no starts unless a builder asks for them.
    if (!m_allTriangles)
    {
        out.faceStart.resize(m_numFaces + 1);
        int* start = out.faceStart.data();
        start[0] = 0;
        for (std::size_t f = 0; f < m_numFaces; ++f)
            start[f + 1] = start[f] + m_faceSizes[f];
    }
    out.positions = std::move(m_positions);
    out.texCoords = std::move(m_texCoords);
    out.cornerPos = std::move(m_cornerPos);
    out.cornerTex = std::move(m_cornerTex);
    out.faceMaterial = std::move(m_faceMaterial);
}

void ObjLineReader::joinParts(const std::vector<const ObjLineReader*>& all, ObjFaces& out)
{
    const std::size_t numParts = all.size();
    std::size_t positions = 0, texCoords = 0;
    for (const ObjLineReader* part : all)
    {
        positions += part->m_positions.size();
        texCoords += part->m_texCoords.size();
    }
    const int nPos = int(positions / 3), nTex = int(texCoords / 2);
    const std::vector<PartCheck> results = validateParts(all, nPos, out.numSetAside);

    // Where each part's data go in the joined arrays: entry k is where part k starts, the
    // last entry the total. Positions and texture coordinates count floats.
    std::vector<std::size_t> atPos(numParts + 1, 0), atTex(atPos), atFace(atPos), atCorner(atPos);
    for (std::size_t k = 0; k < numParts; ++k)
    {
        atPos[k + 1] = atPos[k] + all[k]->m_positions.size();
        atTex[k + 1] = atTex[k] + all[k]->m_texCoords.size();
        atFace[k + 1] = atFace[k] + results[k].keptFaces;
        atCorner[k + 1] = atCorner[k] + results[k].keptCorners;
    }
    const std::size_t kept = atFace[numParts], corners = atCorner[numParts];
    out.positions.resize(positions);
    out.texCoords.resize(texCoords);
    out.faceStart.resize(kept + 1);
    out.cornerPos.resize(corners);
    out.cornerTex.resize(m_keepTexCoords ? corners : 0);
    out.faceMaterial.resize(m_wantMaterials ? kept : 0);
    out.faceStart[kept] = int(corners);
    out.faceCount = int(kept);
    out.cornerCount = int(corners);

    // The kept faces, with texture indices out of range made absent; every part writes its
    // own range.
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(numParts),
        [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
        {
            for (int k = begin; k < end; ++k)
            {
                const ObjLineReader& part = *all[std::size_t(k)];
                const PartCheck& res = results[std::size_t(k)];
                std::copy(part.m_positions.begin(), part.m_positions.end(),
                          out.positions.data() + atPos[std::size_t(k)]);
                std::copy(part.m_texCoords.begin(), part.m_texCoords.end(),
                          out.texCoords.data() + atTex[std::size_t(k)]);
                std::size_t corner = atCorner[std::size_t(k)];
                std::size_t face = atFace[std::size_t(k)];
                if (res.keep.empty())
                {
                    // Every face kept: the arrays as they are.
                    std::copy(part.m_cornerPos.begin(), part.m_cornerPos.end(),
                              out.cornerPos.data() + corner);
                    if (m_keepTexCoords)
                        std::transform(part.m_cornerTex.begin(), part.m_cornerTex.end(),
                                       out.cornerTex.data() + corner,
                                       [nTex](int t) { return t < nTex ? t : -1; });
                    if (m_wantMaterials)
                        std::copy(part.m_faceMaterial.begin(), part.m_faceMaterial.end(),
                                  out.faceMaterial.data() + face);
                    for (std::size_t f = 0; f < part.m_numFaces; ++f, ++face)
                    {
                        out.faceStart[face] = int(corner);
                        corner += std::size_t(part.parsedFaceSize(f));
                    }
                    continue;
                }
                for (std::size_t f = 0, c = 0; f < part.m_numFaces; ++f)
                {
                    const int n = part.parsedFaceSize(f);
                    if (res.keep[f])
                    {
                        out.faceStart[face] = int(corner);
                        if (m_wantMaterials)
                            out.faceMaterial[face] = part.m_faceMaterial[f];
                        ++face;
                        for (int i = 0; i < n; ++i, ++corner)
                        {
                            out.cornerPos[corner] = part.m_cornerPos[c + std::size_t(i)];
                            if (!m_keepTexCoords)
                                continue;
                            const int t = part.m_cornerTex[c + std::size_t(i)];
                            out.cornerTex[corner] = t < nTex ? t : -1;
                        }
                    }
                    c += std::size_t(n);
                }
            }
        },
        nullptr, 1);
}

ObjFaces ObjLineReader::finish()
{
    ObjFaces out;
    // The usual file, read whole and with every face valid, is handed out without a copy.
    if (m_pieces.empty() && keepsEveryFace(numPositions()))
        moveOut(out);
    else
        joinParts(parts(), out);
    out.materialNames = std::move(m_materialNames);
    out.mtllib = std::move(m_mtllib);
    if (m_lineBytes[KindAll] > 0)
    {
        const double perByte = m_readSeconds / double(m_lineBytes[KindAll]);
        out.secondsV = perByte * double(m_lineBytes[KindV]);
        out.secondsN = perByte * double(m_lineBytes[KindN]);
        out.secondsT = perByte * double(m_lineBytes[KindT]);
    }
    // The parsed arrays are no longer needed.
    m_pieces.clear();
    return out;
}

} // namespace qyGeom
