#include "io/objText.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <locale.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace qyGeom::objText
{

namespace
{

bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

/// The "C" locale, made once; strtod_l with it is the reference conversion for the rare
/// inputs that the fast path does not settle (results out of the double range).
locale_t cLocale()
{
    static const locale_t loc = newlocale(LC_ALL_MASK, "C", locale_t(0));
    return loc;
}

double slowParse(const char* p, const char* end, const char** stop)
{
    // strtod needs a terminated string: copy the range (this path is only taken for
    // numbers whose value over- or underflows, so the copy is rare).
    thread_local std::string scratch;
    scratch.assign(p, end);
    char* e = nullptr;
    const double v = strtod_l(scratch.c_str(), &e, cLocale());
    *stop = p + (e - scratch.c_str());
    return v;
}

} // namespace

namespace
{

constexpr double exactPowersOf10[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                      1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                      1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

/// The common short decimal ("0.123456", "-12", "1.5e3"): when its digits fit 2^53 and
/// its power of ten is exact (at most 22), one multiplication or division by the exact
/// power rounds correctly, so the result equals strtod's. Returns false (and leaves
/// everything to the general path) for anything else.
inline bool parseShortDecimal(const char* p, const char* end, bool negative, double& value,
                              const char** stop)
{
    std::uint64_t mantissa = 0;
    int digits = 0, scale = 0;
    const char* q = p;
    for (; q < end && isDigit(*q); ++q, ++digits)
        mantissa = mantissa * 10 + std::uint64_t(*q - '0');
    if (q < end && *q == '.')
    {
        ++q;
        for (; q < end && isDigit(*q); ++q, ++digits, --scale)
            mantissa = mantissa * 10 + std::uint64_t(*q - '0');
    }
    if (digits == 0 || digits > 19 || (q < end && (*q == 'e' || *q == 'E')))
        return false; // no digits, too many, or an exponent: the general path decides
    if (mantissa > (std::uint64_t(1) << 53) || scale < -22)
        return false;
    double v = double(mantissa);
    if (scale < 0)
        v /= exactPowersOf10[-scale];
    value = negative ? -v : v;
    *stop = q;
    return true;
}

} // namespace

double parseDouble(const char* p, const char* end, const char** stop)
{
    const char* const start = p;
    while (p < end && isSpace(*p))
        ++p;
    const char* const numberStart = p;
    bool negative = false;
    if (p < end && (*p == '+' || *p == '-'))
    {
        negative = *p == '-';
        ++p;
    }
    double value = 0;
    if (p < end && isDigit(*p) && !(end - p >= 2 && (p[1] == 'x' || p[1] == 'X')) &&
        parseShortDecimal(p, end, negative, value, stop))
        return value;
    std::from_chars_result r;
    if (end - p >= 2 && p[0] == '0' && (p[1] == 'x' || p[1] == 'X') &&
        ((end - p >= 3 && isHexDigit(p[2])) || (end - p >= 4 && p[2] == '.' && isHexDigit(p[3]))))
    {
        r = std::from_chars(p + 2, end, value, std::chars_format::hex);
    }
    else
    {
        // from_chars takes no '+' and no white space; both were consumed above. A second
        // sign ("+-1", "--1") is no number for strtod either.
        if (p < end && (*p == '-' || *p == '+'))
        {
            *stop = start;
            return 0;
        }
        r = std::from_chars(p, end, value, std::chars_format::general);
    }
    if (r.ec == std::errc::invalid_argument)
    {
        *stop = start;
        return 0;
    }
    if (r.ec == std::errc::result_out_of_range)
        return slowParse(numberStart, end, stop);
    *stop = r.ptr;
    return negative ? -value : value;
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
    if (p == end || !isDigit(*p))
    {
        if (stop)
            *stop = start;
        return 0;
    }
    // Accumulate as a negative magnitude so that LONG_MIN is reachable; saturate.
    long long acc = 0;
    bool saturated = false;
    for (; p < end && isDigit(*p); ++p)
    {
        const int d = *p - '0';
        if (!saturated)
        {
            if (acc < (LLONG_MIN + d) / 10)
                saturated = true;
            else
                acc = acc * 10 - d;
        }
    }
    long long v;
    if (saturated)
        v = negative ? LLONG_MIN : LLONG_MAX;
    else
        v = negative ? acc : (acc == LLONG_MIN ? LLONG_MAX : -acc);
    if (stop)
        *stop = p;
    // long is 64 bits here; the conversion to int keeps the low 32 bits, as glibc's atoi.
    return static_cast<int>(static_cast<unsigned long long>(v) & 0xffffffffULL);
}

int openRegularFile(const char* path, std::size_t& size)
{
    // Non-blocking open, so that a FIFO named in a file cannot stall the reader.
    const int fd = ::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return -1;
    struct stat st;
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))
    {
        ::close(fd);
        return -1;
    }
    size = std::size_t(st.st_size);
    return fd;
}

bool readFile(const char* path, FileText& out)
{
    out.m_data.reset();
    out.m_size = 0;
    std::size_t size = 0;
    const int fd = openRegularFile(path, size);
    if (fd < 0)
        return false;
    // The size is a hint: the file may change while it is read, so the buffer grows when
    // the size was too small.
    std::size_t capacity = size + 1;
    out.m_data.reset(new char[capacity]);
    adviseHugePages(out.m_data.get(), capacity);
    bool ok = true;
    for (;;)
    {
        if (out.m_size == capacity)
        {
            const std::size_t bigger = capacity * 2;
            std::unique_ptr<char[]> grown(new char[bigger]);
            std::memcpy(grown.get(), out.m_data.get(), out.m_size);
            out.m_data = std::move(grown);
            capacity = bigger;
        }
        const ssize_t n = ::read(fd, out.m_data.get() + out.m_size, capacity - out.m_size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
        {
            ok = false;
            break;
        }
        if (n == 0)
            break;
        out.m_size += std::size_t(n);
    }
    ::close(fd);
    return ok;
}

} // namespace qyGeom::objText
