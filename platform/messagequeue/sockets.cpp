#include "platform/messagequeue/sockets.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "platform/base/sys.h"

namespace vnt::queue {

Result<UniqueFd> connectWithin(const std::string& path, std::chrono::milliseconds timeout)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return Status(Code::kTooLarge, "a socket path of " + std::to_string(path.size()) + " bytes");
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid())
        return Status::fromErrno(errno, "socket");
    // unix(7): connect(2) waits for room in the backlog as long as the send time-out allows (socket(7)).
    const timeval limit{static_cast<time_t>(timeout.count() / 1000),
                        static_cast<suseconds_t>(timeout.count() % 1000 * 1000)};
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
        return Status::fromErrno(errno, "SO_SNDTIMEO");
    int result = 0;
    do {
        result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (result != 0 && errno == EINTR);
    if (result != 0)
        return Status::fromErrno(errno == EAGAIN ? ETIMEDOUT : errno, path);
    const timeval none{};
    if (::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &none, sizeof none) != 0)
        return Status::fromErrno(errno, "SO_SNDTIMEO");
    return fd;
}

Result<size_t> sendSome(int socket, std::span<const iovec> parts, Blocking blocking)
{
    msghdr message{};
    message.msg_iov = const_cast<iovec*>(parts.data()); // sendmsg(2) only reads it
    message.msg_iovlen = parts.size();
    const int flags = MSG_NOSIGNAL | (blocking == Blocking::kNo ? MSG_DONTWAIT : 0);
    for (;;) {
        const ssize_t sent = ::sendmsg(socket, &message, flags);
        if (sent >= 0)
            return static_cast<size_t>(sent);
        if (errno == EAGAIN && blocking == Blocking::kNo)
            return size_t{0};
        if (errno != EINTR)
            return Status::fromErrno(errno, "send");
    }
}

Status sendFully(int socket, std::span<iovec> parts, Deadline deadline, size_t* sentBytes)
{
    while (!parts.empty()) {
        ASSIGN_OR_RETURN(const size_t sent, sendSome(socket, parts, deadline ? Blocking::kNo : Blocking::kYes));
        if (sentBytes)
            *sentBytes += sent;
        parts = advance(parts, sent);
        if (sent != 0 || parts.empty())
            continue;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - std::chrono::steady_clock::now());
        pollfd ready{socket, POLLOUT, 0};
        ASSIGN_OR_RETURN(const int count, sys::pollFds({&ready, 1}, std::max(left, std::chrono::milliseconds::zero())));
        if (count == 0)
            return Status(Code::kTimedOut, "the peer does not read");
    }
    return {};
}

Result<size_t> receiveSome(int socket, std::span<std::byte> room, Blocking blocking)
{
    const int flags = blocking == Blocking::kNo ? MSG_DONTWAIT : 0;
    for (;;) {
        const ssize_t count = ::recv(socket, room.data(), room.size(), flags);
        if (count >= 0)
            return static_cast<size_t>(count);
        if (errno == EAGAIN && blocking == Blocking::kNo)
            return Status(Code::kTimedOut, "nothing to receive");
        if (errno != EINTR)
            return Status::fromErrno(errno, "receive");
    }
}

void shutdownSocket(int socket)
{
    (void)::shutdown(socket, SHUT_RDWR); // ENOTCONN: the peer was first
}

bool peerHungUp(int socket)
{
    pollfd state{socket, POLLRDHUP, 0};
    const auto count = sys::pollFds({&state, 1}, std::chrono::milliseconds(0));
    return !count.ok() || (state.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)) != 0;
}

std::span<iovec> advance(std::span<iovec> parts, size_t count)
{
    while (!parts.empty() && count >= parts.front().iov_len) {
        count -= parts.front().iov_len;
        parts = parts.subspan(1);
    }
    if (count > 0) {
        parts.front().iov_base = static_cast<std::byte*>(parts.front().iov_base) + count;
        parts.front().iov_len -= count;
    }
    return parts;
}

} // namespace vnt::queue
