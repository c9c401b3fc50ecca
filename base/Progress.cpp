// qyUtil::Progress.
#include "base/Progress.h"

#include <algorithm>

namespace qyUtil
{

Progress::Progress(ReportFn report, CancelFn cancel)
    : m_report(std::move(report)), m_cancelFn(std::move(cancel))
{
}

Progress::~Progress() = default;

Progress& Progress::root()
{
    Progress* p = this;
    while (p->m_parent)
        p = p->m_parent;
    return *p;
}

void Progress::report(const char* caption, double fraction)
{
    if (m_report)
        m_report(caption, fraction);
}

bool Progress::cancelRequested()
{
    return m_cancelFn && m_cancelFn();
}

void Progress::setCaption(const char* caption)
{
    m_caption = caption ? caption : "";
    Progress& r = root();
    if (&r != this)
        r.m_caption = m_caption;
    r.report(m_caption.c_str(), r.m_fraction);
}

void Progress::propagate(double fraction)
{
    m_fraction = fraction;
    if (m_parent)
        m_parent->propagate(m_base + m_share * fraction);
    else
        report(m_caption.c_str(), fraction);
}

void Progress::set(double fraction)
{
    // Written so that NaN becomes 0.
    fraction = fraction > 0.0 ? std::min(fraction, 1.0) : 0.0;
    propagate(fraction);
}

void Progress::subPhase(double share, Progress& child)
{
    // A share beyond the rest of this object's range is cut to that rest, so the overall
    // fraction never passes 1.
    share = share > 0.0 ? std::min(share, 1.0 - m_nextPhase) : 0.0;
    child.m_parent = this;
    child.m_base = m_nextPhase;
    child.m_share = share;
    child.m_nextPhase = 0.0;
    child.m_fraction = 0.0;
    m_nextPhase = std::min(1.0, m_nextPhase + share);
    set(child.m_base);
}

bool Progress::cancelled()
{
    Progress& r = root();
    if (r.m_cancelled.load(std::memory_order_relaxed))
        return true;
    if (r.cancelRequested())
    {
        r.m_cancelled.store(true, std::memory_order_relaxed);
        return true;
    }
    return false;
}

void Progress::cancel()
{
    root().m_cancelled.store(true, std::memory_order_relaxed);
}

} // namespace qyUtil
