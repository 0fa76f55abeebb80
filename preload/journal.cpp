#include "preload/journal.h"

#include <errno.h>
#include <linux/futex.h>
#include <time.h>

#include "preload/LivePage.h"
#include "preload/StackMemory.h"
#include "preload/raw.h"
#include "preload/walkStack.h"

namespace vnt::journal {

namespace {

constexpr long kPauseNs = 100'000;
constexpr int kLongestPauses =
    1000; // 0.1 s and more: a collector that is given a processor makes room in a fraction of it
constexpr uint32_t kWakeWords = kRingWords / 4;
/// A collector whose beat stands still over this many full-ring waits is dead. It beats even while it waits.
constexpr uint32_t kDeadWaits = 20; // 2 s and more
constexpr uint32_t kLossesBetweenWaits = 1u << 14;

// ThreadState::inside
constexpr uint8_t kBeginning = 1;
constexpr uint8_t kShown = 2; ///< the thread's Presence is seen

struct ThreadState {
    Ring* ring;
    Presence* presence; ///< valid from LivePage::firstSession on
    uint32_t session; ///< of LivePage, that the ring belongs to
    uint32_t toldSession; ///< of LivePage, in which the thread's id stands in the ring
    uint32_t head; ///< of the ring, as we wrote it
    uint32_t tail; ///< as last seen
    uint8_t inside; ///< not 0: a record is being made, and what a signal handler does meanwhile is counted only
    bool withoutRing; ///< there was none free
    bool lossy; ///< events are being lost: no further wait until half of the ring is free
    uint32_t lostInARow;
    uint32_t waitsWithoutBeat;
    uint32_t lastBeat;
    StackRange stack;
};

/// What a thread needs beside its ring and the collector has no business in.
struct OwnMemory {
    WalkedStack stack;
    alignas(16) uint8_t stackCopy[16384];
};
static_assert(sizeof(OwnMemory) <= sizeof(Ring::rest));

// One block of thread-local memory that exists from the thread's start to its last instruction.
__thread ThreadState thread __attribute__((tls_model("initial-exec")));

uint64_t now(const LivePage& page)
{
    if (__builtin_expect(page.usesTsc != 0, 1)) {
        // The fence keeps the reading behind the allocator's own work, so that an allocation of memory which another
        // thread freed is never dated before that free.
        __builtin_ia32_lfence();
        return __builtin_ia32_rdtsc();
    }
    timespec time{};
    ::clock_gettime(CLOCK_MONOTONIC, &time); // in the vdso, or a system call that cannot fail
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(time.tv_nsec);
}

void pause()
{
    timespec time{0, kPauseNs};
    (void)raw::call(SYS_nanosleep, raw::argument(&time), 0);
}

Ring* claimFreeRing(const LivePage& page, uint32_t tid)
{
    for (uint32_t i = 0; i < page.ringCount; ++i) {
        RingHeader& header = page.rings[i].header;
        uint32_t nobody = 0;
        if (load(header.owner) != 0
            || !__atomic_compare_exchange_n(&header.owner, &nobody, tid, false, __ATOMIC_RELAXED, __ATOMIC_RELAXED))
            continue;
        uint32_t used = load(page.shared->ringsUsed);
        while (used <= i
               && !__atomic_compare_exchange_n(&page.shared->ringsUsed, &used, i + 1, false, __ATOMIC_RELEASE,
                                               __ATOMIC_RELAXED)) { }
        return &page.rings[i];
    }
    return nullptr;
}

inline void leave()
{
    __atomic_store_n(&thread.presence->inside, 0u, __ATOMIC_RELEASE); // pairs with isAnybodyInside()
    __atomic_signal_fence(__ATOMIC_SEQ_CST);
    thread.inside = 0;
}

/// Takes a place that nobody has, or that of a thread which has ended; also the one that had the caller's number before
/// it.
bool takeOwner(uint32_t& place, uint32_t process, uint32_t tid)
{
    uint32_t owner = load(place);
    if (owner != 0 && owner != tid && raw::call(SYS_tgkill, process, owner, 0) != -ESRCH)
        return false;
    return __atomic_compare_exchange_n(&place, &owner, tid, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

/// A thread that has ended left a ring in which another may go on.
Ring* inheritRing(const LivePage& page, uint32_t tid)
{
    for (uint32_t i = 0; i < page.ringCount; ++i) {
        if (takeOwner(page.rings[i].header.owner, page.process, tid))
            return &page.rings[i];
    }
    return nullptr;
}

Presence* takePresence(const LivePage& page, uint32_t tid)
{
    if (thread.presence && thread.session >= page.firstSession)
        return thread.presence;
    for (Presence& presence : presences) {
        if (load(presence.owner) == 0 && takeOwner(presence.owner, page.process, tid))
            return &presence;
    }
    for (Presence& presence : presences) {
        if (takeOwner(presence.owner, page.process, tid))
            return &presence;
    }
    return nullptr;
}

bool takeRing(const LivePage& page)
{
    if (thread.session == page.session)
        return !thread.withoutRing;
    const auto tid = static_cast<uint32_t>(raw::call(SYS_gettid));
    if (static_cast<uint32_t>(raw::call(SYS_getpid)) != page.process)
        return false; // a vfork's child: what it took would be given to another thread when it ends, and be ours, too
    thread.presence = takePresence(page, tid);
    thread.session = page.session;
    thread.ring = thread.presence ? claimFreeRing(page, tid) : nullptr;
    if (thread.presence && !thread.ring)
        thread.ring = inheritRing(page, tid);
    thread.withoutRing = !thread.ring;
    if (!thread.ring)
        return false;
    thread.head = load(thread.ring->header.head);
    thread.tail = load(thread.ring->header.tail);
    thread.lossy = false;
    thread.waitsWithoutBeat = 0;
    thread.stack.find(tid == page.process);
    return true;
}

/// The first record of a thread in this session; or any of one that found no ring.
[[gnu::noinline]] bool enterThread(const LivePage& page)
{
    bool entered = false;
    __atomic_fetch_add(&strangers, 1, __ATOMIC_SEQ_CST); // as a Presence; and the barrier is in it
    if (isRecording(page) && isWanted(page)) {
        entered = takeRing(page);
        if (entered)
            store(thread.presence->inside, 1u);
        else
            __atomic_fetch_add(&page.shared->unrecordedThreads, 1, __ATOMIC_RELAXED);
    }
    __atomic_fetch_sub(&strangers, 1, __ATOMIC_SEQ_CST);
    return entered;
}

[[gnu::noinline]] void countNested(const LivePage& page)
{
    // The record that was interrupted keeps the memory in place, but for one that is only about to begin.
    if (thread.inside == kShown)
        __atomic_fetch_add(&page.shared->nestedEvents, 1, __ATOMIC_RELAXED);
}

/// Begins a record of the calling thread; false: nothing is recorded.
inline bool enter(const LivePage& page)
{
    if (__builtin_expect(load(page.recording) == 0, 1))
        return false;
    if (__builtin_expect(thread.inside != 0, 0)) {
        countNested(page);
        return false;
    }
    thread.inside = kBeginning;
    __atomic_signal_fence(__ATOMIC_SEQ_CST); // a signal handler sees it
    if (__builtin_expect(thread.session != page.session || thread.withoutRing, 0)) {
        if (!enterThread(page)) {
            thread.inside = 0;
            return false;
        }
    } else {
        store(thread.presence->inside, 1u);
        __atomic_signal_fence(__ATOMIC_SEQ_CST); // endSession() has the barrier
        // Only now is it certain that what the thread knows is of this session: another may have begun meanwhile, and
        // the event is from before it.
        if (__builtin_expect(!isRecording(page) || load(page.session) != thread.session || !isWanted(page), 0)) {
            leave();
            return false;
        }
    }
    thread.inside = kShown;
    return true;
}

/// Counts the waits in which the collector gave no sign of life.
void noteWait(Shared& shared)
{
    const uint32_t beat = load(shared.beat);
    thread.waitsWithoutBeat = beat == thread.lastBeat ? thread.waitsWithoutBeat + 1 : 0;
    thread.lastBeat = beat;
    if (thread.waitsWithoutBeat >= kDeadWaits)
        store(shared.state, static_cast<uint32_t>(kOff));
}

[[gnu::noinline]] bool waitForRoom(const LivePage& page, uint32_t words)
{
    if (load(page.shared) == nullptr)
        return false; // see publish()
    RingHeader& header = thread.ring->header;
    const auto room = [&] {
        thread.tail = __atomic_load_n(&header.tail, __ATOMIC_ACQUIRE); // pairs with the collector's release
        return kRingWords - (thread.head - thread.tail);
    };
    if (room() >= words && (!thread.lossy || room() >= kRingWords / 2)) {
        thread.lossy = false;
        return true;
    }
    if (!thread.lossy || ++thread.lostInARow % kLossesBetweenWaits == 0) {
        store(header.waits, 1u);
        for (int i = 0; i < kLongestPauses && room() < words && load(page.recording) != 0 && isWanted(page); ++i) {
            wakeCollector(*page.shared);
            pause();
        }
        store(header.waits, 0u);
        if (room() >= words) {
            thread.lossy = false;
            return true;
        }
        noteWait(*page.shared);
    }
    thread.lossy = true;
    store(header.lost, load(header.lost) + 1);
    return false;
}

/// Room for `words`, or the event is counted as lost.
inline bool ensureRoom(const LivePage& page, uint32_t words)
{
    if (__builtin_expect(!thread.lossy && kRingWords - (thread.head - thread.tail) >= words, 1))
        return true;
    return waitForRoom(page, words);
}

inline void put(uint32_t offset, uint64_t word)
{
    store(thread.ring->words[(thread.head + offset) % kRingWords], word);
}

/// The record is whole: the collector may read it.
inline void publish(const LivePage& page, uint32_t words, uint64_t time)
{
    if (__builtin_expect(load(page.shared) == nullptr, 0))
        return; // a fork within a signal handler: this is the child, the record is the parent's
    const uint32_t before = thread.head;
    thread.head += words;
    store(thread.ring->header.lastTime, time);
    __atomic_store_n(&thread.ring->header.head, thread.head, __ATOMIC_RELEASE); // pairs with the collector's acquire
    __atomic_store_n(&thread.ring->header.busy, 0u, __ATOMIC_RELEASE); // behind it
    if (__builtin_expect((before ^ thread.head) >= kWakeWords, 0))
        wakeCollector(*page.shared); // each quarter of a ring
}

inline void markBusy() { store(thread.ring->header.busy, 1u); }

uint64_t packed(uint64_t low, uint32_t high) { return (low & kLowMask) | uint64_t{high} << kLowBits; }

void writeStack(const WalkedStack& stack, uint32_t slot)
{
    put(0, kStack | stack.cut << 4 | stack.count << 8 | uint64_t{slot} << 16);
    for (uint32_t i = 0; i < stack.count; ++i)
        put(1 + i, stack.address(i));
}

void writeAllocate(const LivePage& page, Kind kind, const void* block, size_t size, Function function,
                   const void* frame)
{
    Ring& ring = *thread.ring;
    auto& memory = *reinterpret_cast<OwnMemory*>(ring.rest);
    const auto at = reinterpret_cast<uintptr_t>(frame);
    walkStack(at, thread.stack.memoryFrom(at, memory.stackCopy, sizeof memory.stackCopy), ring.frames, memory.stack);
    const WalkedStack& stack = memory.stack;
    const uint64_t hash = stack.hash() ^ stack.cut << 1;
    const auto slot = static_cast<uint32_t>(hash >> 32) % kStackSlots;
    uint64_t& known = ring.stackHashes[slot];
    const bool isNew = known != hash;
    const uint32_t stackWords = isNew ? 1 + stack.count : 0;
    if (!ensureRoom(page, stackWords + kAllocateWords))
        return;
    if (isNew)
        writeStack(stack, slot);
    markBusy();
    const uint64_t time = now(page);
    put(stackWords, kind | time << 4);
    put(stackWords + 1, packed(reinterpret_cast<uintptr_t>(block), slot));
    put(stackWords + 2, packed(size, function));
    publish(page, stackWords + kAllocateWords, time);
    known = hash; // only now: a stack counts as sent once its record was written
}

bool writeFree(const LivePage& page, Kind kind, const void* block, Function function)
{
    if (!ensureRoom(page, kFreeWords))
        return false;
    markBusy();
    const uint64_t time = now(page);
    put(0, kind | time << 4);
    put(1, packed(reinterpret_cast<uintptr_t>(block), function));
    publish(page, kFreeWords, time);
    return true;
}

/// The thread's id, before its first record that is told with it.
bool tellThread(const LivePage& page)
{
    if (thread.toldSession == page.session)
        return true;
    if (!ensureRoom(page, 1))
        return false;
    RingHeader& header = thread.ring->header;
    put(0, kThread | uint64_t{load(header.owner)} << 4);
    publish(page, 1, load(header.lastTime)); // no event: times stay
    thread.toldSession = page.session;
    return true;
}

} // namespace

void wakeCollector(Shared& shared)
{
    if (load(shared.collectorSleeps) == 0)
        return;
    store(shared.collectorSleeps, 0u);
    (void)raw::call(SYS_futex, raw::argument(&shared.collectorSleeps), FUTEX_WAKE, 1);
}

void noteAllocate(const void* block, size_t size, Function function, const void* frame)
{
    const LivePage& page = *live;
    if (!enter(page))
        return;
    writeAllocate(page, kAllocate, block, size, function, frame);
    leave();
}

void noteFree(const void* block, Function function)
{
    const LivePage& page = *live;
    if (!enter(page))
        return;
    (void)writeFree(page, kFree, block, function); // counted when it was lost
    leave();
}

bool keepsZombies() { return __builtin_expect(live->keepsZombies != 0, 0); }

void noteSpecial(Kind kind, const void* block, size_t size, Function function, const void* frame)
{
    const LivePage& page = *live;
    if (!enter(page))
        return;
    writeAllocate(page, kind, block, size, function, frame);
    leave();
}

bool countsReferences() { return __builtin_expect((live->eventsMask & kCountEvents) != 0, 0); }

void noteCount(Kind kind, const void* object, size_t count, Counting counting, const void* frame)
{
    const LivePage& page = *live;
    if (!enter(page))
        return;
    if (tellThread(page))
        writeAllocate(page, kind, object, count, static_cast<Function>(counting), frame);
    leave();
}

bool noteReallocBegin(const void* old)
{
    const LivePage& page = *live;
    if (!enter(page))
        return false;
    const bool written = writeFree(page, kReallocBegin, old, kRealloc);
    leave();
    return written;
}

void noteReallocEnd(bool begun, const void* block, size_t size, const void* frame)
{
    const LivePage& page = *live;
    if ((!begun && !block) || !enter(page))
        return;
    writeAllocate(page, begun ? kReallocEnd : kAllocate, block, size, kRealloc, frame);
    leave();
}

} // namespace vnt::journal
