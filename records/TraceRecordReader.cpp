#include "records/TraceRecordReader.h"

#include "records/TimedDecoding.h"

namespace vnt::trace {

struct TraceRecordReader::Header {
    uint32_t generation = 0;
    uint32_t sequence = 0;
    uint32_t nodesBefore = 0;
    uint32_t typesBefore = 0;
};

struct TraceRecordReader::Decoding : TimedDecoding {
    TraceRecordHandler& handler;
    uint64_t windowBeginNs = 0;
    uint32_t cpu = 0;
};

Status TraceRecordReader::read(std::span<const std::byte> message, TraceRecordHandler& handler)
{
    if (message.size() > kMaxMessageBytes)
        return Status(Code::kTooLarge, "trace records: message of " + std::to_string(message.size()) + " bytes");
    Decoding decoding{{ByteCursor(message)}, handler};
    ByteCursor& cursor = decoding.cursor;
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    cursor.little<uint16_t>();
    Header header;
    header.generation = cursor.little<uint32_t>();
    header.sequence = cursor.little<uint32_t>();
    header.nodesBefore = cursor.little<uint32_t>();
    header.typesBefore = cursor.little<uint32_t>();
    cursor.little<uint64_t>(); // events in the message, 0
    decoding.timeNs = cursor.little<uint64_t>();
    decoding.windowBeginNs = cursor.little<uint64_t>();
    if (cursor.failed() || magic != kMagic)
        return Status(Code::kCorrupt, "trace records: no message header");
    if (version != kVersion)
        return Status(Code::kUnsupported, "trace records: version " + std::to_string(version) + " is not known");
    RETURN_IF_ERROR(begin(header, handler));
    while (!cursor.atEnd()) {
        const size_t at = cursor.offset();
        const uint64_t kind = cursor.varint();
        Status status = kind < kFirstEvent   ? readRecord(decoding, kind)
            : kind - kFirstEvent < kMaxTypes ? readEvent(decoding, static_cast<uint32_t>(kind - kFirstEvent))
                                             : Status(Code::kCorrupt, "trace records: unknown record");
        if (status.ok() && cursor.failed())
            status = Status(Code::kCorrupt, "trace records: record breaks off");
        if (!status.ok())
            return Status(status.code(), status.message() + " (at byte " + std::to_string(at) + ")");
    }
    return {};
}

Status TraceRecordReader::begin(const Header& header, TraceRecordHandler& handler)
{
    if (header.nodesBefore > stacks::kMaxNodes || header.typesBefore > kMaxTypes)
        return Status(Code::kTooLarge, "trace records: too many definitions");
    if (header.sequence < _nextSequence || header.generation < _generation)
        return Status(Code::kCorrupt, "trace records: message is out of order");
    if (header.sequence > _nextSequence)
        handler.onMissingMessages(header.sequence - _nextSequence);
    _nextSequence = uint64_t{header.sequence} + 1;
    if (!_definitions || header.generation != _generation) {
        _generation = header.generation;
        auto next = std::make_shared<Definitions>();
        if (_definitions)
            next->_session = _definitions->_session; // its own record may be missing
        _definitions = std::move(next);
        _last.clear();
        handler.onGeneration(_definitions);
    }
    // Fewer than we know: numbers would be given twice. More: their definitions are lost, the numbers stay vacant.
    if (header.nodesBefore < _definitions->_nodes.size() || header.typesBefore < _definitions->_types.size())
        return Status(Code::kCorrupt, "trace records: definitions are numbered twice");
    _definitions->_nodes.resize(header.nodesBefore);
    _definitions->_types.resize(header.typesBefore);
    _last.resize(header.typesBefore);
    ++_epoch;
    return {};
}

Status TraceRecordReader::readRecord(Decoding& decoding, uint64_t kind)
{
    ByteCursor& cursor = decoding.cursor;
    switch (static_cast<RecordKind>(kind)) {
    case RecordKind::kNode:
    case RecordKind::kCutNode:
        return readNode(decoding, static_cast<RecordKind>(kind));
    case RecordKind::kThread:
        return readThread(decoding);
    case RecordKind::kType:
        return readType(decoding);
    case RecordKind::kSession:
        readSession(decoding);
        return {};
    case RecordKind::kProcessor:
        decoding.cpu = decoding.number();
        if (decoding.cpu >= kMaxProcessors)
            return Status(Code::kTooLarge, "trace records: processor " + std::to_string(decoding.cpu));
        return {};
    case RecordKind::kSettled: {
        const uint64_t timeNs = decoding.nextTime();
        if (!cursor.failed())
            decoding.handler.onSettled(timeNs);
        return {};
    }
    case RecordKind::kLost:
        return readLost(decoding);
    case RecordKind::kFork: {
        const uint64_t timeNs = decoding.nextTime();
        const uint32_t parent = decoding.number();
        const uint32_t child = decoding.number();
        if (!cursor.failed())
            decoding.handler.onFork(timeNs, parent, child);
        return {};
    }
    case RecordKind::kCost: {
        const uint64_t timeNs = decoding.nextTime();
        const uint64_t cpuNs = cursor.varint();
        const uint64_t events = cursor.varint();
        if (!cursor.failed())
            decoding.handler.onCost(timeNs, cpuNs, events);
        return {};
    }
    }
    return Status(Code::kCorrupt, "trace records: unknown record");
}

Status TraceRecordReader::readEvent(Decoding& decoding, uint32_t number)
{
    Definitions& definitions = *_definitions;
    if (number >= definitions._types.size())
        return Status(Code::kCorrupt, "trace records: event of no type");
    // Without its type an event's length is not known: the rest of the message is lost with it.
    if (!definitions._types[number])
        return Status(Code::kCorrupt, "trace records: the type of an event is missing");
    const TypeRecord& type = *definitions._types[number];
    LastValues& last = _last[number];
    if (last.epoch != _epoch) {
        last.epoch = _epoch;
        last.values.fill(0);
    }
    EventRecord event;
    event.type = number;
    event.cpu = decoding.cpu;
    event.timeNs = decoding.nextTime();
    event.thread = decoding.number();
    if ((type.flags & TypeRecord::kStacks) != 0)
        event.stack = decoding.number();
    for (size_t i = 0; i < type.values.size(); ++i)
        last.values[i] += static_cast<uint64_t>(decoding.cursor.signedVarint());
    event.values = std::span(last.values).first(type.values.size());
    if ((type.flags & TypeRecord::kText) != 0)
        event.text = decoding.cursor.text(kMaxTextBytes);
    if (decoding.cursor.failed() || event.timeNs < decoding.windowBeginNs)
        return {};
    const auto& nodes = definitions._nodes;
    const bool stackKnown = event.stack == 0 || (event.stack <= nodes.size() && nodes[event.stack - 1].known);
    const auto& threads = definitions._threads;
    if (!stackKnown || event.thread >= threads.size() || !threads[event.thread])
        decoding.handler.onOrphan(event.timeNs);
    else
        decoding.handler.onEvent(event);
    return {};
}

Status TraceRecordReader::readNode(Decoding& decoding, RecordKind kind)
{
    auto& nodes = _definitions->_nodes;
    if (nodes.size() >= stacks::kMaxNodes)
        return Status(Code::kTooLarge, "trace records: too many frame nodes");
    Definitions::Node node;
    node.known = true;
    if (kind == RecordKind::kCutNode) {
        node.cut = true;
        nodes.push_back(node);
        return {};
    }
    node.caller = decoding.number();
    const auto delta = static_cast<uint64_t>(decoding.cursor.signedVarint());
    if (decoding.cursor.failed())
        return {};
    if (node.caller > nodes.size())
        return Status(Code::kCorrupt, "trace records: a frame comes before its caller");
    uint64_t callerAddress = 0;
    if (node.caller != 0) {
        const Definitions::Node& caller = nodes[node.caller - 1];
        if (caller.depth >= stacks::kMaxDepth)
            return Status(Code::kTooLarge, "trace records: stack is too deep");
        // The address is relative to the caller's: without it, this node is lost as well.
        node.known = caller.known;
        node.depth = caller.depth;
        callerAddress = caller.address;
    }
    ++node.depth;
    node.address = callerAddress + delta;
    nodes.push_back(node);
    return {};
}

Status TraceRecordReader::readThread(Decoding& decoding)
{
    const uint32_t number = decoding.number();
    stacks::ThreadRecord thread;
    thread.pid = decoding.number();
    thread.tid = decoding.number();
    thread.flags = decoding.number();
    thread.name = decoding.cursor.text(stacks::kMaxNameBytes);
    if (decoding.cursor.failed())
        return {};
    if (number >= stacks::kMaxThreads)
        return Status(Code::kTooLarge, "trace records: too many threads");
    auto& threads = _definitions->_threads;
    if (number >= threads.size())
        threads.resize(number + 1);
    threads[number] = std::move(thread);
    return {};
}

Status TraceRecordReader::readType(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    TypeRecord type;
    type.kind = static_cast<EventKind>(decoding.number());
    type.number = decoding.number();
    type.name = cursor.text(kMaxNameBytes);
    type.label = cursor.text(kMaxNameBytes);
    type.flags = decoding.number();
    const uint64_t count = cursor.varint();
    if (count > kMaxValues || _definitions->_types.size() >= kMaxTypes)
        return Status(Code::kTooLarge, "trace records: too many values or types");
    for (uint64_t i = 0; i < count; ++i)
        type.values.emplace_back(cursor.text(kMaxNameBytes));
    if (cursor.failed())
        return {};
    _definitions->_types.emplace_back(std::move(type));
    _last.emplace_back();
    return {};
}

void TraceRecordReader::readSession(Decoding& decoding)
{
    SessionRecord session;
    session.flags = decoding.number();
    session.pid = decoding.number();
    session.windowNs = decoding.cursor.varint();
    session.maxFrames = decoding.number();
    if (!decoding.cursor.failed())
        _definitions->_session = session;
}

Status TraceRecordReader::readLost(Decoding& decoding)
{
    const uint64_t timeNs = decoding.nextTime();
    const uint64_t cause = decoding.cursor.varint();
    const uint64_t total = decoding.cursor.varint();
    if (decoding.cursor.failed())
        return {};
    if (cause >= kLostCauses)
        return Status(Code::kCorrupt, "trace records: unknown cause of loss");
    if (total <= _lost[cause])
        return {}; // totals are repeated so that a dropped batch cannot hide them
    const uint64_t newly = total - _lost[cause];
    _lost[cause] = total;
    decoding.handler.onLost(timeNs, static_cast<LostCause>(cause), newly, total);
    return {};
}

bool Definitions::frames(uint32_t stack, std::vector<uint64_t>& addresses) const
{
    addresses.clear();
    // A caller's number is always smaller, so this ends.
    while (stack != 0) {
        if (stack > _nodes.size() || !_nodes[stack - 1].known || _nodes[stack - 1].cut)
            return false;
        addresses.push_back(_nodes[stack - 1].address);
        stack = _nodes[stack - 1].caller;
    }
    return true;
}

} // namespace vnt::trace
