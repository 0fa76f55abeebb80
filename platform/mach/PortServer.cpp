#include "platform/mach/PortServer.h"

#include <fcntl.h>

#include <cstring>

#include "platform/mach/PortTable.h"

namespace vnt {

Result<std::unique_ptr<PortServer>> PortServer::open(Options options, Handler handler, std::function<bool()> mayExit)
{
    std::unique_ptr<PortServer> server(new PortServer);
    server->_handler = std::move(handler);
    PacketServer::Handlers handlers;
    handlers.onPacket = [self = server.get()](PacketServer::ConnectionId id, const sys::PeerCredentials& sender,
                                              Packet& packet) { self->onPacket(id, sender, packet); };
    handlers.mayExit = std::move(mayExit);
    ASSIGN_OR_RETURN(server->_packets, PacketServer::open(std::move(options), std::move(handlers)));
    return server;
}

PortServer::~PortServer() = default;

void PortServer::onPacket(PacketServer::ConnectionId connection, const sys::PeerCredentials& sender, Packet& packet)
{
    auto message = ReceivedMessage::fromPacket(packet, MACH_PORT_NULL, MACH_MSG_TYPE_MOVE_SEND);
    if (!message.ok()) {
        // Out of memory or descriptors is our trouble: this request fails, the client may try again.
        if (message.code() != Code::kSystem)
            _packets->close(connection);
        return;
    }
    _handler(message.value(), sender);
}

uint64_t PortServer::watchPortDeath(mach_port_name_t port, std::function<void()> onDeath)
{
    const Ref<Port> right = PortTable::shared().sendingRight(port);
    DeathWatch death;
    death.right = UniqueFd(right ? ::fcntl(right->sendEnd(), F_DUPFD_CLOEXEC, 0) : -1);
    if (!death.right)
        return 0;
    const uint64_t id = _nextWatch++;
    death.watch = _packets->watch(death.right.get(), POLLRDHUP, [this, id, onDeath = std::move(onDeath)](short) {
        unwatchPortDeath(id);
        onDeath();
    });
    _deathWatches.emplace(id, std::move(death));
    return id;
}

void PortServer::unwatchPortDeath(uint64_t watch)
{
    const auto found = _deathWatches.find(watch);
    if (found == _deathWatches.end())
        return;
    _packets->unwatch(found->second.watch);
    _deathWatches.erase(found);
}

mach_msg_return_t PortServer::sendReply(mach_port_name_t replyPort, mach_msg_header_t* message, size_t sizeBytes,
                                        bool complex)
{
    const bool once = mach_port_mod_refs(mach_task_self(), replyPort, MACH_PORT_RIGHT_SEND_ONCE, 0) == KERN_SUCCESS;
    message->msgh_bits = MACH_MSGH_BITS(uint32_t{once ? MACH_MSG_TYPE_MOVE_SEND_ONCE : MACH_MSG_TYPE_MOVE_SEND}, 0u)
        | (complex ? MACH_MSGH_BITS_COMPLEX : 0u);
    message->msgh_remote_port = replyPort;
    message->msgh_local_port = MACH_PORT_NULL;
    const mach_msg_return_t status = sendMessage(message, sizeBytes, std::chrono::steady_clock::now());
    if (status != KERN_SUCCESS)
        (void)mach_port_deallocate(mach_task_self(), replyPort);
    return status;
}

void PortServer::replyStatus(mach_port_name_t replyPort, int32_t requestId, int32_t returnCode)
{
    StatusReply reply{};
    reply.header.msgh_id = requestId + kReplyIdDistance;
    reply.ndr = NDR_record;
    reply.returnCode = returnCode;
    (void)sendReply(replyPort, &reply.header, sizeof reply); // a client that is gone needs no answer
}

void PortServer::replyAddress(mach_port_name_t replyPort, int32_t requestId, std::string_view address)
{
    VNT_CHECK(address.size() < kMaxRoutineTextBytes);
    auto reply = std::make_unique<CreateServerReply>();
    reply->header.msgh_id = requestId + kReplyIdDistance;
    reply->ndr = NDR_record;
    reply->addressCount = static_cast<uint32_t>(address.size()) + 1;
    std::memcpy(reply->address, address.data(), address.size());
    const size_t size = kAddressReplyFixedBytes + roundedToWord(reply->addressCount);
    (void)sendReply(replyPort, &reply->header, size); // a client that is gone needs no answer
}

void PortServer::replyStatus(ReceivedMessage& message, int32_t returnCode)
{
    replyStatus(message.takeReplyPort(), message.header().msgh_id, returnCode);
}

void PortServer::replyAddress(ReceivedMessage& message, std::string_view address)
{
    replyAddress(message.takeReplyPort(), message.header().msgh_id, address);
}

} // namespace vnt
