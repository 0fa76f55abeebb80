#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>

#include "platform/base/sys.h"
#include "platform/mach/PortTable.h"
#include "platform/mach/TaskPort.h"

using namespace vnt;

namespace {

constexpr size_t kMaxMapsBytes = 256u << 20; // vm.max_map_count lines of the longest path stay below
constexpr size_t kMaxStatBytes = 4096;

kern_return_t statusOf(const Status& status)
{
    if (status.errnoValue() == ESRCH || status.errnoValue() == ENOENT)
        return KERN_TERMINATED;
    switch (status.code()) {
    case Code::kOk:
        return KERN_SUCCESS;
    case Code::kDenied:
        return KERN_NO_ACCESS;
    case Code::kInvalid:
    case Code::kPeerGone: // a right whose queue is empty and whose other end is closed
        return KERN_INVALID_ARGUMENT;
    default:
        return KERN_RESOURCE_SHORTAGE;
    }
}

/// Runs `body` on what a task port holds. Nothing thrown leaves; what can be thrown is a lack of memory.
template <typename Body> kern_return_t withTask(mach_port_t task, Body body) noexcept
{
    try {
        const Ref<Port> port = PortTable::shared().sendingRight(task);
        if (!port)
            return KERN_INVALID_ARGUMENT;
        const auto files = port->taskFiles();
        if (!files.ok())
            return files.code() == Code::kDenied ? kern_return_t{KERN_INVALID_ARGUMENT} : statusOf(files.status());
        return body(*files.value());
    } catch (...) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

template <typename T> bool takeNumber(std::string_view& text, T& value, int base, char after)
{
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (parsed.ec != std::errc() || parsed.ptr == text.data() + text.size() || *parsed.ptr != after)
        return false;
    text.remove_prefix(static_cast<size_t>(parsed.ptr - text.data()) + 1);
    return true;
}

/// One line of /proc/PID/maps (proc(5)): "start-end perms offset device inode path".
bool parseRegion(std::string_view line, task_region_t& region)
{
    uint64_t end = 0;
    region = {};
    if (!takeNumber(line, region.address, 16, '-') || !takeNumber(line, end, 16, ' ') || line.size() < 5)
        return false;
    region.size = end - region.address;
    const auto flag = [&line](size_t at, char letter, uint32_t value) { return line[at] == letter ? value : 0; };
    region.flags = flag(0, 'r', TASK_REGION_READ) | flag(1, 'w', TASK_REGION_WRITE) | flag(2, 'x', TASK_REGION_EXECUTE)
        | flag(3, 's', TASK_REGION_SHARED);
    line.remove_prefix(5);
    if (!takeNumber(line, region.offset, 16, ' '))
        return false;
    for (int field = 0; field < 2; ++field) { // device and inode
        const size_t blank = line.find(' ');
        line.remove_prefix(blank == std::string_view::npos ? line.size() : blank + 1);
    }
    const size_t path = line.find_first_not_of(' ');
    if (path != std::string_view::npos) {
        line.remove_prefix(path);
        std::memcpy(region.path, line.data(), std::min(line.size(), sizeof region.path - 1));
    }
    return true;
}

/// The whole text, from the beginning: the position of the open file is shared with other holders of the right.
Result<std::string> readFromStart(int fd, size_t limitBytes)
{
    std::string text;
    char block[16384];
    for (;;) {
        const ssize_t count = ::pread(fd, block, sizeof block, static_cast<off_t>(text.size()));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return Status::fromErrno(errno, "read");
        if (count == 0)
            return text;
        if (static_cast<size_t>(count) > limitBytes - text.size())
            return Status(Code::kTooLarge, "too many mappings");
        text.append(block, static_cast<size_t>(count));
    }
}

kern_return_t copyRegions(const TaskFiles& files, task_region_t* regions, uint32_t* count)
{
    const auto text = readFromStart(files.mappings.get(), kMaxMapsBytes);
    if (!text.ok())
        return statusOf(text.status());
    if (text.value().empty())
        return KERN_TERMINATED; // every program has mappings
    uint32_t found = 0;
    for (size_t start = 0; start < text.value().size();) {
        const size_t end = std::min(text.value().find('\n', start), text.value().size());
        task_region_t region;
        if (parseRegion(std::string_view(text.value()).substr(start, end - start), region)) {
            if (found < *count)
                regions[found] = region;
            ++found;
        }
        start = end + 1;
    }
    *count = found;
    return KERN_SUCCESS;
}

kern_return_t copyThreads(const TaskFiles& files, int32_t* threads, uint32_t* count)
{
    // Opened again: the position in the directory is shared with other holders of the right.
    UniqueFd own(::openat(files.threads.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    DIR* directory = own ? ::fdopendir(own.get()) : nullptr;
    if (!directory)
        return statusOf(Status::fromErrno(errno, "threads"));
    (void)own.take(); // the directory's
    uint32_t found = 0;
    while (const dirent* entry = ::readdir(directory)) {
        int32_t thread = 0;
        const std::string_view name = entry->d_name;
        if (std::from_chars(name.data(), name.data() + name.size(), thread).ec != std::errc())
            continue;
        if (found < *count)
            threads[found] = thread;
        ++found;
    }
    ::closedir(directory);
    *count = found;
    return found == 0 ? kern_return_t{KERN_TERMINATED} : kern_return_t{KERN_SUCCESS};
}

/// "tid (name) state ppid …": user and system time are the fields 14 and 15 of proc(5).
bool parseThread(std::string_view text, task_thread_t& info)
{
    const size_t open = text.find('(');
    const size_t close = text.rfind(')'); // the name may hold parentheses
    if (open == std::string_view::npos || close == std::string_view::npos || close < open || close + 2 >= text.size())
        return false;
    info = {};
    std::memcpy(info.name, text.data() + open + 1, std::min(close - open - 1, sizeof info.name - 1));
    text.remove_prefix(close + 2);
    info.state = text[0];
    constexpr int kFieldsBetween = 11;
    for (int field = 0; field < kFieldsBetween; ++field) {
        const size_t blank = text.find(' ');
        if (blank == std::string_view::npos)
            return false;
        text.remove_prefix(blank + 1);
    }
    uint64_t user = 0, system = 0;
    if (!takeNumber(text, user, 10, ' ') || !takeNumber(text, system, 10, ' '))
        return false;
    const auto tickNs = 1'000'000'000u / static_cast<uint64_t>(std::max(1L, ::sysconf(_SC_CLK_TCK)));
    info.userNs = user * tickNs;
    info.systemNs = system * tickNs;
    return true;
}

kern_return_t getThread(const TaskFiles& files, int32_t thread, task_thread_t* info)
{
    const std::string path = std::to_string(thread) + "/stat";
    const UniqueFd fd(::openat(files.threads.get(), path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return errno == ENOENT ? kern_return_t{KERN_INVALID_ARGUMENT} : statusOf(Status::fromErrno(errno, path));
    const auto text = readFromStart(fd.get(), kMaxStatBytes);
    if (!text.ok())
        return statusOf(text.status());
    return parseThread(text.value(), *info) ? kern_return_t{KERN_SUCCESS} : kern_return_t{KERN_TERMINATED};
}

kern_return_t readMemory(const TaskFiles& files, uint64_t address, void* buffer, size_t size, size_t* count)
{
    *count = 0;
    if (address > INT64_MAX)
        return KERN_INVALID_ADDRESS; // the kernel's half; pread(2) takes signed offsets
    if (size == 0)
        return KERN_SUCCESS;
    ssize_t got = 0;
    do
        got = ::pread(files.memory.get(), buffer, size, static_cast<off_t>(address));
    while (got < 0 && errno == EINTR);
    if (got < 0)
        return errno == EIO || errno == EINVAL || errno == EOVERFLOW ? kern_return_t{KERN_INVALID_ADDRESS}
                                                                     : statusOf(Status::fromErrno(errno, "read"));
    if (got == 0)
        return KERN_TERMINATED; // mem_rw() of the kernel: the address space has no user left
    *count = static_cast<size_t>(got);
    return KERN_SUCCESS;
}

} // namespace

extern "C" {

kern_return_t task_for_pid(mach_port_t task, int pid, mach_port_t* target)
{
    if (target)
        *target = MACH_PORT_NULL;
    if (task != PortTable::kTaskSelf || !target)
        return KERN_INVALID_ARGUMENT;
    try {
        const auto files = openTask(pid);
        if (!files.ok())
            return KERN_FAILURE;
        auto right = makeTaskRight(files.value());
        if (!right.ok())
            return KERN_FAILURE;
        const auto name = PortTable::shared().insertSend(right.take());
        if (!name.ok())
            return KERN_FAILURE;
        *target = name.value();
        return KERN_SUCCESS;
    } catch (...) {
        return KERN_FAILURE;
    }
}

kern_return_t task_get_pid(mach_port_t task, int* pid)
{
    if (!pid)
        return KERN_INVALID_ARGUMENT;
    return withTask(task, [&](const TaskFiles& files) {
        *pid = files.pid;
        return kern_return_t{KERN_SUCCESS};
    });
}

kern_return_t task_is_running(mach_port_t task, int* running)
{
    if (!running)
        return KERN_INVALID_ARGUMENT;
    return withTask(task, [&](const TaskFiles& files) {
        pollfd ended{files.process.get(), POLLIN, 0}; // pidfd_open(2): readable once the process has ended
        *running = ::poll(&ended, 1, 0) == 0;
        return kern_return_t{KERN_SUCCESS};
    });
}

kern_return_t task_read_memory(mach_port_t task, uint64_t address, void* buffer, size_t size, size_t* count)
{
    if (!count || (!buffer && size != 0))
        return KERN_INVALID_ARGUMENT;
    return withTask(task, [&](const TaskFiles& files) { return readMemory(files, address, buffer, size, count); });
}

kern_return_t task_copy_regions(mach_port_t task, task_region_t* regions, uint32_t* count)
{
    if (!count || (!regions && *count != 0))
        return KERN_INVALID_ARGUMENT;
    return withTask(task, [&](const TaskFiles& files) { return copyRegions(files, regions, count); });
}

kern_return_t task_copy_threads(mach_port_t task, int32_t* threads, uint32_t* count)
{
    if (!count || (!threads && *count != 0))
        return KERN_INVALID_ARGUMENT;
    return withTask(task, [&](const TaskFiles& files) { return copyThreads(files, threads, count); });
}

kern_return_t task_get_thread(mach_port_t task, int32_t thread, task_thread_t* info)
{
    if (!info || thread <= 0)
        return KERN_INVALID_ARGUMENT;
    return withTask(task, [&](const TaskFiles& files) { return getThread(files, thread, info); });
}

} // extern "C"
