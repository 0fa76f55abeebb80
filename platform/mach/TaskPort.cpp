#include "platform/mach/TaskPort.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstring>

#include "platform/base/sys.h"
#include "platform/mach/PacketSocket.h"

namespace vnt {
namespace {

constexpr size_t kTaskDescriptors = 4;

struct TaskPacket {
    static constexpr uint32_t kMagic = 0x4b535456; // "VTSK"
    static constexpr uint16_t kVersion = 1;
    uint32_t magic = kMagic;
    uint16_t version = kVersion;
    uint16_t reserved = 0;
    int32_t pid = 0;
    uint32_t reservedToo = 0;
};
static_assert(sizeof(TaskPacket) == 16);

bool hasEnded(int pidFd)
{
    pollfd ended{pidFd, POLLIN, 0}; // pidfd_open(2): readable once the process has ended
    return ::poll(&ended, 1, 0) != 0;
}

/// "Pid:" of a pidfd's fdinfo (proc(5)): its pid here, -1 when it was reaped. kInvalid for any other descriptor.
Result<pid_t> pidOf(int pidFd)
{
    ASSIGN_OR_RETURN(const std::string text, sys::readFile("/proc/self/fdinfo/" + std::to_string(pidFd), 4096));
    constexpr std::string_view kKey = "\nPid:\t";
    const size_t at = text.find(kKey);
    pid_t pid = 0;
    if (at == std::string::npos
        || std::from_chars(text.data() + at + kKey.size(), text.data() + text.size(), pid).ec != std::errc())
        return Status(Code::kInvalid, "not a process descriptor");
    return pid;
}

/// The packet at the head of the queue, which stays there. The descriptors are new ones of this process.
Status peek(int right, TaskPacket& packet, UniqueFd (&fds)[kTaskDescriptors], size_t& count)
{
    alignas(cmsghdr) char control[CMSG_SPACE(kTaskDescriptors * sizeof(int))];
    iovec part{&packet, sizeof packet};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ssize_t size = 0;
    do
        size = ::recvmsg(right, &header, MSG_PEEK | MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
    while (size < 0 && errno == EINTR);
    if (size < 0)
        return errno == EAGAIN ? Status(Code::kInvalid, "not a task port") : Status::fromErrno(errno, "recvmsg");
    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item; item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level != SOL_SOCKET || item->cmsg_type != SCM_RIGHTS)
            continue;
        for (size_t at = 0; at + sizeof(int) <= item->cmsg_len - CMSG_LEN(0) && count < kTaskDescriptors;
             at += sizeof(int)) {
            int raw = -1;
            std::memcpy(&raw, CMSG_DATA(item) + at, sizeof raw);
            fds[count++] = UniqueFd(raw);
        }
    }
    if ((header.msg_flags & MSG_CTRUNC) != 0 && count < kTaskDescriptors)
        return Status::fromErrno(EMFILE, "descriptors of a task port");
    if (static_cast<size_t>(size) != sizeof packet || (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0)
        return Status(Code::kInvalid, "not a task port");
    return {};
}

} // namespace

Result<TaskFiles> openTask(pid_t pid)
{
    if (pid <= 0)
        return Status(Code::kNotFound, "no such process");
    const std::string directory = "/proc/" + std::to_string(pid);
    TaskFiles files;
    files.pid = pid;
    ASSIGN_OR_RETURN(files.process, sys::openPidFd(pid));
    ASSIGN_OR_RETURN(files.memory, sys::openFile(directory + "/mem", O_RDONLY));
    ASSIGN_OR_RETURN(files.mappings, sys::openFile(directory + "/maps", O_RDONLY));
    ASSIGN_OR_RETURN(files.threads, sys::openFile(directory + "/task", O_RDONLY | O_DIRECTORY));
    // Alive now, so the pid was its own all the while and the files are not another process's.
    if (hasEnded(files.process.get()))
        return Status(Code::kNotFound, "the process has ended");
    return files;
}

Result<UniqueFd> makeTaskRight(const TaskFiles& files)
{
    ASSIGN_OR_RETURN(auto pair, sys::socketPair(SOCK_SEQPACKET));
    TaskPacket packet;
    packet.pid = files.pid;
    const iovec part{&packet, sizeof packet};
    const int descriptors[kTaskDescriptors] = {files.process.get(), files.memory.get(), files.mappings.get(),
                                               files.threads.get()};
    const int error = trySendPacket(pair.first.get(), {&part, 1}, descriptors);
    if (error != 0)
        return Status::fromErrno(error, "sendmsg");
    return std::move(pair.second);
}

Result<TaskFiles> readTaskRight(int right)
{
    // Of a socket pair these are its maker's (unix(7)). What a stranger put there might be files whose use never ends.
    ASSIGN_OR_RETURN(const sys::PeerCredentials maker, sys::peerCredentials(right));
    if (maker.uid != 0 && maker.uid != ::geteuid())
        return Status(Code::kDenied, "the task port was made by another user");
    TaskPacket packet;
    UniqueFd fds[kTaskDescriptors];
    size_t count = 0;
    RETURN_IF_ERROR(peek(right, packet, fds, count));
    if (packet.magic != TaskPacket::kMagic || packet.version != TaskPacket::kVersion || count != kTaskDescriptors)
        return Status(Code::kInvalid, "not a task port");
    ASSIGN_OR_RETURN(const pid_t pid, pidOf(fds[0].get()));
    TaskFiles files;
    files.pid = pid > 0 ? pid : packet.pid;
    files.process = std::move(fds[0]);
    files.memory = std::move(fds[1]);
    files.mappings = std::move(fds[2]);
    files.threads = std::move(fds[3]);
    return files;
}

} // namespace vnt
