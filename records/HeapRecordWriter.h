#pragma once

#include <span>
#include <string_view>

#include "platform/base/ByteWriter.h"
#include "records/HeapRecords.h"

namespace vnt::heap {

/// Composes messages of HeapRecords.h. One thread. The owner asks for the message when sizeBytes() is large enough,
/// hands it on, and then says whether it arrived: messageSent() or messageDropped(). An event costs some 10 ns and 3 to
/// 12 bytes. Times must not step back within a message.
class HeapRecordWriter {
public:
    explicit HeapRecordWriter(const SessionRecord& session);

    /// `caller` is 0 or a node given out before; innermost frames have the largest numbers.
    uint32_t addNode(uint32_t caller, uint64_t callerAddress, uint64_t address);
    uint32_t addCutNode();
    [[nodiscard]] uint32_t nodeCount() const { return _nodes; }

    void addAllocate(uint64_t timeNs, Function function, uint32_t slot, uint32_t stack, uint64_t sizeBytes,
                     uint64_t address);
    void addFree(uint64_t timeNs, Function function, uint32_t slot);
    void addFreeUnknown(uint64_t timeNs, Function function, uint64_t address);
    void addFreedOutside(uint64_t timeNs, uint32_t slot);
    void addTarget(uint64_t timeNs, const TargetRecord& target);
    void addNoTarget(uint64_t timeNs);
    void addExit(uint64_t timeNs, uint32_t pid);
    void addLost(uint64_t timeNs, LostCause cause, uint64_t total);
    void addFault(uint64_t timeNs, const FaultRecord& fault);
    void addCost(uint64_t timeNs, uint64_t cpuNs);
    // For a session whose mask asks for them.
    void addCount(uint64_t timeNs, const CountRecord& count);
    /// The classes behind it are of one look at all live blocks.
    void addClassLook(uint64_t timeNs, uint64_t blocks, uint64_t bytes);
    void addClass(uint64_t timeNs, const ClassRecord& record);

    [[nodiscard]] size_t sizeBytes() const { return kHeaderBytes + _definitions.size() + _events.size(); }
    [[nodiscard]] bool empty() const { return _definitions.size() == 0 && _events.size() == 0; }
    /// Allocations, frees and counts in the message being composed.
    [[nodiscard]] uint64_t pendingEvents() const { return _pendingEvents; }
    [[nodiscard]] uint64_t totalEvents() const { return _sentEvents + _pendingEvents; }
    [[nodiscard]] uint64_t lastTimeNs() const { return _lastTimeNs; }

    /// The whole message; valid until the next call.
    std::span<const std::byte> message();
    void messageSent();
    /// Its events are gone; its definitions go into the next one.
    void messageDropped();

private:
    uint64_t since(uint64_t timeNs);
    void beginEvent(RecordKind kind, Function function, uint64_t timeNs);

    ByteWriter _definitions;
    ByteWriter _events;
    ByteWriter _message;
    uint32_t _sequence = 0;
    uint32_t _nodes = 0;
    uint32_t _nodesBefore = 0;
    uint64_t _baseTimeNs = 0;
    uint64_t _lastTimeNs = 0;
    uint64_t _lastAddress = 0;
    uint64_t _lastObject = 0;
    uint16_t _version = kPlainVersion;
    uint64_t _pendingEvents = 0;
    uint64_t _sentEvents = 0;
    bool _timed = false;
};

} // namespace vnt::heap
