#include "bundle/exports/ExportSource.h"

#include <algorithm>

#include "bundle/Instruments.h"

namespace vnt {

namespace {

/// Messages between two calls of ExportOptions::onProgress.
constexpr uint64_t kMessagesPerProgress = 64;

/// Finds the earliest time that anything is told of.
class FirstTime final : public ExportHandler {
public:
    uint64_t timeNs = UINT64_MAX;

    void onSample(const ExportSample& sample) override { note(sample.timeNs); }
    void onKernelEvent(const ExportKernelEvent& event) override { note(event.event.timeNs()); }
    void onAllocation(const ExportAllocation& allocation) override { note(allocation.timeNs); }
    void onSearch(const ExportSearch& search) override { note(search.timeNs); }
    void onSweep(uint64_t atNs, const census::SweepRecord&) override { note(atNs); }

private:
    void note(uint64_t atNs) { timeNs = std::min(timeNs, atNs); }
};

} // namespace

ExportSource::ExportSource(const Bundle& bundle, const ExportOptions& options,
                           const std::vector<std::string_view>& instruments)
    : _bundle(bundle),
      _options(options),
      _stacks(bundle.remarks())
{
    for (const std::string_view identifier : instruments) {
        if (bundle.hasInstrument(identifier))
            addInstrument(identifier);
    }
    findStart();
}

ExportSource::~ExportSource() = default;

void ExportSource::addInstrument(std::string_view identifier)
{
    ExportInstrument& instrument =
        _instruments.emplace_back(ExportInstrument{_bundle.instrument(identifier),
                                                   std::string(identifier.substr(identifier.rfind('.') + 1)),
                                                   {},
                                                   {},
                                                   {},
                                                   {},
                                                   0,
                                                   0});
    if (identifier != kProcessCensusId) { // that has no addresses
        instrument.symbolizer = _bundle.symbolizer(instrument.data);
        instrument.interner = std::make_unique<StackInterner>(*instrument.symbolizer, _stacks);
    }
    if (identifier == kStackSamplerId)
        instrument.intervalNs =
            static_cast<uint64_t>(std::max<int64_t>(instrument.data.samplingIntervalUs(), 0)) * 1000;
    if (const auto pid = instrument.data.pid(); pid && *pid > 0 && _targetPid == 0) {
        _targetPid = static_cast<uint32_t>(*pid);
        (void)processOf(instrument, _targetPid);
    }
    _messagesExpected += instrument.data.messageCount();
}

/// All instruments of the bundle count, so that times mean the same whichever are exported.
void ExportSource::findStart()
{
    for (const std::string& identifier : _bundle.instruments()) {
        const InstrumentData data = _bundle.instrument(identifier);
        if (data.startNs() != 0 && (_startNs == 0 || data.startNs() < _startNs)) {
            _startNs = data.startNs();
            _startSeconds = data.startSeconds();
        }
        _stopNs = std::max(_stopNs, data.stopNs());
    }
    if (_startNs != 0)
        return;
    FirstTime first;
    _takesAll = true;
    read(first);
    _takesAll = false;
    _startNs = first.timeNs == UINT64_MAX ? 0 : first.timeNs;
}

const ExportInstrument* ExportSource::instrument(std::string_view identifier) const
{
    for (const ExportInstrument& instrument : _instruments) {
        if (instrument.data.identifier() == identifier)
            return &instrument;
    }
    return nullptr;
}

void ExportSource::read(ExportHandler& handler)
{
    _messagesRead = 0;
    for (ExportInstrument& instrument : _instruments) {
        instrument.lost.clear();
        instrument.messages = {};
        readInstrument(instrument, handler);
        if (instrument.messages.dropped != 0)
            noteLost(instrument, handler, _stopNs, "messages dropped", instrument.messages.dropped);
    }
}

void ExportSource::readInstrument(ExportInstrument& instrument, ExportHandler& handler)
{
    struct Reader {
        std::string_view identifier;
        void (ExportSource::*read)(ExportInstrument&, ExportHandler&);
    };
    static constexpr Reader kReaders[] = {
        {kStackSamplerId, &ExportSource::readStackSampler},   {kKernelTracerId, &ExportSource::readKernelTracer},
        {kHeapRecorderId, &ExportSource::readHeapRecorder},   {kOrphanFinderId, &ExportSource::readOrphanFinder},
        {kProcessCensusId, &ExportSource::readProcessCensus},
    };
    for (const Reader& reader : kReaders) {
        if (instrument.data.identifier() == reader.identifier)
            (this->*reader.read)(instrument, handler);
    }
}

MessageTotals ExportSource::forEachMessage(const ExportInstrument& instrument,
                                           const std::function<void(std::span<const std::byte>)>& onMessage)
{
    return _bundle.forEachMessage(instrument.data, [&](std::span<const std::byte> message) {
        onMessage(message);
        if (++_messagesRead % kMessagesPerProgress == 0 && _options.onProgress && _messagesExpected != 0)
            _options.onProgress(
                std::min(1.0, static_cast<double>(_messagesRead) / static_cast<double>(_messagesExpected)));
    });
}

void ExportSource::noteLost(ExportInstrument& instrument, ExportHandler& handler, uint64_t timeNs, const char* cause,
                            uint64_t count)
{
    instrument.lost[cause] += count;
    if (isWithin(timeNs))
        handler.onLost(timeNs, instrument.name + ": " + cause, count);
}

bool ExportSource::isWanted(const stacks::ThreadRecord& thread) const
{
    if (_options.threads.empty() || _takesAll)
        return true;
    return std::any_of(_options.threads.begin(), _options.threads.end(), [&](const std::string& wanted) {
        return wanted == thread.name || wanted == std::to_string(thread.tid);
    });
}

uint32_t ExportSource::threadOf(const ExportInstrument& instrument, const stacks::ThreadRecord& thread)
{
    const uint32_t number = _threads.addThread(thread.pid, thread.tid, thread.name);
    if (number + 1 == _threads.threads().size() && instrument.symbolizer)
        (void)processOf(instrument, thread.pid);
    return number;
}

uint32_t ExportSource::processOf(const ExportInstrument& instrument, uint32_t pid)
{
    const ProcessImages* images = instrument.symbolizer ? instrument.symbolizer->process(pid) : nullptr;
    return images ? _threads.addProcess(pid, images->name(), images->executable()) : _threads.addProcess(pid);
}

std::vector<std::string> ExportSource::losses() const
{
    std::vector<std::string> all;
    for (const ExportInstrument& instrument : _instruments) {
        for (const auto& [cause, count] : instrument.lost)
            all.push_back(instrument.name + ": " + std::to_string(count) + " lost: " + cause);
    }
    return all;
}

} // namespace vnt
