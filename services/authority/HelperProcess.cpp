#include "services/authority/HelperProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "services/authority/helper_messages.h"

namespace vnt {
namespace {

void wipe(std::vector<std::byte>& bytes)
{
    if (!bytes.empty()) // whose pointer may be null, which the function does not take
        ::explicit_bzero(bytes.data(), bytes.size());
}

void wipe(ByteWriter& writer)
{
    auto bytes = writer.take();
    wipe(bytes);
}

/// Between fork and exec, in a process that may have had other threads: only async-signal-safe calls.
[[noreturn]] void becomeHelper(int socket, char* const* arguments, char* const* environment)
{
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL); // PR_SET_PDEATHSIG of prctl(2)
    (void)::setsid();
    (void)::signal(SIGCHLD, SIG_DFL); // PAM modules wait for children of their own
    if (socket == kHelperSocket)
        (void)::fcntl(socket, F_SETFD, 0);
    else
        (void)::dup2(socket, kHelperSocket);
    (void)::execve("/proc/self/exe", arguments, environment);
    ::_exit(127);
}

} // namespace

Result<std::unique_ptr<HelperProcess>> HelperProcess::start(PacketServer& server, const char* mode, ByteWriter& order,
                                                            std::chrono::seconds limit, OnEnd onEnd)
{
    std::unique_ptr<HelperProcess> helper(new HelperProcess(server, std::move(onEnd)));
    Status status = helper->spawn(mode);
    if (status.ok()) {
        const iovec part{const_cast<std::byte*>(order.view().data()), order.size()}; // only read
        const int error = trySendPacket(helper->_socket.get(), {&part, 1}, {});
        status = error == 0 ? helper->arm(limit) : Status::fromErrno(error, "the helper's order");
    }
    wipe(order);
    RETURN_IF_ERROR(status);
    return helper;
}

Status HelperProcess::spawn(const char* mode)
{
    ASSIGN_OR_RETURN(auto sockets, sys::socketPair(SOCK_SEQPACKET));
    char name[] = "VantoraAuthority", path[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";
    char* const arguments[] = {name, const_cast<char*>(mode), nullptr};
    char* const environment[] = {path, nullptr};
    const pid_t child = ::fork();
    if (child == 0)
        becomeHelper(sockets.second.get(), arguments, environment);
    if (child < 0)
        return Status::fromErrno(errno, "fork");
    _socket = std::move(sockets.first);
    auto process = sys::openPidFd(child);
    if (process.ok()) // else it is gone already, which its socket tells
        _process = process.take();
    return {};
}

Status HelperProcess::arm(std::chrono::seconds limit)
{
    _timer = UniqueFd(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
    const itimerspec when{{0, 0}, {static_cast<time_t>(limit.count()), 0}};
    if (!_timer || ::timerfd_settime(_timer.get(), 0, &when, nullptr) != 0)
        return Status::fromErrno(errno, "timerfd");
    _socketWatch = _server.watch(_socket.get(), POLLIN, [this](short) { onEvents(/*isTimeUp=*/false); });
    _timerWatch = _server.watch(_timer.get(), POLLIN, [this](short) { onEvents(/*isTimeUp=*/true); });
    return {};
}

void HelperProcess::onEvents(bool isTimeUp)
{
    Packet packet;
    const ReceiveOutcome outcome =
        isTimeUp ? ReceiveOutcome::kClosed : tryReceivePacket(_socket.get(), kMaxHelperPacketBytes, packet);
    if (outcome == ReceiveOutcome::kNothing)
        return;
    const OnEnd onEnd = std::move(_onEnd);
    const bool isAnswer = outcome == ReceiveOutcome::kPacket && packet.descriptors.empty();
    onEnd(isAnswer ? std::span<const std::byte>(packet.bytes) : std::span<const std::byte>()); // `this` may be gone now
    wipe(packet.bytes);
}

HelperProcess::~HelperProcess()
{
    if (_socketWatch != 0)
        _server.unwatch(_socketWatch);
    if (_timerWatch != 0)
        _server.unwatch(_timerWatch);
    if (_process)
        (void)sys::signalPidFd(_process.get(), SIGKILL); // gone already is fine
}

Result<Packet> receiveHelperOrder()
{
    (void)::fcntl(kHelperSocket, F_SETFD, FD_CLOEXEC); // it was inherited; nobody inherits it further
    Packet packet;
    ReceiveOutcome outcome = ReceiveOutcome::kNothing;
    while (outcome == ReceiveOutcome::kNothing) {
        pollfd ready{kHelperSocket, POLLIN, 0};
        RETURN_IF_ERROR(sys::pollFds({&ready, 1}, std::chrono::milliseconds(-1)).status()); // ends with the authority
        outcome = tryReceivePacket(kHelperSocket, kMaxHelperPacketBytes, packet);
    }
    if (outcome != ReceiveOutcome::kPacket)
        return Status(Code::kPeerGone, "no order");
    return packet;
}

Status sendHelperResult(ByteWriter& result)
{
    const iovec part{const_cast<std::byte*>(result.view().data()), result.size()}; // only read
    const Status sent = sendPacket(kHelperSocket, {&part, 1}, {}, {});
    wipe(result);
    return sent;
}

} // namespace vnt
