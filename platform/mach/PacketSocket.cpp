#include "platform/mach/PacketSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "platform/base/sys.h"

namespace vnt {
namespace {

// Closing a file of a file system in user space waits for its server, which a hostile sender may be. So many may hang
// at a time; past it the descriptor is kept open on purpose: losing one is better than a server that stands still.
constexpr int kMaxHangingCloses = 32;

template <typename Call> auto retried(Call call) -> decltype(call())
{
    for (;;) {
        auto result = call();
        if (result >= 0 || errno != EINTR)
            return result;
    }
}

/// Asks without touching the file system behind the descriptor, which may be hostile too.
bool isSocketOrMemoryFile(int fd)
{
    int domain = 0;
    socklen_t size = sizeof domain;
    return ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 || ::fcntl(fd, F_GET_SEALS) >= 0;
}

void closeElsewhere(UniqueFd fd)
{
    static std::atomic<int> hanging{0};
    if (hanging.fetch_add(1, std::memory_order_relaxed) >= kMaxHangingCloses) {
        hanging.fetch_sub(1, std::memory_order_relaxed);
        (void)fd.take();
        return;
    }
    sys::SignalBlock block;
    std::thread([raw = fd.take()] {
        UniqueFd(raw).reset();
        hanging.fetch_sub(1, std::memory_order_relaxed);
    }).detach();
}

/// False when one of the descriptors is of a kind that no message of ours carries; all are closed then.
bool adoptDescriptors(msghdr& header, std::vector<UniqueFd>& descriptors)
{
    bool acceptable = true;
    for (cmsghdr* part = CMSG_FIRSTHDR(&header); part; part = CMSG_NXTHDR(&header, part)) {
        if (part->cmsg_level != SOL_SOCKET || part->cmsg_type != SCM_RIGHTS)
            continue;
        const size_t count = (part->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int raw = -1;
            std::memcpy(&raw, CMSG_DATA(part) + i * sizeof(int), sizeof raw);
            UniqueFd fd(raw);
            if (isSocketOrMemoryFile(raw)) {
                descriptors.push_back(std::move(fd));
            } else {
                acceptable = false;
                closeElsewhere(std::move(fd));
            }
        }
    }
    if (!acceptable)
        descriptors.clear();
    return acceptable;
}

} // namespace

std::chrono::milliseconds timeLeft(const Deadline& deadline)
{
    if (!deadline)
        return std::chrono::milliseconds(-1);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds(0));
}

ReceiveOutcome tryReceivePacket(int socket, size_t limitBytes, Packet& packet)
{
    packet.bytes.clear();
    packet.descriptors.clear();
    const ssize_t waiting = retried([&] { return ::recv(socket, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT); });
    if (waiting < 0)
        return errno == EAGAIN ? ReceiveOutcome::kNothing : ReceiveOutcome::kClosed;
    packet.bytes.resize(std::min(static_cast<size_t>(waiting), limitBytes));

    alignas(cmsghdr) char control[CMSG_SPACE(kMaxPacketDescriptors * sizeof(int))];
    iovec part{packet.bytes.data(), packet.bytes.size()};
    msghdr header{};
    header.msg_iov = &part;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    const ssize_t count = retried([&] { return ::recvmsg(socket, &header, MSG_DONTWAIT | MSG_CMSG_CLOEXEC); });
    if (count < 0)
        return errno == EAGAIN ? ReceiveOutcome::kNothing : ReceiveOutcome::kClosed;
    const bool kindsAccepted = adoptDescriptors(header, packet.descriptors);
    if (count == 0 && waiting == 0)
        return ReceiveOutcome::kClosed;
    // MSG_CTRUNC: the descriptor table was full or there were more than agreed; what is missing is lost.
    if (!kindsAccepted || (header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        packet.descriptors.clear();
        return ReceiveOutcome::kRejected;
    }
    packet.bytes.resize(static_cast<size_t>(count));
    return ReceiveOutcome::kPacket;
}

int trySendPacket(int socket, std::span<const iovec> parts, std::span<const int> descriptors)
{
    VNT_CHECK(descriptors.size() <= kMaxPacketDescriptors);
    alignas(cmsghdr) char control[CMSG_SPACE(kMaxPacketDescriptors * sizeof(int))];
    msghdr header{};
    header.msg_iov = const_cast<iovec*>(parts.data()); // sendmsg(2) does not write to it
    header.msg_iovlen = parts.size();
    if (!descriptors.empty()) {
        header.msg_control = control;
        header.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
        cmsghdr* part = CMSG_FIRSTHDR(&header);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(descriptors.size_bytes());
        std::memcpy(CMSG_DATA(part), descriptors.data(), descriptors.size_bytes());
    }
    const ssize_t count = retried([&] { return ::sendmsg(socket, &header, MSG_DONTWAIT | MSG_NOSIGNAL); });
    return count < 0 ? errno : 0;
}

Status sendPacket(int socket, std::span<const iovec> parts, std::span<const int> descriptors, const Deadline& deadline)
{
    for (;;) {
        const int error = trySendPacket(socket, parts, descriptors);
        if (error == 0)
            return {};
        if (error == EMSGSIZE)
            return Status(Code::kTooLarge, "packet larger than the socket buffer", error);
        if (error == ENOTCONN)
            return Status(Code::kPeerGone, "not connected", error);
        if (error != EAGAIN)
            return Status::fromErrno(error, "sendmsg");
        // A full queue: wait for room. Death of the receiver wakes the poll too, and the next send reports it.
        pollfd ready{socket, POLLOUT, 0};
        ASSIGN_OR_RETURN(const int count, sys::pollFds({&ready, 1}, timeLeft(deadline)));
        if (count == 0)
            return Status(Code::kTimedOut, "the receiver took nothing");
    }
}

bool isPortSocket(int fd)
{
    const auto option = [fd](int name) {
        int value = -1;
        socklen_t size = sizeof value;
        return ::getsockopt(fd, SOL_SOCKET, name, &value, &size) == 0 ? value : -1;
    };
    return option(SO_DOMAIN) == AF_UNIX && option(SO_TYPE) == SOCK_SEQPACKET && option(SO_ACCEPTCONN) == 0;
}

bool isHungUp(int socket)
{
    pollfd state{socket, POLLRDHUP, 0};
    return ::poll(&state, 1, 0) > 0 && (state.revents & (POLLHUP | POLLRDHUP | POLLERR)) != 0;
}

Result<uint64_t> socketCookie(int socket)
{
    uint64_t cookie = 0;
    socklen_t size = sizeof cookie;
    if (::getsockopt(socket, SOL_SOCKET, SO_COOKIE, &cookie, &size) != 0)
        return Status::fromErrno(errno, "SO_COOKIE");
    return cookie;
}

} // namespace vnt
