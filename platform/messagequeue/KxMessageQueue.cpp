#include "platform/messagequeue/KxMessageQueue.h"

#include <unistd.h>

#include "platform/base/sys.h"
#include "platform/messagequeue/MessageQueueTransport.h"
#include "platform/messagequeue/sockets.h"

namespace vnt {
namespace {

/// The server listens before its address is handed out: only a full backlog makes this wait.
constexpr std::chrono::seconds kConnectTimeout{10};

[[noreturn]] void refuse(const Url& address, const std::string& reason)
{
    throw Exception(MessageQueueTransport::kConnectionLost, "cannot connect to " + address.str() + ": " + reason);
}

} // namespace

void KxServiceQueueDelegate::serviceQueueErrorReading(KxServiceQueue&, const Ref<String>&) { }
void KxServiceQueueDelegate::serviceQueuePeerExceptionRaised(KxServiceQueue&, const Exception&) { }
bool KxServiceQueueDelegate::performCallback(const std::string&, const Ref<Array>&) { return false; }

Ref<KxMessageQueue> KxMessageQueue::initWithAddress(const Url& address)
{
    if (address.scheme() != "unix" || !address.path().starts_with("/"))
        refuse(address, "not a \"unix:\" address with an absolute path");
    auto socket = queue::connectWithin(address.path(), kConnectTimeout);
    if (!socket.ok())
        refuse(address, socket.status().message());
    const auto peer = sys::peerCredentials(socket.value().get());
    if (!peer.ok())
        refuse(address, peer.status().message());
    if (peer.value().uid != ::geteuid() && peer.value().uid != 0)
        refuse(address, "its server belongs to user " + std::to_string(peer.value().uid));
    auto transport = MessageQueueTransport::start(socket.take());
    if (!transport.ok())
        refuse(address, transport.status().message());
    return makeRef<KxMessageQueue>(transport.take());
}

KxMessageQueue::KxMessageQueue(Ref<MessageQueueTransport> transport) : _transport(std::move(transport)) { }

KxMessageQueue::~KxMessageQueue() { _transport->stop(); }

Ref<KxServiceQueue> KxMessageQueue::createServiceForIdentifier(const String& identifier)
{
    return KxServiceQueue::create(_transport->open(identifier));
}

void KxMessageQueue::returnToTarget(std::nullptr_t, std::nullptr_t, std::string_view selector)
{
    if (selector == "hardStop")
        _transport->hardStop();
}

} // namespace vnt
