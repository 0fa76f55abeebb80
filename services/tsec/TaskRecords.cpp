#include "services/tsec/TaskRecords.h"

#include <time.h>

#include <string_view>

#include "platform/base/ByteCursor.h"

namespace vnt {
namespace {

constexpr size_t kTrailerBytes = sizeof(uint64_t); // PERF_SAMPLE_TIME alone, by sample_id_all
constexpr size_t kMaxBuildIdBytes = 20; // of PERF_RECORD_MMAP2

std::string hexadecimal(std::span<const std::byte> bytes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const std::byte byte : bytes) {
        text += kDigits[static_cast<unsigned>(byte) >> 4];
        text += kDigits[static_cast<unsigned>(byte) & 15];
    }
    return text;
}

/// A text that ends at its NUL or with the record.
std::string restAsText(ByteCursor& cursor)
{
    const size_t left = cursor.remaining();
    const auto bytes = cursor.bytes(left, left);
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    return std::string(text.substr(0, text.find('\0')));
}

bool parseTask(const perf_event_header& header, ByteCursor& cursor, TaskRecord& record)
{
    record.mapping.pid = cursor.little<int32_t>();
    record.parent = cursor.little<int32_t>();
    const auto tid = cursor.little<int32_t>();
    cursor.little<int32_t>(); // the parent's thread
    record.timeNs = cursor.little<uint64_t>();
    record.kind = header.type == PERF_RECORD_FORK ? TaskRecord::Kind::kFork : TaskRecord::Kind::kExit;
    // Threads are of no interest: a process begins with another pid than its parent's and ends with its first thread.
    return header.type == PERF_RECORD_FORK ? record.mapping.pid != record.parent : record.mapping.pid == tid;
}

bool parseName(const perf_event_header& header, ByteCursor& cursor, TaskRecord& record)
{
    record.kind = TaskRecord::Kind::kExec;
    record.mapping.pid = cursor.little<int32_t>();
    cursor.little<int32_t>(); // thread
    record.mapping.path = restAsText(cursor);
    return (header.misc & PERF_RECORD_MISC_COMM_EXEC) != 0;
}

bool parseMapping(const perf_event_header& header, ByteCursor& cursor, TaskRecord& record)
{
    record.kind = TaskRecord::Kind::kMapping;
    MappingEvent& mapping = record.mapping;
    mapping.pid = cursor.little<int32_t>();
    cursor.little<int32_t>(); // thread
    mapping.start = cursor.little<uint64_t>();
    mapping.sizeBytes = cursor.little<uint64_t>();
    mapping.fileOffset = cursor.little<uint64_t>();
    if ((header.misc & PERF_RECORD_MISC_MMAP_BUILD_ID) != 0) {
        const size_t size = cursor.little<uint8_t>();
        cursor.bytes(3, 3); // reserved
        const auto bytes = cursor.bytes(kMaxBuildIdBytes, kMaxBuildIdBytes);
        if (cursor.failed() || size > kMaxBuildIdBytes)
            return false;
        mapping.buildId = hexadecimal(bytes.first(size));
    } else {
        cursor.bytes(24, 24); // device, inode, generation
    }
    cursor.little<uint64_t>(); // protection, flags
    mapping.path = restAsText(cursor);
    if (mapping.path == "//anon")
        mapping.path.clear(); // as /proc/PID/maps has it
    return true;
}

} // namespace

perf_event_attr taskRecordAttributes(size_t ringBytes, bool buildIds)
{
    perf_event_attr attributes{};
    attributes.size = sizeof attributes;
    attributes.type = PERF_TYPE_SOFTWARE;
    attributes.config = PERF_COUNT_SW_DUMMY;
    attributes.sample_type = PERF_SAMPLE_TIME;
    attributes.sample_id_all = 1;
    attributes.task = 1;
    attributes.comm = 1;
    attributes.comm_exec = 1;
    attributes.mmap = 1;
    attributes.mmap2 = 1;
    attributes.build_id = buildIds ? 1 : 0;
    attributes.use_clockid = 1;
    attributes.clockid = CLOCK_MONOTONIC;
    attributes.watermark = 1;
    attributes.wakeup_watermark = static_cast<uint32_t>(ringBytes / 4);
    return attributes;
}

std::optional<TaskRecord> parseTaskRecord(const perf_event_header& header, std::span<const std::byte> payload)
{
    TaskRecord record;
    if (header.type == PERF_RECORD_LOST) {
        ByteCursor cursor(payload);
        cursor.little<uint64_t>(); // event
        record.lost = cursor.little<uint64_t>();
        return cursor.failed() ? std::nullopt : std::optional(record);
    }
    if (payload.size() < kTrailerBytes)
        return std::nullopt;
    ByteCursor cursor(payload.first(payload.size() - kTrailerBytes));
    ByteCursor trailer(payload.last(kTrailerBytes));
    record.timeNs = trailer.little<uint64_t>();
    record.mapping.timeNs = record.timeNs;
    bool useful = false;
    if (header.type == PERF_RECORD_FORK || header.type == PERF_RECORD_EXIT)
        useful = parseTask(header, cursor, record);
    else if (header.type == PERF_RECORD_COMM)
        useful = parseName(header, cursor, record);
    else if (header.type == PERF_RECORD_MMAP2)
        useful = parseMapping(header, cursor, record);
    // A pid of 0 or less is the kernel's, or a process that this namespace of ours does not see.
    if (!useful || cursor.failed() || record.mapping.pid <= 0)
        return std::nullopt;
    return record;
}

void applyTaskRecord(const TaskRecord& record, ProcessLog& log)
{
    switch (record.kind) {
    case TaskRecord::Kind::kFork:
        return log.onFork(record.timeNs, record.parent, record.mapping.pid);
    case TaskRecord::Kind::kExec:
        return log.onExec(record.timeNs, record.mapping.pid, record.mapping.path);
    case TaskRecord::Kind::kMapping:
        return log.onMapping(record.mapping);
    case TaskRecord::Kind::kExit:
        return log.onExit(record.timeNs, record.mapping.pid);
    case TaskRecord::Kind::kLost:
        return log.onLost(record.lost);
    }
}

} // namespace vnt
