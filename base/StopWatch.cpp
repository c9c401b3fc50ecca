// qyOS::StopWatch.
#include "base/StopWatch.h"

namespace qyOS
{

void StopWatch::start()
{
    // A running watch folds the time of its current run into the total, so that check()
    // never goes back.
    m_accumulated = check();
    m_start = Clock::now();
    m_running = true;
}

double StopWatch::stop()
{
    m_accumulated = check();
    m_running = false;
    return m_accumulated;
}

double StopWatch::clear()
{
    const double elapsed = check();
    m_accumulated = 0.0;
    m_start = Clock::now();
    m_running = true;
    return elapsed;
}

double StopWatch::check() const
{
    if (!m_running)
        return m_accumulated;
    return m_accumulated + std::chrono::duration<double>(Clock::now() - m_start).count();
}

} // namespace qyOS
