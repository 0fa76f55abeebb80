#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "collectors/common/RecordSink.h"
#include "collectors/heap/HeapView.h"

namespace vnt {

struct HeapCollectorOptions {
    uint32_t eventsMask = 0;
    uid_t clientUid = 0;
    bool keepZombies = false; ///< of a launched target
    std::string journalDirectory; ///< with the journals' libraries of both widths; for attach()
};

/// Told of a journaled target by its collector, on one of its threads. Must not block for long: the target waits in
/// all but the last.
class HeapTargetObserver {
public:
    virtual ~HeapTargetObserver() = default;
    /// A program began; `again`: in a process that ran another one before.
    virtual void onTargetStarted(uint64_t timeNs, pid_t pid, const std::string& name, bool again) = 0;
    /// Its stacks hold code of modules that were not seen before.
    virtual void onNewCode(pid_t pid) = 0;
    /// It ends by itself: the last of its exit handlers runs, and waits for half a second at most, not counting what it
    /// is kept still.
    virtual void onTargetExiting(HeapView& /*heap*/) { }
    /// It has ended, and everything it left was handed to the sink.
    virtual void onTargetEnded(pid_t pid) = 0;
};

/// Records the heap of one program: listens for its journal, reads the rings, keeps the live blocks current
/// until it is destroyed, and while collection runs writes records. Has two threads of its own.
class HeapCollector {
public:
    /// Sink and observer outlive the collector.
    static Result<std::unique_ptr<HeapCollector>> start(const HeapCollectorOptions& options, RecordSink& sink,
                                                        HeapTargetObserver& observer);
    /// The same for a process that runs already: the journal is brought into it, and taken out again when the collector
    /// is destroyed. Blocks, for some milliseconds as a rule. Blocks from before are unknown. Errors are sentences for
    /// the user, without the full stop.
    static Result<std::unique_ptr<HeapCollector>> attach(const HeapCollectorOptions& options, pid_t pid,
                                                         RecordSink& sink, HeapTargetObserver& observer);
    virtual ~HeapCollector() = default;

    /// For the environment of the program to launch: the value of journal::kSocketVariable. Empty
    /// after attach().
    [[nodiscard]] virtual std::string socketName() const = 0;

    virtual void startCollection() = 0;
    /// Everything up to now is with the sink when it returns. The journal goes on, and may be collected again.
    virtual Status stopCollection() = 0;

    /// Calls `look` with the live blocks of this moment and their stacks, on the collector's thread; the rings fill
    /// meanwhile. False: there is no target.
    virtual bool withLiveBlocks(const std::function<void(const LiveBlocks&, const HeapStacks&)>& look) = 0;
    /// Calls `look` with the heap as it is, on the collector's thread. False: there is no target, or it has ended.
    virtual bool inspect(const std::function<void(HeapView&)>& look) = 0;
    /// A journal has reported itself; its process.
    [[nodiscard]] virtual pid_t targetPid() const = 0;
};

} // namespace vnt
