#include "qyGeom/meshReadObjMaterial.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "io/objText.h"

namespace qyGeom
{

MeshObjMaterial::~MeshObjMaterial() = default;

namespace
{

enum MtlToken
{
    TokNewmtl = 0,
    TokKa,
    TokKd,
    TokKs,
    TokTf,
    TokD,
    TokTr,
    TokNs,
    TokNi,
    TokIllum,
    TokMapKa,
    TokMapKd,
    TokMapKs,
    TokNewline = 13,
    TokInteger = 14,
    TokReal = 15,
    TokName = 16,
    TokEof = 17,
};

struct Token
{
    int kind;
    int line;
    std::string_view text;
};

constexpr const char* keywords[] = {"newmtl", "Ka", "Kd",    "Ks",     "Tf",     "d",     "Tr",
                                    "Ns",     "Ni", "illum", "map_Ka", "map_Kd", "map_Ks"};

bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isBlankOrEnd(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

/// Length of the number at p: an integer ([+-]digits) or a real ([+-] digits with a point
/// and/or an exponent); 0 when none. `isReal` tells which.
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
    const char* afterInt = q;
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
    if (!fraction)
        q = afterInt;
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

/// Tokenizes the whole library; false on a character that no token accepts.
bool scan(const std::string& text, std::vector<Token>& tokens)
{
    const char* const end = text.data() + text.size();
    const char* p = objText::skipByteOrderMark(text.data(), end);
    int line = 1;
    while (p < end)
    {
        const char c = *p;
        if (c == ' ' || c == '\t')
        {
            ++p;
            continue;
        }
        if (c == '#')
        {
            while (p < end && *p != '\n')
                ++p;
            if (p < end)
            {
                ++p;
                ++line;
            }
            continue;
        }
        if (c == '\n' || (c == '\r' && end - p >= 2 && p[1] == '\n'))
        {
            tokens.push_back({TokNewline, line, {}});
            p += c == '\n' ? 1 : 2;
            ++line;
            continue;
        }
        bool isReal = false;
        const std::size_t numberLength = matchNumber(p, end, isReal);
        std::size_t nameLength = 0;
        if (isLetter(c))
        {
            const char* q = p + 1;
            while (q < end && !isBlankOrEnd(*q))
                ++q;
            nameLength = std::size_t(q - p);
        }
        if (numberLength == 0 && nameLength == 0)
            return false;
        if (numberLength >= nameLength)
        {
            tokens.push_back({isReal ? TokReal : TokInteger, line, {p, numberLength}});
            p += numberLength;
            continue;
        }
        const std::string_view word(p, nameLength);
        int kind = TokName;
        for (int k = 0; k < int(std::size(keywords)); ++k)
            if (word == keywords[k])
            {
                kind = k;
                break;
            }
        tokens.push_back({kind, line, word});
        p += nameLength;
    }
    tokens.push_back({TokEof, line, {}});
    return true;
}

class MtlParser
{
public:
    MtlParser(const std::vector<Token>& tokens,
              qy::vector<qy::Reference<MeshObjMaterial>>& materials)
        : m_tokens(tokens), m_materials(materials)
    {
    }

    qyUtil::Error parse()
    {
        for (;;)
        {
            const Token& t = peek();
            if (t.kind == TokEof)
                return {};
            if (t.kind != TokNewmtl)
                return fail("expecting 'newmtl' or end of file");
            ++m_pos;
            if (qyUtil::Error e = material())
                return e;
        }
    }

private:
    const Token& peek() const { return m_tokens[m_pos]; }

    qyUtil::Error fail(const char* what) const
    {
        return qyUtil::Error(2, "Parse failed on line %d: %s\n", peek().line, what);
    }

    bool atLineEnd() const { return peek().kind == TokNewline || peek().kind == TokEof; }

    /// Consumes the line end after a statement (the end of file is left for the caller).
    qyUtil::Error lineEnd()
    {
        if (!atLineEnd())
            return fail("expecting newline");
        if (peek().kind == TokNewline)
            ++m_pos;
        return {};
    }

    qyUtil::Error number(float& out)
    {
        const Token& t = peek();
        if (t.kind != TokInteger && t.kind != TokReal)
            return fail("expecting number");
        const char* stop;
        out = float(objText::parseDouble(t.text.data(), t.text.data() + t.text.size(), &stop));
        ++m_pos;
        return {};
    }

    qyUtil::Error colour(float* rgba)
    {
        for (int k = 0; k < 3; ++k)
            if (qyUtil::Error e = number(rgba[k]))
                return e;
        rgba[3] = 1.0f;
        return {};
    }

    qyUtil::Error name(qyString::CString& out)
    {
        if (peek().kind != TokName)
            return fail("expecting name");
        out.assign(peek().text);
        ++m_pos;
        return {};
    }

    qyUtil::Error material()
    {
        qyString::CString materialName;
        if (qyUtil::Error e = name(materialName))
            return e;
        if (qyUtil::Error e = lineEnd())
            return e;
        qy::Reference<MeshObjMaterial> m = qy::makeReference<MeshObjMaterial>(materialName);
        for (;;)
        {
            const int kind = peek().kind;
            if (kind == TokNewline)
            {
                ++m_pos;
                continue;
            }
            if (kind < TokKa || kind > TokMapKs)
                break;
            ++m_pos;
            qyUtil::Error e;
            switch (kind)
            {
            case TokKa:
                e = colour(m->ambient);
                m->mask |= MeshObjMaterial::Ambient;
                break;
            case TokKd:
                e = colour(m->diffuse);
                m->mask |= MeshObjMaterial::Diffuse;
                break;
            case TokKs:
                e = colour(m->specular);
                m->mask |= MeshObjMaterial::Specular;
                break;
            case TokTf:
                e = colour(m->transmission);
                m->mask |= MeshObjMaterial::Transmission;
                break;
            case TokD:
            case TokTr:
                e = number(m->dissolve);
                m->mask |= MeshObjMaterial::Dissolve;
                break;
            case TokNs:
                e = number(m->specularExponent);
                m->mask |= MeshObjMaterial::SpecularExponent;
                break;
            case TokNi:
                e = number(m->opticalDensity);
                m->mask |= MeshObjMaterial::OpticalDensity;
                break;
            case TokIllum:
                if (peek().kind != TokInteger)
                    return fail("expecting integer");
                m->illumination =
                    objText::parseInt(peek().text.data(), peek().text.data() + peek().text.size());
                m->mask |= MeshObjMaterial::Illumination;
                ++m_pos;
                break;
            case TokMapKa:
                e = name(m->ambientMap);
                break;
            case TokMapKd:
                e = name(m->diffuseMap);
                break;
            default:
                e = name(m->specularMap);
                break;
            }
            if (e)
                return e;
            if (qyUtil::Error le = lineEnd())
                return le;
        }
        m_materials.push_back(std::move(m));
        return {};
    }

    const std::vector<Token>& m_tokens;
    qy::vector<qy::Reference<MeshObjMaterial>>& m_materials;
    std::size_t m_pos = 0;
};

} // namespace

qyUtil::Error meshReadObjMaterial(const qyString::IString& fileName,
                                  qy::vector<qy::Reference<MeshObjMaterial>>& materials)
{
    materials.clear();
    std::string text;
    std::vector<Token> tokens;
    if (!objText::readFile(fileName.c_str(), text) || !scan(text, tokens))
        return qyUtil::Error(1, "Lexical analysis failed");
    return MtlParser(tokens, materials).parse();
}

} // namespace qyGeom
