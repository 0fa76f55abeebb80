// Loses blocks of its heap on purpose, keeps others in every way a program can, and says which: one line
// "leaks: FUNCTION BLOCKS BYTES KIND" for each function that loses some. Everything else is held.
//   leaktruth exit     ends by itself
//   leaktruth wait     waits to be ended; each SIGUSR1 loses 3 more blocks
//   leaktruth killed   ends by a signal
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#define NOINLINE __attribute__((noinline))

struct Node {
    Node* next;
    Node* before;
    void* payload;
};

static volatile int ready; // threads that hold their block
static volatile int stop;
static volatile sig_atomic_t more;

/// No trace of what was called before is left on the stack or in a register that nobody saves.
static NOINLINE void scrub()
{
    volatile char space[65536];
    for (size_t i = 0; i < sizeof space; ++i)
        space[i] = 0;
    asm volatile("pxor %%xmm0, %%xmm0\n pxor %%xmm1, %%xmm1\n pxor %%xmm2, %%xmm2\n pxor %%xmm3, %%xmm3\n"
                 "pxor %%xmm4, %%xmm4\n pxor %%xmm5, %%xmm5\n pxor %%xmm6, %%xmm6\n pxor %%xmm7, %%xmm7" ::
                     : "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7");
}

static void* filled(void* block, size_t size)
{
    memset(block, 0x11, size); // no old pointers in it
    asm volatile("" : "+r"(block)::"memory"); // for all the compiler knows, somebody reads it
    return block;
}

// --- What is lost ---

static NOINLINE void directBlocks()
{
    // This size ends where the header of the block behind begins, to which the allocator's own lists point.
    for (int i = 0; i < 100; ++i)
        filled(malloc(40), 40);
}

static NOINLINE void lostList()
{
    Node* first = nullptr;
    for (int i = 0; i < 50; ++i) {
        auto* node = static_cast<Node*>(filled(malloc(sizeof(Node)), sizeof(Node)));
        node->next = first;
        first = node;
    }
}

static NOINLINE Node* cycleNode() { return static_cast<Node*>(filled(malloc(sizeof(Node)), sizeof(Node))); }

static NOINLINE void* cyclePayload() { return filled(calloc(1, 100), 100); }

static NOINLINE void lostCycle()
{
    Node* nodes[10];
    for (Node*& node : nodes)
        node = cycleNode();
    for (int i = 0; i < 10; ++i) {
        nodes[i]->next = nodes[(i + 1) % 10];
        nodes[i]->before = nodes[(i + 9) % 10];
        nodes[i]->payload = cyclePayload();
    }
}

/// A block that points to its own middle only is no cycle.
static NOINLINE void selfPointer()
{
    auto** block = static_cast<void**>(filled(malloc(64), 64));
    block[0] = block + 4;
}

static NOINLINE void largeBlock() { filled(malloc(300000), 300000); }

static NOINLINE void belowStackPointer()
{
    volatile char depth[200000];
    void* volatile* kept = reinterpret_cast<void* volatile*>(const_cast<char*>(depth) + 4096);
    kept = reinterpret_cast<void* volatile*>((reinterpret_cast<size_t>(kept) + 15) & ~size_t{15});
    *kept = filled(malloc(72), 72);
}

/// What only a freed block points to.
static NOINLINE void heldByFreed()
{
    auto** holder = static_cast<void**>(filled(malloc(1200), 1200)); // too large to be handed out again at once
    holder[70] = filled(malloc(88), 88);
    free(holder);
}

static NOINLINE void* endedThread(void*)
{
    void* volatile kept[64];
    kept[10] = filled(malloc(104), 104);
    return kept[10] == nullptr ? kept[10] : nullptr;
}

static NOINLINE void lostByThread()
{
    pthread_t thread;
    pthread_create(&thread, nullptr, endedThread, nullptr);
    pthread_join(thread, nullptr);
}

static NOINLINE void lostLater()
{
    for (int i = 0; i < 3; ++i)
        filled(malloc(56), 56);
}

// --- What is held ---

void* inGlobal;
void* interior;
void* lastByte;
void** chain;
__thread void* inThreadLocal;

static NOINLINE void* held(size_t size) { return filled(malloc(size), size); }

static NOINLINE void holdInGlobals()
{
    inGlobal = held(40);
    interior = static_cast<char*>(held(40)) + 17;
    lastByte = static_cast<char*>(held(400000)) + 399999; // the last byte of one that has pages of its own
    chain = static_cast<void**>(held(64));
    chain[7] = held(24);
}

/// Memory that the program asked the kernel for itself.
static NOINLINE void holdInMapping()
{
    void* mapping = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static_cast<void**>(mapping)[1000] = held(40);
    void* guarded = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    static_cast<void**>(guarded)[1000] = held(40);
    mprotect(guarded, 65536, PROT_NONE);
}

static NOINLINE void* holdInRegister(void*)
{
    void* block = held(48);
    scrub();
    __sync_fetch_and_add(&ready, 1);
    asm volatile("1: pause\n cmpl $0, %1\n je 1b" : "+r"(block) : "m"(stop) : "memory");
    free(block);
    return nullptr;
}

static NOINLINE void* holdInVector(void*)
{
    void* block = held(48);
#ifdef __x86_64__
    asm volatile("movq %0, %%xmm7" ::"r"(block) : "xmm7");
#else
    asm volatile("movd %0, %%xmm7" ::"r"(block) : "xmm7");
#endif
    asm volatile("xor %0, %0" : "+r"(block));
    __sync_fetch_and_add(&ready, 1);
    asm volatile("1: pause\n cmpl $0, %0\n je 1b" ::"m"(stop) : "memory");
    return nullptr;
}

static NOINLINE void waitForStop()
{
    while (!stop)
        usleep(1000);
}

static NOINLINE void* holdOnStack(void*)
{
    void* volatile kept[4] = {};
    kept[2] = held(48);
    scrub();
    __sync_fetch_and_add(&ready, 1);
    waitForStop();
    free(kept[2]);
    return nullptr;
}

static NOINLINE void* holdInThreadLocal(void*)
{
    inThreadLocal = held(48);
    scrub();
    __sync_fetch_and_add(&ready, 1);
    waitForStop();
    return nullptr;
}

static void startThreads()
{
    using Body = void* (*)(void*);
    int started = 0;
    const Body bodies[] = {holdInRegister, holdInVector, holdOnStack, holdInThreadLocal};
    for (const Body body : bodies) {
        pthread_t thread;
        pthread_create(&thread, nullptr, body, nullptr);
        ++started;
    }
    while (ready < started)
        usleep(1000);
}

static NOINLINE void say()
{
    printf("leaks: directBlocks 100 4000 direct\n");
    printf("leaks: lostList 1 %zu direct\n", sizeof(Node));
    printf("leaks: lostList 49 %zu indirect\n", 49 * sizeof(Node));
    printf("leaks: cycleNode 10 %zu cycle\n", 10 * sizeof(Node));
    printf("leaks: cyclePayload 10 1000 indirect\n");
    printf("leaks: selfPointer 1 64 direct\n");
    printf("leaks: largeBlock 1 300000 direct\n");
    printf("leaks: belowStackPointer 1 72 direct\n");
    printf("leaks: heldByFreed 1 88 direct\n");
    printf("leaks: endedThread 1 104 direct\n");
    printf("ready\n");
    fflush(stdout);
}

int main(int argc, char** argv)
{
    const char* mode = argc > 1 ? argv[1] : "exit";
    signal(SIGUSR1, [](int) { more = 1; });
    void* volatile onMainStack = held(40);
    lostByThread();
    startThreads();
    holdInGlobals();
    holdInMapping();
    void (*const losses[])() = {directBlocks, lostList, lostCycle, selfPointer, largeBlock, heldByFreed};
    for (void (*const lose)() : losses) {
        lose();
        scrub();
    }
    belowStackPointer();
    say();
    if (strcmp(mode, "killed") == 0)
        raise(SIGKILL);
    while (strcmp(mode, "wait") == 0) {
        usleep(1000);
        if (!more)
            continue;
        more = 0;
        lostLater();
        scrub();
        printf("more\n");
        fflush(stdout);
    }
    exit(onMainStack == nullptr);
}
