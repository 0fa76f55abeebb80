#pragma once

#include <span>
#include <string_view>
#include <vector>

#include "platform/base/ByteCursor.h"
#include "platform/base/Status.h"
#include "records/HeapRecords.h"

namespace vnt::heap {

struct AllocateRecord {
    uint64_t timeNs = 0;
    Function function = Function::kMalloc;
    uint32_t slot = 0; ///< below kMaxSlots
    uint32_t stack = 0; ///< 0, or a node that is known
    uint64_t sizeBytes = 0;
    uint64_t address = 0;
};

/// Told by HeapRecordReader what stands in a message, in its order. Every function does nothing by default.
class HeapRecordHandler {
public:
    virtual ~HeapRecordHandler() = default;
    virtual void onSession(const SessionRecord& /*session*/) { }
    virtual void onAllocate(const AllocateRecord& /*allocation*/) { }
    virtual void onFree(uint64_t /*timeNs*/, Function /*function*/, uint32_t /*slot*/) { }
    virtual void onFreeUnknown(uint64_t /*timeNs*/, Function /*function*/, uint64_t /*address*/) { }
    virtual void onFreedOutside(uint64_t /*timeNs*/, uint32_t /*slot*/) { }
    virtual void onTarget(uint64_t /*timeNs*/, const TargetRecord& /*target*/) { }
    virtual void onNoTarget(uint64_t /*timeNs*/) { }
    virtual void onExit(uint64_t /*timeNs*/, uint32_t /*pid*/) { }
    virtual void onCount(uint64_t /*timeNs*/, const CountRecord& /*count*/) { }
    /// All that follow are of this look at so many live blocks.
    virtual void onClassLook(uint64_t /*timeNs*/, uint64_t /*blocks*/, uint64_t /*bytes*/) { }
    virtual void onClass(uint64_t /*timeNs*/, const ClassRecord& /*record*/) { }
    /// `newly` events lost since the last report, `total` since the recording began.
    virtual void onLost(uint64_t /*timeNs*/, LostCause /*cause*/, uint64_t /*newly*/, uint64_t /*total*/) { }
    virtual void onFault(uint64_t /*timeNs*/, const FaultRecord& /*fault*/) { }
    virtual void onCost(uint64_t /*timeNs*/, uint64_t /*cpuNs*/, uint64_t /*events*/) { }
    /// Messages are missing between this one and the one read before it.
    virtual void onMissingMessages(uint64_t /*count*/) { }
};

/// Reads the messages of one recording, in their order. Input is untrusted: limits are those of HeapRecords.h, and
/// nothing it says can make the tables larger. Some 15 ns an event. One thread.
class HeapRecordReader {
public:
    /// Errors: kCorrupt for a message that is not one or breaks off; what stood before the fault was delivered and
    /// stays, the next message can be read. kUnsupported: written by a later version. kTooLarge: passes a limit.
    Status read(std::span<const std::byte> message, HeapRecordHandler& handler);

    struct Node {
        uint64_t address = 0; ///< a return address
        uint32_t caller = 0; ///< always smaller than the node's own number
        uint16_t depth = 0; ///< 1 for an outermost frame
        bool known = false; ///< false: its definition is lost
        bool cut = false; ///< no frame: stands for outer frames that could not be reached
    };
    [[nodiscard]] uint32_t nodeCount() const { return static_cast<uint32_t>(_nodes.size()); }
    /// `number` is 1 to nodeCount().
    [[nodiscard]] const Node& node(uint32_t number) const { return _nodes[number - 1]; }

private:
    struct Decoding;

    Status readHeader(ByteCursor& cursor, size_t& definitionsBytes, uint64_t& baseTimeNs, HeapRecordHandler& handler);
    Status readDefinitions(ByteCursor cursor, HeapRecordHandler& handler);
    Status readNode(ByteCursor& cursor, bool cut);
    Status readEvent(Decoding& decoding);
    Status readEvent(Decoding& decoding, RecordKind kind, Function function);
    void readAllocate(Decoding& decoding, Function function);
    Status readLost(Decoding& decoding);
    Status readFault(Decoding& decoding);
    Status readCount(Decoding& decoding, unsigned counting);
    Status readMore(Decoding& decoding, unsigned kind);
    [[nodiscard]] uint32_t knownStack(uint32_t stack) const
    {
        return stack > _nodes.size() || (stack != 0 && !_nodes[stack - 1].known) ? 0 : stack;
    }

    std::vector<Node> _nodes;
    uint64_t _nextSequence = 0;
    uint64_t _lost[kLostCauses] = {};
};

} // namespace vnt::heap
