// qyOS::DebugChannel.
#include "base/DebugChannel.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

namespace qyOS
{

bool environmentFlag(const char* variable)
{
    const char* v = variable ? std::getenv(variable) : nullptr;
    if (!v || !*v)
        return false;
    return std::strcmp(v, "0") != 0 && strcasecmp(v, "off") != 0 && strcasecmp(v, "false") != 0;
}

DebugChannel::DebugChannel(const char* name, const char* environmentVariable)
    : m_name(name), m_enabled(environmentFlag(environmentVariable))
{
}

void DebugChannel::print(const char* fmt, ...)
{
    if (!isEnabled())
        return;
    std::va_list args;
    va_start(args, fmt);
    const qyString::CString text = qyString::vformat(fmt, args);
    va_end(args);

    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sink)
        m_sink(text.c_str());
    else
        std::fputs(text.c_str(), stderr);
}

void DebugChannel::setSink(Sink sink)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    m_sink = std::move(sink);
}

} // namespace qyOS
