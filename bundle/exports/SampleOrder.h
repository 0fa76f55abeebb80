#pragma once

#include "bundle/exports/ExportHandler.h"
#include "bundle/exports/RecordSpool.h"

namespace vnt {

/// A sample as it is sorted: by group (a thread, or all 0), then time; what is equal in all of it stays apart by its
/// place in the recording.
struct SortedSample {
    uint64_t timeNs = 0;
    uint64_t weightNs = 0;
    uint64_t place = 0;
    uint32_t thread = 0;
    uint32_t stack = 0;
    uint32_t group = 0;
    uint32_t isBlocked = 0;

    bool operator<(const SortedSample& other) const
    {
        if (group != other.group)
            return group < other.group;
        if (timeNs != other.timeNs)
            return timeNs < other.timeNs;
        return place < other.place;
    }
};

using SampleSpool = RecordSpool<SortedSample>;

} // namespace vnt
