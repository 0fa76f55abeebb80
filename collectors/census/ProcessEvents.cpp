#include "collectors/census/ProcessEvents.h"

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "collectors/common/perf.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr int kReceiveBytes = 8 << 20; // some 50,000 events

// PROC_EVENT_* of <linux/cn_proc.h>: where that header has them differs among its versions.
constexpr uint32_t kForkEvent = 0x00000001;
constexpr uint32_t kExecEvent = 0x00000002;
constexpr uint32_t kExitEvent = 0x80000000;

/// Netlink header, connector message and operation, one behind the other.
Status subscribe(int socket)
{
    constexpr size_t kConnectorAt = NLMSG_HDRLEN;
    constexpr size_t kOperationAt = kConnectorAt + sizeof(cn_msg);
    nlmsghdr netlink{};
    cn_msg connector{};
    const proc_cn_mcast_op operation = PROC_CN_MCAST_LISTEN;
    char request[kOperationAt + sizeof operation];
    netlink.nlmsg_len = sizeof request;
    netlink.nlmsg_type = NLMSG_DONE;
    connector.id.idx = CN_IDX_PROC;
    connector.id.val = CN_VAL_PROC;
    connector.len = sizeof operation;
    std::memcpy(request, &netlink, sizeof netlink);
    std::memcpy(request + kConnectorAt, &connector, sizeof connector);
    std::memcpy(request + kOperationAt, &operation, sizeof operation);
    if (::send(socket, request, sizeof request, MSG_NOSIGNAL) != static_cast<ssize_t>(sizeof request))
        return Status::fromErrno(errno, "subscribing to process events");
    return {};
}

/// False for what is none of them.
bool translate(const proc_event& from, ProcessEvents::Event& to)
{
    to.timeNs = from.timestamp_ns;
    switch (static_cast<uint32_t>(from.what)) {
    case kForkEvent:
        to.kind = ProcessEvents::Event::Kind::kStarted;
        to.pid = from.event_data.fork.child_tgid;
        to.parent = from.event_data.fork.parent_tgid;
        return from.event_data.fork.child_pid == from.event_data.fork.child_tgid; // else a thread
    case kExecEvent:
        to.kind = ProcessEvents::Event::Kind::kExecuted;
        to.pid = from.event_data.exec.process_tgid;
        return true;
    case kExitEvent:
        to.kind = from.event_data.exit.process_pid == from.event_data.exit.process_tgid
            ? ProcessEvents::Event::Kind::kEnded
            : ProcessEvents::Event::Kind::kThreadEnded;
        to.pid = from.event_data.exit.process_tgid;
        to.status = from.event_data.exit.exit_code;
        return true;
    default:
        return false;
    }
}

} // namespace

Result<ProcessEvents> ProcessEvents::open()
{
    if (!perf::seesKernelProcessIds()) // the kernel would take the subscription, and tell nothing
        return Status(Code::kUnsupported,
                      "processes that live between two sweeps are not seen: the kernel does not tell of them within a "
                      "container (record from outside it)");
    UniqueFd socket(::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_CONNECTOR));
    if (!socket.valid())
        return Status::fromErrno(errno, "the kernel's process events");
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof kReceiveBytes) != 0)
        (void)::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBytes,
                           sizeof kReceiveBytes); // what is allowed
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return Status(Code::kDenied,
                      "processes that live between two sweeps are not seen: the kernel tells of them to root only "
                      "(record with --system)");
    RETURN_IF_ERROR(subscribe(socket.get()));
    return ProcessEvents(std::move(socket));
}

bool ProcessEvents::drain(const std::function<void(const Event&)>& onEvent)
{
    bool whole = true;
    alignas(nlmsghdr) char buffer[8192];
    for (;;) {
        sockaddr_nl sender{};
        socklen_t senderBytes = sizeof sender;
        const ssize_t size =
            ::recvfrom(_socket.get(), buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&sender), &senderBytes);
        if (size < 0) {
            if (errno == EINTR)
                continue;
            if (errno != ENOBUFS)
                return whole;
            whole = false;
            continue;
        }
        if (sender.nl_pid != 0)
            continue; // not the kernel
        const auto received = static_cast<size_t>(size);
        for (size_t offset = 0; offset + NLMSG_HDRLEN <= received;) {
            nlmsghdr header{};
            std::memcpy(&header, buffer + offset, sizeof header);
            if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > received - offset)
                break;
            const char* payload = buffer + offset + NLMSG_HDRLEN;
            const size_t payloadBytes = header.nlmsg_len - NLMSG_HDRLEN;
            offset += NLMSG_ALIGN(header.nlmsg_len);
            cn_msg message{};
            proc_event event{};
            if (payloadBytes < sizeof message)
                continue;
            std::memcpy(&message, payload, sizeof message);
            if (message.id.idx != CN_IDX_PROC || message.id.val != CN_VAL_PROC)
                continue;
            std::memcpy(&event, payload + sizeof message, std::min(sizeof event, payloadBytes - sizeof message));
            Event translated;
            if (translate(event, translated))
                onEvent(translated);
        }
    }
}

} // namespace vnt
