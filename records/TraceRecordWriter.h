#pragma once

#include <array>
#include <span>
#include <string_view>
#include <vector>

#include "platform/base/ByteWriter.h"
#include "records/StackDefinitions.h"
#include "records/TraceRecords.h"

namespace vnt::trace {

/// Composes messages of TraceRecords.h. One thread. The owner asks for the message when sizeBytes() is large enough,
/// hands it on, and then says whether it arrived: messageSent() or messageDropped(). An event costs some 25 ns.
class TraceRecordWriter final : public stacks::StackDefinitions {
public:
    explicit TraceRecordWriter(const SessionRecord& session);

    uint32_t addNode(uint32_t caller, uint64_t callerAddress, uint64_t address) override;
    uint32_t addCutNode() override;
    void addThread(uint32_t thread, const stacks::ThreadRecord& record) override;
    /// The number of the new type, in the order of definition. Before the call typeCount() must be below kMaxTypes.
    uint32_t addType(const TypeRecord& type);

    struct Event {
        uint64_t timeNs = 0; ///< CLOCK_MONOTONIC
        uint32_t cpu = 0;
        uint32_t type = 0;
        uint32_t thread = 0;
        uint32_t stack = 0; ///< left out when the session has no stacks
        std::span<const uint64_t> values; ///< as many as the type has; signed ones sign-extended
        std::string_view text; ///< left out when the type has none
    };
    void addEvent(const Event& event);
    void addSettled(uint64_t timeNs);
    void addLost(uint64_t timeNs, LostCause cause, uint64_t total);
    void addFork(uint64_t timeNs, uint32_t parent, uint32_t child);
    void addCost(uint64_t timeNs, uint64_t cpuNs);

    [[nodiscard]] size_t sizeBytes() const { return _bytes.size(); }
    [[nodiscard]] bool empty() const { return _empty; }
    [[nodiscard]] uint32_t generation() const { return _generation; }
    [[nodiscard]] uint32_t typeCount() const { return static_cast<uint32_t>(_types.size()); }
    /// Values that an event of the type has.
    [[nodiscard]] size_t valueCount(uint32_t type) const { return _types[type].valueCount; }
    [[nodiscard]] uint32_t pendingEvents() const { return _pendingEvents; }
    [[nodiscard]] uint64_t totalEvents() const { return _sentEvents + _pendingEvents; }

    /// The whole message; valid until the next call.
    std::span<const std::byte> message();
    /// The next message continues the generation.
    void messageSent();
    /// What the message held is gone: the next one begins a new generation, and all numbers given out are void.
    void messageDropped();
    /// Begins a new generation with the next message; only between messages.
    void beginGeneration();

private:
    struct Type {
        uint32_t flags = 0;
        uint32_t valueCount = 0;
        uint32_t epoch = 0; ///< the message that `last` belongs to
        std::array<uint64_t, kMaxValues> last{};
    };
    void beginMessage();
    void beginTimed(RecordKind kind, uint64_t timeNs);

    SessionRecord _session;
    const bool _hasStacks;
    ByteWriter _bytes;
    std::vector<Type> _types;
    uint32_t _generation = 1;
    uint32_t _sequence = 0;
    uint32_t _nodes = 0;
    uint32_t _nodesBefore = 0;
    uint32_t _typesBefore = 0;
    uint32_t _epoch = 0;
    uint32_t _cpu = 0;
    uint64_t _baseTimeNs = 0;
    uint64_t _lastTimeNs = 0;
    uint32_t _pendingEvents = 0;
    uint64_t _sentEvents = 0;
    bool _empty = true;
    bool _timed = false;
    bool _newGeneration = true;
};

/// Rewrites what a message says of itself, for one that was kept and is sent later: its place in the sequence, and the
/// time before which its events do not count. `message` must be a writer's.
void redateMessage(std::span<std::byte> message, uint32_t sequence, uint64_t windowBeginNs);
/// Events in a writer's message.
uint32_t eventsIn(std::span<const std::byte> message);
uint32_t generationOf(std::span<const std::byte> message);

} // namespace vnt::trace
