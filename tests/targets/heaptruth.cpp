// Allocates in ways of which it knows the numbers, says them, and ends. Allocates nothing else itself.
//
//   heaptruth [what...]     default: all that is deterministic
//   heaptruth attach        the same between two lines that it reads
//
// For each function that allocates, one line "heap: FUNCTION ALLOCATIONS BYTES LIVE_BLOCKS".

#include <malloc.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <new>

#define OWN __attribute__((noinline, noclone))

namespace {

void* volatile sink; // keeps allocations from being optimised away

void say(const char* function, long allocations, long bytes, long live)
{
    char line[128];
    const int length = ::snprintf(line, sizeof line, "heap: %s %ld %ld %ld\n", function, allocations, bytes, live);
    if (::write(1, line, static_cast<size_t>(length)) < 0)
        ::_exit(9);
}

} // namespace

OWN void plainBlocks()
{
    for (int i = 0; i < 1000; ++i) {
        void* block = ::malloc(100);
        sink = block;
        if (i % 10 != 0)
            ::free(block);
    }
    say("plainBlocks", 1000, 100'000, 100);
}

OWN void zeroedBlocks()
{
    for (int i = 0; i < 50; ++i) {
        void* block = ::calloc(10, 7);
        sink = block;
        ::free(block);
    }
    say("zeroedBlocks", 50, 3500, 0);
}

/// A block that grows: each step is an allocation and a free.
OWN void growingBlock()
{
    void* block = nullptr;
    long bytes = 0;
    for (int i = 1; i <= 40; ++i) {
        const size_t size = static_cast<size_t>(i) * 1000;
        block = i % 2 == 0 ? ::realloc(block, size) : ::reallocarray(block, static_cast<size_t>(i), 1000);
        sink = block;
        bytes += static_cast<long>(size);
    }
    if (::realloc(block, SIZE_MAX / 2)) // fails, and the block lives
        ::_exit(8);
    ::free(block); // known, although it was on its way
    say("growingBlock", 40, bytes, 0);
}

OWN void innermost()
{
    void* block = ::malloc(10);
    sink = block;
    ::free(block);
}

OWN void fewTimes()
{
    for (int i = 0; i < 10; ++i)
        innermost();
}

OWN void manyTimes()
{
    for (int i = 0; i < 30; ++i)
        innermost();
}

OWN void either(bool many) { many ? manyTimes() : fewTimes(); }

/// The same frames at the same places, but for one in the middle.
OWN void alikeStacks()
{
    either(false);
    either(true);
    say("innermost", 40, 400, 0);
}

OWN void alignedBlocks()
{
    void* block = nullptr;
    for (int i = 0; i < 10; ++i) {
        if (::posix_memalign(&block, 256, 300) != 0)
            ::_exit(7);
        sink = block;
        ::free(block);
        sink = block = ::aligned_alloc(64, 640);
        ::free(block);
        sink = block = ::memalign(512, 5);
        ::free(block);
        sink = block = ::valloc(1);
        ::free(block);
#ifdef VNT_WITHOUT_PVALLOC // another allocator than libc's, which may lack this one
        sink = block = ::valloc(4096);
#else
        sink = block = ::pvalloc(4096);
#endif
        ::free(block);
    }
    say("alignedBlocks", 50, 10 * (300 + 640 + 5 + 1 + 4096), 0);
}

namespace {
long comparisons;
}

OWN int compareAndAllocate(const void* a, const void* b)
{
    void* block = ::malloc(21);
    sink = block;
    ::free(block);
    ++comparisons;
    return *static_cast<const int*>(a) - *static_cast<const int*>(b);
}

/// The way from here to the allocation leads through the C library, which keeps no frame pointers.
OWN void sortThroughLibrary()
{
    int numbers[50];
    for (int i = 0; i < 50; ++i)
        numbers[i] = i * 7919 % 101;
    ::qsort(numbers, 50, sizeof numbers[0], compareAndAllocate);
    say("compareAndAllocate", comparisons, comparisons * 21, 0);
}

struct alignas(128) Wide {
    char bytes[128];
};

/// Every form of new, each with the form of delete that belongs to it.
OWN void newAndDelete()
{
    auto alignment = std::align_val_t(128);
    for (int i = 0; i < 20; ++i) {
        void* blocks[] = {::operator new(24),
                          ::operator new[](25),
                          ::operator new(26, std::nothrow),
                          ::operator new[](27, std::nothrow),
                          ::operator new(128, alignment),
                          ::operator new[](256, alignment),
                          ::operator new(128, alignment, std::nothrow),
                          ::operator new[](256, alignment, std::nothrow)};
        sink = blocks;
        ::operator delete (blocks[0], size_t{24});
        ::operator delete[](blocks[1], size_t{25});
        ::operator delete(blocks[2], std::nothrow);
        ::operator delete[](blocks[3], std::nothrow);
        ::operator delete (blocks[4], size_t{128}, alignment);
        ::operator delete[](blocks[5], size_t{256}, alignment);
        ::operator delete(blocks[6], alignment, std::nothrow);
        ::operator delete[](blocks[7], alignment, std::nothrow);
        int* one = new int(i);
        sink = one;
        delete one;
        Wide* wide = new Wide[2];
        sink = wide;
        delete[] wide;
    }
    say("newAndDelete", 200, 20 * (24 + 25 + 26 + 27 + 128 + 256 + 128 + 256 + 4 + 256), 0);
}

namespace {
constexpr int kThreads = 8;
constexpr int kBlocksPerThread = 5000;
constexpr int kExchange = 64;
void* exchange[kExchange]; // blocks that one thread allocates and another frees
} // namespace

OWN void* threadBlocks(void* seed)
{
    auto state = reinterpret_cast<uintptr_t>(seed) * 2654435761u + 1;
    for (int i = 0; i < kBlocksPerThread; ++i) {
        void* block = ::malloc(48);
        state = state * 1103515245u + 12345u;
        ::free(__atomic_exchange_n(&exchange[(state >> 8) % kExchange], block, __ATOMIC_ACQ_REL));
    }
    return nullptr;
}

OWN void manyThreads()
{
    pthread_t threads[kThreads];
    for (uintptr_t i = 0; i < kThreads; ++i)
        ::pthread_create(&threads[i], nullptr, threadBlocks, reinterpret_cast<void*>(i + 1));
    for (pthread_t thread : threads)
        ::pthread_join(thread, nullptr);
    for (void*& block : exchange) {
        ::free(block);
        block = nullptr;
    }
    say("threadBlocks", long{kThreads} * kBlocksPerThread, 48L * kThreads * kBlocksPerThread, 0);
}

/// More threads, one after the other, than can be recorded at a time.
OWN void* oneBlock(void*)
{
    void* block = ::malloc(33);
    sink = block;
    ::free(block);
    return nullptr;
}

OWN void manyShortThreads()
{
    constexpr int kCount = 600;
    for (int i = 0; i < kCount; ++i) {
        pthread_t thread;
        ::pthread_create(&thread, nullptr, oneBlock, nullptr);
        ::pthread_join(thread, nullptr);
    }
    say("oneBlock", kCount, kCount * 33L, 0);
}

/// What children do is not recorded, and the parent's numbers stay right: fork, vfork and exec.
OWN void childBlocks()
{
    for (int i = 0; i < 100; ++i) {
        void* block = ::malloc(77);
        sink = block;
        ::free(block);
    }
}

OWN void children(const char* self)
{
    childBlocks();
    for (int i = 0; i < 10; ++i) {
        const pid_t child = i % 2 == 0 ? ::fork() : ::vfork();
        if (child == 0) {
            if (i % 2 == 0) {
                childBlocks();
                ::_exit(0);
            }
            ::execl(self, self, "quiet", nullptr);
            ::_exit(1);
        }
        int status = 0;
        if (child < 0 || ::waitpid(child, &status, 0) != child || status != 0)
            ::_exit(6);
    }
    say("childBlocks", 100, 7700, 0);
}

namespace {
volatile sig_atomic_t handled;
}

OWN void handlerBlocks(int)
{
    void* block = ::malloc(19);
    sink = block;
    ::free(block);
    handled = handled + 1;
}

/// A handler that allocates interrupts code that does not.
OWN void signals()
{
    ::signal(SIGUSR1, handlerBlocks);
    for (int i = 0; i < 500; ++i)
        ::raise(SIGUSR1);
    say("handlerBlocks", handled, handled * 19L, 0);
}

OWN void* makeBlock() { return ::malloc(40); }
OWN void freeBlock(void* block) { ::free(block); }
OWN void freeAgain(void* block) { ::free(block); }

/// One block is freed twice, and one is written to after its free; then enough is freed for that to be noticed.
OWN void misuse()
{
    void* twice = makeBlock();
    sink = twice;
    freeBlock(twice);
    freeAgain(const_cast<void*>(sink));
    auto* written = static_cast<char*>(makeBlock());
    sink = written;
    freeBlock(written);
    static_cast<volatile char*>(const_cast<void*>(sink))[20] = 1;
    for (int i = 0; i < 40'000; ++i)
        freeBlock(makeBlock());
    say("makeBlock", 40'002, 40'002L * 40, 0);
}

namespace {
volatile bool stormOver;
}

OWN void* stormBlocks(void*)
{
    long count = 0;
    while (!stormOver || count < 1000) {
        void* block = ::malloc(static_cast<size_t>(count % 500));
        sink = block;
        block = ::realloc(block, static_cast<size_t>(count % 700 + 1));
        sink = block;
        ::free(block);
        ++count;
    }
    return nullptr;
}

OWN void ignoreSignal(int) { }

/// Threads allocate while others fork, signals interrupt everything, and threads end. Only that it ends well counts.
OWN void storm()
{
    ::signal(SIGALRM, ignoreSignal);
    const itimerval often{{0, 500}, {0, 500}};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    pthread_t threads[4];
    for (pthread_t& thread : threads)
        ::pthread_create(&thread, nullptr, stormBlocks, nullptr);
    for (int i = 0; i < 100; ++i) {
        const pid_t child = ::fork();
        if (child == 0) {
            childBlocks();
            ::_exit(3);
        }
        int status = 0;
        while (::waitpid(child, &status, 0) != child) { }
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 3)
            ::_exit(5);
        pthread_t thread;
        ::pthread_create(&thread, nullptr, oneBlock, nullptr);
        ::pthread_join(thread, nullptr);
    }
    stormOver = true;
    for (pthread_t thread : threads)
        ::pthread_join(thread, nullptr);
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    say("oneBlock", 100, 3300, 0);
}

__attribute__((constructor)) OWN void earlyBlocks()
{
    for (int i = 0; i < 30; ++i)
        sink = ::malloc(11);
}

OWN void deterministic()
{
    plainBlocks();
    zeroedBlocks();
    growingBlock();
    alikeStacks();
    alignedBlocks();
    sortThroughLibrary();
    newAndDelete();
    manyThreads();
    manyShortThreads();
    signals();
}

/// Says it, and waits for a line.
OWN void waitForWord(const char* word)
{
    if (::write(1, word, ::strlen(word)) < 0 || ::write(1, "\n", 1) < 0)
        ::_exit(4);
    char byte = 0;
    while (::read(0, &byte, 1) == 1 && byte != '\n') { }
}

int main(int argc, char** argv)
{
    if (argc > 1 && ::strcmp(argv[1], "quiet") == 0) {
        childBlocks();
        return 0;
    }
    if (argc > 1 && ::strcmp(argv[1], "exec") == 0) {
        childBlocks(); // belongs to the program before
        ::execl(argv[0], argv[0], "after-exec", nullptr);
        return 1;
    }
    if (argc > 1 && ::strcmp(argv[1], "misuse") == 0) {
        misuse();
        return 0;
    }
    if (argc > 1 && ::strcmp(argv[1], "attach") == 0) {
        waitForWord("ready");
        deterministic();
        waitForWord("done");
        return 0;
    }
    if (argc > 1 && ::strcmp(argv[1], "storm") == 0) {
        storm();
        return 0;
    }
    say("earlyBlocks", 30, 330, 30);
    deterministic();
    if (argc == 1)
        children(argv[0]);
    return 0;
}
