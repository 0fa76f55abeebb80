/// Does a known number of things that the kernel sees, and prints what it knows of itself on one line: "name value"
/// pairs. Usage: kernelwork calls COUNT | sleeps COUNT | pingpong COUNT | children COUNT | forever
///   calls     COUNT calls of getppid; ns: processor time of a call
///   sleeps    COUNT sleeps of 50 us
///   pingpong  two threads wake one another COUNT times each, through pipes
///   children  COUNT child processes that call getppid ten times each
///   forever   getppid, 100 a millisecond, until killed
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

double cpuNs()
{
    timespec used{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

__attribute__((noinline)) void askParent(long count)
{
    for (long i = 0; i < count; ++i)
        ::syscall(SYS_getppid);
}

void pingPong(long count)
{
    int there[2], back[2];
    if (::pipe(there) != 0 || ::pipe(back) != 0)
        std::exit(1);
    std::thread other([&] {
        char byte = 0;
        for (long i = 0; i < count; ++i) {
            if (::read(there[0], &byte, 1) != 1 || ::write(back[1], &byte, 1) != 1)
                std::exit(1);
        }
    });
    char byte = 0;
    for (long i = 0; i < count; ++i) {
        if (::write(there[1], &byte, 1) != 1 || ::read(back[0], &byte, 1) != 1)
            std::exit(1);
    }
    other.join();
}

void children(long count)
{
    for (long i = 0; i < count; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            askParent(10);
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
    }
}

[[noreturn]] void forever()
{
    const timespec pause{0, 1'000'000};
    for (;;) {
        askParent(100);
        ::nanosleep(&pause, nullptr);
    }
}

} // namespace

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "";
    const long count = argc > 2 ? std::atol(argv[2]) : 1000;
    if (std::strcmp(mode, "forever") == 0)
        forever();
    const double beforeNs = cpuNs();
    if (std::strcmp(mode, "calls") == 0) {
        askParent(count);
    } else if (std::strcmp(mode, "sleeps") == 0) {
        const timespec pause{0, 50'000};
        for (long i = 0; i < count; ++i)
            ::nanosleep(&pause, nullptr);
    } else if (std::strcmp(mode, "pingpong") == 0) {
        pingPong(count);
    } else if (std::strcmp(mode, "children") == 0) {
        children(count);
    } else {
        return 2;
    }
    const double ns = (cpuNs() - beforeNs) / static_cast<double>(count);
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    std::printf("count %ld ns %.1f voluntary %ld involuntary %ld\n", count, ns, usage.ru_nvcsw, usage.ru_nivcsw);
    std::fflush(stdout);
    ::_exit(0);
}
