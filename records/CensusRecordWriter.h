#pragma once

#include <span>
#include <string_view>

#include "platform/base/ByteWriter.h"
#include "records/CensusRecords.h"

namespace vnt::census {

/// Composes messages of CensusRecords.h. One thread. The owner asks for the message when it is large enough, hands it
/// on, and then says whether it arrived.
class CensusRecordWriter {
public:
    explicit CensusRecordWriter(const SessionRecord& session);

    /// The new process's number in this generation.
    uint32_t addProcess(const ProcessRecord& process);
    void addSweep(uint64_t timeNs, const SweepRecord& sweep);
    /// Nothing when the two are equal. 10 to 40 bytes.
    void addUsage(uint32_t process, const Usage& before, const Usage& now);
    void addStarted(uint64_t timeNs, uint32_t process);
    /// `status` as of wait(2); negative: not known.
    void addEnded(uint64_t timeNs, uint32_t process, int64_t status);
    void addRenamed(uint64_t timeNs, uint32_t process, std::string_view name, std::string_view executable);
    void addLost(uint64_t timeNs, LostCause cause, uint64_t total);
    void addCost(uint64_t timeNs, uint64_t cpuNs, uint64_t sweeps, uint64_t leftOut);

    [[nodiscard]] size_t sizeBytes() const { return _bytes.size(); }
    [[nodiscard]] bool empty() const { return _empty; }
    [[nodiscard]] uint32_t processCount() const { return _processes; }
    [[nodiscard]] uint64_t pendingUsages() const { return _pendingUsages; }

    /// The whole message; valid until the next call.
    std::span<const std::byte> message();
    void messageSent();
    /// What the message held is gone: the next one begins a new generation, and all numbers given out are void.
    void messageDropped();

private:
    void beginMessage();
    void beginTimed(RecordKind kind, uint64_t timeNs);

    const SessionRecord _session;
    ByteWriter _bytes;
    uint32_t _generation = 1;
    uint32_t _sequence = 0;
    uint32_t _processes = 0;
    uint64_t _baseTimeNs = 0;
    uint64_t _lastTimeNs = 0;
    uint64_t _pendingUsages = 0;
    bool _empty = true;
    bool _timed = false;
    bool _newGeneration = true;
};

} // namespace vnt::census
