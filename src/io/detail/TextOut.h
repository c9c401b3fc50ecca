// The writers' text layer: number formats and buffered output that reports the first failed
// write, shared by the OBJ writer and the minimal-format writer.
#pragma once

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/AppOutput.h"
#include "base/Filename.h"
#include "qyGeom/MeshWriteOptions.h"

namespace qyGeom::detail
{

inline constexpr double powersOf10[] = {1e-4, 1e-3, 1e-2, 1e-1, 1e0, 1e1, 1e2,
                                        1e3,  1e4,  1e5,  1e6,  1e7, 1e8, 1e9};
inline constexpr std::uint32_t intPowersOf10[] = {1,      10,      100,      1000,      10000,
                                                  100000, 1000000, 10000000, 100000000, 1000000000};

/// printf's "%g" (6 significant digits) for the common case of a float whose decimal
/// exponent lies in [-4, 5], where %g writes fixed notation. The float times a power of ten
/// of at most 10^9 is exact in double precision (24 + 21 bits), so rounding it to an
/// integer with ties to even rounds exactly as printf does. Returns the end of the text, or
/// null when the value needs the exponent form (or is not finite): the caller then uses the
/// general routine.
inline char* formatFloatG6(float value, char* out)
{
    const double v = value;
    if (!std::isfinite(v))
        return nullptr;
    const double a = std::fabs(v);
    if (std::signbit(v))
        *out++ = '-';
    if (a == 0)
    {
        *out++ = '0';
        return out;
    }
    if (a < 1e-4 || a >= 1e6)
        return nullptr;
    int x = -4; // decimal exponent: 10^x <= a < 10^(x+1)
    while (a >= powersOf10[x + 5])
        ++x;
    int decimals = 5 - x; // digits after the point before trailing zeros are cut
    std::uint32_t m = std::uint32_t(std::nearbyint(a * powersOf10[decimals + 4]));
    if (m == 1000000) // rounded up to the next power of ten
    {
        ++x;
        if (x > 5)
            return nullptr;
        --decimals;
        m = 100000;
    }
    const std::uint32_t scale = intPowersOf10[decimals];
    const std::uint32_t whole = m / scale;
    std::uint32_t fraction = m % scale;
    out = std::to_chars(out, out + 16, whole).ptr;
    if (fraction == 0)
        return out;
    while (fraction % 10 == 0)
    {
        fraction /= 10;
        --decimals;
    }
    *out++ = '.';
    for (int k = decimals - 1; k >= 0; --k)
    {
        out[k] = char('0' + fraction % 10);
        fraction /= 10;
    }
    return out + decimals;
}

/// The most bytes that formatFloat writes: a sign, 17 digits, the point and "e-308".
inline constexpr std::size_t maxFloatBytes = 32;

/// MeshWriteOptions::digits as used: 0 (the writer's own format) or 1 to 17.
inline int digitsOf(const MeshWriteOptions& options)
{
    return options.digits >= 1 && options.digits <= 17 ? options.digits : 0;
}

/// "%.<digits>g" of the value; with digits 0, an output stream's default float format (%g,
/// 6 significant digits). Writes at most maxFloatBytes.
inline char* formatFloat(float v, int digits, char* out)
{
    if (digits)
        return std::to_chars(out, out + maxFloatBytes, v, std::chars_format::general, digits).ptr;
    char* end = formatFloatG6(v, out);
    return end ? end
               : std::to_chars(out, out + maxFloatBytes, v, std::chars_format::general, 6).ptr;
}

/// Buffered text output to a file, with the number formats of the writers. The text is
/// gathered here and handed to the system in large blocks (the stream itself is unbuffered),
/// so the first failed write is seen where it happens and its errno kept; once a write has
/// failed, the rest of the text is dropped.
class TextOut
{
public:
    /// `digits`: significant digits of the numbers written, 0 for each format's default.
    TextOut(const char* path, int digits) : m_file(std::fopen(path, "wb")), m_digits(digits)
    {
        if (m_file)
            std::setvbuf(m_file, nullptr, _IONBF, 0);
        else
            m_error = errno ? errno : EIO;
    }
    ~TextOut() { close(); }
    TextOut(const TextOut&) = delete;
    TextOut& operator=(const TextOut&) = delete;

    bool isOpen() const { return m_file != nullptr; }
    /// True once opening, a write or the close failed.
    bool failed() const { return m_error != 0; }
    /// The errno of the first failure; 0 when none.
    int error() const { return m_error; }

    /// Writes what is buffered and closes the file; false when any write or the close failed.
    bool close()
    {
        if (m_file)
        {
            flush();
            if (std::fclose(m_file) != 0 && !m_error)
                m_error = errno ? errno : EIO;
            m_file = nullptr;
        }
        return !m_error;
    }

    void put(const char* s, std::size_t n)
    {
        if (m_used + n > sizeof m_buffer)
        {
            flush();
            if (n > sizeof m_buffer)
            {
                write(s, n);
                return;
            }
        }
        std::memcpy(m_buffer + m_used, s, n);
        m_used += n;
    }
    void put(const char* s) { put(s, std::strlen(s)); }
    void put(const std::string& s) { put(s.data(), s.size()); }
    void put(char c)
    {
        if (m_used == sizeof m_buffer)
            flush();
        m_buffer[m_used++] = c;
    }
    /// An output stream's default float format (%g, 6 significant digits), or %.<digits>g.
    void putFloat(float v)
    {
        reserve(64);
        m_used = std::size_t(formatFloat(v, m_digits, m_buffer + m_used) - m_buffer);
    }
    /// The shortest text that reads back to the same float32, or %.<digits>g.
    void putFloatExact(float v)
    {
        reserve(64);
        char* const at = m_buffer + m_used;
        m_used = std::size_t((m_digits ? std::to_chars(at, at + maxFloatBytes, v,
                                                       std::chars_format::general, m_digits)
                                       : std::to_chars(at, at + maxFloatBytes, v))
                                 .ptr -
                             m_buffer);
    }
    int digits() const { return m_digits; }
    /// Room for n bytes (n at most the buffer's size) to be written at the pointer returned;
    /// commit() then takes what was written.
    char* room(std::size_t n)
    {
        reserve(n);
        return m_buffer + m_used;
    }
    void commit(const char* end) { m_used = std::size_t(end - m_buffer); }
    /// %.10g of the value, or %.<digits>g.
    void putG10(double v) { putChars(v, m_digits ? m_digits : 10); }
    void putInt(long long v)
    {
        reserve(24);
        m_used = std::size_t(std::to_chars(m_buffer + m_used, m_buffer + sizeof m_buffer, v).ptr -
                             m_buffer);
    }

private:
    template <class T> void putChars(T v, int precision)
    {
        reserve(64);
        m_used = std::size_t(std::to_chars(m_buffer + m_used, m_buffer + sizeof m_buffer, v,
                                           std::chars_format::general, precision)
                                 .ptr -
                             m_buffer);
    }
    void reserve(std::size_t n)
    {
        if (m_used + n > sizeof m_buffer)
            flush();
    }
    void flush()
    {
        if (m_used)
            write(m_buffer, m_used);
        m_used = 0;
    }
    void write(const char* s, std::size_t n)
    {
        if (!m_file || m_error)
            return;
        errno = 0;
        if (std::fwrite(s, 1, n, m_file) != n)
            m_error = errno ? errno : EIO;
    }

    FILE* m_file;
    int m_digits;
    int m_error = 0;
    std::size_t m_used = 0;
    char m_buffer[1 << 16];
};

/// Whether a writer reports only an output that did not open (the plain forms) or also a
/// write or close that failed (the checked forms, which name the function and the reason
/// on the application output).
struct Checking
{
    const char* function = nullptr; // null: unchecked

    bool failed(const qyOS::Filename& file, const char* reason) const
    {
        if (function)
            qyOS::AppOutput::getInstance().error("%s: cannot write '%s': %s\n", function,
                                                 file.c_str(), reason);
        return false;
    }
    bool failed(const qyOS::Filename& file, int error) const
    {
        return failed(file, std::strerror(error));
    }
};

/// A checked writer's entry point: opens `file` for `function`, writes it with write(out)
/// and closes it; false, with the failure reported, when the file cannot be opened, written
/// or closed.
template <class Write>
bool writeFileChecked(const char* function, const qyOS::Filename& file,
                      const MeshWriteOptions& options, Write write)
{
    const Checking check{function};
    TextOut out(file.c_str(), digitsOf(options));
    if (!out.isOpen())
        return check.failed(file, out.error());
    write(out);
    return out.close() || check.failed(file, out.error());
}

} // namespace qyGeom::detail
