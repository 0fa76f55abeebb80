// How a recording begins and ends in its target: at the start of a program, or within one that runs.

#include <errno.h>
#include <linux/futex.h>
#include <linux/membarrier.h>
#include <linux/stat.h>
#include <sys/mman.h>
#include <time.h>

#include "preload/LivePage.h"
#include "preload/journal.h"
#include "preload/raw.h"
#include "preload/real.h"
#include "preload/redirect.h"
#include "preload/rendezvous.h"
#include "preload/work.h"

#define VNT_EXPORT extern "C" __attribute__((visibility("default")))

namespace vnt::journal {

namespace {

constexpr size_t kPageBytes = 4096;
const LivePage kQuietPage{};
constexpr int kExitPauses = 5000; // of a tenth of a millisecond: half a second
constexpr int64_t kLeaveNs = 50'000'000; // a record takes less than a microsecond of processor time

/// The session's memory.
struct Mapped {
    Shared* shared;
    size_t bytes;
};

/// A descriptor that was made for a collector, until it is used: the collector may have died before.
struct Made {
    int32_t descriptor;
    uint32_t device;
    uint64_t inode; ///< 0: there is none
};

LivePage* page; // what `live` points to, once there is one
uint32_t sessions; // begun; not wiped by a fork, so that no number comes twice in a thread
Mapped mapped; // what page->shared leads to; not wiped either: a fork's child has it, too
Made made;

bool ensurePage()
{
    if (page)
        return true;
    void* place = ::mmap(nullptr, kPageBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (place == MAP_FAILED)
        return false;
    // Without the wiping (Linux before 4.14) a fork's child could not be told from us: then nothing is recorded.
    if (::madvise(place, kPageBytes, MADV_WIPEONFORK) != 0) {
        (void)::munmap(place, kPageBytes);
        return false;
    }
    page = static_cast<LivePage*>(place);
    __atomic_store_n(&live, page, __ATOMIC_RELEASE);
    return true;
}

void beginSession(const Memory& memory)
{
    if (page->session == 0) { // the first, or this is a fork's child: its parent's other threads are not here
        for (Presence& presence : presences) {
            store(presence.inside, 0u);
            store(presence.owner, 0u);
        }
        store(strangers, 0u);
        page->firstSession = sessions + 1;
    }
    mapped = {memory.shared, static_cast<size_t>(totalBytes(memory.ringCount))};
    page->process = static_cast<uint32_t>(raw::call(SYS_getpid));
    store(page->session, ++sessions);
    page->rings = memory.rings;
    page->ringCount = memory.ringCount;
    page->usesTsc = memory.flags & kClockIsTsc;
    page->keepsZombies = memory.flags & kKeepZombies;
    page->eventsMask = memory.eventsMask;
    page->shared = memory.shared;
    __atomic_store_n(&page->recording, 1u, __ATOMIC_RELEASE);
}

void pause()
{
    timespec time{0, 100'000};
    (void)raw::call(SYS_nanosleep, raw::argument(&time), 0);
}

int64_t nowNs()
{
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

bool isAnybodyInside()
{
    if (__atomic_load_n(&strangers, __ATOMIC_ACQUIRE) != 0)
        return true;
    for (const Presence& presence : presences) {
        if (__atomic_load_n(&presence.inside, __ATOMIC_ACQUIRE) != 0)
            return true;
    }
    return false;
}

/// Nobody begins to use the session's memory any more; true when nobody does now. A thread shows its presence, then
/// looks at `recording`; we clear that, then look at presences: the barrier on every processor spares the threads one
/// each.
bool endSession()
{
    store(page->recording, 0u);
    if (raw::failed(raw::call(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0))
        && raw::failed(raw::call(SYS_membarrier, MEMBARRIER_CMD_GLOBAL, 0, 0)))
        return false;
    // No sleep: on a borrowed thread it would make the kernel forget how to go on with the wait that we interrupted
    // (restart_syscall(2)).
    const int64_t deadline = nowNs() + kLeaveNs;
    while (isAnybodyInside()) {
        if (nowNs() > deadline)
            return false;
        (void)raw::call(SYS_sched_yield);
    }
    return true;
}

void giveMemoryBack()
{
    page->shared = nullptr;
    page->rings = nullptr;
    const Mapped memory = mapped;
    mapped = {}; // first: who forks in between must not take it for his
    if (memory.shared)
        (void)::munmap(memory.shared, memory.bytes);
}

/// In a fork's child: what its parent was recorded into. It stays where the thread that forked may have done so from
/// within a record (in a signal handler), and may come back to it.
void dropParentsMemory()
{
    if (page->session == 0 && mapped.shared && !isAnybodyInside())
        giveMemoryBack();
}

bool identify(int32_t descriptor, Made& file)
{
    struct statx about { }; // the same for both widths, where others are not
    if (raw::failed(raw::call(SYS_statx, descriptor, raw::argument(""), 0x1000, STATX_INO, raw::argument(&about))))
        return false; // 0x1000: AT_EMPTY_PATH, openat(2)
    file = {descriptor, about.stx_dev_minor, about.stx_ino};
    return true;
}

/// Unless the target has closed it, and perhaps uses its number for something else.
void closeMade()
{
    Made now{};
    if (made.inode != 0 && identify(made.descriptor, now) && now.device == made.device && now.inode == made.inode)
        (void)raw::call(SYS_close, made.descriptor);
    made = {};
}

int32_t makeMemory()
{
    constexpr unsigned kCloseOnExecAndSealable = 1 | 2; // memfd_create(2)
    closeMade();
    const long descriptor =
        raw::call(SYS_memfd_create, raw::argument("vantora-heap"), static_cast<long>(kCloseOnExecAndSealable));
    if (raw::failed(descriptor) || identify(static_cast<int32_t>(descriptor), made))
        return static_cast<int32_t>(descriptor);
    (void)raw::call(SYS_close, descriptor);
    return -ENOSYS;
}

/// The journal of a collector that is gone does not stand in the way of another.
bool mayTakeOver(AttachRequest& request)
{
    if (!page || load(page->recording) == 0)
        return true;
    request.beat = load(page->shared->beat);
    return !isWanted(*page) || ((request.flags & kTakeOver) != 0 && request.beat == request.deadBeat);
}

int32_t attach(AttachRequest& request)
{
    if (request.magic != kMagic || request.version != kVersion)
        return kJournalForeign;
    if (!mayTakeOver(request))
        return kJournalBusy;
    if (!ensurePage() || !haveReal())
        return kJournalUnsound;
    // The first makes the barrier of the end cheap for everybody; without it that one is tried all the same.
    (void)raw::call(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0);
    dropParentsMemory();
    if (page->shared) { // of a collector that is gone, or that a thread was still using when it left
        if (!endSession())
            return kJournalStraying;
        giveMemoryBack();
    }
    if (isLate()) { // first, as it may wait for a lock: what leads here already is passed on
        redirectCounting((request.eventsMask & kCountEvents) != 0);
        const Redirected redirected = redirectModules();
        request.redirected = redirected.places;
        request.refused = redirected.refused;
        if (redirected.places == 0)
            return kJournalNothing;
    }
    Welcome welcome{kMagic, kVersion, 1, request.eventsMask, request.flags & kClockIsTsc};
    const Memory memory = mapMemory(request.descriptor, welcome);
    if (!memory.shared) {
        if (isLate())
            restoreModules();
        return kJournalUnsound;
    }
    beginSession(memory);
    return 0;
}

int32_t detach()
{
    closeMade();
    if (isLate())
        restoreModules();
    if (!page || !page->shared)
        return 0;
    if (!endSession())
        return kJournalStraying;
    giveMemoryBack();
    return 0;
}

} // namespace

const LivePage* live = &kQuietPage;
Presence presences[kPresences];
uint32_t strangers;

void greetCollector(char** environment)
{
    const Memory memory = askForMemory(environment);
    if (memory.shared && ensurePage())
        beginSession(memory);
}

void awaitCollector()
{
    const LivePage& current = *live;
    if (load(current.recording) == 0)
        return;
    __atomic_fetch_add(&strangers, 1, __ATOMIC_SEQ_CST);
    if (isRecording(current) && isWanted(current)) {
        Shared& shared = *current.shared;
        __atomic_store_n(&shared.exitAsked, 1u, __ATOMIC_RELEASE);
        for (int i = 0; i < kExitPauses && load(shared.exitAnswered) == 0 && isWanted(current); ++i) {
            wakeCollector(shared);
            pause();
        }
    }
    __atomic_fetch_sub(&strangers, 1, __ATOMIC_SEQ_CST);
}

} // namespace vnt::journal

using namespace vnt;
using namespace vnt::journal;

/// Answers the request by `function`, whatever that does to errno.
template <typename Function> static void answer(AttachRequest& request, Function function)
{
    const int error = errno;
    request.errorPlace = reinterpret_cast<uintptr_t>(&errno);
    request.result = kJournalAtWork;
    request.worker = static_cast<uint32_t>(raw::call(SYS_gettid));
    request.workPlace = reinterpret_cast<uintptr_t>(workPlace());
    if (beginWork() != 0) {
        request.result = function();
        endWork();
    }
    request.answered = 1;
    errno = error;
}

VNT_EXPORT void vntJournalMemory(AttachRequest* request) { answer(*request, makeMemory); }

VNT_EXPORT void vntJournalAttach(AttachRequest* request)
{
    answer(*request, [request] {
        const int32_t result = attach(*request);
        closeMade();
        return result;
    });
}

VNT_EXPORT void vntJournalDetach(AttachRequest* request) { answer(*request, detach); }
