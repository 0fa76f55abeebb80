#pragma once

#include <span>
#include <string_view>

#include "platform/base/ByteWriter.h"
#include "records/StackDefinitions.h"
#include "records/StackRecords.h"

namespace vnt::stacks {

/// Composes messages of StackRecords.h. One thread. The owner asks for the message when sizeBytes() is large enough,
/// hands it on, and then says whether it arrived: messageSent() or messageDropped(). A sample costs some 15 ns and,
/// with 3 bytes of time, 6 to 9 bytes.
class StackRecordWriter final : public StackDefinitions {
public:
    explicit StackRecordWriter(const SessionRecord& session);

    uint32_t addNode(uint32_t caller, uint64_t callerAddress, uint64_t address) override;
    uint32_t addCutNode() override;
    void addThread(uint32_t thread, const ThreadRecord& record) override;
    void addSample(uint64_t timeNs, uint32_t thread, uint32_t stack);
    /// The thread did not run for `durationNs` before `timeNs`; `stack` is where it left the processor.
    void addBlocked(uint64_t timeNs, uint32_t thread, uint32_t stack, uint64_t durationNs);
    void addLost(uint64_t timeNs, LostCause cause, uint64_t total);
    void addExec(uint64_t timeNs, uint32_t pid, std::string_view name);
    void addFork(uint64_t timeNs, uint32_t parent, uint32_t child);
    void addExit(uint64_t timeNs, uint32_t pid);
    void addCost(uint64_t timeNs, uint64_t cpuNs);

    [[nodiscard]] size_t sizeBytes() const { return _bytes.size(); }
    [[nodiscard]] bool empty() const { return _empty; }
    [[nodiscard]] uint32_t generation() const { return _generation; }
    [[nodiscard]] uint32_t nodeCount() const { return _nodes; }
    /// Samples and blocked records in the message being composed.
    [[nodiscard]] uint64_t pendingSamples() const { return _pendingSamples; }
    /// Exec, fork and exit records in the message being composed.
    [[nodiscard]] uint64_t pendingEvents() const { return _pendingEvents; }
    /// Samples and blocked records in messages sent so far and in the one being composed.
    [[nodiscard]] uint64_t totalSamples() const { return _sentSamples + _pendingSamples; }
    [[nodiscard]] uint64_t firstTimeNs() const { return _baseTimeNs; }
    [[nodiscard]] uint64_t lastTimeNs() const { return _lastTimeNs; }

    /// The whole message; valid until the next call.
    std::span<const std::byte> message();
    /// The next message continues the generation.
    void messageSent();
    /// What the message held is gone: the next one begins a new generation, and all numbers given out are void.
    void messageDropped();
    /// Begins a new generation with the next message; only between messages.
    void beginGeneration();

private:
    void beginMessage();
    void beginTimed(RecordKind kind, uint64_t timeNs);

    SessionRecord _session;
    ByteWriter _bytes;
    uint32_t _generation = 1;
    uint32_t _sequence = 0;
    uint32_t _nodes = 0;
    uint32_t _nodesBefore = 0;
    uint64_t _baseTimeNs = 0;
    uint64_t _lastTimeNs = 0;
    uint64_t _pendingSamples = 0;
    uint64_t _pendingEvents = 0;
    uint64_t _sentSamples = 0;
    bool _empty = true;
    bool _timed = false;
    bool _newGeneration = true;
};

} // namespace vnt::stacks
