// A library for heapchanges: makes blocks and frees them, and reports itself to the program that loads it.

#include <stdlib.h>

namespace {

constexpr size_t kPluginBytes = 4327;

} // namespace

extern "C" __attribute__((weak)) void reportPlugin(void (*function)(int));

extern "C" __attribute__((visibility("default"), noinline)) void makeBlocks(int count)
{
    for (int i = 0; i < count; ++i) {
        void* volatile block = ::malloc(kPluginBytes);
        ::free(block);
    }
}

__attribute__((constructor)) static void begin()
{
    if (reportPlugin)
        reportPlugin(makeBlocks);
}
