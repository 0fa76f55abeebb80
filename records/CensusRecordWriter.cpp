#include "records/CensusRecordWriter.h"

#include "platform/base/Check.h"

namespace vnt::census {

CensusRecordWriter::CensusRecordWriter(const SessionRecord& session) : _session(session) { beginMessage(); }

void CensusRecordWriter::beginMessage()
{
    static constexpr std::byte kBlank[kHeaderBytes] = {};
    _bytes.clear();
    _bytes.raw(kBlank, sizeof kBlank);
    _empty = true;
    _timed = false;
    _baseTimeNs = _lastTimeNs = 0;
    _pendingUsages = 0;
    if (!_newGeneration)
        return;
    _bytes.little(static_cast<uint8_t>(RecordKind::kSession));
    _bytes.varint(_session.intervalNs);
    _bytes.varint(_session.flags);
    _bytes.varint(_session.processors);
    _bytes.varint(_session.memoryKiB);
}

void CensusRecordWriter::beginTimed(RecordKind kind, uint64_t timeNs)
{
    if (!_timed) {
        _timed = true;
        _baseTimeNs = _lastTimeNs = timeNs;
    }
    _bytes.little(static_cast<uint8_t>(kind));
    _bytes.signedVarint(static_cast<int64_t>(timeNs - _lastTimeNs));
    _lastTimeNs = timeNs;
    _empty = false;
}

uint32_t CensusRecordWriter::addProcess(const ProcessRecord& process)
{
    VNT_CHECK(_processes < kMaxProcesses);
    _bytes.little(static_cast<uint8_t>(RecordKind::kProcess));
    _bytes.varint(_processes);
    _bytes.varint(process.pid);
    _bytes.varint(process.parent);
    _bytes.varint(process.startNs);
    _bytes.varint(process.uid);
    _bytes.varint(process.flags);
    _bytes.text(std::string_view(process.name).substr(0, kMaxNameBytes));
    _bytes.text(std::string_view(process.executable).substr(0, kMaxNameBytes));
    _empty = false;
    return _processes++;
}

void CensusRecordWriter::addSweep(uint64_t timeNs, const SweepRecord& sweep)
{
    beginTimed(RecordKind::kSweep, timeNs);
    _bytes.varint(sweep.processes);
    _bytes.varint(sweep.busyMs);
    _bytes.varint(sweep.wholeMs);
    _bytes.varint(sweep.availableKiB);
}

void CensusRecordWriter::addUsage(uint32_t process, const Usage& before, const Usage& now)
{
    uint64_t mask = 0;
    for (size_t i = 0; i < kFields; ++i)
        mask |= uint64_t{now[i] != before[i]} << i;
    if (mask == 0)
        return;
    _bytes.little(static_cast<uint8_t>(RecordKind::kUsage));
    _bytes.varint(process);
    _bytes.varint(mask);
    for (size_t i = 0; i < kFields; ++i) {
        if (now[i] != before[i])
            _bytes.signedVarint(now[i] - before[i]);
    }
    _empty = false;
    ++_pendingUsages;
}

void CensusRecordWriter::addStarted(uint64_t timeNs, uint32_t process)
{
    beginTimed(RecordKind::kStarted, timeNs);
    _bytes.varint(process);
}

void CensusRecordWriter::addEnded(uint64_t timeNs, uint32_t process, int64_t status)
{
    beginTimed(RecordKind::kEnded, timeNs);
    _bytes.varint(process);
    _bytes.varint(status < 0 ? 0 : static_cast<uint64_t>(status) + 1);
}

void CensusRecordWriter::addRenamed(uint64_t timeNs, uint32_t process, std::string_view name,
                                    std::string_view executable)
{
    beginTimed(RecordKind::kRenamed, timeNs);
    _bytes.varint(process);
    _bytes.text(name.substr(0, kMaxNameBytes));
    _bytes.text(executable.substr(0, kMaxNameBytes));
}

void CensusRecordWriter::addLost(uint64_t timeNs, LostCause cause, uint64_t total)
{
    beginTimed(RecordKind::kLost, timeNs);
    _bytes.varint(static_cast<uint8_t>(cause));
    _bytes.varint(total);
}

void CensusRecordWriter::addCost(uint64_t timeNs, uint64_t cpuNs, uint64_t sweeps, uint64_t leftOut)
{
    beginTimed(RecordKind::kCost, timeNs);
    _bytes.varint(cpuNs);
    _bytes.varint(sweeps);
    _bytes.varint(leftOut);
}

std::span<const std::byte> CensusRecordWriter::message()
{
    ByteWriter header;
    header.reserve(kHeaderBytes);
    header.little(kMagic);
    header.little(kVersion);
    header.little(uint16_t{0});
    header.little(_generation);
    header.little(_sequence);
    header.little(uint64_t{0});
    header.little(_baseTimeNs);
    VNT_CHECK(header.size() == kHeaderBytes);
    _bytes.patch(0, header.view().data(), kHeaderBytes);
    return _bytes.view();
}

void CensusRecordWriter::messageSent()
{
    ++_sequence;
    _newGeneration = false;
    beginMessage();
}

void CensusRecordWriter::messageDropped()
{
    ++_generation;
    _processes = 0;
    _newGeneration = true;
    beginMessage();
}

} // namespace vnt::census
