#include "collectors/census/ExitStatistics.h"

#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <span>
#include <string_view>

#include "platform/base/sys.h"

namespace vnt {
namespace {

using census::Field;

constexpr int kReceiveBytes = 8 << 20; // some 10,000 threads' ends
constexpr size_t kMaxLives = 65536;
constexpr uint16_t kProcessNumberSince = 12; // taskstats::ac_tgid, by taskstats::version
constexpr size_t kBytesNeeded = offsetof(taskstats, ac_tgid) + sizeof(taskstats::ac_tgid);
constexpr int64_t kUsPerMs = 1000;

using Bytes = std::span<const char>;

/// Calls `visit` with type and payload of each attribute in `bytes`.
void forEachAttribute(Bytes bytes, const std::function<void(uint16_t, Bytes)>& visit)
{
    while (bytes.size() >= NLA_HDRLEN) {
        nlattr header{};
        std::memcpy(&header, bytes.data(), sizeof header);
        if (header.nla_len < NLA_HDRLEN || header.nla_len > bytes.size())
            return;
        visit(header.nla_type & NLA_TYPE_MASK, bytes.subspan(NLA_HDRLEN, header.nla_len - NLA_HDRLEN));
        bytes = bytes.subspan(std::min<size_t>(NLA_ALIGN(header.nla_len), bytes.size()));
    }
}

/// A request of one attribute, a text.
Status sendRequest(int socket, uint16_t family, uint8_t command, uint16_t attribute, const std::string& text,
                   uint16_t flags)
{
    std::string request(NLMSG_HDRLEN + GENL_HDRLEN + NLA_HDRLEN, '\0');
    request += text;
    request += '\0';
    nlattr value{static_cast<uint16_t>(NLA_HDRLEN + text.size() + 1), attribute};
    request.resize(NLMSG_HDRLEN + GENL_HDRLEN + NLA_ALIGN(value.nla_len), '\0');
    const genlmsghdr generic{command, 1, 0};
    nlmsghdr netlink{};
    netlink.nlmsg_len = static_cast<uint32_t>(request.size());
    netlink.nlmsg_type = family;
    netlink.nlmsg_flags = static_cast<uint16_t>(NLM_F_REQUEST | flags);
    std::memcpy(request.data(), &netlink, sizeof netlink);
    std::memcpy(request.data() + NLMSG_HDRLEN, &generic, sizeof generic);
    std::memcpy(request.data() + NLMSG_HDRLEN + GENL_HDRLEN, &value, sizeof value);
    if (::send(socket, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        return Status::fromErrno(errno, "asking the kernel for statistics of what ends");
    return {};
}

/// Receives one datagram and passes on each generic message in it. False: none waits, or the kernel refused. errno says
/// which.
bool receive(int socket, int flags, const std::function<void(Bytes)>& onMessage)
{
    alignas(nlmsghdr) char buffer[16384];
    sockaddr_nl sender{};
    socklen_t senderBytes = sizeof sender;
    const ssize_t size = TEMP_FAILURE_RETRY(
        ::recvfrom(socket, buffer, sizeof buffer, flags, reinterpret_cast<sockaddr*>(&sender), &senderBytes));
    if (size < 0)
        return false;
    if (sender.nl_pid != 0)
        return true; // not the kernel
    Bytes left(buffer, static_cast<size_t>(size));
    while (left.size() >= NLMSG_HDRLEN) {
        nlmsghdr header{};
        std::memcpy(&header, left.data(), sizeof header);
        if (header.nlmsg_len < NLMSG_HDRLEN || header.nlmsg_len > left.size())
            break;
        const Bytes payload = left.subspan(NLMSG_HDRLEN, header.nlmsg_len - NLMSG_HDRLEN);
        if (header.nlmsg_type == NLMSG_ERROR && payload.size() >= sizeof(int)) {
            int error = 0;
            std::memcpy(&error, payload.data(), sizeof error);
            if (error != 0) {
                errno = -error;
                return false;
            }
        } else if (header.nlmsg_type >= NLMSG_MIN_TYPE && payload.size() >= GENL_HDRLEN) {
            onMessage(payload.subspan(GENL_HDRLEN));
        }
        left = left.subspan(std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), left.size()));
    }
    return true;
}

/// The number of the family of messages, which the kernel gives anew at each boot.
Result<uint16_t> familyNumber(int socket)
{
    RETURN_IF_ERROR(
        sendRequest(socket, GENL_ID_CTRL, CTRL_CMD_GETFAMILY, CTRL_ATTR_FAMILY_NAME, TASKSTATS_GENL_NAME, 0));
    uint16_t number = 0;
    const bool answered = receive(socket, 0, [&](Bytes message) {
        forEachAttribute(message, [&](uint16_t type, Bytes value) {
            if (type == CTRL_ATTR_FAMILY_ID && value.size() >= sizeof number)
                std::memcpy(&number, value.data(), sizeof number);
        });
    });
    if (!answered || number == 0)
        return Status(Code::kUnsupported, "the kernel keeps no statistics of what ends (CONFIG_TASKSTATS)");
    return number;
}

} // namespace

Result<ExitStatistics> ExitStatistics::open()
{
    UniqueFd socket(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_GENERIC));
    if (!socket.valid())
        return Status::fromErrno(errno, "the kernel's statistics of what ends");
    if (::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBytes, sizeof kReceiveBytes) != 0)
        (void)::setsockopt(socket.get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBytes,
                           sizeof kReceiveBytes); // what is allowed
    ASSIGN_OR_RETURN(const uint16_t family, familyNumber(socket.get()));
    // The kernel takes processors that may ever exist, as this file lists them.
    ASSIGN_OR_RETURN(std::string processors, sys::readFile("/sys/devices/system/cpu/possible", 4096));
    processors = processors.substr(0, processors.find('\n'));
    RETURN_IF_ERROR(sendRequest(socket.get(), family, TASKSTATS_CMD_GET, TASKSTATS_CMD_ATTR_REGISTER_CPUMASK,
                                processors, NLM_F_ACK));
    ExitStatistics statistics(std::move(socket));
    // What ends meanwhile may be told before the answer.
    const int fd = statistics._socket.get();
    if (!receive(fd, 0, [](Bytes) {}))
        return Status::fromErrno(errno, "the kernel's statistics of what ends");
    return statistics;
}

void ExitStatistics::drain()
{
    const auto onStatistics = [&](uint16_t type, Bytes value) {
        taskstats thread{};
        if (type != TASKSTATS_TYPE_STATS || value.size() < kBytesNeeded)
            return;
        std::memcpy(&thread, value.data(), std::min(sizeof thread, value.size()));
        if (thread.version >= kProcessNumberSince)
            add(thread);
    };
    const auto onMessage = [&](Bytes message) {
        forEachAttribute(message, [&](uint16_t type, Bytes value) {
            // Those of the process as a whole hold delays only.
            if (type == TASKSTATS_TYPE_AGGR_PID)
                forEachAttribute(value, onStatistics);
        });
    };
    while (receive(_socket.get(), MSG_DONTWAIT, onMessage) || errno == ENOBUFS) {
        if (_lives.size() > kMaxLives)
            _lives.clear(); // ends that nobody asked for
    }
}

void ExitStatistics::add(const taskstats& thread)
{
    Life& life = _lives[static_cast<pid_t>(thread.ac_tgid)];
    const auto grow = [&](Field field, uint64_t by) { at(life.usage, field) += static_cast<int64_t>(by); };
    grow(Field::kCpuNs, thread.cpu_run_virtual_total);
    grow(Field::kUserMs, thread.ac_utime);
    grow(Field::kSystemMs, thread.ac_stime);
    grow(Field::kMinorFaults, thread.ac_minflt);
    grow(Field::kMajorFaults, thread.ac_majflt);
    grow(Field::kVoluntarySwitches, thread.nvcsw);
    grow(Field::kInvoluntarySwitches, thread.nivcsw);
    grow(Field::kReadBytes, thread.read_bytes);
    grow(Field::kWrittenBytes, thread.write_bytes);
    if (thread.ac_pid == thread.ac_tgid)
        life.name.assign(thread.ac_comm, ::strnlen(thread.ac_comm, sizeof thread.ac_comm));
}

std::optional<ExitStatistics::Life> ExitStatistics::take(pid_t pid)
{
    drain();
    const auto found = _lives.find(pid);
    if (found == _lives.end())
        return std::nullopt;
    Life life = std::move(found->second);
    _lives.erase(found);
    for (const Field time : {Field::kUserMs, Field::kSystemMs}) // microseconds so far
        at(life.usage, time) /= kUsPerMs;
    return life;
}

} // namespace vnt
