// qyOS::StopWatch: wall-clock timing of algorithm phases for the statistics lines.
#pragma once

#include <chrono>

#include "qyGeom/qyGeomExport.h"

namespace qyOS
{

/// Measures elapsed wall time in seconds on a monotonic clock. A new watch is stopped at 0.
class QYGEOM_API StopWatch
{
public:
    /// Starts counting from the time accumulated so far (on a running watch: keeps counting).
    void start();
    /// Stops counting; returns the elapsed seconds.
    double stop();
    /// Returns the seconds elapsed since the last start and restarts the count from zero.
    double clear();
    /// Returns the elapsed seconds without stopping.
    double check() const;

private:
    using Clock = std::chrono::steady_clock;
    Clock::time_point m_start{};
    double m_accumulated = 0.0;
    bool m_running = false;
};

} // namespace qyOS
