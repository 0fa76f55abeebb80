#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "platform/mach/NameService.h"
#include "platform/mach/PortServer.h"
#include "platform/mach/PortTable.h"

/// Round trips between two processes, each beside its bound in the same run: the same bytes over a bare packet socket.
/// Rounds of the rivals alternate; the median of the rounds is shown, and the ratio.
using namespace vnt;

namespace {

constexpr int kRounds = 15;
constexpr int kCallsPerRound = 400;

double nsPerCall(const std::function<void()>& call, int calls)
{
    const uint64_t begin = sys::monotonicNs();
    for (int i = 0; i < calls; ++i)
        call();
    return static_cast<double>(sys::monotonicNs() - begin) / calls;
}

double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

/// Echoes packets on one end of a pair in a child process.
UniqueFd startBareEcho(pid_t& child)
{
    auto pair = sys::socketPair(SOCK_SEQPACKET).take();
    child = ::fork();
    if (child == 0) {
        pair.first.reset();
        static char packet[256 * 1024];
        for (;;) {
            const ssize_t size = ::recv(pair.second.get(), packet, sizeof packet, 0);
            if (size <= 0 || ::send(pair.second.get(), packet, static_cast<size_t>(size), MSG_NOSIGNAL) < 0)
                ::_exit(0);
        }
    }
    return std::move(pair.first);
}

/// A port server in a child process that answers each request with its own bytes.
void startPortEcho(const std::string& name, pid_t& child)
{
    auto ready = sys::makePipe().take();
    child = ::fork();
    if (child == 0) {
        PortServer::Options options;
        options.arguments.which = Namespace::kUser;
        options.name = name;
        auto server = PortServer::open(std::move(options), [](ReceivedMessage& message, const sys::PeerCredentials&) {
            std::vector<std::byte> reply(message.bytes().begin(), message.bytes().end());
            (void)PortServer::sendReply(message.takeReplyPort(), reinterpret_cast<mach_msg_header_t*>(reply.data()),
                                        reply.size());
        });
        (void)::write(ready.second.get(), "r", 1);
        ::_exit(server.ok() && server.value()->run().ok() ? 0 : 1);
    }
    char byte = 0;
    (void)::read(ready.first.get(), &byte, 1);
}

void bareCall(int socket, std::vector<char>& packet)
{
    if (::send(socket, packet.data(), packet.size(), 0) < 0 || ::recv(socket, packet.data(), packet.size(), 0) < 0)
        std::abort();
}

void portCall(mach_port_t port, std::vector<char>& message)
{
    auto* const header = reinterpret_cast<mach_msg_header_t*>(message.data());
    const auto size = static_cast<mach_msg_size_t>(message.size());
    header->msgh_bits = MACH_MSGH_BITS(uint32_t{MACH_MSG_TYPE_COPY_SEND}, uint32_t{MACH_MSG_TYPE_MAKE_SEND_ONCE});
    header->msgh_remote_port = port;
    header->msgh_local_port = mig_get_reply_port();
    header->msgh_id = 1;
    if (mach_msg(header, MACH_SEND_MSG | MACH_RCV_MSG, size, size, mig_get_reply_port(), 0, 0) != KERN_SUCCESS)
        std::abort();
}

/// One processor for all: a wake-up of another, idle one costs more than the round trip itself.
void useOneProcessor()
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    (void)::sched_setaffinity(0, sizeof one, &one);
}

/// Look-ups that start the service, beside starting and awaiting an empty program.
void measureColdStart(const std::string& directory)
{
    const std::string service =
        sys::executablePath().take().substr(0, sys::executablePath().take().rfind('/')) + "/PortEchoService";
    const std::string programs = directory + "/bin";
    if (::mkdir(programs.c_str(), 0700) != 0 || ::symlink(service.c_str(), (programs + "/KxTSecD").c_str()) != 0)
        return;
    ::setenv("VANTORA_PROGRAM_DIR", programs.c_str(), 1);
    std::vector<double> coldNs, spawnNs;
    for (int round = 0; round < kRounds; ++round) {
        Result<UniqueFd> connection = Status(Code::kNotFound, "");
        coldNs.push_back(nsPerCall([&] { connection = connectToService(Namespace::kUser, "quillon.tfp"); }, 1));
        if (!connection.ok()) {
            std::printf("cold start: %s\n", connection.status().message().c_str());
            return;
        }
        // The first connection was queued before the service listened: its peer is the starter, which is us.
        connection = connectToService(Namespace::kUser, "quillon.tfp");
        const pid_t pid = connection.ok() ? sys::peerCredentials(connection.value().get()).take().pid : 0;
        if (pid <= 0 || pid == ::getpid())
            return;
        const auto ended = sys::openPidFd(pid);
        ::kill(pid, SIGKILL);
        pollfd end{ended.value().get(), POLLIN, 0};
        (void)sys::pollFds({&end, 1}, std::chrono::seconds(10));
        spawnNs.push_back(nsPerCall(
            [] {
                char program[] = "/bin/true";
                char* arguments[] = {program, nullptr};
                pid_t child = 0;
                if (::posix_spawn(&child, program, nullptr, nullptr, arguments, environ) == 0)
                    (void)::waitpid(child, nullptr, 0);
            },
            1));
    }
    std::printf("look-up that starts the service: %.2f ms, ratio to spawning an empty program %.2f\n",
                median(coldNs) / 1e6, median(coldNs) / median(spawnNs));
}

} // namespace

int main()
{
    useOneProcessor();
    char directory[] = "/tmp/vnt-bench.XXXXXX";
    if (!::mkdtemp(directory))
        return 1;
    ::setenv("VANTORA_BOOTSTRAP_DIR", (std::string(directory) + "/user").c_str(), 1);
    useNamespace(Namespace::kUser);
    pid_t bareChild = 0, portChild = 0;
    const UniqueFd bare = startBareEcho(bareChild);
    startPortEcho("bench.echo", portChild);
    mach_port_t port = MACH_PORT_NULL;
    if (bootstrap_look_up(bootstrap_port, "bench.echo", &port) != BOOTSTRAP_SUCCESS)
        return 1;

    for (const size_t bytes : {size_t{64}, size_t{4096}, size_t{32064}}) {
        std::vector<char> packet(bytes);
        std::vector<double> bareNs, portNs;
        for (int round = 0; round < kRounds; ++round) {
            bareNs.push_back(nsPerCall([&] { bareCall(bare.get(), packet); }, kCallsPerRound));
            portNs.push_back(nsPerCall([&] { portCall(port, packet); }, kCallsPerRound));
        }
        std::printf("round trip %6zu bytes: bare packet %7.1f us, mach_msg %7.1f us, ratio %.2f\n", bytes,
                    median(bareNs) / 1e3, median(portNs) / 1e3, median(portNs) / median(bareNs));
    }
    std::vector<double> bareNs, lookUpNs;
    std::vector<char> small(64);
    for (int round = 0; round < kRounds; ++round) {
        bareNs.push_back(nsPerCall([&] { bareCall(bare.get(), small); }, kCallsPerRound));
        lookUpNs.push_back(nsPerCall(
            [&] {
                mach_port_t found = MACH_PORT_NULL;
                if (bootstrap_look_up(bootstrap_port, "bench.echo", &found) != BOOTSTRAP_SUCCESS)
                    std::abort();
                (void)mach_port_deallocate(mach_task_self(), found);
            },
            kCallsPerRound / 4));
    }
    std::printf("look-up of a running service: %.1f us, ratio to a bare 64-byte round trip %.2f\n",
                median(lookUpNs) / 1e3, median(lookUpNs) / median(bareNs));
    measureColdStart(directory);
    for (const pid_t child : {bareChild, portChild}) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    return std::system((std::string("rm -rf ") + directory).c_str()) == 0 ? 0 : 1;
}
