// qyUtil::ThreadPool: persistent workers that take parts of one job at a time from a shared
// counter; the calling thread works too, so a pool of n threads keeps n - 1 workers.
#include "base/ThreadPool.h"

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <exception>
#include <thread>
#include <vector>

#include "base/Progress.h"

namespace qyUtil
{
namespace
{
// Set while a thread executes parts of a job: a job started from inside a part runs inline
// instead of waiting for the workers that are busy with the outer job.
thread_local bool insidePart = false;
} // namespace

// ---------------------------------------------------------------------------------------
// ThreadedAlgBase

ThreadedAlgBase::~ThreadedAlgBase() = default;

void ThreadedAlgBase::beginRun(int numParts)
{
    m_numParts = numParts;
    m_fractions.reset(new std::atomic<float>[std::size_t(std::max(numParts, 1))]);
    for (int i = 0; i < numParts; ++i)
        m_fractions[i].store(0.0f, std::memory_order_relaxed);
    m_stop.store(false, std::memory_order_relaxed);
}

void ThreadedAlgBase::updateProgress(int part, double fraction)
{
    if (part < 0 || part >= m_numParts)
        return;
    m_fractions[part].store(float(fraction), std::memory_order_relaxed);
    if (!m_progress)
        return;
    // A part that finds the progress object busy skips this report; the next one catches up.
    std::unique_lock<std::mutex> lock(m_progressMutex, std::try_to_lock);
    if (!lock.owns_lock())
        return;
    double sum = 0.0;
    for (int i = 0; i < m_numParts; ++i)
        sum += m_fractions[i].load(std::memory_order_relaxed);
    m_progress->set(sum / m_numParts);
}

void ThreadedAlgBase::partDone(int part)
{
    if (part >= 0 && part < m_numParts)
        m_fractions[part].store(1.0f, std::memory_order_relaxed);
}

void ThreadedAlgBase::endRun()
{
    // Reports skipped while another part held the progress object may include the last
    // ones: a job that ran to the end reports its completion once more, on the caller.
    if (!m_progress || m_stop.load(std::memory_order_relaxed))
        return;
    std::lock_guard<std::mutex> lock(m_progressMutex);
    m_progress->set(1.0);
}

bool ThreadedAlgBase::cancelled(int)
{
    if (m_stop.load(std::memory_order_relaxed))
        return true;
    if (!m_progress)
        return false;
    std::unique_lock<std::mutex> lock(m_progressMutex, std::try_to_lock);
    if (lock.owns_lock() && m_progress->cancelled())
        m_stop.store(true, std::memory_order_relaxed);
    return m_stop.load(std::memory_order_relaxed);
}

// ---------------------------------------------------------------------------------------
// ThreadedAlg, ThreadedChunkAlg

void ThreadedAlg::initialize(int) {}
void ThreadedAlg::finalize() {}

void ThreadedAlg::evenShare(int total, int task, int numTasks, int& begin, int& end)
{
    const int each = total / numTasks, extra = total % numTasks;
    begin = task * each + std::min(task, extra);
    end = begin + each + (task < extra ? 1 : 0);
}

ThreadedChunkAlg::ThreadedChunkAlg(int numItems, int chunkSize)
    : m_numItems(std::max(numItems, 0)),
      m_chunkSize(chunkSize > 0 ? chunkSize : defaultChunkSize(numItems))
{
}

int ThreadedChunkAlg::defaultChunkSize(int numItems)
{
    const long long perChunk = (static_cast<long long>(std::max(numItems, 0)) + 63) / 64;
    return int(std::max<long long>(1024, perChunk));
}

int ThreadedChunkAlg::getNumChunks() const
{
    return int((static_cast<long long>(m_numItems) + m_chunkSize - 1) / m_chunkSize);
}

void ThreadedChunkAlg::getChunkRange(int chunk, int& begin, int& end) const
{
    const long long b = static_cast<long long>(chunk) * m_chunkSize;
    begin = int(std::min<long long>(b, m_numItems));
    end = int(std::min<long long>(b + m_chunkSize, m_numItems));
}

void ThreadedChunkAlg::initialize(int) {}
void ThreadedChunkAlg::finalize() {}

// ---------------------------------------------------------------------------------------
// ThreadPool

struct ThreadPool::Impl
{
    std::vector<std::thread> workers;
    std::mutex runMutex; // one job at a time

    std::mutex mutex; // guards the fields below
    std::condition_variable wake, finished;
    unsigned long long generation = 0;
    bool quit = false;
    int busyWorkers = 0;
    void (*call)(void*, int) = nullptr;
    void* context = nullptr;
    int numParts = 0;
    std::atomic<int> nextPart{0};

    void work()
    {
        insidePart = true;
        for (int part; (part = nextPart.fetch_add(1, std::memory_order_relaxed)) < numParts;)
            call(context, part);
        insidePart = false;
    }

    // `seen` is the generation current when the worker starts: a worker added by a resize
    // must not take the last job before the resize for a new one.
    void workerLoop(unsigned long long seen)
    {
        for (;;)
        {
            {
                std::unique_lock<std::mutex> lock(mutex);
                wake.wait(lock, [&] { return quit || generation != seen; });
                if (quit)
                    return;
                seen = generation;
            }
            work();
            std::lock_guard<std::mutex> lock(mutex);
            if (--busyWorkers == 0)
                finished.notify_one();
        }
    }

    void start(int numThreads)
    {
        quit = false;
        const unsigned long long current = generation;
        for (int i = 1; i < numThreads; ++i)
            workers.emplace_back([this, current] { workerLoop(current); });
    }

    void stop()
    {
        {
            std::lock_guard<std::mutex> lock(mutex);
            quit = true;
        }
        wake.notify_all();
        for (std::thread& t : workers)
            t.join();
        workers.clear();
    }
};

int ThreadPool::defaultNumThreads()
{
    if (const char* v = std::getenv("QYGEOM_THREADS"))
    {
        char* end = nullptr;
        const long n = std::strtol(v, &end, 10);
        if (end != v && *end == '\0' && n > 0 && n <= 1024)
            return int(n);
    }
    return int(std::max(1u, std::thread::hardware_concurrency()));
}

ThreadPool& ThreadPool::get()
{
    static ThreadPool pool(defaultNumThreads());
    return pool;
}

ThreadPool& ThreadPool::getSingleThreadedPool()
{
    static ThreadPool& pool = []() -> ThreadPool&
    {
        static ThreadPool single(1);
        single.m_fixed = true;
        return single;
    }();
    return pool;
}

ThreadPool::ThreadPool(int numThreads)
    : m_impl(std::make_unique<Impl>()), m_numThreads(std::max(numThreads, 1))
{
    m_impl->start(getNumThreads());
}

ThreadPool::~ThreadPool()
{
    m_impl->stop();
}

void ThreadPool::setNumThreads(int n)
{
    // Resizing from inside a running part would wait for the job it is part of.
    if (m_fixed || insidePart)
        return;
    if (n <= 0)
        n = defaultNumThreads();
    std::lock_guard<std::mutex> lock(m_impl->runMutex);
    if (n == getNumThreads())
        return;
    m_impl->stop();
    m_numThreads.store(n, std::memory_order_relaxed);
    m_impl->start(n);
}

void ThreadPool::dispatch(int numParts, void (*call)(void*, int), void* context)
{
    if (getNumThreads() == 1 || numParts <= 1 || insidePart)
    {
        const bool outer = insidePart;
        insidePart = true;
        for (int part = 0; part < numParts; ++part)
            call(context, part);
        insidePart = outer;
        return;
    }
    std::lock_guard<std::mutex> runLock(m_impl->runMutex);
    Impl& impl = *m_impl;
    {
        std::lock_guard<std::mutex> lock(impl.mutex);
        impl.call = call;
        impl.context = context;
        impl.numParts = numParts;
        impl.nextPart.store(0, std::memory_order_relaxed);
        impl.busyWorkers = int(impl.workers.size());
        ++impl.generation;
    }
    impl.wake.notify_all();
    impl.work();
    std::unique_lock<std::mutex> lock(impl.mutex);
    impl.finished.wait(lock, [&] { return impl.busyWorkers == 0; });
}

template <class Fn> void ThreadPool::runParts(ThreadedAlgBase& alg, int numParts, Fn&& fn)
{
    // Parts never throw into the pool: each failure is kept by part number, the others are
    // told to stop, and the lowest-numbered failure goes to the caller afterwards.
    std::vector<std::exception_ptr> failures(std::size_t(std::max(numParts, 1)));
    struct Context
    {
        ThreadedAlgBase* alg;
        Fn* fn;
        std::exception_ptr* failures;
    } context{&alg, &fn, failures.data()};
    auto call = [](void* c, int part)
    {
        Context& ctx = *static_cast<Context*>(c);
        try
        {
            (*ctx.fn)(part);
        }
        catch (...)
        {
            ctx.failures[part] = std::current_exception();
            ctx.alg->stopAll();
        }
        ctx.alg->partDone(part);
    };
    dispatch(numParts, call, &context);
    for (const std::exception_ptr& e : failures)
        if (e)
            std::rethrow_exception(e);
    alg.endRun();
}

void ThreadPool::run(ThreadedAlg& alg)
{
    const int numTasks = getNumThreads();
    alg.beginRun(numTasks);
    alg.initialize(numTasks);
    runParts(alg, numTasks, [&](int task) { alg.execute(task, numTasks); });
    alg.finalize();
}

void ThreadPool::run(ThreadedChunkAlg& alg)
{
    const int numChunks = alg.getNumChunks();
    alg.beginRun(numChunks);
    alg.initialize(numChunks);
    runParts(alg, numChunks,
             [&](int chunk)
             {
                 if (alg.cancelled(chunk))
                     return;
                 int begin, end;
                 alg.getChunkRange(chunk, begin, end);
                 alg.processChunk(chunk, begin, end);
             });
    alg.finalize();
}

} // namespace qyUtil
