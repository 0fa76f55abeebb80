#pragma once

#include <span>
#include <vector>

#include "platform/base/Status.h"
#include "records/OrphanRecords.h"

namespace vnt::orphans {

/// Told by OrphanRecordReader what stands in a message, in its order. Every function does nothing by default.
class OrphanRecordHandler {
public:
    virtual ~OrphanRecordHandler() = default;
    virtual void onSearch(uint64_t /*timeNs*/, const SearchRecord& /*search*/) { }
    /// `leak.holder` is below the leak's own number, `leak.stack` 0 or a node that is known.
    virtual void onLeak(const LeakRecord& /*leak*/) { }
    /// `whole`: every leak that it counts was told.
    virtual void onEnd(const EndRecord& /*end*/, bool /*whole*/) { }
    virtual void onNotSearched(const NotSearchedRecord& /*record*/) { }
    /// Messages are missing between this one and the one read before it.
    virtual void onMissingMessages(uint64_t /*count*/) { }
};

/// Reads the messages of one recording, in their order. Input is untrusted: limits are those of OrphanRecords.h. Some
/// 30 ns a leak. One thread.
class OrphanRecordReader {
public:
    /// Errors: kCorrupt for a message that is not one or breaks off; what stood before the fault was delivered and
    /// stays, the next message can be read. kUnsupported: written by a later version. kTooLarge: passes a limit.
    Status read(std::span<const std::byte> message, OrphanRecordHandler& handler);

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

    Status readHeader(Decoding& decoding);
    Status readRecord(Decoding& decoding);
    Status readNode(Decoding& decoding, bool cut);
    Status readLeak(Decoding& decoding);
    void readSearch(Decoding& decoding);

    std::vector<Node> _nodes;
    uint64_t _nextSequence = 0;
    uint64_t _leaksTold = 0; ///< of the search at hand
    bool _numbersHold = false; ///< no message of the search at hand is missing
};

} // namespace vnt::orphans
