#include "bundle/exports/CensusRates.h"

namespace vnt {

namespace {

constexpr double kNsPerSecond = 1e9;

} // namespace

void CensusRates::sweep(uint64_t timeNs)
{
    rest(_sweepNs);
    _sweepNs = timeNs;
}

void CensusRates::usage(uint64_t timeNs, uint32_t pid, uint64_t startNs, const census::Usage& usage)
{
    Known& known = _processes[pid];
    if (known.startNs != startNs) { // the number was given again
        for (size_t i = 0; i < kCensusMetricCount; ++i)
            tell(known, timeNs, pid, i, 0);
        known = Known();
        known.startNs = startNs;
    }
    const double spanNs = known.timeNs == 0 || timeNs <= known.timeNs ? 0 : static_cast<double>(timeNs - known.timeNs);
    for (size_t i = 0; i < kCensusMetricCount; ++i) {
        const CensusMetric& metric = kCensusMetrics[i];
        const double now = static_cast<double>(at(usage, metric.field)) * static_cast<double>(metric.scale);
        if (!isRate(metric)) {
            tell(known, timeNs, pid, i, now);
            continue;
        }
        if (spanNs == 0)
            continue;
        const double before = static_cast<double>(at(known.usage, metric.field)) * static_cast<double>(metric.scale);
        // Processor time in ns over ns, in percent of one processor; others for each second.
        const double scale = metric.kind == CensusMetric::Kind::kPercent ? 100 : kNsPerSecond;
        const double rate = (now - before) / spanNs * scale;
        tell(known, timeNs, pid, i, rate > 0 ? rate : 0);
        known.hasRates = known.hasRates || rate > 0;
    }
    known.usage = usage;
    known.timeNs = timeNs;
}

void CensusRates::end(uint64_t timeNs, uint32_t pid)
{
    const auto found = _processes.find(pid);
    if (found == _processes.end())
        return;
    for (size_t i = 0; i < kCensusMetricCount; ++i)
        tell(found->second, timeNs, pid, i, 0);
    _processes.erase(found);
}

void CensusRates::tell(Known& known, uint64_t timeNs, uint32_t pid, size_t metric, double value)
{
    if (known.told[metric] == value)
        return;
    known.told[metric] = value;
    _sink.onFigure(timeNs, pid, metric, value);
}

/// Processes that the sweep at `timeNs` did not mention used nothing up to it.
void CensusRates::rest(uint64_t timeNs)
{
    for (auto& [pid, known] : _processes) {
        if (!known.hasRates || known.timeNs >= timeNs)
            continue;
        for (size_t i = 0; i < kCensusMetricCount; ++i) {
            if (isRate(kCensusMetrics[i]))
                tell(known, timeNs, pid, i, 0);
        }
        known.hasRates = false;
        known.timeNs = timeNs;
    }
}

} // namespace vnt
