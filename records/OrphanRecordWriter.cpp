#include "records/OrphanRecordWriter.h"

#include <string_view>

#include "platform/base/Check.h"

namespace vnt::orphans {

uint32_t OrphanRecordWriter::addNode(uint32_t caller, uint64_t callerAddress, uint64_t address)
{
    VNT_CHECK(caller <= _nodes && _nodes < kMaxNodes);
    begin(RecordKind::kNode);
    _records.varint(caller);
    _records.signedVarint(static_cast<int64_t>(address - callerAddress));
    return ++_nodes;
}

uint32_t OrphanRecordWriter::addCutNode()
{
    VNT_CHECK(_nodes < kMaxNodes);
    begin(RecordKind::kCutNode);
    return ++_nodes;
}

void OrphanRecordWriter::time(uint64_t timeNs)
{
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = timeNs;
    }
    _records.signedVarint(static_cast<int64_t>(timeNs - _lastTimeNs));
    _lastTimeNs = timeNs;
}

void OrphanRecordWriter::addSearch(uint64_t timeNs, const SearchRecord& search)
{
    begin(RecordKind::kSearch);
    time(timeNs);
    _records.varint(search.number);
    _records.varint(search.pid);
    _records.varint(search.flags);
    _records.text(std::string_view(search.name).substr(0, kMaxTextBytes));
    for (const uint64_t value : {search.pauseNs, search.verdictNs, uint64_t{search.threads}, search.blocks,
                                 search.blockBytes, search.rootBytes, search.unreadableBytes, search.olderBytes,
                                 search.lostEvents, search.leaks, search.leakedBytes})
        _records.varint(value);
}

void OrphanRecordWriter::addLeak(const LeakRecord& leak)
{
    begin(RecordKind::kLeak);
    _records.little(static_cast<uint8_t>(static_cast<unsigned>(leak.kind)
                                         | (leak.isNew ? unsigned{LeakRecord::kNew} : 0u)
                                         | (leak.table != 0 ? unsigned{LeakRecord::kHasClass} : 0u)));
    _records.signedVarint(static_cast<int64_t>(leak.address - _lastAddress));
    _lastAddress = leak.address;
    _records.varint(leak.sizeBytes);
    _records.varint(leak.holder);
    time(leak.timeNs);
    _records.little(leak.function);
    _records.varint(leak.stack);
    _records.text(std::string_view(leak.contents).substr(0, kMaxContentBytes));
    if (leak.table == 0)
        return;
    _hasClasses = true;
    _records.varint(leak.table);
    _records.signedVarint(static_cast<int64_t>(leak.code - leak.table));
}

void OrphanRecordWriter::addEnd(const EndRecord& end)
{
    begin(RecordKind::kEnd);
    _records.varint(end.told);
    _records.varint(end.omitted);
    _records.varint(end.omittedBytes);
}

void OrphanRecordWriter::addNotSearched(const NotSearchedRecord& record)
{
    begin(RecordKind::kNotSearched);
    time(record.timeNs);
    _records.varint(record.pid);
    _records.text(std::string_view(record.text).substr(0, kMaxTextBytes));
}

std::span<const std::byte> OrphanRecordWriter::message()
{
    _message.clear();
    _message.reserve(sizeBytes());
    _message.little(kMagic);
    _message.little(_hasClasses ? kVersion : kPlainVersion);
    _message.little(uint16_t{0});
    _message.little(_sequence);
    _message.little(_nodesBefore);
    _message.little(uint64_t{0});
    _message.little(_baseTimeNs);
    VNT_CHECK(_message.size() == kHeaderBytes);
    _message.raw(_records.view().data(), _records.size());
    return _message.view();
}

void OrphanRecordWriter::messageSent()
{
    ++_sequence;
    _nodesBefore = _nodes;
    _records.clear();
    _timed = false;
    _hasClasses = false;
    _lastAddress = 0;
}

} // namespace vnt::orphans
