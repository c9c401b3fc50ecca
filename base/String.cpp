// qyString: formatting helpers.
#include "base/String.h"

#include <cstdio>

namespace qyString
{

CString vformat(const char* fmt, std::va_list args)
{
    if (!fmt)
        return {};
    std::va_list copy;
    va_copy(copy, args);
    char small[256];
    const int n = std::vsnprintf(small, sizeof small, fmt, copy);
    va_end(copy);
    if (n < 0)
        return {};
    if (n < int(sizeof small))
        return CString(small, std::size_t(n));
    CString out(std::size_t(n), '\0');
    std::vsnprintf(out.data(), out.size() + 1, fmt, args);
    return out;
}

CString format(const char* fmt, ...)
{
    std::va_list args;
    va_start(args, fmt);
    CString s = vformat(fmt, args);
    va_end(args);
    return s;
}

} // namespace qyString
