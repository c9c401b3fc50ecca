// qyOS::AppOutput: messages meant for the application's user (information and errors).
#pragma once

#include <functional>
#include <mutex>

#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyOS
{

/// The process-wide user-message output. Without a sink, both kinds of message go to
/// standard error (standard output is left to the application's own data).
class QYGEOM_API AppOutput
{
public:
    enum Kind
    {
        Info,
        ErrorMessage
    };
    /// Receives each message, exactly as formatted (lines carry their own "\n").
    using Sink = std::function<void(Kind kind, const char* text)>;

    static AppOutput& getInstance();

    void info(const char* fmt, ...) QY_PRINTF_FORMAT(2, 3);
    void error(const char* fmt, ...) QY_PRINTF_FORMAT(2, 3);
    /// Installs a sink and returns the previous one; an empty function restores standard error.
    Sink setSink(Sink sink);

    AppOutput(const AppOutput&) = delete;
    AppOutput& operator=(const AppOutput&) = delete;

private:
    AppOutput() = default;
    void write(Kind kind, const char* fmt, std::va_list args);

    std::mutex m_mutex;
    Sink m_sink;
};

} // namespace qyOS
