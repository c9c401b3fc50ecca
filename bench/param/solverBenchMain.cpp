// Entry point of the solver benchmarks; restores the pool's thread count at the end.
#include <string>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"

int main(int argc, char** argv)
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::AddCustomContext("pool_default_threads",
                                std::to_string(qyUtil::ThreadPool::defaultNumThreads()));
    const int savedThreads = qyUtil::ThreadPool::get().getNumThreads();
    benchmark::RunSpecifiedBenchmarks();
    qyUtil::ThreadPool::get().setNumThreads(savedThreads);
    benchmark::Shutdown();
    return 0;
}
