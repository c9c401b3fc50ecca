// The number and index parsers of the OBJ and MTL readers, and the character classes they
// share. Every conversion works over a byte range that need not be NUL-terminated and gives
// what the C library's strtod or atoi give in the "C" locale, whatever locale the process set.
#pragma once

#include <cstddef>

#include "base/Memory.h"

namespace qyGeom::detail
{

/// White space as the "C" locale's isspace: blank, \t, \n, \v, \f, \r.
inline bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

inline bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

/// The separators inside a line: blank and tab.
inline bool isBlank(char c)
{
    return c == ' ' || c == '\t';
}

/// Skips a UTF-8 byte-order mark at p, if there is one.
inline const char* skipByteOrderMark(const char* p, const char* end)
{
    if (end - p >= 3 && p[0] == '\xEF' && p[1] == '\xBB' && p[2] == '\xBF')
        return p + 3;
    return p;
}

/// A decimal number as the token scanners cut it: an optional sign, then digits with an
/// optional point (at least one digit in all), then an optional exponent (e or E, an
/// optional sign and at least one digit).
struct Decimal
{
    const char* end = nullptr; ///< after the number; where the scan began when there is none
    bool isReal = false;       ///< it has a point or an exponent
    double value = 0;          ///< as strtod converts the same text
};

/// Scans the decimal number at p (no white space is skipped). Correctly rounded: short
/// numbers take one exact multiplication or division, the others the general conversion.
Decimal scanDecimal(const char* p, const char* end);

/// Converts the number at the start of [p, end) as strtod does: leading white space is
/// skipped, then an optional sign and a decimal or hexadecimal number, "inf", "infinity" or
/// "nan" (with an optional "(chars)" part). Sets *stop to the first byte after the
/// conversion; when nothing converts, returns 0 and sets *stop to p. Overflow gives +-inf,
/// underflow the rounded tiny value.
double parseDouble(const char* p, const char* end, const char** stop);

/// As atoi in glibc: strtol (base 10, leading white space, optional sign) saturated to the
/// range of long, then truncated to int. Text that does not convert gives 0 (and *stop = p).
int parseInt(const char* p, const char* end, const char** stop = nullptr);

/// An index as the scanners cut it: an optional '-' and digits, valued as atoi values it.
/// Returns the end of the index, or p when there is none.
inline const char* scanIndex(const char* p, const char* end, int& value)
{
    const char* q = p;
    const bool negative = q < end && *q == '-';
    q += negative;
    const char* const digits = q;
    unsigned v = 0;
    for (; q < end && q - digits < 9 && isDigit(*q); ++q)
        v = v * 10 + unsigned(*q - '0');
    if (q == digits)
        return p;
    if (q < end && isDigit(*q))
    {
        // Ten digits or more: atoi's saturating conversion decides.
        const char* stop;
        value = parseInt(p, end, &stop);
        return stop;
    }
    value = negative ? -int(v) : int(v);
    return q;
}

/// Reserves `n` entries in an empty vector and advises huge pages for them.
template <class Vector> void reserveHuge(Vector& v, std::size_t n)
{
    v.reserve(n);
    qy::adviseHugePages(v.data(), v.capacity() * sizeof(typename Vector::value_type));
}

} // namespace qyGeom::detail
