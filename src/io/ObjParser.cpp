// meshReadObj2: the strict, token-driven OBJ parser. One grammar reads the statements; what
// it reads goes to a builder. A FileBuilder carries the statements into the caller's
// MeshObjFile as they come. A large file is first read in pieces on the thread pool, each
// piece by the same grammar into a PieceBuilder that keeps what depends on the text before
// the piece (negative indices, materials, groups) for the join, which runs the pieces through
// a FileBuilder in file order. Any doubt (an error in a piece, an index or a material that
// the text before the piece does not provide) undoes the join and reads the whole text again
// on the calling thread, which reports the first error exactly as a serial read does.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "base/Filename.h"
#include "base/ThreadPool.h"
#include "io/detail/Scanner.h"
#include "io/detail/TextSource.h"
#include "io/detail/text.h"
#include "qyGeom/meshReadObj.h"

namespace qyGeom
{

namespace
{

using detail::Token;

enum ObjKeyword
{
    KwV,
    KwVt,
    KwVn,
    KwF,
    KwMtllib,
    KwUsemtl,
    KwO,
    KwG,
    KwS,
    KwOff
};

constexpr std::string_view objKeywords[] = {"v",      "vt", "vn", "f", "mtllib",
                                            "usemtl", "o",  "g",  "s", "off"};

bool isObjNameStart(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '.' || c == '/' ||
           c == '\\' || c == '~' || c >= 0x80;
}

const detail::Lexicon objLexicon{objKeywords, int(std::size(objKeywords)), &isObjNameStart, true};

/// The three lists a corner indexes.
enum Element
{
    Vertex,
    TexCoord,
    Normal
};

enum class IndexCheck
{
    Ok,
    Zero,
    Negative, ///< counts back past the first element
    Positive  ///< beyond the last element
};

enum class MaterialCheck
{
    Ok,
    NotFound,
    AfterFaces ///< the group already has faces
};

/// The statements of a text, estimated to reserve the lists of a large file: growing them
/// would copy them and fault their memory in again at every step.
struct SizeEstimate
{
    std::size_t vertices = 0, texCoords = 0, normals = 0, faces = 0, corners = 0;
};

/// Counts the lines of each kind of statement (and the corners of the faces) in 64 windows of
/// 2 KiB spread over the text, and scales them to the whole text with an eighth to spare. A
/// text under 512 KiB gets no estimate. Only an estimate: a list that outgrows it grows as
/// usual.
SizeEstimate estimateSizes(const char* p, const char* end)
{
    constexpr std::size_t numWindows = 64, windowBytes = 2048;
    const std::size_t size = std::size_t(end - p);
    SizeEstimate e;
    if (size < 4 * numWindows * windowBytes)
        return e;
    std::size_t sampled = 0;
    for (std::size_t k = 0; k < numWindows; ++k)
    {
        const char* w = p + k * (size - windowBytes) / (numWindows - 1);
        const char* const windowEnd = w + windowBytes;
        // The whole lines of the window.
        const char* line = w;
        if (k > 0)
        {
            const void* nl = std::memchr(w, '\n', windowBytes);
            if (!nl)
                continue;
            line = static_cast<const char*>(nl) + 1;
        }
        for (;;)
        {
            const void* next = std::memchr(line, '\n', std::size_t(windowEnd - line));
            if (!next)
                break;
            const char* lineEnd = static_cast<const char*>(next);
            sampled += std::size_t(lineEnd - line) + 1;
            const std::size_t n = std::size_t(lineEnd - line);
            if (n >= 2 && line[0] == 'v' && line[1] == ' ')
                ++e.vertices;
            else if (n >= 3 && line[0] == 'v' && line[1] == 't' && line[2] == ' ')
                ++e.texCoords;
            else if (n >= 3 && line[0] == 'v' && line[1] == 'n' && line[2] == ' ')
                ++e.normals;
            else if (n >= 2 && line[0] == 'f' && line[1] == ' ')
            {
                ++e.faces;
                for (const char* c = line + 1; c + 1 < lineEnd; ++c)
                    e.corners += detail::isBlank(c[0]) && !detail::isSpace(c[1]);
            }
            line = lineEnd + 1;
        }
    }
    if (sampled == 0)
        return {};
    auto scale = [&](std::size_t count)
    { return std::size_t(double(count) * 1.125 * double(size) / double(sampled)); };
    e.vertices = scale(e.vertices);
    e.texCoords = scale(e.texCoords);
    e.normals = scale(e.normals);
    e.faces = scale(e.faces);
    e.corners = scale(e.corners);
    return e;
}

/// Carries the statements into a MeshObjFile as a serial read does: indices resolved against
/// the elements read so far, materials looked up and groups closed as the statements come.
class FileBuilder
{
public:
    FileBuilder(MeshObjFile& file, std::string directory)
        : m_file(file), m_directory(std::move(directory)),
          m_group(qy::makeReference<MeshObjGroup>("default"))
    {
    }

    /// Makes room in the open group for that many faces and corners.
    void reserveFaces(std::size_t faces, std::size_t corners)
    {
        m_group->reserve(int(std::min<std::size_t>(faces, INT_MAX)),
                         int(std::min<std::size_t>(corners, INT_MAX)));
        qy::adviseHugePages(m_group->getCorners());
    }

    /// Makes room for the estimated statements of a text (see estimateSizes).
    void reserve(const SizeEstimate& e)
    {
        auto grow = [](auto& list, std::size_t n)
        {
            list.reserve(list.size() + n);
            qy::adviseHugePages(list);
        };
        grow(m_file.vertices, e.vertices);
        grow(m_file.texCoords, e.texCoords);
        grow(m_file.normals, e.normals);
        reserveFaces(e.faces, e.corners);
    }

    void vertex(const qyLinear::PointFlt& v) { m_file.vertices.push_back(v); }
    void texCoord(const qyLinear::Point2Flt& vt) { m_file.texCoords.push_back(vt); }
    void normal(const qyLinear::VectorFlt& vn) { m_file.normals.push_back(vn); }

    std::size_t count(Element e) const
    {
        return e == Vertex     ? m_file.vertices.size()
               : e == TexCoord ? m_file.texCoords.size()
                               : m_file.normals.size();
    }

    /// Index i of a corner (1-based, or negative counting back) as a 0-based one.
    IndexCheck resolve(int i, Element e, int& out) const
    {
        const long long n = static_cast<long long>(count(e));
        if (i == 0)
            return IndexCheck::Zero;
        if (i < 0)
        {
            const long long r = i + n;
            if (r < 0)
                return IndexCheck::Negative;
            out = int(r);
            return IndexCheck::Ok;
        }
        if (i > n)
            return IndexCheck::Positive;
        out = i - 1;
        return IndexCheck::Ok;
    }

    /// The corners of a face, one after the other, then the face; the faces of a piece
    /// come whole.
    void corner(const MeshObjCorner& c) { m_corners.push_back(c); }
    void endFace()
    {
        face(m_corners.data(), int(m_corners.size()));
        m_corners.clear();
    }
    void face(const MeshObjCorner* corners, int n)
    {
        (n == 3 ? m_file.numTriangles : n == 4 ? m_file.numQuads : m_file.numPolygons)++;
        m_group->addFace(n, corners);
    }

    MaterialCheck usemtl(std::string_view name)
    {
        const auto it = m_file.materials.find(std::string(name));
        if (it == m_file.materials.end())
            return MaterialCheck::NotFound;
        if (m_group->getNumFaces() > 0)
            return MaterialCheck::AfterFaces;
        m_group->setMaterial(it->second);
        return MaterialCheck::Ok;
    }

    /// Reads the library beside the OBJ file; throws its error.
    void mtllib(std::string_view name)
    {
        qy::vector<qy::Reference<MeshObjMaterial>> materials;
        const qyOS::Filename path = qyOS::Filename::join(m_directory, std::string(name));
        if (qyUtil::Error e = meshReadObjMaterial(path.str(), materials))
            throw e;
        for (auto& m : materials)
            m_file.materials[m->getName()] = m;
    }

    /// A `g` after faces closes the group and opens one with its material.
    void group()
    {
        if (m_group->getNumFaces() > 0)
        {
            m_file.groups.push_back(m_group);
            qy::Reference<MeshObjGroup> next = qy::makeReference<MeshObjGroup>("default");
            next->setMaterial(m_group->getMaterial());
            m_group = next;
        }
    }
    /// The names of a `g` rename the open group.
    void groupName(const std::string& name) { m_group->setName(name); }

    void end()
    {
        if (m_group->getNumFaces() > 0)
            m_file.groups.push_back(m_group);
    }

    MeshObjFile& file() { return m_file; }

private:
    MeshObjFile& m_file;
    std::string m_directory;
    qy::Reference<MeshObjGroup> m_group;
    std::vector<MeshObjCorner> m_corners; ///< of the face being read
};

/// A `g`, `usemtl` or `mtllib` statement of a piece, met before its face number `face`
/// (a `g` without names has none).
struct Event
{
    enum Kind
    {
        Group,
        Usemtl,
        Mtllib
    };
    Kind kind;
    std::size_t face;
    std::string name;
};

/// What one piece of a file holds. Corner indices are final (0-based) except the negative
/// ones, which count from the piece's first element and are listed in `fix`; need[e] is how
/// many elements of list e must come before the piece for all its indices to be valid.
struct Piece
{
    bool ok = false;
    std::vector<qyLinear::PointFlt> vertices;
    std::vector<qyLinear::Point2Flt> texCoords;
    std::vector<qyLinear::VectorFlt> normals;
    std::vector<MeshObjCorner> corners;
    std::vector<int> faceSizes;
    std::vector<Event> events;
    std::vector<std::size_t> fix[3]; ///< per list, the corners to shift
    long long need[3] = {0, 0, 0};
    int numTriangles = 0, numQuads = 0, numPolygons = 0;
};

/// Keeps the statements of one piece for the join.
class PieceBuilder
{
public:
    PieceBuilder(Piece& piece, std::size_t bytes) : m_out(piece)
    {
        // Generous reservations: untouched capacity costs address space, not memory. The
        // large ones take huge pages, a few page faults instead of one per 4 KiB.
        detail::reserveHuge(m_out.vertices, bytes / 24 + 16);
        detail::reserveHuge(m_out.texCoords, bytes / 24 + 16);
        detail::reserveHuge(m_out.normals, bytes / 24 + 16);
        detail::reserveHuge(m_out.corners, bytes / 6 + 16);
        detail::reserveHuge(m_out.faceSizes, bytes / 16 + 16);
    }

    void vertex(const qyLinear::PointFlt& v) { m_out.vertices.push_back(v); }
    void texCoord(const qyLinear::Point2Flt& vt) { m_out.texCoords.push_back(vt); }
    void normal(const qyLinear::VectorFlt& vn) { m_out.normals.push_back(vn); }

    IndexCheck resolve(int i, Element e, int& out)
    {
        const std::size_t count = e == Vertex     ? m_out.vertices.size()
                                  : e == TexCoord ? m_out.texCoords.size()
                                                  : m_out.normals.size();
        const long long n = static_cast<long long>(count);
        if (i == 0)
            return IndexCheck::Zero;
        if (i > 0)
        {
            m_out.need[e] = std::max(m_out.need[e], i - n);
            out = i - 1;
            return IndexCheck::Ok;
        }
        const long long r = i + n;
        m_out.need[e] = std::max(m_out.need[e], -r);
        out = int(r); // r >= INT_MIN: i is an int and n is not negative
        m_out.fix[e].push_back(m_out.corners.size()); // the corner being read

        return IndexCheck::Ok;
    }

    void corner(const MeshObjCorner& c) { m_out.corners.push_back(c); }
    void endFace()
    {
        const int n = int(m_out.corners.size() - m_faceStart);
        m_faceStart = m_out.corners.size();
        m_out.faceSizes.push_back(n);
        (n == 3 ? m_out.numTriangles : n == 4 ? m_out.numQuads : m_out.numPolygons)++;
    }

    MaterialCheck usemtl(std::string_view name)
    {
        event(Event::Usemtl, std::string(name));
        return MaterialCheck::Ok;
    }
    void mtllib(std::string_view name) { event(Event::Mtllib, std::string(name)); }
    void group() { event(Event::Group, {}); }
    void groupName(const std::string& name) { m_out.events.back().name = name; }
    void end() {}

private:
    void event(Event::Kind kind, std::string name)
    {
        m_out.events.push_back({kind, m_out.faceSizes.size(), std::move(name)});
    }

    Piece& m_out;
    std::size_t m_faceStart = 0; ///< the first corner of the face being read
};

/// The statements of OBJ text, handed to a builder. Errors (thrown as qyUtil::Error) name
/// the line of the offending token. Tokens are scanned in batches: a batch ends after the
/// line end at which it holds 512 tokens, and the next one is scanned when fewer than two
/// tokens are left, so a character that no rule accepts stops the read before the
/// statements of its batch.
template <class Builder> class ObjGrammar
{
public:
    ObjGrammar(const char* p, const char* end, Builder& out)
        : m_scanner(objLexicon, p, end), m_out(out)
    {
    }

    void parse()
    {
        for (;;)
        {
            const Token& t = take();
            const int line = t.line;
            switch (t.kind)
            {
            case KwV:
                m_out.vertex(point3<qyLinear::PointFlt>());
                break;
            case KwVt:
            {
                qyLinear::Point2Flt vt;
                vt.x = number();
                vt.y = number();
                m_out.texCoord(vt);
                break;
            }
            case KwVn:
                m_out.normal(point3<qyLinear::VectorFlt>());
                break;
            case KwF:
                face();
                break;
            case KwMtllib:
                m_out.mtllib(name("expecting name"));
                break;
            case KwUsemtl:
                usemtl();
                break;
            case KwO:
                name("expecting object name");
                break;
            case KwS:
                if (peek().kind != detail::TokInteger && peek().kind != KwOff)
                    fail("expecting smooth group number or 'off'");
                take();
                break;
            case KwG:
            {
                // The group is closed before its names are read: an error on the way leaves
                // it in the file.
                m_out.group();
                std::string name;
                while (peek().kind == detail::TokName)
                {
                    if (!name.empty())
                        name += ' ';
                    name += take().text();
                }
                if (!name.empty())
                    m_out.groupName(name);
                break;
            }
            case detail::TokNewline:
                break;
            case detail::TokEof:
                m_out.end();
                return;
            default:
                m_errorLine = line;
                fail("expected OBJ statement or end of file");
            }
        }
    }

private:
    const Token& peek()
    {
        if (m_tokens.size() - m_pos < 2 && !m_scanner.finished())
        {
            m_tokens.erase(m_tokens.begin(), m_tokens.begin() + std::ptrdiff_t(m_pos));
            m_pos = 0;
            if (!m_scanner.fill(m_tokens, 512))
                throw qyUtil::Error(1, "Unrecognized input on line %d", m_scanner.line());
        }
        return m_tokens[m_pos];
    }

    /// The next token, taken; valid until the next peek.
    const Token& take()
    {
        const Token& t = peek();
        ++m_pos;
        return t;
    }

    [[noreturn]] void fail(const std::string& what)
    {
        const int line = m_errorLine >= 0 ? m_errorLine : peek().line;
        throw qyUtil::Error(2, "Parse failed on line %d: %s\n", line, what.c_str());
    }

    float number()
    {
        const Token& t = peek();
        if (t.kind != detail::TokInteger && t.kind != detail::TokReal)
            fail("expecting number");
        const float v = float(t.numValue);
        ++m_pos;
        return v;
    }

    /// The name that must come next, taken; `what` is the error otherwise.
    std::string_view name(const char* what)
    {
        if (peek().kind != detail::TokName)
            fail(what);
        return take().text();
    }

    template <class T> T point3()
    {
        T p;
        p.x = number();
        p.y = number();
        p.z = number();
        return p;
    }

    /// Index i of list e for the corner being read; the error is reported at the token after
    /// the index.
    int index(int i, Element e)
    {
        static const char* const zero[] = {"invalid zero vertex index",
                                           "invalid zero tex coord index",
                                           "invalid zero normal index"};
        static const char* const negative[] = {"invalid negative vertex index",
                                               "invalid negative tex coord index",
                                               "invalid negative normal index"};
        // Texture and normal indices beyond their lists share the vertex wording.
        static const char* const positive[] = {"invalid vertex index",
                                               "invalid positive vertex index",
                                               "invalid positive vertex index"};
        int out = -1;
        switch (m_out.resolve(i, e, out))
        {
        case IndexCheck::Ok:
            return out;
        case IndexCheck::Zero:
            fail(zero[e]);
        case IndexCheck::Negative:
            fail(negative[e]);
        default:
            fail(positive[e]);
        }
    }

    void face()
    {
        int n = 0;
        for (;; ++n)
        {
            const Token& t = peek();
            MeshObjCorner c;
            if (t.kind == detail::TokInteger)
            {
                const int i = t.intValue;
                ++m_pos;
                c.vertex = index(i, Vertex);
            }
            else if (t.kind == detail::TokCorner)
            {
                // The parts in the order of their tokens; errors are reported on the line of
                // the corner.
                if (!(t.corner.present & 1))
                    fail("expecting vertex index");
                c.vertex = index(t.intValue, Vertex);
                if (t.corner.slashes >= 1 && (t.corner.present & 2))
                    c.texCoord = index(t.corner.index[0], TexCoord);
                if (t.corner.slashes >= 2 && (t.corner.present & 4))
                    c.normal = index(t.corner.index[1], Normal);
                if (t.corner.slashes > 2)
                    fail("expecting vertex/texCoord/normal indices");
                ++m_pos;
            }
            else
            {
                break;
            }
            m_out.corner(c);
        }
        if (n < 3)
            fail("face has fewer than 3 vertex references");
        m_out.endFace();
    }

    void usemtl()
    {
        if (peek().kind != detail::TokName)
            fail("expecting name");
        const std::string_view name = peek().text();
        const MaterialCheck check = m_out.usemtl(name);
        if (check == MaterialCheck::NotFound)
            fail("material not found: " + std::string(name));
        if (check == MaterialCheck::AfterFaces)
            fail("usemtl statement after face statements in group");
        take();
    }

    detail::Scanner m_scanner;
    Builder& m_out;
    std::vector<Token> m_tokens;
    std::size_t m_pos = 0;
    int m_errorLine = -1;
};

/// Cut size of the pieces of a file of `size` bytes: some 32 pieces, between 64 KiB and
/// 2 MiB each.
std::size_t pieceBytes(std::size_t size)
{
    return std::clamp(size / 32, std::size_t(64) << 10, std::size_t(2) << 20);
}

/// The caller's file as it was before a join, to undo it.
struct Snapshot
{
    explicit Snapshot(const MeshObjFile& f)
        : vertices(f.vertices.size()), texCoords(f.texCoords.size()), normals(f.normals.size()),
          groups(f.groups.size()), numTriangles(f.numTriangles), numQuads(f.numQuads),
          numPolygons(f.numPolygons), materials(f.materials)
    {
    }
    void restore(MeshObjFile& f) const
    {
        f.vertices.resize(vertices);
        f.texCoords.resize(texCoords);
        f.normals.resize(normals);
        f.groups.resize(groups);
        f.numTriangles = numTriangles;
        f.numQuads = numQuads;
        f.numPolygons = numPolygons;
        f.materials = materials;
    }
    std::size_t vertices, texCoords, normals, groups;
    int numTriangles, numQuads, numPolygons;
    decltype(MeshObjFile::materials) materials;
};

/// Carries the pieces through `out` in file order; false when a piece's indices need
/// elements the text before it does not have, a material statement fails or a count would
/// leave the int range (what was carried then stays in the file).
bool joinPieces(std::vector<Piece>& pieces, FileBuilder& out)
{
    MeshObjFile& file = out.file();
    std::size_t total[3] = {file.vertices.size(), file.texCoords.size(), file.normals.size()};
    std::size_t faces = 0, corners = 0;
    long long triangles = file.numTriangles, quads = file.numQuads, polygons = file.numPolygons;
    bool anyGroup = false;
    for (const Piece& piece : pieces)
    {
        const std::size_t sizes[3] = {piece.vertices.size(), piece.texCoords.size(),
                                      piece.normals.size()};
        for (int e = 0; e < 3; ++e)
        {
            if (piece.need[e] > static_cast<long long>(total[e]))
                return false;
            total[e] += sizes[e];
        }
        faces += piece.faceSizes.size();
        corners += piece.corners.size();
        triangles += piece.numTriangles;
        quads += piece.numQuads;
        polygons += piece.numPolygons;
        for (const Event& e : piece.events)
            anyGroup |= e.kind == Event::Group;
    }
    if (std::max({total[0], total[1], total[2], faces}) > INT_MAX ||
        std::max({triangles, quads, polygons}) > INT_MAX)
        return false;

    file.vertices.reserve(total[Vertex]);
    file.texCoords.reserve(total[TexCoord]);
    file.normals.reserve(total[Normal]);
    qy::adviseHugePages(file.vertices);
    qy::adviseHugePages(file.texCoords);
    qy::adviseHugePages(file.normals);
    if (!anyGroup)
        out.reserveFaces(faces, corners);
    for (Piece& piece : pieces)
    {
        // Negative indices counted back into earlier pieces: shift them by the elements
        // that precede their piece.
        const int base[3] = {int(file.vertices.size()), int(file.texCoords.size()),
                             int(file.normals.size())};
        for (std::size_t c : piece.fix[Vertex])
            piece.corners[c].vertex += base[Vertex];
        for (std::size_t c : piece.fix[TexCoord])
            piece.corners[c].texCoord += base[TexCoord];
        for (std::size_t c : piece.fix[Normal])
            piece.corners[c].normal += base[Normal];
        file.vertices.insert(file.vertices.end(), piece.vertices.begin(), piece.vertices.end());
        file.texCoords.insert(file.texCoords.end(), piece.texCoords.begin(), piece.texCoords.end());
        file.normals.insert(file.normals.end(), piece.normals.begin(), piece.normals.end());

        const int* sizes = piece.faceSizes.data();
        const MeshObjCorner* c = piece.corners.data();
        std::size_t f = 0;
        auto addFaces = [&](std::size_t to)
        {
            for (; f < to; ++f)
            {
                out.face(c, sizes[f]);
                c += sizes[f];
            }
        };
        for (const Event& e : piece.events)
        {
            addFaces(e.face);
            if (e.kind == Event::Group)
            {
                out.group();
                if (!e.name.empty())
                    out.groupName(e.name);
            }
            else if (e.kind == Event::Usemtl)
            {
                if (out.usemtl(e.name) != MaterialCheck::Ok)
                    return false;
            }
            else
            {
                try
                {
                    out.mtllib(e.name);
                }
                catch (const qyUtil::Error&)
                {
                    return false;
                }
            }
        }
        addFaces(piece.faceSizes.size());
    }
    out.end();
    return true;
}

/// Reads a regular file of several pieces in parallel into `file`; false, with `file` as it
/// was, when the pieces cannot stand for a serial read of the whole text.
bool readInPieces(const detail::TextSource& source, const std::string& directory, MeshObjFile& file)
{
    if (!source.isRegular() || qyUtil::ThreadPool::get().getNumThreads() < 2)
        return false;
    const std::size_t bytes = pieceBytes(source.size());
    const std::size_t numPieces = (source.size() + bytes - 1) / bytes;
    if (numPieces < 2 || numPieces > INT_MAX)
        return false;
    std::vector<Piece> pieces(numPieces);
    std::atomic<bool> failed{false};
    source.forEachPiece(bytes, numPieces,
                        [&](int, std::size_t k, const detail::TextRange& text)
                        {
                            const char* begin = text.begin;
                            if (k == 0)
                                begin = detail::skipByteOrderMark(begin, text.end);
                            try
                            {
                                PieceBuilder out(pieces[k], std::size_t(text.end - begin));
                                ObjGrammar<PieceBuilder>(begin, text.end, out).parse();
                                pieces[k].ok = true;
                            }
                            catch (const qyUtil::Error&)
                            {
                                failed.store(true, std::memory_order_relaxed);
                            }
                            return !failed.load(std::memory_order_relaxed);
                        });
    if (failed.load())
        return false;
    const Snapshot before(file);
    FileBuilder out(file, directory);
    if (joinPieces(pieces, out))
        return true;
    before.restore(file);
    return false;
}

} // namespace

qyUtil::Error meshReadObj2(const qyString::IString& fileName, qy::Reference<MeshObjFile> file)
{
    if (!file)
        file = qy::makeReference<MeshObjFile>();
    const qyUtil::Error cannotOpen(1, "Cannot open file: %s", fileName.c_str());
    detail::TextSource source;
    if (!source.open(fileName.c_str(), detail::TextSource::Files::RegularOnly))
        return cannotOpen;
    try
    {
        const std::string directory = qyOS::Filename(fileName).getDirectory();
        if (readInPieces(source, directory, *file))
            return {};
        detail::TextSource::Whole text;
        if (!source.readAll(text))
            return cannotOpen;
        const char* begin = detail::skipByteOrderMark(text.begin(), text.end());
        FileBuilder out(*file, directory);
        out.reserve(estimateSizes(begin, text.end()));
        ObjGrammar<FileBuilder>(begin, text.end(), out).parse();
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

} // namespace qyGeom
