// Allocates, and is linked statically; with an argument it says a line and waits for the end of its input.

#include <stdlib.h>
#include <unistd.h>

int main(int argc, char**)
{
    char byte = 0;
    if (argc > 1 && ::write(1, "ready\n", 6) == 6)
        while (::read(0, &byte, 1) > 0) { }
    void* volatile sink = nullptr;
    for (int i = 0; i < 100; ++i) {
        sink = ::malloc(10);
        ::free(sink);
    }
    return 0;
}
