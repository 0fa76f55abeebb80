#include "records/StackRecordReader.h"

#include "records/TimedDecoding.h"

namespace vnt::stacks {

struct StackRecordReader::Decoding : TimedDecoding {
    StackRecordHandler& handler;
};

Status StackRecordReader::read(std::span<const std::byte> message, StackRecordHandler& handler)
{
    if (message.size() > kMaxMessageBytes)
        return Status(Code::kTooLarge, "stack records: message of " + std::to_string(message.size()) + " bytes");
    Decoding decoding{{ByteCursor(message)}, handler};
    ByteCursor& cursor = decoding.cursor;
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    cursor.little<uint16_t>();
    Header header;
    header.generation = cursor.little<uint32_t>();
    header.sequence = cursor.little<uint32_t>();
    header.nodesBefore = cursor.little<uint32_t>();
    cursor.little<uint32_t>();
    header.baseTimeNs = cursor.little<uint64_t>();
    if (cursor.failed() || magic != kMagic)
        return Status(Code::kCorrupt, "stack records: no message header");
    if (version != kVersion)
        return Status(Code::kUnsupported, "stack records: version " + std::to_string(version) + " is not known");
    RETURN_IF_ERROR(begin(header, handler));
    decoding.timeNs = header.baseTimeNs;
    while (!cursor.atEnd()) {
        const size_t at = cursor.offset();
        Status status = readRecord(decoding);
        if (status.ok() && cursor.failed())
            status = Status(Code::kCorrupt, "stack records: record breaks off");
        if (!status.ok())
            return Status(status.code(), status.message() + " (at byte " + std::to_string(at) + ")");
    }
    return {};
}

Status StackRecordReader::begin(const Header& header, StackRecordHandler& handler)
{
    if (header.nodesBefore > kMaxNodes)
        return Status(Code::kTooLarge, "stack records: too many frame nodes");
    if (header.sequence < _nextSequence || header.generation < _generation)
        return Status(Code::kCorrupt, "stack records: message is out of order");
    if (header.sequence > _nextSequence)
        handler.onMissingMessages(header.sequence - _nextSequence);
    _nextSequence = uint64_t{header.sequence} + 1;
    if (header.generation != _generation) {
        _generation = header.generation;
        _nodes.clear();
        _threads.clear();
        handler.onGeneration(_generation);
    }
    // Fewer than we know: numbers would be given twice. More: their definitions are lost, the numbers stay vacant.
    if (header.nodesBefore < _nodes.size())
        return Status(Code::kCorrupt, "stack records: frame nodes are numbered twice");
    _nodes.resize(header.nodesBefore);
    return {};
}

Status StackRecordReader::readRecord(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    const auto kind = static_cast<RecordKind>(cursor.little<uint8_t>());
    switch (kind) {
    case RecordKind::kSample:
    case RecordKind::kBlocked:
        return readSample(decoding, kind);
    case RecordKind::kNode:
    case RecordKind::kCutNode:
        return readNode(decoding, kind);
    case RecordKind::kThread:
        return readThread(decoding);
    case RecordKind::kSession:
        return readSession(decoding);
    case RecordKind::kLost:
        return readLost(decoding);
    case RecordKind::kExec: {
        const uint64_t timeNs = decoding.nextTime();
        const uint32_t pid = decoding.number();
        const std::string_view name = cursor.text(kMaxNameBytes);
        if (!cursor.failed())
            decoding.handler.onExec(timeNs, pid, name);
        return {};
    }
    case RecordKind::kFork: {
        const uint64_t timeNs = decoding.nextTime();
        const uint32_t parent = decoding.number();
        const uint32_t child = decoding.number();
        if (!cursor.failed())
            decoding.handler.onFork(timeNs, parent, child);
        return {};
    }
    case RecordKind::kExit: {
        const uint64_t timeNs = decoding.nextTime();
        const uint32_t pid = decoding.number();
        if (!cursor.failed())
            decoding.handler.onExit(timeNs, pid);
        return {};
    }
    case RecordKind::kCost: {
        const uint64_t timeNs = decoding.nextTime();
        const uint64_t cpuNs = cursor.varint();
        const uint64_t samples = cursor.varint();
        if (!cursor.failed())
            decoding.handler.onCost(timeNs, cpuNs, samples);
        return {};
    }
    }
    return Status(Code::kCorrupt, "stack records: unknown record");
}

Status StackRecordReader::readSample(Decoding& decoding, RecordKind kind)
{
    SampleRecord sample;
    sample.timeNs = decoding.nextTime();
    const uint32_t thread = decoding.number();
    sample.stack = decoding.number();
    if (kind == RecordKind::kBlocked)
        sample.blockedNs = decoding.cursor.varint();
    if (decoding.cursor.failed())
        return {};
    const bool stackKnown = sample.stack == 0 || (sample.stack <= _nodes.size() && _nodes[sample.stack - 1].known);
    if (!stackKnown || thread >= _threads.size() || !_threads[thread]) {
        decoding.handler.onOrphan(sample.timeNs);
        return {};
    }
    sample.thread = &*_threads[thread];
    decoding.handler.onSample(sample);
    return {};
}

Status StackRecordReader::readNode(Decoding& decoding, RecordKind kind)
{
    if (_nodes.size() >= kMaxNodes)
        return Status(Code::kTooLarge, "stack records: too many frame nodes");
    Node node;
    node.known = true;
    if (kind == RecordKind::kCutNode) {
        node.cut = true;
        _nodes.push_back(node);
        return {};
    }
    node.caller = decoding.number();
    const auto delta = static_cast<uint64_t>(decoding.cursor.signedVarint());
    if (decoding.cursor.failed())
        return {};
    if (node.caller > _nodes.size())
        return Status(Code::kCorrupt, "stack records: a frame comes before its caller");
    uint64_t callerAddress = 0;
    if (node.caller != 0) {
        const Node& caller = _nodes[node.caller - 1];
        if (caller.depth >= kMaxDepth)
            return Status(Code::kTooLarge, "stack records: stack is too deep");
        // The address is relative to the caller's: without it, this node is lost as well.
        node.known = caller.known;
        node.depth = caller.depth;
        callerAddress = caller.address;
    }
    ++node.depth;
    node.address = callerAddress + delta;
    _nodes.push_back(node);
    return {};
}

Status StackRecordReader::readThread(Decoding& decoding)
{
    const uint32_t number = decoding.number();
    ThreadRecord thread;
    thread.pid = decoding.number();
    thread.tid = decoding.number();
    thread.flags = decoding.number();
    thread.name = decoding.cursor.text(kMaxNameBytes);
    if (decoding.cursor.failed())
        return {};
    if (number >= kMaxThreads)
        return Status(Code::kTooLarge, "stack records: too many threads");
    if (number >= _threads.size())
        _threads.resize(number + 1);
    _threads[number] = std::move(thread);
    decoding.handler.onThread(number, *_threads[number]);
    return {};
}

Status StackRecordReader::readSession(Decoding& decoding)
{
    SessionRecord session;
    session.intervalNs = decoding.cursor.varint();
    session.flags = decoding.number();
    session.windowNs = decoding.cursor.varint();
    if (decoding.cursor.failed())
        return {};
    _session = session;
    decoding.handler.onSession(_session);
    return {};
}

Status StackRecordReader::readLost(Decoding& decoding)
{
    const uint64_t timeNs = decoding.nextTime();
    const uint64_t cause = decoding.cursor.varint();
    const uint64_t total = decoding.cursor.varint();
    if (decoding.cursor.failed())
        return {};
    if (cause >= kLostCauses)
        return Status(Code::kCorrupt, "stack records: unknown cause of loss");
    if (total <= _lost[cause])
        return {}; // totals are repeated so that a dropped batch cannot hide them
    const uint64_t newly = total - _lost[cause];
    _lost[cause] = total;
    decoding.handler.onLost(timeNs, static_cast<LostCause>(cause), newly, total);
    return {};
}

bool StackRecordReader::frames(uint32_t stack, std::vector<uint64_t>& addresses) const
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

} // namespace vnt::stacks
