/// Calls 30 functions deep and spends its processor time there in three leaves, in known shares: 60 % in spin_60, 30 %
/// in spin_30, and 10 % in the C library's memset below fill_10. All of it happens below qsort of the C library, which
/// keeps no frame pointer. Prints the names of its functions first, and where each begins and ends.
/// Usage: deepsplit MILLISECONDS [signal | big]
///
/// signal: in a signal's handler. big: each of the 30 frames takes 1 KiB of the stack.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ownSection.h"

namespace {

uint64_t cpuNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t budgetNs;
void (*descent)(int);
char block[1 << 16];
// Through a pointer: the compiler must not replace the call.
void* (*volatile fill)(void*, int, size_t) = std::memset;

} // namespace

#define SPIN(name)                                                                                                     \
    OWN_SECTION(name) void name(uint64_t durationNs)                                                                   \
    {                                                                                                                  \
        const uint64_t until = cpuNs() + durationNs;                                                                   \
        volatile uint64_t sink = 1;                                                                                    \
        while (cpuNs() < until) {                                                                                      \
            for (int i = 0; i < 20000; ++i)                                                                            \
                sink = sink * 3 + 1;                                                                                   \
        }                                                                                                              \
    }
SPIN(spin_60)
SPIN(spin_30)

OWN_SECTION(fill_10) void fill_10(uint64_t durationNs)
{
    const uint64_t until = cpuNs() + durationNs;
    while (cpuNs() < until) {
        for (int i = 0; i < 20; ++i)
            fill(block, i, sizeof block);
    }
}

OWN_SECTION(work) void work()
{
    while (cpuNs() < budgetNs) {
        spin_60(6'000'000);
        spin_30(3'000'000);
        fill_10(1'000'000);
    }
}

OWN_SECTION(descend) void descend(int depth)
{
    if (depth > 1)
        descend(depth - 1);
    else
        work();
    asm volatile(""); // keeps the frame: no tail call
}

OWN_SECTION(descend_big) void descend_big(int depth)
{
    char space[1024];
    asm volatile("" : : "r"(space) : "memory");
    if (depth > 1)
        descend_big(depth - 1);
    else
        work();
    asm volatile("" : : "r"(space) : "memory");
}

OWN_SECTION(on_signal) void on_signal(int)
{
    descent(30);
    asm volatile("");
}

OWN_SECTION(compare) int compare(const void*, const void*)
{
    if (descent)
        descent(30);
    else {
        descent = descend;
        ::raise(SIGUSR1);
    }
    return 0;
}

int main(int argc, char** argv)
{
    budgetNs = (argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000) * 1'000'000;
    const std::string mode = argc > 2 ? argv[2] : "";
    descent = mode == "big" ? descend_big : mode == "signal" ? nullptr : descend;
    for (const CodeRange& range : {RANGE_OF(spin_60), RANGE_OF(spin_30), RANGE_OF(fill_10), RANGE_OF(work),
                                   RANGE_OF(descend), RANGE_OF(descend_big), RANGE_OF(on_signal), RANGE_OF(compare)})
        std::printf("%s %p %p ", range.name, range.begin, range.end);
    std::printf("\n");
    std::fflush(stdout);
    ::signal(SIGUSR1, on_signal);
    int pair[2] = {2, 1};
    std::qsort(pair, 2, sizeof *pair, compare); // compares once
    return 0;
}
