#include <algorithm>
#include <map>

#include "bundle/Instruments.h"
#include "bundle/exports/CensusRates.h"
#include "bundle/exports/Exporter.h"
#include "bundle/exports/PerfettoHeap.h"
#include "bundle/exports/PerfettoKernel.h"
#include "bundle/exports/PerfettoTracks.h"
#include "bundle/exports/SampleOrder.h"

namespace vnt {

using protozero::pbf_writer;
namespace packet = perfetto::packet;

namespace {

constexpr int64_t kNsPerSecond = 1'000'000'000;

// Sequences: what is in order of time among itself.
enum SequenceId : uint32_t {
    kDescriptions = 1,
    kCpuSamples = 2,
    kOffCpuSamples = 3,
    kKernelEvents = 4,
    kTaskStates = 5,
    kHeapEvents = 6,
    kLeaks = 7,
    kFigures = 8,
    kProcesses = 9,
    kLosses = 10,
    kAttributes = 11,
};

/// StackSampleDefaults within TracePacketDefaults: what weights are.
std::string sampleDefaults(const char* source, const char* unitName)
{
    constexpr uint32_t kStackSampleDefaults = 100;
    constexpr uint32_t kNanoseconds = 1; // StackSample.CounterDescriptor.Unit
    std::string text;
    {
        pbf_writer defaults(text);
        pbf_writer samples(defaults, kStackSampleDefaults);
        samples.add_string(1, source);
        pbf_writer descriptor(samples, 2);
        descriptor.add_string(2, unitName);
        descriptor.add_uint32(3, kNanoseconds);
    }
    return text;
}

/// PerfSampleDefaults: a timebase without details.
std::string perfSampleDefaults()
{
    std::string text;
    {
        pbf_writer defaults(text);
        pbf_writer samples(defaults, 12);
        pbf_writer timebase(samples, 1);
        timebase.add_uint64(2, 0); // frequency: not a fixed one
    }
    return text;
}

/// Something that is told late: sorted before it is written.
struct LateValue {
    uint64_t timeNs = 0;
    uint64_t place = 0;
    uint64_t track = 0;
    double value = 0;
    uint64_t lost = 0; ///< not 0: that many records, for the reason below
    uint64_t what = 0; ///< a text

    bool operator<(const LateValue& other) const
    {
        return timeNs != other.timeNs ? timeNs < other.timeNs : place < other.place;
    }
};

struct LateProcess {
    enum class What : uint8_t { kStarted, kEnded, kRenamed };
    uint64_t timeNs = 0;
    uint64_t track = 0;
    What what = What::kStarted;
    int64_t status = 0;
    census::ProcessRecord process;
};

class PerfettoExporter final : public Exporter, private ExportHandler, private CensusRates::Sink {
public:
    Status write(ExportSource& source, OutputSink& out) override;

private:
    struct Parts;

    void onSample(const ExportSample& sample) override;
    void onKernelEvent(const ExportKernelEvent& event) override;
    void onAllocation(const ExportAllocation& allocation) override;
    void onFree(const ExportFree& free) override;
    void onFault(const ExportFault& fault) override;
    void onSearch(const ExportSearch& search) override;
    void onLeak(const ExportLeak& leak) override;
    void onNotSearched(uint64_t timeNs, uint32_t process, std::string_view reason) override;
    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override;
    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override;
    void onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process) override;
    void onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override;
    void onProcessRenamed(uint64_t timeNs, const census::ProcessRecord& process) override;
    void onLost(uint64_t timeNs, std::string_view what, uint64_t count) override;
    void onFigure(uint64_t timeNs, uint32_t pid, size_t metric, double value) override;

    void writeClock(const ExportSource& source, OutputSink& out);
    Status writeSamples();
    Status writeLateValues();
    void addValue(uint64_t timeNs, uint64_t track, double value);
    void writeProcesses();
    void addProcessEvent(uint64_t timeNs, LateProcess::What what, const census::ProcessRecord& process, int64_t status);
    void writeSample(const SortedSample& sample);
    void writeAttributes(uint64_t timeNs);
    [[nodiscard]] uint64_t trackOf(const census::ProcessRecord& process);

    std::unique_ptr<Parts> _parts; ///< made for the source
};

struct PerfettoExporter::Parts {
    Parts(ExportSource& from, OutputSink& to, CensusRates::Sink& sink)
        : source(from),
          out(to),
          cpuSamples(kCpuSamples, from, to,
                     from.options().perfSamples ? perfSampleDefaults() : sampleDefaults("rumbel.cpu", "cpu time")),
          offCpuSamples(kOffCpuSamples, from, to, sampleDefaults("rumbel.off-cpu", "time off the processor")),
          rates(sink),
          spool(from.options().scratchDirectory),
          lateValues(from.options().scratchDirectory)
    {
    }

    ExportSource& source;
    OutputSink& out;
    PerfettoSequence descriptions{kDescriptions, source, out};
    PerfettoSequence cpuSamples;
    PerfettoSequence offCpuSamples;
    PerfettoSequence kernelEvents{kKernelEvents, source, out};
    PerfettoSequence taskStates{kTaskStates, source, out};
    PerfettoSequence heapEvents{kHeapEvents, source, out};
    PerfettoSequence leaks{kLeaks, source, out};
    PerfettoSequence figures{kFigures, source, out};
    PerfettoSequence processes{kProcesses, source, out};
    PerfettoSequence losses{kLosses, source, out};
    PerfettoSequence attributes{kAttributes, source, out};
    PerfettoTracks tracks{descriptions, source};
    PerfettoKernel kernel{kernelEvents, taskStates, tracks};
    PerfettoHeap heap{heapEvents, leaks, tracks, source};
    CensusRates rates;
    SampleSpool spool;
    RecordSpool<LateValue> lateValues; ///< figures of the census, and losses
    uint64_t lateCount = 0;
    std::vector<LateProcess> lateProcesses; ///< as many as began or ended
    uint64_t samples = 0;
    uint64_t perfCount = 0;
    uint64_t lastNs = 0;
    census::SweepRecord sweep;
    uint64_t sweepNs = 0;
};

void PerfettoExporter::onSample(const ExportSample& sample)
{
    SortedSample sorted;
    sorted.timeNs = sample.timeNs;
    // Waits stand where they began.
    if (sample.isBlocked)
        sorted.timeNs -= std::min(sample.weightNs, sample.timeNs);
    sorted.weightNs = sample.weightNs;
    sorted.place = _parts->samples++;
    sorted.thread = sample.thread;
    sorted.stack = sample.stack;
    sorted.isBlocked = sample.isBlocked ? 1 : 0;
    _parts->spool.add(sorted);
    _parts->lastNs = std::max(_parts->lastNs, sample.timeNs);
}

void PerfettoExporter::onKernelEvent(const ExportKernelEvent& event) { _parts->kernel.add(event); }
void PerfettoExporter::onAllocation(const ExportAllocation& allocation) { _parts->heap.allocate(allocation); }
void PerfettoExporter::onFree(const ExportFree& free) { _parts->heap.free(free); }
void PerfettoExporter::onFault(const ExportFault& fault) { _parts->heap.fault(fault); }
void PerfettoExporter::onSearch(const ExportSearch& search) { _parts->heap.search(search); }
void PerfettoExporter::onLeak(const ExportLeak& leak) { _parts->heap.leak(leak); }

void PerfettoExporter::onNotSearched(uint64_t timeNs, uint32_t process, std::string_view reason)
{
    _parts->heap.notSearched(timeNs, process, reason);
}

uint64_t PerfettoExporter::trackOf(const census::ProcessRecord& process)
{
    return _parts->tracks.process(process.pid, process.name.empty() ? "[unknown]" : process.name, process.executable);
}

void PerfettoExporter::onSweep(uint64_t timeNs, const census::SweepRecord& sweep)
{
    _parts->rates.sweep(timeNs);
    enum : uint32_t { kBusy = 1, kAvailable = 2, kProcessCount = 3 };
    const auto tell = [&](uint32_t kind, const char* name, PerfettoTracks::Unit unit, double value) {
        addValue(timeNs, _parts->tracks.counter(0, kind, name, unit), value);
    };
    const census::SweepRecord& before = _parts->sweep;
    if (_parts->sweepNs != 0 && sweep.wholeMs > before.wholeMs && sweep.busyMs >= before.busyMs) {
        tell(kBusy, "processors busy", PerfettoTracks::Unit::kPercent,
             100.0 * static_cast<double>(sweep.busyMs - before.busyMs)
                 / static_cast<double>(sweep.wholeMs - before.wholeMs));
    }
    tell(kAvailable, "memory available", PerfettoTracks::Unit::kBytes, static_cast<double>(sweep.availableKiB) * 1024);
    tell(kProcessCount, "processes", PerfettoTracks::Unit::kCount, sweep.processes);
    _parts->sweep = sweep;
    _parts->sweepNs = timeNs;
}

void PerfettoExporter::onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage)
{
    (void)trackOf(process);
    _parts->rates.usage(timeNs, process.pid, process.startNs, usage);
}

void PerfettoExporter::onFigure(uint64_t timeNs, uint32_t pid, size_t metric, double value)
{
    using Kind = CensusMetric::Kind;
    using Unit = PerfettoTracks::Unit;
    const CensusMetric& what = kCensusMetrics[metric];
    const Unit unit = what.kind == Kind::kPercent ? Unit::kPercent
        : what.kind == Kind::kBytes               ? Unit::kBytes
        : what.kind == Kind::kBytesPerSecond      ? Unit::kBytesPerSecond
        : what.kind == Kind::kPerSecond           ? Unit::kPerSecond
                                                  : Unit::kCount;
    addValue(timeNs, _parts->tracks.counter(pid, static_cast<uint32_t>(metric) + 1, what.name, unit), value);
}

void PerfettoExporter::addValue(uint64_t timeNs, uint64_t track, double value)
{
    _parts->lateValues.add({timeNs, _parts->lateCount++, track, value, 0, 0});
}

void PerfettoExporter::addProcessEvent(uint64_t timeNs, LateProcess::What what, const census::ProcessRecord& process,
                                       int64_t status)
{
    _parts->lateProcesses.push_back({timeNs, trackOf(process), what, status, process});
}

void PerfettoExporter::onProcessStarted(uint64_t timeNs, const census::ProcessRecord& process)
{
    addProcessEvent(timeNs, LateProcess::What::kStarted, process, 0);
}

void PerfettoExporter::onProcessEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status)
{
    addProcessEvent(timeNs, LateProcess::What::kEnded, process, status);
    _parts->rates.end(timeNs, process.pid);
}

void PerfettoExporter::onProcessRenamed(uint64_t timeNs, const census::ProcessRecord& process)
{
    addProcessEvent(timeNs, LateProcess::What::kRenamed, process, 0);
}

void PerfettoExporter::onLost(uint64_t timeNs, std::string_view what, uint64_t count)
{
    const uint64_t track = _parts->tracks.plain(0, 1, "recorder");
    _parts->lateValues.add({std::max(timeNs, _parts->source.startNs()), _parts->lateCount++, track, 0, count,
                            _parts->source.stacks().strings().add(what)});
}

void PerfettoExporter::writeProcesses()
{
    std::vector<LateProcess>& all = _parts->lateProcesses;
    std::stable_sort(all.begin(), all.end(),
                     [](const LateProcess& a, const LateProcess& b) { return a.timeNs < b.timeNs; });
    for (const LateProcess& late : all) {
        PerfettoEvent made(_parts->processes, PerfettoEvent::kInstant, late.track);
        if (late.what == LateProcess::What::kStarted)
            made.name("started", "process").number("parent", late.process.parent).number("uid", late.process.uid);
        else if (late.what == LateProcess::What::kEnded)
            made.name("ended", "process").signedNumber("status", late.status);
        else
            made.name("began a program", "process")
                .text("name", late.process.name)
                .text("executable", late.process.executable);
        made.write(late.timeNs);
    }
}

Status PerfettoExporter::writeLateValues()
{
    ASSIGN_OR_RETURN(const std::span<const LateValue> values, _parts->lateValues.sorted());
    for (const LateValue& late : values) {
        if (late.lost == 0) {
            PerfettoEvent(_parts->figures, PerfettoEvent::kCounter, late.track).value(late.value).write(late.timeNs);
            continue;
        }
        PerfettoEvent(_parts->losses, PerfettoEvent::kInstant, late.track)
            .name(_parts->source.stacks().text(static_cast<uint32_t>(late.what)), "lost")
            .number("lost", late.lost)
            .write(late.timeNs);
    }
    return {};
}

/// The clock that all times are of, before anything that has one.
void PerfettoExporter::writeClock(const ExportSource& source, OutputSink& out)
{
    constexpr uint32_t kRealtime = 1;
    constexpr uint32_t kMonotonicCoarse = 4;
    constexpr uint32_t kBoottime = 6;
    std::string text;
    {
        pbf_writer trace(text);
        pbf_writer one(trace, 1);
        pbf_writer snapshot(one, packet::kClockSnapshot);
        const auto clock = [&](uint32_t id, uint64_t ns) {
            pbf_writer message(snapshot, 1);
            message.add_uint32(1, id);
            message.add_uint64(2, ns);
        };
        const int64_t seconds = std::clamp<int64_t>(source.startSeconds(), 0, INT64_MAX / kNsPerSecond);
        clock(perfetto::kMonotonicClock, source.startNs());
        clock(kBoottime, source.startNs()); // the recording does not know more
        clock(kRealtime, static_cast<uint64_t>(seconds * kNsPerSecond));
        clock(kMonotonicCoarse, source.startNs());
        snapshot.add_uint32(2, perfetto::kMonotonicClock);
    }
    out.write(text);
}

Status PerfettoExporter::writeSamples()
{
    ASSIGN_OR_RETURN(const std::span<const SortedSample> samples, _parts->spool.sorted());
    for (const SortedSample& sample : samples)
        writeSample(sample);
    return {};
}

void PerfettoExporter::writeSample(const SortedSample& sample)
{
    // Fields of StackSample and PerfSample.
    enum : uint32_t { kTaskContextIid = 2, kExecutionContextIid = 4, kStackIid = 6, kPrimaryWeight = 11 };
    (void)_parts->tracks.thread(sample.thread);
    const bool isKernel = _parts->source.stacks().isKernel(sample.stack);
    std::string text;
    pbf_writer message(text);
    if (!_parts->source.options().perfSamples) {
        PerfettoSequence& sequence = sample.isBlocked != 0 ? _parts->offCpuSamples : _parts->cpuSamples;
        message.add_uint64(kTaskContextIid, sequence.taskContext(sample.thread));
        if (sample.isBlocked == 0)
            message.add_uint64(kExecutionContextIid, sequence.executionContext(isKernel));
        message.add_uint64(kStackIid, sequence.callstack(sample.stack));
        message.add_uint64(kPrimaryWeight, sample.weightNs);
        sequence.write(sample.timeNs, packet::kStackSample, text);
    } else if (sample.isBlocked == 0) { // the older form has no weights: of waits it would count the number only
        const ExportThread& thread = _parts->source.threads().threads()[sample.thread];
        message.add_uint32(2, thread.pid);
        message.add_uint32(3, thread.tid);
        message.add_uint64(4, _parts->cpuSamples.callstack(sample.stack));
        message.add_uint32(5, isKernel ? 1 : 2); // other numbers than in ExecutionContext
        message.add_uint64(6, ++_parts->perfCount);
        _parts->cpuSamples.write(sample.timeNs, packet::kPerfSample, text);
    }
}

void PerfettoExporter::writeAttributes(uint64_t timeNs)
{
    std::string text;
    {
        pbf_writer message(text);
        const auto number = [&](const std::string& key, uint64_t value) {
            pbf_writer attribute(message, 1);
            attribute.add_string(1, key);
            attribute.add_int64(2, static_cast<int64_t>(value));
        };
        for (const ExportInstrument& instrument : _parts->source.instruments()) {
            number(instrument.name + ": messages", instrument.messages.messages);
            number(instrument.name + ": recorder's processor time in ns", instrument.recorderCpuNs);
            for (const auto& [cause, count] : instrument.lost)
                number(instrument.name + ": lost, " + cause, count);
        }
    }
    _parts->attributes.write(timeNs, packet::kTraceAttributes, text);
}

Status PerfettoExporter::write(ExportSource& source, OutputSink& out)
{
    _parts = std::make_unique<Parts>(source, out, static_cast<CensusRates::Sink&>(*this));
    writeClock(source, out);
    source.read(*this);
    _parts->kernel.finish();
    _parts->heap.finish();
    _parts->rates.finish();
    RETURN_IF_ERROR(writeSamples());
    RETURN_IF_ERROR(writeLateValues());
    writeProcesses();
    writeAttributes(std::max({_parts->lastNs, source.startNs(), source.stopNs()}));
    return {};
}

} // namespace

std::unique_ptr<Exporter> makePerfettoExporter() { return std::make_unique<PerfettoExporter>(); }

} // namespace vnt
