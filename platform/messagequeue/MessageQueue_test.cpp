// The two real ends, joined by a named socket.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <thread>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/messagequeue/KxMessageQueue.h"
#include "platform/messagequeue/MessageQueueServer.h"

namespace vnt {
namespace {

std::span<const std::byte> bytesOf(const std::string& text)
{
    return std::as_bytes(std::span(text.data(), text.size()));
}

using Handler = std::function<Ref<Object>(const std::string&, const Ref<Array>&, const Ref<ServiceChannel>&)>;

class HandlerService final : public MessageQueueService {
public:
    HandlerService(Ref<ServiceChannel> channel, const Handler& handler)
        : _channel(std::move(channel)),
          _handler(handler)
    {
    }
    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override
    {
        return _handler(selector, arguments, _channel);
    }

private:
    const Ref<ServiceChannel> _channel;
    const Handler& _handler; // outlives the connection
};

/// A client connected to a server whose services all call `handler`.
struct Joined {
    explicit Joined(Handler newHandler) : handler(std::move(newHandler))
    {
        const std::string path = temporaryDirectory() + "/queue-" + sys::randomHex(4);
        listener = sys::listenUnix(path, SOCK_STREAM, 1).take();
        server = std::thread([this] {
            MessageQueueServerConnection connection(sys::acceptOne(listener.get(), std::chrono::seconds(30)).take(),
                                                    [this](const std::string&, const Ref<ServiceChannel>& channel) {
                                                        return std::make_unique<HandlerService>(channel, handler);
                                                    });
            EXPECT_TRUE(connection.run().ok());
        });
        client = KxMessageQueue::initWithAddress(*Url::withString("unix:" + path));
    }
    ~Joined()
    {
        client = nullptr;
        server.join();
    }
    [[nodiscard]] Ref<KxServiceQueue> open(const char* name) const
    {
        return client->createServiceForIdentifier(*String::create(name));
    }

    const Handler handler;
    UniqueFd listener;
    std::thread server;
    Ref<KxMessageQueue> client;
};

TEST(MessageQueue, EightThreadsCallWhileDataAndCallbacksFlow)
{
    std::atomic<uint64_t> sent = 0;
    std::atomic<bool> stop = false;
    std::thread collector;
    Joined joined([&](const std::string& selector, const Ref<Array>& arguments,
                      const Ref<ServiceChannel>& channel) -> Ref<Object> {
        if (selector == "start") {
            collector = std::thread([&, channel] {
                const std::string batch(3000, 'c');
                while (!stop)
                    sent += channel->trySendData(bytesOf(batch)).ok() ? 1 : 0;
                sent += channel->sendData(bytesOf("last")).ok() ? 1 : 0;
                (void)channel->sendCallback("serviceActionCompleted:", *Array::create());
            });
            return nullptr;
        }
        if (selector == "stop") {
            stop = true;
            collector.join();
            return Number::withUint64(sent);
        }
        return arguments->at(0);
    });
    const auto tap = joined.open("tap");
    const auto echo = joined.open("echo");
    tap->dispatch("start");
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 8; ++caller)
        callers.emplace_back([&, caller] {
            for (int i = 0; i < 200; ++i) {
                const int64_t value = caller * 1000 + i;
                const auto answer = echo->dispatch("echo:", {Number::withInt64(value)});
                EXPECT_EQ(as<Number>(answer.get())->int64Value(), value);
            }
        });
    for (std::thread& caller : callers)
        caller.join();
    const uint64_t promised = as<Number>(tap->dispatch("stop").get())->uint64Value();
    EXPECT_EQ(tap->messageCount(), promised); // all of it, at once
    EXPECT_GT(promised, 1U);
    EXPECT_EQ(tap->droppedCount(), 0U);
}

/// A server that sends does not read, and a client that sends must let somebody read: else both wait for ever.
TEST(MessageQueue, LargeRequestsAndFloodsOfDataPassEachOther)
{
    constexpr uint64_t kMessages = 8;
    const std::string message(1 << 20, 'm');
    Joined joined([&](const std::string& selector, const Ref<Array>& arguments,
                      const Ref<ServiceChannel>& channel) -> Ref<Object> {
        if (selector == "size:")
            return Number::withUint64(as<String>(arguments->at(0))->str().size());
        for (uint64_t i = 0; i < kMessages; ++i)
            EXPECT_TRUE(channel->sendData(bytesOf(message)).ok());
        return nullptr;
    });
    const auto service = joined.open("service");
    const Ref<Object> large = String::create(std::string(5 << 20, 'l'));
    for (uint64_t round = 1; round <= 4; ++round) {
        service->returnToTarget(nullptr, nullptr, "flood");
        const auto size = service->dispatch("size:", {large});
        EXPECT_EQ(as<Number>(size.get())->uint64Value(), uint64_t{5} << 20);
        EXPECT_EQ(service->messageCount(), round * kMessages);
    }
}

} // namespace
} // namespace vnt
