// ObjParser: the strict, token-driven OBJ parser behind meshReadObj2.
#include <string>
#include <string_view>
#include <vector>

#include "base/Filename.h"
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

class ObjParser
{
public:
    ObjParser(const qyString::IString& fileName, const char* p, const char* end, MeshObjFile& file)
        : m_scanner(p, end), m_file(file), m_directory(qyOS::Filename(fileName).getDirectory())
    {
        m_group = qy::makeReference<MeshObjGroup>("default");
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

} // namespace

qyUtil::Error meshReadObj2(const qyString::IString& fileName, qy::Reference<MeshObjFile> file)
{
    if (!file)
        file = qy::makeReference<MeshObjFile>();
    std::string text;
    if (!objText::readFile(fileName.c_str(), text))
        return qyUtil::Error(1, "Cannot open file: %s", fileName.c_str());
    try
    {
        const char* end = text.data() + text.size();
        ObjParser(fileName, objText::skipByteOrderMark(text.data(), end), end, *file).parse();
    }
    catch (const qyUtil::Error& e)
    {
        return e;
    }
    return {};
}

} // namespace qyGeom
