/// Calls 30 functions deep and spends its processor time there in three leaves, in known shares: 60 % in spin_60, 30 %
/// in spin_30, and 10 % in the C library's memset below fill_10. All of it happens below qsort of the C library, which
/// keeps no frame pointer. Prints the names and addresses of its functions first.
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
    extern "C" __attribute__((noinline)) void name(uint64_t durationNs)                                                \
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

extern "C" __attribute__((noinline)) void fill_10(uint64_t durationNs)
{
    const uint64_t until = cpuNs() + durationNs;
    while (cpuNs() < until) {
        for (int i = 0; i < 20; ++i)
            fill(block, i, sizeof block);
    }
}

extern "C" __attribute__((noinline)) void work()
{
    while (cpuNs() < budgetNs) {
        spin_60(6'000'000);
        spin_30(3'000'000);
        fill_10(1'000'000);
    }
}

extern "C" __attribute__((noinline)) void descend(int depth)
{
    if (depth > 1)
        descend(depth - 1);
    else
        work();
    asm volatile(""); // keeps the frame: no tail call
}

extern "C" __attribute__((noinline)) void descend_big(int depth)
{
    char space[1024];
    asm volatile("" : : "r"(space) : "memory");
    if (depth > 1)
        descend_big(depth - 1);
    else
        work();
    asm volatile("" : : "r"(space) : "memory");
}

extern "C" __attribute__((noinline)) void on_signal(int)
{
    descent(30);
    asm volatile("");
}

extern "C" __attribute__((noinline)) int compare(const void*, const void*)
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
    const struct {
        const char* name;
        void* address;
    } functions[] = {
        {"spin_60", reinterpret_cast<void*>(spin_60)},     {"spin_30", reinterpret_cast<void*>(spin_30)},
        {"fill_10", reinterpret_cast<void*>(fill_10)},     {"work", reinterpret_cast<void*>(work)},
        {"descend", reinterpret_cast<void*>(descend)},     {"descend_big", reinterpret_cast<void*>(descend_big)},
        {"on_signal", reinterpret_cast<void*>(on_signal)}, {"compare", reinterpret_cast<void*>(compare)},
    };
    for (const auto& function : functions)
        std::printf("%s %p ", function.name, function.address);
    std::printf("\n");
    std::fflush(stdout);
    ::signal(SIGUSR1, on_signal);
    int pair[2] = {2, 1};
    std::qsort(pair, 2, sizeof *pair, compare); // compares once
    return 0;
}
