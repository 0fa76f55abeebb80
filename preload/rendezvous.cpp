#include "preload/rendezvous.h"

#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "preload/raw.h"

namespace vnt::journal {

namespace {

/// The collector answers at once unless the machine is overloaded; a program may start this much later at worst.
constexpr int kAnswerMs = 2000;
constexpr int kWantedSeals = F_SEAL_SHRINK | F_SEAL_GROW; // fcntl(2): the memory cannot be taken away under us

#ifdef __i386__
constexpr long kSocket = 359, kConnect = 362, kGetOption = 365, kSendMsg = 370,
               kReceiveMsg = 372; // <asm/unistd_32.h>, since Linux 4.3
constexpr long kFcntl = SYS_fcntl64, kMap = SYS_mmap2;
#else
constexpr long kSocket = SYS_socket, kConnect = SYS_connect, kSendMsg = SYS_sendmsg, kReceiveMsg = SYS_recvmsg;
constexpr long kGetOption = SYS_getsockopt;
constexpr long kFcntl = SYS_fcntl, kMap = SYS_mmap;
#endif

void closeFd(long fd) { (void)raw::call(SYS_close, fd); }

long connectTo(const char* name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const size_t length = ::strlen(name);
    if (length == 0 || length + 1 >= sizeof address.sun_path)
        return -1;
    ::memcpy(address.sun_path + 1, name, length); // abstract: a null byte first
    const long fd = raw::call(kSocket, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (raw::failed(fd))
        return -1;
    const long size = static_cast<long>(offsetof(sockaddr_un, sun_path) + 1 + length);
    if (raw::failed(raw::call(kConnect, fd, raw::argument(&address), size))) {
        closeFd(fd);
        return -1;
    }
    return fd;
}

bool sendHello(long fd)
{
    Hello hello{kMagic, kVersion, sizeof(void*)};
    iovec part{&hello, sizeof hello};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    return raw::call(kSendMsg, fd, raw::argument(&message), MSG_NOSIGNAL) == sizeof hello;
}

/// The descriptor that came with the answer, or -1.
long receiveWelcome(long fd, Welcome& welcome)
{
    pollfd wait{static_cast<int>(fd), POLLIN, 0};
    if (raw::call(SYS_poll, raw::argument(&wait), 1, kAnswerMs) != 1)
        return -1;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec part{&welcome, sizeof welcome};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    if (raw::call(kReceiveMsg, fd, raw::argument(&message), MSG_CMSG_CLOEXEC) != sizeof welcome)
        return -1;
    const cmsghdr* header = CMSG_FIRSTHDR(&message);
    if (!header || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS
        || header->cmsg_len != CMSG_LEN(sizeof(int)))
        return -1;
    int received = -1;
    ::memcpy(&received, CMSG_DATA(header), sizeof received);
    return received;
}

/// Where only a process's ancestors may look into it (kernel.yama.ptrace_scope 1), the collector may from here on: it
/// is no ancestor, and a search for leaks holds us still and reads our memory. Elsewhere the call is refused, and
/// needless.
void letCollectorLook(long fd)
{
    ucred collector{};
    socklen_t size = sizeof collector;
    if (!raw::failed(
            raw::call(kGetOption, fd, SOL_SOCKET, SO_PEERCRED, raw::argument(&collector), raw::argument(&size))))
        (void)raw::call(SYS_prctl, PR_SET_PTRACER, collector.pid, 0, 0, 0);
}

/// The memory must be as large as we think, and stay so.
bool isSound(long fd)
{
    const long size = raw::call(SYS_lseek, fd, 0, SEEK_END);
    const long seals = raw::call(kFcntl, fd, F_GET_SEALS);
    return size == static_cast<long>(totalBytes(kRings)) && !raw::failed(seals)
        && (seals & kWantedSeals) == kWantedSeals;
}

const char* socketName(char** environment)
{
    constexpr size_t kLength = sizeof kSocketVariable - 1;
    for (; environment && *environment; ++environment) {
        if (::strncmp(*environment, kSocketVariable, kLength) == 0 && (*environment)[kLength] == '=')
            return *environment + kLength + 1;
    }
    return nullptr;
}

} // namespace

Memory mapMemory(long fd, const Welcome& welcome)
{
    Memory memory;
    if (!isSound(fd))
        return memory;
    const uint32_t rings = sizeof(void*) == 4 ? kRings32Bit : kRings;
    const long mapped =
        raw::call(kMap, 0, static_cast<long>(totalBytes(rings)), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (raw::failed(mapped))
        return memory;
    memory.shared = reinterpret_cast<Shared*>(mapped);
    memory.rings = reinterpret_cast<Ring*>(mapped + static_cast<long>(kSharedBytes));
    memory.ringCount = rings;
    memory.eventsMask = welcome.eventsMask;
    memory.flags = welcome.flags;
    return memory;
}

Memory askForMemory(char** environment)
{
    Memory memory;
    const char* name = socketName(environment);
    if (!name)
        return memory;
    const long socket = connectTo(name);
    if (socket < 0)
        return memory;
    Welcome welcome{};
    const long fd = sendHello(socket) ? receiveWelcome(socket, welcome) : -1;
    if (fd >= 0)
        letCollectorLook(socket);
    closeFd(socket);
    if (fd < 0)
        return memory;
    if (welcome.magic == kMagic && welcome.version == kVersion && welcome.record == 1)
        memory = mapMemory(fd, welcome);
    closeFd(fd);
    return memory;
}

} // namespace vnt::journal
