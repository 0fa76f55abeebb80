#include "records/TraceRecordWriter.h"

#include "platform/base/ByteCursor.h"
#include "platform/base/Check.h"

namespace vnt::trace {
namespace {

// Places in the header.
constexpr size_t kGenerationAt = 8;
constexpr size_t kSequenceAt = 12;
constexpr size_t kEventsAt = 24;
constexpr size_t kWindowBeginAt = 40;

/// A record put together on the stack and appended at once: half the cost of appending byte by byte.
class SmallRecord {
public:
    void byte(uint8_t value) { _bytes[_size++] = value; }
    void varint(uint64_t value)
    {
        while (value >= 0x80) {
            byte(static_cast<uint8_t>(value | 0x80));
            value >>= 7;
        }
        byte(static_cast<uint8_t>(value));
    }
    void difference(uint64_t to, uint64_t from)
    {
        const auto value = static_cast<int64_t>(to - from);
        varint((static_cast<uint64_t>(value) << 1) ^ static_cast<uint64_t>(value >> 63));
    }
    void appendTo(ByteWriter& bytes) const { bytes.raw(_bytes, _size); }

private:
    uint8_t _bytes[128]; // kind, time, thread, stack and eight values: up to twelve varints of ten bytes
    size_t _size = 0;
};

} // namespace

TraceRecordWriter::TraceRecordWriter(const SessionRecord& session) : _session(session), _hasStacks(session.hasStacks())
{
    beginMessage();
}

void TraceRecordWriter::beginMessage()
{
    static constexpr std::byte kBlank[kHeaderBytes] = {};
    _bytes.clear();
    _bytes.raw(kBlank, sizeof kBlank);
    _nodesBefore = _nodes;
    _typesBefore = typeCount();
    ++_epoch;
    _cpu = 0;
    _empty = true;
    _timed = false;
    _baseTimeNs = _lastTimeNs = 0;
    _pendingEvents = 0;
    if (!_newGeneration)
        return;
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kSession));
    record.varint(_session.flags);
    record.varint(_session.pid);
    record.varint(_session.windowNs);
    record.varint(_session.maxFrames);
    record.appendTo(_bytes);
}

void TraceRecordWriter::beginTimed(RecordKind kind, uint64_t timeNs)
{
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = timeNs;
    }
    SmallRecord record;
    record.byte(static_cast<uint8_t>(kind));
    record.difference(timeNs, _lastTimeNs);
    record.appendTo(_bytes);
    _lastTimeNs = timeNs;
    _empty = false;
}

uint32_t TraceRecordWriter::addNode(uint32_t caller, uint64_t callerAddress, uint64_t address)
{
    VNT_CHECK(caller <= _nodes && _nodes < stacks::kMaxNodes);
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kNode));
    record.varint(caller);
    record.difference(address, callerAddress);
    record.appendTo(_bytes);
    _empty = false;
    return ++_nodes;
}

uint32_t TraceRecordWriter::addCutNode()
{
    VNT_CHECK(_nodes < stacks::kMaxNodes);
    _bytes.little(static_cast<uint8_t>(RecordKind::kCutNode));
    _empty = false;
    return ++_nodes;
}

void TraceRecordWriter::addThread(uint32_t thread, const stacks::ThreadRecord& thisThread)
{
    VNT_CHECK(thread < stacks::kMaxThreads);
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kThread));
    record.varint(thread);
    record.varint(thisThread.pid);
    record.varint(thisThread.tid);
    record.varint(thisThread.flags);
    record.appendTo(_bytes);
    _bytes.text(std::string_view(thisThread.name).substr(0, stacks::kMaxNameBytes));
    _empty = false;
}

uint32_t TraceRecordWriter::addType(const TypeRecord& type)
{
    VNT_CHECK(typeCount() < kMaxTypes && type.values.size() <= kMaxValues);
    SmallRecord record;
    record.byte(static_cast<uint8_t>(RecordKind::kType));
    record.varint(static_cast<uint32_t>(type.kind));
    record.varint(type.number);
    record.appendTo(_bytes);
    _bytes.text(std::string_view(type.name).substr(0, kMaxNameBytes));
    _bytes.text(std::string_view(type.label).substr(0, kMaxNameBytes));
    const uint32_t flags = type.flags | (_hasStacks ? uint32_t{TypeRecord::kStacks} : 0);
    _bytes.varint(flags);
    _bytes.varint(type.values.size());
    for (const std::string& name : type.values)
        _bytes.text(std::string_view(name).substr(0, kMaxNameBytes));
    _empty = false;
    _types.push_back({flags, static_cast<uint32_t>(type.values.size()), 0, {}});
    return typeCount() - 1;
}

void TraceRecordWriter::addEvent(const Event& event)
{
    Type& type = _types[event.type];
    VNT_CHECK(event.values.size() == type.valueCount);
    if (type.epoch != _epoch) {
        type.epoch = _epoch;
        type.last.fill(0);
    }
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = event.timeNs;
    }
    SmallRecord record;
    if (event.cpu != _cpu) {
        _cpu = event.cpu;
        record.byte(static_cast<uint8_t>(RecordKind::kProcessor));
        record.varint(event.cpu);
    }
    record.varint(kFirstEvent + event.type);
    record.difference(event.timeNs, _lastTimeNs);
    record.varint(event.thread);
    if (_hasStacks)
        record.varint(event.stack);
    for (size_t i = 0; i < event.values.size(); ++i) {
        record.difference(event.values[i], type.last[i]);
        type.last[i] = event.values[i];
    }
    record.appendTo(_bytes);
    if ((type.flags & TypeRecord::kText) != 0)
        _bytes.text(event.text.substr(0, kMaxTextBytes));
    _lastTimeNs = event.timeNs;
    _empty = false;
    ++_pendingEvents;
}

void TraceRecordWriter::addSettled(uint64_t timeNs) { beginTimed(RecordKind::kSettled, timeNs); }

void TraceRecordWriter::addLost(uint64_t timeNs, LostCause cause, uint64_t total)
{
    beginTimed(RecordKind::kLost, timeNs);
    _bytes.varint(static_cast<uint8_t>(cause));
    _bytes.varint(total);
}

void TraceRecordWriter::addFork(uint64_t timeNs, uint32_t parent, uint32_t child)
{
    beginTimed(RecordKind::kFork, timeNs);
    _bytes.varint(parent);
    _bytes.varint(child);
}

void TraceRecordWriter::addCost(uint64_t timeNs, uint64_t cpuNs)
{
    beginTimed(RecordKind::kCost, timeNs);
    _bytes.varint(cpuNs);
    _bytes.varint(totalEvents());
}

std::span<const std::byte> TraceRecordWriter::message()
{
    ByteWriter header;
    header.reserve(kHeaderBytes);
    header.little(kMagic);
    header.little(kVersion);
    header.little(uint16_t{0});
    header.little(_generation);
    header.little(_sequence);
    header.little(_nodesBefore);
    header.little(_typesBefore);
    header.little(_pendingEvents);
    header.little(uint32_t{0});
    header.little(_baseTimeNs);
    header.little(uint64_t{0});
    VNT_CHECK(header.size() == kHeaderBytes);
    _bytes.patch(0, header.view().data(), kHeaderBytes);
    return _bytes.view();
}

void TraceRecordWriter::messageSent()
{
    ++_sequence;
    _sentEvents += _pendingEvents;
    _newGeneration = false;
    beginMessage();
}

void TraceRecordWriter::messageDropped()
{
    _empty = true;
    beginGeneration();
}

void TraceRecordWriter::beginGeneration()
{
    VNT_CHECK(_empty);
    ++_generation;
    _nodes = 0;
    _types.clear();
    _newGeneration = true;
    beginMessage();
}

void redateMessage(std::span<std::byte> message, uint32_t sequence, uint64_t windowBeginNs)
{
    VNT_CHECK(message.size() >= kHeaderBytes);
    std::memcpy(message.data() + kSequenceAt, &sequence, sizeof sequence);
    std::memcpy(message.data() + kWindowBeginAt, &windowBeginNs, sizeof windowBeginNs);
}

uint32_t eventsIn(std::span<const std::byte> message)
{
    VNT_CHECK(message.size() >= kHeaderBytes);
    return ByteCursor(message.subspan(kEventsAt)).little<uint32_t>();
}

uint32_t generationOf(std::span<const std::byte> message)
{
    VNT_CHECK(message.size() >= kHeaderBytes);
    return ByteCursor(message.subspan(kGenerationAt)).little<uint32_t>();
}

} // namespace vnt::trace
