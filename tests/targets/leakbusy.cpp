// Threads that allocate, reallocate and free without a pause, all of it held, beside a few blocks that are lost: 12 of
// 40 bytes. Says so whenever each thread has gone round once more, until it is ended.
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#define NOINLINE __attribute__((noinline))

struct Item {
    Item* next;
    char* text;
};

static const int kThreads = 4;
static volatile unsigned long rounds[kThreads];

static NOINLINE void lose()
{
    for (int i = 0; i < 12; ++i) {
        void* lost = memset(malloc(40), 0x11, 40);
        asm volatile("" : "+r"(lost)::"memory");
    }
}

static NOINLINE void scrub()
{
    volatile char space[65536];
    for (size_t i = 0; i < sizeof space; ++i)
        space[i] = 0;
}

/// A list whose texts grow by realloc, so that blocks move; then all of it is given back.
static NOINLINE void work(unsigned seed)
{
    Item* first = nullptr;
    for (int i = 0; i < 20; ++i) {
        auto* item = static_cast<Item*>(calloc(1, sizeof(Item)));
        item->next = first;
        first = item;
        item->text = static_cast<char*>(malloc(24));
    }
    for (int grow = 2; grow < 40; ++grow) {
        for (Item* item = first; item; item = item->next) {
            item->text = static_cast<char*>(realloc(item->text, 24u * static_cast<unsigned>(grow) + seed % 7));
            item->text[0] = 'a';
        }
        // A table that moves while it alone holds blocks.
        void** table = static_cast<void**>(calloc(4, sizeof(void*)));
        table[0] = calloc(1, 80);
        table = static_cast<void**>(realloc(table, 4096));
        free(table[0]);
        free(table);
    }
    while (first) {
        Item* next = first->next;
        free(first->text);
        free(first);
        first = next;
    }
}

static void* body(void* number)
{
    const auto thread = reinterpret_cast<size_t>(number);
    for (;;) {
        work(static_cast<unsigned>(rounds[thread]));
        rounds[thread] = rounds[thread] + 1;
    }
}

int main()
{
    lose();
    scrub();
    for (size_t i = 0; i < kThreads; ++i) {
        pthread_t thread;
        pthread_create(&thread, nullptr, body, reinterpret_cast<void*>(i));
    }
    printf("ready\n");
    fflush(stdout);
    for (;;) {
        unsigned long before[kThreads];
        for (int i = 0; i < kThreads; ++i)
            before[i] = rounds[i];
        for (int i = 0; i < kThreads; ++i) {
            while (rounds[i] == before[i])
                usleep(1000);
        }
        printf("going on\n");
        fflush(stdout);
    }
}
