#include "collectors/orphans/OrphanSearch.h"

#include <gtest/gtest.h>
#include <sys/ptrace.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "collectors/orphans/JournaledTarget_testing.h"
#include "collectors/orphans/ResultWriter.h"
#include "records/OrphanRecordReader.h"

namespace vnt::orphans {
namespace {

using test::JournaledTarget;

constexpr uint64_t kLost = 175; // of leaktruth
constexpr auto kDeadline = std::chrono::seconds(60);

std::string targetPath(const std::string& name) { return std::string(VNT_TARGETS) + "/" + name; }

Status look(JournaledTarget& target, OrphanSearch& search)
{
    Status status;
    if (!target.collector().inspect([&](HeapView& heap) { status = search.look(heap); }))
        return Status(Code::kNotFound, "no target");
    return status;
}

OrphanResult searched(JournaledTarget& target, const OrphanSearch::Options& options = {})
{
    OrphanSearch search(options);
    const Status status = look(target, search);
    EXPECT_TRUE(status.ok()) << status.message();
    return status.ok() ? search.judge() : OrphanResult();
}

/// The letter of its state in /proc/PID/stat.
char stateOf(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), {});
    const size_t at = text.rfind(')');
    return at == std::string::npos ? '?' : text[at + 2];
}

template <typename Condition> bool waitFor(Condition&& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        ::usleep(500);
    }
    return true;
}

class Listener final : public RecordSink, private OrphanRecordHandler {
public:
    Status trySend(std::span<const std::byte> message) override { return send(message); }
    Status send(std::span<const std::byte> message) override
    {
        EXPECT_TRUE(_reader.read(message, *this).ok());
        return {};
    }
    void reportProblem(const std::string& text) override { ADD_FAILURE() << text; }
    uint64_t told = 0, fresh = 0, withStack = 0;
    uint32_t searches = 0;
    bool whole = false;

private:
    void onSearch(uint64_t, const SearchRecord& search) override
    {
        told = fresh = withStack = 0;
        searches = search.number;
    }
    void onLeak(const LeakRecord& leak) override
    {
        ++told;
        fresh += leak.isNew;
        withStack += leak.stack != 0;
    }
    void onEnd(const EndRecord&, bool all) override { whole = all; }
    OrphanRecordReader _reader;
};

TEST(OrphanSearch, ALaterSearchTellsWhatIsNew)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leaktruth"), "wait"});
    ASSERT_TRUE(target.awaitLine("ready"));
    Listener heard;
    ResultWriter writer(heard);
    const struct {
        bool loseMore;
        uint64_t told, fresh;
    } rows[] = {{false, kLost, kLost}, {false, kLost, 0}, {true, kLost + 3, 3}, {true, kLost + 6, 3}};
    uint32_t number = 0;
    for (const auto& row : rows) {
        target.takeText();
        if (row.loseMore) {
            ::kill(target.pid(), SIGUSR1);
            ASSERT_TRUE(target.awaitLine("more"));
        }
        ASSERT_TRUE(writer.write(searched(target, {.stacks = true})).ok());
        EXPECT_EQ(heard.searches, ++number);
        EXPECT_EQ(heard.told, row.told) << number;
        EXPECT_EQ(heard.fresh, row.fresh) << number;
        EXPECT_EQ(heard.withStack, row.told) << number;
        EXPECT_TRUE(heard.whole);
    }
}

/// A target too large to be copied is read where it is, with the same result.
TEST(OrphanSearch, WithoutACopyTheResultIsTheSame)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leaktruth"), "wait"});
    ASSERT_TRUE(target.awaitLine("ready"));
    const OrphanResult copied = searched(target, {.contents = true});
    const OrphanResult inPlace = searched(target, {.contents = true, .limitBytes = 4096});
    EXPECT_EQ(copied.search.flags & SearchRecord::kInPlace, 0u);
    EXPECT_NE(inPlace.search.flags & SearchRecord::kInPlace, 0u);
    ASSERT_EQ(copied.leaks.size(), kLost);
    ASSERT_EQ(inPlace.leaks.size(), kLost);
    for (size_t i = 0; i < kLost; ++i)
        EXPECT_EQ(copied.leaks[i].record, inPlace.leaks[i].record) << i;
    EXPECT_EQ(inPlace.search.unreadableBytes, 0u);
}

/// Whatever instant its threads are stopped at, within the allocator, within a record, within a reallocation that
/// moves the only pointer to something: no block that is in use is told as lost, and the target goes on.
TEST(OrphanSearch, ABusyTargetLosesNothingButWhatItLost)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leakbusy")});
    ASSERT_TRUE(target.awaitLine("ready"));
    for (int i = 0; i < 30; ++i) {
        const OrphanResult result = searched(target);
        EXPECT_EQ(result.search.threads, 5u);
        if (result.search.lostEvents != 0)
            break; // a machine too slow to keep up: from here on a free may be among what was lost
        SCOPED_TRACE("search " + std::to_string(i) + ", flags " + std::to_string(result.search.flags));
        if (result.search.flags & SearchRecord::kNoRegisters)
            continue; // a thread stood in the kernel all the time: what only its registers hold is told as leaked
        if (result.search.flags & SearchRecord::kUndecided) {
            EXPECT_LE(result.search.leaks, 12u);
        } else {
            EXPECT_EQ(result.search.leaks, 12u);
        }
        target.takeText();
        ASSERT_TRUE(target.awaitLine("going on"));
    }
}

TEST(OrphanSearch, ATargetThatStoodStillBeforeStaysSo)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leaktruth"), "wait"});
    ASSERT_TRUE(target.awaitLine("ready"));
    ::kill(target.pid(), SIGSTOP);
    ASSERT_TRUE(waitFor([&] { return stateOf(target.pid()) == 'T'; }));
    EXPECT_EQ(searched(target).search.leaks, kLost);
    EXPECT_TRUE(waitFor([&] { return stateOf(target.pid()) == 'T'; }))
        << "on its way back to its stop, it runs a moment";
    target.takeText();
    ::kill(target.pid(), SIGUSR1);
    ::kill(target.pid(), SIGCONT);
    EXPECT_TRUE(target.awaitLine("more"));
}

TEST(OrphanSearch, ATracedTargetIsLeftToItsTracer)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leaktruth"), "wait"});
    ASSERT_TRUE(target.awaitLine("ready"));
    ASSERT_EQ(::ptrace(PTRACE_SEIZE, target.pid(), nullptr, nullptr), 0);
    OrphanSearch search({});
    const Status status = look(target, search);
    EXPECT_EQ(status.code(), Code::kDenied);
    EXPECT_NE(status.message().find("is traced by process " + std::to_string(::getpid())), std::string::npos)
        << status.message();
    EXPECT_NE(stateOf(target.pid()), 'T');
    // None of its other threads was kept.
    ::ptrace(PTRACE_INTERRUPT, target.pid(), nullptr, nullptr);
    int waited = 0;
    ASSERT_EQ(::waitpid(target.pid(), &waited, __WALL), target.pid());
    ASSERT_EQ(::ptrace(PTRACE_DETACH, target.pid(), nullptr, nullptr), 0);
    EXPECT_EQ(searched(target).search.leaks, kLost);
}

TEST(OrphanSearch, ATargetThatIsGoneIsASentence)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leaktruth"), "wait"});
    ASSERT_TRUE(target.awaitLine("ready"));
    const pid_t pid = target.pid();
    ::kill(pid, SIGKILL);
    ASSERT_TRUE(waitFor([&] { return stateOf(pid) == 'Z'; })); // nobody has fetched its status yet
    OrphanSearch search({});
    const Status status = look(target, search);
    EXPECT_EQ(status.code(), Code::kNotFound) << status.message();
}

/// Whoever holds a target and is killed: it goes on.
TEST(PausedTarget, AKilledHolderLetsGo)
{
    JournaledTarget target(VNT_JOURNAL, {targetPath("leakbusy")});
    ASSERT_TRUE(target.awaitLine("ready"));
    auto pipe = sys::makePipe();
    ASSERT_TRUE(pipe.ok());
    const pid_t holder = ::fork();
    if (holder == 0) {
        const auto paused = PausedTarget::pause(target.pid());
        (void)sys::writeFully(pipe.value().second.get(), paused.ok() ? "h" : "f", 1);
        for (;;)
            ::pause();
    }
    char held = 0;
    ASSERT_TRUE(sys::readFully(pipe.value().first.get(), &held, 1).ok());
    EXPECT_EQ(held, 'h');
    EXPECT_EQ(stateOf(target.pid()), 't');
    ::kill(holder, SIGKILL);
    ::waitpid(holder, nullptr, 0);
    target.takeText();
    EXPECT_TRUE(target.awaitLine("going on"));
    EXPECT_TRUE(target.awaitLine("going on"));
}

/// Searched while its last exit handler waits.
TEST(OrphanSearch, ATargetWaitsForTheSearchAtItsExit)
{
    class Observer final : public test::QuietObserver {
    public:
        void onTargetExiting(HeapView& heap) override
        {
            OrphanSearch search({.atExit = true});
            const Status status = search.look(heap);
            leaks = status.ok() ? static_cast<int64_t>(search.judge().search.leaks) : -2;
        }
        std::atomic<int64_t> leaks{-1};
    } observer;
    JournaledTarget target(VNT_JOURNAL, {targetPath("leaktruth"), "exit"}, &observer);
    ASSERT_TRUE(target.awaitLine("ready"));
    EXPECT_TRUE(waitFor([&] { return observer.leaks.load() != -1; }));
    EXPECT_EQ(observer.leaks.load(), static_cast<int64_t>(kLost));
}

} // namespace
} // namespace vnt::orphans
