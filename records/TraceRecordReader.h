#pragma once

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "platform/base/ByteCursor.h"
#include "platform/base/Status.h"
#include "records/TraceRecords.h"

namespace vnt::trace {

/// What the numbers of one generation stand for. Filled by a TraceRecordReader; outlives the generation for those who
/// keep events of it.
class Definitions {
public:
    [[nodiscard]] const SessionRecord& session() const { return _session; }
    /// Of an event that was delivered: never missing. A thread's name is the latest one.
    [[nodiscard]] const stacks::ThreadRecord& thread(uint32_t number) const { return *_threads[number]; }
    [[nodiscard]] const TypeRecord& type(uint32_t number) const { return *_types[number]; }
    [[nodiscard]] uint32_t typeCount() const { return static_cast<uint32_t>(_types.size()); }

    /// Replaces `addresses` by the frames of `stack`, innermost first. Kernel addresses have the highest bit set.
    /// False: the outer frames are missing (cut when recorded, or their definitions are lost).
    bool frames(uint32_t stack, std::vector<uint64_t>& addresses) const;

private:
    friend class TraceRecordReader;
    struct Node {
        uint64_t address = 0;
        uint32_t caller = 0;
        uint16_t depth = 0;
        bool known = false;
        bool cut = false;
    };
    SessionRecord _session;
    std::vector<Node> _nodes;
    std::vector<std::optional<stacks::ThreadRecord>> _threads;
    std::vector<std::optional<TypeRecord>> _types; ///< empty: its definition is lost
};

/// One event as it stands in the recording.
struct EventRecord {
    uint64_t timeNs = 0;
    uint32_t cpu = 0;
    uint32_t type = 0; ///< for Definitions::type()
    uint32_t thread = 0; ///< for Definitions::thread(): who was running
    uint32_t stack = 0; ///< for Definitions::frames(); 0: none
    std::span<const uint64_t> values; ///< as many as the type has; valid during the call
    std::string_view text; ///< likewise
};

/// Told by TraceRecordReader what stands in a message, in its order. Every function does nothing by default.
class TraceRecordHandler {
public:
    virtual ~TraceRecordHandler() = default;
    /// What follows refers to these; they stay true for the events told before.
    virtual void onGeneration(const std::shared_ptr<const Definitions>& /*definitions*/) { }
    virtual void onEvent(const EventRecord& /*event*/) { }
    /// An event whose thread or stack is not known because the message that defined it is missing.
    virtual void onOrphan(uint64_t /*timeNs*/) { }
    /// No later event is earlier, save one that was being written for longer than a reading took.
    virtual void onSettled(uint64_t /*timeNs*/) { }
    /// `newly` events lost since the last report, `total` since the recording began.
    virtual void onLost(uint64_t /*timeNs*/, LostCause /*cause*/, uint64_t /*newly*/, uint64_t /*total*/) { }
    virtual void onFork(uint64_t /*timeNs*/, uint32_t /*parent*/, uint32_t /*child*/) { }
    /// Processor time the recorder itself used, and the events it wrote, both since the recording began.
    virtual void onCost(uint64_t /*timeNs*/, uint64_t /*cpuNs*/, uint64_t /*events*/) { }
    /// Messages are missing between this one and the one read before it.
    virtual void onMissingMessages(uint64_t /*count*/) { }
};

/// Reads the messages of one recording, in their order. Input is untrusted: limits are those of TraceRecords.h, and
/// nothing it says can make the tables larger. An event costs some 40 ns. One thread.
class TraceRecordReader {
public:
    /// Errors: kCorrupt for a message that is not one or breaks off; what stood before the fault was delivered and
    /// stays, the next message can be read. kUnsupported: written by a later version. kTooLarge: passes a limit.
    Status read(std::span<const std::byte> message, TraceRecordHandler& handler);

private:
    struct Header;
    struct Decoding;
    struct LastValues {
        uint32_t epoch = 0;
        std::array<uint64_t, kMaxValues> values{};
    };

    Status begin(const Header& header, TraceRecordHandler& handler);
    Status readRecord(Decoding& decoding, uint64_t kind);
    Status readEvent(Decoding& decoding, uint32_t number);
    Status readNode(Decoding& decoding, RecordKind kind);
    Status readThread(Decoding& decoding);
    Status readType(Decoding& decoding);
    void readSession(Decoding& decoding);
    Status readLost(Decoding& decoding);

    std::shared_ptr<Definitions> _definitions;
    std::vector<LastValues> _last; ///< by type
    uint32_t _epoch = 0;
    uint32_t _generation = 0;
    uint64_t _nextSequence = 0;
    uint64_t _lost[kLostCauses] = {};
};

} // namespace vnt::trace
