#pragma once

#include <optional>
#include <span>
#include <vector>

#include "platform/base/ByteCursor.h"
#include "platform/base/Status.h"
#include "records/CensusRecords.h"

namespace vnt::census {

/// Told by CensusRecordReader what stands in a message, in its order. Every function does nothing by default.
/// References are valid during the call.
class CensusRecordHandler {
public:
    virtual ~CensusRecordHandler() = default;
    virtual void onSession(const SessionRecord& /*session*/) { }
    /// A process is told of; again at the beginning of each generation, with all of its use in the usage that follows.
    virtual void onProcess(const ProcessRecord& /*process*/) { }
    virtual void onSweep(uint64_t /*timeNs*/, const SweepRecord& /*sweep*/) { }
    /// All that is known of the process's use, at the sweep or end told last.
    virtual void onUsage(uint64_t /*timeNs*/, const ProcessRecord& /*process*/, const Usage& /*usage*/) { }
    virtual void onStarted(uint64_t /*timeNs*/, const ProcessRecord& /*process*/) { }
    /// `status` as of wait(2); -1: not known.
    virtual void onEnded(uint64_t /*timeNs*/, const ProcessRecord& /*process*/, int64_t /*status*/) { }
    virtual void onRenamed(uint64_t /*timeNs*/, const ProcessRecord& /*process*/) { }
    virtual void onLost(uint64_t /*timeNs*/, LostCause /*cause*/, uint64_t /*total*/) { }
    virtual void onCost(uint64_t /*timeNs*/, uint64_t /*cpuNs*/, uint64_t /*sweeps*/, uint64_t /*leftOut*/) { }
    /// A record of a process whose definition is lost.
    virtual void onOrphan() { }
    virtual void onMissingMessages(uint64_t /*count*/) { }
};

/// Reads the messages of one recording, in their order. Input is untrusted; memory is some 200 bytes for each process
/// that the messages really define. One thread.
class CensusRecordReader {
public:
    /// Errors: kCorrupt for a message that is not one or breaks off; what stood before the fault was delivered and
    /// stays, the next message can be read. kUnsupported: written by a later version. kTooLarge: passes a limit.
    Status read(std::span<const std::byte> message, CensusRecordHandler& handler);

private:
    struct Known {
        ProcessRecord process;
        Usage usage{};
    };
    struct Decoding;

    Status readRecord(Decoding& decoding);
    Status readProcess(Decoding& decoding);
    void readUsage(Decoding& decoding);
    Known* known(Decoding& decoding);

    std::vector<Known> _processes;
    uint32_t _generation = 0;
    uint64_t _nextSequence = 0;
};

} // namespace vnt::census
