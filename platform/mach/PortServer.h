#pragma once

#include "platform/mach/MessageTransfer.h"
#include "platform/mach/PacketServer.h"
#include "platform/mach/RoutineLayouts.h"

namespace vnt {

/// A named service that is spoken to by port messages: what bootstrap_look_up finds. A client's send right is its own
/// connection, so the sender of every message is known for certain.
///
///     int main(int argc, char** argv)
///     {
///         auto arguments = vnt::ServiceArguments::parse(argc, argv);
///         if (!arguments.ok())
///             return 1;
///         vnt::PortServer::Options options;
///         options.arguments = arguments.take();
///         options.name = "quillon.server.mig";
///         auto server = vnt::PortServer::open(std::move(options), [](vnt::ReceivedMessage& message,
///                                                                     const vnt::sys::PeerCredentials& sender) {
///             const auto form = message.memory(0);
///             if (message.header().msgh_id != vnt::kCreateServerId || form.size() != 32)
///                 return vnt::PortServer::replyStatus(message, KERN_INVALID_ARGUMENT);
///             ...
///             vnt::PortServer::replyAddress(message, "unix:/run/user/1000/…");
///         });
///         return server.ok() && server.value()->run().ok() ? 0 : 1;
///     }
///
/// An answer may also come later: take the reply right with message.takeReplyPort() and pass it to sendReply() when
/// there is something to say. A request that is neither answered nor taken tells its client that the server died
/// (message id 71), and so does the end of this process. One thread runs everything, see PacketServer.
class PortServer {
public:
    using Options = PacketServer::Options;
    /// The message and what came in it go when the handler returns, except what it takes.
    using Handler = std::function<void(ReceivedMessage& message, const sys::PeerCredentials& sender)>;

    /// `mayExit` may be empty; false keeps the server although nobody is connected.
    static Result<std::unique_ptr<PortServer>> open(Options options, Handler handler,
                                                    std::function<bool()> mayExit = {});
    ~PortServer();

    Status run() { return _packets->run(); }
    /// For stop(), post(), watch() and the rest.
    PacketServer& packets() { return *_packets; }

    /// Calls `onDeath` once, on the server's thread, when the receive right behind a send right is gone. The caller
    /// keeps its reference to `port`. 0 when the name is no such right or descriptors ran out.
    uint64_t watchPortDeath(mach_port_name_t port, std::function<void()> onDeath);
    void unwatchPortDeath(uint64_t watch);

    /// Sends `message` (its remote port and bits are set here) to a reply right, which is used up or given back
    /// whatever comes of it. Never waits: a reply right has room for one message, and one that has none is not ours.
    static mach_msg_return_t sendReply(mach_port_name_t replyPort, mach_msg_header_t* message, size_t sizeBytes,
                                       bool complex = false);
    /// The simple reply to `message`: its id plus 100, the return code. Takes the reply right.
    static void replyStatus(ReceivedMessage& message, int32_t returnCode);
    /// The create_server reply with an address of at most 31,999 bytes, zero return code.
    static void replyAddress(ReceivedMessage& message, std::string_view address);
    /// The same for a reply right taken earlier and the id of its request.
    static void replyStatus(mach_port_name_t replyPort, int32_t requestId, int32_t returnCode);
    static void replyAddress(mach_port_name_t replyPort, int32_t requestId, std::string_view address);

private:
    struct DeathWatch {
        UniqueFd right;
        PacketServer::WatchId watch = 0;
    };
    PortServer() = default;
    void onPacket(PacketServer::ConnectionId connection, const sys::PeerCredentials& sender, Packet& packet);

    Handler _handler;
    std::map<uint64_t, DeathWatch> _deathWatches;
    uint64_t _nextWatch = 1;
    std::unique_ptr<PacketServer> _packets; // last: its handlers use the members above
};

} // namespace vnt
