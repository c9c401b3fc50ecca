// Text conversions shared by the mesh file readers: numbers converted exactly as the C
// library's strtod / atoi do in the "C" locale, whatever locale the process has set, and
// scanning helpers over byte ranges that need not be NUL-terminated.
#pragma once

#include <cstddef>

namespace qyGeom::objText
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

/// Skips a UTF-8 byte-order mark at p, if there is one.
inline const char* skipByteOrderMark(const char* p, const char* end)
{
    if (end - p >= 3 && p[0] == '\xEF' && p[1] == '\xBB' && p[2] == '\xBF')
        return p + 3;
    return p;
}

/// Converts the number at the start of [p, end) as strtod does in the "C" locale: leading
/// white space is skipped, then an optional sign and a decimal or hexadecimal number,
/// "inf", "infinity" or "nan" (with an optional "(chars)" part). Returns the value and sets
/// *stop to the first byte after the conversion; when nothing converts, returns 0 and sets
/// *stop to p. Correctly rounded; overflow gives +-inf, underflow the rounded tiny value.
double parseDouble(const char* p, const char* end, const char** stop);

/// As atoi in glibc: strtol (base 10, leading white space, optional sign) saturated to the
/// range of long, then truncated to int. Digits that do not convert give 0.
int parseInt(const char* p, const char* end, const char** stop = nullptr);

} // namespace qyGeom::objText

#include <cstdint>
#include <memory>
#include <vector>

#include "base/Memory.h"

namespace qyGeom::objText
{

using qy::adviseHugePages;

/// Reserves `n` entries in an empty vector and advises huge pages for them.
template <class Vector> void reserveHuge(Vector& v, std::size_t n)
{
    v.reserve(n);
    adviseHugePages(v.data(), v.capacity() * sizeof(typename Vector::value_type));
}

/// The bytes of a whole file, in one uninitialised buffer (no zero-filling, no copy).
class FileText
{
public:
    const char* data() const { return m_data.get(); }
    std::size_t size() const { return m_size; }
    bool empty() const { return m_size == 0; }

private:
    friend bool readFile(const char* path, FileText& out);
    std::unique_ptr<char[]> m_data;
    std::size_t m_size = 0;
};

/// Opens a regular file for reading and gives its size; -1 when it cannot be opened or is not
/// a regular file (a directory, a device, a FIFO: the open does not block on a FIFO). The
/// caller closes the descriptor.
int openRegularFile(const char* path, std::size_t& size);

/// Reads a whole regular file into `out`. False when the file cannot be opened, is not a
/// regular file (a directory, a device, a FIFO) or a read fails; `out` then holds what was
/// read.
bool readFile(const char* path, FileText& out);

} // namespace qyGeom::objText
