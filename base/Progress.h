// qyUtil::Progress: progress reporting and cancellation for long operations.
#pragma once

#include <atomic>
#include <functional>

#include "base/String.h"
#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{

/// A progress object reports a fraction in [0, 1] and a caption, and answers whether the
/// user asked to cancel.
///
/// Sub-phases compose: parent.subPhase(share, child) binds child's own 0..1 to the next
/// `share` of the parent's range, right after the shares handed out before; the child may
/// split itself again. Reports reach the root object only, with the overall fraction.
///
/// The application either subclasses Progress and overrides report() and cancelRequested(),
/// or passes the two functions to the constructor. A plain Progress() reports nowhere and is
/// cancelled only through cancel().
///
/// Lifetime: a child refers to its parent until the next subPhase() rebinds it; the parent
/// must outlive the child's use. Threads: one thread at a time (the thread pool serialises
/// the reports of its workers).
class QYGEOM_API Progress
{
public:
    /// Receives the caption last set anywhere in the tree and the overall fraction.
    using ReportFn = std::function<void(const char* caption, double fraction)>;
    /// Answers true to cancel.
    using CancelFn = std::function<bool()>;

    Progress() = default;
    explicit Progress(ReportFn report, CancelFn cancel = {});
    virtual ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    /// Shows a caption for the work that follows.
    void setCaption(const char* caption);
    /// Sets this object's own fraction (clamped to [0, 1]; NaN counts as 0).
    void set(double fraction);
    /// Binds `child` to the next `share` of this object's range (at most what is left of it)
    /// and sets this object's fraction to where that share begins. The child's fraction
    /// restarts at 0.
    void subPhase(double share, Progress& child);
    /// True once cancellation was requested anywhere up the tree; stays true.
    bool cancelled();
    /// Requests cancellation for the whole tree.
    void cancel();

    double getFraction() const { return m_fraction; }
    const qyString::CString& getCaption() const { return m_caption; }

protected:
    /// Called on the root with the caption and the overall fraction.
    virtual void report(const char* caption, double fraction);
    /// Polled on the root by cancelled().
    virtual bool cancelRequested();

private:
    Progress& root();
    void propagate(double fraction);

    ReportFn m_report;
    CancelFn m_cancelFn;
    Progress* m_parent = nullptr;
    double m_base = 0.0;      // where this object's range starts in the parent's
    double m_share = 1.0;     // the size of that range
    double m_nextPhase = 0.0; // where this object's next sub-phase starts
    double m_fraction = 0.0;
    qyString::CString m_caption;
    std::atomic<bool> m_cancelled{false};
};

} // namespace qyUtil
