// The number and index parsers of the OBJ and MTL readers, and the character classes they
// share. Every conversion works over a byte range that need not be NUL-terminated and gives
// what the C library's strtod or atoi give in the "C" locale, whatever locale the process set.
#pragma once

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>

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

/// The general conversion of the decimal number [p, end) whose digits start at `digits`.
double convertDecimal(const char* p, const char* digits, const char* end);

inline constexpr double exactPowersOf10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                             1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                             1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

/// Scans the decimal number at p (no white space is skipped). Correctly rounded: short
/// numbers take one exact multiplication or division, the others the general conversion.
inline Decimal scanDecimal(const char* p, const char* end)
{
    Decimal d;
    d.end = p;
    const char* q = p;
    const bool negative = q < end && *q == '-';
    if (q < end && (*q == '+' || *q == '-'))
        ++q;
    const char* const digitsStart = q;
    std::uint64_t mantissa = 0;
    int digits = 0, scale = 0;
    for (; q < end && isDigit(*q); ++q, ++digits)
        mantissa = mantissa * 10 + std::uint64_t(*q - '0');
    if (q < end && *q == '.')
    {
        const char* f = q + 1;
        int fraction = 0;
        for (; f < end && isDigit(*f); ++f, ++fraction)
            mantissa = mantissa * 10 + std::uint64_t(*f - '0');
        if (digits > 0 || fraction > 0)
        {
            d.isReal = true;
            digits += fraction;
            scale = -fraction;
            q = f;
        }
    }
    if (digits == 0)
        return d;
    if (q < end && (*q == 'e' || *q == 'E'))
    {
        const char* e = q + 1;
        const bool negativeExponent = e < end && *e == '-';
        if (e < end && (*e == '+' || *e == '-'))
            ++e;
        const char* const exponentDigits = e;
        int exponent = 0;
        for (; e < end && isDigit(*e); ++e)
            exponent = std::min(exponent * 10 + (*e - '0'), 100000);
        if (e > exponentDigits) // "1e" is the number 1 followed by other text
        {
            d.isReal = true;
            scale += negativeExponent ? -exponent : exponent;
            q = e;
        }
    }
    d.end = q;
    if (digits <= 19 && mantissa <= (std::uint64_t(1) << 53) && scale >= -22 && scale <= 22)
    {
        // The digits and the power of ten are both exact doubles: one multiplication or
        // division rounds once, so the result is the correctly rounded one, as strtod's.
        double v = double(mantissa);
        if (scale < 0)
            v /= detail::exactPowersOf10[-scale];
        else if (scale > 0)
            v *= detail::exactPowersOf10[scale];
        d.value = negative ? -v : v;
        return d;
    }
    d.value = convertDecimal(p, digitsStart, q);
    return d;
}

/// Converts the number at the start of [p, end) as strtod does: leading white space is
/// skipped, then an optional sign and a decimal or hexadecimal number, "inf", "infinity" or
/// "nan" (with an optional "(chars)" part). Sets *stop to the first byte after the
/// conversion; when nothing converts, returns 0 and sets *stop to p. Overflow gives +-inf,
/// underflow the rounded tiny value.
double parseDouble(const char* p, const char* end, const char** stop);

/// The run of decimal digits at p, before `end`, and its value (wrapped past 19 digits). The
/// bytes up to `readable` may be read: eight at a time when there is room, and a run shorter
/// than eight is then converted without a loop.
inline const char* scanDigits(const char* p, const char* end, const char* readable,
                              std::uint64_t& value)
{
    if (readable - p >= 8)
    {
        constexpr std::uint64_t ones = 0x0101010101010101u;
        std::uint64_t w;
        std::memcpy(&w, p, 8);
        const std::uint64_t digits = w ^ (0x30 * ones);
        // The lowest flagged byte is the first that is no digit (flags above it may be false:
        // the sum carries out of bytes that are no digit).
        const std::uint64_t flags = ((digits + 0x76 * ones) | digits) & (0x80 * ones);
        const int n = flags ? std::countr_zero(flags) / 8 : 8;
        if (n < 8 && p + n <= end)
        {
            if (n == 0)
            {
                value = 0;
                return p;
            }
            // The n digits moved to the top bytes (zeros before them), then summed pairwise:
            // two digits per 16 bits, four per 32, eight in all. Each step is one
            // multiplication: v * (10 * 2^8 + 1) >> 8 is v * 10 + (v >> 8) in the bits kept.
            std::uint64_t v = digits << (8 * (8 - n));
            v = ((v * 0x0A01u) >> 8) & 0x00FF00FF00FF00FFu;
            v = ((v * 0x00640001u) >> 16) & 0x0000FFFF0000FFFFu;
            v = (v * 0x0000271000000001u) >> 32;
            value = v;
            return p + n;
        }
    }
    std::uint64_t v = 0;
    for (; p < end && isDigit(*p); ++p)
        v = v * 10 + std::uint64_t(*p - '0');
    value = v;
    return p;
}

/// parseDouble with the usual form of the numbers of a mesh file, blanks then "[-]d+[.d*]"
/// of at most 19 digits, converted inline; any other text takes parseDouble itself. The
/// digits and the power of ten are exact doubles then, so one division rounds once and the
/// result is the correctly rounded one, as strtod's.
inline double parseDoubleShort(const char* p, const char* end, const char** stop)
{
    const char* q = p;
    while (q < end && *q == ' ')
        ++q;
    const bool negative = q < end && *q == '-';
    q += negative;
    const char* const digits = q;
    std::uint64_t mantissa = 0;
    for (; q < end && isDigit(*q); ++q)
        mantissa = mantissa * 10 + std::uint64_t(*q - '0');
    const char* const point = q;
    std::size_t fraction = 0;
    if (q < end && *q == '.')
    {
        for (++q; q < end && isDigit(*q); ++q)
            mantissa = mantissa * 10 + std::uint64_t(*q - '0');
        fraction = std::size_t(q - point) - 1;
    }
    // No integer digit, too many digits, an exponent or a hexadecimal prefix: the general
    // conversion (the mantissa may have wrapped then, and is not used).
    if (point == digits || std::size_t(point - digits) + fraction > 19 ||
        mantissa > (std::uint64_t(1) << 53) ||
        (q < end && (*q == 'e' || *q == 'E' || *q == 'x' || *q == 'X')))
        return parseDouble(p, end, stop);
    *stop = q;
    const double v = double(mantissa) / exactPowersOf10[fraction];
    return negative ? -v : v;
}

/// Scans the number at p (no white space is skipped) straight to float32, correctly rounded
/// from its decimal text (no double rounding through a double): an optional sign, then a
/// decimal number, "inf", "infinity" or "nan". Returns the end of the number, or p when there
/// is none.
inline const char* scanFloat(const char* p, const char* end, float& value)
{
    const char* q = p < end && *p == '+' ? p + 1 : p;
    if (q < end && *q == '+')
        return p;
    const std::from_chars_result r = std::from_chars(q, end, value, std::chars_format::general);
    if (r.ec == std::errc::invalid_argument)
        return p;
    if (r.ec == std::errc::result_out_of_range)
    {
        // Beyond the float range: the value as strtod converts it, rounded to float.
        const char* stop;
        value = float(parseDouble(p, end, &stop));
        return stop;
    }
    return r.ptr;
}

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
    const char* const nine = end - q > 9 ? q + 9 : end;
    unsigned v = 0;
    for (; q < nine && isDigit(*q); ++q)
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
