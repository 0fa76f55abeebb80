#include "records/CensusRecordReader.h"

#include "records/TimedDecoding.h"

namespace vnt::census {

struct CensusRecordReader::Decoding : TimedDecoding {
    CensusRecordHandler& handler;
};

Status CensusRecordReader::read(std::span<const std::byte> message, CensusRecordHandler& handler)
{
    if (message.size() > kMaxMessageBytes)
        return Status(Code::kTooLarge, "census records: message of " + std::to_string(message.size()) + " bytes");
    Decoding decoding{{ByteCursor(message)}, handler};
    ByteCursor& cursor = decoding.cursor;
    const auto magic = cursor.little<uint32_t>();
    const auto version = cursor.little<uint16_t>();
    cursor.little<uint16_t>();
    const auto generation = cursor.little<uint32_t>();
    const auto sequence = cursor.little<uint32_t>();
    cursor.little<uint64_t>();
    decoding.timeNs = cursor.little<uint64_t>();
    if (cursor.failed() || magic != kMagic)
        return Status(Code::kCorrupt, "census records: no message header");
    if (version != kVersion)
        return Status(Code::kUnsupported, "census records: version " + std::to_string(version) + " is not known");
    if (sequence < _nextSequence || generation < _generation)
        return Status(Code::kCorrupt, "census records: message is out of order");
    if (sequence > _nextSequence)
        handler.onMissingMessages(sequence - _nextSequence);
    _nextSequence = uint64_t{sequence} + 1;
    if (generation != _generation)
        _processes.clear();
    _generation = generation;
    while (!cursor.atEnd()) {
        const size_t offset = cursor.offset();
        Status status = readRecord(decoding);
        if (status.ok() && cursor.failed())
            status = Status(Code::kCorrupt, "census records: record breaks off");
        if (!status.ok())
            return Status(status.code(), status.message() + " (at byte " + std::to_string(offset) + ")");
    }
    return {};
}

/// The process whose number comes next; null, and told, when it was never defined.
CensusRecordReader::Known* CensusRecordReader::known(Decoding& decoding)
{
    const uint32_t number = decoding.number();
    if (!decoding.cursor.failed() && number < _processes.size())
        return &_processes[number];
    if (!decoding.cursor.failed())
        decoding.handler.onOrphan();
    return nullptr;
}

Status CensusRecordReader::readRecord(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    CensusRecordHandler& handler = decoding.handler;
    const auto kind = static_cast<RecordKind>(cursor.little<uint8_t>());
    switch (kind) {
    case RecordKind::kSession: {
        SessionRecord session;
        session.intervalNs = cursor.varint();
        session.flags = decoding.number();
        session.processors = decoding.number();
        session.memoryKiB = cursor.varint();
        if (!cursor.failed())
            handler.onSession(session);
        return {};
    }
    case RecordKind::kProcess:
        return readProcess(decoding);
    case RecordKind::kSweep: {
        const uint64_t timeNs = decoding.nextTime();
        SweepRecord sweep;
        sweep.processes = decoding.number();
        sweep.busyMs = cursor.varint();
        sweep.wholeMs = cursor.varint();
        sweep.availableKiB = cursor.varint();
        if (!cursor.failed())
            handler.onSweep(timeNs, sweep);
        return {};
    }
    case RecordKind::kUsage:
        readUsage(decoding);
        return {};
    case RecordKind::kStarted: {
        const uint64_t timeNs = decoding.nextTime();
        if (const Known* process = known(decoding))
            handler.onStarted(timeNs, process->process);
        return {};
    }
    case RecordKind::kEnded: {
        const uint64_t timeNs = decoding.nextTime();
        const Known* process = known(decoding);
        const uint32_t status = decoding.number();
        if (process && !cursor.failed())
            handler.onEnded(timeNs, process->process, int64_t{status} - 1);
        return {};
    }
    case RecordKind::kRenamed: {
        const uint64_t timeNs = decoding.nextTime();
        Known* process = known(decoding);
        const std::string_view name = cursor.text(kMaxNameBytes);
        const std::string_view executable = cursor.text(kMaxNameBytes);
        if (process && !cursor.failed()) {
            process->process.name = name;
            process->process.executable = executable;
            handler.onRenamed(timeNs, process->process);
        }
        return {};
    }
    case RecordKind::kLost: {
        const uint64_t timeNs = decoding.nextTime();
        const uint64_t cause = cursor.varint();
        const uint64_t total = cursor.varint();
        if (!cursor.failed() && cause < kLostCauses) // a cause of a later version is no reason to stop
            handler.onLost(timeNs, static_cast<LostCause>(cause), total);
        return {};
    }
    case RecordKind::kCost: {
        const uint64_t timeNs = decoding.nextTime();
        const uint64_t cpuNs = cursor.varint();
        const uint64_t sweeps = cursor.varint();
        const uint64_t leftOut = cursor.varint();
        if (!cursor.failed())
            handler.onCost(timeNs, cpuNs, sweeps, leftOut);
        return {};
    }
    }
    return Status(Code::kCorrupt, "census records: unknown kind " + std::to_string(static_cast<unsigned>(kind)));
}

Status CensusRecordReader::readProcess(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    const uint32_t number = decoding.number();
    ProcessRecord process;
    process.pid = decoding.number();
    process.parent = decoding.number();
    process.startNs = cursor.varint();
    process.uid = decoding.number();
    process.flags = decoding.number();
    process.name = cursor.text(kMaxNameBytes);
    process.executable = cursor.text(kMaxNameBytes);
    if (cursor.failed())
        return {};
    // A gap means that a message is missing within a generation: what it defined cannot be told apart any more.
    if (number != _processes.size() || number >= kMaxProcesses)
        return Status(Code::kCorrupt, "census records: process number " + std::to_string(number) + " is not the next");
    _processes.push_back({std::move(process), {}});
    decoding.handler.onProcess(_processes.back().process);
    return {};
}

void CensusRecordReader::readUsage(Decoding& decoding)
{
    ByteCursor& cursor = decoding.cursor;
    Known* process = known(decoding);
    const uint64_t mask = cursor.varint();
    if (mask >> kFields != 0)
        cursor.fail();
    for (size_t i = 0; i < kFields && !cursor.failed(); ++i) {
        if (!((mask >> i) & 1))
            continue;
        const int64_t difference = cursor.signedVarint();
        if (process) // wraps instead of overflowing: a lying message harms only its own numbers
            process->usage[i] =
                static_cast<int64_t>(static_cast<uint64_t>(process->usage[i]) + static_cast<uint64_t>(difference));
    }
    if (process && !cursor.failed())
        decoding.handler.onUsage(decoding.timeNs, process->process, process->usage);
}

} // namespace vnt::census
