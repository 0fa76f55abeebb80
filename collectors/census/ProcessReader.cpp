#include "collectors/census/ProcessReader.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <memory>

namespace vnt {

using census::Field;

namespace {

constexpr size_t kBufferBytes = 16384; // the longest of these files but for /proc/stat, of which only the head is read
constexpr uint32_t kKernelThreadFlag = 0x00200000; // PF_KTHREAD of <linux/sched.h>, in field 9 of /proc/PID/stat

int64_t clockNs(clockid_t clock)
{
    timespec time{};
    if (::clock_gettime(clock, &time) != 0)
        return -1;
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

/// clock_getcpuclockid(3) without its check that the process exists: the clock's own use tells that.
clockid_t processClock(pid_t pid) { return static_cast<clockid_t>((~static_cast<unsigned>(pid) << 3) | 2); }

int64_t number(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t");
    int64_t value = 0;
    if (first != std::string_view::npos)
        std::from_chars(text.data() + first, text.data() + text.size(), value);
    return value;
}

/// The numbers behind `keys` at the beginning of lines, in one pass; 0 where there is none.
template <size_t kCount>
std::array<int64_t, kCount> valuesOf(std::string_view text, const std::string_view (&keys)[kCount])
{
    std::array<int64_t, kCount> values{};
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        const std::string_view line = text.substr(start, end - start);
        for (size_t i = 0; i < kCount; ++i) {
            if (line.starts_with(keys[i]))
                values[i] = number(line.substr(keys[i].size()));
        }
        start = end + 1;
    }
    return values;
}

int64_t valueOf(std::string_view text, std::string_view key) { return valuesOf(text, {key})[0]; }

/// Blank-separated fields, one after the other.
class Fields {
public:
    explicit Fields(std::string_view text) : _text(text) { }
    std::string_view next()
    {
        const size_t first = std::min(_text.find_first_not_of(' '), _text.size());
        const size_t end = std::min(_text.find_first_of(" \n", first), _text.size());
        const std::string_view field = _text.substr(first, end - first);
        _text.remove_prefix(end);
        return field;
    }
    void skip(int count)
    {
        while (count-- > 0)
            (void)next();
    }

private:
    std::string_view _text;
};

} // namespace

ProcessReader::ProcessReader()
    : _buffer(kBufferBytes),
      _ticksPerSecond(static_cast<uint64_t>(std::max(::sysconf(_SC_CLK_TCK), 1L))),
      _pageKiB(static_cast<uint64_t>(::sysconf(_SC_PAGESIZE)) / 1024),
      _bootToMonotonicNs(clockNs(CLOCK_MONOTONIC) - clockNs(CLOCK_BOOTTIME))
{
    struct stat own { };
    _descriptorsByStat = ::stat("/proc/self/fd", &own) == 0 && own.st_size > 0;
    _memoryKiB = static_cast<uint64_t>(valueOf(text("/proc/meminfo"), "MemTotal:"));
}

std::string_view ProcessReader::text(const char* path)
{
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return {};
    const ssize_t size = ::read(fd, _buffer.data(), _buffer.size());
    ::close(fd);
    return {_buffer.data(), size > 0 ? static_cast<size_t>(size) : 0};
}

std::string_view ProcessReader::text(pid_t pid, const char* file)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/%s", pid, file);
    return text(path);
}

Result<std::vector<pid_t>> ProcessReader::processes()
{
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir("/proc"), ::closedir);
    if (!directory)
        return Status::fromErrno(errno, "/proc");
    std::vector<pid_t> pids;
    while (const dirent* entry = ::readdir(directory.get())) {
        pid_t pid = 0;
        const char* end = entry->d_name + std::char_traits<char>::length(entry->d_name);
        if (std::from_chars(entry->d_name, end, pid).ptr == end && pid > 0)
            pids.push_back(pid);
    }
    return pids;
}

int64_t ProcessReader::cpuNs(pid_t pid) const { return clockNs(processClock(pid)); }

Status ProcessReader::readStat(pid_t pid, Looked& looked)
{
    const std::string_view stat = text(pid, "stat");
    const size_t open = stat.find('(');
    const size_t close = stat.rfind(')'); // the name may hold anything
    if (open == std::string_view::npos || close == std::string_view::npos || close < open)
        return Status(Code::kNotFound, "process " + std::to_string(pid) + " is gone");
    census::ProcessRecord& process = looked.process;
    census::Usage& usage = looked.usage;
    process.pid = static_cast<uint32_t>(pid);
    process.name = stat.substr(open + 1, close - open - 1);
    Fields fields(stat.substr(close + 1));
    const std::string_view state = fields.next(); // field 3 of proc_pid_stat(5)
    at(usage, Field::kState) = state.empty() ? '?' : state[0];
    process.parent = static_cast<uint32_t>(number(fields.next()));
    fields.skip(4);
    if (number(fields.next()) & kKernelThreadFlag)
        process.flags = census::ProcessRecord::kKernelThread;
    at(usage, Field::kMinorFaults) = number(fields.next());
    fields.skip(1);
    at(usage, Field::kMajorFaults) = number(fields.next());
    fields.skip(1);
    const int64_t tick = static_cast<int64_t>(1000 / _ticksPerSecond);
    at(usage, Field::kUserMs) = number(fields.next()) * tick;
    at(usage, Field::kSystemMs) = number(fields.next()) * tick;
    fields.skip(4);
    at(usage, Field::kThreads) = number(fields.next());
    fields.skip(1);
    const auto startTicks = static_cast<uint64_t>(number(fields.next()));
    const auto startNs = static_cast<int64_t>(startTicks * (1'000'000'000 / _ticksPerSecond)) + _bootToMonotonicNs;
    process.startNs = startNs > 0 ? static_cast<uint64_t>(startNs) : 0;
    fields.skip(1);
    at(usage, Field::kResidentKiB) = number(fields.next()) * static_cast<int64_t>(_pageKiB);
    at(usage, Field::kCpuNs) = std::max(cpuNs(pid), int64_t{0});
    return {};
}

void ProcessReader::readStatus(pid_t pid, Looked& looked)
{
    const auto [uid, file, shared, swap, voluntary, involuntary] = valuesOf(
        text(pid, "status"),
        {"Uid:", "RssFile:", "RssShmem:", "VmSwap:", "voluntary_ctxt_switches:", "nonvoluntary_ctxt_switches:"});
    looked.process.uid = static_cast<uint32_t>(uid);
    at(looked.usage, Field::kSharedKiB) = file + shared;
    at(looked.usage, Field::kSwapKiB) = swap;
    at(looked.usage, Field::kVoluntarySwitches) = voluntary;
    at(looked.usage, Field::kInvoluntarySwitches) = involuntary;
}

int64_t ProcessReader::descriptors(pid_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/fd", pid);
    if (_descriptorsByStat) {
        struct stat directory { };
        return ::stat(path, &directory) == 0 ? directory.st_size : -1;
    }
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(::opendir(path), ::closedir);
    if (!directory)
        return -1;
    int64_t count = -2; // "." and ".."
    while (::readdir(directory.get()))
        ++count;
    return std::max(count, int64_t{0});
}

void ProcessReader::readLimited(pid_t pid, Looked& looked)
{
    // Who may read the one may read the other (PTRACE_MODE_READ_FSCREDS, ptrace(2)); the number of descriptors alone
    // would be told to everybody.
    const std::string_view io = text(pid, "io");
    if (io.empty()) {
        looked.limited = true;
        return;
    }
    const auto [read, written] = valuesOf(io, {"read_bytes:", "write_bytes:"});
    const int64_t count = descriptors(pid);
    if (count < 0) {
        looked.limited = true;
        return;
    }
    at(looked.usage, Field::kDescriptors) = count;
    at(looked.usage, Field::kReadBytes) = read;
    at(looked.usage, Field::kWrittenBytes) = written;
}

Result<ProcessReader::Looked> ProcessReader::look(pid_t pid)
{
    Looked looked;
    RETURN_IF_ERROR(readStat(pid, looked));
    readStatus(pid, looked);
    if (looked.process.flags & census::ProcessRecord::kKernelThread)
        return looked; // it has neither descriptors nor an executable
    readLimited(pid, looked);
    readExecutable(pid, looked.process);
    return looked;
}

Status ProcessReader::readName(pid_t pid, census::ProcessRecord& process)
{
    std::string_view name = text(pid, "comm");
    if (name.empty())
        return Status(Code::kNotFound, "process " + std::to_string(pid) + " is gone");
    if (name.ends_with('\n'))
        name.remove_suffix(1);
    process.name = name;
    readExecutable(pid, process);
    return {};
}

/// Another user's executable stays unknown.
void ProcessReader::readExecutable(pid_t pid, census::ProcessRecord& process)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/exe", pid);
    const ssize_t size = ::readlink(path, _buffer.data(), census::kMaxNameBytes);
    process.executable.assign(_buffer.data(), size > 0 ? static_cast<size_t>(size) : 0);
}

Result<census::SweepRecord> ProcessReader::machine()
{
    const std::string_view stat = text("/proc/stat");
    if (!stat.starts_with("cpu "))
        return Status(Code::kNotFound, "/proc/stat cannot be read");
    Fields fields(stat.substr(4));
    uint64_t whole = 0;
    uint64_t idle = 0;
    for (int i = 0; i < 8; ++i) { // user nice system idle iowait irq softirq steal, proc_stat(5); guests are in user
        const auto ticks = static_cast<uint64_t>(number(fields.next()));
        whole += ticks;
        idle += i == 3 || i == 4 ? ticks : 0;
    }
    census::SweepRecord sweep;
    sweep.wholeMs = whole * 1000 / _ticksPerSecond;
    sweep.busyMs = (whole - idle) * 1000 / _ticksPerSecond;
    sweep.availableKiB = static_cast<uint64_t>(valueOf(text("/proc/meminfo"), "MemAvailable:"));
    return sweep;
}

} // namespace vnt
