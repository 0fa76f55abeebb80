#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "collectors/heap/RingCursor.h"
#include "collectors/heap/TimeScale.h"
#include "platform/base/Mapping.h"
#include "platform/base/UniqueFd.h"
#include "records/HeapRecords.h"

namespace vnt {

/// Told of a journal's events in the order of their times, whichever thread made them.
class JournalEventHandler {
public:
    virtual ~JournalEventHandler() = default;
    virtual void onEvent(const JournalEvent& event) = 0;
};

/// The collector's side of one program's journal: makes the memory, merges the rings. Owned by the collector; made on
/// its greeting thread, used on its reading thread.
class JournalReader {
public:
    /// Memory for the journal of `pid`, not yet written to.
    static Result<std::unique_ptr<JournalReader>> create(pid_t pid);

    /// The same with anonymous memory that the process itself made. Errors: it is not such memory.
    static Result<std::unique_ptr<JournalReader>> adopt(pid_t pid, UniqueFd memory);

    /// For the journal; goes with the answer to its greeting.
    [[nodiscard]] int memoryFd() const { return _memory.get(); }
    void closeMemoryFd() { _memory.reset(); }

    /// Passes on every event that is certain to be the next one. `nowTicks`: TimeScale::advance(). True when more may
    /// be there at once. Cost: 5 to 10 ns an event, plus a look at each ring ever used.
    bool drain(uint64_t nowTicks, uint64_t marginTicks, HeapStacks& stacks, JournalEventHandler& handler);
    /// The same for a program that is gone: everything there is.
    void drainToEnd(HeapStacks& stacks, JournalEventHandler& handler);
    /// The same for a program whose threads all stand still: everything published, whatever a thread was about to.
    void drainStopped(uint64_t nowTicks, HeapStacks& stacks, JournalEventHandler& handler);
    /// The time up to which drain() has passed events on.
    [[nodiscard]] uint64_t horizonTicks() const { return _horizon; }

    /// A sign of life for the journal.
    void beat();
    /// Sleeps until a journal calls or `timeoutNs` have passed.
    void sleep(uint64_t timeoutNs);
    /// The journal passes calls through from here on.
    void switchOff();
    /// The journal did so itself: it saw no sign of life for seconds.
    [[nodiscard]] bool isOff() const;

    [[nodiscard]] bool exitAsked() const;
    void answerExit();

    [[nodiscard]] pid_t pid() const { return _pid; }
    [[nodiscard]] uint64_t lost(heap::LostCause cause) const;

private:
    JournalReader(UniqueFd memory, Mapping mapping, pid_t pid);
    journal::Shared& shared() const { return *static_cast<journal::Shared*>(_mapping.address()); }
    uint64_t refresh(uint64_t nowTicks, uint64_t marginTicks);
    void merge(uint64_t untilTicks, HeapStacks& stacks, JournalEventHandler& handler);
    void releaseAll();

    UniqueFd _memory;
    Mapping _mapping;
    const pid_t _pid;
    std::vector<std::unique_ptr<RingCursor>> _rings;
    std::vector<RingCursor*> _waiting; ///< those with an event; kept for its memory
    uint64_t _horizon = 0;
    uint64_t _stalledSince = 0;
};

} // namespace vnt
