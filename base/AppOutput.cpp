// qyOS::AppOutput.
#include "base/AppOutput.h"

#include <cstdio>

namespace qyOS
{

AppOutput& AppOutput::getInstance()
{
    static AppOutput instance;
    return instance;
}

void AppOutput::write(Kind kind, const char* fmt, std::va_list args)
{
    const qyString::CString text = qyString::vformat(fmt, args);
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_sink)
        m_sink(kind, text.c_str());
    else
        std::fputs(text.c_str(), stderr);
}

void AppOutput::info(const char* fmt, ...)
{
    std::va_list args;
    va_start(args, fmt);
    write(Info, fmt, args);
    va_end(args);
}

void AppOutput::error(const char* fmt, ...)
{
    std::va_list args;
    va_start(args, fmt);
    write(ErrorMessage, fmt, args);
    va_end(args);
}

AppOutput::Sink AppOutput::setSink(Sink sink)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    std::swap(m_sink, sink);
    return sink;
}

} // namespace qyOS
