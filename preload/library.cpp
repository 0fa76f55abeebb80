// The library's life in its target: greeted first of all libraries (linked with -z initfirst), so that even the others'
// constructors are recorded, and unloaded last.

#include <errno.h>

#include "preload/counting.h"
#include "preload/journal.h"
#include "preload/real.h"

namespace {

__attribute__((constructor)) void begin(int, char**, char** environment) // arguments: the GNU C library's
{
    const int error = errno;
    (void)vnt::haveReal();
    vnt::findCountingFunctions();
    vnt::journal::greetCollector(environment);
    errno = error;
}

__attribute__((destructor)) void end() { vnt::journal::awaitCollector(); }

} // namespace
