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

double convertDecimal(const char* p, const char* digits, const char* end)
{
    double value = 0;
    const char* stop;
    convert(p, digits, end, std::chars_format::general, value, &stop);
    return value;
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
