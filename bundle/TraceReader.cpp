#include "bundle/TraceReader.h"

#include <algorithm>

namespace vnt {

namespace {

/// Kept for events that wait. A writer begins a generation after losses and when a table is full, so more than a few at
/// once stand in a forged recording only.
constexpr size_t kMaxGenerations = 16;

} // namespace

/// An event that waits for earlier ones.
struct TraceReader::Waiting {
    uint64_t timeNs = 0;
    uint32_t cpu = 0;
    uint32_t type = 0;
    uint32_t thread = 0;
    uint32_t stack = 0;
    uint32_t definitions = 0;
    uint32_t valuesAt = 0;
    uint32_t textAt = 0;
    uint16_t valueCount = 0;
    uint16_t textBytes = 0;
};

class TraceReader::Handler final : public trace::TraceRecordHandler {
public:
    explicit Handler(TraceReader& reader) : _to(reader) { }

    void onGeneration(const std::shared_ptr<const trace::Definitions>& definitions) override
    {
        if (_to._definitions.size() >= kMaxGenerations)
            _to.release(UINT64_MAX);
        _to._definitions.push_back(definitions);
    }
    void onEvent(const trace::EventRecord& event) override
    {
        if (_to._waiting.size() >= kMaxWaiting) {
            const auto middle = _to._waiting.begin() + static_cast<std::ptrdiff_t>(kMaxWaiting / 2);
            std::nth_element(_to._waiting.begin(), middle, _to._waiting.end(),
                             [](const Waiting& a, const Waiting& b) { return a.timeNs < b.timeNs; });
            _to.release(middle->timeNs + 1);
        }
        Waiting waiting;
        waiting.timeNs = event.timeNs;
        waiting.cpu = event.cpu;
        waiting.type = event.type;
        waiting.thread = event.thread;
        waiting.stack = event.stack;
        waiting.definitions = _to._forgottenDefinitions + static_cast<uint32_t>(_to._definitions.size() - 1);
        waiting.valuesAt = static_cast<uint32_t>(_to._values.size());
        waiting.valueCount = static_cast<uint16_t>(event.values.size());
        _to._values.insert(_to._values.end(), event.values.begin(), event.values.end());
        waiting.textAt = static_cast<uint32_t>(_to._texts.size());
        waiting.textBytes = static_cast<uint16_t>(event.text.size());
        _to._texts.append(event.text);
        _to._waiting.push_back(waiting);
    }
    void onOrphan(uint64_t) override { ++_to._totals.orphans; }
    void onSettled(uint64_t timeNs) override { _to.release(timeNs); }
    void onLost(uint64_t, trace::LostCause cause, uint64_t newly, uint64_t) override
    {
        _to._totals.lostByCause[static_cast<size_t>(cause)] += newly;
    }
    void onFork(uint64_t timeNs, uint32_t parent, uint32_t child) override
    {
        if (_to._onFork)
            _to._onFork(timeNs, parent, child);
    }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t) override
    {
        _to._totals.recorderCpuNs = std::max(_to._totals.recorderCpuNs, cpuNs);
    }
    void onMissingMessages(uint64_t count) override { _to._totals.missingMessages += count; }

private:
    TraceReader& _to;
};

TraceReader::TraceReader(OnEvent onEvent, OnFork onFork, Remarks& remarks)
    : _onEvent(std::move(onEvent)),
      _onFork(std::move(onFork)),
      _remarks(remarks),
      _handler(std::make_unique<Handler>(*this))
{
}

TraceReader::~TraceReader() = default;

void TraceReader::add(std::span<const std::byte> message)
{
    const Status status = _reader.read(message, *_handler);
    if (!status.ok()) {
        ++_totals.damagedMessages;
        _remarks.add(status.message());
    }
}

TraceTotals TraceReader::finish()
{
    release(UINT64_MAX);
    return _totals;
}

/// Delivers what is older than `untilNs`, in the order of time, and of equal times in that of the recording.
void TraceReader::release(uint64_t untilNs)
{
    if (_definitions.empty())
        return;
    const auto kept = std::stable_partition(_waiting.begin(), _waiting.end(),
                                            [=](const Waiting& waiting) { return waiting.timeNs < untilNs; });
    std::stable_sort(_waiting.begin(), kept, [](const Waiting& a, const Waiting& b) { return a.timeNs < b.timeNs; });
    std::for_each(_waiting.begin(), kept, [this](const Waiting& waiting) { deliver(waiting); });
    _waiting.erase(_waiting.begin(), kept);
    std::vector<uint64_t> values;
    std::string texts;
    uint32_t oldest = _forgottenDefinitions + static_cast<uint32_t>(_definitions.size() - 1);
    for (Waiting& waiting : _waiting) {
        const auto from = _values.begin() + waiting.valuesAt;
        waiting.valuesAt = static_cast<uint32_t>(values.size());
        values.insert(values.end(), from, from + waiting.valueCount);
        const size_t textAt = waiting.textAt;
        waiting.textAt = static_cast<uint32_t>(texts.size());
        texts.append(_texts, textAt, waiting.textBytes);
        oldest = std::min(oldest, waiting.definitions);
    }
    _values = std::move(values);
    _texts = std::move(texts);
    for (; _forgottenDefinitions < oldest; ++_forgottenDefinitions)
        _definitions.pop_front();
}

void TraceReader::deliver(const Waiting& waiting)
{
    const trace::Definitions& definitions = *_definitions[waiting.definitions - _forgottenDefinitions];
    trace::EventRecord record;
    record.timeNs = waiting.timeNs;
    record.cpu = waiting.cpu;
    record.type = waiting.type;
    record.thread = waiting.thread;
    record.stack = waiting.stack;
    record.values = std::span(_values).subspan(waiting.valuesAt, waiting.valueCount);
    record.text = std::string_view(_texts).substr(waiting.textAt, waiting.textBytes);
    if (_totals.events++ == 0) {
        _totals.session = definitions.session();
        _totals.firstTimeNs = record.timeNs;
    }
    _totals.unordered += record.timeNs < _deliveredNs;
    _deliveredNs = std::max(_deliveredNs, record.timeNs);
    _totals.firstTimeNs = std::min(_totals.firstTimeNs, record.timeNs);
    _totals.lastTimeNs = _deliveredNs;
    _onEvent(TraceEvent(record, definitions));
}

uint64_t TraceTotals::lost() const
{
    uint64_t all = orphans;
    for (const uint64_t count : lostByCause)
        all += count;
    return all - nested();
}

TraceTotals readTrace(const Bundle& bundle, const InstrumentData& data, const TraceReader::OnEvent& onEvent,
                      const TraceReader::OnFork& onFork, MessageTotals& messages)
{
    TraceReader reader(onEvent, onFork, bundle.remarks());
    messages = bundle.forEachMessage(data, [&](std::span<const std::byte> message) { reader.add(message); });
    return reader.finish();
}

} // namespace vnt
