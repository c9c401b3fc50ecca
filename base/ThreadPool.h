// qyUtil::ThreadPool and the threaded-algorithm bases: fixed-task jobs (ThreadedAlg) and
// chunked index-range jobs (ThreadedChunkAlg).
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "qyGeom/qyGeomExport.h"

namespace qyUtil
{

class Progress;
class ThreadPool;

/// What every threaded job shares: progress reporting and cancellation, per part (a task
/// of a ThreadedAlg, a chunk of a ThreadedChunkAlg). Parts call updateProgress and
/// cancelled from the pool's threads; the progress object is only ever touched by one of
/// them at a time.
class QYGEOM_API ThreadedAlgBase
{
public:
    ThreadedAlgBase(const ThreadedAlgBase&) = delete;
    ThreadedAlgBase& operator=(const ThreadedAlgBase&) = delete;
    virtual ~ThreadedAlgBase();

    /// The progress object that receives the job's overall fraction (may be null).
    void setProgress(Progress* progress) { m_progress = progress; }
    Progress* getProgress() const { return m_progress; }

    /// Part `part` has done `fraction` (0..1) of its own work. The job's fraction is the mean
    /// over its parts; a job that finished without being cancelled ends at 1.
    void updateProgress(int part, double fraction);
    /// True when the progress object was cancelled or another part of the job failed; the
    /// part should stop.
    bool cancelled(int part);

protected:
    ThreadedAlgBase() = default;

private:
    friend class ThreadPool;
    void beginRun(int numParts);
    void partDone(int part);
    void endRun();
    void stopAll() { m_stop.store(true, std::memory_order_relaxed); }

    Progress* m_progress = nullptr;
    std::unique_ptr<std::atomic<float>[]> m_fractions;
    int m_numParts = 0;
    std::mutex m_progressMutex;
    std::atomic<bool> m_stop{false};
};

/// A job of a fixed number of parallel tasks: one per pool thread. The pool calls
/// initialize(numTasks) on the calling thread, then execute(task, numTasks) for every task
/// (concurrently), then finalize() on the calling thread.
class QYGEOM_API ThreadedAlg : public ThreadedAlgBase
{
public:
    virtual void initialize(int numTasks);
    virtual void execute(int task, int numTasks) = 0;
    virtual void finalize();

    /// The even split of [0, total): every task gets total / numTasks items and the first
    /// total % numTasks tasks one more. Sets [begin, end) for `task`.
    static void evenShare(int total, int task, int numTasks, int& begin, int& end);
};

/// A job over the index range [0, numItems), cut into chunks whose boundaries depend only
/// on numItems and the chunk size, never on the thread count, so per-chunk results merged in
/// chunk order are the same with any pool. The pool calls initialize(numChunks), then
/// processChunk for every chunk (threads take the next chunk as they become free), then
/// finalize().
class QYGEOM_API ThreadedChunkAlg : public ThreadedAlgBase
{
public:
    /// chunkSize 0 chooses defaultChunkSize(numItems).
    explicit ThreadedChunkAlg(int numItems, int chunkSize = 0);

    int getNumItems() const { return m_numItems; }
    int getChunkSize() const { return m_chunkSize; }
    int getNumChunks() const;
    void getChunkRange(int chunk, int& begin, int& end) const;

    /// max(1024, ceil(numItems / 64)): at most 64 chunks, enough to balance a few cores,
    /// few enough that per-chunk buffers stay cheap.
    static int defaultChunkSize(int numItems);

    virtual void initialize(int numChunks);
    virtual void processChunk(int chunk, int begin, int end) = 0;
    virtual void finalize();

    /// For chunk loops: every `stride` items, poll cancellation and report progress.
    /// Returns false when the chunk should stop.
    bool poll(int chunk, int done, int total)
    {
        if (cancelled(chunk))
            return false;
        updateProgress(chunk, total > 0 ? double(done) / double(total) : 1.0);
        return true;
    }

private:
    int m_numItems;
    int m_chunkSize;
};

/// Runs threaded jobs on a set of worker threads plus the calling thread, and blocks until
/// every part has finished. With one thread, or when called from inside a running part, the
/// parts run in order on the calling thread. Two application threads that run jobs on the
/// same pool at once are served one after the other.
///
/// Exceptions: a part that throws (std::bad_alloc, say) makes cancelled() true for the
/// others; when all parts have stopped, the exception of the lowest-numbered failing part is
/// rethrown to the caller, and finalize() is not called.
class QYGEOM_API ThreadPool
{
public:
    /// The shared pool. Its size is defaultNumThreads() until setNumThreads changes it.
    static ThreadPool& get();
    /// A pool of one thread that runs everything on the calling thread.
    static ThreadPool& getSingleThreadedPool();
    /// The environment variable QYGEOM_THREADS when it holds a positive number, otherwise
    /// the hardware's thread count (at least 1).
    static int defaultNumThreads();

    explicit ThreadPool(int numThreads);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    int getNumThreads() const { return m_numThreads.load(std::memory_order_relaxed); }
    /// Resizes the pool (n <= 0: defaultNumThreads()); waits for a running job first. The
    /// single-threaded pool keeps its one thread.
    void setNumThreads(int n);

    void run(ThreadedAlg& alg);
    void run(ThreadedChunkAlg& alg);

private:
    struct Impl;
    template <class Fn> void runParts(ThreadedAlgBase& alg, int numParts, Fn&& fn);
    void dispatch(int numParts, void (*call)(void*, int), void* context);

    std::unique_ptr<Impl> m_impl;
    std::atomic<int> m_numThreads;
    bool m_fixed = false;
};

/// Runs fn(job, chunk, begin, end) over the chunks of [0, numItems) on `pool`; `job` is the
/// ThreadedChunkAlg, for poll(). A chunked job in a few lines.
template <class Fn>
void runChunks(ThreadPool& pool, int numItems, Fn&& fn, Progress* progress = nullptr,
               int chunkSize = 0)
{
    class Job final : public ThreadedChunkAlg
    {
    public:
        Job(int n, int size, Fn& f) : ThreadedChunkAlg(n, size), m_fn(f) {}
        void processChunk(int chunk, int begin, int end) override
        {
            m_fn(*this, chunk, begin, end);
        }

    private:
        Fn& m_fn;
    };
    Job job(numItems, chunkSize, fn);
    job.setProgress(progress);
    pool.run(job);
}

} // namespace qyUtil
