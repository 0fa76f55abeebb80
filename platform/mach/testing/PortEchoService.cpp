#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "platform/mach/PortServer.h"
#include "platform/mach/testing/EchoProtocol.h"

/// A service of few words for the tests of ports and names.
using namespace vnt;

namespace {

EchoDescription describe(const sys::PeerCredentials& sender)
{
    EchoDescription answer{};
    answer.pid = ::getpid();
    answer.senderUser = sender.uid;
    answer.senderPid = sender.pid;
    answer.openDescriptors = static_cast<uint32_t>(sys::listDirectory("/proc/self/fd").take().size());
    answer.isSessionLeader = ::getsid(0) == ::getpid() ? 1 : 0;
    char directory[8] = {};
    answer.isInRoot = ::getcwd(directory, sizeof directory) && std::strcmp(directory, "/") == 0 ? 1 : 0;
    for (char** entry = environ; *entry; ++entry)
        answer.hasLoaderVariables |= std::strncmp(*entry, "LD_", 3) == 0 ? 1 : 0;
    sigset_t blocked;
    ::sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (const int signal : {SIGUSR1, SIGTERM, SIGPIPE, SIGCHLD}) {
        struct sigaction action { };
        ::sigaction(signal, nullptr, &action);
        if (sigismember(&blocked, signal) == 1 || action.sa_handler == SIG_IGN)
            answer.hasBlockedOrIgnoredSignals = 1;
    }
    return answer;
}

void returnMemory(ReceivedMessage& message)
{
    DataReply<NativeAddress> reply{};
    const auto memory = message.memory(0);
    reply.header.msgh_id = kEchoMemory + kReplyIdDistance;
    reply.body.msgh_descriptor_count = 1;
    reply.data.address = reinterpret_cast<uintptr_t>(memory.data());
    reply.data.size = static_cast<uint32_t>(memory.size());
    reply.data.flags = outOfLineFlags(false);
    reply.ndr = NDR_record;
    reply.dataCount = static_cast<uint32_t>(memory.size());
    (void)PortServer::sendReply(message.takeReplyPort(), &reply.header, sizeof reply, true);
}

} // namespace

int main(int argc, char** argv)
{
    auto arguments = ServiceArguments::parse(argc, argv);
    if (!arguments.ok())
        return 2;
    PortServer::Options options;
    options.arguments = arguments.take();
    options.name = kEchoServiceName;
    options.idleExit =
        std::chrono::milliseconds(std::atoi(sys::environmentOr("VANTORA_TEST_IDLE_MS", "20000").c_str()));
    PortServer* server = nullptr;
    auto opened =
        PortServer::open(std::move(options), [&](ReceivedMessage& message, const sys::PeerCredentials& sender) {
            switch (message.header().msgh_id) {
            case kEchoDescribe: {
                EchoDescription answer = describe(sender);
                answer.header.msgh_id = kEchoDescribe + kReplyIdDistance;
                (void)PortServer::sendReply(message.takeReplyPort(), &answer.header, sizeof answer);
                return;
            }
            case kEchoExit:
                ::_exit(0);
            case kEchoWatch: {
                const mach_port_t port = message.takePort(0);
                const mach_port_t reply = message.takeReplyPort();
                (void)server->watchPortDeath(port, [port, reply] {
                    PortServer::replyStatus(reply, kEchoWatch, 77);
                    (void)mach_port_deallocate(mach_task_self(), port);
                });
                return;
            }
            case kEchoMemory:
                return returnMemory(message);
            case kEchoIgnore:
                return;
            default:
                return PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
            }
        });
    if (!opened.ok())
        return 3;
    server = opened.value().get();
    return server->run().ok() ? 0 : 4;
}
