// The entry point of every benchmark program: Google Benchmark's own, with a line of context
// about the mesh and the pool's default thread count, and the pool's thread count restored at
// the end (benchmarks set their own).
#pragma once
#include <string>

#include <benchmark/benchmark.h>

#include "base/ThreadPool.h"

namespace qyBench
{

inline int runBenchmarks(int argc, char** argv, const std::string& mesh = std::string())
{
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    if (!mesh.empty())
        benchmark::AddCustomContext("mesh", mesh);
    benchmark::AddCustomContext("pool_default_threads",
                                std::to_string(qyUtil::ThreadPool::defaultNumThreads()));
    const int savedThreads = qyUtil::ThreadPool::get().getNumThreads();
    benchmark::RunSpecifiedBenchmarks();
    qyUtil::ThreadPool::get().setNumThreads(savedThreads);
    benchmark::Shutdown();
    return 0;
}

} // namespace qyBench
