#pragma once

#include <memory>
#include <span>
#include <string>
#include <thread>
#include <unordered_map>

#include "platform/base/Mutex.h"
#include "platform/messagequeue/FrameReader.h"
#include "platform/messagequeue/KxMessageQueue.h"
#include "platform/messagequeue/PendingCalls.h"
#include "platform/messagequeue/ReadingTurn.h"
#include "platform/messagequeue/sockets.h"

namespace vnt {

/// The client end of one connection: sends frames from any thread, and reads them on a thread of its own, or on that of
/// a caller who waits for an answer anyway. Whoever reads completes waiting calls, appends data to spools and queues
/// events for delivery, and runs no foreign code. Created by KxMessageQueue, kept by it, by its services and by the
/// reader thread.
class MessageQueueTransport final : public RefCounted {
public:
    using ServiceState = KxServiceQueue::State;
    using Arguments = std::span<const Ref<Object>>;

    /// Names of the exceptions that this end raises itself.
    static constexpr const char* kConnectionLost = "KxConnectionLostException";
    static constexpr const char* kTimedOut = "KxTimeoutException";
    static constexpr const char* kInvalidArgument = "KxInvalidArgumentException";
    static constexpr const char* kMalformedAnswer = "KxMalformedAnswerException";
    static constexpr const char* kDataDropped = "KxDataDroppedException";

    /// Takes over a connected stream socket, says hello and starts the reader.
    /// Errors: no descriptors left.
    [[nodiscard]] static Result<Ref<MessageQueueTransport>> start(UniqueFd socket);

    /// Raises Exception when the name is empty or too long, or the connection is gone.
    [[nodiscard]] std::shared_ptr<ServiceState> open(const String& identifier);
    /// Sends the close; waiting calls of the service raise. Later ones too. Idempotent.
    void close(ServiceState& service);

    Ref<Object> call(ServiceState& service, std::string_view selector, Arguments arguments, TimeoutBehavior behavior);
    /// Raises Exception only for arguments that cannot be encoded.
    void callOneWay(ServiceState& service, std::string_view selector, Arguments arguments);

    /// Ends the connection: waiting calls raise, and delegates hear nothing of it, since the end was our own wish.
    void hardStop();
    /// hardStop(), then waits for the reader thread, which never runs foreign code. Once.
    void stop();

private:
    VNT_MAKE_REF_FRIEND;
    explicit MessageQueueTransport(UniqueFd socket);
    ~MessageQueueTransport() override = default;

    enum class Report { kNo, kToDelegates };
    /// Ends the connection once; safe from any thread and under none of our locks.
    void end(const std::string& reason, Report report);

    struct SendOptions {
        queue::Deadline deadline;
        queue::TurnHold* turn = nullptr; // taken before the first byte goes, if nobody reads
    };
    Status send(ServiceState* service, queue::FrameHeader header, std::span<const std::byte> payload,
                const SendOptions& options);
    Status sendLocked(queue::FrameHeader header, std::span<const std::byte> payload, const SendOptions& options)
        VNT_REQUIRES(_sendLock);
    Ref<Object> answerOf(queue::PendingCall& call);

    // Reading, by whoever has the turn.
    struct DataRun;
    void readFrames(); // the reader thread
    void readUntilAnswered(const queue::PendingCall& call, queue::Deadline deadline); // a calling thread
    Status receiveAndHandle(queue::Blocking blocking);
    Status handleReceived();
    void endFor(const Status& status);
    Status handle(const queue::Frame& frame);
    Status handleAnswer(const queue::Frame& frame);
    Status handleException(const queue::Frame& frame);
    Status handleCallback(const queue::Frame& frame);
    Status appendData(const queue::Frame& frame, DataRun& run);
    void flush(DataRun& run);
    Result<std::shared_ptr<ServiceState>> find(uint32_t channel);
    void closeSocket();

    UniqueFd _socket; // closed by the reader thread, under both locks below
    queue::ReadingTurn _turn;
    queue::FrameReader _frames; // used by whoever has the turn

    // Lock order: _sendLock before _socketLock and before _channelLock; the others alone.
    Mutex _sendLock; // held while a frame is sent, so that frames do not mix
    Mutex _socketLock; // the socket is not closed while it is shut down
    queue::PendingCalls _calls;
    Mutex _channelLock;
    std::unordered_map<uint32_t, std::shared_ptr<ServiceState>> _channels VNT_GUARDED_BY(_channelLock);
    uint32_t _lastChannel VNT_GUARDED_BY(_channelLock) = 0;
    bool _ended VNT_GUARDED_BY(_channelLock) = false;
    std::string _endReason VNT_GUARDED_BY(_channelLock);
    std::thread _reader;
};

} // namespace vnt
