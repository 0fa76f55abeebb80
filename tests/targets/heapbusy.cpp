// A program that notices when it is disturbed: heapbusy [THREADS [spin]]. Threads allocate and check what they wrote,
// keep values in registers that a call may not change, and wait in ways that must neither fail nor end early. Says
// "ready", runs until its standard input ends, then says "busy: ROUNDS rounds" and exits with 0; with 3 and a word when
// something was wrong.

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#define OWN __attribute__((noinline, noclone))

namespace {

volatile bool over;
long rounds;

[[noreturn]] void wrong(const char* what)
{
    ::fprintf(stderr, "heapbusy: wrong: %s (errno %d)\n", what, errno);
    ::_exit(3);
}

uint64_t nowNs()
{
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(time.tv_nsec);
}

} // namespace

/// Blocks of all sizes, each with its own contents.
OWN void* busyBlocks(void* seed)
{
    auto state = reinterpret_cast<uintptr_t>(seed) * 2654435761u + 1;
    unsigned char* kept[64] = {};
    size_t sizes[64] = {};
    while (!over) {
        state = state * 1103515245u + 12345u;
        const size_t at = (state >> 8) % 64;
        if (kept[at]) {
            for (size_t i = 0; i < sizes[at]; ++i) {
                if (kept[at][i] != static_cast<unsigned char>(at))
                    wrong("a block");
            }
        }
        const size_t size = 1 + (state >> 12) % 900;
        if (state & 0x40000000) {
            ::free(kept[at]);
            kept[at] = static_cast<unsigned char*>(::malloc(size));
        } else {
            kept[at] = static_cast<unsigned char*>(::realloc(kept[at], size));
        }
        ::memset(kept[at], static_cast<int>(at), size);
        sizes[at] = size;
        __atomic_fetch_add(&rounds, 1, __ATOMIC_RELAXED);
    }
    for (unsigned char* block : kept)
        ::free(block);
    return nullptr;
}

/// What nobody but this loop may change: general and vector registers, flags, the bytes below the stack pointer, errno.
OWN void* busyRegisters(void*)
{
    uint64_t expectedHash = 0;
    while (!over) {
        double sum = 0;
        for (int i = 1; i <= 20'000; ++i)
            sum += 1.0 / (static_cast<double>(i) * i);
        if (sum < 1.64488 || sum > 1.64489)
            wrong("a sum");
        errno = 77;
        uint64_t hash = 1;
        for (uint64_t i = 0; i < 50'000; ++i)
            hash = (hash ^ i) * 0x100000001b3u;
        if (expectedHash == 0)
            expectedHash = hash;
        if (hash != expectedHash)
            wrong("a product");
        if (errno != 77)
            wrong("errno");
#ifdef __x86_64__
        uint64_t below = 0;
        __asm__ volatile("movq $0x5a5a5a5a, -64(%%rsp)\n\t"
                         "movl $20000, %%ecx\n\t"
                         "1: decl %%ecx\n\t"
                         "jnz 1b\n\t"
                         "movq -64(%%rsp), %0\n\t"
                         : "=r"(below)
                         :
                         : "rcx", "memory", "cc");
        if (below != 0x5a5a5a5a)
            wrong("the bytes below the stack pointer");
#endif
    }
    return nullptr;
}

OWN void* busySleep(void*)
{
    while (!over) {
        const timespec time{0, 30'000'000};
        const uint64_t begin = nowNs();
        if (::nanosleep(&time, nullptr) != 0)
            wrong("a sleep that was interrupted");
        if (nowNs() - begin < 30'000'000)
            wrong("a sleep that ended early");
    }
    return nullptr;
}

OWN void* busyWait(void* epoll)
{
    pollfd nothing{-1, 0, 0};
    while (!over) {
        epoll_event event{};
        if (::epoll_wait(*static_cast<int*>(epoll), &event, 1, 20) != 0)
            wrong("a wait for events");
        if (::poll(&nothing, 1, 20) != 0)
            wrong("a poll");
    }
    return nullptr;
}

namespace {
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
} // namespace

OWN void* busyCondition(void*)
{
    ::pthread_mutex_lock(&mutex);
    while (!over)
        ::pthread_cond_wait(&condition, &mutex);
    ::pthread_mutex_unlock(&mutex);
    return nullptr;
}

OWN void* oneShortThread(void*)
{
    ::free(::malloc(50));
    return nullptr;
}

OWN void* busyThreads(void*)
{
    while (!over) {
        pthread_t thread;
        if (::pthread_create(&thread, nullptr, oneShortThread, nullptr) != 0)
            wrong("a thread");
        ::pthread_join(thread, nullptr);
        ::usleep(500);
    }
    return nullptr;
}

int main(int argc, char** argv)
{
    const int allocating = argc > 1 ? ::atoi(argv[1]) : 3;
    int epoll = ::epoll_create1(0);
    pthread_t threads[32];
    int count = 0;
    for (int i = 0; i < allocating && i < 16; ++i)
        ::pthread_create(&threads[count++], nullptr, busyBlocks,
                         reinterpret_cast<void*>(static_cast<uintptr_t>(i + 1)));
    ::pthread_create(&threads[count++], nullptr, busyRegisters, nullptr);
    const bool spins = argc > 2 && ::strcmp(argv[2], "spin") == 0;
    void* (*const waiting[])(void*) = {busySleep, busyWait, busyCondition, busyThreads};
    for (void* (*work)(void*) : waiting) {
        if (!spins)
            ::pthread_create(&threads[count++], nullptr, work, &epoll);
    }
    if (::write(1, "ready\n", 6) != 6)
        return 4;
    pollfd input{0, POLLIN, 0};
    int found = 0;
    while ((found = ::poll(&input, 1, spins ? 0 : -1)) == 0)
        ::free(::malloc(70));
    if (found < 0)
        wrong("the wait for its end");
    ::pthread_mutex_lock(&mutex);
    over = true;
    ::pthread_cond_broadcast(&condition);
    ::pthread_mutex_unlock(&mutex);
    for (int i = 0; i < count; ++i)
        ::pthread_join(threads[i], nullptr);
    ::printf("busy: %ld rounds\n", rounds);
    return 0;
}
