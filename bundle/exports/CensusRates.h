#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "records/CensusRecordReader.h"

namespace vnt {

/// A figure of a process over time.
struct CensusMetric {
    enum class Kind : uint8_t { kPercent, kBytes, kCount, kBytesPerSecond, kPerSecond };
    census::Field field;
    std::string_view name;
    Kind kind;
    int64_t scale; ///< from the field's unit; of kPercent and rates: for a difference
};

inline constexpr CensusMetric kCensusMetrics[] = {
    {census::Field::kCpuNs, "cpu", CensusMetric::Kind::kPercent, 1},
    {census::Field::kResidentKiB, "resident", CensusMetric::Kind::kBytes, 1024},
    {census::Field::kSharedKiB, "shared", CensusMetric::Kind::kBytes, 1024},
    {census::Field::kSwapKiB, "swapped", CensusMetric::Kind::kBytes, 1024},
    {census::Field::kThreads, "threads", CensusMetric::Kind::kCount, 1},
    {census::Field::kDescriptors, "descriptors", CensusMetric::Kind::kCount, 1},
    {census::Field::kMinorFaults, "minor faults", CensusMetric::Kind::kPerSecond, 1},
    {census::Field::kMajorFaults, "major faults", CensusMetric::Kind::kPerSecond, 1},
    {census::Field::kVoluntarySwitches, "voluntary switches", CensusMetric::Kind::kPerSecond, 1},
    {census::Field::kInvoluntarySwitches, "involuntary switches", CensusMetric::Kind::kPerSecond, 1},
    {census::Field::kReadBytes, "read from storage", CensusMetric::Kind::kBytesPerSecond, 1},
    {census::Field::kWrittenBytes, "written to storage", CensusMetric::Kind::kBytesPerSecond, 1},
};
inline constexpr size_t kCensusMetricCount = std::size(kCensusMetrics);

/// Makes figures of a census's records: levels as they are, growing fields as rates between two looks; a process that a
/// sweep does not mention did nothing. Values that did not change are not told again, nor is a process's first value
/// when it is 0. One thread.
class CensusRates {
public:
    /// `metric` is an index into kCensusMetrics.
    class Sink {
    public:
        virtual ~Sink() = default;
        virtual void onFigure(uint64_t timeNs, uint32_t pid, size_t metric, double value) = 0;
    };
    explicit CensusRates(Sink& sink) : _sink(sink) { }

    void sweep(uint64_t timeNs);
    void usage(uint64_t timeNs, uint32_t pid, uint64_t startNs, const census::Usage& usage);
    /// The end of the process: all of it ends.
    void end(uint64_t timeNs, uint32_t pid);
    /// The end of the recording.
    void finish() { rest(_sweepNs); }

private:
    struct Known {
        uint64_t startNs = 0;
        uint64_t timeNs = 0;
        census::Usage usage{};
        double told[kCensusMetricCount] = {};
        bool hasRates = false;
    };
    static bool isRate(const CensusMetric& metric)
    {
        return metric.kind != CensusMetric::Kind::kBytes && metric.kind != CensusMetric::Kind::kCount;
    }
    void tell(Known& known, uint64_t timeNs, uint32_t pid, size_t metric, double value);
    void rest(uint64_t timeNs);

    Sink& _sink;
    std::map<uint32_t, Known> _processes; ///< by pid
    uint64_t _sweepNs = 0;
};

} // namespace vnt
