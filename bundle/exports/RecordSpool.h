#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <type_traits>

#include "bundle/exports/ScratchFile.h"

namespace vnt {

/// Any number of records of one size, to be sorted in little memory: what does not fit stands in a ScratchFile. Records
/// are copied byte by byte and compared with operator<, which must tell any two apart. One thread.
template <typename Record> class RecordSpool {
    static_assert(std::is_trivially_copyable_v<Record> && alignof(Record) <= alignof(std::max_align_t));

public:
    static constexpr size_t kBufferBytes = size_t{16} << 20;

    /// As of ScratchFile.
    explicit RecordSpool(std::string directory, size_t bufferBytes = kBufferBytes)
        : _content(std::move(directory), bufferBytes)
    {
    }

    void add(const Record& record) { _content.append({reinterpret_cast<const char*>(&record), sizeof record}); }
    /// All records in order; valid as long as this. Nothing may be added afterwards. Errors: those of the file system.
    Result<std::span<const Record>> sorted()
    {
        ASSIGN_OR_RETURN(const std::span<char> bytes, _content.map());
        const std::span<Record> records(reinterpret_cast<Record*>(bytes.data()), bytes.size() / sizeof(Record));
        if (!std::is_sorted(records.begin(), records.end()))
            std::sort(records.begin(), records.end());
        return std::span<const Record>(records);
    }

private:
    ScratchFile _content;
};

} // namespace vnt
