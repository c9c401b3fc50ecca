// Entry point of the solver benchmarks.
#include "benchMain.h"

int main(int argc, char** argv)
{
    return qyBench::runBenchmarks(argc, argv);
}
