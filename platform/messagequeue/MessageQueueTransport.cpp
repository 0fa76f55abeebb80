#include "platform/messagequeue/MessageQueueTransport.h"

#include "platform/base/sys.h"
#include "platform/messagequeue/ServiceState.h"

namespace vnt {

using queue::FrameHeader;
using queue::FrameKind;

namespace {

/// TimeoutBehavior::kGiveUpAfterDefault.
constexpr std::chrono::seconds kDefaultTimeout{60};

Exception lost(const std::string& reason)
{
    return Exception(MessageQueueTransport::kConnectionLost, "the connection to the server is gone: " + reason);
}

} // namespace

MessageQueueTransport::MessageQueueTransport(UniqueFd socket)
    : _socket(std::move(socket)),
      _frames(_socket.get(), queue::Direction::kToClient)
{
}

Result<Ref<MessageQueueTransport>> MessageQueueTransport::start(UniqueFd socket)
{
    auto transport = makeRef<MessageQueueTransport>(std::move(socket));
    RETURN_IF_ERROR(transport->_turn.open(transport->_socket.get()));
    // A failure is seen by the reader at once, and by every later call.
    (void)transport->send(nullptr, {.kind = FrameKind::kHello, .id = queue::kProtocolVersion},
                          std::as_bytes(std::span(queue::kHelloMagic)), {});
    const sys::SignalBlock block;
    transport->_reader = std::thread([transport] { transport->readFrames(); });
    return transport;
}

std::shared_ptr<KxServiceQueue::State> MessageQueueTransport::open(const String& identifier)
{
    const std::string& name = identifier.str();
    if (name.empty() || name.size() > queue::kMaxServiceNameBytes)
        throw Exception(kInvalidArgument, "a service name of " + std::to_string(name.size()) + " bytes");
    std::shared_ptr<ServiceState> service;
    {
        MutexLock lock(_channelLock);
        if (_ended)
            throw lost(_endReason);
        service =
            std::make_shared<ServiceState>(Ref<MessageQueueTransport>(this), ++_lastChannel, String::create(name));
        _channels.emplace(service->channel, service);
    }
    const Status sent = send(service.get(), {.kind = FrameKind::kOpen, .channel = service->channel},
                             std::as_bytes(std::span(name.data(), name.size())), {});
    if (!sent.ok()) {
        close(*service);
        throw lost(sent.message());
    }
    return service;
}

void MessageQueueTransport::close(ServiceState& service)
{
    service.delivery->close();
    std::shared_ptr<ServiceState> held; // released after the locks
    {
        MutexLock lock(_channelLock);
        const auto entry = _channels.find(service.channel);
        if (entry != _channels.end()) {
            held = std::move(entry->second);
            _channels.erase(entry);
        }
    }
    {
        MutexLock lock(_sendLock);
        if (service.closed)
            return;
        service.closed = true;
        if (_socket.valid())
            (void)sendLocked({.kind = FrameKind::kClose, .channel = service.channel}, {}, {}); // gone already is fine
    }
    if (_calls.loseChannel(service.channel, "the service was closed"))
        _turn.interrupt(); // one of them may be reading
}

Status MessageQueueTransport::send(ServiceState* service, FrameHeader header, std::span<const std::byte> payload,
                                   const SendOptions& options)
{
    MutexLock lock(_sendLock);
    if (service && service->closed)
        return Status(Code::kCancelled, "the service was closed");
    if (!_socket.valid())
        return Status(Code::kPeerGone, "the connection was closed");
    return sendLocked(header, payload, options);
}

Status MessageQueueTransport::sendLocked(FrameHeader header, std::span<const std::byte> payload,
                                         const SendOptions& options)
{
    header.payloadBytes = static_cast<uint32_t>(payload.size());
    iovec parts[] = {queue::part(std::as_bytes(std::span(&header, 1))), queue::part(payload)};
    // Taken now, the answer does not wake the reader thread however soon it comes. Whoever has the turn must not wait
    // to send: the server may be waiting for us to read.
    if (options.turn)
        options.turn->tryTake();
    ASSIGN_OR_RETURN(const size_t sentAtOnce, queue::sendSome(_socket.get(), parts, queue::Blocking::kNo));
    const auto rest = queue::advance(parts, sentAtOnce);
    if (rest.empty())
        return {};
    if (options.turn)
        options.turn->release();
    size_t sentLater = 0;
    Status status = queue::sendFully(_socket.get(), rest, options.deadline, &sentLater);
    if (!status.ok() && sentAtOnce + sentLater > 0) {
        // A frame begun and not finished: nothing can follow it.
        MutexLock lock(_socketLock);
        queue::shutdownSocket(_socket.get());
    }
    return status;
}

Ref<Object> MessageQueueTransport::call(ServiceState& service, std::string_view selector, Arguments arguments,
                                        TimeoutBehavior behavior)
{
    const auto payload = queue::encodeCall(selector, arguments);
    if (!payload.ok())
        throw Exception(kInvalidArgument, payload.status().message());
    queue::Deadline deadline;
    if (behavior == TimeoutBehavior::kGiveUpAfterDefault)
        deadline = std::chrono::steady_clock::now() + kDefaultTimeout;

    queue::PendingCall call(service.channel);
    std::string reason;
    const uint32_t id = _calls.add(call, reason);
    if (id == 0)
        throw lost(reason);
    queue::TurnHold turn(_turn);
    const Status sent = send(&service, {.kind = FrameKind::kCall, .channel = service.channel, .id = id},
                             payload.value(), {.deadline = deadline, .turn = &turn});
    if (!sent.ok()) {
        turn.release();
        if (_calls.abandon(id, /*sent=*/false))
            throw Exception(sent.code() == Code::kTimedOut ? kTimedOut : kConnectionLost, sent.message());
    }
    if (turn)
        readUntilAnswered(call, deadline);
    turn.release();
    if (!call.wait(deadline)) {
        if (_calls.abandon(id, /*sent=*/true))
            throw Exception(kTimedOut,
                            "no answer to " + std::string(selector) + " within "
                                + std::to_string(kDefaultTimeout.count()) + " seconds");
        (void)call.wait({}); // its completion has begun
    }
    return answerOf(call);
}

Ref<Object> MessageQueueTransport::answerOf(queue::PendingCall& call)
{
    if (call.outcome == queue::PendingCall::Outcome::kLost)
        throw lost(call.reason);
    if (call.outcome == queue::PendingCall::Outcome::kException) {
        const auto exception = queue::decodeException(call.payload);
        if (exception.ok())
            throw Exception(exception.value());
        end(exception.status().message(), Report::kToDelegates);
        throw Exception(kMalformedAnswer, exception.status().message());
    }
    auto answer = queue::decodeAnswer(call.payload);
    if (answer.ok())
        return answer.take();
    end("an answer that is no property list: " + answer.status().message(), Report::kToDelegates);
    throw Exception(kMalformedAnswer, answer.status().message());
}

void MessageQueueTransport::callOneWay(ServiceState& service, std::string_view selector, Arguments arguments)
{
    const auto payload = queue::encodeCall(selector, arguments);
    if (!payload.ok())
        throw Exception(kInvalidArgument, payload.status().message());
    // A lost connection is the reader's to report.
    (void)send(&service, {.kind = FrameKind::kOneWayCall, .channel = service.channel}, payload.value(), {});
}

void MessageQueueTransport::hardStop() { end("it was stopped", Report::kNo); }

void MessageQueueTransport::stop()
{
    hardStop();
    if (_reader.get_id() == std::this_thread::get_id())
        _reader.detach();
    else
        _reader.join(); // it waits for nothing but the socket, which is shut down, and the disk
}

void MessageQueueTransport::end(const std::string& reason, Report report)
{
    std::unordered_map<uint32_t, std::shared_ptr<ServiceState>> channels; // released without the lock
    {
        MutexLock lock(_channelLock);
        if (_ended)
            return;
        _ended = true;
        _endReason = reason;
        channels.swap(_channels);
    }
    {
        MutexLock lock(_socketLock);
        if (_socket.valid()) {
            const FrameHeader header{.kind = FrameKind::kHardStop};
            const iovec bytes = queue::part(std::as_bytes(std::span(&header, 1)));
            // Not under the send lock, which a sender stuck on a silent peer may hold: its torn frame ends the
            // connection as surely as this one.
            (void)queue::sendSome(_socket.get(), {&bytes, 1}, queue::Blocking::kNo);
            queue::shutdownSocket(_socket.get());
        }
    }
    if (report == Report::kToDelegates) {
        for (const auto& [number, service] : channels)
            service->delivery->postErrorReading(lost(reason).reason());
    }
    (void)_calls.loseAll(reason);
}

} // namespace vnt
