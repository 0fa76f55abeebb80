#pragma once

#include <map>
#include <optional>
#include <vector>

#include "bundle/Bundle.h"
#include "records/CensusRecordReader.h"

namespace vnt {

/// One process of a census, over the whole recording.
struct CensusProcess {
    census::ProcessRecord process; ///< with its latest name
    std::string firstName; ///< where it became another program
    census::Usage first{}; ///< when it was first looked at; all 0 for one that began within the recording
    census::Usage last{}; ///< when it was last looked at
    int64_t peakResidentKiB = 0; ///< of what was seen
    uint64_t firstNs = 0;
    uint64_t lastNs = 0;
    bool started = false; ///< within the recording
    std::optional<uint64_t> endedNs;
    int64_t status = -1; ///< of its end, as of wait(2); -1: not known
    bool measured = false; ///< its use was read at least once

    /// What it used within the recording, of a field that grows.
    [[nodiscard]] int64_t used(census::Field field) const { return at(last, field) - at(first, field); }
};

struct CensusSweep {
    uint64_t timeNs = 0;
    census::SweepRecord machine;
};

/// The process census's part of a bundle, read whole: memory is some 300 bytes for each process and 40 for each sweep.
struct CensusProfile {
    census::SessionRecord session;
    std::vector<CensusProcess> processes; ///< in the order they were told
    std::vector<CensusSweep> sweeps;
    std::array<uint64_t, census::kLostCauses> lost{};
    uint64_t recorderCpuNs = 0;
    uint64_t sweepsLeftOut = 0; ///< that the recorder had no time for
    uint64_t orphans = 0; ///< records of processes whose definition is lost
    MessageTotals messages;

    /// What was recorded and did not get here.
    [[nodiscard]] uint64_t lostRecords() const;
    /// Processes that ended too soon for anything but their beginning and end to be learned.
    [[nodiscard]] uint64_t unmeasured() const { return lost[static_cast<size_t>(census::LostCause::kUnread)]; }
    [[nodiscard]] uint64_t started() const;
    [[nodiscard]] uint64_t ended() const;
    /// From the first sweep to the last, of all processors: busy, and idle too.
    [[nodiscard]] uint64_t busyMs() const;
    [[nodiscard]] uint64_t wholeMs() const;
};

/// Never fails: what cannot be read is missing in the profile and told in the bundle's remarks.
/// Only what was seen in `span` counts; a process that was seen before it has used nothing at its beginning.
[[nodiscard]] CensusProfile readCensus(const Bundle& bundle, const InstrumentData& data, const TimeSpan& span = {});

} // namespace vnt
