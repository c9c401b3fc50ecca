#include "io/detail/Scanner.h"

#include <algorithm>

#include "io/detail/text.h"

namespace qyGeom::detail
{

namespace
{

bool isWordEnd(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

} // namespace

// Inlined into fill(), its only caller: it runs once per token.
inline __attribute__((always_inline)) int Scanner::next(std::vector<Token>& out)
{
    for (;;)
    {
        if (m_p == m_end)
        {
            push(out, TokEof);
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
            push(out, TokNewline);
            m_p += c == '\n' ? 1 : 2;
            ++m_line;
            return TokNewline;
        }
        break;
    }
    const char c = *m_p;
    if (isDigit(c) || c == '-')
    {
        // The common integer, and a compound corner, which needs a '/' straight after its
        // first index: then no number is longer, nor a name (which never starts so).
        int value = 0;
        const char* e = scanIndex(m_p, m_end, value);
        if (e != m_p)
        {
            if (m_lexicon.corners && e < m_end && *e == '/' && corner(out, e, true, value))
                return TokCorner;
            const bool negative = c == '-';
            if (e - m_p - negative <= 9 && (e == m_end || (*e != '.' && *e != 'e' && *e != 'E')))
            {
                Token& t = push(out, TokInteger);
                t.intValue = value;
                t.numValue = negative ? -double(-static_cast<long long>(value)) : double(value);
                m_p = e;
                return TokInteger;
            }
        }
    }
    std::size_t nameLength = 0;
    if (m_nameStart[static_cast<unsigned char>(c)])
    {
        const char* q = m_p + 1;
        while (q < m_end && !isWordEnd(*q))
            ++q;
        nameLength = std::size_t(q - m_p);
    }
    if (isDigit(c) || c == '-' || c == '+' || c == '.')
    {
        const Decimal d = scanDecimal(m_p, m_end);
        const std::size_t length = std::size_t(d.end - m_p);
        if (length > 0 && length >= nameLength)
        {
            Token& t = push(out, d.isReal ? TokReal : TokInteger);
            t.numValue = d.value;
            t.intValue = d.isReal ? 0 : parseInt(m_p, d.end);
            m_p = d.end;
            return t.kind;
        }
    }
    if (m_lexicon.corners && c == '/' && corner(out, m_p, false, 0))
        return TokCorner;
    if (nameLength == 0)
        return TokInvalid;
    Token& t = push(out, TokName);
    t.name = {m_p, nameLength};
    for (int k = 0; k < m_lexicon.numKeywords; ++k)
    {
        // Keywords are a few bytes long: compared in place, without a call.
        const std::string_view keyword = m_lexicon.keywords[k];
        std::size_t i = 0;
        if (keyword.size() == nameLength)
            while (i < nameLength && keyword[i] == m_p[i])
                ++i;
        if (i == nameLength)
        {
            t.kind = k;
            break;
        }
    }
    m_p += nameLength;
    return t.kind;
}

bool Scanner::fill(std::vector<Token>& out, int batch)
{
    int collected = 0;
    while (!m_finished)
    {
        const int kind = next(out);
        if (kind == TokInvalid)
            return false;
        collected += out.back().count;
        if (kind == TokNewline && collected >= batch)
            break;
    }
    return true;
}

bool Scanner::corner(std::vector<Token>& out, const char* q, bool first, int value)
{
    int count = first ? 3 : 2; // begin, [index], end
    int index[3] = {value, 0, 0};
    unsigned present = first ? 1 : 0;
    int part = 0;
    while (q < m_end && *q == '/')
    {
        ++q;
        ++count;
        ++part;
        int i;
        const char* e = scanIndex(q, m_end, i);
        if (e != q)
        {
            ++count;
            if (part < 3)
            {
                index[part] = i;
                present |= 1u << part;
            }
            q = e;
        }
    }
    if (!first)
    {
        // A corner that begins with '/' is a name when the word runs on longer.
        const char* w = q;
        while (w < m_end && !isWordEnd(*w))
            ++w;
        if (w > q)
            return false;
    }
    Token& t = push(out, TokCorner);
    t.count = count;
    t.intValue = index[0];
    t.corner.index[0] = index[1];
    t.corner.index[1] = index[2];
    t.corner.present = static_cast<unsigned char>(present);
    t.corner.slashes = static_cast<unsigned char>(std::min(part, 3));
    m_p = q;
    return true;
}

} // namespace qyGeom::detail
