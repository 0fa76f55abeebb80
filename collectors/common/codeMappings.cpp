#include "collectors/common/codeMappings.h"

#include <fcntl.h>

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <string_view>

#include "platform/base/sys.h"

namespace vnt::procfs {
namespace {

constexpr size_t kMaxMapsBytes = 256u << 20; // a process may have 65,530 mappings (vm.max_map_count) with long paths

constexpr int kToRead = O_RDONLY | O_NONBLOCK | O_NOCTTY; // neither waits nor becomes anybody's terminal

bool parseHexadecimal(std::string_view text, uint64_t& value)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

/// The first word of `line`, which loses it and the blanks behind it.
std::string_view takeWord(std::string_view& line)
{
    const size_t end = std::min(line.find(' '), line.size());
    const std::string_view word = line.substr(0, end);
    line.remove_prefix(std::min(line.find_first_not_of(' ', end), line.size()));
    return word;
}

/// "start-end perms offset dev inode path": the path may hold blanks, or be missing.
bool parseLine(std::string_view line, CodeMapping& mapping, bool& isExecutable)
{
    const std::string_view range = takeWord(line);
    const std::string_view permissions = takeWord(line);
    const std::string_view offset = takeWord(line);
    takeWord(line); // device
    const std::string_view inode = takeWord(line);
    const size_t dash = range.find('-');
    uint64_t end = 0;
    if (inode.empty() || permissions.size() < 4 || dash == std::string_view::npos
        || !parseHexadecimal(range.substr(0, dash), mapping.start) || !parseHexadecimal(range.substr(dash + 1), end)
        || end <= mapping.start || !parseHexadecimal(offset, mapping.fileOffset))
        return false;
    mapping.sizeBytes = end - mapping.start;
    mapping.path = line;
    isExecutable = permissions[2] == 'x';
    return true;
}

/// Calls `onMapping(CodeMapping&, isExecutable)` for each line.
template <typename OnMapping> Status readMappings(pid_t pid, OnMapping onMapping)
{
    ASSIGN_OR_RETURN(const std::string text, sys::readFile("/proc/" + std::to_string(pid) + "/maps", kMaxMapsBytes));
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        CodeMapping mapping;
        bool isExecutable = false;
        if (parseLine(std::string_view(text).substr(start, end - start), mapping, isExecutable))
            onMapping(mapping, isExecutable);
        start = end + 1;
    }
    return {};
}

} // namespace

Result<std::vector<CodeMapping>> codeMappings(pid_t pid)
{
    std::vector<CodeMapping> mappings;
    RETURN_IF_ERROR(readMappings(pid, [&](CodeMapping& mapping, bool isExecutable) {
        if (isExecutable)
            mappings.push_back(std::move(mapping));
    }));
    return mappings;
}

Result<UniqueFd> openMapped(pid_t pid, uint64_t start, uint64_t sizeBytes, const std::string& path)
{
    const std::string process = "/proc/" + std::to_string(pid);
    char range[48];
    std::snprintf(range, sizeof range, "%" PRIx64 "-%" PRIx64, start, start + sizeBytes);
    auto file = sys::openFile(process + "/map_files/" + range, kToRead); // needs privilege (proc(5))
    if (!file.ok() && !path.ends_with(" (deleted)"))
        file = sys::openFile(process + "/root" + path, kToRead);
    RETURN_IF_ERROR(file.status());
    ASSIGN_OR_RETURN(const struct stat info, sys::statFd(file.value().get()));
    if (!S_ISREG(info.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    return file;
}

Result<uint64_t> firstMappingOf(pid_t pid, const std::string& path)
{
    uint64_t start = 0;
    RETURN_IF_ERROR(readMappings(pid, [&](const CodeMapping& mapping, bool) {
        if (start == 0 && mapping.fileOffset == 0 && mapping.path == path)
            start = mapping.start;
    }));
    if (start == 0)
        return Status(Code::kNotFound, path + " is not mapped");
    return start;
}

} // namespace vnt::procfs
