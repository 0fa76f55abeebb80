#include "collectors/heap/JournalReader.h"

#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <limits>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr uint64_t kEndOfTime = std::numeric_limits<uint64_t>::max();
/// A record is made in less than a microsecond; a thread that takes this many margins was stopped within one, and the
/// others do not wait for it.
constexpr uint64_t kPatienceMargins = 5000;
/// Room goes back to the journal in steps, so that a thread that waits need not wait for a whole round.
constexpr size_t kEventsPerRelease = 4096;

template <typename T> T load(const T& place) { return __atomic_load_n(&place, __ATOMIC_ACQUIRE); }

} // namespace

JournalReader::JournalReader(UniqueFd memory, Mapping mapping, pid_t pid)
    : _memory(std::move(memory)),
      _mapping(std::move(mapping)),
      _pid(pid)
{
}

Result<std::unique_ptr<JournalReader>> JournalReader::create(pid_t pid)
{
    UniqueFd memory(::memfd_create("vantora-heap", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!memory)
        return Status::fromErrno(errno, "memfd_create");
    return adopt(pid, std::move(memory));
}

Result<std::unique_ptr<JournalReader>> JournalReader::adopt(pid_t pid, UniqueFd memory)
{
    const auto bytes = static_cast<off_t>(journal::totalBytes(journal::kRings));
    if (::ftruncate(memory.get(), 0) != 0 || ::ftruncate(memory.get(), bytes) != 0)
        return Status::fromErrno(errno, "ftruncate");
    // The target could else take the memory away under us, and we under it (fcntl(2)).
    if (::fcntl(memory.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL) != 0)
        return Status::fromErrno(errno, "F_ADD_SEALS");
    ASSIGN_OR_RETURN(Mapping mapping,
                     Mapping::create(static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0));
    std::unique_ptr<JournalReader> reader(new JournalReader(std::move(memory), std::move(mapping), pid));
    __atomic_store_n(&reader->shared().state, static_cast<uint32_t>(journal::kRecording), __ATOMIC_RELEASE);
    return reader;
}

uint64_t JournalReader::refresh(uint64_t nowTicks, uint64_t marginTicks)
{
    auto* rings = reinterpret_cast<journal::Ring*>(static_cast<std::byte*>(_mapping.address()) + journal::kSharedBytes);
    const uint32_t used = std::min(load(shared().ringsUsed), journal::kRings);
    while (_rings.size() < used)
        _rings.push_back(std::make_unique<RingCursor>(rings[_rings.size()], static_cast<uint32_t>(_rings.size())));
    uint64_t horizon = nowTicks - marginTicks;
    for (const auto& ring : _rings)
        horizon = std::min(horizon, ring->refresh(nowTicks));
    if (horizon > _horizon || _stalledSince == 0)
        _stalledSince = nowTicks;
    if (nowTicks - _stalledSince > kPatienceMargins * marginTicks)
        return nowTicks - marginTicks;
    return std::max(horizon, _horizon);
}

bool JournalReader::drain(uint64_t nowTicks, uint64_t marginTicks, HeapStacks& stacks, JournalEventHandler& handler)
{
    const uint64_t before = _horizon;
    _horizon = refresh(nowTicks, marginTicks);
    size_t busyRings = 0;
    for (const auto& ring : _rings)
        busyRings += !ring->isDrained();
    merge(_horizon, stacks, handler);
    releaseAll();
    return busyRings != 0 && _horizon != before;
}

void JournalReader::drainToEnd(HeapStacks& stacks, JournalEventHandler& handler)
{
    (void)refresh(kEndOfTime, 0);
    _horizon = kEndOfTime;
    merge(kEndOfTime, stacks, handler);
    releaseAll();
}

void JournalReader::drainStopped(uint64_t nowTicks, HeapStacks& stacks, JournalEventHandler& handler)
{
    (void)refresh(nowTicks, 0);
    merge(kEndOfTime, stacks, handler);
    releaseAll();
    _horizon = std::max(_horizon, nowTicks);
}

void JournalReader::merge(uint64_t untilTicks, HeapStacks& stacks, JournalEventHandler& handler)
{
    _waiting.clear();
    for (const auto& ring : _rings) {
        if (ring->peek(stacks))
            _waiting.push_back(ring.get());
    }
    size_t passed = 0;
    while (!_waiting.empty()) {
        size_t first = 0;
        uint64_t firstTicks = kEndOfTime;
        uint64_t secondTicks = kEndOfTime;
        for (size_t i = 0; i < _waiting.size(); ++i) {
            const uint64_t ticks = _waiting[i]->peek(stacks)->ticks;
            if (ticks < firstTicks) {
                secondTicks = firstTicks;
                firstTicks = ticks;
                first = i;
            } else {
                secondTicks = std::min(secondTicks, ticks);
            }
        }
        // One ring's events up to the first of another's, without looking at the others again.
        RingCursor& ring = *_waiting[first];
        const uint64_t limit = std::min(secondTicks, untilTicks);
        const JournalEvent* event = ring.peek(stacks);
        if (firstTicks > untilTicks)
            return;
        while (event && event->ticks <= limit) {
            handler.onEvent(*event);
            ring.pop();
            if (++passed % kEventsPerRelease == 0)
                ring.release();
            event = ring.peek(stacks);
        }
        if (!event)
            _waiting.erase(_waiting.begin() + static_cast<std::ptrdiff_t>(first));
    }
}

void JournalReader::releaseAll()
{
    for (const auto& ring : _rings)
        ring->release();
}

void JournalReader::beat() { __atomic_fetch_add(&shared().beat, 1, __ATOMIC_RELAXED); }

void JournalReader::sleep(uint64_t timeoutNs)
{
    uint32_t& word = shared().collectorSleeps;
    __atomic_store_n(&word, 1u, __ATOMIC_RELEASE);
    timespec timeout{};
    timeout.tv_nsec = static_cast<long>(timeoutNs);
    (void)::syscall(SYS_futex, &word, FUTEX_WAIT, 1, &timeout, nullptr, 0); // whatever ends it, we look
    __atomic_store_n(&word, 0u, __ATOMIC_RELAXED);
}

void JournalReader::switchOff()
{
    __atomic_store_n(&shared().state, static_cast<uint32_t>(journal::kOff), __ATOMIC_RELEASE);
}

bool JournalReader::isOff() const { return load(shared().state) != journal::kRecording; }

bool JournalReader::exitAsked() const { return load(shared().exitAsked) != 0 && load(shared().exitAnswered) == 0; }

void JournalReader::answerExit() { __atomic_store_n(&shared().exitAnswered, 1u, __ATOMIC_RELEASE); }

uint64_t JournalReader::lost(heap::LostCause cause) const
{
    uint64_t total = 0;
    switch (cause) {
    case heap::LostCause::kRingFull:
        for (const auto& ring : _rings)
            total += ring->lost();
        return total;
    case heap::LostCause::kNoRing:
        return load(shared().unrecordedThreads);
    case heap::LostCause::kNested:
        return load(shared().nestedEvents);
    case heap::LostCause::kMalformed:
        for (const auto& ring : _rings)
            total += ring->isDead();
        return total;
    default:
        return 0;
    }
}

} // namespace vnt
