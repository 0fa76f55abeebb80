#pragma once

#include <linux/perf_event.h>

#include <cstddef>
#include <optional>
#include <span>

#include "collectors/common/ProcessObserver.h"
#include "services/tsec/ProcessLog.h"

/// What a perf event that counts nothing tells of all processes of a processor (perf_event_open(2), "MMAP layout").
namespace vnt {

/// The attributes of such an event whose ring holds `ringBytes`. `buildIds` needs Linux 5.12.
perf_event_attr taskRecordAttributes(size_t ringBytes, bool buildIds);

/// One record, made out of a ring's bytes.
struct TaskRecord {
    enum class Kind { kFork, kExec, kMapping, kExit, kLost };
    Kind kind = Kind::kLost;
    uint64_t timeNs = 0;
    pid_t parent = 0; ///< kFork
    uint64_t lost = 0; ///< kLost
    MappingEvent mapping; ///< pid for all kinds but kLost; the rest for kMapping; `path` is the name for kExec
};

/// None for a record that says nothing of processes (a thread, a changed name) or that is damaged.
std::optional<TaskRecord> parseTaskRecord(const perf_event_header& header, std::span<const std::byte> payload);

void applyTaskRecord(const TaskRecord& record, ProcessLog& log);

} // namespace vnt
