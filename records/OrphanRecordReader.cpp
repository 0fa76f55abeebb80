#include "records/OrphanRecordReader.h"

#include "records/HeapRecords.h"
#include "records/TimedDecoding.h"

namespace vnt::orphans {

struct OrphanRecordReader::Decoding : TimedDecoding {
    OrphanRecordHandler& handler;
    uint64_t address = 0;
};

Status OrphanRecordReader::read(std::span<const std::byte> message, OrphanRecordHandler& handler)
{
    if (message.size() > kMaxMessageBytes)
        return Status(Code::kTooLarge, "leak records: message of " + std::to_string(message.size()) + " bytes");
    Decoding decoding{{ByteCursor(message)}, handler};
    RETURN_IF_ERROR(readHeader(decoding));
    while (!decoding.cursor.atEnd()) {
        const size_t at = decoding.cursor.offset();
        Status status = readRecord(decoding);
        if (status.ok() && decoding.cursor.failed())
            status = Status(Code::kCorrupt, "leak records: record breaks off");
        if (!status.ok())
            return Status(status.code(), status.message() + " (at byte " + std::to_string(at) + ")");
    }
    return {};
}

Status OrphanRecordReader::readHeader(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    cursor.little<uint16_t>();
    const auto sequence = cursor.little<uint32_t>();
    const auto nodesBefore = cursor.little<uint32_t>();
    cursor.little<uint64_t>();
    decoding.timeNs = cursor.little<uint64_t>();
    if (cursor.failed() || magic != kMagic)
        return Status(Code::kCorrupt, "leak records: no message header");
    if (version < kPlainVersion || version > kVersion)
        return Status(Code::kUnsupported, "leak records: version " + std::to_string(version) + " is not known");
    if (nodesBefore > kMaxNodes)
        return Status(Code::kTooLarge, "leak records: too many frame nodes");
    if (sequence < _nextSequence)
        return Status(Code::kCorrupt, "leak records: message is out of order");
    if (nodesBefore < _nodes.size())
        return Status(Code::kCorrupt, "leak records: frame nodes are numbered twice");
    if (sequence > _nextSequence) {
        decoding.handler.onMissingMessages(sequence - _nextSequence);
        _numbersHold = false;
    }
    _nextSequence = uint64_t{sequence} + 1;
    _nodes.resize(nodesBefore); // those whose definitions are lost stay unknown
    return {};
}

Status OrphanRecordReader::readNode(Decoding& decoding, bool cut)
{
    if (_nodes.size() >= kMaxNodes)
        return Status(Code::kTooLarge, "leak records: too many frame nodes");
    Node node;
    node.known = true;
    node.cut = cut;
    if (!cut) {
        node.caller = decoding.number();
        const auto delta = static_cast<uint64_t>(decoding.cursor.signedVarint());
        if (node.caller > _nodes.size())
            return Status(Code::kCorrupt, "leak records: a frame comes before its caller");
        const Node caller = node.caller != 0 ? _nodes[node.caller - 1] : Node{.known = true};
        if (caller.depth >= kMaxDepth)
            return Status(Code::kTooLarge, "leak records: stack is too deep");
        node.known = caller.known; // the address is relative to the caller's
        node.depth = static_cast<uint16_t>(caller.depth + 1);
        node.address = caller.address + delta;
    }
    if (!decoding.cursor.failed())
        _nodes.push_back(node);
    return {};
}

void OrphanRecordReader::readSearch(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    const uint64_t timeNs = decoding.nextTime();
    SearchRecord search;
    search.number = decoding.number();
    search.pid = decoding.number();
    search.flags = decoding.number();
    search.name = cursor.text(kMaxTextBytes);
    search.pauseNs = cursor.varint();
    search.verdictNs = cursor.varint();
    search.threads = decoding.number();
    for (uint64_t* field : {&search.blocks, &search.blockBytes, &search.rootBytes, &search.unreadableBytes,
                            &search.olderBytes, &search.lostEvents, &search.leaks, &search.leakedBytes})
        *field = cursor.varint();
    if (cursor.failed())
        return;
    _leaksTold = 0;
    _numbersHold = true;
    decoding.handler.onSearch(timeNs, search);
}

Status OrphanRecordReader::readLeak(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    LeakRecord leak;
    const auto flags = cursor.little<uint8_t>();
    const unsigned kind = flags & LeakRecord::kKindMask;
    decoding.address += static_cast<uint64_t>(cursor.signedVarint());
    leak.address = decoding.address;
    leak.sizeBytes = cursor.varint();
    leak.holder = decoding.number();
    leak.timeNs = decoding.nextTime();
    leak.function = cursor.little<uint8_t>();
    leak.stack = decoding.number();
    leak.contents = cursor.text(kMaxContentBytes);
    if ((flags & LeakRecord::kHasClass) != 0) {
        leak.table = cursor.varint();
        leak.code = leak.table + static_cast<uint64_t>(cursor.signedVarint());
    }
    if (cursor.failed())
        return {};
    if (kind >= kKinds || flags > (LeakRecord::kKindMask | LeakRecord::kNew | LeakRecord::kHasClass)
        || leak.function >= heap::kFunctions)
        return Status(Code::kCorrupt, "leak records: unknown kind of leak");
    if (_leaksTold >= kMaxLeaks)
        return Status(Code::kTooLarge, "leak records: too many leaks");
    leak.kind = static_cast<Kind>(kind);
    leak.isNew = (flags & LeakRecord::kNew) != 0;
    if (leak.holder > _leaksTold || !_numbersHold)
        leak.holder = 0;
    if (leak.stack > _nodes.size() || (leak.stack != 0 && !_nodes[leak.stack - 1].known))
        leak.stack = 0;
    ++_leaksTold;
    decoding.handler.onLeak(leak);
    return {};
}

Status OrphanRecordReader::readRecord(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    const auto kind = static_cast<RecordKind>(cursor.little<uint8_t>());
    switch (kind) {
    case RecordKind::kNode:
    case RecordKind::kCutNode:
        return readNode(decoding, kind == RecordKind::kCutNode);
    case RecordKind::kSearch:
        readSearch(decoding);
        return {};
    case RecordKind::kLeak:
        return readLeak(decoding);
    case RecordKind::kEnd: {
        EndRecord end;
        end.told = cursor.varint();
        end.omitted = cursor.varint();
        end.omittedBytes = cursor.varint();
        if (!cursor.failed())
            decoding.handler.onEnd(end, end.told == _leaksTold);
        return {};
    }
    case RecordKind::kNotSearched: {
        NotSearchedRecord record;
        record.timeNs = decoding.nextTime();
        record.pid = decoding.number();
        record.text = cursor.text(kMaxTextBytes);
        if (!cursor.failed())
            decoding.handler.onNotSearched(record);
        return {};
    }
    default:
        return Status(Code::kCorrupt, "leak records: unknown record");
    }
}

} // namespace vnt::orphans
