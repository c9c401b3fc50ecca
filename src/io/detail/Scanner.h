// Scanner: the token scanner of the OBJ and MTL grammars. Each grammar brings its lexicon
// (keywords, the characters a name may start with, whether compound corners exist); blanks,
// comments, line ends, numbers and names are scanned alike for both.
#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

namespace qyGeom::detail
{

/// Token kinds besides the keywords, which a lexicon numbers 0, 1, ... in its table.
enum TokenKind : int
{
    TokInteger = 64, ///< an optional sign and digits
    TokReal,         ///< a number with a point or an exponent
    TokName,         ///< any other word that starts with a name character
    TokNewline,      ///< "\n" or "\r\n"
    TokEof,
    TokCorner, ///< a compound corner such as 1/2/3, 1//3 or 1/2 (OBJ)
    TokInvalid ///< a character that no rule accepts
};

struct Token
{
    int kind = TokEof;
    int line = 0;
    /// The tokens it stands for: a compound corner stands for a begin, the slashes and the
    /// indices between them, and an end; any other token for itself.
    int count = 1;
    int intValue = 0; ///< integer tokens, as atoi converts them; a corner's first index
    union
    {
        double numValue = 0; ///< integer and real tokens, as strtod converts them
        struct
        {
            const char* data;
            std::size_t size;
        } name; ///< keywords and names
        /// A corner's indices after its first and second slash (index k when bit k of
        /// `present` is set, bit 0 telling whether intValue is there) and its slashes,
        /// counted up to three.
        struct
        {
            int index[2];
            unsigned char present, slashes;
        } corner;
    };

    std::string_view text() const { return {name.data, name.size}; }
};

struct Lexicon
{
    const std::string_view* keywords;
    int numKeywords;
    bool (*isNameStart)(unsigned char c);
    bool corners; ///< compound corners are tokens
};

/// Splits [p, end) into tokens; lines are counted from 1. Blanks and tabs separate tokens; a
/// comment runs from '#' through the end of its line, line end included, and gives no token.
/// A word is read as the longest of a number, a compound corner and a name; on a tie the
/// corner wins over both, and a number over a name. Keywords are names matched exactly.
class Scanner
{
public:
    Scanner(const Lexicon& lexicon, const char* p, const char* end)
        : m_lexicon(lexicon), m_p(p), m_end(end)
    {
        for (int c = 0; c < 256; ++c)
            m_nameStart[c] = lexicon.isNameStart(static_cast<unsigned char>(c));
    }

    /// Appends tokens to `out` up to the line end at which `batch` tokens or more have been
    /// appended (a compound corner counting for the tokens it stands for), or to the end of
    /// the text and one end-of-file token. False at a character that no rule accepts: the
    /// scan stops before it.
    bool fill(std::vector<Token>& out, int batch);

    bool finished() const { return m_finished; }
    int line() const { return m_line; }

private:
    /// Appends the next token and returns its kind; TokInvalid (appending nothing) at a
    /// character that no rule accepts.
    int next(std::vector<Token>& out);
    Token& push(std::vector<Token>& out, int kind) const
    {
        Token& t = out.emplace_back();
        t.kind = kind;
        t.line = m_line;
        return t;
    }
    /// Appends the compound corner at m_p, whose first index (if any) ends at q, a '/';
    /// false, appending nothing, when the corner begins with '/' and a name is longer.
    bool corner(std::vector<Token>& out, const char* q, bool first, int value);

    const Lexicon& m_lexicon;
    const char* m_p;
    const char* m_end;
    int m_line = 1;
    bool m_finished = false;
    bool m_nameStart[256]; ///< the lexicon's name characters, looked up per token
};

} // namespace qyGeom::detail
