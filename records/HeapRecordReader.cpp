#include "records/HeapRecordReader.h"

namespace vnt::heap {
namespace {

/// A varint that must fit 32 bits.
uint32_t number(ByteCursor& cursor)
{
    const uint64_t value = cursor.varint();
    if (value > UINT32_MAX)
        cursor.fail();
    return static_cast<uint32_t>(value);
}

uint32_t slotNumber(ByteCursor& cursor)
{
    const uint32_t slot = number(cursor);
    if (slot >= kMaxSlots)
        cursor.fail();
    return slot;
}

} // namespace

struct HeapRecordReader::Decoding {
    ByteCursor cursor;
    HeapRecordHandler& handler;
    uint64_t timeNs;
    uint64_t address = 0;
    uint64_t object = 0;
};

Status HeapRecordReader::read(std::span<const std::byte> message, HeapRecordHandler& handler)
{
    if (message.size() > kMaxMessageBytes)
        return Status(Code::kTooLarge, "heap records: message of " + std::to_string(message.size()) + " bytes");
    ByteCursor cursor(message);
    size_t definitionsBytes = 0;
    uint64_t baseTimeNs = 0;
    RETURN_IF_ERROR(readHeader(cursor, definitionsBytes, baseTimeNs, handler));
    const auto definitions = cursor.bytes(definitionsBytes, kMaxMessageBytes);
    if (cursor.failed())
        return Status(Code::kCorrupt, "heap records: the definitions break off");
    RETURN_IF_ERROR(readDefinitions(ByteCursor(definitions), handler));
    Decoding decoding{cursor, handler, baseTimeNs};
    while (!decoding.cursor.atEnd()) {
        const size_t at = decoding.cursor.offset();
        Status status = readEvent(decoding);
        if (status.ok() && decoding.cursor.failed())
            status = Status(Code::kCorrupt, "heap records: record breaks off");
        if (!status.ok())
            return Status(status.code(), status.message() + " (at byte " + std::to_string(at) + ")");
    }
    return {};
}

Status HeapRecordReader::readHeader(ByteCursor& cursor, size_t& definitionsBytes, uint64_t& baseTimeNs,
                                    HeapRecordHandler& handler)
{
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    cursor.little<uint16_t>();
    const auto sequence = cursor.little<uint32_t>();
    const auto nodesBefore = cursor.little<uint32_t>();
    definitionsBytes = cursor.little<uint32_t>();
    cursor.little<uint32_t>();
    baseTimeNs = cursor.little<uint64_t>();
    if (cursor.failed() || magic != kMagic)
        return Status(Code::kCorrupt, "heap records: no message header");
    if (version < kPlainVersion || version > kVersion)
        return Status(Code::kUnsupported, "heap records: version " + std::to_string(version) + " is not known");
    if (nodesBefore > kMaxNodes)
        return Status(Code::kTooLarge, "heap records: too many frame nodes");
    if (sequence < _nextSequence)
        return Status(Code::kCorrupt, "heap records: message is out of order");
    if (nodesBefore < _nodes.size())
        return Status(Code::kCorrupt, "heap records: frame nodes are numbered twice");
    if (sequence > _nextSequence)
        handler.onMissingMessages(sequence - _nextSequence);
    _nextSequence = uint64_t{sequence} + 1;
    _nodes.resize(nodesBefore); // those whose definitions are lost stay unknown
    return {};
}

Status HeapRecordReader::readDefinitions(ByteCursor cursor, HeapRecordHandler& handler)
{
    while (!cursor.atEnd()) {
        const auto kind = static_cast<RecordKind>(cursor.little<uint8_t>());
        if (kind == RecordKind::kNode || kind == RecordKind::kCutNode) {
            RETURN_IF_ERROR(readNode(cursor, kind == RecordKind::kCutNode));
        } else if (kind == RecordKind::kSession) {
            SessionRecord session;
            session.eventsMask = number(cursor);
            session.flags = number(cursor);
            if (!cursor.failed())
                handler.onSession(session);
        } else {
            return Status(Code::kCorrupt, "heap records: unknown definition");
        }
        if (cursor.failed())
            return Status(Code::kCorrupt, "heap records: definition breaks off");
    }
    return {};
}

Status HeapRecordReader::readNode(ByteCursor& cursor, bool cut)
{
    if (_nodes.size() >= kMaxNodes)
        return Status(Code::kTooLarge, "heap records: too many frame nodes");
    Node node;
    node.known = true;
    node.cut = cut;
    if (!cut) {
        node.caller = number(cursor);
        const auto delta = static_cast<uint64_t>(cursor.signedVarint());
        if (node.caller > _nodes.size())
            return Status(Code::kCorrupt, "heap records: a frame comes before its caller");
        uint64_t callerAddress = 0;
        if (node.caller != 0) {
            const Node& caller = _nodes[node.caller - 1];
            if (caller.depth >= kMaxDepth)
                return Status(Code::kTooLarge, "heap records: stack is too deep");
            // The address is relative to the caller's: without it, this node is lost as well.
            node.known = caller.known;
            node.depth = caller.depth;
            callerAddress = caller.address;
        }
        ++node.depth;
        node.address = callerAddress + delta;
    }
    _nodes.push_back(node);
    return {};
}

void HeapRecordReader::readAllocate(Decoding& decoding, Function function)
{
    ByteCursor& cursor = decoding.cursor;
    AllocateRecord record;
    record.timeNs = decoding.timeNs;
    record.function = function;
    record.slot = slotNumber(cursor);
    record.stack = number(cursor);
    record.sizeBytes = cursor.varint();
    decoding.address += static_cast<uint64_t>(cursor.signedVarint());
    record.address = decoding.address;
    if (cursor.failed())
        return;
    record.stack = knownStack(record.stack);
    decoding.handler.onAllocate(record);
}

Status HeapRecordReader::readLost(Decoding& decoding)
{
    const uint64_t cause = decoding.cursor.varint();
    const uint64_t total = decoding.cursor.varint();
    if (decoding.cursor.failed())
        return {};
    if (cause >= kLostCauses)
        return Status(Code::kCorrupt, "heap records: unknown cause of loss");
    if (total <= _lost[cause])
        return {}; // totals are repeated so that a dropped batch cannot hide them
    const uint64_t newly = total - _lost[cause];
    _lost[cause] = total;
    decoding.handler.onLost(decoding.timeNs, static_cast<LostCause>(cause), newly, total);
    return {};
}

Status HeapRecordReader::readFault(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    const uint64_t fault = cursor.varint();
    FaultRecord record;
    record.address = cursor.varint();
    record.byte = cursor.varint();
    record.allocateStack = knownStack(number(cursor));
    record.freeStack = knownStack(number(cursor));
    record.faultStack = knownStack(number(cursor));
    if (cursor.failed())
        return {};
    if (fault >= kFaults)
        return Status(Code::kCorrupt, "heap records: unknown fault");
    record.fault = static_cast<Fault>(fault);
    decoding.handler.onFault(decoding.timeNs, record);
    return {};
}

Status HeapRecordReader::readCount(Decoding& decoding, unsigned counting)
{
    ByteCursor& cursor = decoding.cursor;
    if (counting >= kCountings)
        return Status(Code::kCorrupt, "heap records: unknown change of a count");
    CountRecord record;
    record.counting = static_cast<Counting>(counting);
    record.thread = number(cursor);
    record.stack = knownStack(number(cursor));
    record.before = cursor.varint();
    decoding.object += static_cast<uint64_t>(cursor.signedVarint());
    record.object = decoding.object;
    if (!cursor.failed())
        decoding.handler.onCount(decoding.timeNs, record);
    return {};
}

Status HeapRecordReader::readMore(Decoding& decoding, unsigned kind)
{
    ByteCursor& cursor = decoding.cursor;
    if (kind == static_cast<unsigned>(MoreKind::kClassLook)) {
        const uint64_t blocks = cursor.varint();
        const uint64_t bytes = cursor.varint();
        if (!cursor.failed())
            decoding.handler.onClassLook(decoding.timeNs, blocks, bytes);
        return {};
    }
    if (kind != static_cast<unsigned>(MoreKind::kClass))
        return Status(Code::kCorrupt, "heap records: unknown record");
    ClassRecord record;
    for (uint64_t* field : {&record.table, &record.code, &record.blocks, &record.bytes})
        *field = cursor.varint();
    if (!cursor.failed())
        decoding.handler.onClass(decoding.timeNs, record);
    return {};
}

Status HeapRecordReader::readEvent(Decoding& decoding)
{
    const auto head = decoding.cursor.little<uint8_t>();
    const auto kind = static_cast<RecordKind>(head & 0x0f);
    const unsigned high = head >> 4;
    decoding.timeNs += decoding.cursor.varint();
    if (kind == RecordKind::kCount)
        return readCount(decoding, high);
    if (kind == RecordKind::kMore)
        return readMore(decoding, high);
    if (high >= kFunctions)
        return Status(Code::kCorrupt, "heap records: unknown function");
    return readEvent(decoding, kind, static_cast<Function>(high));
}

Status HeapRecordReader::readEvent(Decoding& decoding, RecordKind kind, Function function)
{
    ByteCursor& cursor = decoding.cursor;
    HeapRecordHandler& handler = decoding.handler;
    const uint64_t timeNs = decoding.timeNs;
    switch (kind) {
    case RecordKind::kAllocate:
        readAllocate(decoding, function);
        return {};
    case RecordKind::kFree:
    case RecordKind::kFreedOutside: {
        const uint32_t slot = slotNumber(cursor);
        if (!cursor.failed() && kind == RecordKind::kFree)
            handler.onFree(timeNs, function, slot);
        else if (!cursor.failed())
            handler.onFreedOutside(timeNs, slot);
        return {};
    }
    case RecordKind::kFreeUnknown: {
        const uint64_t address = cursor.varint();
        if (!cursor.failed())
            handler.onFreeUnknown(timeNs, function, address);
        return {};
    }
    case RecordKind::kTarget: {
        TargetRecord target;
        target.pid = number(cursor);
        target.flags = number(cursor);
        target.name = cursor.text(kMaxNameBytes);
        if (!cursor.failed())
            handler.onTarget(timeNs, target);
        return {};
    }
    case RecordKind::kNoTarget:
        if (!cursor.failed())
            handler.onNoTarget(timeNs);
        return {};
    case RecordKind::kExit: {
        const uint32_t pid = number(cursor);
        if (!cursor.failed())
            handler.onExit(timeNs, pid);
        return {};
    }
    case RecordKind::kLost:
        return readLost(decoding);
    case RecordKind::kFault:
        return readFault(decoding);
    case RecordKind::kCost: {
        const uint64_t cpuNs = cursor.varint();
        const uint64_t events = cursor.varint();
        if (!cursor.failed())
            handler.onCost(timeNs, cpuNs, events);
        return {};
    }
    default:
        return Status(Code::kCorrupt, "heap records: unknown record");
    }
}

} // namespace vnt::heap
