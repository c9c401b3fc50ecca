// ObjParser: the strict, token-driven OBJ parser behind meshReadObj2.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "base/Filename.h"
#include "base/ThreadPool.h"
#include "io/objText.h"
#include "qyGeom/meshReadObj.h"

namespace qyGeom
{

namespace
{

enum ObjToken
{
    TokV = 0,
    TokVt = 1,
    TokVn = 2,
    TokF = 3,
    TokCornerBegin = 4,
    TokSlash = 5,
    TokCornerEnd = 6,
    TokMtllib = 7,
    TokUsemtl = 8,
    TokO = 9,
    TokG = 10,
    TokS = 11,
    TokOff = 12,
    TokInteger = 13,
    TokReal = 14,
    TokNewline = 15,
    TokName = 16,
    TokEof = 17,
};

struct Token
{
    int kind = TokEof;
    int line = 0;
    int intValue = 0;      ///< integer tokens (as atoi)
    double numValue = 0;   ///< integer and real tokens (as strtod)
    std::string_view text; ///< names
};

constexpr std::pair<std::string_view, int> keywords[] = {
    {"v", TokV},           {"vt", TokVt}, {"vn", TokVn}, {"f", TokF}, {"mtllib", TokMtllib},
    {"usemtl", TokUsemtl}, {"o", TokO},   {"g", TokG},   {"s", TokS}, {"off", TokOff}};

Token makeToken(int kind, int line)
{
    Token t;
    t.kind = kind;
    t.line = line;
    return t;
}

bool isNameStart(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '.' || c == '/' ||
           c == '\\' || c == '~' || c >= 0x80;
}

bool isWordEnd(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Length of a signed or unsigned number at p ("1", "+2", "-1.5e3", ".5"); isReal tells
/// whether it has a point or an exponent.
std::size_t matchNumber(const char* p, const char* end, bool& isReal)
{
    const char* q = p;
    if (q < end && (*q == '+' || *q == '-'))
        ++q;
    const char* digits = q;
    while (q < end && objText::isDigit(*q))
        ++q;
    const bool intDigits = q > digits;
    bool fraction = false;
    if (q < end && *q == '.')
    {
        const char* f = q + 1;
        while (f < end && objText::isDigit(*f))
            ++f;
        if (intDigits || f > q + 1)
        {
            fraction = true;
            q = f;
        }
    }
    if (!intDigits && !fraction)
        return 0;
    bool exponent = false;
    if (q < end && (*q == 'e' || *q == 'E'))
    {
        const char* e = q + 1;
        if (e < end && (*e == '+' || *e == '-'))
            ++e;
        const char* expDigits = e;
        while (e < end && objText::isDigit(*e))
            ++e;
        if (e > expDigits)
        {
            exponent = true;
            q = e;
        }
    }
    isReal = fraction || exponent;
    return std::size_t(q - p);
}

/// Length of an optionally negative integer at p ("12", "-3"); 0 when none.
std::size_t matchIndex(const char* p, const char* end)
{
    const char* q = p;
    if (q < end && *q == '-')
        ++q;
    const char* digits = q;
    while (q < end && objText::isDigit(*q))
        ++q;
    return q > digits ? std::size_t(q - p) : 0;
}

/// Length of a compound corner at p: [index] ('/' [index])+, with at least one '/'.
std::size_t matchCorner(const char* p, const char* end)
{
    const char* q = p + matchIndex(p, end);
    bool slash = false;
    while (q < end && *q == '/')
    {
        slash = true;
        ++q;
        q += matchIndex(q, end);
    }
    return slash ? std::size_t(q - p) : 0;
}

/// Splits the text into tokens, a batch at a time.
class ObjScanner
{
public:
    ObjScanner(const char* p, const char* end) : m_p(p), m_end(end) {}

    bool finished() const { return m_finished; }

    /// Appends tokens up to the line end at which at least 512 tokens of this batch have
    /// been collected, or through the end-of-file token. Throws on unrecognized input.
    void fill(std::vector<Token>& out)
    {
        std::size_t collected = 0;
        while (!m_finished)
        {
            const int kind = next(out, collected);
            if (kind == TokNewline && collected >= 512)
                return;
        }
    }

private:
    void emit(std::vector<Token>& out, std::size_t& collected, Token t)
    {
        out.push_back(t);
        ++collected;
    }

    int next(std::vector<Token>& out, std::size_t& collected)
    {
        for (;;)
        {
            if (m_p == m_end)
            {
                emit(out, collected, makeToken(TokEof, m_line));
                m_finished = true;
                return TokEof;
            }
            const char c = *m_p;
            if (c == ' ' || c == '\t')
            {
                ++m_p;
                continue;
            }
            if (c == '#')
            {
                while (m_p < m_end && *m_p != '\n')
                    ++m_p;
                if (m_p < m_end)
                {
                    ++m_p;
                    ++m_line;
                }
                continue;
            }
            if (c == '\n' || (c == '\r' && m_end - m_p >= 2 && m_p[1] == '\n'))
            {
                emit(out, collected, makeToken(TokNewline, m_line));
                m_p += c == '\n' ? 1 : 2;
                ++m_line;
                return TokNewline;
            }
            break;
        }
        bool isReal = false;
        const std::size_t numberLength = matchNumber(m_p, m_end, isReal);
        const std::size_t cornerLength = matchCorner(m_p, m_end);
        std::size_t nameLength = 0;
        if (isNameStart(static_cast<unsigned char>(*m_p)))
        {
            const char* q = m_p + 1;
            while (q < m_end && !isWordEnd(*q))
                ++q;
            nameLength = std::size_t(q - m_p);
        }
        if (cornerLength > 0 && cornerLength >= numberLength && cornerLength >= nameLength)
        {
            emitCorner(out, collected, m_p + cornerLength);
            return TokCornerEnd;
        }
        if (numberLength > 0 && numberLength >= nameLength)
        {
            const char* e = m_p + numberLength;
            Token t = makeToken(isReal ? TokReal : TokInteger, m_line);
            const char* stop;
            t.numValue = objText::parseDouble(m_p, e, &stop);
            t.intValue = isReal ? 0 : objText::parseInt(m_p, e);
            emit(out, collected, t);
            m_p = e;
            return t.kind;
        }
        if (nameLength > 0)
        {
            const std::string_view word(m_p, nameLength);
            Token t = makeToken(TokName, m_line);
            t.text = word;
            for (const auto& [k, kind] : keywords)
                if (word == k)
                {
                    t.kind = kind;
                    break;
                }
            emit(out, collected, t);
            m_p += nameLength;
            return t.kind;
        }
        throw qyUtil::Error(1, "Unrecognized input on line %d", m_line);
    }

    void emitCorner(std::vector<Token>& out, std::size_t& collected, const char* e)
    {
        emit(out, collected, makeToken(TokCornerBegin, m_line));
        while (m_p < e)
        {
            if (*m_p == '/')
            {
                emit(out, collected, makeToken(TokSlash, m_line));
                ++m_p;
                continue;
            }
            const std::size_t n = matchIndex(m_p, e);
            Token t = makeToken(TokInteger, m_line);
            t.intValue = objText::parseInt(m_p, m_p + n);
            t.numValue = t.intValue;
            emit(out, collected, t);
            m_p += n;
        }
        emit(out, collected, makeToken(TokCornerEnd, m_line));
    }

    const char* m_p;
    const char* m_end;
    int m_line = 1;
    bool m_finished = false;
};

/// Counts of the lines that start with "v ", "vt ", "vn " and "f " and of the blank-separated
/// words on the "f " lines: sizes to reserve, so that the lists of a large file do not grow
/// by copying. Only hints (statements may share a line), and backed by the text itself.
struct SizeHints
{
    std::size_t v = 0, vt = 0, vn = 0, f = 0, corners = 0;

    SizeHints(const char* p, const char* end)
    {
        while (p < end)
        {
            const char* nl = static_cast<const char*>(std::memchr(p, '\n', std::size_t(end - p)));
            const char* e = nl ? nl : end;
            if (e - p >= 2 && p[0] == 'v' && p[1] == ' ')
                ++v;
            else if (e - p >= 3 && p[0] == 'v' && p[1] == 't' && p[2] == ' ')
                ++vt;
            else if (e - p >= 3 && p[0] == 'v' && p[1] == 'n' && p[2] == ' ')
                ++vn;
            else if (e - p >= 2 && p[0] == 'f' && p[1] == ' ')
            {
                ++f;
                for (const char* q = p + 1; q + 1 < e; ++q)
                    corners += *q == ' ' && q[1] != ' ' && q[1] != '\r';
            }
            p = e + 1;
        }
    }
};

class ObjParser
{
public:
    ObjParser(const qyString::IString& fileName, const char* p, const char* end, MeshObjFile& file)
        : m_scanner(p, end), m_file(file), m_directory(qyOS::Filename(fileName).getDirectory())
    {
        m_group = qy::makeReference<MeshObjGroup>("default");
        const SizeHints hints(p, end);
        m_file.vertices.reserve(m_file.vertices.size() + hints.v);
        m_file.texCoords.reserve(m_file.texCoords.size() + hints.vt);
        m_file.normals.reserve(m_file.normals.size() + hints.vn);
        m_group->reserve(int(std::min<std::size_t>(hints.f, 0x7fffffff)),
                         int(std::min<std::size_t>(hints.corners, 0x7fffffff)));
    }

    void parse()
    {
        for (;;)
        {
            const Token t = take();
            switch (t.kind)
            {
            case TokV:
            {
                qyLinear::PointFlt v;
                v.x = number();
                v.y = number();
                v.z = number();
                m_file.vertices.push_back(v);
                break;
            }
            case TokVt:
            {
                qyLinear::Point2Flt vt;
                vt.x = number();
                vt.y = number();
                m_file.texCoords.push_back(vt);
                break;
            }
            case TokVn:
            {
                qyLinear::VectorFlt vn;
                vn.x = number();
                vn.y = number();
                vn.z = number();
                m_file.normals.push_back(vn);
                break;
            }
            case TokF:
                face();
                break;
            case TokMtllib:
                mtllib();
                break;
            case TokUsemtl:
                usemtl();
                break;
            case TokO:
                if (peek().kind != TokName)
                    fail("expecting object name");
                take();
                break;
            case TokS:
                if (peek().kind != TokInteger && peek().kind != TokOff)
                    fail("expecting smooth group number or 'off'");
                take();
                break;
            case TokG:
                group();
                break;
            case TokNewline:
                break;
            case TokEof:
                closeGroup();
                return;
            default:
                m_errorLine = t.line;
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
            m_scanner.fill(m_tokens);
        }
        return m_tokens[m_pos];
    }

    Token take()
    {
        const Token t = peek();
        ++m_pos;
        return t;
    }

    [[noreturn]] void fail(const char* what)
    {
        const int line = m_errorLine >= 0 ? m_errorLine : peek().line;
        throw qyUtil::Error(2, "Parse failed on line %d: %s\n", line, what);
    }

    float number()
    {
        const Token& t = peek();
        if (t.kind != TokInteger && t.kind != TokReal)
            fail("expecting number");
        const float v = float(t.numValue);
        ++m_pos;
        return v;
    }

    /// A 1-based (or negative, counting back) index resolved against `count` elements.
    int resolve(int i, std::size_t count, const char* zero, const char* negative,
                const char* positive)
    {
        const long long n = static_cast<long long>(count);
        if (i == 0)
            fail(zero);
        if (i < 0)
        {
            const long long r = i + n;
            if (r < 0)
                fail(negative);
            return int(r);
        }
        if (i > n)
            fail(positive);
        return i - 1;
    }

    void face()
    {
        m_corners.clear();
        for (;;)
        {
            const int kind = peek().kind;
            MeshObjCorner c;
            if (kind == TokInteger)
            {
                c.vertex = resolveVertex(take().intValue);
            }
            else if (kind == TokCornerBegin)
            {
                take();
                if (peek().kind != TokInteger)
                    fail("expecting vertex index");
                c.vertex = resolveVertex(take().intValue);
                int slot = 0; // 0: after the vertex, 1: after the texture, 2: after normal
                for (bool done = false; !done;)
                {
                    const Token& t = peek();
                    if (t.kind == TokCornerEnd)
                    {
                        take();
                        done = true;
                    }
                    else if (t.kind == TokSlash && slot < 2)
                    {
                        take();
                        ++slot;
                        if (peek().kind == TokInteger)
                        {
                            const int i = take().intValue;
                            if (slot == 1)
                                c.texCoord = resolve(i, m_file.texCoords.size(),
                                                     "invalid zero tex coord index",
                                                     "invalid negative tex coord index",
                                                     "invalid positive vertex index");
                            else
                                c.normal =
                                    resolve(i, m_file.normals.size(), "invalid zero normal index",
                                            "invalid negative normal index",
                                            "invalid positive vertex index");
                        }
                    }
                    else
                    {
                        fail("expecting vertex/texCoord/normal indices");
                    }
                }
            }
            else
            {
                break;
            }
            m_corners.push_back(c);
        }
        const int n = int(m_corners.size());
        if (n < 3)
            fail("face has fewer than 3 vertex references");
        (n == 3 ? m_file.numTriangles : n == 4 ? m_file.numQuads : m_file.numPolygons)++;
        m_group->addFace(n, m_corners.data());
    }

    int resolveVertex(int i)
    {
        return resolve(i, m_file.vertices.size(), "invalid zero vertex index",
                       "invalid negative vertex index", "invalid vertex index");
    }

    void mtllib()
    {
        if (peek().kind != TokName)
            fail("expecting name");
        const std::string name(take().text);
        qy::vector<qy::Reference<MeshObjMaterial>> materials;
        const qyOS::Filename path = qyOS::Filename::join(m_directory, name);
        if (qyUtil::Error e = meshReadObjMaterial(path.str(), materials))
            throw e;
        for (auto& m : materials)
            m_file.materials[m->getName()] = m;
    }

    void usemtl()
    {
        if (peek().kind != TokName)
            fail("expecting name");
        const std::string name(peek().text);
        const auto it = m_file.materials.find(name);
        if (it == m_file.materials.end())
        {
            const std::string message = "material not found: " + name;
            fail(message.c_str());
        }
        if (m_group->getNumFaces() > 0)
            fail("usemtl statement after face statements in group");
        take();
        m_group->setMaterial(it->second);
    }

    void group()
    {
        if (m_group->getNumFaces() > 0)
        {
            closeGroup();
            qy::Reference<MeshObjGroup> next = qy::makeReference<MeshObjGroup>("default");
            next->setMaterial(m_group->getMaterial());
            m_group = next;
        }
        std::string name;
        while (peek().kind == TokName)
        {
            if (!name.empty())
                name += ' ';
            name += take().text;
        }
        if (!name.empty())
            m_group->setName(name);
    }

    void closeGroup()
    {
        if (m_group->getNumFaces() > 0)
            m_file.groups.push_back(m_group);
    }

    ObjScanner m_scanner;
    MeshObjFile& m_file;
    std::string m_directory;
    std::vector<Token> m_tokens;
    std::size_t m_pos = 0;
    int m_errorLine = -1;
    qy::Reference<MeshObjGroup> m_group;
    std::vector<MeshObjCorner> m_corners;
};

// ---------------------------------------------------------------------------------------------
// The fast path. Large files are cut into pieces at line starts and the pieces are read on the
// thread pool by a line parser that takes the statements (v, vt, vn, f, g, o, s, usemtl,
// mtllib, comments and blank lines) straight from the text, without tokens; the material
// statements are carried out in file order when the pieces are joined. It accepts only text
// on which the token parser above would succeed and give the same result; anything else (an
// error, a statement carried to the next line by a comment, a rare number or index form)
// makes it give up, and the whole file is then read again by the token parser,
// which reports the first error exactly as a serial read does. Nothing is written into the
// caller's MeshObjFile before the pieces have been checked, so giving up leaves no trace.

/// Cut size of the pieces of a text of `size` bytes: some 32 pieces, between 64 KiB and
/// 2 MiB each. Every piece but the first starts after the first '\n' at or after its nominal
/// start, so the cuts depend only on the text, never on the thread count.
std::size_t pieceBytes(std::size_t size)
{
    return std::clamp(size / 32, std::size_t(64) << 10, std::size_t(2) << 20);
}

/// Slices of a large file read on the thread pool.
constexpr std::size_t ReadSliceBytes = std::size_t(2) << 20;

/// A `g`, `usemtl` or `mtllib` statement met before face `face` of its piece. A `g` without
/// a name keeps the group's name; `material` is filled when the statements are replayed.
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
    qy::Reference<MeshObjMaterial> material;
};

/// What one piece holds. Corner indices are final (0-based) except the negative ones, which
/// are relative to the piece's first element and listed in the fix-up lists; `need*` is the
/// least number of elements that must precede the piece for all its indices to be valid.
struct Piece
{
    const char* begin = nullptr;
    const char* end = nullptr;
    bool ok = false;
    std::vector<qyLinear::PointFlt> vertices;
    std::vector<qyLinear::Point2Flt> texCoords;
    std::vector<qyLinear::VectorFlt> normals;
    std::vector<MeshObjCorner> corners;
    std::vector<int> faceSizes;
    std::vector<Event> events;
    std::vector<std::size_t> fixVertex, fixTexCoord, fixNormal; ///< corners to shift
    long long needVertices = 0, needTexCoords = 0, needNormals = 0;
    int numTriangles = 0, numQuads = 0, numPolygons = 0;
};

constexpr double exactPowersOf10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                      1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

inline bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

/// Parses one piece; false when the text needs the token parser.
class PieceParser
{
public:
    explicit PieceParser(Piece& piece) : m_p(piece.begin), m_end(piece.end), m_out(piece)
    {
        // Generous reservations: untouched capacity costs address space, not memory. The
        // large ones take huge pages, a few page faults instead of one per 4 KiB.
        const std::size_t bytes = std::size_t(m_end - m_p);
        objText::reserveHuge(m_out.vertices, bytes / 24 + 16);
        objText::reserveHuge(m_out.texCoords, bytes / 24 + 16);
        objText::reserveHuge(m_out.normals, bytes / 24 + 16);
        objText::reserveHuge(m_out.corners, bytes / 6 + 16);
        objText::reserveHuge(m_out.faceSizes, bytes / 16 + 16);
    }

    bool parse()
    {
        for (;;)
        {
            while (m_p < m_end && isBlank(*m_p))
                ++m_p;
            if (m_p == m_end)
                return true;
            const char c = *m_p;
            if (c == '\n')
            {
                ++m_p;
                continue;
            }
            if (c == '\r')
            {
                if (m_end - m_p < 2 || m_p[1] != '\n')
                    return false;
                m_p += 2;
                continue;
            }
            if (c == '#')
            {
                const void* nl = std::memchr(m_p, '\n', std::size_t(m_end - m_p));
                m_p = nl ? static_cast<const char*>(nl) + 1 : m_end;
                continue;
            }
            // A keyword is a whole word, ended by a blank, a line end or the end of the text.
            const char* w = m_p;
            while (w < m_end && !isWordEnd(*w))
                ++w;
            const std::size_t len = std::size_t(w - m_p);
            const char c1 = len > 1 ? m_p[1] : 0;
            m_p = w;
            bool good;
            if (len == 1 && c == 'v')
                good = point3(m_out.vertices);
            else if (len == 2 && c == 'v' && c1 == 't')
                good = point2();
            else if (len == 2 && c == 'v' && c1 == 'n')
                good = point3(m_out.normals);
            else if (len == 1 && c == 'f')
                good = face();
            else if (len == 1 && c == 'g')
                good = group();
            else if (len == 1 && c == 'o')
                good = name(nullptr);
            else if (len == 6 && std::string_view(w - 6, 6) == "usemtl")
                good = event(Event::Usemtl);
            else if (len == 6 && std::string_view(w - 6, 6) == "mtllib")
                good = event(Event::Mtllib);
            else if (len == 1 && c == 's')
                good = smooth();
            else
                good = false;
            if (!good)
                return false;
        }
    }

private:
    /// A number token as the scanner cuts it, followed by a blank, a line end, a comment or
    /// the end of the text; its value rounded to float as the token parser does.
    bool number(float& out)
    {
        while (m_p < m_end && isBlank(*m_p))
            ++m_p;
        const char* const start = m_p;
        const char* q = m_p;
        bool negative = false;
        if (q < m_end && (*q == '+' || *q == '-'))
        {
            negative = *q == '-';
            ++q;
        }
        std::uint64_t mantissa = 0;
        int digits = 0, scale = 0;
        const char* const intStart = q;
        for (; q < m_end && objText::isDigit(*q); ++q, ++digits)
            mantissa = mantissa * 10 + std::uint64_t(*q - '0');
        const bool intDigits = q > intStart;
        bool fraction = false;
        if (q < m_end && *q == '.')
        {
            const char* f = q + 1;
            int fracDigits = 0;
            for (; f < m_end && objText::isDigit(*f); ++f, ++fracDigits)
                mantissa = mantissa * 10 + std::uint64_t(*f - '0');
            if (intDigits || fracDigits > 0)
            {
                fraction = true;
                q = f;
                digits += fracDigits;
                scale = -fracDigits;
            }
        }
        if (!intDigits && !fraction)
            return false;
        if (q < m_end && (*q == 'e' || *q == 'E'))
        {
            const char* e = q + 1;
            bool negativeExponent = false;
            if (e < m_end && (*e == '+' || *e == '-'))
            {
                negativeExponent = *e == '-';
                ++e;
            }
            const char* const expDigits = e;
            int exponent = 0;
            for (; e < m_end && objText::isDigit(*e); ++e)
                exponent = std::min(exponent * 10 + (*e - '0'), 100000);
            if (e == expDigits)
                return false; // "1e" is a number and a name: the token parser decides
            scale += negativeExponent ? -exponent : exponent;
            q = e;
        }
        if (q < m_end && !isWordEnd(*q) && *q != '#')
            return false; // text that the scanner would cut differently
        double v;
        if (digits <= 19 && mantissa <= (std::uint64_t(1) << 53) && scale >= -22 && scale <= 22)
        {
            // Both the digits and the power of ten are exact: one rounding, as strtod's.
            v = double(mantissa);
            if (scale < 0)
                v /= exactPowersOf10[-scale];
            else if (scale > 0)
                v *= exactPowersOf10[scale];
            if (negative)
                v = -v;
        }
        else
        {
            const char* stop;
            v = objText::parseDouble(start, q, &stop);
        }
        out = float(v);
        m_p = q;
        return true;
    }

    template <class T> bool point3(std::vector<T>& out)
    {
        T v;
        if (!number(v.x) || !number(v.y) || !number(v.z))
            return false;
        out.push_back(v);
        return true;
    }

    bool point2()
    {
        qyLinear::Point2Flt v;
        if (!number(v.x) || !number(v.y))
            return false;
        m_out.texCoords.push_back(v);
        return true;
    }

    /// An optionally negative index at m_p (as atoi reads it); false when there is none.
    bool index(int& out)
    {
        const char* q = m_p;
        const bool negative = q < m_end && *q == '-';
        if (negative)
            ++q;
        const char* const digits = q;
        unsigned value = 0;
        for (; q < m_end && objText::isDigit(*q) && q - digits < 9; ++q)
            value = value * 10 + unsigned(*q - '0');
        if (q == digits)
            return false;
        if (q < m_end && objText::isDigit(*q))
        {
            // Ten digits or more: the saturating conversion decides.
            while (q < m_end && objText::isDigit(*q))
                ++q;
            out = objText::parseInt(m_p, q);
        }
        else
        {
            out = negative ? -int(value) : int(value);
        }
        m_p = q;
        return true;
    }

    /// Resolves index i against the `count` elements of the piece read so far: positive
    /// indices become final, negative ones piece-relative (listed in `fix` for the join).
    static bool resolve(int i, std::size_t count, long long& need, std::vector<std::size_t>& fix,
                        std::size_t corner, int& out)
    {
        const long long n = static_cast<long long>(count);
        if (i == 0)
            return false;
        if (i > 0)
        {
            need = std::max(need, i - n);
            out = i - 1;
            return true;
        }
        const long long r = i + n;
        need = std::max(need, -r);
        if (r < INT_MIN)
            return false;
        out = int(r);
        fix.push_back(corner);
        return true;
    }

    bool face()
    {
        const std::size_t first = m_out.corners.size();
        for (;;)
        {
            while (m_p < m_end && isBlank(*m_p))
                ++m_p;
            if (m_p == m_end)
                break;
            const char c = *m_p;
            if (c == '#' || c == '+' || c == '/' || c == '.')
                return false;
            if (!objText::isDigit(c) && c != '-')
                break; // a line end or the next statement
            const std::size_t at = m_out.corners.size();
            MeshObjCorner corner;
            int i;
            if (!index(i) || !resolve(i, m_out.vertices.size(), m_out.needVertices, m_out.fixVertex,
                                      at, corner.vertex))
                return false;
            if (m_p < m_end && *m_p == '/')
            {
                ++m_p;
                if (m_p < m_end && *m_p != '/' && !isWordEnd(*m_p))
                {
                    if (!index(i) || !resolve(i, m_out.texCoords.size(), m_out.needTexCoords,
                                              m_out.fixTexCoord, at, corner.texCoord))
                        return false;
                }
                if (m_p < m_end && *m_p == '/')
                {
                    ++m_p;
                    if (m_p < m_end && !isWordEnd(*m_p))
                    {
                        if (!index(i) || !resolve(i, m_out.normals.size(), m_out.needNormals,
                                                  m_out.fixNormal, at, corner.normal))
                            return false;
                    }
                }
            }
            if (m_p < m_end && !isWordEnd(*m_p))
                return false;
            m_out.corners.push_back(corner);
        }
        const std::size_t n = m_out.corners.size() - first;
        if (n < 3 || n > 0x7fffffff)
            return false;
        (n == 3 ? m_out.numTriangles : n == 4 ? m_out.numQuads : m_out.numPolygons)++;
        m_out.faceSizes.push_back(int(n));
        return true;
    }

    /// A name token (not a keyword) at the next word; appended to *to when given. False when
    /// the next word is not one or there is none.
    bool name(std::string* to)
    {
        while (m_p < m_end && isBlank(*m_p))
            ++m_p;
        if (m_p == m_end || !isNameStart(static_cast<unsigned char>(*m_p)))
            return false;
        const char* w = m_p;
        while (w < m_end && !isWordEnd(*w))
            ++w;
        const std::size_t length = std::size_t(w - m_p);
        // The scanner's longest match: a number or a corner as long as the word wins.
        bool isReal = false;
        if (matchNumber(m_p, m_end, isReal) >= length || matchCorner(m_p, m_end) >= length)
            return false;
        const std::string_view word(m_p, length);
        for (const auto& k : keywords)
            if (word == k.first)
                return false;
        if (to)
        {
            if (!to->empty())
                *to += ' ';
            *to += word;
        }
        m_p = w;
        return true;
    }

    bool group()
    {
        Event g{Event::Group, m_out.faceSizes.size(), {}, {}};
        for (;;)
        {
            while (m_p < m_end && isBlank(*m_p))
                ++m_p;
            if (m_p == m_end)
                break;
            if (*m_p == '#')
                return false; // a comment would carry the names on to the next line
            if (!name(&g.name))
                break; // the next statement
        }
        m_out.events.push_back(std::move(g));
        return true;
    }

    /// usemtl or mtllib with its name; checked and carried out when the pieces are joined.
    bool event(Event::Kind kind)
    {
        Event e{kind, m_out.faceSizes.size(), {}, {}};
        if (!name(&e.name))
            return false;
        m_out.events.push_back(std::move(e));
        return true;
    }

    bool smooth()
    {
        while (m_p < m_end && isBlank(*m_p))
            ++m_p;
        const char* q = m_p;
        if (m_end - q >= 3 && q[0] == 'o' && q[1] == 'f' && q[2] == 'f')
            q += 3;
        else
        {
            if (q < m_end && (*q == '-' || *q == '+'))
                ++q;
            const char* const digits = q;
            while (q < m_end && objText::isDigit(*q))
                ++q;
            if (q == digits)
                return false;
            if (q < m_end && *q == '#')
            {
                m_p = q;
                return true;
            }
        }
        if (q < m_end && !isWordEnd(*q))
            return false;
        m_p = q;
        return true;
    }

    const char* m_p;
    const char* m_end;
    Piece& m_out;
};

/// Reads the text in pieces into `file`; false (with `file` untouched) when the token
/// parser has to read it.
bool readPieces(const qyString::IString& fileName, const char* begin, const char* end,
                MeshObjFile& file)
{
    const std::size_t size = std::size_t(end - begin);
    const std::size_t bytes = pieceBytes(size);
    const std::size_t numPieces = std::max<std::size_t>(1, (size + bytes - 1) / bytes);
    if (numPieces > 0x7fffffff)
        return false;
    std::vector<Piece> pieces(numPieces);
    const char* start = begin;
    for (std::size_t k = 0; k < numPieces; ++k)
    {
        pieces[k].begin = start;
        if (k + 1 < numPieces)
        {
            const char* from = begin + (k + 1) * bytes - 1;
            if (from < start)
                from = start;
            const void* nl = std::memchr(from, '\n', std::size_t(end - from));
            start = nl ? static_cast<const char*>(nl) + 1 : end;
        }
        else
        {
            start = end;
        }
        pieces[k].end = start;
    }
    std::atomic<bool> failed{false};
    qyUtil::runChunks(
        qyUtil::ThreadPool::get(), int(numPieces),
        [&](qyUtil::ThreadedChunkAlg&, int, int b, int e)
        {
            for (int k = b; k < e; ++k)
            {
                if (failed.load(std::memory_order_relaxed))
                    return;
                Piece& piece = pieces[std::size_t(k)];
                piece.ok = PieceParser(piece).parse();
                if (!piece.ok)
                    failed.store(true, std::memory_order_relaxed);
            }
        },
        nullptr, 1);
    if (failed.load())
        return false;

    // Every index must be valid with the elements before its piece.
    std::size_t numV = file.vertices.size(), numT = file.texCoords.size(),
                numN = file.normals.size();
    std::size_t numFaces = 0;
    for (const Piece& piece : pieces)
    {
        if (!piece.ok || piece.needVertices > static_cast<long long>(numV) ||
            piece.needTexCoords > static_cast<long long>(numT) ||
            piece.needNormals > static_cast<long long>(numN))
            return false;
        numV += piece.vertices.size();
        numT += piece.texCoords.size();
        numN += piece.normals.size();
        numFaces += piece.faceSizes.size();
    }
    if (numV > 0x7fffffff || numT > 0x7fffffff || numN > 0x7fffffff || numFaces > 0x7fffffff)
        return false;

    // The statements on materials and groups, replayed in file order on a copy of the
    // material map: a library that fails to read, an unknown material or a usemtl after
    // faces in its group leave the file to the token parser.
    bool anyMaterials = false, anyGroups = false;
    for (const Piece& piece : pieces)
        for (const Event& e : piece.events)
            (e.kind == Event::Group ? anyGroups : anyMaterials) = true;
    auto materials = anyMaterials ? file.materials : decltype(file.materials)();
    if (anyMaterials)
    {
        const std::string directory = qyOS::Filename(fileName).getDirectory();
        std::size_t groupFaces = 0; // faces of the open group
        for (Piece& piece : pieces)
        {
            std::size_t f = 0;
            for (Event& e : piece.events)
            {
                groupFaces += e.face - f;
                f = e.face;
                if (e.kind == Event::Group)
                {
                    groupFaces = 0;
                }
                else if (e.kind == Event::Usemtl)
                {
                    const auto it = materials.find(e.name);
                    if (it == materials.end() || groupFaces > 0)
                        return false;
                    e.material = it->second;
                }
                else
                {
                    qy::vector<qy::Reference<MeshObjMaterial>> read;
                    const qyOS::Filename path = qyOS::Filename::join(directory, e.name);
                    if (meshReadObjMaterial(path.str(), read))
                        return false;
                    for (auto& m : read)
                        materials[m->getName()] = m;
                }
            }
            groupFaces += piece.faceSizes.size() - f;
        }
    }

    // Negative indices counted back into earlier pieces: shift them by the elements that
    // precede their piece.
    numV = file.vertices.size();
    numT = file.texCoords.size();
    numN = file.normals.size();
    long long triangles = file.numTriangles, quads = file.numQuads, polygons = file.numPolygons;
    for (Piece& piece : pieces)
    {
        for (std::size_t c : piece.fixVertex)
            piece.corners[c].vertex += int(numV);
        for (std::size_t c : piece.fixTexCoord)
            piece.corners[c].texCoord += int(numT);
        for (std::size_t c : piece.fixNormal)
            piece.corners[c].normal += int(numN);
        numV += piece.vertices.size();
        numT += piece.texCoords.size();
        numN += piece.normals.size();
        triangles += piece.numTriangles;
        quads += piece.numQuads;
        polygons += piece.numPolygons;
    }
    if (triangles > 0x7fffffff || quads > 0x7fffffff || polygons > 0x7fffffff)
        return false;

    // The lists, in piece order.
    file.vertices.reserve(numV);
    file.texCoords.reserve(numT);
    file.normals.reserve(numN);
    qy::adviseHugePages(file.vertices);
    qy::adviseHugePages(file.texCoords);
    qy::adviseHugePages(file.normals);
    for (const Piece& piece : pieces)
    {
        file.vertices.insert(file.vertices.end(), piece.vertices.begin(), piece.vertices.end());
        file.texCoords.insert(file.texCoords.end(), piece.texCoords.begin(), piece.texCoords.end());
        file.normals.insert(file.normals.end(), piece.normals.begin(), piece.normals.end());
    }
    file.numTriangles = int(triangles);
    file.numQuads = int(quads);
    file.numPolygons = int(polygons);
    if (anyMaterials)
        file.materials = std::move(materials);

    // The groups: a `g` after faces closes the current group and opens one with its
    // material; a `g` with names renames the group that is open.
    qy::Reference<MeshObjGroup> group = qy::makeReference<MeshObjGroup>("default");
    if (!anyGroups)
    {
        std::size_t numCorners = 0;
        for (const Piece& piece : pieces)
            numCorners += piece.corners.size();
        group->reserve(int(numFaces), int(std::min<std::size_t>(numCorners, 0x7fffffff)));
        qy::adviseHugePages(group->getCorners());
    }
    for (const Piece& piece : pieces)
    {
        const int* sizes = piece.faceSizes.data();
        const MeshObjCorner* corners = piece.corners.data();
        std::size_t f = 0;
        auto addFaces = [&](std::size_t to)
        {
            for (; f < to; ++f)
            {
                group->addFace(sizes[f], corners);
                corners += sizes[f];
            }
        };
        for (const Event& e : piece.events)
        {
            addFaces(e.face);
            if (e.kind == Event::Usemtl)
            {
                group->setMaterial(e.material);
            }
            else if (e.kind == Event::Group)
            {
                if (group->getNumFaces() > 0)
                {
                    file.groups.push_back(group);
                    qy::Reference<MeshObjGroup> next = qy::makeReference<MeshObjGroup>("default");
                    next->setMaterial(group->getMaterial());
                    group = next;
                }
                if (!e.name.empty())
                    group->setName(e.name);
            }
        }
        addFaces(piece.faceSizes.size());
    }
    if (group->getNumFaces() > 0)
        file.groups.push_back(group);
    return true;
}

/// The text of a file: a large regular file read in slices on the thread pool, anything
/// else by objText::readFile.
struct Text
{
    objText::FileText file;
    std::unique_ptr<char[]> sliced;
    const char* data = nullptr;
    std::size_t size = 0;
};

/// Reads `count` bytes at `offset`; false on an error or an early end of the file.
bool readFully(int fd, char* to, std::size_t count, std::size_t offset)
{
    while (count > 0)
    {
        const ssize_t n = ::pread(fd, to, count, off_t(offset));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        to += n;
        count -= std::size_t(n);
        offset += std::size_t(n);
    }
    return true;
}

/// Reads the whole file as objText::readFile does (false when that fails). A large regular
/// file is read in slices on the thread pool, the copy from the page cache being
/// a good part of the work; when the file turns out shorter or longer than its size said,
/// or a read fails, it is read again the ordinary way.
bool readText(const char* path, Text& text)
{
    std::size_t size = 0;
    const int fd = objText::openRegularFile(path, size);
    if (fd < 0)
        return false;
    if (size >= 2 * ReadSliceBytes && size / ReadSliceBytes < 0x7fffffff)
    {
        std::unique_ptr<char[]> data(new char[size]);
        qy::adviseHugePages(data.get(), size);
        const int slices = int((size + ReadSliceBytes - 1) / ReadSliceBytes);
        std::atomic<bool> ok{true};
        qyUtil::runChunks(
            qyUtil::ThreadPool::get(), slices,
            [&](qyUtil::ThreadedChunkAlg&, int, int b, int e)
            {
                for (int k = b; k < e && ok.load(std::memory_order_relaxed); ++k)
                {
                    const std::size_t from = std::size_t(k) * ReadSliceBytes;
                    const std::size_t count = std::min(ReadSliceBytes, size - from);
                    if (!readFully(fd, data.get() + from, count, from))
                        ok.store(false, std::memory_order_relaxed);
                }
            },
            nullptr, 1);
        char more;
        ssize_t n;
        do
            n = ::pread(fd, &more, 1, off_t(size));
        while (n < 0 && errno == EINTR);
        if (ok.load() && n == 0)
        {
            ::close(fd);
            text.sliced = std::move(data);
            text.data = text.sliced.get();
            text.size = size;
            return true;
        }
    }
    ::close(fd);
    if (!objText::readFile(path, text.file))
        return false;
    text.data = text.file.data();
    text.size = text.file.size();
    return true;
}

} // namespace

qyUtil::Error meshReadObj2(const qyString::IString& fileName, qy::Reference<MeshObjFile> file)
{
    if (!file)
        file = qy::makeReference<MeshObjFile>();
    Text text;
    if (!readText(fileName.c_str(), text))
        return qyUtil::Error(1, "Cannot open file: %s", fileName.c_str());
    try
    {
        const char* end = text.data + text.size;
        const char* begin = objText::skipByteOrderMark(text.data, end);
        if (!readPieces(fileName, begin, end, *file))
            ObjParser(fileName, begin, end, *file).parse();
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

} // namespace qyGeom
