#include "bundle/recordSources.h"
#include "records/OrphanRecordReader.h"

namespace vnt {
namespace {

constexpr std::string_view kKindNames[orphans::kKinds] = {"direct", "cycle", "indirect"};

class Source final : public orphans::OrphanRecordHandler {
public:
    Source(const RecordSink& sink, RecordTotals& totals) : _totals(totals), _output(sink, totals) { }

    bool add(std::span<const std::byte> message, Remarks& remarks)
    {
        const Status status = _reader.read(message, *this);
        if (!status.ok()) {
            ++_totals.damagedMessages;
            remarks.add(status.message());
        }
        return _totals.isComplete;
    }

private:
    void onSearch(uint64_t timeNs, const orphans::SearchRecord& search) override
    {
        _timeNs = timeNs;
        _pid = search.pid;
        const Record::Value values[] = {{"leaks", static_cast<int64_t>(search.leaks)},
                                        {"leaked_bytes", static_cast<int64_t>(search.leakedBytes)},
                                        {"blocks", static_cast<int64_t>(search.blocks)},
                                        {"block_bytes", static_cast<int64_t>(search.blockBytes)}};
        Record record = plainRecord(RecordKind::kLeakSearch, timeNs, search.pid, search.name, values);
        record.durationNs = search.pauseNs;
        _output.add(record);
    }
    void onLeak(const orphans::LeakRecord& leak) override
    {
        const Record::Value values[] = {{"address", static_cast<int64_t>(leak.address)},
                                        {"size", static_cast<int64_t>(leak.sizeBytes)},
                                        {"holder", leak.holder},
                                        {"is_new", leak.isNew ? 1 : 0},
                                        {"allocated_ns", static_cast<int64_t>(leak.timeNs)},
                                        {"table", static_cast<int64_t>(leak.table)},
                                        {"code", static_cast<int64_t>(leak.code)}};
        Record record =
            plainRecord(RecordKind::kLeak, _timeNs, _pid, kKindNames[static_cast<size_t>(leak.kind)],
                        std::span(values).first(leak.table != 0 ? std::size(values) : std::size(values) - 2));
        _frames.clear();
        for (uint32_t number = leak.stack; number != 0; number = _reader.node(number).caller) {
            const auto& node = _reader.node(number);
            if (node.cut || !node.known) {
                record.isStackWhole = false;
                break;
            }
            _frames.push_back(node.address);
        }
        record.stack = _frames;
        record.innermost = FrameRole::kReturn;
        record.stackKey = leak.stack;
        _output.add(record);
    }
    void onMissingMessages(uint64_t count) override { _totals.missingMessages += count; }

    RecordTotals& _totals;
    RecordOutput _output;
    orphans::OrphanRecordReader _reader;
    std::vector<uint64_t> _frames;
    uint64_t _timeNs = 0;
    uint32_t _pid = 0;
};

} // namespace

RecordTotals readOrphanRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink)
{
    RecordTotals totals;
    Source source(sink, totals);
    totals.messages = bundle.forEachMessageWhile(
        data, [&](std::span<const std::byte> message) { return source.add(message, bundle.remarks()); });
    return totals;
}

} // namespace vnt
