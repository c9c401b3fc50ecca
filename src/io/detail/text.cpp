#include "io/detail/text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <locale.h>
#include <string>

namespace qyGeom::detail
{

namespace
{

bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// strtod in the "C" locale over [p, end): the reference for the rare numbers whose value
/// leaves the double range, which from_chars does not convert.
double strtodC(const char* p, const char* end, const char** stop)
{
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", locale_t(0));
    // strtod needs a terminated string: copy the range (rare, so the copy does not matter).
    thread_local std::string scratch;
    scratch.assign(p, end);
    char* e = nullptr;
    const double v = strtod_l(scratch.c_str(), &e, cLocale);
    *stop = p + (e - scratch.c_str());
    return v;
}

constexpr double exactPowersOf10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                      1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

/// from_chars over [p, end) with `format`, or strtod when the value leaves the double range.
/// p is after the sign. False when nothing converts.
bool convert(const char* sign, const char* p, const char* end, std::chars_format format,
             double& value, const char** stop)
{
    double v = 0;
    const std::from_chars_result r = std::from_chars(p, end, v, format);
    if (r.ec == std::errc::invalid_argument)
        return false;
    if (r.ec == std::errc::result_out_of_range)
    {
        value = strtodC(sign, end, stop);
        return true;
    }
    value = sign < p && *sign == '-' ? -v : v;
    *stop = r.ptr;
    return true;
}

} // namespace

Decimal scanDecimal(const char* p, const char* end)
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
            v /= exactPowersOf10[-scale];
        else if (scale > 0)
            v *= exactPowersOf10[scale];
        d.value = negative ? -v : v;
        return d;
    }
    const char* stop;
    convert(p, digitsStart, q, std::chars_format::general, d.value, &stop);
    return d;
}

double parseDouble(const char* p, const char* end, const char** stop)
{
    const char* const start = p;
    while (p < end && isSpace(*p))
        ++p;
    const char* s = p;
    if (s < end && (*s == '+' || *s == '-'))
        ++s;
    double value = 0;
    if (end - s >= 3 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X') &&
        (isHexDigit(s[2]) || (end - s >= 4 && s[2] == '.' && isHexDigit(s[3]))))
    {
        convert(p, s + 2, end, std::chars_format::hex, value, stop);
        return value;
    }
    const Decimal d = scanDecimal(p, end);
    if (d.end != p)
    {
        *stop = d.end;
        return d.value;
    }
    // No decimal digits: "inf", "infinity", "nan", "nan(chars)" or no number at all (a
    // second sign, "+-1", is none for strtod either).
    if (s < end && (*s == '+' || *s == '-'))
    {
        *stop = start;
        return 0;
    }
    if (!convert(p, s, end, std::chars_format::general, value, stop))
    {
        *stop = start;
        return 0;
    }
    return value;
}

int parseInt(const char* p, const char* end, const char** stop)
{
    const char* const start = p;
    while (p < end && isSpace(*p))
        ++p;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-'))
    {
        negative = *p == '-';
        ++p;
    }
    const char* const digits = p;
    // Eighteen digits cannot overflow; beyond them strtol saturates at the range of long
    // (64 bits here), whose magnitude is one larger on the negative side.
    std::uint64_t magnitude = 0;
    for (; p < end && p - digits < 18 && isDigit(*p); ++p)
        magnitude = magnitude * 10 + std::uint64_t(*p - '0');
    if (p == digits)
    {
        if (stop)
            *stop = start;
        return 0;
    }
    const std::uint64_t limit = (std::uint64_t(1) << 63) - (negative ? 0 : 1);
    for (; p < end && isDigit(*p); ++p)
    {
        const std::uint64_t d = std::uint64_t(*p - '0');
        magnitude = magnitude > (limit - d) / 10 ? limit : magnitude * 10 + d;
    }
    if (stop)
        *stop = p;
    // The conversion of long to int keeps the low 32 bits, as glibc's atoi does.
    const std::uint64_t v = negative ? std::uint64_t(0) - magnitude : magnitude;
    return static_cast<int>(static_cast<std::uint32_t>(v));
}

} // namespace qyGeom::detail
