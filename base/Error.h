// qyUtil::Error: an error code with a message, thrown inside the file readers and returned
// by the strict readers at their entry points.
#pragma once

#include <exception>

#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{

/// Code 0 with an empty message means success; any other code is a failure.
class QYGEOM_API Error : public std::exception
{
public:
    /// Success.
    Error() = default;
    /// A failure whose message is printf(fmt, ...).
    Error(int code, const char* fmt, ...) QY_PRINTF_FORMAT(3, 4);
    /// A failure with a ready message.
    Error(int code, const qyString::IString& message);

    int code() const { return m_code; }
    const qyString::CString& message() const { return m_message; }
    bool isSuccess() const { return m_code == 0; }
    explicit operator bool() const { return m_code != 0; } ///< true for a failure
    const char* what() const noexcept override { return m_message.c_str(); }

private:
    int m_code = 0;
    qyString::CString m_message;
};

} // namespace qyUtil
