#include <sys/wait.h>

#include <algorithm>
#include <map>
#include <set>

#include "bundle/CensusProfile.h"
#include "bundle/Instruments.h"
#include "rumbel/report/textLines.h"
#include "rumbel/view/parts.h"

namespace vnt::view {
namespace {

using census::Field;

constexpr size_t kMaxProcesses = 2000; ///< in the page's table
constexpr size_t kMaxDrawn = 24; ///< processes with charts: by processor time, and as many by memory
constexpr size_t kMaxPoints = 2000; ///< of one curve: more than a screen has columns

uint64_t positive(int64_t value) { return static_cast<uint64_t>(std::max<int64_t>(value, 0)); }

using ProcessKey = std::pair<uint32_t, uint64_t>; ///< pid and beginning
ProcessKey keyOf(const census::ProcessRecord& process) { return {process.pid, process.startNs}; }

/// The use of a few processes over time, a value for each step of the time line.
class Curves final : public census::CensusRecordHandler {
public:
    struct Curve {
        std::vector<uint64_t> cpuNs; ///< since the process's beginning, or since the first look
        std::vector<uint64_t> residentKiB; ///< 0 while it does not exist
    };
    Curves(const std::set<ProcessKey>& wanted, size_t sweeps)
        : _step(std::max<size_t>(1, (sweeps + kMaxPoints - 1) / kMaxPoints))
    {
        for (const ProcessKey& key : wanted)
            _states[key];
    }

    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override
    {
        if (_sweeps++ % _step != 0)
            return;
        // What is told behind a sweep's record belongs to it: so far stands what held just before.
        endPoint();
        _times.push_back(timeNs);
        _busyMs.push_back(sweep.busyMs);
        _wholeMs.push_back(sweep.wholeMs);
        _availableKiB.push_back(sweep.availableKiB);
        _processes.push_back(sweep.processes);
    }
    void onUsage(uint64_t, const census::ProcessRecord& process, const census::Usage& usage) override
    {
        const auto found = _states.find(keyOf(process));
        if (found == _states.end())
            return;
        found->second.cpuNs = positive(at(usage, Field::kCpuNs));
        found->second.residentKiB = positive(at(usage, Field::kResidentKiB));
    }
    void onEnded(uint64_t, const census::ProcessRecord& process, int64_t) override
    {
        const auto found = _states.find(keyOf(process));
        if (found != _states.end())
            found->second.residentKiB = 0;
    }
    /// Adds the last point.
    void endPoint()
    {
        if (_times.empty())
            return;
        for (auto& [key, state] : _states) {
            state.curve.cpuNs.push_back(state.cpuNs);
            state.curve.residentKiB.push_back(state.residentKiB);
        }
    }
    [[nodiscard]] const Curve& curve(const ProcessKey& key) const { return _states.at(key).curve; }
    [[nodiscard]] Json machineJson(PageBuilder& page) const
    {
        std::vector<uint64_t> times;
        for (const uint64_t timeNs : _times)
            times.push_back(timeNs - std::min(timeNs, page.originNs()));
        PageColumns& columns = page.columns();
        return {{"time", columns.addDifferences(times)},
                {"busyMs", columns.addDifferences(_busyMs)},
                {"wholeMs", columns.addDifferences(_wholeMs)},
                {"availableKiB", columns.add(_availableKiB)},
                {"processes", columns.add(_processes)}};
    }

private:
    struct State {
        uint64_t cpuNs = 0;
        uint64_t residentKiB = 0;
        Curve curve;
    };
    const size_t _step;
    size_t _sweeps = 0;
    std::map<ProcessKey, State> _states;
    std::vector<uint64_t> _times, _busyMs, _wholeMs, _availableKiB, _processes;
};

std::string endText(const CensusProcess& process)
{
    if (!process.endedNs)
        return "";
    if (process.status < 0)
        return "ended";
    const auto status = static_cast<int>(process.status);
    return WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                               : "exit " + std::to_string(WEXITSTATUS(status));
}

Facts factsOf(const CensusProfile& profile, const InstrumentData& data)
{
    Facts facts;
    facts.add("Sweeps", grouped(profile.sweeps.size()) + ", one every " + duration(profile.session.intervalNs));
    facts.add("Processes",
              grouped(profile.processes.size()) + "; " + grouped(profile.started()) + " began, "
                  + grouped(profile.ended()) + " ended");
    if (profile.unmeasured() != 0)
        facts.add("Unmeasured", grouped(profile.unmeasured()) + " ended too soon to be measured");
    facts.addLoss("Lost", plural(profile.lostRecords(), "record"), profile.lostRecords());
    if (profile.sweepsLeftOut != 0)
        facts.addLoss("Left out", plural(profile.sweepsLeftOut, "sweep"), profile.sweepsLeftOut);
    if (profile.session.flags & census::SessionRecord::kNoEvents)
        facts.addLoss("Note", "processes that lived between two sweeps could not be seen", 1);
    if (profile.session.flags & census::SessionRecord::kOthersLimited)
        facts.addLoss("Note", "descriptors and I/O of other users' processes could not be read", 1);
    facts.addCost(profile.recorderCpuNs, PageBuilder::durationNs(data, 0, 0));
    return facts;
}

std::vector<const CensusProcess*> ranked(const CensusProfile& profile)
{
    std::vector<const CensusProcess*> list;
    for (const CensusProcess& process : profile.processes)
        list.push_back(&process);
    std::stable_sort(list.begin(), list.end(), [](const CensusProcess* a, const CensusProcess* b) {
        const auto key = [](const CensusProcess* process) {
            return std::pair(process->used(Field::kCpuNs), process->peakResidentKiB);
        };
        return key(a) > key(b);
    });
    return list;
}

/// Those that get charts.
std::set<ProcessKey> drawn(std::vector<const CensusProcess*> list)
{
    std::set<ProcessKey> keys;
    for (size_t i = 0; i < std::min(list.size(), kMaxDrawn); ++i)
        keys.insert(keyOf(list[i]->process));
    std::stable_sort(list.begin(), list.end(), [](const CensusProcess* a, const CensusProcess* b) {
        return a->peakResidentKiB > b->peakResidentKiB;
    });
    for (size_t i = 0; i < std::min(list.size(), kMaxDrawn); ++i)
        keys.insert(keyOf(list[i]->process));
    return keys;
}

Json processJson(const CensusProcess& process, const PageBuilder& page)
{
    const auto used = [&](Field field) { return positive(process.used(field)); };
    Json json{{"pid", process.process.pid},
              {"parent", process.process.parent},
              {"uid", process.process.uid},
              {"name", pageText(process.process.name)},
              {"executable", pageText(process.process.executable)},
              {"cpuNs", used(Field::kCpuNs)},
              {"userMs", used(Field::kUserMs)},
              {"systemMs", used(Field::kSystemMs)},
              {"peakKiB", positive(process.peakResidentKiB)},
              {"threads", positive(at(process.last, Field::kThreads))},
              {"descriptors", positive(at(process.last, Field::kDescriptors))},
              {"readBytes", used(Field::kReadBytes)},
              {"writtenBytes", used(Field::kWrittenBytes)},
              {"switches", used(Field::kVoluntarySwitches) + used(Field::kInvoluntarySwitches)},
              {"end", endText(process)}};
    if (!process.firstName.empty())
        json["firstName"] = pageText(process.firstName);
    const auto since = [&](uint64_t timeNs) { return timeNs - std::min(timeNs, page.originNs()); };
    if (process.started)
        json["fromNs"] = since(process.process.startNs != 0 ? process.process.startNs : process.firstNs);
    if (process.endedNs)
        json["untilNs"] = since(*process.endedNs);
    return json;
}

} // namespace

bool addCensus(PageBuilder& page)
{
    const Bundle& bundle = page.bundle();
    const InstrumentData data = bundle.instrument(kProcessCensusId);
    const CensusProfile profile = readCensus(bundle, data);
    const std::vector<const CensusProcess*> list = ranked(profile);
    // A second reading, now that it is known whose curves are worth keeping.
    Curves curves(drawn(list), profile.sweeps.size());
    census::CensusRecordReader reader;
    (void)bundle.forEachMessage(data, [&](std::span<const std::byte> message) { (void)reader.read(message, curves); });
    curves.endPoint();

    Json processes = Json::array();
    const std::set<ProcessKey> withCurves = drawn(list);
    for (const CensusProcess* process : list) {
        const ProcessKey key = keyOf(process->process);
        const bool isDrawn = withCurves.contains(key);
        if (processes.size() >= kMaxProcesses && !isDrawn)
            continue;
        Json entry = processJson(*process, page);
        if (isDrawn) {
            entry["cpuCurve"] = page.columns().addDifferences(curves.curve(key).cpuNs);
            entry["residentCurve"] = page.columns().add(curves.curve(key).residentKiB);
        }
        processes.push_back(std::move(entry));
    }
    const uint64_t firstNs = profile.sweeps.empty() ? 0 : profile.sweeps.front().timeNs;
    const uint64_t lastNs = profile.sweeps.empty() ? 0 : profile.sweeps.back().timeNs;
    page.cover(data, firstNs, lastNs);
    page.addInstrument(data, factsOf(profile, data));
    page.addPart("census",
                 {{"machine", curves.machineJson(page)},
                  {"processors", profile.session.processors},
                  {"memoryKiB", profile.session.memoryKiB},
                  {"seen", profile.processes.size()},
                  {"processes", std::move(processes)}});
    return data.hasArchive() || profile.messages.messages != 0;
}

} // namespace vnt::view
