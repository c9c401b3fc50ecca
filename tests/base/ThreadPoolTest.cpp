#include "base/ThreadPool.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "base/Progress.h"
#include "testMeshes.h"

using qyUtil::ThreadPool;
using PoolThreads = qyTest::ScopedThreadCount;

TEST(ThreadedAlg, TasksTakeEvenSharesLargerFirstBetweenInitializeAndFinalize)
{
    struct Shares : qyUtil::ThreadedAlg
    {
        std::vector<std::pair<int, int>> ranges;
        std::string log;
        void initialize(int numTasks) override { ranges.resize(std::size_t(numTasks)); }
        void execute(int task, int numTasks) override
        {
            auto& [begin, end] = ranges[std::size_t(task)];
            evenShare(1001, task, numTasks, begin, end);
        }
        void finalize() override { log = "final" + std::to_string(ranges.size()); }
    };
    using Ranges = std::vector<std::pair<int, int>>;
    const std::pair<int, Ranges> cases[] = {
        {1, {{0, 1001}}},
        {3, {{0, 334}, {334, 668}, {668, 1001}}},
        {4, {{0, 251}, {251, 501}, {501, 751}, {751, 1001}}},
    };
    for (const auto& [threads, expected] : cases)
    {
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        Shares alg;
        ThreadPool::get().run(alg);
        EXPECT_EQ(alg.ranges, expected);
        EXPECT_EQ(alg.log, "final" + std::to_string(threads));
    }
    int begin, end;
    qyUtil::ThreadedAlg::evenShare(5, 6, 7, begin, end); // fewer items than tasks
    EXPECT_EQ(std::make_pair(begin, end), std::make_pair(5, 5));
}

TEST(ThreadedChunkAlg, EveryChunkRunsOnceWithBoundsIndependentOfThreadCount)
{
    const std::thread::id caller = std::this_thread::get_id();
    ThreadPool& single = ThreadPool::getSingleThreadedPool();
    single.setNumThreads(4);                 // ignored
    for (int round = 0; round < 20; ++round) // resizing between jobs once hung the pool
    {
        const int threads = 1 + round % 4;
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        ThreadPool& pool = round == 8 ? single : ThreadPool::get(); // a one-thread round
        std::vector<std::atomic<int>> covered(10500);
        std::vector<int> chunkOf(10500, -1);
        std::atomic<int> elsewhere{0};
        qyUtil::runChunks(
            pool, 10500,
            [&](auto&, int chunk, int begin, int end)
            {
                elsewhere += std::this_thread::get_id() != caller;
                for (int i = begin; i < end; ++i)
                {
                    ++covered[std::size_t(i)];
                    chunkOf[std::size_t(i)] = chunk;
                }
            },
            nullptr, 1000);
        for (int i = 0; i < 10500; ++i)
            ASSERT_TRUE(covered[std::size_t(i)] == 1 && chunkOf[std::size_t(i)] == i / 1000) << i;
        EXPECT_TRUE(threads > 1 || elsewhere == 0); // one thread: all on the calling thread
    }
}

TEST(ThreadPool, LowestFailingPartThrowsAfterAllPartsStoppedWithoutFinalize)
{
    struct Failing : qyUtil::ThreadedChunkAlg
    {
        Failing() : ThreadedChunkAlg(64000, 1000) {}
        std::atomic<int> started{0}, running{0};
        bool finalized = false;
        void processChunk(int chunk, int, int) override
        {
            ++started;
            ++running;
            struct Leave
            {
                std::atomic<int>& n;
                ~Leave() { --n; }
            } leave{running};
            if (chunk == 3)
                throw std::runtime_error("chunk 3");
            if (chunk == 5)
                throw std::bad_alloc();
            for (int i = 0; i < 1000 && !cancelled(chunk); ++i)
                std::this_thread::yield();
        }
        void finalize() override { finalized = true; }
    };
    for (int threads : {1, 4})
    {
        SCOPED_TRACE(threads);
        PoolThreads scope(threads);
        Failing alg;
        EXPECT_THROW(ThreadPool::get().run(alg), std::runtime_error);
        EXPECT_EQ(alg.running.load(), 0);
        EXPECT_FALSE(alg.finalized);
        EXPECT_LT(alg.started.load(), 64); // the rest never started
        std::atomic<int> after{0};         // the pool still works
        qyUtil::runChunks(ThreadPool::get(), 3000,
                          [&](auto&, int, int b, int e) { after += e - b; });
        EXPECT_EQ(after.load(), 3000);
    }
}

TEST(ThreadPool, JobsStartedInsideAPartCompleteWithoutDeadlock)
{
    PoolThreads scope(4);
    std::vector<long long> sums(8);
    qyUtil::runChunks(
        ThreadPool::get(), 8,
        [&](auto&, int chunk, int, int)
        {
            std::atomic<long long> sum{0};
            qyUtil::runChunks(
                ThreadPool::get(), 5000,
                [&](auto&, int, int b, int e)
                {
                    for (int i = b; i < e; ++i)
                        sum += i;
                },
                nullptr, 100);
            sums[std::size_t(chunk)] = sum;
        },
        nullptr, 1);
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
        std::atomic<int> chunks{0};
        qyUtil::Progress progress([&](const char*, double f) { seen.push_back(f); },
                                  [&] { return stop.load(); });
        // Chunks poll every 10 items; once `cancel` is set, each asks for cancellation first.
        bool cancel = false;
        const auto body = [&](auto& job, int chunk, int begin, int end)
        {
            ++chunks;
            stop = stop || cancel;
            for (int i = begin; i < end && job.poll(chunk, i - begin, end - begin); i += 10)
            {
            }
        };
        qyUtil::runChunks(ThreadPool::get(), 20000, body, &progress, 500);
        ASSERT_FALSE(seen.empty());
        EXPECT_TRUE(std::is_sorted(seen.begin(), seen.end()));
        EXPECT_NEAR(seen.back(), 1.0, 1e-6);
        cancel = true;
        chunks = 0;
        qyUtil::runChunks(ThreadPool::get(), 64000, body, &progress, 1000);
        EXPECT_TRUE(progress.cancelled());
        EXPECT_LT(chunks.load(), 64);
    }
}

TEST(ThreadPool, DefaultNumThreadsHonoursTheEnvironment)
{
    const char* saved = std::getenv("QYGEOM_THREADS");
    const std::string previous = saved ? saved : "";
    const int hardware = int(std::max(1u, std::thread::hardware_concurrency()));
    unsetenv("QYGEOM_THREADS");
    EXPECT_EQ(ThreadPool::defaultNumThreads(), hardware);
    using Case = std::pair<const char*, int>;
    for (auto [value, expected] : {Case{"3", 3}, Case{"1", 1}, Case{"0", hardware},
                                   Case{"-2", hardware}, Case{"4x", hardware}, Case{"", hardware}})
    {
        setenv("QYGEOM_THREADS", value, 1);
        EXPECT_EQ(ThreadPool::defaultNumThreads(), expected) << value;
    }
    setenv("QYGEOM_THREADS", previous.c_str(), 1); // unset and "" mean the same
}
