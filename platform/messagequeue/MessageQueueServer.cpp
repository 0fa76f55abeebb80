#include "platform/messagequeue/MessageQueueServer.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <map>

#include "platform/messagequeue/FrameReader.h"
#include "platform/messagequeue/MessageStream.h"
#include "platform/messagequeue/ServerOutput.h"

namespace vnt {

using queue::Frame;
using queue::FrameHeader;
using queue::FrameKind;

namespace {

constexpr const char* kInternalError = "KxInternalErrorException";
constexpr const char* kNoSuchService = "KxServiceUnavailableException";

class Channel final : public ServiceChannel {
public:
    Status trySendData(std::span<const std::byte> message) override
    {
        RETURN_IF_ERROR(checkData(message));
        return _output->trySend({.kind = FrameKind::kData, .channel = _number}, message);
    }

    Status sendData(std::span<const std::byte> message) override
    {
        RETURN_IF_ERROR(checkData(message));
        return _output->send({.kind = FrameKind::kData, .channel = _number}, message);
    }

    Status sendCallback(std::string_view selector, const Array& arguments) override
    {
        ASSIGN_OR_RETURN(const auto payload, queue::encodeCall(selector, arguments.items()));
        RETURN_IF_ERROR(checkOpen());
        return _output->send({.kind = FrameKind::kCallback, .channel = _number}, payload);
    }

    Status sendException(const Exception& exception) override { return raise(exception, /*callId=*/0); }

    /// The answer to a call.
    Status reply(std::span<const std::byte> payload, uint32_t callId)
    {
        return _output->send({.kind = FrameKind::kReply, .channel = _number, .id = callId}, payload);
    }

    Status raise(const Exception& exception, uint32_t callId)
    {
        RETURN_IF_ERROR(checkOpen());
        return _output->send({.kind = FrameKind::kException, .channel = _number, .id = callId},
                             queue::encodeException(exception));
    }

    void close() { _open.store(false, std::memory_order_relaxed); }

private:
    VNT_MAKE_REF_FRIEND;
    Channel(Ref<queue::ServerOutput> output, uint32_t number) : _output(std::move(output)), _number(number) { }

    [[nodiscard]] Status checkOpen() const
    {
        // relaxed: a message that overtakes the close is dropped by the client.
        return _open.load(std::memory_order_relaxed) ? Status() : Status(Code::kPeerGone, "the service was closed");
    }
    [[nodiscard]] Status checkData(std::span<const std::byte> message) const
    {
        if (message.size() > kMaxDataMessageBytes)
            return Status(Code::kTooLarge, "data message of " + std::to_string(message.size()) + " bytes");
        return checkOpen();
    }

    const Ref<queue::ServerOutput> _output;
    const uint32_t _number;
    std::atomic<bool> _open{true};
};

/// What `body` raises or throws, as the exception that travels; none when it returns.
template <typename Body> std::optional<Exception> raisedBy(Body body)
{
    try {
        body();
        return std::nullopt;
    } catch (const Exception& exception) {
        return exception;
    } catch (const std::exception& exception) {
        return Exception(kInternalError, std::string("internal error: ") + exception.what());
    }
}

} // namespace

struct MessageQueueServerConnection::Impl {
    struct Open {
        std::string name;
        Ref<Channel> channel;
        std::unique_ptr<MessageQueueService> service; // null: the server lacks it
    };

    ServiceFactory factory;
    Ref<queue::ServerOutput> output;
    std::map<uint32_t, Open> services;
    std::atomic<bool> stopped{false};

    Status serve();
    Status handle(const Frame& frame, bool& ended);
    Status open(const Frame& frame);
    Status call(const Frame& frame);
    Status answer(Open& target, const queue::DecodedCall& call, uint32_t id);
    Status close(uint32_t channel);
    static void end(Open& service);
};

MessageQueueServerConnection::MessageQueueServerConnection(UniqueFd socket, ServiceFactory factory)
    : _impl(std::make_unique<Impl>())
{
    _impl->factory = std::move(factory);
    _impl->output = queue::ServerOutput::create(std::move(socket));
}

MessageQueueServerConnection::~MessageQueueServerConnection() { _impl->output->close(); }

Status MessageQueueServerConnection::run()
{
    Status status = _impl->serve();
    for (auto& [number, service] : _impl->services)
        Impl::end(service);
    _impl->services.clear();
    _impl->output->close();
    return status;
}

void MessageQueueServerConnection::stop()
{
    _impl->stopped.store(true, std::memory_order_release); // pairs with the acquire in serve()
    _impl->output->shutdown();
}

bool MessageQueueServerConnection::clientGone() const { return _impl->output->peerGone(); }

Status MessageQueueServerConnection::Impl::serve()
{
    queue::FrameReader reader(output->socket(), queue::Direction::kToServer);
    bool greeted = false;
    bool ended = false;
    while (!ended) {
        const auto frame = reader.next();
        if (stopped.load(std::memory_order_acquire))
            return {};
        if (!frame.ok())
            return reader.atFrameEnd() && frame.code() == Code::kPeerGone ? Status() : frame.status();
        const FrameHeader& header = frame.value().header;
        if (greeted == (header.kind == FrameKind::kHello))
            return Status(Code::kInvalid, greeted ? "a second hello" : "the client did not say hello");
        if (greeted) {
            RETURN_IF_ERROR(handle(frame.value(), ended));
            continue;
        }
        if (std::memcmp(frame.value().payload.data(), queue::kHelloMagic, sizeof queue::kHelloMagic) != 0)
            return Status(Code::kInvalid, "the client said something else than hello");
        if (header.id != queue::kProtocolVersion)
            return Status(Code::kUnsupported,
                          "the client speaks version " + std::to_string(header.id) + " of the protocol, this server "
                              + std::to_string(queue::kProtocolVersion));
        greeted = true;
    }
    return {};
}

Status MessageQueueServerConnection::Impl::handle(const Frame& frame, bool& ended)
{
    switch (frame.header.kind) {
    case FrameKind::kOpen:
        return open(frame);
    case FrameKind::kCall:
    case FrameKind::kOneWayCall:
        return call(frame);
    case FrameKind::kClose:
        return close(frame.header.channel);
    case FrameKind::kHardStop:
        ended = true;
        return {};
    default:
        VNT_UNREACHABLE(); // FrameReader lets no other kind through in this direction
    }
}

Status MessageQueueServerConnection::Impl::open(const Frame& frame)
{
    if (services.size() >= queue::kMaxOpenServices)
        return Status(Code::kTooLarge, "more than " + std::to_string(queue::kMaxOpenServices) + " open services");
    const uint32_t number = frame.header.channel;
    const auto [entry, added] = services.try_emplace(number);
    if (!added)
        return Status(Code::kInvalid, "service " + std::to_string(number) + " opened twice");
    Open& opened = entry->second;
    opened.name.assign(reinterpret_cast<const char*>(frame.payload.data()), frame.payload.size());
    opened.channel = makeRef<Channel>(output, number);
    const auto raised = raisedBy([&] {
        opened.service = factory(opened.name, opened.channel);
        if (opened.service)
            opened.service->onOpen();
    });
    // A dead client is noticed by the next read.
    if (raised)
        (void)opened.channel->sendException(*raised);
    return {};
}

Status MessageQueueServerConnection::Impl::call(const Frame& frame)
{
    const auto target = services.find(frame.header.channel);
    if (target == services.end())
        return Status(Code::kInvalid,
                      "a call of service " + std::to_string(frame.header.channel) + ", which is not open");
    ASSIGN_OR_RETURN(const queue::DecodedCall decoded, queue::decodeCall(frame.payload));
    return answer(target->second, decoded, frame.header.id);
}

Status MessageQueueServerConnection::Impl::answer(Open& target, const queue::DecodedCall& call, uint32_t id)
{
    const Ref<Channel> channel = target.channel;
    std::vector<std::byte> encoded;
    const auto raised = raisedBy([&] {
        if (!target.service)
            throw Exception(kNoSuchService, "the server has no service \"" + target.name + "\"");
        const Ref<Object> answer = target.service->onCall(call.selector, call.arguments);
        auto result = queue::encodeAnswer(answer.get());
        if (!result.ok())
            throw Exception(kInternalError, "internal error: " + result.status().message());
        encoded = result.take();
    });
    Status sent;
    if (raised)
        sent = channel->raise(*raised, id);
    else if (id != 0)
        sent = channel->reply(encoded, id);
    return sent.code() == Code::kPeerGone ? Status() : sent; // the next read tells how the client went
}

Status MessageQueueServerConnection::Impl::close(uint32_t channel)
{
    const auto entry = services.find(channel);
    if (entry == services.end())
        return Status(Code::kInvalid, "service " + std::to_string(channel) + " closed and not open");
    end(entry->second);
    services.erase(entry);
    return {};
}

void MessageQueueServerConnection::Impl::end(Open& service)
{
    service.channel->close();
    if (service.service)
        (void)raisedBy([&] { service.service->onClose(); }); // nobody is left to hear of it
}

} // namespace vnt
