#include <Vantora/TaskDaemon.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <future>

#include "Vantora/privileged/ScriptedDaemon_test.h"
#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"
#include "platform/foundation/bridge.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

namespace {

std::mutex logMutex;
std::string logged; // NOLINT: what the library sent to the system's log

} // namespace

/// Stands in for the C library's, so that a test sees what is logged.
extern "C" void vsyslog(int priority, const char* format, va_list arguments)
{
    char line[512];
    std::vsnprintf(line, sizeof line, format, arguments);
    const std::lock_guard lock(logMutex);
    logged += std::to_string(priority & LOG_PRIMASK) + " " + line + "\n";
}

namespace vnt {
namespace {

using namespace test;

std::string takeLog()
{
    const std::lock_guard lock(logMutex);
    return std::exchange(logged, {});
}

std::vector<std::byte> signatures()
{
    // Large, so that it comes as a file and its release can be seen.
    const auto list =
        Dictionary::create({{String::create("signatures"), String::create(std::string(kFileBytes, 's'))}});
    return writePropertyList(*list, PropertyListFormat::kBinary).take();
}

/// A client's callback and what became of it.
struct Client {
    std::atomic<int> calls{0}, releases{0};
    std::atomic<bool> good{false};
    std::thread::id thread;
    std::promise<void> done;

    pid_watcher_callback_t callback()
    {
        return {[](void* context, CFPropertyListRef list) {
                    auto* self = static_cast<Client*>(context);
                    const Dictionary* dictionary = fromC<Dictionary>(list);
                    self->good = dictionary && dictionary->get<String>("signatures");
                    self->thread = std::this_thread::get_id();
                    ++self->calls;
                },
                this,
                [](void* context) {
                    auto* self = static_cast<Client*>(context);
                    if (++self->releases == 1)
                        self->done.set_value();
                }};
    }
    void awaitRelease() { ASSERT_EQ(done.get_future().wait_for(std::chrono::seconds(60)), std::future_status::ready); }
};

/// A scripted daemon under the system's name: it refuses nothing and notes what it was asked.
class PidWatcher : public testing::Test {
protected:
    void SetUp() override
    {
        if (::geteuid() != 0)
            GTEST_SKIP() << "needs root to stand for the system's daemon";
        ::setenv("VANTORA_PROGRAM_DIR", "/nowhere", 1); // no authority: the user has refused, as it were
        _daemon = std::make_unique<ScriptedDaemon>(Namespace::kSystem);
        _data = signatures();
        _daemon->onRequest([this](ReceivedMessage& message) { answer(message); });
        takeLog();
    }
    void TearDown() override
    {
        _daemon.reset();
        // The connection that look-ups share goes when the next one finds it dead.
        mach_port_t port = MACH_PORT_NULL;
        EXPECT_EQ(bootstrap_look_up2(bootstrap_port, "quillon.tfp", &port, 0, BOOTSTRAP_PRIVILEGED_SERVER),
                  BOOTSTRAP_UNKNOWN_SERVICE);
        ::unsetenv("VANTORA_PROGRAM_DIR");
        mig_dealloc_reply_port(mig_get_reply_port());
    }

    void answer(ReceivedMessage& message)
    {
        ids.push_back(message.header().msgh_id);
        if (message.header().msgh_id == kWatchPidsId) {
            EXPECT_TRUE(message.memory(0).empty()); // no reference, and asked all the same
            return statusReply(watchStatus).send(message);
        }
        if (dataStatus != 0)
            return statusReply(dataStatus).send(message);
        ScriptedReply reply;
        reply.addMemory(_data).addNumber(static_cast<uint32_t>(_data.size()));
        reply.send(message);
    }
    mach_port_t connect()
    {
        mach_port_t handle = 0x77;
        EXPECT_EQ(pid_watcher_connect(&handle), watchStatus);
        EXPECT_TRUE(hasReceiveRight(handle));
        return handle;
    }
    static bool hasReceiveRight(mach_port_t handle)
    {
        return mach_port_mod_refs(mach_task_self(), handle, MACH_PORT_RIGHT_RECEIVE, 0) == KERN_SUCCESS;
    }

    std::vector<int32_t> ids; // written by the daemon's thread before it answers
    int32_t watchStatus = 0, dataStatus = 0;
    std::vector<std::byte> _data;
    std::unique_ptr<ScriptedDaemon> _daemon;
};

TEST_F(PidWatcher, WithoutAQueueTheCallbackRunsHereBeforeTheCallReturns)
{
    mach_port_t handle = connect();
    const mach_port_t first = handle;
    for (const bool stop : {false, false, true}) {
        Client client;
        const auto callback = client.callback();
        EXPECT_EQ((stop ? pid_watcher_disconnect : pid_watcher_collect)(&handle, nullptr, &callback), KERN_SUCCESS);
        EXPECT_EQ(client.calls, 1);
        EXPECT_EQ(client.releases, 1);
        EXPECT_TRUE(client.good);
        EXPECT_EQ(client.thread, std::this_thread::get_id());
        EXPECT_EQ(mappedMessageFiles(), 0u);
        EXPECT_EQ(hasReceiveRight(first), !stop);
    }
    EXPECT_EQ(handle, MACH_PORT_NULL);
    EXPECT_EQ(
        ids,
        (std::vector<int32_t>{kWatchPidsId, kGetSymbolicationInfoId, kGetSymbolicationInfoId, kStopWatchingPidsId}));
}

TEST_F(PidWatcher, OnAQueueTheVariableIsEmptyBeforeTheWorkRuns)
{
    mach_port_t handle = connect();
    const mach_port_t first = handle;
    dispatch_queue_t queue = dispatch_queue_create("watcher", nullptr);
    std::promise<void> gate;
    auto opened = gate.get_future();
    dispatch_async_f(queue, &opened, [](void* future) { static_cast<std::future<void>*>(future)->wait(); });
    Client collected, last, after;
    auto callback = collected.callback();
    EXPECT_EQ(pid_watcher_collect(&handle, queue, &callback), KERN_SUCCESS);
    callback = last.callback();
    EXPECT_EQ(pid_watcher_disconnect(&handle, queue, &callback), KERN_SUCCESS);
    EXPECT_EQ(handle, MACH_PORT_NULL);
    EXPECT_EQ(ids.size(), 1u); // nothing was asked yet
    EXPECT_TRUE(hasReceiveRight(first));
    callback = after.callback();
    EXPECT_EQ(pid_watcher_collect(&handle, queue, &callback), KERN_FAILURE);
    EXPECT_EQ(after.releases, 1); // although it was never called
    EXPECT_EQ(after.calls, 0);
    dispatch_release(queue); // the work that is queued keeps it
    gate.set_value();
    collected.awaitRelease();
    last.awaitRelease();
    EXPECT_EQ(collected.calls + last.calls, 2);
    EXPECT_TRUE(last.good);
    EXPECT_NE(last.thread, std::this_thread::get_id());
    EXPECT_FALSE(hasReceiveRight(first)); // removed by the work, which comes before its delivery
    EXPECT_EQ(ids, (std::vector<int32_t>{kWatchPidsId, kGetSymbolicationInfoId, kStopWatchingPidsId}));
}

TEST_F(PidWatcher, ARefusedDisconnectStillEndsTheHandleAndReleasesOnce)
{
    for (const char* what : {"refused", "damaged", "no callback", "no call"}) {
        mach_port_t handle = connect();
        const mach_port_t first = handle;
        dataStatus = what == std::string("refused") ? 8 : 0;
        _data = signatures();
        if (what == std::string("damaged"))
            _data[0] = std::byte{'?'};
        Client client;
        auto callback = client.callback();
        if (what == std::string("no call"))
            callback.call = nullptr;
        const bool given = what != std::string("no callback");
        takeLog();
        EXPECT_EQ(pid_watcher_disconnect(&handle, nullptr, given ? &callback : nullptr), KERN_SUCCESS) << what;
        EXPECT_EQ(client.calls, 0) << what;
        EXPECT_EQ(client.releases, given ? 1 : 0) << what;
        EXPECT_FALSE(hasReceiveRight(first)) << what;
        EXPECT_EQ(ids.back(), kStopWatchingPidsId) << what;
        EXPECT_EQ(takeLog(), what == std::string("damaged") ? "3 Signatures from daemon in invalid format\n" : "");
    }
    // Memory that nobody asked to see is kept: both times without a callback.
    EXPECT_EQ(mappedMessageFiles(), 2u);
}

TEST_F(PidWatcher, ARefusedWatchKeepsItsHandle)
{
    watchStatus = 8;
    mach_port_t handle = connect();
    EXPECT_EQ(pid_watcher_disconnect(&handle, nullptr, nullptr), KERN_SUCCESS);
    EXPECT_EQ(ids, (std::vector<int32_t>{kWatchPidsId, kStopWatchingPidsId}));
}

TEST_F(PidWatcher, OneConnectionServesAllRequests)
{
    mach_port_t handle = connect();
    size_t descriptors = 0;
    for (int i = 0; i < 300; ++i) {
        if (i == 20) // what is made once is there
            descriptors = sys::listDirectory("/proc/self/fd").take().size();
        Client client;
        const auto callback = client.callback();
        ASSERT_EQ(pid_watcher_collect(&handle, nullptr, &callback), KERN_SUCCESS);
        ASSERT_EQ(client.calls, 1) << i;
    }
    // The daemon's thread in here has some of its own coming and going; one a request would be 280.
    EXPECT_LT(sys::listDirectory("/proc/self/fd").take().size(), descriptors + 100);
    // A new daemon is found, too.
    _daemon.reset();
    _daemon = std::make_unique<ScriptedDaemon>(Namespace::kSystem);
    _daemon->onRequest([this](ReceivedMessage& message) { answer(message); });
    Client client;
    const auto callback = client.callback();
    EXPECT_EQ(pid_watcher_disconnect(&handle, nullptr, &callback), KERN_SUCCESS);
    EXPECT_EQ(client.calls, 1);
}

TEST(PidWatcherHandles, WhatIsNoWatchIsLeftAlone)
{
    for (const mach_port_t none : {MACH_PORT_NULL, MACH_PORT_DEAD}) {
        mach_port_t handle = none;
        Client collected, disconnected;
        auto callback = collected.callback();
        EXPECT_EQ(pid_watcher_collect(&handle, nullptr, &callback), KERN_FAILURE);
        callback = disconnected.callback();
        EXPECT_EQ(pid_watcher_disconnect(&handle, nullptr, &callback), KERN_SUCCESS);
        EXPECT_EQ(handle, none);
        EXPECT_EQ(collected.calls + disconnected.calls, 0);
        EXPECT_EQ(collected.releases + disconnected.releases, 2);
    }
}

TEST(PidWatcherHandles, WithoutDescriptorsThereIsNoHandle)
{
#if defined(__SANITIZE_ADDRESS__)
    GTEST_SKIP() << "needs a build without sanitizers: their own checks need descriptors while the table is full";
#endif
    takeLog();
    rlimit saved{};
    ::getrlimit(RLIMIT_NOFILE, &saved);
    const rlimit full{0, saved.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &full);
    mach_port_t handle = 0x77;
    const kern_return_t status = pid_watcher_connect(&handle);
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_EQ(status, KERN_FAILURE);
    EXPECT_EQ(handle, MACH_PORT_NULL);
    EXPECT_EQ(takeLog(), "3 Failed to create client handle port: memory or descriptors ran out\n");
}

} // namespace
} // namespace vnt
