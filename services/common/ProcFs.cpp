#include "services/common/ProcFs.h"

#include <elf.h>
#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "platform/base/sys.h"

namespace vnt::procfs {
namespace {

constexpr size_t kMaxStatBytes = 4096;
constexpr size_t kCommLength = 15; // TASK_COMM_LEN - 1 (include/linux/sched.h)
constexpr uint32_t kKernelThread = 0x00200000; // PF_KTHREAD (include/linux/sched.h)

std::string procPath(pid_t pid, const char* name) { return "/proc/" + std::to_string(pid) + "/" + name; }

template <typename T> bool parseNumber(std::string_view text, T& value, int base = 10)
{
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

std::vector<std::string_view> splitFields(std::string_view text)
{
    std::vector<std::string_view> fields;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find_first_of(" \n", start), text.size());
        if (end > start)
            fields.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return fields;
}

Result<ProcessStat> parseStat(const std::string& path)
{
    ASSIGN_OR_RETURN(const std::string text, sys::readFile(path, kMaxStatBytes));
    // The name may hold blanks and parentheses: it ends at the last one.
    const size_t open = text.find('(');
    const size_t close = text.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open)
        return Status(Code::kCorrupt, path + ": not a stat line");
    const auto fields = splitFields(std::string_view(text).substr(close + 1));
    ProcessStat stat;
    stat.comm = text.substr(open + 1, close - open - 1);
    // Fields from state on, proc(5): state 0, ppid 1, flags 6, starttime 19.
    if (fields.size() < 20 || !parseNumber(fields[1], stat.parent) || !parseNumber(fields[6], stat.flags)
        || !parseNumber(fields[19], stat.startTicks))
        return Status(Code::kCorrupt, path + ": not a stat line");
    stat.state = fields[0][0];
    return stat;
}

Result<std::vector<pid_t>> numericEntries(const std::string& directory)
{
    ASSIGN_OR_RETURN(const std::vector<std::string> names, sys::listDirectory(directory));
    std::vector<pid_t> numbers;
    for (const std::string& name : names) {
        pid_t number = 0;
        if (parseNumber(std::string_view(name), number))
            numbers.push_back(number);
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

std::string lastComponent(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

} // namespace

Result<ProcessStat> processStat(pid_t pid) { return parseStat(procPath(pid, "stat")); }

Result<ProcessStat> threadStat(pid_t pid, pid_t tid)
{
    return parseStat(procPath(pid, "task/") + std::to_string(tid) + "/stat");
}

bool isRunning(pid_t pid)
{
    if (pid == 0)
        return true;
    if (pid < 0)
        return false;
    const auto stat = processStat(pid);
    return stat.ok() && stat.value().state != 'Z' && stat.value().state != 'X';
}

Result<std::vector<pid_t>> runningPids()
{
    ASSIGN_OR_RETURN(std::vector<pid_t> pids, numericEntries("/proc"));
    std::erase_if(pids, [](pid_t pid) {
        const auto stat = processStat(pid);
        return !stat.ok() || (stat.value().flags & kKernelThread) || stat.value().state == 'Z';
    });
    return pids;
}

Result<std::vector<pid_t>> threadsOf(pid_t pid) { return numericEntries(procPath(pid, "task")); }

Result<std::string> executableName(pid_t pid)
{
    ASSIGN_OR_RETURN(const ProcessStat stat, processStat(pid));
    if (stat.comm.size() < kCommLength)
        return stat.comm;
    std::vector<std::string> candidates;
    char link[4096];
    const ssize_t length = ::readlink(procPath(pid, "exe").c_str(), link, sizeof link);
    if (length > 0)
        candidates.emplace_back(link, static_cast<size_t>(length));
    if (const auto commandLine = sys::readFile(procPath(pid, "cmdline"), 1u << 20); commandLine.ok()) {
        // A script's name is the second word, its interpreter the first.
        const std::string& words = commandLine.value();
        for (size_t start = 0; start < words.size() && candidates.size() < 4;) {
            const size_t end = std::min(words.find('\0', start), words.size());
            candidates.push_back(words.substr(start, end - start));
            start = end + 1;
        }
    }
    for (const std::string& candidate : candidates) {
        const std::string name = lastComponent(candidate);
        if (name.compare(0, kCommLength, stat.comm) == 0)
            return name;
    }
    return stat.comm;
}

std::string buildIdInNotes(const std::string& notes)
{
    static constexpr char kDigits[] = "0123456789abcdef";
    for (size_t offset = 0; offset + sizeof(Elf64_Nhdr) <= notes.size();) {
        Elf64_Nhdr header; // the same layout in 32-bit files (elf(5))
        std::memcpy(&header, notes.data() + offset, sizeof header);
        const size_t nameAt = offset + sizeof header;
        const size_t dataAt = nameAt + ((size_t{header.n_namesz} + 3) & ~size_t{3});
        const size_t next = dataAt + ((size_t{header.n_descsz} + 3) & ~size_t{3});
        if (dataAt > notes.size() || header.n_descsz > notes.size() - dataAt)
            break;
        if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == 4 && header.n_descsz <= 64
            && std::memcmp(notes.data() + nameAt, "GNU", 4) == 0) {
            std::string id;
            for (size_t i = 0; i < header.n_descsz; ++i) {
                const auto byte = static_cast<unsigned char>(notes[dataAt + i]);
                id += kDigits[byte >> 4];
                id += kDigits[byte & 15];
            }
            return id;
        }
        offset = next;
    }
    return {};
}

std::string buildIdOfFile(const std::string& path)
{
    auto file = sys::openFile(path, O_RDONLY | O_NONBLOCK);
    return file.ok() ? buildIdOf(file.value().get()) : std::string();
}

std::string buildIdOf(int file)
{
    const auto info = sys::statFd(file);
    if (!info.ok() || !S_ISREG(info.value().st_mode))
        return {};
    ::elf_version(EV_CURRENT);
    Elf* elf = ::elf_begin(file, ELF_C_READ, nullptr);
    if (!elf)
        return {};
    std::string id;
    size_t count = 0;
    if (::elf_getphdrnum(elf, &count) == 0) {
        for (size_t i = 0; i < count && id.empty(); ++i) {
            GElf_Phdr header;
            constexpr uint64_t kMaxNoteBytes = 1u << 20;
            if (!::gelf_getphdr(elf, static_cast<int>(i), &header) || header.p_type != PT_NOTE
                || header.p_filesz > kMaxNoteBytes)
                continue;
            std::string notes(header.p_filesz, '\0');
            const ssize_t got = ::pread(file, notes.data(), notes.size(), static_cast<off_t>(header.p_offset));
            if (got == static_cast<ssize_t>(notes.size()))
                id = buildIdInNotes(notes);
        }
    }
    ::elf_end(elf);
    return id;
}

} // namespace vnt::procfs
