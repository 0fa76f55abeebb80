#include "services/quillon/KdebugTapService.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "collectors/kernel/EventTable.h"
#include "records/TraceRecordReader.h"
#include "records/TraceRecords.h"
#include "services/quillon/CapabilitiesService.h"
#include "services/quillon/CoreKdebugEventsService.h"

namespace vnt {
namespace {

/// Keeps what the tap sends; calls come from its thread.
class TraceChannel final : public ServiceChannel {
public:
    Status trySendData(std::span<const std::byte> message) override
    {
        MutexLock lock(_lock);
        _messages.emplace_back(message.begin(), message.end());
        return {};
    }
    Status sendData(std::span<const std::byte> message) override { return trySendData(message); }
    Status sendCallback(std::string_view, const Array&) override { return {}; }
    Status sendException(const Exception& exception) override
    {
        MutexLock lock(_lock);
        _problems += exception.reason();
        return {};
    }
    std::vector<std::vector<std::byte>> takeMessages()
    {
        MutexLock lock(_lock);
        return std::exchange(_messages, {});
    }
    std::string problems()
    {
        MutexLock lock(_lock);
        return _problems;
    }

private:
    Mutex _lock;
    std::vector<std::vector<std::byte>> _messages;
    std::string _problems;
};

/// As the client library makes it.
Ref<KxZeltoTapConfig> configuration(int32_t pid, uint32_t windowSec)
{
    auto trigger = KxZeltoTriggerConfig::create();
    trigger->setKind(3);
    if (pid == -3)
        trigger->setIsAllProcesses(true);
    else
        trigger->includePID(pid);
    auto codes = MutableArray::create();
    for (const EventClass& eventClass : eventClasses())
        codes->append(Number::withInt(static_cast<int32_t>(eventClass.code)));
    trigger->setKdebugFilter(KxZeltoTrigger::createEventsFilterSetHelper(*codes));
    trigger->addAction(3);
    trigger->addAction(1, {1, 1});
    trigger->addAction(2);
    trigger->addAction(0);
    auto tap = KxZeltoTapConfig::create();
    tap->setBufferMode(windowSec == 0 ? 1 : 2);
    if (windowSec != 0) {
        tap->setWindowSize({windowSec, 1'000'000'000});
        trigger->setCallstackFrameDepth(50);
    }
    tap->addTriggerConfig(trigger);
    return tap;
}

TEST(KdebugTap, ConfigurationsBecomeTracerOptions)
{
    auto options = kernelTracerOptions(*configuration(42, 0));
    ASSERT_TRUE(options.ok()) << options.status().message();
    EXPECT_EQ(options.value().pid, 42);
    EXPECT_TRUE(options.value().userStacks && options.value().kernelStacks);
    EXPECT_EQ(options.value().maxFrames, 127u);
    EXPECT_EQ(options.value().windowNs, 0u);
    ASSERT_EQ(options.value().classes.size(), 16u);
    EXPECT_EQ(options.value().classes[0], 0x0140fffeu);
    EXPECT_EQ(options.value().classes[14], 0xff00fffeu) << "also beyond 31 bits";
    // As it travels, too.
    const auto decoded = KxZeltoTapConfig::decoded(*configuration(-3, 10)->encoded());
    ASSERT_TRUE(decoded.ok()) << decoded.status().message();
    options = kernelTracerOptions(*decoded.value());
    ASSERT_TRUE(options.ok()) << options.status().message();
    EXPECT_TRUE(options.value().allProcesses);
    EXPECT_EQ(options.value().windowNs, 10'000'000'000u);
    EXPECT_EQ(options.value().maxFrames, 50u);
    EXPECT_EQ(options.value().classes[14], 0xff00fffeu);
    // Another kind, no filter, nothing at all.
    auto sampler = KxZeltoTriggerConfig::create();
    sampler->setKind(1);
    sampler->includePID(42);
    auto wrong = KxZeltoTapConfig::create();
    wrong->addTriggerConfig(sampler);
    EXPECT_FALSE(kernelTracerOptions(*wrong).ok());
    sampler->setKind(3);
    EXPECT_FALSE(kernelTracerOptions(*wrong).ok());
    EXPECT_FALSE(kernelTracerOptions(*KxZeltoTapConfig::create()).ok());
}

TEST(KdebugTap, WhatCannotBeStartedIsToldAndAnsweredNormally)
{
    auto channel = makeRef<TraceChannel>();
    SignatureStore signatures;
    AccessGuard guard(::geteuid(), {}); // the processes here are our own
    KdebugTapService service(channel, signatures, guard, /*traceFiles=*/-1);
    const auto call = [&](std::string_view selector, std::vector<Ref<Object>> arguments) {
        return service.onCall(std::string(selector), Array::create(std::move(arguments)));
    };
    EXPECT_THROW(call(kTapStart, {}), Exception);
    EXPECT_THROW(call("explode", {}), Exception);
    EXPECT_FALSE(call(kTapStart, {configuration(4194303, 0)->encoded()}));
    const std::string problems = channel->problems();
    EXPECT_TRUE(problems.starts_with("Kernel Tracer: ")) << problems;
    EXPECT_TRUE(problems.find("there is no process 4194303") != std::string::npos
                || problems.find("run: ") != std::string::npos)
        << problems;
    for (const auto selector : {kTapPause, kTapUnpause, kTapStop})
        EXPECT_FALSE(call(selector, {})) << "nothing runs, nothing fails";
}

TEST(KdebugTap, ATapRecordsUntilItIsStopped)
{
    auto channel = makeRef<TraceChannel>();
    SignatureStore signatures;
    AccessGuard guard(::geteuid(), {}); // the processes here are our own
    KdebugTapService service(channel, signatures, guard, /*traceFiles=*/-1);
    (void)service.onCall(std::string(kTapStart), Array::create({configuration(::getpid(), 0)->encoded()}));
    if (!channel->problems().empty())
        GTEST_SKIP() << "CANNOT TRACE HERE (needs root): " << channel->problems();
    for (int i = 0; i < 100; ++i)
        (void)::getppid();
    (void)service.onCall(std::string(kTapStop), Array::create());
    struct Counter : trace::TraceRecordHandler {
        void onEvent(const trace::EventRecord&) override { ++events; }
        size_t events = 0;
    } counter;
    trace::TraceRecordReader reader;
    for (const auto& message : channel->takeMessages())
        EXPECT_TRUE(reader.read(message, counter).ok());
    EXPECT_GE(counter.events, 200u);
    (void)::getppid();
    EXPECT_TRUE(channel->takeMessages().empty()) << "everything was sent before the stop was answered";
    EXPECT_EQ(channel->problems(), "");
    service.onClose();
}

TEST(CoreKdebugEvents, AreTheKernelsOwnDescriptions)
{
    CoreKdebugEventsService service(/*traceFiles=*/-1);
    EXPECT_THROW(service.onCall("getEvents", Array::create()), Exception);
    Ref<Object> answer;
    try {
        answer = service.onCall("getEventsAsXML", Array::create());
    } catch (const Exception& exception) {
        EXPECT_NE(exception.reason().find("run: "), std::string::npos) << exception.reason();
        GTEST_SKIP() << "CANNOT READ THE KERNEL'S EVENTS HERE (needs root): " << exception.reason();
    }
    ASSERT_TRUE(as<String>(answer));
    EXPECT_TRUE(as<String>(answer)->str().starts_with("<?xml"));
    EXPECT_NE(as<String>(answer)->str().find("sched_switch"), std::string::npos);
    const auto version = CapabilitiesService().onCall(
        "versionForCapability:", Array::create({String::create("quillon.server.services.kdebugtap")}));
    EXPECT_EQ(as<Number>(version)->intValue(), trace::kVersion);
}

} // namespace
} // namespace vnt
