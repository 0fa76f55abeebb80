#include "platform/messagequeue/KxMessageQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/messagequeue/Delivery.h"
#include "platform/messagequeue/MessageStream.h"
#include "tests/support/ScriptedServer.h"

namespace vnt {
namespace {

using test::Answer;
using test::Push;
using test::ScriptedServer;
using Lines = std::vector<std::string>;

/// Writes down what it is told, and does what a test wants done then.
class Listener final : public RefCounted, public KxServiceQueueDelegate {
public:
    static Ref<Listener> create() { return makeRef<Listener>(); }

    WeakPtr<KxServiceQueueDelegate> weak() { return _anchor.pointer<KxServiceQueueDelegate>(this); }

    void serviceQueueErrorReading(KxServiceQueue& queue, const Ref<String>& description) override
    {
        note(queue, "error reading: " + description->str());
    }
    void serviceQueuePeerExceptionRaised(KxServiceQueue& queue, const Exception& exception) override
    {
        note(queue, "exception: " + exception.name() + ": " + exception.reason());
    }
    bool performCallback(const std::string& selector, const Ref<Array>& arguments) override
    {
        if (selector == "unknown:")
            return false;
        if (onCallback)
            onCallback(selector);
        MutexLock lock(_lock);
        _lines.push_back(selector + (arguments->count() > 0 ? arguments->at(0)->description() : ""));
        _changed.notifyAll();
        return true;
    }

    bool waitForLines(size_t count)
    {
        MutexLock lock(_lock);
        for (const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30); _lines.size() < count;) {
            if (!_changed.waitUntil(lock, until) && _lines.size() < count)
                return false;
        }
        return true;
    }
    Lines lines()
    {
        MutexLock lock(_lock);
        return _lines;
    }

    std::function<void(const std::string&)> onCallback; // set before anything can arrive

private:
    VNT_MAKE_REF_FRIEND;
    Listener() : _anchor(this) { }
    void note(KxServiceQueue& queue, const std::string& text)
    {
        MutexLock lock(_lock);
        _lines.push_back(queue.identifier()->str() + " " + text);
        _changed.notifyAll();
    }

    Mutex _lock;
    Condition _changed;
    Lines _lines;
    WeakAnchor _anchor;
};

Ref<KxMessageQueue> connectTo(const ScriptedServer& server)
{
    return KxMessageQueue::initWithAddress(*Url::withString(server.address()));
}

Ref<KxServiceQueue> opened(const Ref<KxMessageQueue>& queue, const char* name, const Ref<Listener>& listener = nullptr)
{
    auto service = queue->createServiceForIdentifier(*String::create(name));
    if (listener)
        service->setDelegate(listener->weak());
    return service;
}

/// The reason that `body` raises, or "" when it raises nothing.
template <typename Body> std::string reasonOf(Body body)
{
    try {
        body();
        return {};
    } catch (const Exception& exception) {
        return exception.reason();
    }
}

/// Waits for a state that nothing announces.
template <typename Reached> bool eventually(Reached reached)
{
    for (const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30); !reached();) {
        if (std::chrono::steady_clock::now() > until)
            return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(KxMessageQueue, CallsTravelAndAnswersComeBack)
{
    ScriptedServer server;
    server.on("add:to:", Answer::object(Number::withInt64(7)));
    server.on("b", "name", Answer::object(String::create("of b")));
    {
        const auto queue = connectTo(server);
        const auto a = opened(queue, "a");
        const auto b = opened(queue, "b");
        EXPECT_EQ(as<Number>(a->dispatch("add:to:", {Number::withInt(3), nullptr}).get())->int64Value(), 7);
        EXPECT_EQ(b->dispatch("name", TimeoutBehavior::kGiveUpAfterDefault)->description(), "of b");
        EXPECT_EQ(a->dispatch("name"), nullptr);
        a->returnToTarget(nullptr, nullptr, "start", {String::create("x")});
        b->disconnect();
        EXPECT_NE(reasonOf([&] { b->dispatch("name"); }), "");
        queue->returnToTarget(nullptr, nullptr, "hardStop");
    }
    ASSERT_TRUE(server.waitFor("end"));
    EXPECT_EQ(server.transcript(),
              (Lines{"open a", "open b", "call a add:to: (3, <null>)", "call b name ()", "call a name ()",
                     "send a start (x)", "close b", "hard stop", "end"}));
}

TEST(KxMessageQueue, AddressesThatLeadNowhereAreRefusedWithTheReason)
{
    ScriptedServer server;
    const std::string gone = server.address();
    server.stopListening();
    const struct {
        std::string address;
        const char* reason;
    } rows[] = {
        {"http://localhost/server", "not a \"unix:\" address"},
        {"unix:relative/path", "not a \"unix:\" address"},
        {"unix:/nonexistent/socket", "No such file or directory"},
        {"unix:/" + std::string(200, 'p'), "a socket path of 201 bytes"},
        {gone, "Connection refused"},
    };
    for (const auto& row : rows) {
        const std::string reason =
            reasonOf([&] { (void)KxMessageQueue::initWithAddress(*Url::withString(row.address)); });
        EXPECT_NE(reason.find(row.reason), std::string::npos) << row.address << ": " << reason;
        EXPECT_NE(reason.find(row.address), std::string::npos) << reason;
    }
}

TEST(KxMessageQueue, ABrokenOrLyingPeerEndsEveryCallAndIsReportedOnce)
{
    const struct {
        Answer::Kind kind;
        const char* reason;
    } rows[] = {
        {Answer::Kind::kClose, "the connection was closed"},
        {Answer::Kind::kGarbage, "frame of kind 23130"},
        {Answer::Kind::kOversizedLength, "reply frame of 4294967280 bytes"},
        {Answer::Kind::kTornReply, "the connection ended within a message"},
        {Answer::Kind::kWrongId, "an answer to no call"},
        {Answer::Kind::kMalformedObject, "an answer that is no property list"},
    };
    for (const auto& row : rows) {
        ScriptedServer server;
        server.on("silent", Answer::of(Answer::Kind::kNone));
        server.on("fault", Answer::of(row.kind));
        const auto listener = Listener::create();
        const auto queue = connectTo(server);
        const auto waiting = opened(queue, "waiting", listener);
        const auto service = opened(queue, "service", listener);
        std::string waitingReason;
        std::thread waiter([&] { waitingReason = reasonOf([&] { waiting->dispatch("silent"); }); });
        EXPECT_TRUE(server.waitFor("call waiting silent ()"));
        EXPECT_NE(reasonOf([&] { service->dispatch("fault"); }), "") << row.reason;
        waiter.join();
        EXPECT_NE(waitingReason.find(row.reason), std::string::npos) << row.reason << ": " << waitingReason;
        ASSERT_TRUE(listener->waitForLines(2)) << row.reason;

        EXPECT_NE(reasonOf([&] { service->dispatch("later"); }).find(row.reason), std::string::npos);
        EXPECT_NE(reasonOf([&] { (void)opened(queue, "new"); }).find(row.reason), std::string::npos);
        EXPECT_EQ(reasonOf([&] { service->returnToTarget(nullptr, nullptr, "one-way"); }), "");
        Lines lines = listener->lines();
        std::sort(lines.begin(), lines.end());
        ASSERT_EQ(lines.size(), 2U) << row.reason;
        EXPECT_EQ(lines[0].find("service error reading: "), 0U);
        EXPECT_EQ(lines[1].find("waiting error reading: "), 0U);
        EXPECT_NE(lines[1].find(row.reason), std::string::npos) << lines[1];
    }
}

TEST(KxMessageQueue, ExceptionsRaiseAtTheCallOrReachTheDelegate)
{
    ScriptedServer server;
    server.on("fail", Answer::exception("PeerError", "it is so"));
    const auto listener = Listener::create();
    const auto queue = connectTo(server);
    const auto service = opened(queue, "service", listener);
    EXPECT_EQ(reasonOf([&] { service->dispatch("fail"); }), "it is so");
    service->returnToTarget(nullptr, nullptr, "fail");
    ASSERT_TRUE(listener->waitForLines(1));
    ASSERT_TRUE(server.push(Push::exception("Late", "outside any call", "service")));
    ASSERT_TRUE(listener->waitForLines(2));
    service->reportException(Exception("Own", "by the library"));
    ASSERT_TRUE(listener->waitForLines(3));
    EXPECT_EQ(listener->lines(),
              (Lines{"service exception: PeerError: it is so", "service exception: Late: outside any call",
                     "service exception: Own: by the library"}));
}

TEST(KxMessageQueue, ArgumentsThatCannotTravelRaiseAndHarmNothing)
{
    ScriptedServer server;
    const auto queue = connectTo(server);
    const auto service = opened(queue, "service");
    const Ref<Object> noValue = Set::create({String::create("x")});
    EXPECT_NE(reasonOf([&] { service->dispatch("call", {noValue}); }), "");
    EXPECT_NE(reasonOf([&] { service->dispatch(""); }), "");
    EXPECT_NE(reasonOf([&] { (void)opened(queue, ""); }), "");
    EXPECT_NE(reasonOf([&] { (void)opened(queue, std::string(257, 'n').c_str()); }), "");
    EXPECT_EQ(reasonOf([&] { service->dispatch("call"); }), "");
}

TEST(KxMessageQueue, DataSentBeforeAReplyIsInTheSpoolWhenTheCallReturns)
{
    ScriptedServer server;
    const auto queue = connectTo(server);
    const auto service = opened(queue, "tap");
    std::vector<std::string> expected;
    for (size_t round = 0; round < 100; ++round) {
        Answer answer = Answer::object(nullptr);
        for (size_t i = 0; i < round % 7; ++i) {
            expected.push_back(std::to_string(round) + std::string(i * 9000, 'd'));
            answer = std::move(answer).before(Push::data(expected.back()));
        }
        server.once("stopTap", std::move(answer));
        service->dispatch("stopTap");
        ASSERT_EQ(service->messageCount(), expected.size());
    }
    const std::string path = temporaryDirectory() + "/order-" + sys::randomHex(4);
    EXPECT_EQ(service->archiveWithFile(*Url::withFilePath(path)), expected.size());
    std::vector<std::string> got;
    auto reader = MessageStreamReader::open(path).take();
    reader.forEach([&](std::span<const std::byte> message) {
        got.emplace_back(reinterpret_cast<const char*>(message.data()), message.size());
        return true;
    });
    EXPECT_TRUE(got == expected);
}

TEST(KxMessageQueue, CallbacksMayCallBackOnTheSameConnection)
{
    ScriptedServer server;
    server.on("stopObservingPid:", Answer::object(String::create("stopped")));
    const auto listener = Listener::create();
    const auto queue = connectTo(server);
    Ref<KxServiceQueue> service;
    std::string answer;
    listener->onCallback = [&](const std::string& selector) {
        if (selector == "pidDiedCallback:")
            answer = service->dispatch("stopObservingPid:", {Number::withInt(4)})->description();
    };
    service = opened(queue, "processcontrol", listener);
    ASSERT_TRUE(server.push(Push::callback("unknown:", {}, "processcontrol")));
    ASSERT_TRUE(server.push(Push::callback("pidDiedCallback:", {Number::withInt(4)}, "processcontrol")));
    ASSERT_TRUE(server.push(Push::callback("serviceActionCompleted:", {}, "processcontrol")));
    ASSERT_TRUE(listener->waitForLines(2));
    EXPECT_EQ(answer, "stopped");
    EXPECT_EQ(listener->lines(), (Lines{"pidDiedCallback:4", "serviceActionCompleted:"}));
    EXPECT_EQ(service->ignoredCallbackCount(), 1U);
}

TEST(KxMessageQueue, NothingWaitsForARunningCallback)
{
    ScriptedServer server;
    server.on("silent", Answer::of(Answer::Kind::kNone));
    std::atomic<bool> entered = false;
    std::atomic<bool> mayLeave = false;
    auto listener = Listener::create();
    listener->onCallback = [&](const std::string&) {
        entered = true;
        ASSERT_TRUE(eventually([&] { return mayLeave.load(); }));
    };
    auto queue = connectTo(server);
    auto service = opened(queue, "service", listener);
    std::string reason;
    std::thread waiter([&] { reason = reasonOf([&] { service->dispatch("silent"); }); });
    ASSERT_TRUE(server.waitFor("call service silent ()"));
    ASSERT_TRUE(server.push(Push::callback("first:", {}, "service")));
    ASSERT_TRUE(server.push(Push::callback("second:", {}, "service")));
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    service->disconnect(); // returns although the delegate is at work
    waiter.join();
    EXPECT_NE(reason.find("the service was closed"), std::string::npos) << reason;
    queue = nullptr;
    mayLeave = true;
    ASSERT_TRUE(listener->waitForLines(1));
    service = nullptr;
    EXPECT_EQ(listener->lines(), Lines{"first:"}); // nothing after the disconnect
    ASSERT_TRUE(eventually([&] { return listener->refCountForTesting() == 1; }));
}

TEST(KxMessageQueue, TheLastReferencesMayGoInACallback)
{
    ScriptedServer server;
    auto queue = connectTo(server);
    auto listener = Listener::create();
    std::atomic<bool> done = false;
    Ref<KxServiceQueue> service;
    listener->onCallback = [&](const std::string&) {
        service = nullptr;
        queue = nullptr;
        listener = nullptr; // what runs keeps its object
        done = true;
    };
    service = opened(queue, "service", listener);
    ASSERT_TRUE(server.push(Push::callback("die:", {}, "service")));
    ASSERT_TRUE(eventually([&] { return done.load(); }));
    ASSERT_TRUE(server.waitFor("end"));
    EXPECT_EQ(server.transcript(), (Lines{"open service", "hard stop", "end"}));
}

TEST(KxMessageQueue, ADelegateThatWasClearedOrDiedHearsNothing)
{
    ScriptedServer server;
    const auto queue = connectTo(server);
    const auto cleared = Listener::create();
    auto mortal = Listener::create();
    const auto first = opened(queue, "first", cleared);
    const auto second = opened(queue, "second", mortal);
    first->setDelegate({});
    mortal = nullptr;
    ASSERT_TRUE(server.push(Push::callback("hello:", {}, "first")));
    ASSERT_TRUE(server.push(Push::callback("hello:", {}, "second")));
    second->dispatch("sync"); // the reader has seen both
    EXPECT_EQ(first->droppedCallbackCount(), 1U);
    EXPECT_TRUE(cleared->lines().empty());
}

TEST(KxMessageQueue, ADelegateSetAfterTheEndIsToldOfIt)
{
    ScriptedServer server;
    server.on("die", Answer::of(Answer::Kind::kClose));
    const auto queue = connectTo(server);
    const auto service = opened(queue, "service");
    EXPECT_NE(reasonOf([&] { service->dispatch("die"); }), "");
    const auto listener = Listener::create();
    service->setDelegate(listener->weak());
    ASSERT_TRUE(listener->waitForLines(1));
    EXPECT_EQ(listener->lines(),
              Lines{"service error reading: the connection to the server is gone: the connection was closed"});
}

TEST(KxMessageQueue, AHardStopOfOurOwnIsNoError)
{
    ScriptedServer server;
    server.on("silent", Answer::of(Answer::Kind::kNone));
    const auto listener = Listener::create();
    auto queue = connectTo(server);
    const auto service = opened(queue, "service", listener);
    std::string reason;
    std::thread waiter([&] { reason = reasonOf([&] { service->dispatch("silent"); }); });
    ASSERT_TRUE(server.waitFor("call service silent ()"));
    queue->returnToTarget(nullptr, nullptr, "hardStop");
    waiter.join();
    EXPECT_NE(reason.find("it was stopped"), std::string::npos) << reason;
    queue = nullptr; // the service outlives it
    EXPECT_NE(reasonOf([&] { service->dispatch("later"); }), "");
    EXPECT_TRUE(listener->lines().empty());
}

TEST(KxMessageQueue, AnswersAndMessagesOfAClosedServiceAreDroppedQuietly)
{
    ScriptedServer server;
    server.on("slow", Answer::object(String::create("late")).held().before(Push::data("late data")));
    const auto queue = connectTo(server);
    const auto closing = opened(queue, "closing");
    const auto staying = opened(queue, "staying");
    std::thread waiter([&] { EXPECT_NE(reasonOf([&] { closing->dispatch("slow"); }), ""); });
    ASSERT_TRUE(server.waitFor("call closing slow ()"));
    closing->disconnect();
    waiter.join();
    server.release("slow");
    EXPECT_EQ(reasonOf([&] { staying->dispatch("works"); }), "");
    EXPECT_EQ(closing->messageCount(), 0U);
}

TEST(KxMessageQueue, AFloodIsBoundedAndCannotPushOutOtherEvents)
{
    ScriptedServer server;
    server.on("die", Answer::of(Answer::Kind::kClose));
    std::atomic<bool> mayLeave = false;
    const auto listener = Listener::create();
    listener->onCallback = [&](const std::string&) { ASSERT_TRUE(eventually([&] { return mayLeave.load(); })); };
    const auto queue = connectTo(server);
    const auto service = opened(queue, "service", listener);
    constexpr size_t kExtra = 50;
    Answer flood = Answer::object(nullptr);
    for (size_t i = 0; i < Delivery::kMaxWaitingOfAKind + kExtra; ++i)
        flood = std::move(flood).before(Push::callback("flood:"));
    flood = std::move(flood).before(Push::callback("pidDiedCallback:", {Number::withInt(9)}));
    server.once("flood", std::move(flood));
    service->dispatch("flood");
    EXPECT_NE(reasonOf([&] { service->dispatch("die"); }), "");
    mayLeave = true;
    // One of the flood may have been taken out by the delegate before the rest came.
    const auto dropped = static_cast<size_t>(service->droppedCallbackCount());
    EXPECT_GE(dropped, kExtra - 1);
    EXPECT_LE(dropped, kExtra);
    ASSERT_TRUE(listener->waitForLines(Delivery::kMaxWaitingOfAKind + kExtra - dropped + 2));
    const Lines lines = listener->lines();
    EXPECT_EQ(lines[lines.size() - 2], "pidDiedCallback:9");
    EXPECT_EQ(lines.back(), "service error reading: the connection to the server is gone: the connection was closed");
}

} // namespace
} // namespace vnt
