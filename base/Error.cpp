// qyUtil::Error.
#include "base/Error.h"

namespace qyUtil
{

Error::Error(int code, const char* fmt, ...) : m_code(code)
{
    std::va_list args;
    va_start(args, fmt);
    m_message = qyString::vformat(fmt, args);
    va_end(args);
}

Error::Error(int code, const qyString::IString& message) : m_code(code), m_message(message) {}

} // namespace qyUtil
