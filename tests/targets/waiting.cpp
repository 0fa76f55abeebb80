/// Sleeps ROUNDS times 20 ms below wait_outer() while a second thread waits for good. Prints first where
/// wait_outer begins and ends; needs next to no processor time.
/// Usage: waiting ROUNDS
#include <pthread.h>
#include <semaphore.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include "ownSection.h"

extern "C" __attribute__((noinline)) void wait_inner()
{
    const timespec pause{0, 20'000'000};
    ::nanosleep(&pause, nullptr);
    asm volatile("");
}

// A frame-pointer chain leaves out the direct caller of a C library function without a frame.
OWN_SECTION(wait_outer) void wait_outer()
{
    wait_inner();
    asm volatile("");
}

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 10;
    const CodeRange outer = RANGE_OF(wait_outer);
    std::printf("%s %p %p\n", outer.name, outer.begin, outer.end);
    std::fflush(stdout);
    sem_t ready;
    ::sem_init(&ready, 0, 0);
    std::thread([&ready] {
        ::pthread_setname_np(::pthread_self(), "forever");
        ::sem_post(&ready);
        for (;;)
            ::pause();
    }).detach();
    ::sem_wait(&ready);
    for (int i = 0; i < rounds; ++i)
        wait_outer();
    std::fflush(stdout);
    ::_exit(0);
}
