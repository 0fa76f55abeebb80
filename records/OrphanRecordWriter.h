#pragma once

#include <span>

#include "platform/base/ByteWriter.h"
#include "records/OrphanRecords.h"

namespace vnt::orphans {

/// Composes messages of OrphanRecords.h. One thread. The owner asks for the message when sizeBytes() is large enough,
/// hands it on, and calls messageSent().
class OrphanRecordWriter {
public:
    /// `caller` is 0 or a node given out before; innermost frames have the largest numbers.
    uint32_t addNode(uint32_t caller, uint64_t callerAddress, uint64_t address);
    uint32_t addCutNode();
    [[nodiscard]] uint32_t nodeCount() const { return _nodes; }

    void addSearch(uint64_t timeNs, const SearchRecord& search);
    void addLeak(const LeakRecord& leak);
    void addEnd(const EndRecord& end);
    void addNotSearched(const NotSearchedRecord& record);

    [[nodiscard]] size_t sizeBytes() const { return kHeaderBytes + _records.size(); }
    [[nodiscard]] bool empty() const { return _records.size() == 0; }
    /// The whole message; valid until the next call.
    std::span<const std::byte> message();
    void messageSent();

private:
    void begin(RecordKind kind) { _records.little(static_cast<uint8_t>(kind)); }
    void time(uint64_t timeNs);

    ByteWriter _records;
    ByteWriter _message;
    uint32_t _sequence = 0;
    uint32_t _nodes = 0;
    uint32_t _nodesBefore = 0;
    uint64_t _baseTimeNs = 0;
    uint64_t _lastTimeNs = 0;
    uint64_t _lastAddress = 0;
    bool _hasClasses = false;
    bool _timed = false;
};

} // namespace vnt::orphans
