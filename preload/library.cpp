// The library's life in its target: greeted first of all libraries (linked with -z initfirst), so that even the others'
// constructors are recorded, and unloaded last.

#include <errno.h>
#include <stdint.h>

#include "preload/counting.h"
#include "preload/journal.h"
#include "preload/real.h"

/// For tracers: 1 once the loader has done its work. Before that nothing here may be called.
extern "C" __attribute__((visibility("default"))) uint32_t vntJournalReady;
uint32_t vntJournalReady;

namespace {

__attribute__((constructor)) void begin(int, char**, char** environment) // arguments: the GNU C library's
{
    const int error = errno;
    (void)vnt::haveReal();
    vnt::findCountingFunctions();
    vnt::journal::greetCollector(environment);
    __atomic_store_n(&vntJournalReady, 1u, __ATOMIC_RELEASE);
    errno = error;
}

__attribute__((destructor)) void end() { vnt::journal::awaitCollector(); }

} // namespace
