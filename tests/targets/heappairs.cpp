// Allocates and frees: heappairs PAIRS [THREADS [DEPTH]]. Each thread does PAIRS pairs, of 16 to 271 bytes, DEPTH calls
// deep, from a few places. Says how many nanoseconds of wall-clock time a pair took.

#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

namespace {

long pairs = 1'000'000;
int depth = 20;
void* volatile sink;

uint64_t nowNs()
{
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(time.tv_nsec);
}

__attribute__((noinline)) void onePlace(long i)
{
    void* block = ::malloc(16 + static_cast<size_t>(i & 255));
    __asm__ volatile("" : : "r"(block) : "memory");
    ::free(block);
}

__attribute__((noinline)) void anotherPlace(long i)
{
    void* block = ::malloc(16 + static_cast<size_t>(i & 255));
    __asm__ volatile("" : : "r"(block) : "memory");
    ::free(block);
}

__attribute__((noinline)) void deeper(int left)
{
    if (left > 0) {
        deeper(left - 1);
        __asm__ volatile("" : : : "memory"); // no tail call
        return;
    }
    for (long i = 0; i < pairs; i += 2) {
        onePlace(i);
        anotherPlace(i + 1);
    }
}

void* run(void*)
{
    deeper(depth);
    return nullptr;
}

} // namespace

int main(int argc, char** argv)
{
    const int threads = argc > 2 ? ::atoi(argv[2]) : 1;
    pairs = argc > 1 ? ::atol(argv[1]) : pairs;
    depth = argc > 3 ? ::atoi(argv[3]) : depth;
    const uint64_t begin = nowNs();
    pthread_t ids[64];
    for (int i = 0; i < threads && i < 64; ++i)
        ::pthread_create(&ids[i], nullptr, run, nullptr);
    for (int i = 0; i < threads && i < 64; ++i)
        ::pthread_join(ids[i], nullptr);
    const uint64_t spent = nowNs() - begin;
    timespec cpu{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
    const double cpuNs = static_cast<double>(cpu.tv_sec) * 1e9 + static_cast<double>(cpu.tv_nsec);
    ::printf("pair: %.1f ns, %.1f ns of processor time\n", static_cast<double>(spent) / static_cast<double>(pairs),
             cpuNs / static_cast<double>(pairs) / threads);
    return 0;
}
