#include "platform/zelto/KxZelto.h"

#include <gtest/gtest.h>

#include "platform/foundation/PropertyList.h"
#include "tests/support/ScriptedServer.h"

namespace vnt {
namespace {

Ref<KxZeltoTapConfig> tracerConfig()
{
    auto trigger = KxZeltoTriggerConfig::create();
    trigger->setKind(3);
    trigger->includePID(123);
    trigger->setSampleInterval({40, 1000});
    trigger->includeThreadState(0x400000);
    trigger->includeThreadState(1);
    trigger->setKdebugFilter(KxZeltoTrigger::createEventsFilterSetHelper(
        *Array::create({Number::withInt(0x0140fffe), Number::withInt(static_cast<int32_t>(0xff00fffe))})));
    trigger->addAction(3);
    trigger->addAction(1, {1, 0});
    trigger->setCallstackFrameDepth(50);
    auto config = KxZeltoTapConfig::create();
    config->setBufferMode(2);
    config->setWindowSize({10, 1000000000});
    config->addTriggerConfig(trigger);
    return config;
}

/// What arrives at the server: once through the bytes.
Ref<Dictionary> travelled(const Dictionary& dictionary)
{
    const auto bytes = writePropertyList(dictionary, PropertyListFormat::kBinary);
    return as<Dictionary>(readPropertyList(bytes.value()).value());
}

TEST(KxZelto, ConfigurationsArriveAsTheyWereMade)
{
    const auto decoded = KxZeltoTapConfig::decoded(*travelled(*tracerConfig()->encoded()));
    ASSERT_TRUE(decoded.ok()) << decoded.status().message();
    const KxZeltoTapConfig& config = *decoded.value();
    EXPECT_EQ(config.bufferMode(), 2);
    EXPECT_EQ(config.windowSize().count, 10U);
    EXPECT_EQ(config.windowSize().scale, 1000000000U);
    ASSERT_EQ(config.triggers().size(), 1U);
    const KxZeltoTriggerConfig& trigger = *config.triggers()[0];
    EXPECT_EQ(trigger.kind(), 3);
    EXPECT_FALSE(trigger.isAllProcesses());
    EXPECT_EQ(trigger.pids(), std::vector<int32_t>{123});
    EXPECT_EQ(trigger.sampleInterval().packed(), uint64_t{1000} << 32 | 40);
    EXPECT_EQ(trigger.threadStates(), (std::vector<uint32_t>{0x400000, 1}));
    ASSERT_EQ(trigger.actions().size(), 2U);
    EXPECT_EQ(trigger.actions()[0].code, 3);
    EXPECT_TRUE(trigger.actions()[0].arguments.empty());
    EXPECT_EQ(trigger.actions()[1].arguments, (std::vector<int32_t>{1, 0}));
    ASSERT_EQ(trigger.kdebugFilter()->count(), 2U);
    EXPECT_EQ(as<Number>(trigger.kdebugFilter()->at(1).get())->int64Value(), 0xff00fffe);
    EXPECT_EQ(trigger.frameDepth(), 50);
}

TEST(KxZelto, WhatDoesNotFitIsRefusedByName)
{
    const auto many = [](size_t count, const Ref<Object>& item) {
        return Array::create(std::vector<Ref<Object>>(count, item));
    };
    const Ref<Object> one = Number::withInt(1);
    const struct {
        const char* key;
        Ref<Object> value; // null: the entry is missing
        const char* reason;
    } rows[] = {
        {"kind", nullptr, "kind is no integer"},
        {"kind", String::create("3"), "kind is no integer"},
        {"kind", Number::withBool(true), "kind is no integer"},
        {"kind", Number::withDouble(1), "kind is no integer"},
        {"kind", Number::withInt(-1), "kind is out of range"},
        {"kind", Number::withInt(256), "kind is out of range"},
        {"kind", Number::withUint64(UINT64_MAX), "kind is out of range"},
        {"allProcesses", Number::withInt(1), "allProcesses is no boolean"},
        {"allProcesses", Number::withBool(true), "pids must name processes"},
        {"pids", Array::create(), "pids must name processes"},
        {"pids", Number::withInt(5), "pids is no array"},
        {"pids", Array::create({Number::withInt(-5)}), "pids is out of range"},
        {"pids", Array::create({Number::withInt64(int64_t{1} << 32)}), "pids is out of range"},
        {"pids", many(4097, one), "pids has too many elements"},
        {"sampleInterval", String::create(""), "sampleInterval is no time"},
        {"threadStates", many(65, one), "threadStates has too many elements"},
        {"actions", many(65, Array::create({one})), "actions has too many elements"},
        {"actions", Array::create({one}), "actions holds something that is no action"},
        {"actions", Array::create({Array::create()}), "actions holds something that is no action"},
        {"actions", Array::create({many(18, one)}), "actions holds something that is no action"},
        {"actions", Array::create({Array::create({Number::withInt(999)})}), "actions holds an unknown code"},
        {"kdebugFilter", many(4097, one), "kdebugFilter has too many elements"},
        {"kdebugFilter", Array::create({Number::withInt(-1)}), "kdebugFilter is out of range"},
        {"callstackFrameDepth", Number::withInt(1025), "callstackFrameDepth is out of range"},
    };
    for (const auto& row : rows) {
        const auto good = tracerConfig()->encoded();
        auto trigger = MutableDictionary::copyOf(*as<Dictionary>(good->get<Array>("triggers")->at(0)));
        if (row.value)
            trigger->set(row.key, row.value);
        else
            trigger->remove(row.key);
        auto config = MutableDictionary::copyOf(*good);
        config->set("triggers", Array::create({trigger}));
        const auto decoded = KxZeltoTapConfig::decoded(*config);
        EXPECT_EQ(decoded.code(), Code::kInvalid) << row.key << ": " << row.reason;
        EXPECT_NE(decoded.status().message().find(row.reason), std::string::npos) << decoded.status().message();
    }
    auto config = MutableDictionary::copyOf(*tracerConfig()->encoded());
    config->set("triggers", Array::create());
    EXPECT_EQ(KxZeltoTapConfig::decoded(*config).code(), Code::kInvalid);
    config->set("triggers", Array::create({one}));
    EXPECT_EQ(KxZeltoTapConfig::decoded(*config).code(), Code::kInvalid);
    EXPECT_EQ(KxZeltoTapConfig::decoded(*Dictionary::create()).code(), Code::kInvalid);
}

class Listener final : public RefCounted, public KxServiceQueueDelegate {
public:
    static Ref<Listener> create() { return makeRef<Listener>(); }
    void serviceQueuePeerExceptionRaised(KxServiceQueue&, const Exception& exception) override
    {
        MutexLock lock(_lock);
        _reason = exception.reason();
        _changed.notifyAll();
    }
    std::string waitForReason()
    {
        MutexLock lock(_lock);
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (_reason.empty() && _changed.waitUntil(lock, until)) { }
        return _reason;
    }
    WeakPtr<KxServiceQueueDelegate> weak() { return _anchor.pointer<KxServiceQueueDelegate>(this); }

private:
    VNT_MAKE_REF_FRIEND;
    Listener() : _anchor(this) { }
    Mutex _lock;
    Condition _changed;
    std::string _reason;
    WeakAnchor _anchor;
};

TEST(KxZelto, TapsAreDrivenSynchronouslyAndTellTheDelegateWhatFailed)
{
    test::ScriptedServer server;
    server.on("pauseTap", test::Answer::object(nullptr).before(test::Push::data("first")));
    server.on("stopTap", test::Answer::exception("TapError", "the tap is gone"));
    const auto connection = KxMessageQueue::initWithAddress(*Url::withString(server.address()));
    const auto queue = connection->createServiceForIdentifier(*String::create("tap"));
    const auto listener = Listener::create();
    queue->setDelegate(listener->weak());
    const auto config = tracerConfig();
    KxZeltoRemoteTap::startOnServiceQueue(queue, *config);
    KxZeltoRemoteTap::pauseOnServiceQueue(queue);
    EXPECT_EQ(queue->messageCount(), 1U);
    KxZeltoRemoteTap::unpauseOnServiceQueue(queue);
    EXPECT_EQ(queue->messageCount(), 1U);
    KxZeltoRemoteTap::stopOnServiceQueue(queue);
    EXPECT_EQ(listener->waitForReason(), "the tap is gone");
    KxZeltoRemoteTap::startOnServiceQueue(queue, *config); // begins an empty stream
    EXPECT_EQ(queue->messageCount(), 0U);
    const std::string arguments = "(" + travelled(*config->encoded())->description() + ")";
    EXPECT_EQ(server.transcript(),
              (std::vector<std::string>{"open tap", "call tap startTapWithConfiguration: " + arguments,
                                        "call tap pauseTap ()", "call tap unpauseTap ()", "call tap stopTap ()",
                                        "call tap startTapWithConfiguration: " + arguments}));
}

} // namespace
} // namespace vnt
