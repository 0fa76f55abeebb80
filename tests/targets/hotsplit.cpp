/// Spends its processor time in hot_60, hot_30 and hot_10 in these shares, measured by its own thread clock, until
/// standard input ends or MILLISECONDS of processor time are used. Prints first its functions' names and where each
/// begins and ends.
/// Usage: hotsplit MILLISECONDS [later-thread | short-threads | fork | exec]
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "ownSection.h"

namespace {

uint64_t cpuNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

} // namespace

#define HOT(name)                                                                                                      \
    OWN_SECTION(name) void name(uint64_t durationNs)                                                                   \
    {                                                                                                                  \
        const uint64_t until = cpuNs() + durationNs;                                                                   \
        volatile uint64_t sink = 1;                                                                                    \
        while (cpuNs() < until) {                                                                                      \
            for (int i = 0; i < 2000; ++i)                                                                             \
                sink = sink * 3 + 1;                                                                                   \
        }                                                                                                              \
    }
HOT(hot_60)
HOT(hot_30)
HOT(hot_10)
HOT(hot_later)
HOT(hot_short)
HOT(hot_child)

int main(int argc, char** argv)
{
    const uint64_t budgetNs = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000) * 1'000'000;
    const std::string mode = argc > 2 ? argv[2] : "";
    // The addresses let a test tell the functions apart without symbols.
    for (const CodeRange& range : {RANGE_OF(hot_60), RANGE_OF(hot_30), RANGE_OF(hot_10), RANGE_OF(hot_later),
                                   RANGE_OF(hot_short), RANGE_OF(hot_child)})
        std::printf("%s %p %p ", range.name, range.begin, range.end);
    std::printf("\n");
    std::fflush(stdout);
    if (mode == "exec") {
        hot_60(budgetNs / 2);
        ::execl("/proc/self/exe", "hotsplit", (std::to_string(budgetNs / 2'000'000)).c_str(), nullptr);
        return 1;
    }
    std::thread later;
    pid_t child = 0;
    if (mode == "later-thread")
        later = std::thread([budgetNs] {
            ::pthread_setname_np(::pthread_self(), "later");
            hot_later(budgetNs / 2);
        });
    if (mode == "fork") {
        child = ::fork();
        if (child == 0) {
            hot_child(budgetNs / 2);
            ::_exit(0);
        }
    }
    while (cpuNs() < budgetNs) {
        hot_60(6'000'000);
        hot_30(3'000'000);
        hot_10(1'000'000);
        if (mode == "short-threads")
            std::thread([] { hot_short(2'000'000); }).join();
    }
    if (later.joinable())
        later.join();
    if (child > 0)
        ::waitpid(child, nullptr, 0);
    return 0;
}
