#include "rumbel/report/CensusReport.h"

#include <sys/wait.h>

#include <algorithm>
#include <iomanip>
#include <nlohmann/json.hpp>
#include <ostream>

#include "bundle/CensusProfile.h"
#include "bundle/Instruments.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

using census::Field;
using Json = nlohmann::ordered_json;

std::string kib(int64_t value) { return bytes(static_cast<uint64_t>(std::max<int64_t>(value, 0)) * 1024); }

/// How a process ended, in a word.
std::string endText(const CensusProcess& process)
{
    if (!process.endedNs)
        return "";
    if (process.status < 0)
        return "ended";
    const auto status = static_cast<int>(process.status);
    if (WIFSIGNALED(status))
        return "signal " + std::to_string(WTERMSIG(status));
    return "exit " + std::to_string(WEXITSTATUS(status));
}

class CensusReport final : public InstrumentReport {
public:
    CensusReport(InstrumentData data, CensusProfile profile) : _data(std::move(data)), _profile(std::move(profile))
    {
        for (const CensusProcess& process : _profile.processes)
            _ranked.push_back(&process);
        std::stable_sort(_ranked.begin(), _ranked.end(), [](const CensusProcess* a, const CensusProcess* b) {
            const auto key = [](const CensusProcess* process) {
                return std::pair(process->used(Field::kCpuNs), process->peakResidentKiB);
            };
            return key(a) > key(b);
        });
    }

    [[nodiscard]] const InstrumentData& data() const override { return _data; }
    [[nodiscard]] bool isEmpty() const override { return !_data.hasArchive() && _profile.messages.messages == 0; }
    void writeText(const ReportOptions& options, std::ostream& out) const override;
    void addJson(const ReportOptions& options, Json& json) const override;
    [[nodiscard]] std::vector<MeasuredTable> measures() const override
    {
        MeasuredTable used{"processor time by process", "ms", false, 0, {}};
        MeasuredTable resident{"most resident memory by process", "KiB", false, 0, {}};
        for (const CensusProcess& process : _profile.processes) {
            const double ms = std::max(0.0, static_cast<double>(process.used(Field::kCpuNs)) / 1e6);
            const double peak = std::max(0.0, static_cast<double>(process.peakResidentKiB));
            used.total += ms;
            used.entries[process.process.name] += ms;
            resident.total += peak;
            resident.entries[process.process.name] += peak;
        }
        return {used, resident};
    }

private:
    [[nodiscard]] uint64_t durationNs() const
    {
        return _profile.sweeps.empty() ? 0 : _profile.sweeps.back().timeNs - _profile.sweeps.front().timeNs;
    }
    void writeTable(const ReportOptions& options, std::ostream& out) const;

    const InstrumentData _data;
    const CensusProfile _profile;
    std::vector<const CensusProcess*> _ranked; // most processor time first
};

void CensusReport::writeText(const ReportOptions& options, std::ostream& out) const
{
    writeHeading(_data, out);
    writeLine(out, "Sweeps",
              grouped(_profile.sweeps.size()) + ", one every " + duration(_profile.session.intervalNs) + ", over "
                  + duration(durationNs()));
    writeLine(out, "Processes",
              grouped(_profile.processes.size()) + "; " + grouped(_profile.started()) + " began, "
                  + grouped(_profile.ended()) + " ended, " + grouped(_profile.unmeasured())
                  + " of them too soon to be measured");
    if (!_profile.sweeps.empty())
        writeLine(out, "Machine",
                  percent(_profile.busyMs(), _profile.wholeMs()) + " % of "
                      + plural(_profile.session.processors, "processor") + " busy, "
                      + kib(static_cast<int64_t>(_profile.sweeps.back().machine.availableKiB)) + " of "
                      + kib(static_cast<int64_t>(_profile.session.memoryKiB)) + " memory available");
    writeLine(out, "Lost",
              plural(_profile.lostRecords(), "record") + ", " + plural(_profile.sweepsLeftOut, "sweep") + " left out");
    writeLine(out, "Recorder",
              duration(_profile.recorderCpuNs) + " of processor time (" + percent(_profile.recorderCpuNs, durationNs())
                  + " % of one processor)");
    if (_profile.session.flags & census::SessionRecord::kNoEvents)
        writeLine(out, "Note", "processes that lived between two sweeps could not be seen");
    if (_profile.session.flags & census::SessionRecord::kOthersLimited)
        writeLine(out, "Note", "descriptors and I/O of other users' processes could not be read");
    writeTable(options, out);
}

void CensusReport::writeTable(const ReportOptions& options, std::ostream& out) const
{
    const size_t shown = options.top == 0 ? _ranked.size() : std::min(options.top, _ranked.size());
    out << "\n   cpu %       user     system   resident  threads  fds       read    written  switches      pid  name\n";
    for (size_t i = 0; i < shown; ++i) {
        const CensusProcess& process = *_ranked[i];
        const auto positive = [](int64_t value) { return static_cast<uint64_t>(std::max<int64_t>(value, 0)); };
        const uint64_t switches =
            positive(process.used(Field::kVoluntarySwitches)) + positive(process.used(Field::kInvoluntarySwitches));
        out << std::right << std::setw(8) << percent(positive(process.used(Field::kCpuNs)), durationNs())
            << std::setw(11) << duration(positive(process.used(Field::kUserMs)) * 1'000'000) << std::setw(11)
            << duration(positive(process.used(Field::kSystemMs)) * 1'000'000) << std::setw(11)
            << kib(process.peakResidentKiB) << std::setw(9) << at(process.last, Field::kThreads) << std::setw(5)
            << at(process.last, Field::kDescriptors) << std::setw(11)
            << bytes(positive(process.used(Field::kReadBytes))) << std::setw(11)
            << bytes(positive(process.used(Field::kWrittenBytes))) << std::setw(10) << switches << std::setw(9)
            << process.process.pid << "  " << printable(process.process.name);
        if (!process.firstName.empty())
            out << " (was " << printable(process.firstName) << ")";
        const std::string end = endText(process);
        out << (end.empty() ? "" : "  " + end) << "\n";
    }
    if (shown < _ranked.size())
        out << "          and " << grouped(_ranked.size() - shown) << " more"
            << "\n";
}

Json processJson(const CensusProcess& process)
{
    static constexpr struct {
        Field field;
        const char* key;
    } kGrowing[] = {{Field::kMinorFaults, "minor_faults"},
                    {Field::kMajorFaults, "major_faults"},
                    {Field::kVoluntarySwitches, "voluntary_switches"},
                    {Field::kInvoluntarySwitches, "involuntary_switches"},
                    {Field::kReadBytes, "read_bytes"},
                    {Field::kWrittenBytes, "written_bytes"}};
    Json json{{"pid", process.process.pid},
              {"parent", process.process.parent},
              {"uid", process.process.uid},
              {"name", process.process.name},
              {"executable", process.process.executable},
              {"kernel_thread", (process.process.flags & census::ProcessRecord::kKernelThread) != 0},
              {"cpu_ms", static_cast<double>(process.used(Field::kCpuNs)) / 1e6},
              {"user_ms", process.used(Field::kUserMs)},
              {"system_ms", process.used(Field::kSystemMs)},
              {"resident_kib", at(process.last, Field::kResidentKiB)},
              {"peak_resident_kib", process.peakResidentKiB},
              {"shared_kib", at(process.last, Field::kSharedKiB)},
              {"swap_kib", at(process.last, Field::kSwapKiB)},
              {"threads", at(process.last, Field::kThreads)},
              {"descriptors", at(process.last, Field::kDescriptors)}};
    for (const auto& growing : kGrowing)
        json[growing.key] = process.used(growing.field);
    json["started"] = process.started;
    json["ended"] = process.endedNs.has_value();
    json["measured"] = process.measured;
    if (process.status >= 0)
        json["wait_status"] = process.status;
    return json;
}

void CensusReport::addJson(const ReportOptions&, Json& json) const
{
    json["sweeps"] = _profile.sweeps.size();
    json["processes"] = _profile.processes.size();
    json["lost"] = _profile.lostRecords();
    json["interval_ms"] = _profile.session.intervalNs / 1'000'000;
    json["duration_ms"] = static_cast<double>(durationNs()) / 1e6;
    json["started"] = _profile.started();
    json["ended"] = _profile.ended();
    json["unmeasured"] = _profile.unmeasured();
    json["sweeps_left_out"] = _profile.sweepsLeftOut;
    json["busy_ms"] = _profile.busyMs();
    json["whole_ms"] = _profile.wholeMs();
    json["recorder_cpu_ms"] = static_cast<double>(_profile.recorderCpuNs) / 1e6;
    json["messages"] = _profile.messages.messages;
    Json list = Json::array();
    for (const CensusProcess* process : _ranked)
        list.push_back(processJson(*process));
    json["list"] = std::move(list);
}

} // namespace

std::unique_ptr<InstrumentReport> readCensusReport(const Bundle& bundle, const ReadingOptions& options)
{
    InstrumentData data = bundle.instrument(kProcessCensusId);
    CensusProfile profile = readCensus(bundle, data, options.span);
    return std::make_unique<CensusReport>(std::move(data), std::move(profile));
}

} // namespace vnt
