#include "base/ThreadPool.h"

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "base/Progress.h"

using qyUtil::ThreadPool;

namespace
{
// Sets the shared pool's thread count for one scope and restores it afterwards.
struct PoolThreads
{
    int previous = ThreadPool::get().getNumThreads();
    explicit PoolThreads(int n) { ThreadPool::get().setNumThreads(n); }
    ~PoolThreads() { ThreadPool::get().setNumThreads(previous); }
};

// Marks each task's even share of the items; logs initialize and finalize.
struct MarkShares : qyUtil::ThreadedAlg
{
    std::vector<std::atomic<int>> marks = std::vector<std::atomic<int>>(1001);
    std::atomic<int> executed{0};
    std::string log;
    void initialize(int numTasks) override { log += "init" + std::to_string(numTasks); }
    void execute(int task, int numTasks) override
    {
        int begin, end;
        evenShare(int(marks.size()), task, numTasks, begin, end);
        for (int i = begin; i < end; ++i)
            ++marks[std::size_t(i)];
        ++executed;
    }
    void finalize() override { log += " final" + std::to_string(executed.load()); }
};

// Counts how often each chunk ran with which range; `hook` runs first in every chunk.
struct CountChunks : qyUtil::ThreadedChunkAlg
{
    using ThreadedChunkAlg::ThreadedChunkAlg;
    std::vector<std::atomic<int>> seen = std::vector<std::atomic<int>>(getNumChunks());
    std::vector<int> begins = std::vector<int>(seen.size()), ends = begins;
    std::atomic<int> running{0};
    std::function<void(int)> hook;
    bool finalized = false;
    void processChunk(int chunk, int begin, int end) override
    {
        ++running;
        struct Leave { std::atomic<int>& n; ~Leave() { --n; } } leave{running};
        if (hook)
            hook(chunk);
        ++seen[std::size_t(chunk)];
        begins[std::size_t(chunk)] = begin;
        ends[std::size_t(chunk)] = end;
    }
    void finalize() override { finalized = true; }
};
} // namespace

TEST(ThreadedAlg, TasksTakeEvenSharesBetweenInitializeAndFinalize)
{
    for (int threads : {1, 3, 4})
    {
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        MarkShares alg;
        ThreadPool::get().run(alg);
        const std::string n = std::to_string(threads);
        EXPECT_EQ(alg.log, "init" + n + " final" + n);
        for (const auto& m : alg.marks)
            ASSERT_EQ(m.load(), 1);
    }
    for (int tasks : {1, 3, 7})
        for (int total : {0, 5, 100})
        {
            int expectedBegin = 0, begin, end;
            for (int t = 0; t < tasks; ++t, expectedBegin = end)
            {
                qyUtil::ThreadedAlg::evenShare(total, t, tasks, begin, end);
                EXPECT_EQ(begin, expectedBegin);
                EXPECT_EQ(end - begin, total / tasks + (t < total % tasks ? 1 : 0));
            }
            EXPECT_EQ(expectedBegin, total);
        }
}

TEST(ThreadedChunkAlg, EveryChunkRunsOnceWithBoundsIndependentOfThreadCount)
{
    EXPECT_EQ(qyUtil::ThreadedChunkAlg::defaultChunkSize(100), 1024);
    EXPECT_EQ(qyUtil::ThreadedChunkAlg::defaultChunkSize(1000001), 15626);
    for (int threads : {1, 2, 4})
    {
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        CountChunks alg(10500, 1000);
        ThreadPool::get().run(alg);
        ASSERT_EQ(alg.seen.size(), 11u);
        for (int c = 0; c < 11; ++c)
        {
            EXPECT_EQ(alg.seen[std::size_t(c)].load(), 1);
            EXPECT_EQ(alg.begins[std::size_t(c)], 1000 * c);
            EXPECT_EQ(alg.ends[std::size_t(c)], std::min(1000 * (c + 1), 10500));
        }
        EXPECT_TRUE(alg.finalized);
    }
}

TEST(ThreadPool, LowestFailingPartThrowsAfterAllPartsStoppedWithoutFinalize)
{
    for (int threads : {1, 4})
    {
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        CountChunks alg(64000, 1000);
        alg.hook = [&](int chunk)
        {
            if (chunk == 3)
                throw std::runtime_error("chunk 3");
            if (chunk == 5)
                throw std::bad_alloc();
            for (int i = 0; i < 1000 && !alg.cancelled(chunk); ++i)
                std::this_thread::yield();
        };
        EXPECT_THROW(ThreadPool::get().run(alg), std::runtime_error);
        EXPECT_EQ(alg.running.load(), 0);
        EXPECT_FALSE(alg.finalized);
        EXPECT_LT(std::count(alg.seen.begin(), alg.seen.end(), 1), 64); // the rest stopped

        CountChunks bad(3000, 1000);
        bad.hook = [](int chunk) { if (chunk == 2) throw std::bad_alloc(); };
        EXPECT_THROW(ThreadPool::get().run(bad), std::bad_alloc);
        MarkShares after; // the pool still works
        ThreadPool::get().run(after);
        EXPECT_EQ(after.executed.load(), threads);
    }
}

TEST(ThreadPool, JobsStartedInsideAPartCompleteWithoutDeadlock)
{
    PoolThreads scope(4);
    std::vector<long long> sums(8);
    qyUtil::runChunks(ThreadPool::get(), 8, [&](auto&, int chunk, int, int)
    {
        std::atomic<long long> sum{0};
        qyUtil::runChunks(ThreadPool::get(), 5000, [&](auto&, int, int b, int e)
        {
            for (int i = b; i < e; ++i)
                sum += i;
        }, nullptr, 100);
        sums[std::size_t(chunk)] = sum;
    }, nullptr, 1);
    EXPECT_EQ(sums, std::vector<long long>(8, 5000LL * 4999 / 2));
}

TEST(ThreadPool, ProgressReportsRiseToOneAndCancellationStopsChunks)
{
    for (int threads : {1, 4})
    {
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        std::vector<double> seen;
        std::atomic<bool> stop{false};
        qyUtil::Progress progress([&](const char*, double f) { seen.push_back(f); },
                                  [&] { return stop.load(); });
        auto body = [&](auto& job, int chunk, int begin, int end)
        {
            for (int i = begin; i < end && job.poll(chunk, i - begin, end - begin); i += 10)
            {
            }
        };
        qyUtil::runChunks(ThreadPool::get(), 20000, body, &progress, 500);
        ASSERT_FALSE(seen.empty());
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_NEAR(seen.back(), 1.0, 1e-6);

        std::atomic<int> chunks{0};
        qyUtil::runChunks(ThreadPool::get(), 64000, [&](auto& job, int chunk, int begin, int end)
        {
            ++chunks;
            stop = true;
            body(job, chunk, begin, end);
        }, &progress, 1000);
        EXPECT_TRUE(progress.cancelled());
        EXPECT_LT(chunks.load(), 64);
    }
}

TEST(ThreadPool, OneThreadRunsEverythingOnTheCallingThread)
{
    const std::thread::id caller = std::this_thread::get_id();
    PoolThreads scope(1);
    ThreadPool& single = ThreadPool::getSingleThreadedPool();
    single.setNumThreads(4); // ignored
    EXPECT_EQ(single.getNumThreads(), 1);
    for (ThreadPool* pool : {&ThreadPool::get(), &single})
    {
        std::atomic<int> chunks{0}, elsewhere{0};
        qyUtil::runChunks(*pool, 10000, [&](auto&, int, int, int)
        {
            ++chunks;
            elsewhere += std::this_thread::get_id() != caller;
        }, nullptr, 100);
        EXPECT_EQ(chunks.load(), 100);
        EXPECT_EQ(elsewhere.load(), 0);
    }
}

TEST(ThreadPool, DefaultNumThreadsHonoursTheEnvironment)
{
    const char* saved = std::getenv("QYGEOM_THREADS");
    const std::string previous = saved ? saved : "";
    const int hardware = int(std::max(1u, std::thread::hardware_concurrency()));
    using Case = std::pair<const char*, int>;
    for (auto [value, expected] : {Case{"3", 3}, Case{"1", 1}, Case{"0", hardware},
                                   Case{"-2", hardware}, Case{"4x", hardware}, Case{"", hardware}})
    {
        setenv("QYGEOM_THREADS", value, 1);
        EXPECT_EQ(ThreadPool::defaultNumThreads(), expected) << value;
    }
    unsetenv("QYGEOM_THREADS");
    EXPECT_EQ(ThreadPool::defaultNumThreads(), hardware);
    if (saved)
        setenv("QYGEOM_THREADS", previous.c_str(), 1);
}

TEST(ThreadPool, RunChunksSumsCorrectlyAcrossResizes)
{
    const int n = 100000;
    for (int round = 0; round < 20; ++round) // resizing between jobs once hung the pool
    {
        PoolThreads scope(1 + round % 4);
        std::vector<long long> partial(100);
        qyUtil::runChunks(ThreadPool::get(), n, [&](auto&, int chunk, int begin, int end)
        {
            for (int i = begin; i < end; ++i)
                partial[std::size_t(chunk)] += i;
        }, nullptr, 1000);
        long long sum = 0;
        for (long long p : partial)
            sum += p;
        ASSERT_EQ(sum, static_cast<long long>(n) * (n - 1) / 2) << 1 + round % 4 << " threads";
    }
}
