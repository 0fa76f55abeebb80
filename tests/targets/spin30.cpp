/// Spins 30 frames deep for a given number of milliseconds of wall time, then prints
/// "iterations-per-processor-second iterations-per-second processor-ns".
/// Usage: spin30 MILLISECONDS [THREADS]
#include <sys/resource.h>
#include <time.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

namespace {

uint64_t nowNs(clockid_t clock)
{
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

std::atomic<uint64_t> totalIterations{0};
std::atomic<uint64_t> totalCpuNs{0};

__attribute__((noinline)) void spinLeaf(uint64_t untilNs)
{
    uint64_t iterations = 0;
    volatile uint64_t sink = 1;
    while (nowNs(CLOCK_MONOTONIC) < untilNs) {
        for (int i = 0; i < 20000; ++i)
            sink = sink * 3 + 1;
        ++iterations;
    }
    totalIterations += iterations;
    totalCpuNs += nowNs(CLOCK_THREAD_CPUTIME_ID);
}

__attribute__((noinline)) void descend(int depth, uint64_t untilNs)
{
    if (depth > 0)
        descend(depth - 1, untilNs);
    else
        spinLeaf(untilNs);
    asm volatile(""); // keeps the frame: no tail call
}

} // namespace

int main(int argc, char** argv)
{
    const uint64_t milliseconds = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000;
    const int threads = argc > 2 ? std::atoi(argv[2]) : 1;
    const uint64_t beginNs = nowNs(CLOCK_MONOTONIC);
    const uint64_t untilNs = beginNs + milliseconds * 1'000'000;
    std::vector<std::thread> others;
    for (int i = 1; i < threads; ++i)
        others.emplace_back([untilNs] { descend(27, untilNs); });
    descend(27, untilNs); // 28 of these, the leaf and main
    for (std::thread& other : others)
        other.join();
    const double wallNs = static_cast<double>(nowNs(CLOCK_MONOTONIC) - beginNs);
    const auto iterations = static_cast<double>(totalIterations.load());
    std::printf("%.1f %.1f %llu\n", iterations * 1e9 / static_cast<double>(totalCpuNs.load()),
                iterations * 1e9 / wallNs, static_cast<unsigned long long>(totalCpuNs.load()));
    return 0;
}
