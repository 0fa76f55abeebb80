#include "preload/work.h"

#include <errno.h>

#include "preload/raw.h"

namespace vnt::journal {

static uint32_t worker; // 0: nobody

uint32_t beginWork()
{
    const auto self = static_cast<uint32_t>(raw::call(SYS_gettid));
    uint32_t other = __atomic_load_n(&worker, __ATOMIC_RELAXED);
    // In a fork's child the parent's thread is none of this process.
    if (other != 0 && other != self && raw::call(SYS_tgkill, raw::call(SYS_getpid), other, 0) != -ESRCH)
        return 0;
    return __atomic_compare_exchange_n(&worker, &other, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED) ? self : 0;
}

void endWork() { __atomic_store_n(&worker, 0u, __ATOMIC_RELEASE); }

const uint32_t* workPlace() { return &worker; }

} // namespace vnt::journal
