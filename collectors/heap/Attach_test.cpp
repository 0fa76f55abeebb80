#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <random>

#include "collectors/heap/HeapCollector.h"
#include "collectors/heap/JournalInjection.h"
#include "platform/base/sys.h"
#include "records/HeapRecordReader.h"
#include "tests/support/TalkingTarget.h"

namespace vnt {
namespace {

using std::chrono::steady_clock;
constexpr auto kDeadline = std::chrono::seconds(60);

class CountingSink final : public RecordSink, private heap::HeapRecordHandler {
public:
    Status trySend(std::span<const std::byte> message) override { return send(message); }
    Status send(std::span<const std::byte> message) override
    {
        const Status status = _reader.read(message, *this);
        EXPECT_TRUE(status.ok()) << status.message();
        return {};
    }
    void reportProblem(const std::string& text) override { EXPECT_TRUE(expectsProblem) << text; }
    bool expectsProblem = false;
    std::atomic<uint64_t> events{0};
    std::atomic<bool> attached{false};
    /// Allocations of that size, of a program that makes such for nothing else.
    std::atomic<uint64_t> ofPlugin{0};
    std::atomic<uint64_t> ofChild{0};
    std::atomic<bool> toldWithoutJournal{false};

private:
    void onAllocate(const heap::AllocateRecord& record) override
    {
        constexpr uint64_t kPluginBytes = 4327, kChildBytes = 5437; // tests/targets/heapchanges.cpp
        ++events;
        ofPlugin += record.sizeBytes == kPluginBytes;
        ofChild += record.sizeBytes == kChildBytes;
    }
    void onFree(uint64_t, heap::Function, uint32_t) override { ++events; }
    void onTarget(uint64_t, const heap::TargetRecord& target) override
    {
        attached = (target.flags & heap::TargetRecord::kAttached) != 0;
        toldWithoutJournal = (target.flags & heap::TargetRecord::kNoJournal) != 0;
    }
    heap::HeapRecordReader _reader;
};

class QuietObserver final : public HeapTargetObserver {
    void onTargetStarted(uint64_t, pid_t, const std::string&, bool) override { }
    void onNewCode(pid_t) override { }
    void onTargetEnded(pid_t) override { }
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

/// VNT_ATTACH_ROUNDS in the environment asks for another number of rounds than `usual`.
int rounds(int usual)
{
#ifdef __SANITIZE_ADDRESS__
    usual = std::min(usual, 5); // a recorder is slower by far, the target is the same
#endif
    const std::string asked = sys::environmentOr("VNT_ATTACH_ROUNDS", "");
    return asked.empty() ? usual : std::stoi(asked);
}

Result<std::unique_ptr<HeapCollector>> attachTo(pid_t pid, CountingSink& sink, QuietObserver& observer)
{
    HeapCollectorOptions options;
    options.journalDirectory = VNT_JOURNALS;
    options.clientUid = ::geteuid();
    return HeapCollector::attach(options, pid, sink, observer);
}

struct Busy {
    const char* target;
    const char* mode;
    friend void PrintTo(const Busy& busy, std::ostream* out) { *out << busy.target << " " << busy.mode; }
};

class Attach : public testing::TestWithParam<Busy> { };

TEST_P(Attach, ABusyTargetIsJoinedAndLeftManyTimesAndNoticesNothing)
{
    if (!sys::statFile(std::string(VNT_TARGETS) + "/" + GetParam().target).ok())
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    test::TalkingTarget target({std::string(VNT_TARGETS) + "/" + GetParam().target, "3", GetParam().mode});
    QuietObserver observer;
    const int count = rounds(20);
    for (int i = 0; i < count; ++i) {
        CountingSink sink;
        auto collector = attachTo(target.pid(), sink, observer);
        ASSERT_TRUE(collector.ok()) << "round " << i << ": " << collector.status().message();
        collector.value()->startCollection();
        ASSERT_TRUE(waitFor([&] { return sink.events > 500 || !target.fate().empty(); })) << "round " << i;
        ASSERT_EQ(target.fate(), "") << "round " << i;
        EXPECT_TRUE(sink.attached);
    }
    const std::string maps = target.maps();
    EXPECT_NE(maps.find("libVntHeapJournal"), std::string::npos);
    EXPECT_EQ(maps.find("vantora-heap"), std::string::npos) << "the journal's memory is still mapped";
    EXPECT_EQ(target.end(), 0);
}

/// A recorder that is killed at any moment, in the middle of attaching, recording or leaving; and one that comes right
/// after it, while a thread may still be finishing what the first had begun.
TEST_P(Attach, ATargetOutlivesRecordersThatAreKilled)
{
    if (!sys::statFile(std::string(VNT_TARGETS) + "/" + GetParam().target).ok())
        GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
    test::TalkingTarget target({std::string(VNT_TARGETS) + "/" + GetParam().target, "3", GetParam().mode});
    std::mt19937 random(42);
    const int count = rounds(20);
    for (int i = 0; i < count; ++i) {
        const pid_t recorder = ::fork();
        if (recorder == 0) {
            CountingSink sink;
            QuietObserver observer;
            for (;;)
                (void)attachTo(target.pid(), sink, observer);
        }
        ::usleep(static_cast<useconds_t>(random() % 60'000)); // anywhere: what it hits is the point
        ::kill(recorder, SIGKILL);
        ::waitpid(recorder, nullptr, 0);
        CountingSink sink;
        QuietObserver observer;
        auto collector = attachTo(target.pid(), sink, observer);
        ASSERT_TRUE(collector.ok()) << "round " << i << ": " << collector.status().message() << target.fate();
        collector.value()->startCollection();
        ASSERT_TRUE(waitFor([&] { return sink.events > 500 || !target.fate().empty(); })) << "round " << i;
        collector.value() = nullptr;
        ASSERT_EQ(target.fate(), "") << "round " << i;
    }
    EXPECT_EQ(target.end(), 0);
}

INSTANTIATE_TEST_SUITE_P(Heap, Attach,
                         testing::Values(Busy{"heapbusy", "waits"}, Busy{"heapbusy", "spin"},
                                         Busy{"heapbusy32", "waits"}, Busy{"heapbusy32", "spin"}),
                         [](const auto& row) { return std::string(row.param.target) + "_" + row.param.mode; });

/// Records heapchanges while the test tells it what to do.
class AttachedChanges : public testing::TestWithParam<const char*> {
protected:
    void SetUp() override
    {
        const std::string program = std::string(VNT_TARGETS) + "/heapchanges" + GetParam();
        if (!sys::statFile(program).ok())
            GTEST_SKIP() << "needs a compiler for this width: apt-get install g++-multilib";
        _target = std::make_unique<test::TalkingTarget>(std::vector<std::string>{program});
        attach();
    }
    void attach()
    {
        _sink = std::make_unique<CountingSink>();
        auto collector = attachTo(_target->pid(), *_sink, _observer);
        ASSERT_TRUE(collector.ok()) << collector.status().message();
        _collector = collector.take();
        _collector->startCollection();
    }
    /// What it answers.
    std::string tell(const std::string& command)
    {
        _target->say(command + "\n");
        std::string said = _target->hearLine();
        EXPECT_EQ(said.find("done"), 0U) << command << ": " << said;
        return said;
    }
    /// With the directory of the targets, or without, so that the loader looks for it.
    std::string plugin(const std::string& binding, bool withDirectory = true) const
    {
        return std::string(withDirectory ? VNT_TARGETS "/" : "") + "libheapplugin_" + binding + GetParam() + ".so";
    }
    /// Which one its first thread is in, or "running" (/proc/PID/task/TID/syscall, proc(5)).
    std::string systemCall() const
    {
        const std::string id = std::to_string(_target->pid());
        return sys::readFile("/proc/" + id + "/task/" + id + "/syscall", 512).take();
    }
    /// The first thread waits for the next command: it is the one that is borrowed.
    void awaitReading() const
    {
        const char* read = std::string_view(GetParam()) == "32" ? "3 " : "0 ";
        EXPECT_TRUE(waitFor([&] { return systemCall().starts_with(read); }));
    }
    void leave()
    {
        EXPECT_TRUE(_collector->stopCollection().ok());
        _collector = nullptr;
    }

    std::unique_ptr<test::TalkingTarget> _target;
    std::unique_ptr<CountingSink> _sink;
    QuietObserver _observer;
    std::unique_ptr<HeapCollector> _collector;
};

TEST_P(AttachedChanges, WhatLoadedLibrariesAllocateIsCountedExactly)
{
    (void)tell("load " + plugin("now"));
    (void)tell("call 1000"); // by a pointer that the library gave when it was loaded
    (void)tell("close");
    (void)tell("load " + plugin("lazy"));
    (void)tell("call 100");
    leave();
    EXPECT_EQ(_sink->ofPlugin, 1100U);
    (void)tell("call 10"); // as before
    EXPECT_EQ(_target->end(), 0);
}

/// A library that the loader finds by what stands in the program (DT_RUNPATH) is found, and recorded once it is used.
TEST_P(AttachedChanges, ALibraryIsSearchedForOnBehalfOfWhoOpensIt)
{
    (void)tell("load " + plugin("now", /*withDirectory=*/false));
    (void)tell("find");
    (void)tell("call 1000");
    leave();
    EXPECT_EQ(_sink->ofPlugin, 1000U);
    (void)tell("call 10");
    EXPECT_EQ(_target->end(), 0);
}

/// Recorders come and go while libraries do; nothing is written to where one was.
TEST_P(AttachedChanges, LibrariesThatComeAndGoMeetRecordersThatDo)
{
    (void)tell("churn " + plugin("now"));
    for (int i = 0; i < rounds(20); ++i) {
        ASSERT_TRUE(waitFor([this] { return _sink->ofPlugin > 30 || !_target->fate().empty(); })) << "round " << i;
        leave();
        ASSERT_EQ(_target->fate(), "") << "round " << i;
        attach();
    }
    (void)tell("load " + plugin("lazy"));
    (void)tell("close");
    leave();
    EXPECT_EQ(_target->end(), 0);
}

/// A call that is given up within the journal leaves nothing that the next one, on another thread, would wait for.
TEST_P(AttachedChanges, ACallThatWaitsForALockIsGivenUp)
{
    leave();
    (void)tell("rest");
    (void)tell("hold");
    awaitReading();
    const auto refused = attachTo(_target->pid(), *_sink, _observer); // borrows the first thread, which reads
    EXPECT_NE(refused.status().message().find("a lock that is needed was not free in time"), std::string::npos)
        << refused.status().message();
    (void)tell("release");
    _target->say("spin\n");
    EXPECT_TRUE(waitFor([this] { return systemCall().starts_with("running"); }));
    attach();
    ::kill(_target->pid(), SIGUSR1);
    EXPECT_EQ(_target->hearLine(), "done spin 0\n");
    (void)tell("load " + plugin("now"));
    (void)tell("call 20");
    leave();
    EXPECT_EQ(_sink->ofPlugin, 20U);
    EXPECT_EQ(_target->end(), 0);
}

/// A killed recorder's call goes on by itself: the next one's does nothing meanwhile.
TEST_P(AttachedChanges, ACallThatAKilledRecorderLeftIsWaitedFor)
{
    leave();
    (void)tell("hold");
    awaitReading();
    const pid_t recorder = ::fork();
    if (recorder == 0) {
        (void)attachTo(_target->pid(), *_sink, _observer);
        ::_exit(0);
    }
    const std::string futex = std::string_view(GetParam()) == "32" ? "240 " : "202 ";
    const auto waits = [&] { return systemCall().starts_with(futex); };
    EXPECT_TRUE(waitFor(waits)); // within the call, for the lock
    ::kill(recorder, SIGKILL);
    ::waitpid(recorder, nullptr, 0);
    const auto refused = attachTo(_target->pid(), *_sink, _observer);
    EXPECT_NE(refused.status().message().find("has not finished what an earlier recorder began"), std::string::npos)
        << refused.status().message();
    EXPECT_TRUE(waits());
    ::kill(_target->pid(), SIGUSR1);
    EXPECT_TRUE(waitFor([&] { return !waits(); }));
    attach();
    (void)tell("load " + plugin("now"));
    (void)tell("call 20");
    leave();
    EXPECT_EQ(_sink->ofPlugin, 20U);
    EXPECT_EQ(_target->maps().find("vantora-heap"), std::string::npos);
    EXPECT_EQ(_target->end(), 0);
}

TEST_P(AttachedChanges, ChildrenAreNotRecordedAndWork)
{
    EXPECT_EQ(tell("fork 500"), "done fork 0\n");
    EXPECT_EQ(tell("vfork"), "done vfork 0\n");
    EXPECT_EQ(tell("spawn"), "done spawn 0\n");
    (void)tell("load " + plugin("now"));
    EXPECT_EQ(tell("fork 500"), "done fork 0\n");
    (void)tell("call 50"); // the program itself goes on
    leave();
    EXPECT_EQ(_sink->ofChild, 0U);
    EXPECT_EQ(_sink->ofPlugin, 50U);
    EXPECT_EQ(tell("fork 500"), "done fork 0\n");
    EXPECT_EQ(_target->end(), 0);
}

/// What the child has of its parent's recording gives way to its own.
TEST_P(AttachedChanges, AChildMayBeAttachedToBesideItsParent)
{
    const pid_t child = std::stoi(tell("child").substr(std::string("done child ").size()));
    const auto mappings = [child] {
        const std::string maps = sys::readFile("/proc/" + std::to_string(child) + "/maps", size_t{16} << 20).take();
        int count = 0;
        for (size_t at = maps.find("vantora-heap"); at != std::string::npos; at = maps.find("vantora-heap", at + 1))
            ++count;
        return count;
    };
    EXPECT_EQ(mappings(), 1); // its parent's, that nothing in it leads to
    CountingSink sink;
    auto collector = attachTo(child, sink, _observer);
    ASSERT_TRUE(collector.ok()) << collector.status().message();
    collector.value()->startCollection();
    EXPECT_TRUE(waitFor([&sink] { return sink.ofChild > 20; }));
    EXPECT_EQ(mappings(), 1);
    collector.value() = nullptr;
    EXPECT_EQ(mappings(), 0);
    leave();
    EXPECT_EQ(_sink->ofChild, 0U);
    EXPECT_EQ(_target->end(), 0);
}

TEST_P(AttachedChanges, AnExecutionEndsTheRecordingAndAnotherMayBegin)
{
    _sink->expectsProblem = true;
    const std::string itself = std::string(VNT_TARGETS) + "/heapchanges" + GetParam();
    for (const std::string& program : {itself, std::string(VNT_TARGETS) + "/heapbusy" + GetParam()}) {
        _target->say("exec " + program + "\n");
        EXPECT_NE(_target->hearLine(), ""); // the new program's first
        EXPECT_TRUE(waitFor([this] { return _sink->toldWithoutJournal.load(); })) << program;
        leave();
        EXPECT_EQ(_target->maps().find("vantora-heap"), std::string::npos);
        attach();
        _sink->expectsProblem = true;
    }
    EXPECT_TRUE(waitFor([this] { return _sink->events > 500; }));
    leave();
    EXPECT_EQ(_target->end(), 0);
}

/// A process in a mount namespace and below a root directory of its own, as in a container, in which the journal's file
/// is not.
TEST_P(AttachedChanges, ATargetThatDoesNotSeeTheLibraryIsHandedIt)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root to make a root directory";
    leave();
    _target = std::make_unique<test::TalkingTarget>(
        std::vector<std::string>{std::string(VNT_TARGETS) + "/heapchanges" + GetParam()}); // one without the library
    const std::string root = testing::TempDir() + "/elsewhere-" + sys::randomHex(4);
    ASSERT_EQ(::mkdir(root.c_str(), 0755), 0);
    const bool entered = tell("enter " + root) == "done enter 0\n";
    EXPECT_EQ(::rmdir(root.c_str()), 0);
    if (!entered)
        GTEST_SKIP() << "needs the right to mount";
    for (int i = 0; i < 3; ++i) {
        attach();
        (void)tell("make 200");
        leave();
        EXPECT_EQ(_sink->ofChild, 200U);
    }
    EXPECT_EQ(_target->maps().find("vantora-heap"), std::string::npos);
    const std::string descriptors = "/proc/" + std::to_string(_target->pid()) + "/fd";
    for (const std::string& number : sys::listDirectory(descriptors).take()) {
        char link[4096] = {};
        (void)!::readlink((descriptors + "/" + number).c_str(), link, sizeof link - 1);
        EXPECT_EQ(std::string(link).find("memfd"), std::string::npos) << link;
    }
    EXPECT_EQ(_target->end(), 0);
}

INSTANTIATE_TEST_SUITE_P(Heap, AttachedChanges, testing::Values("", "32"),
                         [](const auto& row) { return std::string("heapchanges") + row.param; });

/// What cannot be attached to is refused with a sentence that says why, and is left as it was.
TEST(AttachRefused, WithASentence)
{
    struct Row {
        const char* what;
        const char* says;
        void (*become)();
        void (*prepare)(pid_t pid);
    };
    const auto nothing = [](pid_t) {};
    const Row rows[] = {
        {"stopped", "is stopped; let it go on first: kill -CONT", [] {},
         [](pid_t pid) {
             ::kill(pid, SIGSTOP);
             EXPECT_TRUE(waitFor([pid] {
                 return sys::readFile("/proc/" + std::to_string(pid) + "/stat", 4096).take().find(") T ")
                     != std::string::npos;
             }));
         }},
        {"traced", "is traced by process", [] {},
         [](pid_t pid) { EXPECT_EQ(::ptrace(PTRACE_SEIZE, pid, nullptr, nullptr), 0); }},
        {"behind a filter", "filter of system calls",
         [] {
             sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
             const sock_fprog program{1, &allow};
             ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
             ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program);
         },
         nothing},
        {"in another root", "runs in another root directory", [] { (void)!::chroot("/proc/self/fdinfo"); }, nothing},
    };
    for (const Row& row : rows) {
        int ready[2];
        ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
        const pid_t target = ::fork();
        if (target == 0) {
            row.become();
            (void)!::write(ready[1], "", 1);
            for (;;)
                ::pause();
        }
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        row.prepare(target);
        CountingSink sink;
        QuietObserver observer;
        if (::geteuid() == 0 || std::string_view(row.what) != "in another root") {
            const auto collector = attachTo(target, sink, observer);
            ASSERT_FALSE(collector.ok()) << row.what;
            EXPECT_NE(collector.status().message().find(row.says), std::string::npos)
                << row.what << ": " << collector.status().message();
        }
        EXPECT_EQ(::kill(target, SIGKILL), 0);
        EXPECT_EQ(::waitpid(target, nullptr, __WALL), target);
        ::close(ready[0]);
        ::close(ready[1]);
    }
}

} // namespace
} // namespace vnt
