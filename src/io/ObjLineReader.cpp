#include "io/ObjLineReader.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

#include "base/Memory.h"
#include "base/ThreadPool.h"
#include "io/objText.h"
#include "model/CompactMesh.h"

namespace qyGeom
{

namespace
{

bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

bool startsWith(const char* p, const char* end, const char* word, std::size_t n)
{
    return std::size_t(end - p) >= n && std::memcmp(p, word, n) == 0;
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

/// atoi over [p, end), with a fast path for the common short unsigned or negative index.
inline int readIndex(const char* p, const char* end)
{
    const char* q = p;
    const bool negative = q < end && *q == '-';
    q += negative;
    unsigned v = 0;
    int n = 0;
    while (q < end && n < 10 && objText::isDigit(*q))
    {
        v = v * 10 + unsigned(*q - '0');
        ++q;
        ++n;
    }
    if (n > 0 && n < 10 && (q == end || !objText::isDigit(*q)))
        return negative ? -int(v) : int(v);
    return objText::parseInt(p, end);
}

} // namespace

ObjLineReader::ObjLineReader(bool wantSubsets, bool wantMaterials, bool allowNonManifold)
    : m_wantSubsets(wantSubsets), m_wantMaterials(wantMaterials),
      m_allowNonManifold(allowNonManifold), m_keepAttributes(wantSubsets)
{
    m_arenas.push_back(std::make_unique<BlockArena>());
    useArena(m_arenas.front().get());
}

void ObjLineReader::useArena(BlockArena* arena)
{
    for (auto* seq : {&m_positions, &m_texCoords})
        seq->setArena(arena);
    for (auto* seq : {&m_faceSizes, &m_cornerPos, &m_cornerTex, &m_faceMaterial})
        seq->setArena(arena);
}

BlockArena::~BlockArena()
{
    for (const Chunk& c : m_chunks)
        ::operator delete(c.data, std::align_val_t(ChunkAlignment));
}

void* BlockArena::allocate(std::size_t bytes)
{
    bytes = (bytes + 63) & ~std::size_t(63);
    if (bytes > m_left)
    {
        const std::size_t chunkBytes = std::max(m_chunkBytes, bytes);
        char* data =
            static_cast<char*>(::operator new(chunkBytes, std::align_val_t(ChunkAlignment)));
        m_chunks.push_back({data, chunkBytes});
        qy::adviseHugePages(data, chunkBytes);
        m_next = data;
        m_left = chunkBytes;
        m_chunkBytes = std::min(2 * m_chunkBytes, MaxChunkBytes);
    }
    void* p = m_next;
    m_next += bytes;
    m_left -= bytes;
    return p;
}

bool ObjLineReader::readFile(const char* path)
{
    std::unique_ptr<FILE, int (*)(FILE*)> f(std::fopen(path, "rb"), &std::fclose);
    if (!f)
        return false;
    struct stat st;
    const bool statted = fstat(fileno(f.get()), &st) == 0;
    if (statted && S_ISDIR(st.st_mode))
        return false;
    qyUtil::ThreadPool& pool = qyUtil::ThreadPool::get();
    if (statted && S_ISREG(st.st_mode) && std::size_t(st.st_size) >= 2 * PieceBytes &&
        pool.getNumThreads() > 1)
    {
        if (parsePieces(fileno(f.get()), std::size_t(st.st_size)))
        {
            switchKind(KindOther);
            return true;
        }
        // The pieces could not stand for the whole text: the ordinary read below.
    }
    // Lines are parsed in place from a large block; a line that does not fit the
    // 16384-byte line buffer (16383 characters and the terminator) ends the reading after
    // its first 16383 characters, as a bounded getline would.
    constexpr std::size_t blockSize = std::size_t(1) << 20;
    std::vector<char> block(blockSize + LineBufferSize);
    std::size_t begin = 0, filled = 0;
    bool eof = false;
    for (;;)
    {
        const char* base = block.data();
        const char* nl = static_cast<const char*>(std::memchr(base + begin, '\n', filled - begin));
        if (nl)
        {
            const std::size_t len = std::size_t(nl - (base + begin));
            if (len >= LineBufferSize)
            {
                parseLine(base + begin, base + begin + LineBufferSize - 1);
                break;
            }
            parseLine(base + begin, nl);
            begin += len + 1;
            continue;
        }
        if (filled - begin >= LineBufferSize)
        {
            parseLine(base + begin, base + begin + LineBufferSize - 1);
            break;
        }
        if (eof)
        {
            parseLine(base + begin, base + filled);
            break;
        }
        std::memmove(block.data(), block.data() + begin, filled - begin);
        filled -= begin;
        begin = 0;
        const std::size_t n = std::fread(block.data() + filled, 1, block.size() - filled, f.get());
        filled += n;
        if (n == 0)
            eof = true;
    }
    switchKind(KindOther);
    return true;
}

bool ObjLineReader::parseLines(const char* p, const char* end, bool last)
{
    while (p < end)
    {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
        const char* lineEnd = nl ? nl : end;
        if (!nl && !last)
            break;
        if (lineEnd - p >= LineBufferSize)
        {
            parseLine(p, p + LineBufferSize - 1);
            m_stopped = true;
            return true;
        }
        parseLine(p, lineEnd);
        if (!nl)
            return false;
        p = nl + 1;
    }
    if (last)
        parseLine(p, end); // the empty piece after a final '\n'
    return false;
}

namespace
{

/// Reads [offset, offset + n) of a file into out; returns the bytes read (short at the end
/// of the file or on an error).
std::size_t readAt(int fd, std::size_t offset, char* out, std::size_t n)
{
    std::size_t done = 0;
    while (done < n)
    {
        const ssize_t got = ::pread(fd, out + done, n - done, off_t(offset + done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        done += std::size_t(got);
    }
    return done;
}

/// The text of one piece of a file: the lines that start in [k * PieceBytes, (k + 1) *
/// PieceBytes), a line starting where the previous one ends. Piece k (k > 0) starts after
/// the first '\n' at or after byte k * PieceBytes - 1, so the cut depends only on the text
/// and no line is split. Reads into `buffer`, which grows for long lines.
struct PieceText
{
    const char* begin = nullptr;
    const char* end = nullptr;
    bool reachesEnd = false; ///< the piece ends at the end of the file
};

PieceText readPiece(int fd, std::size_t k, std::size_t pieceBytes, std::vector<char>& buffer)
{
    const std::size_t from = k == 0 ? 0 : k * pieceBytes - 1;
    const std::size_t cutAfter = (k + 1) * pieceBytes - 1 - from; // relative to `from`
    std::size_t filled = 0, start = k == 0 ? 0 : std::size_t(-1), end = std::size_t(-1);
    std::size_t scanned = 0;
    bool eof = false;
    if (buffer.size() < pieceBytes + 65536)
        buffer.resize(pieceBytes + 65536);
    for (;;)
    {
        if (filled == buffer.size())
            buffer.resize(buffer.size() * 2);
        const std::size_t want = buffer.size() - filled;
        const std::size_t got = readAt(fd, from + filled, buffer.data() + filled, want);
        filled += got;
        eof = got < want;
        // Find the start, then the first '\n' at or after cutAfter.
        while (scanned < filled && (start == std::size_t(-1) || end == std::size_t(-1)))
        {
            if (start == std::size_t(-1))
            {
                const void* nl = std::memchr(buffer.data() + scanned, '\n', filled - scanned);
                if (!nl)
                {
                    scanned = filled;
                    break;
                }
                start = std::size_t(static_cast<const char*>(nl) - buffer.data()) + 1;
                scanned = start;
                // A line that crosses the whole piece: the next piece starts at the same
                // line, this one is empty.
                if (start - 1 >= cutAfter)
                    end = start;
                continue;
            }
            scanned = std::max(scanned, cutAfter);
            if (scanned >= filled)
                break;
            const void* nl = std::memchr(buffer.data() + scanned, '\n', filled - scanned);
            if (!nl)
            {
                scanned = filled;
                break;
            }
            end = std::size_t(static_cast<const char*>(nl) - buffer.data()) + 1;
        }
        if ((start != std::size_t(-1) && end != std::size_t(-1)) || eof)
            break;
    }
    PieceText piece;
    if (start == std::size_t(-1))
        start = filled;
    piece.reachesEnd = end == std::size_t(-1);
    if (piece.reachesEnd)
        end = filled;
    piece.begin = buffer.data() + start;
    piece.end = buffer.data() + std::max(start, end);
    return piece;
}

} // namespace

bool ObjLineReader::parsePieces(int fd, std::size_t fileSize)
{
    const std::size_t numPieces = (fileSize + PieceBytes - 1) / PieceBytes;
    std::vector<std::unique_ptr<ObjLineReader>> pieces(numPieces);
    for (std::size_t k = 0; k < numPieces; ++k)
    {
        pieces[k] =
            std::make_unique<ObjLineReader>(m_wantSubsets, m_wantMaterials, m_allowNonManifold);
        if (k > 0)
        {
            pieces[k]->m_firstLine = false;
            pieces[k]->m_laterPiece = true;
            pieces[k]->m_currentMaterial = InheritedMaterial;
        }
    }
    // Every pool thread takes the next piece and reads it into its own buffer; the pieces'
    // results are appended in file order below, so the thread count does not matter.
    class Job final : public qyUtil::ThreadedAlg
    {
    public:
        Job(int fd, std::vector<std::unique_ptr<ObjLineReader>>& pieces,
            std::vector<std::unique_ptr<BlockArena>>& arenas)
            : m_fd(fd), m_pieces(pieces), m_arenas(arenas)
        {
        }
        void initialize(int numTasks) override
        {
            // One arena per task after the reader's own; they live as long as the reader.
            m_first = m_arenas.size();
            for (int t = 0; t < numTasks; ++t)
                m_arenas.push_back(std::make_unique<BlockArena>());
        }
        void execute(int task, int) override
        {
            std::vector<char> buffer;
            for (;;)
            {
                const std::size_t k = m_next.fetch_add(1, std::memory_order_relaxed);
                if (k >= m_pieces.size() || cancelled(task))
                    return;
                const PieceText text = readPiece(m_fd, k, PieceBytes, buffer);
                ObjLineReader& r = *m_pieces[k];
                r.useArena(m_arenas[m_first + std::size_t(task)].get());
                // The last piece of the file parses the text after its last '\n' too.
                r.m_reachesEnd = text.reachesEnd;
                r.parseLines(text.begin, text.end, text.reachesEnd);
                r.switchKind(KindOther);
            }
        }

    private:
        int m_fd;
        std::vector<std::unique_ptr<ObjLineReader>>& m_pieces;
        std::vector<std::unique_ptr<BlockArena>>& m_arenas;
        std::size_t m_first = 0;
        std::atomic<std::size_t> m_next{0};
    };
    Job job(fd, pieces, m_arenas);
    qyUtil::ThreadPool::get().run(job);

    // The pieces up to the one that stopped the reading or reached the end of the file
    // count. Their result equals the
    // whole-text parse unless a decimal comma was switched on (the first comment of the file
    // decides it), a later piece met a relative index, or the corner count overflows.
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
        timeV += piece.timeV;
        timeN += piece.timeN;
        timeT += piece.timeT;
        if (piece.m_sawMtllib)
            mtllib = piece.mtllib;
        if (!m_wantMaterials)
            continue;
        materialMap.clear();
        for (const std::string& name : piece.materialNames)
        {
            const auto it = std::find(materialNames.begin(), materialNames.end(), name);
            materialMap.push_back(int(it - materialNames.begin()));
            if (it == materialNames.end())
                materialNames.push_back(name);
        }
        const int inherited = m_currentMaterial;
        auto global = [&](int m) {
            return m == InheritedMaterial ? inherited : m < 0 ? m : materialMap[std::size_t(m)];
        };
        piece.m_faceMaterial.transform(global);
        m_currentMaterial = global(piece.m_currentMaterial);
    }
    pieces.resize(used);
    m_pieces = std::move(pieces);
    return true;
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

bool ObjLineReader::readMemory(const char* data, unsigned int length)
{
    if (!data || length == 0)
        return false;
    const char* p = data;
    const char* const end = data + length;
    while (p < end)
    {
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
        if (!nl)
            break; // a last piece without '\n' is not a line
        parseLine(p, nl);
        p = nl + 1;
    }
    switchKind(KindOther);
    return true;
}

void ObjLineReader::switchKind(LineKind kind)
{
    if (kind == m_kind)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (m_kind != KindOther)
    {
        const double s = std::chrono::duration<double>(now - m_kindStart).count();
        (m_kind == KindV ? timeV : m_kind == KindN ? timeN : timeT) += s;
    }
    m_kind = kind;
    m_kindStart = now;
}

const char* ObjLineReader::readNumber(const char* p, const char* end, float& out)
{
    const char* stop;
    if (!m_commaDecimal)
    {
        out = float(objText::parseDouble(p, end, &stop));
        return stop;
    }
    while (p < end && objText::isSpace(*p))
        ++p;
    char buf[310];
    std::size_t n = 0;
    while (p + n < end && n < 309 && !objText::isSpace(p[n]))
    {
        buf[n] = p[n] == ',' ? '.' : p[n];
        ++n;
    }
    out = float(objText::parseDouble(buf, buf + n, &stop));
    return p + (stop - buf);
}

void ObjLineReader::parseLine(const char* p, const char* end)
{
    if (m_firstLine)
    {
        // A UTF-8 byte-order mark before the first line is no part of it.
        m_firstLine = false;
        p = objText::skipByteOrderMark(p, end);
    }
    while (p < end && isBlank(*p))
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
        float x[3];
        if (p[1] == ' ')
        {
            switchKind(KindV);
            const char* q = p + 2;
            for (float& xi : x)
                q = readNumber(q, end, xi);
            for (const float xi : x)
                m_positions.push_back(xi);
            return;
        }
        if (end - p >= 3 && p[2] == ' ' && p[1] == 'n')
        {
            if (!m_keepAttributes)
                return;
            switchKind(KindN);
            ++m_numNormals;
            return;
        }
        if (end - p >= 3 && p[2] == ' ' && p[1] == 't')
        {
            if (!m_keepAttributes)
                return;
            switchKind(KindT);
            const char* q = p + 3;
            for (int k = 0; k < 2; ++k)
                q = readNumber(q, end, x[k]);
            m_texCoords.push_back(x[0]);
            m_texCoords.push_back(x[1]);
            return;
        }
    }
    switchKind(KindOther);
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
        mtllib.assign(b, e);
        m_sawMtllib = true;
    }
}

void ObjLineReader::useMaterial(const char* p, const char* end)
{
    while (p < end && objText::isSpace(*p))
        ++p;
    while (end > p && objText::isSpace(end[-1]))
        --end;
    const std::string name(p, end);
    const auto it = std::find(materialNames.begin(), materialNames.end(), name);
    if (it != materialNames.end())
    {
        m_currentMaterial = int(it - materialNames.begin());
        return;
    }
    m_currentMaterial = int(materialNames.size());
    materialNames.push_back(name);
}

namespace
{

bool isFaceBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r';
}

/// The common index: an optional '-' and one to nine digits not followed by another digit.
/// Advances q past it; false (q unchanged) for anything else.
inline bool readShortIndex(const char*& q, const char* end, int& value)
{
    const char* r = q;
    const bool negative = r < end && *r == '-';
    r += negative;
    const char* const digits = r;
    unsigned v = 0;
    while (r < end && r - digits < 9 && objText::isDigit(*r))
        v = v * 10 + unsigned(*r++ - '0');
    if (r == digits || (r < end && objText::isDigit(*r)))
        return false;
    value = negative ? -int(v) : int(v);
    q = r;
    return true;
}

} // namespace

void ObjLineReader::parseFace(const char* p, const char* end)
{
    m_scratch.clear();
    // One pair for the whole line: a texture index that a corner does not give keeps the
    // value of the previous corner. (Normal indices are not kept: no result uses them.)
    int pos = -1, tex = -1;
    const int nPos = numPositions(), nTex = numTexCoords();
    for (;;)
    {
        while (p < end && isFaceBlank(*p))
            ++p;
        if (p == end)
            break;
        // The usual corner ("12", "12/7", "12/7/3", "12//3") in one pass; anything else
        // takes the general path below, which reads as atoi does.
        const char* q = p;
        int rawPos = 0, rawTex = 0;
        bool fast = readShortIndex(q, end, rawPos);
        bool hasTex = false;
        if (fast && m_keepAttributes && q < end && !isFaceBlank(*q))
        {
            if (*q != '/')
                fast = false;
            else if (++q < end && *q != '/' && !isFaceBlank(*q))
            {
                fast = readShortIndex(q, end, rawTex) && (q == end || isFaceBlank(*q) || *q == '/');
                hasTex = true;
            }
        }
        if (fast)
        {
            while (q < end && !isFaceBlank(*q))
                ++q;
        }
        else
        {
            // One pass finds the end of the token and its first two slashes.
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
            rawPos = readIndex(p, q);
            const char* texEnd = slash2 ? slash2 : q;
            hasTex = slash && texEnd > slash + 1;
            if (hasTex)
                rawTex = readIndex(slash + 1, texEnd);
        }
        m_sawRelativeIndex |= m_laterPiece && rawPos < 0;
        pos = resolveIndex(rawPos, nPos);
        // Texture indices matter only to the reads that keep them.
        if (hasTex && m_keepAttributes)
        {
            m_sawRelativeIndex |= m_laterPiece && rawTex < 0;
            tex = resolveIndex(rawTex, nTex);
        }
        m_scratch.push_back(pos);
        m_scratch.push_back(tex);
        p = q;
    }
    const int n = int(m_scratch.size() / 2);
    if (n < 3 || m_cornerPos.size() + std::size_t(n) > std::size_t(0x7fffffff))
        return;
    for (int k = 0; k < n; ++k)
    {
        m_cornerPos.push_back(m_scratch[2 * std::size_t(k)]);
        if (m_keepAttributes)
            m_cornerTex.push_back(m_scratch[2 * std::size_t(k) + 1]);
    }
    if (m_allTriangles && n != 3)
    {
        // The first face that is not a triangle: from now on every face's size is kept.
        for (std::size_t f = 0; f < m_numFaces; ++f)
            m_faceSizes.push_back(3);
        m_allTriangles = false;
    }
    if (!m_allTriangles)
        m_faceSizes.push_back(n);
    ++m_numFaces;
    if (m_wantMaterials)
        m_faceMaterial.push_back(m_currentMaterial);
}

ObjLineReader::FaceCheck ObjLineReader::checkFace(const int* corners, int n, int numPositions)
{
    for (int c = 0; c < n; ++c)
        if (corners[c] < 1 || corners[c] > numPositions)
            return FaceOutOfRange;
    if (n == 3)
    {
        const int a = corners[0], b = corners[1], c = corners[2];
        if (a == b || a == c || b == c)
            return FaceDegenerate;
    }
    return FaceValid;
}

/// What validation found in one part of a read: which faces stay, the degenerate
/// triangles to print (in order) and the counts.
struct ObjLineReader::PartCheck
{
    std::vector<unsigned char> keep;
    std::vector<int> degenerate; ///< corner triples to print
    std::size_t keptFaces = 0, keptCorners = 0, setAside = 0;

    /// Where each part's data go in the joined arrays: entry k is where part k starts, the
    /// last entry the total. Positions and texture coordinates count floats.
    struct Offsets
    {
        std::vector<std::size_t> pos, tex, face, corner;
    };
    static Offsets offsets(const std::vector<const ObjLineReader*>& all,
                           const std::vector<PartCheck>& results)
    {
        const std::size_t n = all.size();
        Offsets o{std::vector<std::size_t>(n + 1, 0), std::vector<std::size_t>(n + 1, 0),
                  std::vector<std::size_t>(n + 1, 0), std::vector<std::size_t>(n + 1, 0)};
        for (std::size_t k = 0; k < n; ++k)
        {
            o.pos[k + 1] = o.pos[k] + all[k]->m_positions.size();
            o.tex[k + 1] = o.tex[k] + all[k]->m_texCoords.size();
            o.face[k + 1] = o.face[k] + results[k].keptFaces;
            o.corner[k + 1] = o.corner[k] + results[k].keptCorners;
        }
        return o;
    }
};

std::vector<ObjLineReader::PartCheck>
ObjLineReader::validateParts(const std::vector<const ObjLineReader*>& all)
{
    // Parts are checked in parallel; the degenerate triangles are printed afterwards, in file
    // order, and set aside with the faces that name a position out of range.
    const int nPos = numPositions();
    std::vector<PartCheck> results(all.size());
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(all.size()),
        [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
        {
            std::vector<int> face;
            for (int k = begin; k < end; ++k)
            {
                const ObjLineReader& part = *all[std::size_t(k)];
                PartCheck& res = results[std::size_t(k)];
                res.keep.resize(part.m_numFaces);
                for (std::size_t f = 0, c = 0; f < part.m_numFaces; ++f)
                {
                    const int n = part.parsedFaceSize(f);
                    face.resize(std::size_t(n));
                    for (int i = 0; i < n; ++i)
                        face[std::size_t(i)] = part.m_cornerPos[c + std::size_t(i)];
                    c += std::size_t(n);
                    const FaceCheck check = checkFace(face.data(), n, nPos);
                    res.keep[f] = check == FaceValid;
                    if (check == FaceValid)
                    {
                        ++res.keptFaces;
                        res.keptCorners += std::size_t(n);
                        continue;
                    }
                    ++res.setAside;
                    if (check == FaceDegenerate)
                        res.degenerate.insert(res.degenerate.end(), face.begin(), face.end());
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

bool ObjLineReader::buildPlainMesh(CompactMesh& mesh)
{
    const std::vector<const ObjLineReader*> all = parts();
    const std::size_t numParts = all.size();
    const int nPos = numPositions();
    const std::vector<PartCheck> results = validateParts(all);
    std::size_t keptFaces = 0, keptCorners = 0;
    for (const PartCheck& res : results)
    {
        keptFaces += res.keptFaces;
        keptCorners += res.keptCorners;
    }
    if (nPos == 0 || keptFaces == 0)
        return false;
    CompactMesh built;
    built.resizeVertexArray(nPos);
    const bool triangles = keptCorners == 3 * keptFaces;
    int* out;
    int* lengths = nullptr;
    if (triangles)
    {
        built.resizeTriangleArray(int(keptFaces));
        out = built.getTrianglesRaw();
    }
    else
    {
        built.resizePolyArrays(int(keptFaces), int(keptCorners));
        out = built.getPolyPoints();
        lengths = built.getPolyLengths();
    }
    float* const xyz = built.getVerticesRaw();
    const PartCheck::Offsets at = PartCheck::offsets(all, results);
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(numParts),
        [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
        {
            for (int k = begin; k < end; ++k)
            {
                const ObjLineReader& part = *all[std::size_t(k)];
                const PartCheck& res = results[std::size_t(k)];
                part.m_positions.copyTo(xyz + at.pos[std::size_t(k)]);
                int* o = out + at.corner[std::size_t(k)];
                int* len = lengths ? lengths + at.face[std::size_t(k)] : nullptr;
                for (std::size_t f = 0, c = 0; f < part.m_numFaces; ++f)
                {
                    const int n = part.parsedFaceSize(f);
                    if (res.keep[f])
                    {
                        for (int i = 0; i < n; ++i)
                            *o++ = part.m_cornerPos[c + std::size_t(i)] - 1;
                        if (len)
                            *len++ = n;
                    }
                    c += std::size_t(n);
                }
            }
        },
        nullptr, 1);
    mesh = std::move(built);
    return true;
}

bool ObjLineReader::finish()
{
    const std::vector<const ObjLineReader*> all = parts();
    const std::size_t numParts = all.size();
    const int nTex = numTexCoords(), nNrm = numNormals();
    const std::vector<PartCheck> results = validateParts(all);

    const PartCheck::Offsets at = PartCheck::offsets(all, results);
    const std::size_t kept = at.face[numParts], corners = at.corner[numParts];
    auto allocate = [](auto& v, std::size_t n)
    {
        v.clear();
        objText::reserveHuge(v, n);
        v.resize(n);
    };
    allocate(positions, at.pos[numParts]);
    allocate(texCoords, at.tex[numParts]);
    allocate(faceStart, kept + 1);
    allocate(cornerPos, corners);
    allocate(cornerTex, m_keepAttributes ? corners : 0);
    allocate(faceMaterial, m_wantMaterials ? kept : 0);
    faceStart[kept] = int(corners);

    // The kept faces, 0-based, with texture indices out of range made absent; every part
    // writes its own range.
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(numParts),
        [&](qyUtil::ThreadedChunkAlg&, int, int begin, int end)
        {
            for (int k = begin; k < end; ++k)
            {
                const ObjLineReader& part = *all[std::size_t(k)];
                const PartCheck& res = results[std::size_t(k)];
                part.m_positions.copyTo(positions.data() + at.pos[std::size_t(k)]);
                part.m_texCoords.copyTo(texCoords.data() + at.tex[std::size_t(k)]);
                std::size_t out = at.corner[std::size_t(k)];
                std::size_t face = at.face[std::size_t(k)];
                for (std::size_t f = 0, c = 0; f < part.m_numFaces; ++f)
                {
                    const int n = part.parsedFaceSize(f);
                    if (res.keep[f])
                    {
                        faceStart[face] = int(out);
                        if (m_wantMaterials)
                            faceMaterial[face] = part.m_faceMaterial[f];
                        ++face;
                        for (int i = 0; i < n; ++i, ++out)
                        {
                            cornerPos[out] = part.m_cornerPos[c + std::size_t(i)] - 1;
                            if (!m_keepAttributes)
                                continue;
                            const int t = part.m_cornerTex[c + std::size_t(i)];
                            cornerTex[out] = t >= 1 && t <= nTex ? t - 1 : -1;
                        }
                    }
                    c += std::size_t(n);
                }
            }
        },
        nullptr, 1);
    // The parsed blocks are no longer needed.
    m_finished = true;
    m_numNormals = std::size_t(nNrm);
    m_pieces.clear();
    for (auto* seq : {&m_positions, &m_texCoords})
        seq->clear();
    for (auto* seq : {&m_faceSizes, &m_cornerPos, &m_cornerTex, &m_faceMaterial})
        seq->clear();
    m_arenas.clear();

    if (!m_allowNonManifold)
    {
        // Each undirected edge may be used by two faces at most, each directed edge once.
        std::unordered_map<unsigned long long, int> undirected;
        std::unordered_set<unsigned long long> directed;
        auto key = [](int a, int b)
        { return (static_cast<unsigned long long>(unsigned(a)) << 32) | unsigned(b); };
        for (std::size_t f = 0; f < kept; ++f)
        {
            const int b = faceStart[f], e = faceStart[f + 1];
            for (int c = b; c < e; ++c)
            {
                const int v0 = cornerPos[std::size_t(c)];
                const int v1 = cornerPos[std::size_t(c + 1 < e ? c + 1 : b)];
                if (++undirected[key(std::min(v0, v1), std::max(v0, v1))] > 2)
                    return false;
                if (!directed.insert(key(v0, v1)).second)
                    return false;
            }
        }
    }
    return true;
}

} // namespace qyGeom
