#pragma once

#include "bundle/RecordReading.h"

namespace vnt {

// One for each kind of instrument: reads its messages as records. See readRecords().
RecordTotals readStackRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);
RecordTotals readTraceRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);
RecordTotals readHeapRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);
RecordTotals readOrphanRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);
RecordTotals readCensusRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);

/// Counts what is delivered, and its order.
class RecordOutput {
public:
    /// Both outlive this.
    RecordOutput(const RecordSink& sink, RecordTotals& totals) : _sink(sink), _totals(totals) { }
    void add(const Record& record)
    {
        if (!_totals.isComplete)
            return;
        ++_totals.records;
        _totals.unordered += record.timeNs < _deliveredNs;
        _deliveredNs = std::max(_deliveredNs, record.timeNs);
        _totals.isComplete = _sink(record);
    }

private:
    const RecordSink& _sink;
    RecordTotals& _totals;
    uint64_t _deliveredNs = 0;
};

/// A record without a stack, of at most a few values.
[[nodiscard]] inline Record plainRecord(RecordKind kind, uint64_t timeNs, uint32_t pid, std::string_view name = {},
                                        std::span<const Record::Value> values = {})
{
    Record record;
    record.kind = kind;
    record.timeNs = timeNs;
    record.pid = pid;
    record.name = name;
    record.values = values;
    return record;
}

} // namespace vnt
