#include "qyGeom/meshReadObjMaterial.h"

#include <climits>
#include <string_view>
#include <vector>

#include "io/detail/Scanner.h"
#include "io/detail/TextSource.h"
#include "io/detail/text.h"

namespace qyGeom
{

MeshObjMaterial::~MeshObjMaterial() = default;

namespace
{

using detail::Token;

enum MtlKeyword
{
    KwNewmtl,
    KwKa,
    KwKd,
    KwKs,
    KwTf,
    KwD,
    KwTr,
    KwNs,
    KwNi,
    KwIllum,
    KwMapKa,
    KwMapKd,
    KwMapKs
};

constexpr std::string_view mtlKeywords[] = {
    "newmtl", "Ka", "Kd", "Ks", "Tf", "d", "Tr", "Ns", "Ni", "illum", "map_Ka", "map_Kd", "map_Ks"};

bool isLetter(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

/// Names start with a letter; there are no compound corners.
const detail::Lexicon mtlLexicon{mtlKeywords, int(std::size(mtlKeywords)), &isLetter, false};

/// What a parameter statement sets: a colour, a number or a map name (illum: an integer),
/// and its bit in the presence mask (none for the maps).
struct Parameter
{
    float (MeshObjMaterial::*colour)[4];
    float MeshObjMaterial::*number;
    qyString::CString MeshObjMaterial::*map;
    unsigned bit;
};

/// Indexed by keyword (newmtl has none).
const Parameter parameters[] = {
    {nullptr, nullptr, nullptr, 0},
    {&MeshObjMaterial::ambient, nullptr, nullptr, MeshObjMaterial::Ambient},
    {&MeshObjMaterial::diffuse, nullptr, nullptr, MeshObjMaterial::Diffuse},
    {&MeshObjMaterial::specular, nullptr, nullptr, MeshObjMaterial::Specular},
    {&MeshObjMaterial::transmission, nullptr, nullptr, MeshObjMaterial::Transmission},
    {nullptr, &MeshObjMaterial::dissolve, nullptr, MeshObjMaterial::Dissolve},
    {nullptr, &MeshObjMaterial::dissolve, nullptr, MeshObjMaterial::Dissolve},
    {nullptr, &MeshObjMaterial::specularExponent, nullptr, MeshObjMaterial::SpecularExponent},
    {nullptr, &MeshObjMaterial::opticalDensity, nullptr, MeshObjMaterial::OpticalDensity},
    {nullptr, nullptr, nullptr, MeshObjMaterial::Illumination},
    {nullptr, nullptr, &MeshObjMaterial::ambientMap, 0},
    {nullptr, nullptr, &MeshObjMaterial::diffuseMap, 0},
    {nullptr, nullptr, &MeshObjMaterial::specularMap, 0},
};

/// Tokenizes the whole library; false on a character that no token accepts.
bool scan(const char* p, const char* end, std::vector<Token>& tokens)
{
    return detail::Scanner(mtlLexicon, p, end).fill(tokens, INT_MAX);
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
            if (t.kind == detail::TokEof)
                return {};
            if (t.kind != KwNewmtl)
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

    bool atLineEnd() const
    {
        return peek().kind == detail::TokNewline || peek().kind == detail::TokEof;
    }

    /// Consumes the line end after a statement (the end of file is left for the caller).
    qyUtil::Error lineEnd()
    {
        if (!atLineEnd())
            return fail("expecting newline");
        if (peek().kind == detail::TokNewline)
            ++m_pos;
        return {};
    }

    qyUtil::Error number(float& out)
    {
        const Token& t = peek();
        if (t.kind != detail::TokInteger && t.kind != detail::TokReal)
            return fail("expecting number");
        out = float(t.numValue);
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
        if (peek().kind != detail::TokName)
            return fail("expecting name");
        out.assign(peek().text());
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
            if (kind == detail::TokNewline)
            {
                ++m_pos;
                continue;
            }
            if (kind < KwKa || kind > KwMapKs)
                break;
            ++m_pos;
            qyUtil::Error e;
            const Parameter& p = parameters[kind];
            if (kind == KwIllum)
            {
                if (peek().kind != detail::TokInteger)
                    return fail("expecting integer");
                m->illumination = peek().intValue;
                ++m_pos;
            }
            else if (p.colour)
            {
                e = colour(*m.*p.colour);
            }
            else if (p.number)
            {
                e = number(*m.*p.number);
            }
            else
            {
                e = name(*m.*p.map);
            }
            m->mask |= p.bit;
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
    detail::TextSource source;
    detail::TextSource::Whole text;
    std::vector<Token> tokens;
    if (!source.open(fileName.c_str(), detail::TextSource::Files::RegularOnly) ||
        !source.readAll(text) ||
        !scan(detail::skipByteOrderMark(text.begin(), text.end()), text.end(), tokens))
        return qyUtil::Error(1, "Lexical analysis failed");
    return MtlParser(tokens, materials).parse();
}

} // namespace qyGeom
