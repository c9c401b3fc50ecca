// qyOS::DebugChannel: a named channel for statistics and timing lines, off by default.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>

#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyOS
{

/// Algorithms print to a channel unconditionally; the channel alone decides whether the text
/// goes anywhere. It is switched on by setEnabled(true) or, when the channel was constructed
/// with an environment variable name, by that variable holding a value other than "", "0",
/// "off" or "false" when the channel is first made.
///
/// Text goes to standard error unless the application installs a sink. print() may be called
/// from any thread; lines from different threads are not interleaved.
class QYGEOM_API DebugChannel
{
public:
    /// Receives each printed text, exactly as formatted.
    using Sink = std::function<void(const char* text)>;

    explicit DebugChannel(const char* name, const char* environmentVariable = nullptr);
    DebugChannel(const DebugChannel&) = delete;
    DebugChannel& operator=(const DebugChannel&) = delete;

    /// printf to the channel when it is on; does nothing (and formats nothing) when off.
    void print(const char* fmt, ...) QY_PRINTF_FORMAT(2, 3);

    void setEnabled(bool on) { m_enabled.store(on, std::memory_order_relaxed); }
    bool isEnabled() const { return m_enabled.load(std::memory_order_relaxed); }
    /// Installs a sink; an empty function restores standard error.
    void setSink(Sink sink);
    const char* name() const { return m_name; }

private:
    const char* m_name;
    std::atomic<bool> m_enabled{false};
    std::mutex m_mutex;
    Sink m_sink;
};

/// True when the environment variable is set to something other than "", "0", "off", "false".
QYGEOM_API bool environmentFlag(const char* variable);

} // namespace qyOS
