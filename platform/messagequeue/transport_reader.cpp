// How MessageQueueTransport reads: its reader thread, and what a received frame leads to.
#include <cerrno>
#include <cstring>

#include "platform/messagequeue/MessageQueueTransport.h"
#include "platform/messagequeue/MessageStream.h"
#include "platform/messagequeue/ServiceState.h"

namespace vnt {

using queue::Frame;
using queue::FrameKind;

/// Data frames of one service that lie one behind the other in the reader's buffer, made frames of its message stream
/// in place: they go to disk in one write, uncopied.
struct MessageQueueTransport::DataRun {
    std::shared_ptr<ServiceState> service;
    std::span<std::byte> frames;
    uint64_t count = 0;
};

void MessageQueueTransport::readFrames()
{
    while (_turn.waitForTurn().ok()) {
        Status status = handleReceived(); // a caller may have left a broken frame
        if (status.ok())
            status = receiveAndHandle(queue::Blocking::kNo);
        if (!status.ok()) {
            endFor(status);
            break;
        }
        _turn.release();
    }
    // The turn is kept: nobody reads any more.
    closeSocket();
}

void MessageQueueTransport::readUntilAnswered(const queue::PendingCall& call, queue::Deadline deadline)
{
    Status status = handleReceived();
    while (status.ok() && !call.completed()) {
        const auto event = _turn.waitReadable(deadline);
        if (event == queue::ReadingTurn::Event::kTimedOut)
            return;
        if (event == queue::ReadingTurn::Event::kInterrupted)
            continue;
        status = receiveAndHandle(queue::Blocking::kYes);
    }
    if (!status.ok())
        endFor(status); // the reader thread meets the same end when it gets the turn, and closes the socket
}

Status MessageQueueTransport::receiveAndHandle(queue::Blocking blocking)
{
    const auto received = _frames.receive(blocking);
    if (received.code() == Code::kTimedOut)
        return {}; // a caller has read what the reader thread was woken for
    return received.ok() ? handleReceived() : received.status();
}

/// Handles every frame in hand, without waiting.
Status MessageQueueTransport::handleReceived()
{
    DataRun run;
    Status status;
    while (status.ok() && _frames.hasNext()) {
        const auto frame = _frames.next();
        if (!frame.ok()) {
            status = frame.status();
        } else if (frame.value().header.kind == FrameKind::kData) {
            status = appendData(frame.value(), run);
        } else {
            flush(run); // what was sent before a reply is in the spool before the reply completes its call
            status = handle(frame.value());
        }
    }
    flush(run); // before the next read moves the buffer
    return status;
}

void MessageQueueTransport::endFor(const Status& status)
{
    end(status.errnoValue() == ECONNRESET ? "the connection was reset by the server" : status.message(),
        Report::kToDelegates);
}

Status MessageQueueTransport::handle(const Frame& frame)
{
    switch (frame.header.kind) {
    case FrameKind::kReply:
        return handleAnswer(frame);
    case FrameKind::kException:
        return frame.header.id != 0 ? handleAnswer(frame) : handleException(frame);
    case FrameKind::kCallback:
        return handleCallback(frame);
    default:
        VNT_UNREACHABLE(); // FrameReader lets no other kind through in this direction
    }
}

Status MessageQueueTransport::handleAnswer(const Frame& frame)
{
    bool expected = false;
    queue::PendingCall* const call = _calls.take(frame.header.id, frame.header.channel, &expected);
    if (!call)
        return expected ? Status()
                        : Status(Code::kInvalid, "an answer to no call, id " + std::to_string(frame.header.id));
    const bool reply = frame.header.kind == FrameKind::kReply;
    // The caller decodes, on its own thread.
    call->complete(reply ? queue::PendingCall::Outcome::kReply : queue::PendingCall::Outcome::kException,
                   {frame.payload.begin(), frame.payload.end()});
    return {};
}

Status MessageQueueTransport::handleException(const Frame& frame)
{
    ASSIGN_OR_RETURN(const auto service, find(frame.header.channel));
    ASSIGN_OR_RETURN(const Exception exception, queue::decodeException(frame.payload));
    if (service)
        service->delivery->postException(exception);
    return {};
}

Status MessageQueueTransport::handleCallback(const Frame& frame)
{
    ASSIGN_OR_RETURN(const auto service, find(frame.header.channel));
    ASSIGN_OR_RETURN(queue::DecodedCall call, queue::decodeCall(frame.payload));
    if (service)
        service->delivery->postCallback(std::move(call.selector), std::move(call.arguments), frame.payload.size());
    return {};
}

Status MessageQueueTransport::appendData(const Frame& frame, DataRun& run)
{
    if (!run.service || run.service->channel != frame.header.channel) {
        flush(run);
        ASSIGN_OR_RETURN(run.service, find(frame.header.channel));
        if (!run.service)
            return {}; // sent before the server knew that the service was closed
    }
    const auto header = messageStreamFrameHeader(frame.payload);
    const auto whole = frame.whole();
    static_assert(sizeof header == sizeof frame.header);
    std::memcpy(whole.data(), &header, sizeof header);
    // Frames that are in hand together lie together.
    VNT_CHECK(run.count == 0 || run.frames.data() + run.frames.size() == whole.data());
    run.frames = run.count == 0 ? whole : std::span(run.frames.data(), run.frames.size() + whole.size());
    ++run.count;
    return {};
}

void MessageQueueTransport::flush(DataRun& run)
{
    if (run.count > 0) {
        const std::string problem = run.service->spool.append(run.frames, run.count);
        if (!problem.empty())
            run.service->delivery->postException(
                Exception(kDataDropped, "recorded data of " + run.service->identifier->str() + " is lost: " + problem));
    }
    run = {};
}

/// Null for a service that was closed; kInvalid for one that never was.
Result<std::shared_ptr<KxServiceQueue::State>> MessageQueueTransport::find(uint32_t channel)
{
    MutexLock lock(_channelLock);
    const auto entry = _channels.find(channel);
    if (entry != _channels.end())
        return entry->second;
    if (channel > _lastChannel)
        return Status(Code::kInvalid, "a frame for service " + std::to_string(channel) + ", which was never opened");
    return std::shared_ptr<ServiceState>();
}

void MessageQueueTransport::closeSocket()
{
    MutexLock send(_sendLock); // a sender still at work fails at once: the socket is shut down
    MutexLock socket(_socketLock);
    _socket.reset();
}

} // namespace vnt
