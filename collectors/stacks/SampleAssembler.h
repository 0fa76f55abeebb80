#pragma once

#include <linux/perf_event.h>

#include <optional>
#include <span>
#include <unordered_map>
#include <unordered_set>

#include "collectors/common/ProcessObserver.h"
#include "collectors/common/RecordSink.h"
#include "collectors/stacks/DumpUnwinder.h"
#include "collectors/stacks/StackInterner.h"
#include "collectors/stacks/ThreadTable.h"
#include "collectors/stacks/WaitTracker.h"
#include "platform/base/ByteCursor.h"
#include "records/StackRecordWriter.h"

namespace vnt {

/// Turns the kernel's records into messages for the sink. Owned by the sampler; every call on its reader thread.
/// A sample of a known stack costs about 0.15 microseconds for 32 frames, with a dump to unwind about 0.6.
class SampleAssembler {
public:
    struct Settings {
        pid_t onlyPid = 0; ///< 0: every process is recorded
        uint32_t maxFrames = 127;
        stacks::SessionRecord session;
        /// Identifiers of the events that sample running threads; outlives the assembler.
        const std::unordered_set<uint64_t>* clockEvents = nullptr;
        size_t dumpRingBytes = 0; ///< of one ring; 0: samples come without registers and dumps (kDumpType)
        std::vector<pid_t> family = {}; ///< with onlyPid: processes that count as well, and what they start
    };
    enum class Wait { kNo, kForRoom };

    /// `observer` may be null; both it and `sink` outlive the assembler.
    SampleAssembler(const Settings& settings, RecordSink& sink, ProcessObserver* observer);

    /// One record of a ring. A record that does not fit its own layout is counted as lost.
    void onRecord(const perf_event_header& header, std::span<const std::byte> payload);
    /// A ring became unreadable.
    void onDeadRing() { addLost(stacks::LostCause::kMalformed, 1); }

    /// Records the waits that ended up to `untilNs`, when all rings had been read up to there. Sampling began at
    /// `beganNs`.
    void settleWaits(uint64_t beganNs, uint64_t untilNs);
    /// At a pause: also those that go on. `threads` are the threads of the one process.
    void finishWaits(uint64_t beganNs, uint64_t untilNs, std::span<const uint32_t> threads);

    /// Sends what is there. A batch without room is dropped and counted unless `wait` is kForRoom.
    /// Errors: kPeerGone, from then on nothing is sent.
    Status flush(Wait wait, uint64_t recorderCpuNs);
    /// Sends what is there and defines everything again from then on.
    void renewGeneration();
    /// The outcome of the last sending; not kPeerGone while the sink has a reader.
    [[nodiscard]] const Status& status() const { return _status; }
    [[nodiscard]] uint64_t totalSamples() const { return _writer.totalSamples(); }
    /// How much of the stack samples should bring; null without dumps.
    [[nodiscard]] DumpSize* dumpSize() { return _dumps ? &_dumps->size() : nullptr; }

private:
    struct Origin { ///< what every record tells of itself (sample_id_all)
        uint32_t pid = 0;
        uint32_t tid = 0;
        uint64_t timeNs = 0;
        uint64_t id = 0;
    };
    static Origin readTrailer(std::span<const std::byte> payload);

    void onSample(ByteCursor cursor);
    void onOtherRecord(const perf_event_header& header, std::span<const std::byte> payload);
    void keepEarly(const perf_event_header& header, std::span<const std::byte> payload);
    void replayEarly(uint32_t pid);
    bool readChain(ByteCursor& cursor);
    /// Chains that come without a dump are cut when they are so long; the others say it themselves.
    [[nodiscard]] uint32_t framesOfCut() const { return _dumps ? UINT32_MAX : _maxFrames; }
    void onMapping(const perf_event_header& header, ByteCursor cursor, const Origin& origin);
    void onName(const perf_event_header& header, ByteCursor cursor, const Origin& origin);
    void onTask(uint32_t type, ByteCursor cursor);
    void onSwitch(const perf_event_header& header, const Origin& origin);
    void onWait(const WaitTracker::Wait& wait);
    void ensureRoom(size_t frames);
    void forgetExited();
    void onThrottle(uint32_t type, ByteCursor cursor);
    void addLost(stacks::LostCause cause, uint64_t count);
    void writeLosses();
    void forgetDefinitions();
    [[nodiscard]] bool concerns(uint32_t pid) const { return _onlyPid == 0 || _family.count(pid) != 0; }
    void send(Wait wait);

    RecordSink& _sink;
    ProcessObserver* _observer; // not owned: outlives the sampler
    const uint32_t _onlyPid;
    std::unordered_set<uint32_t> _family; ///< processes whose records count; those that ended stay, some bytes each
    const uint32_t _maxFrames;
    const uint64_t _intervalNs;
    const bool _recordsWaiting;
    const std::unordered_set<uint64_t>* _clockEvents;
    stacks::StackRecordWriter _writer;
    StackInterner _interner;
    ThreadTable _threads;
    WaitTracker _waits;
    /// Records of a process that is not known to be of the family: that of its start may stand in another ring.
    struct EarlyRecord {
        uint32_t pid = 0;
        perf_event_header header{};
        std::vector<std::byte> payload;
    };
    std::vector<EarlyRecord> _early;
    size_t _earlyBefore = 0; ///< the first of them, older than the latest round over the rings
    std::vector<uint32_t> _exited; ///< threads that may still have a wait to settle
    std::vector<uint64_t> _chain;
    std::optional<DumpUnwinder> _dumps; ///< without: chains are the kernel's
    std::unordered_map<uint64_t, uint64_t> _throttledSinceNs; ///< by event id
    uint64_t _latestNs = 0;
    uint64_t _lost[stacks::kLostCauses] = {};
    uint64_t _lostWritten[stacks::kLostCauses] = {};
    Status _status;
};

} // namespace vnt
