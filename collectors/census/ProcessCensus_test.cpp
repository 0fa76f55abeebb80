#include "collectors/census/ProcessCensus.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <map>
#include <thread>

#include "platform/base/sys.h"
#include "records/CensusRecordReader.h"

namespace vnt {
namespace {

using census::Field;

/// Takes what a census sends and reads it at once.
class Reading final : public RecordSink, public census::CensusRecordHandler {
public:
    struct Process {
        std::string name;
        uint32_t parent = 0;
        census::Usage usage{};
        bool started = false;
        bool ended = false;
        int64_t status = -1;
    };

    Status trySend(std::span<const std::byte> message) override
    {
        MutexLock guard(_lock);
        if (_refusals > 0) {
            --_refusals;
            return Status(Code::kTimedOut, "no room");
        }
        const Status read = _reader.read(message, *this);
        EXPECT_TRUE(read.ok()) << read.message();
        _changed.notifyAll();
        return {};
    }
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { ADD_FAILURE() << text; }

    void refuse(int times)
    {
        MutexLock guard(_lock);
        _refusals = times;
    }
    template <typename Condition> bool waitUntil(Condition condition)
    {
        MutexLock guard(_lock);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!condition(*this)) {
            if (!_changed.waitUntil(guard, deadline))
                return condition(*this);
        }
        return true;
    }

    // Read after the census has stopped, or inside waitUntil().
    std::map<std::pair<uint32_t, uint64_t>, Process> processes;
    std::array<uint64_t, census::kLostCauses> lost{};
    uint64_t sweeps = 0;
    uint64_t orphans = 0;
    size_t generations = 0;

    [[nodiscard]] std::vector<Process> childrenOf(pid_t parent) const
    {
        std::vector<Process> found;
        for (const auto& [key, process] : processes) {
            if (process.parent == static_cast<uint32_t>(parent))
                found.push_back(process);
        }
        return found;
    }

private:
    Process& entry(const census::ProcessRecord& record) { return processes[{record.pid, record.startNs}]; }
    void onSession(const census::SessionRecord&) override { ++generations; }
    void onProcess(const census::ProcessRecord& record) override
    {
        entry(record).name = record.name;
        entry(record).parent = record.parent;
    }
    void onSweep(uint64_t, const census::SweepRecord&) override { ++sweeps; }
    void onUsage(uint64_t, const census::ProcessRecord& record, const census::Usage& usage) override
    {
        entry(record).usage = usage;
    }
    void onStarted(uint64_t, const census::ProcessRecord& record) override { entry(record).started = true; }
    void onEnded(uint64_t, const census::ProcessRecord& record, int64_t status) override
    {
        entry(record).ended = true;
        entry(record).status = status;
    }
    void onRenamed(uint64_t, const census::ProcessRecord& record) override { entry(record).name = record.name; }
    void onLost(uint64_t, census::LostCause cause, uint64_t total) override
    {
        lost[static_cast<size_t>(cause)] = total;
    }
    void onOrphan() override { ++orphans; }

    Mutex _lock;
    Condition _changed;
    int _refusals = 0;
    census::CensusRecordReader _reader;
};

pid_t spawn(const std::function<int()>& body)
{
    const pid_t pid = ::fork();
    if (pid == 0)
        ::_exit(body());
    return pid;
}

int reap(pid_t pid, rusage* usage = nullptr)
{
    int status = 0;
    rusage own{};
    EXPECT_EQ(::wait4(pid, &status, 0, usage ? usage : &own), pid);
    return status;
}

bool seesEvents() { return ProcessEvents::open().ok(); }

TEST(ProcessCensus, EveryShortLivedProcessIsSeenWithItsStatus)
{
    if (!seesEvents())
        GTEST_SKIP() << "SKIPPED: the kernel tells no process events here (root or CONFIG_PROC_EVENTS is missing)";
    Reading sink;
    ProcessCensus census(sink);
    census.setInterval(3'600'000'000'000); // only the first and the last sweep
    ASSERT_TRUE(census.start().ok());
    ASSERT_TRUE(sink.waitUntil([](Reading& reading) { return reading.sweeps == 1; }));
    constexpr int kProcesses = 400;
    std::map<int64_t, int> truth;
    for (int i = 0; i < kProcesses; ++i) {
        const pid_t pid = spawn([i] {
            if (i % 50 == 0)
                ::raise(SIGKILL);
            return i % 7;
        });
        ++truth[reap(pid)];
    }
    census.stop();
    std::map<int64_t, int> seen;
    for (const Reading::Process& process : sink.childrenOf(::getpid())) {
        EXPECT_TRUE(process.started && process.ended);
        ++seen[process.status];
    }
    EXPECT_EQ(seen, truth);
    EXPECT_EQ(sink.sweeps, 2u);
    EXPECT_EQ(sink.lost[static_cast<size_t>(census::LostCause::kEventsOverrun)], 0u);
    EXPECT_EQ(sink.orphans, 0u);
}

TEST(ProcessCensus, WhatNobodyCouldLookAtHasItsUse)
{
    if (!seesEvents() || !ExitStatistics::open().ok())
        GTEST_SKIP()
            << "SKIPPED: the kernel tells no statistics of what ends here (root or CONFIG_TASKSTATS is missing)";
    Reading sink;
    ProcessCensus census(sink);
    census.setInterval(3'600'000'000'000);
    ASSERT_TRUE(census.start().ok());
    ASSERT_TRUE(sink.waitUntil([](Reading& reading) { return reading.sweeps == 1; }));
    ::signal(SIGCHLD, SIG_IGN); // nothing stays of what ends
    constexpr uint64_t kMinorFaults = 512;
    for (int i = 0; i < 20; ++i) {
        spawn([] {
            std::thread([] { // another thread's use counts as well
                std::vector<char> memory(kMinorFaults * 4096 + 4096);
                for (size_t at = 0; at < memory.size(); at += 4096)
                    static_cast<volatile char*>(memory.data())[at] = 1;
            })
                .join();
            return 0;
        });
    }
    while (::waitpid(-1, nullptr, 0) > 0 || errno == EINTR) { }
    ::signal(SIGCHLD, SIG_DFL);
    census.stop();
    EXPECT_EQ(sink.lost[static_cast<size_t>(census::LostCause::kUnread)], 0u);
    const auto children = sink.childrenOf(::getpid());
    EXPECT_EQ(children.size(), 20u);
    for (const Reading::Process& process : children) {
        EXPECT_TRUE(process.ended);
        EXPECT_GE(at(process.usage, Field::kMinorFaults), static_cast<int64_t>(kMinorFaults));
        EXPECT_GT(at(process.usage, Field::kCpuNs), 0);
        EXPECT_LT(at(process.usage, Field::kUserMs), 1000) << "microseconds taken for milliseconds";
    }
}

TEST(ProcessCensus, AProcessLivesUntilItsLastThreadEnds)
{
    if (!seesEvents())
        GTEST_SKIP() << "SKIPPED: the kernel tells no process events here (root or CONFIG_PROC_EVENTS is missing)";
    Reading sink;
    ProcessCensus census(sink);
    census.setInterval(100'000'000);
    ASSERT_TRUE(census.start().ok());
    auto pipe = sys::makePipe();
    ASSERT_TRUE(pipe.ok());
    const pid_t pid = spawn([&]() -> int {
        ::close(pipe.value().second.get());
        std::thread([&] {
            char end = 0;
            (void)!::read(pipe.value().first.get(), &end, 1);
            ::_exit(5);
        }).detach();
        ::syscall(SYS_exit, 0); // this thread alone
        return 0;
    });
    uint64_t seenAt = 0;
    bool ended = false;
    ASSERT_TRUE(sink.waitUntil([&](Reading& reading) {
        const auto children = reading.childrenOf(::getpid());
        if (children.empty())
            return false;
        ended = ended || children[0].ended;
        seenAt = seenAt == 0 ? reading.sweeps : seenAt;
        return reading.sweeps >= seenAt + 3;
    }));
    EXPECT_FALSE(ended);
    pipe.value().second.reset();
    EXPECT_TRUE(sink.waitUntil([](Reading& reading) { return reading.childrenOf(::getpid())[0].ended; }));
    census.stop();
    EXPECT_EQ(reap(pid), 5 << 8);
    EXPECT_EQ(sink.childrenOf(::getpid())[0].status, 5 << 8);
}

TEST(ProcessCensus, UseIsWhatTheKernelCounts)
{
    Reading sink;
    ProcessCensus census(sink);
    census.setInterval(100'000'000);
    (void)census.start(); // events or not
    auto pipe = sys::makePipe();
    ASSERT_TRUE(pipe.ok());
    const pid_t pid = spawn([&]() -> int {
        ::close(pipe.value().second.get());
        std::vector<char> memory(64u << 20, 1); // resident
        volatile uint64_t sum = 0;
        for (uint64_t i = 0; i < 300'000'000; ++i)
            sum = sum + i;
        for (int i = 0; i < 200; ++i)
            ::usleep(10); // a voluntary switch each
        char end = memory[sum % memory.size()];
        (void)!::read(pipe.value().first.get(), &end, 1);
        ::_exit(0); // giving the memory back would cost more faults, after the last look
    });
    const auto known = [&](const Reading& reading) -> const Reading::Process* {
        for (const auto& [key, process] : reading.processes) {
            if (key.first == static_cast<uint32_t>(pid))
                return &process;
        }
        return nullptr;
    };
    ASSERT_TRUE(sink.waitUntil([&](Reading& reading) {
        const auto* process = known(reading);
        return process && at(process->usage, Field::kVoluntarySwitches) >= 200
            && at(process->usage, Field::kState) == 'S';
    }));
    census.stop(); // after a last look at it
    const Reading::Process seen = *known(sink);
    pipe.value().second.reset();
    rusage truth{};
    reap(pid, &truth);
    const int64_t cpuNs = (int64_t{truth.ru_utime.tv_sec} + truth.ru_stime.tv_sec) * 1'000'000'000
        + (int64_t{truth.ru_utime.tv_usec} + truth.ru_stime.tv_usec) * 1000;
    EXPECT_NEAR(static_cast<double>(at(seen.usage, Field::kCpuNs)), static_cast<double>(cpuNs), 100e6)
        << "all but its end, which gives the memory back";
    EXPECT_NEAR(static_cast<double>(at(seen.usage, Field::kMinorFaults)), static_cast<double>(truth.ru_minflt), 200.0);
    EXPECT_NEAR(static_cast<double>(at(seen.usage, Field::kVoluntarySwitches)), static_cast<double>(truth.ru_nvcsw), 3);
    EXPECT_GE(at(seen.usage, Field::kResidentKiB), 64 << 10);
    EXPECT_EQ(at(seen.usage, Field::kThreads), 1);
    EXPECT_FALSE(seen.ended);
    EXPECT_EQ(seen.parent, static_cast<uint32_t>(::getpid()));
}

TEST(ProcessCensus, ADroppedBatchIsCountedAndAllIsToldAgain)
{
    Reading sink;
    sink.refuse(2);
    ProcessCensus census(sink);
    census.setInterval(50'000'000);
    (void)census.start();
    ASSERT_TRUE(sink.waitUntil([](Reading& reading) { return reading.sweeps >= 2; }));
    census.stop();
    EXPECT_GT(sink.lost[static_cast<size_t>(census::LostCause::kBatchDropped)], 0u);
    EXPECT_EQ(sink.orphans, 0u);
    EXPECT_GE(sink.generations, 1u);
    bool knowsUs = false;
    for (const auto& [key, process] : sink.processes)
        knowsUs = knowsUs || key.first == static_cast<uint32_t>(::getpid());
    EXPECT_TRUE(knowsUs) << "what did not change was not told again";
}

TEST(ProcessCensus, StartedAgainItGoesOn)
{
    Reading sink;
    ProcessCensus census(sink);
    census.setInterval(3'600'000'000'000);
    (void)census.start();
    census.stop();
    const uint64_t before = sink.sweeps;
    const pid_t pid = spawn([] {
        ::pause();
        return 0;
    });
    (void)census.start();
    census.stop();
    EXPECT_GE(sink.sweeps, before + 1);
    EXPECT_EQ(sink.orphans, 0u);
    const auto children = sink.childrenOf(::getpid());
    EXPECT_EQ(children.size(), 1u);
    ::kill(pid, SIGKILL);
    reap(pid);
}

} // namespace
} // namespace vnt
