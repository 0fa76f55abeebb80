#include "bundle/CensusProfile.h"

#include <algorithm>

namespace vnt {
namespace {

class Builder final : public census::CensusRecordHandler {
public:
    Builder(CensusProfile& profile, const TimeSpan& span) : _profile(profile), _span(span) { }

    void onSession(const census::SessionRecord& session) override { _profile.session = session; }

    void onProcess(const census::ProcessRecord& process) override { (void)entry(process); }

    void onSweep(uint64_t timeNs, const census::SweepRecord& sweep) override
    {
        if (_span.contains(timeNs))
            _profile.sweeps.push_back({timeNs, sweep});
    }

    void onUsage(uint64_t timeNs, const census::ProcessRecord& process, const census::Usage& usage) override
    {
        if (timeNs >= _span.untilNs)
            return;
        CensusProcess& known = entry(process);
        if (timeNs < _span.fromNs || (!known.measured && !known.started))
            known.first = usage;
        known.firstNs = known.measured ? known.firstNs : timeNs;
        known.measured = true;
        known.last = usage;
        known.lastNs = timeNs;
        if (timeNs >= _span.fromNs)
            known.peakResidentKiB = std::max(known.peakResidentKiB, at(usage, census::Field::kResidentKiB));
    }

    void onStarted(uint64_t timeNs, const census::ProcessRecord& process) override
    {
        if (timeNs >= _span.untilNs)
            return;
        CensusProcess& known = entry(process);
        if (timeNs < _span.fromNs)
            return;
        known.started = true;
        known.first = {};
        known.firstNs = timeNs;
        known.measured = known.measured && known.lastNs > timeNs;
    }

    void onEnded(uint64_t timeNs, const census::ProcessRecord& process, int64_t status) override
    {
        if (timeNs >= _span.untilNs)
            return;
        CensusProcess& known = entry(process);
        known.endedNs = timeNs;
        known.status = status;
    }

    void onRenamed(uint64_t, const census::ProcessRecord& process) override
    {
        CensusProcess& known = entry(process);
        if (known.firstName.empty() && known.process.name != process.name)
            known.firstName = known.process.name;
        known.process = process;
    }

    void onLost(uint64_t, census::LostCause cause, uint64_t total) override
    {
        uint64_t& known = _profile.lost[static_cast<size_t>(cause)];
        known = std::max(known, total);
    }

    void onCost(uint64_t, uint64_t cpuNs, uint64_t, uint64_t leftOut) override
    {
        _profile.recorderCpuNs = std::max(_profile.recorderCpuNs, cpuNs);
        _profile.sweepsLeftOut = std::max(_profile.sweepsLeftOut, leftOut);
    }

    void onOrphan() override { ++_profile.orphans; }
    void onMissingMessages(uint64_t count) override { _missing += count; }
    [[nodiscard]] uint64_t missing() const { return _missing; }

private:
    /// One process by its number and beginning: a later generation tells the same one again.
    CensusProcess& entry(const census::ProcessRecord& process)
    {
        const auto [found, isNew] = _index.try_emplace({process.pid, process.startNs}, _profile.processes.size());
        if (isNew)
            _profile.processes.emplace_back().process = process;
        return _profile.processes[found->second];
    }

    CensusProfile& _profile;
    const TimeSpan _span;
    std::map<std::pair<uint32_t, uint64_t>, size_t> _index;
    uint64_t _missing = 0;
};

} // namespace

uint64_t CensusProfile::lostRecords() const
{
    uint64_t all = orphans + messages.dropped;
    for (size_t cause = 0; cause < lost.size(); ++cause)
        all += cause == static_cast<size_t>(census::LostCause::kUnread) ? 0 : lost[cause];
    return all;
}

uint64_t CensusProfile::started() const
{
    return static_cast<uint64_t>(std::count_if(processes.begin(), processes.end(),
                                               [](const CensusProcess& process) { return process.started; }));
}

uint64_t CensusProfile::ended() const
{
    return static_cast<uint64_t>(std::count_if(
        processes.begin(), processes.end(), [](const CensusProcess& process) { return process.endedNs.has_value(); }));
}

uint64_t CensusProfile::busyMs() const
{
    return sweeps.empty()
        ? 0
        : sweeps.back().machine.busyMs - std::min(sweeps.back().machine.busyMs, sweeps.front().machine.busyMs);
}

uint64_t CensusProfile::wholeMs() const
{
    return sweeps.empty()
        ? 0
        : sweeps.back().machine.wholeMs - std::min(sweeps.back().machine.wholeMs, sweeps.front().machine.wholeMs);
}

CensusProfile readCensus(const Bundle& bundle, const InstrumentData& data, const TimeSpan& span)
{
    CensusProfile profile;
    Builder builder(profile, span);
    census::CensusRecordReader reader;
    uint64_t damaged = 0;
    std::string firstFault;
    profile.messages = bundle.forEachMessage(data, [&](std::span<const std::byte> message) {
        const Status status = reader.read(message, builder);
        if (!status.ok() && damaged++ == 0)
            firstFault = status.message();
    });
    if (span != TimeSpan())
        std::erase_if(profile.processes, [&](const CensusProcess& process) {
            const bool isBefore = process.endedNs && *process.endedNs < span.fromNs;
            return isBefore || (!process.measured && !process.started && !process.endedNs);
        });
    if (damaged > 0)
        bundle.remarks().add(std::to_string(damaged) + " damaged messages of the census: " + firstFault);
    if (builder.missing() > 0)
        bundle.remarks().add(std::to_string(builder.missing()) + " messages of the census are missing");
    return profile;
}

} // namespace vnt
