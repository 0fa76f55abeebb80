#pragma once

#include <optional>
#include <span>
#include <vector>

#include "platform/base/ByteCursor.h"
#include "platform/base/Status.h"
#include "records/StackRecords.h"

namespace vnt::stacks {

/// One stretch of a thread's time.
struct SampleRecord {
    uint64_t timeNs = 0;
    const ThreadRecord* thread = nullptr; ///< never null; valid during the call
    uint32_t stack = 0; ///< for StackRecordReader::frames() of the same generation
    /// Not 0: the thread was blocked for this long before `timeNs`. 0: it ran, and the sample stands for one interval.
    uint64_t blockedNs = 0;
};

/// Told by StackRecordReader what stands in a message, in its order. Every function does nothing by default.
class StackRecordHandler {
public:
    virtual ~StackRecordHandler() = default;
    /// A new generation: stack numbers kept from before are void, and the session is told again.
    virtual void onGeneration(uint32_t /*generation*/) { }
    virtual void onSession(const SessionRecord& /*session*/) { }
    virtual void onThread(uint32_t /*number*/, const ThreadRecord& /*thread*/) { }
    virtual void onSample(const SampleRecord& /*sample*/) { }
    /// A sample whose thread or stack is not known because the message that defined it is missing.
    virtual void onOrphan(uint64_t /*timeNs*/) { }
    /// `newly` records lost since the last report, `total` since the recording began.
    virtual void onLost(uint64_t /*timeNs*/, LostCause /*cause*/, uint64_t /*newly*/, uint64_t /*total*/) { }
    virtual void onExec(uint64_t /*timeNs*/, uint32_t /*pid*/, std::string_view /*name*/) { }
    virtual void onFork(uint64_t /*timeNs*/, uint32_t /*parent*/, uint32_t /*child*/) { }
    virtual void onExit(uint64_t /*timeNs*/, uint32_t /*pid*/) { }
    /// Processor time the recorder itself used, and the samples it wrote, both since the recording began.
    virtual void onCost(uint64_t /*timeNs*/, uint64_t /*cpuNs*/, uint64_t /*samples*/) { }
    /// Messages are missing between this one and the one read before it.
    virtual void onMissingMessages(uint64_t /*count*/) { }
};

/// Reads the messages of one recording, in their order. Input is untrusted: limits are those of StackRecords.h, and
/// nothing it says can make the tables larger. One thread.
class StackRecordReader {
public:
    /// Errors: kCorrupt for a message that is not one or breaks off; what stood before the fault was delivered and
    /// stays, the next message can be read. kUnsupported: written by a later version. kTooLarge: passes a limit.
    Status read(std::span<const std::byte> message, StackRecordHandler& handler);

    /// Replaces `addresses` by the frames of `stack`, innermost first. Kernel addresses have the highest bit set.
    /// False: the outer frames are missing (cut when recorded, or their definitions are lost).
    bool frames(uint32_t stack, std::vector<uint64_t>& addresses) const;

    // Single nodes, for readers that keep work per node. `node` is 1 to nodeCount(); a lost one has known false.
    struct Node {
        uint64_t address = 0;
        uint32_t caller = 0;
        uint16_t depth = 0; ///< 1 for an outermost frame
        bool known = false;
        bool cut = false; ///< no frame: stands for the outer frames that were cut off
    };
    [[nodiscard]] uint32_t nodeCount() const { return static_cast<uint32_t>(_nodes.size()); }
    [[nodiscard]] const Node& node(uint32_t number) const { return _nodes[number - 1]; }

    [[nodiscard]] uint32_t generation() const { return _generation; }
    /// Of the latest generation; all zero before the first.
    [[nodiscard]] const SessionRecord& session() const { return _session; }

private:
    struct Header {
        uint32_t generation = 0;
        uint32_t sequence = 0;
        uint32_t nodesBefore = 0;
        uint64_t baseTimeNs = 0;
    };
    struct Decoding;

    Status begin(const Header& header, StackRecordHandler& handler);
    Status readRecord(Decoding& decoding);
    Status readSample(Decoding& decoding, RecordKind kind);
    Status readNode(Decoding& decoding, RecordKind kind);
    Status readThread(Decoding& decoding);
    Status readLost(Decoding& decoding);
    Status readSession(Decoding& decoding);

    std::vector<Node> _nodes;
    std::vector<std::optional<ThreadRecord>> _threads;
    SessionRecord _session;
    uint32_t _generation = 0;
    uint64_t _nextSequence = 0;
    uint64_t _lost[kLostCauses] = {};
};

} // namespace vnt::stacks
