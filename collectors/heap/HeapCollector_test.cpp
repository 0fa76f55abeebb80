#include "collectors/heap/HeapCollector.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "collectors/heap/HeapStacks.h"
#include "platform/base/Mutex.h"
#include "platform/base/sys.h"
#include "records/HeapJournal.h"
#include "records/HeapRecordReader.h"

namespace vnt {
namespace {

using std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(60);

/// Reads what it is sent, and refuses messages while `full`.
class ReadingSink final : public RecordSink, private heap::HeapRecordHandler {
public:
    Status trySend(std::span<const std::byte> message) override
    {
        return full.load() ? Status(Code::kTimedOut, "would block") : send(message);
    }
    Status send(std::span<const std::byte> message) override
    {
        const Status status = _reader.read(message, *this);
        EXPECT_TRUE(status.ok()) << status.message();
        return {};
    }
    void reportProblem(const std::string& text) override { ADD_FAILURE() << text; }

    std::atomic<bool> full{false};
    std::atomic<uint64_t> allocations{0};
    std::atomic<uint64_t> frees{0};
    std::atomic<uint64_t> unknownFrees{0};
    std::map<heap::LostCause, uint64_t> lost;
    uint64_t lastTimeNs = 0;
    bool inOrder = true;
    std::map<uint32_t, uint64_t> live; ///< slot -> address

private:
    void noteTime(uint64_t timeNs)
    {
        inOrder = inOrder && timeNs >= lastTimeNs;
        lastTimeNs = timeNs;
    }
    void onAllocate(const heap::AllocateRecord& record) override
    {
        noteTime(record.timeNs);
        ++allocations;
        EXPECT_TRUE(live.emplace(record.slot, record.address).second) << "slot given twice";
    }
    void onFree(uint64_t timeNs, heap::Function, uint32_t slot) override
    {
        noteTime(timeNs);
        ++frees;
        if (live.erase(slot) == 0)
            ++unknownFrees;
    }
    void onFreedOutside(uint64_t, uint32_t slot) override { live.erase(slot); }
    void onFreeUnknown(uint64_t, heap::Function, uint64_t) override
    {
        ++frees;
        ++unknownFrees;
    }
    void onLost(uint64_t, heap::LostCause cause, uint64_t, uint64_t total) override { lost[cause] = total; }

    heap::HeapRecordReader _reader;
};

class Observer final : public HeapTargetObserver {
public:
    void onTargetStarted(uint64_t, pid_t, const std::string&, bool) override { started = true; }
    void onNewCode(pid_t) override { }
    void onTargetEnded(pid_t) override { ended = true; }
    std::atomic<bool> started{false};
    std::atomic<bool> ended{false};
};

bool waitFor(const std::function<bool()>& condition)
{
    const auto deadline = steady_clock::now() + kDeadline;
    while (!condition()) {
        if (steady_clock::now() > deadline)
            return false;
        ::usleep(500);
    }
    return true;
}

/// How often the process's threads have gone to sleep (proc_pid_status(5)).
long sleepsOf(pid_t pid)
{
    long sleeps = 0;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    const auto names = sys::listDirectory(tasks);
    for (const std::string& name : names.ok() ? names.value() : std::vector<std::string>()) {
        const auto status = sys::readFile(tasks + "/" + name + "/status", 16384);
        const std::string text = status.ok() ? status.value() : std::string();
        const size_t at = text.find("\nvoluntary_ctxt_switches:");
        if (at != std::string::npos)
            sleeps += std::strtol(text.c_str() + text.find(':', at) + 1, nullptr, 10);
    }
    return sleeps;
}

/// A program with the journal in it.
class Target {
public:
    Target(const std::string& socketName, std::vector<std::string> arguments)
    {
        arguments[0] = std::string(VNT_TARGETS) + "/" + arguments[0];
        std::vector<char*> argv;
        for (std::string& argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        std::string preload = std::string("LD_PRELOAD=") + VNT_JOURNAL;
        std::string name = std::string(journal::kSocketVariable) + "=" + socketName;
        char* environment[] = {preload.data(), name.data(), nullptr};
        EXPECT_EQ(::posix_spawn(&_pid, argv[0], nullptr, nullptr, argv.data(), environment), 0);
    }
    ~Target()
    {
        if (_pid > 0) {
            ::kill(_pid, SIGKILL);
            ::waitpid(_pid, nullptr, 0);
        }
    }
    /// The exit status; -1 for another end.
    int wait()
    {
        int status = 0;
        if (!waitFor([&] { return ::waitpid(_pid, &status, WNOHANG) == _pid; }))
            return -1;
        _pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    [[nodiscard]] pid_t pid() const { return _pid; }

private:
    pid_t _pid = -1;
};

class HeapCollectorTest : public testing::Test {
protected:
    void SetUp() override
    {
        HeapCollectorOptions options;
        options.clientUid = ::geteuid();
        auto started = HeapCollector::start(options, sink, observer);
        ASSERT_TRUE(started.ok()) << started.status().message();
        collector = started.take();
    }
    void runToEnd(Target& target)
    {
        EXPECT_EQ(target.wait(), 0);
        ASSERT_TRUE(waitFor([this] { return observer.ended.load(); }));
        EXPECT_TRUE(collector->stopCollection().ok());
    }

    ReadingSink sink;
    Observer observer;
    std::unique_ptr<HeapCollector> collector;
};

constexpr uint64_t kPairs = 400'000;
const std::string kPairsText = std::to_string(kPairs);

TEST_F(HeapCollectorTest, ThreadsThatFreeOneAnothersBlocksAreMergedInOrder)
{
    collector->startCollection();
    Target target(collector->socketName(), {"heaptruth"});
    runToEnd(target);
    EXPECT_TRUE(sink.inOrder);
    EXPECT_EQ(sink.unknownFrees, 0u); // a free before its allocation would be one
    EXPECT_GT(sink.allocations, 42'000u);
    EXPECT_TRUE(sink.lost.empty());
    bool looked = collector->withLiveBlocks([&](const LiveBlocks& blocks, const HeapStacks& stacks) {
        EXPECT_EQ(blocks.count(), sink.live.size());
        uint64_t bytes = 0;
        std::vector<uint64_t> frames;
        blocks.forEach([&](const LiveBlock& block) {
            bytes += block.sizeBytes;
            stacks.frames(block.stack, frames);
            EXPECT_FALSE(frames.empty());
        });
        EXPECT_EQ(bytes, blocks.bytes());
    });
    EXPECT_TRUE(looked);
}

TEST_F(HeapCollectorTest, WhatAReaderLeavesUnreadIsCounted)
{
    collector->startCollection();
    sink.full = true;
    Target target(collector->socketName(), {"heappairs", kPairsText});
    // Some batches are lost, then the reader wakes up.
    ASSERT_TRUE(waitFor([this] { return observer.started.load(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    sink.full = false;
    runToEnd(target);
    const uint64_t dropped = sink.lost[heap::LostCause::kBatchDropped];
    EXPECT_GT(dropped, 0u);
    // Each event is either there or counted.
    const uint64_t all = sink.allocations + sink.frees + dropped + sink.lost[heap::LostCause::kRingFull];
    EXPECT_GE(all, 2 * kPairs);
    EXPECT_LT(all, 2 * kPairs + 100); // what the C library and the program's start allocate
}

TEST_F(HeapCollectorTest, WhatAThreadHasNoRoomForIsCounted)
{
    collector->startCollection();
    Target target(collector->socketName(), {"heappairs", kPairsText});
    ASSERT_TRUE(waitFor([this] { return observer.started.load(); }));
    // While somebody looks at the blocks for long, the ring runs over: its thread sleeps a thousand times for room,
    // then goes on without, and sleeps anew. After twenty such waits it would take the collector for dead.
    constexpr long kSleepsToALoss = 1000;
    ASSERT_TRUE(collector->withLiveBlocks([&](const LiveBlocks&, const HeapStacks&) {
        EXPECT_TRUE(waitFor([&] { return sleepsOf(target.pid()) > 2 * kSleepsToALoss; }));
    }));
    runToEnd(target);
    const uint64_t lost = sink.lost[heap::LostCause::kRingFull];
    EXPECT_GT(lost, 0u);
    const uint64_t all = sink.allocations + sink.frees + lost;
    EXPECT_GE(all, 2 * kPairs);
    EXPECT_LT(all, 2 * kPairs + 100);
}

TEST_F(HeapCollectorTest, CollectionStopsAndGoesOnWhileTheBlocksStayCurrent)
{
    Target target(collector->socketName(), {"heappairs", "20000000"});
    ASSERT_TRUE(waitFor([this] { return observer.started.load(); }));
    const auto collectFor = [this](uint64_t more) {
        const uint64_t before = sink.allocations;
        collector->startCollection();
        ASSERT_TRUE(waitFor([&] { return sink.allocations > before + more; }));
        ASSERT_TRUE(collector->stopCollection().ok());
    };
    collectFor(1000);
    const uint64_t between = sink.allocations;
    ASSERT_TRUE(collector->withLiveBlocks([](const LiveBlocks& blocks, const HeapStacks&) {
        EXPECT_LT(blocks.count(), 100u); // also what was freed without being collected is gone
    }));
    EXPECT_EQ(sink.allocations, between);
    collectFor(1000);
    EXPECT_LT(sink.live.size(), 10u);
}

/// A worker of its own, killed in the middle: the target neither hangs nor fails.
TEST(HeapJournal, ATargetOutlivesItsCollector)
{
    int names[2];
    ASSERT_EQ(::pipe2(names, O_CLOEXEC), 0);
    const pid_t worker = ::fork();
    if (worker == 0) {
        ReadingSink sink;
        Observer observer;
        HeapCollectorOptions options;
        options.clientUid = ::geteuid();
        auto collector = HeapCollector::start(options, sink, observer);
        collector.value()->startCollection();
        const std::string name = collector.value()->socketName();
        (void)::write(names[1], name.data(), name.size());
        if (!waitFor([&] { return sink.allocations > 10'000; }))
            ::_exit(1);
        ::kill(::getpid(), SIGKILL);
    }
    char name[128] = {};
    ASSERT_GT(::read(names[0], name, sizeof name - 1), 0);
    ::close(names[0]);
    ::close(names[1]);
    Target target(name, {"heappairs", "3000000", "2"});
    int status = 0;
    ASSERT_EQ(::waitpid(worker, &status, 0), worker);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(target.wait(), 0);
    Target later(name, {"heaptruth"}); // nobody listens any more
    EXPECT_EQ(later.wait(), 0);
}

} // namespace
} // namespace vnt
