#include "platform/messagequeue/MessageQueueServer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "platform/base/sys.h"
#include "platform/messagequeue/FrameReader.h"
#include "platform/messagequeue/MessageStream.h"
#include "platform/messagequeue/ServerOutput.h"
#include "platform/messagequeue/sockets.h"

namespace vnt {
namespace {

using queue::FrameHeader;
using queue::FrameKind;

std::span<const std::byte> bytesOf(const std::string& text)
{
    return std::as_bytes(std::span(text.data(), text.size()));
}

/// A service whose calls a test supplies.
class TestService final : public MessageQueueService {
public:
    using Handler = std::function<Ref<Object>(const std::string&, const Ref<Array>&, ServiceChannel&)>;
    TestService(Ref<ServiceChannel> channel, Handler handler, std::atomic<int>& closed)
        : _channel(std::move(channel)),
          _handler(std::move(handler)),
          _closed(closed)
    {
    }
    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override
    {
        return _handler(selector, arguments, *_channel);
    }
    void onClose() override { ++_closed; }

private:
    const Ref<ServiceChannel> _channel;
    const Handler _handler;
    std::atomic<int>& _closed;
};

/// A connection served on a thread, with a bare socket at the client's end. Every service but "lacking" exists.
struct Served {
    explicit Served(TestService::Handler handler = {}) : Served(sys::socketPair(SOCK_STREAM).take(), std::move(handler))
    {
    }
    Served(std::pair<UniqueFd, UniqueFd> ends, TestService::Handler handler)
        : client(std::move(ends.first)),
          server(std::move(ends.second),
                 [this, handler](const std::string& name, const Ref<ServiceChannel>& newChannel) {
                     channel = newChannel;
                     return name == "lacking" ? nullptr : std::make_unique<TestService>(newChannel, handler, closed);
                 }),
          thread([this] { status = server.run(); })
    {
    }
    ~Served()
    {
        client.reset();
        (void)end(); // tests that care ask themselves
    }
    Status end()
    {
        if (thread.joinable())
            thread.join();
        return status;
    }

    void send(FrameHeader header, const std::string& payload = {}) const
    {
        header.payloadBytes = static_cast<uint32_t>(payload.size());
        write(std::string(reinterpret_cast<const char*>(&header), sizeof header) + payload);
    }
    void write(const std::string& bytes) const
    {
        const iovec part = queue::part(bytesOf(bytes));
        std::vector<iovec> parts{part};
        (void)queue::sendFully(client.get(), parts); // a server that has closed already is what some tests want
    }
    void hello() const { send({.kind = FrameKind::kHello, .id = 1}, std::string(queue::kHelloMagic, 8)); }
    void open(uint32_t channelNumber, const std::string& name) const
    {
        send({.kind = FrameKind::kOpen, .channel = channelNumber}, name);
    }
    void call(uint32_t channelNumber, uint32_t id, const std::string& selector) const
    {
        const auto payload = queue::encodeCall(selector, {}).take();
        send({.kind = id == 0 ? FrameKind::kOneWayCall : FrameKind::kCall, .channel = channelNumber, .id = id},
             {reinterpret_cast<const char*>(payload.data()), payload.size()});
    }

    UniqueFd client;
    std::atomic<int> closed = 0;
    Ref<ServiceChannel> channel; // of the service opened last; read after an answer
    Status status;
    MessageQueueServerConnection server;
    std::thread thread; // keep last: uses all the rest
};

std::string frameText(const queue::Frame& frame)
{
    if (frame.header.kind == FrameKind::kException) {
        const auto exception = queue::decodeException(frame.payload).value();
        return exception.name() + ": " + exception.reason();
    }
    if (frame.header.kind == FrameKind::kReply) {
        const auto answer = queue::decodeAnswer(frame.payload).value();
        return answer ? answer->description() : "null";
    }
    return {reinterpret_cast<const char*>(frame.payload.data()), frame.payload.size()};
}

TEST(MessageQueueServer, EveryBreachOfTheProtocolEndsTheConnectionWithItsReason)
{
    const struct {
        const char* what;
        std::function<void(const Served&)> breach;
        Code code;
    } rows[] = {
        {"clean end", [](const Served& s) { s.hello(); }, Code::kOk},
        {"nothing at all", [](const Served&) {}, Code::kOk},
        {"hard stop", [](const Served& s) { s.hello(), s.send({.kind = FrameKind::kHardStop}); }, Code::kOk},
        {"no hello", [](const Served& s) { s.open(1, "a"); }, Code::kInvalid},
        {"wrong hello", [](const Served& s) { s.send({.kind = FrameKind::kHello, .id = 1}, "VNTQUEUX"); },
         Code::kInvalid},
        {"later version",
         [](const Served& s) { s.send({.kind = FrameKind::kHello, .id = 2}, std::string(queue::kHelloMagic, 8)); },
         Code::kUnsupported},
        {"second hello", [](const Served& s) { s.hello(), s.hello(); }, Code::kInvalid},
        {"opened twice", [](const Served& s) { s.hello(), s.open(1, "a"), s.open(1, "b"); }, Code::kInvalid},
        {"call of nothing", [](const Served& s) { s.hello(), s.call(1, 1, "x"); }, Code::kInvalid},
        {"close of nothing", [](const Served& s) { s.hello(), s.send({.kind = FrameKind::kClose, .channel = 3}); },
         Code::kInvalid},
        {"garbage", [](const Served& s) { s.hello(), s.write(std::string(100, 'g')); }, Code::kInvalid},
        {"call without sense",
         [](const Served& s) {
             s.hello(), s.open(1, "a"), s.send({.kind = FrameKind::kCall, .channel = 1, .id = 1}, "\x09\x01xx");
         },
         Code::kInvalid},
        {"oversized",
         [](const Served& s) {
             const FrameHeader header{0xfffffff0, FrameKind::kCall, 0, 1, 1};
             s.hello(), s.write({reinterpret_cast<const char*>(&header), sizeof header});
         },
         Code::kTooLarge},
        {"torn frame", [](const Served& s) { s.hello(), s.write("torn"); }, Code::kPeerGone},
    };
    for (const auto& row : rows) {
        Served served;
        row.breach(served);
        ::shutdown(served.client.get(), SHUT_WR);
        const Status status = served.end();
        EXPECT_EQ(status.code(), row.code) << row.what << ": " << status.message();
        queue::FrameReader reader(served.client.get(), queue::Direction::kToClient);
        while (reader.next().ok()) { }
        EXPECT_TRUE(reader.atFrameEnd()) << row.what; // closed, and no frame torn
    }
}

TEST(MessageQueueServer, RequestsAreAnsweredInOrderAndExceptionsTravel)
{
    Served served([](const std::string& selector, const Ref<Array>&, ServiceChannel& channel) -> Ref<Object> {
        if (selector == "raise")
            throw Exception("Raised", "on purpose");
        if (selector == "throw")
            throw std::runtime_error("out of luck");
        if (selector == "set")
            return Set::create(); // cannot travel
        if (selector == "push") {
            EXPECT_TRUE(channel.sendData(bytesOf("data")).ok());
            EXPECT_TRUE(channel.sendException(Exception("Pushed", "outside")).ok());
        }
        return selector == "null" ? nullptr : Ref<Object>(String::create("answer to " + selector));
    });
    served.hello();
    served.open(1, "service");
    served.open(2, "lacking");
    const std::vector<std::string> selectors{"first", "raise", "throw", "set", "null", "push"};
    for (uint32_t id = 1; id <= selectors.size(); ++id)
        served.call(1, id, selectors[id - 1]);
    served.call(1, 0, "raise");
    served.call(1, 0, "one-way");
    served.call(2, 90, "x");
    const struct {
        uint32_t id;
        const char* text;
    } expected[] = {
        {1, "answer to first"},
        {2, "Raised: on purpose"},
        {3, "KxInternalErrorException: internal error: out of luck"},
        {4, "KxInternalErrorException: internal error"},
        {5, "null"},
        {0, "data"},
        {0, "Pushed: outside"},
        {6, "answer to push"},
        {0, "Raised: on purpose"},
        {90, "KxServiceUnavailableException: the server has no service \"lacking\""},
    };
    queue::FrameReader reader(served.client.get(), queue::Direction::kToClient);
    for (const auto& row : expected) {
        const auto frame = reader.next();
        ASSERT_TRUE(frame.ok()) << row.text;
        EXPECT_EQ(frame.value().header.id, row.id) << row.text;
        EXPECT_EQ(frameText(frame.value()).compare(0, std::string(row.text).size(), row.text), 0)
            << frameText(frame.value());
    }
}

TEST(MessageQueueServer, ClosedServicesSendNothingMore)
{
    Served served([](const std::string&, const Ref<Array>&, ServiceChannel&) { return nullptr; });
    served.hello();
    served.open(7, "service");
    served.call(7, 1, "x");
    queue::FrameReader reader(served.client.get(), queue::Direction::kToClient);
    ASSERT_TRUE(reader.next().ok());
    const Ref<ServiceChannel> channel = served.channel;
    EXPECT_EQ(channel->sendData(std::vector<std::byte>(kMaxDataMessageBytes + 1)).code(), Code::kTooLarge);
    served.send({.kind = FrameKind::kClose, .channel = 7});
    served.open(8, "other");
    served.call(8, 2, "x");
    ASSERT_TRUE(reader.next().ok());
    EXPECT_EQ(served.closed, 1);
    EXPECT_EQ(channel->sendData({}).code(), Code::kPeerGone);
    EXPECT_EQ(channel->sendException(Exception("a", "b")).code(), Code::kPeerGone);
    served.client.reset();
    EXPECT_TRUE(served.end().ok());
    EXPECT_EQ(served.closed, 2);
    EXPECT_EQ(served.channel->trySendData({}).code(), Code::kPeerGone);
}

TEST(MessageQueueServer, AClientThatDoesNotReadLosesBatchesAndNothingThatWasTaken)
{
    const std::string batch(65536, 'b');
    std::atomic<uint64_t> taken = 0;
    std::atomic<bool> full = false;
    Served served([&](const std::string& selector, const Ref<Array>&, ServiceChannel& channel) -> Ref<Object> {
        if (selector == "flood") {
            Status status;
            while ((status = channel.trySendData(bytesOf(batch))).ok())
                ++taken;
            EXPECT_EQ(status.code(), Code::kTimedOut);
            full = true;
        } else {
            EXPECT_TRUE(channel.sendData(bytesOf("the end")).ok()); // waits for room
        }
        return nullptr;
    });
    served.hello();
    served.open(1, "service");
    served.call(1, 1, "flood");
    served.call(1, 2, "stop");
    while (!full)
        std::this_thread::yield();
    queue::FrameReader reader(served.client.get(), queue::Direction::kToClient);
    uint64_t received = 0;
    for (bool stopped = false; !stopped;) {
        const auto frame = reader.next();
        ASSERT_TRUE(frame.ok());
        if (frame.value().header.kind == FrameKind::kData && frame.value().payload.size() == batch.size())
            ++received;
        else if (frame.value().header.kind == FrameKind::kData)
            EXPECT_EQ(frameText(frame.value()), "the end");
        else
            stopped = frame.value().header.id == 2;
    }
    EXPECT_EQ(received, taken);
    EXPECT_GE(taken * batch.size(), queue::ServerOutput::kBufferBytes - batch.size());
    EXPECT_LE(taken * batch.size(), queue::ServerOutput::kBufferBytes + (2U << 20)); // and what the socket held
}

TEST(MessageQueueServer, TheClientsEndIsNoticedInALongRequestAndByWaitingSenders)
{
    const std::string batch(1 << 20, 'b');
    std::atomic<bool> noticed = false;
    std::atomic<bool> entered = false;
    Served* self = nullptr;
    Served served([&](const std::string& selector, const Ref<Array>&, ServiceChannel& channel) -> Ref<Object> {
        entered = true;
        if (selector == "long") {
            while (!self->server.clientGone())
                std::this_thread::yield();
        } else {
            while (channel.sendData(bytesOf(batch)).ok()) { }
        }
        noticed = true;
        return nullptr;
    });
    self = &served;
    served.hello();
    served.open(1, "service");
    served.call(1, 1, "long");
    while (!entered)
        std::this_thread::yield();
    served.client.reset();
    EXPECT_TRUE(served.end().ok());
    EXPECT_TRUE(noticed);

    noticed = entered = false;
    Served second([&](const std::string&, const Ref<Array>&, ServiceChannel& channel) -> Ref<Object> {
        entered = true;
        while (channel.sendData(bytesOf(batch)).ok()) { }
        noticed = true;
        return nullptr;
    });
    second.hello();
    second.open(1, "service");
    second.call(1, 1, "fill");
    while (!entered)
        std::this_thread::yield();
    second.client.reset();
    EXPECT_TRUE(second.end().ok());
    EXPECT_TRUE(noticed);
}

TEST(MessageQueueServer, StopEndsAConnectionWhoseClientIsSilent)
{
    std::atomic<bool> entered = false;
    Served served([&](const std::string&, const Ref<Array>&, ServiceChannel& channel) -> Ref<Object> {
        entered = true;
        const std::string batch(1 << 20, 'b');
        while (channel.sendData(bytesOf(batch)).ok()) { }
        return nullptr;
    });
    served.hello();
    served.open(1, "service");
    served.call(1, 1, "fill");
    while (!entered)
        std::this_thread::yield();
    served.server.stop();
    EXPECT_TRUE(served.end().ok());
    Served idle;
    idle.hello();
    idle.server.stop();
    EXPECT_TRUE(idle.end().ok());
}

} // namespace
} // namespace vnt
