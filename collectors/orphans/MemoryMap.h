#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "platform/base/Status.h"

namespace vnt::orphans {

/// A piece of a target's address space.
struct Range {
    uint64_t start = 0;
    uint64_t end = 0; ///< behind the last byte

    [[nodiscard]] uint64_t sizeBytes() const { return end - start; }
    [[nodiscard]] bool contains(uint64_t address) const { return address >= start && address < end; }
    bool operator==(const Range&) const = default;
};

/// One line of /proc/PID/maps (proc(5)).
struct MapEntry {
    Range range;
    bool readable = false;
    bool writable = false;
    bool shared = false;
    bool anonymous = false; ///< no file behind it
    std::string path; ///< also "[heap]" and the like; empty without a name

    /// It can hold pointers to the heap: writable, or private memory of the program's own whatever its protection now.
    [[nodiscard]] bool canHoldPointers() const;
    /// Data of the C library itself.
    [[nodiscard]] bool isCLibrary() const;
};

/// Parses the text of /proc/PID/maps; lines that make no sense are left out. Ascending.
[[nodiscard]] std::vector<MapEntry> parseMaps(const std::string& text);
/// Errors: kNotFound when there is no such process, kDenied.
[[nodiscard]] Result<std::vector<MapEntry>> readMaps(pid_t pid);

/// `from` without `holes`; both ascending and without overlaps among themselves.
[[nodiscard]] std::vector<Range> without(const std::vector<Range>& from, const std::vector<Range>& holes);
/// Sorts and joins what overlaps or touches.
void normalize(std::vector<Range>& ranges);

} // namespace vnt::orphans
