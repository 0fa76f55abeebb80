#include "collectors/stacks/StackSampler.h"

#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <functional>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <time.h>
#include <unistd.h>

#include "collectors/common/family.h"
#include "collectors/stacks/EventSet.h"
#include "collectors/stacks/StackSampler_testing.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

StackSamplerOptions optionsFor(pid_t pid)
{
    StackSamplerOptions options;
    options.pid = pid;
    return options;
}

const Placement kProcessors = Placement::kProcessors;
const Placement kThreads = Placement::kThreads;

class StackSamplerTest : public testing::TestWithParam<const Placement*> {
protected:
    void SetUp() override
    {
        Recording sink;
        auto probe = startStackSampler(optionsFor(::getpid()), sink, nullptr, GetParam());
        if (!probe.ok())
            GTEST_SKIP() << "CANNOT SAMPLE HERE: " << probe.status().message();
    }
    static bool eventually(const std::function<bool()>& holds)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (!holds() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return holds();
    }
    static size_t openDescriptors() { return sys::listDirectory("/proc/self/fd").take().size(); }
};
std::string placementName(const testing::TestParamInfo<const Placement*>& row)
{
    return *row.param == Placement::kThreads ? "Threads" : "Processors";
}
INSTANTIATE_TEST_SUITE_P(Placements, StackSamplerTest, testing::Values(&kProcessors, &kThreads), placementName);

TEST_P(StackSamplerTest, SharesOfALaunchedProcessAreRight)
{
    const size_t before = openDescriptors();
    {
        Recording recording;
        Target target(Target::Begin::kStopped, "1000");
        const auto pid = static_cast<uint32_t>(target.pid());
        auto sampler = startStackSampler(optionsFor(target.pid()), recording, &recording, GetParam());
        ASSERT_TRUE(sampler.ok()) << sampler.status().message();
        target.resume();
        const FunctionMap functions = target.functions();
        EXPECT_EQ(target.wait(), 0);
        ASSERT_TRUE(sampler.value()->stop().ok());
        EXPECT_TRUE(sampler.value()->stop().ok()) << "a second time is nothing";

        // Those that a starved reader could not take in time are told of; a hypervisor swallows the ticks of the time
        // that it gives to others.
        EXPECT_GT(recording.samples + recording.lost, 300u) << "far fewer than there were";
        EXPECT_LT(recording.samples, tooManySamples(recording.firstNs, recording.lastNs));
        EXPECT_NEAR(recording.share(functions, "hot_60"), 60, 10);
        EXPECT_NEAR(recording.share(functions, "hot_30"), 30, 8);
        EXPECT_NEAR(recording.share(functions, "hot_10"), 10, 5);
        EXPECT_EQ(recording.byPid.size(), 1u) << "samples of another process";
        EXPECT_EQ(recording.byPid.begin()->first, pid);
        EXPECT_TRUE(recording.names.count("hotsplit"));
        EXPECT_GT(recording.samples, recording.lost) << "rings hold what comes in 400 ms";
        EXPECT_GT(recording.cost, 0u);
        EXPECT_EQ(recording.writtenByCost, recording.samples);
        // It was stopped before its exec: the new program and its mappings were seen.
        ASSERT_EQ(recording.execs.size(), 1u);
        EXPECT_EQ(recording.execs[0], std::pair(static_cast<pid_t>(pid), std::string("hotsplit")));
        const auto own = std::find_if(recording.mappings.begin(), recording.mappings.end(),
                                      [](const MappingEvent& m) { return m.path.ends_with("/hotsplit"); });
        ASSERT_NE(own, recording.mappings.end());
        EXPECT_EQ(own->buildId.size(), 40u) << own->buildId;
        EXPECT_TRUE(recording.exits.count(pid));
    }
    EXPECT_TRUE(eventually([before] { return openDescriptors() <= before; })); // some are closed in their own time
}

TEST_P(StackSamplerTest, ThreadsStartedLaterAreSeenWithTheirNames)
{
    Recording recording;
    Target target(Target::Begin::kRunning, "800", "later-thread");
    const FunctionMap functions = target.functions();
    auto sampler = startStackSampler(optionsFor(target.pid()), recording, nullptr, GetParam());
    ASSERT_TRUE(sampler.ok()) << sampler.status().message();
    target.wait();
    ASSERT_TRUE(sampler.value()->stop().ok());
    EXPECT_EQ(recording.tids.size(), 2u);
    EXPECT_TRUE(recording.names.count("later"));
    EXPECT_NEAR(recording.share(functions, "hot_later"), 33, 12);
}

TEST_P(StackSamplerTest, ChildProcessesAreSampled)
{
    Recording recording;
    Target target(Target::Begin::kStopped, "300", "fork");
    auto sampler = startStackSampler(optionsFor(target.pid()), recording, &recording, GetParam());
    ASSERT_TRUE(sampler.ok()) << sampler.status().message();
    target.resume();
    const FunctionMap functions = target.functions();
    target.wait();
    ASSERT_TRUE(sampler.value()->stop().ok());
    ASSERT_EQ(recording.forks.size(), 1u);
    ASSERT_EQ(recording.byPid.size(), 2u) << "itself, and nobody else's";
    EXPECT_GT(recording.byPid[static_cast<uint32_t>(recording.forks[0])], 60u) << "150 ms at 1 kHz";
    EXPECT_NEAR(recording.share(functions, "hot_child"), 33, 12);
    EXPECT_TRUE(recording.exits.count(static_cast<uint32_t>(recording.forks[0])));
}

TEST_P(StackSamplerTest, ChildrenThatAreThereAlreadyAreSampledToo)
{
    Recording recording;
    Target target(Target::Begin::kRunning, "60000", "fork");
    const auto functions = target.functions();
    while (processesOfFamily(target.pid()).size() < 2)
        ;
    const pid_t child = processesOfFamily(target.pid()).back();
    auto sampler = startStackSampler(optionsFor(target.pid()), recording, nullptr, GetParam());
    ASSERT_TRUE(sampler.ok()) << sampler.status().message();
    ASSERT_TRUE(recording.waitForSamples(200));
    ASSERT_TRUE(sampler.value()->stop().ok());
    EXPECT_EQ(recording.byPid.size(), 2u);
    EXPECT_GT(recording.byPid[static_cast<uint32_t>(child)], 20u);
    ::kill(child, SIGKILL);
}

TEST_P(StackSamplerTest, ShortThreadsAreSampled)
{
    Recording brief;
    Target many(Target::Begin::kStopped, "300", "short-threads");
    auto second = startStackSampler(optionsFor(many.pid()), brief, nullptr, GetParam());
    ASSERT_TRUE(second.ok()) << second.status().message();
    many.resume();
    const FunctionMap functions = many.functions();
    many.wait();
    ASSERT_TRUE(second.value()->stop().ok());
    EXPECT_GT(brief.tids.size(), 20u) << "30 threads of 2 ms each at 1 kHz";
    EXPECT_GT(Recording::countWith(brief.sampled, functions, "hot_short"), 20u);
}

TEST_P(StackSamplerTest, PauseSendsEverythingAndNothingFollowsUntilUnpause)
{
    Recording recording;
    Target target(Target::Begin::kRunning, "60000");
    const FunctionMap functions = target.functions();
    auto started = startStackSampler(optionsFor(target.pid()), recording, nullptr, GetParam());
    ASSERT_TRUE(started.ok()) << started.status().message();
    StackSampler& sampler = *started.value();
    ASSERT_TRUE(recording.waitForSamples(50)) << "samples arrive while it records";
    ASSERT_TRUE(sampler.pause().ok());
    const size_t atPause = recording.samples;
    EXPECT_EQ(recording.writtenByCost, atPause);
    ASSERT_TRUE(sampler.pause().ok()) << "a second time is nothing";
    EXPECT_EQ(recording.samples, atPause);
    ASSERT_TRUE(sampler.unpause().ok());
    ASSERT_TRUE(recording.waitForSamples(atPause + 50));
    target.wait(SIGKILL);
    ASSERT_TRUE(sampler.stop().ok());
}

/// Processor time that a process has used.
uint64_t cpuNsOf(pid_t pid)
{
    clockid_t clock = 0;
    timespec used{};
    if (::clock_getcpuclockid(pid, &clock) != 0 || ::clock_gettime(clock, &used) != 0)
        return 0;
    return static_cast<uint64_t>(used.tv_sec) * 1'000'000'000U + static_cast<uint64_t>(used.tv_nsec);
}

/// Until each of `processes` used a moment's processor time within the last two seconds, however busy the machine is.
bool waitUntilTheyWorked(const std::vector<pid_t>& processes)
{
    const uint64_t deadlineNs = sys::monotonicNs() + 60'000'000'000;
    while (sys::monotonicNs() < deadlineNs) {
        const uint64_t beginNs = sys::monotonicNs();
        std::vector<uint64_t> before;
        for (const pid_t pid : processes)
            before.push_back(cpuNsOf(pid));
        while (sys::monotonicNs() < beginNs + 2'000'000'000) {
            size_t worked = 0;
            for (size_t i = 0; i < processes.size(); ++i)
                worked += cpuNsOf(processes[i]) > before[i] + 10'000'000;
            if (worked == processes.size())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return false;
}

/// A target and the child that it starts; both work until they are killed.
class Family {
public:
    explicit Family(Target::Begin begin) : _target(begin, "60000", "fork") { }
    Family(const Family&) = delete;
    Family& operator=(const Family&) = delete;
    ~Family()
    {
        if (_child > 0)
            ::kill(_child, SIGKILL);
    }
    /// Goes on, if it was stopped, and waits for the child.
    bool begin()
    {
        _target.resume();
        _target.line();
        const uint64_t deadlineNs = sys::monotonicNs() + 60'000'000'000;
        while (processesOfFamily(_target.pid()).size() < 2) {
            if (sys::monotonicNs() > deadlineNs)
                return false;
        }
        _child = processesOfFamily(_target.pid()).back();
        return true;
    }
    [[nodiscard]] std::vector<pid_t> processes() const { return {_target.pid(), _child}; }

private:
    Target _target;
    pid_t _child = 0;
};

/// Samples of `pid` that are not before `beginNs`; -1 when there are others.
long samplesSince(const Recording& recording, pid_t pid, uint64_t beginNs)
{
    const auto found = recording.timesNs.find(static_cast<uint32_t>(pid));
    if (found == recording.timesNs.end())
        return 0;
    const auto& times = found->second;
    return std::all_of(times.begin(), times.end(), [beginNs](uint64_t timeNs) { return timeNs >= beginNs; })
        ? static_cast<long>(times.size())
        : -1;
}

std::vector<StackSamplerOptions> scopesOf(pid_t pid, Placement placement)
{
    std::vector<StackSamplerOptions> scopes{optionsFor(pid)};
    if (placement == Placement::kProcessors) {
        scopes.push_back(optionsFor(pid));
        scopes.back().allProcesses = true;
    }
    return scopes;
}

TEST_P(StackSamplerTest, AWindowHoldsTheLatestOfEveryProcess)
{
    Family family(Target::Begin::kRunning);
    ASSERT_TRUE(family.begin());
    for (StackSamplerOptions options : scopesOf(family.processes().front(), *GetParam())) {
        options.windowNs = 4'000'000'000;
        Recording recording;
        auto started = startStackSampler(options, recording, nullptr, GetParam());
        ASSERT_TRUE(started.ok()) << started.status().message();
        StackSampler& sampler = *started.value();
        // What they do now is older than the window when it is sent.
        ASSERT_TRUE(waitUntilTheyWorked(family.processes()));
        const uint64_t passedNs = sys::monotonicNs() + options.windowNs;
        while (sys::monotonicNs() < passedNs)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(waitUntilTheyWorked(family.processes()));
            EXPECT_EQ(recording.samplesSoFar(), 0u) << "nothing before a pause";
            const uint64_t pauseNs = sys::monotonicNs();
            ASSERT_TRUE(sampler.pause().ok());
            for (const pid_t pid : family.processes())
                EXPECT_GT(samplesSince(recording, pid, pauseNs - options.windowNs), 0) << "round " << round;
            ASSERT_TRUE(sampler.unpause().ok());
            recording.timesNs.clear();
            recording.samples = 0;
        }
        ASSERT_TRUE(sampler.stop().ok());
    }
}

TEST_P(StackSamplerTest, APauseHoldsForEveryProcess)
{
    for (const bool isAll : {false, true}) {
        if (isAll && *GetParam() == Placement::kThreads)
            continue;
        Family family(Target::Begin::kStopped);
        const auto scopes = scopesOf(family.processes().front(), *GetParam());
        Recording recording;
        auto started = startStackSampler(scopes[isAll], recording, nullptr, GetParam());
        ASSERT_TRUE(started.ok()) << started.status().message();
        StackSampler& sampler = *started.value();
        // The child begins while sampling is paused, and is sampled from the pause's end on like its parent.
        ASSERT_TRUE(sampler.pause().ok());
        ASSERT_TRUE(family.begin());
        ASSERT_TRUE(waitUntilTheyWorked(family.processes()));
        const uint64_t unpauseNs = sys::monotonicNs();
        ASSERT_TRUE(sampler.unpause().ok());
        ASSERT_TRUE(waitUntilTheyWorked(family.processes()));
        ASSERT_TRUE(sampler.pause().ok());
        for (const pid_t process : family.processes())
            EXPECT_GT(samplesSince(recording, process, unpauseNs), 0);
        const size_t samples = recording.samples;
        ASSERT_TRUE(waitUntilTheyWorked(family.processes()));
        ASSERT_TRUE(sampler.stop().ok());
        EXPECT_EQ(recording.samples, samples) << "what they did in the pause";
    }
}

TEST_P(StackSamplerTest, DestructionWithoutStopEndsIt)
{
    const size_t before = openDescriptors();
    Recording recording;
    Target target(Target::Begin::kRunning, "60000");
    {
        auto sampler = startStackSampler(optionsFor(target.pid()), recording, nullptr, GetParam());
        ASSERT_TRUE(sampler.ok());
        ASSERT_TRUE(recording.waitForSamples(10));
    }
    EXPECT_TRUE(eventually([before] { return openDescriptors() <= before + 1; })) << "the target's output only";
}

TEST_P(StackSamplerTest, KernelStacksStandBelowUserStacks)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root: kernel stacks and scheduler events are the system's to give";
    Recording recording;
    Target target(Target::Begin::kStopped, "300");
    StackSamplerOptions options = optionsFor(target.pid());
    options.kernelStacks = true;
    options.intervalNs = 200'000;
    auto sampler = startStackSampler(options, recording, &recording, GetParam());
    ASSERT_TRUE(sampler.ok()) << sampler.status().message();
    target.resume();
    const FunctionMap functions = target.functions();
    target.wait();
    ASSERT_TRUE(sampler.value()->stop().ok());
    EXPECT_GT(recording.inKernel, 0u) << "exec and the thread clock work in the kernel";
    EXPECT_LT(recording.inKernel, recording.samples);
    EXPECT_GT(recording.kernelAddresses, 0u);
    EXPECT_EQ(recording.flags, stacks::SessionRecord::kUserStacks | stacks::SessionRecord::kKernelStacks);
}

/// By proc(5): the state follows the name.
bool hasThreadAsleep(pid_t pid, const std::string& name)
{
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const std::string& tid : sys::listDirectory(tasks).take()) {
        const auto stat = sys::readFile(tasks + "/" + tid + "/stat", 4096);
        if (stat.ok() && stat.value().find("(" + name + ") S") != std::string::npos)
            return true;
    }
    return false;
}

void expectWaits(Recording& recording, Target& target, StackSampler& sampler)
{
    const FunctionMap functions = target.functions();
    target.wait();
    ASSERT_TRUE(sampler.stop().ok());
    // It may be kept from leaving the processor for a while after its clock was set.
    EXPECT_GE(recording.blockedNs["waiting"], 19u * 20'000'000);
    EXPECT_GE(Recording::countWith(recording.waits, functions, "wait_outer"), 20u);
    EXPECT_GE(recording.blockedNs["forever"], 19u * 20'000'000)
        << "it began a little later than the sleeping did; recorded: " << testing::PrintToString(recording.blockedNs);
    EXPECT_TRUE(recording.flags & stacks::SessionRecord::kBlockedThreads);
    EXPECT_EQ(recording.problems, "");
}

TEST_P(StackSamplerTest, WaitingThreadsAreRecordedWhenAsked)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root: kernel stacks and scheduler events are the system's to give";
    Recording launched;
    Target target(Target::Begin::kStopped, "20", "", "/waiting");
    StackSamplerOptions options = optionsFor(target.pid());
    options.allThreadStates = true;
    // Others that watch switches at the same time, opened before and after, leave every wait its stack.
    Recording ofBefore, ofAfter;
    StackSamplerOptions ofOthers = optionsFor(::getpid());
    ofOthers.allThreadStates = true;
    auto before = startStackSampler(ofOthers, ofBefore, nullptr, GetParam());
    auto sampler = startStackSampler(options, launched, nullptr, GetParam());
    auto after = startStackSampler(ofOthers, ofAfter, nullptr, GetParam());
    ASSERT_TRUE(sampler.ok()) << sampler.status().message();
    ASSERT_TRUE(before.ok() && after.ok());
    target.resume();
    expectWaits(launched, target, *sampler.value());
    EXPECT_TRUE(before.value()->stop().ok());
    EXPECT_TRUE(after.value()->stop().ok());

    // A thread that waited before and waits on shows as one wait of the whole recording.
    Recording attached;
    Target running(Target::Begin::kRunning, "1000", "", "/waiting");
    running.line();
    ASSERT_TRUE(eventually([&running] { return hasThreadAsleep(running.pid(), "forever"); }));
    options.pid = running.pid();
    const uint64_t beginNs = sys::monotonicNs();
    auto second = startStackSampler(options, attached, nullptr, GetParam());
    ASSERT_TRUE(second.ok()) << second.status().message();
    const uint64_t startedNs = sys::monotonicNs();
    while (sys::monotonicNs() < startedNs + 300'000'000)
        ;
    const uint64_t lastNs = sys::monotonicNs();
    ASSERT_TRUE(second.value()->stop().ok());
    EXPECT_GE(attached.blockedNs["forever"], lastNs - startedNs);
    EXPECT_LE(attached.blockedNs["forever"], sys::monotonicNs() - beginNs);
}

TEST(StackSampler, AllProcessesAndTheKernel)
{
    Target target(Target::Begin::kRunning, "60000");
    Recording everyone;
    StackSamplerOptions options;
    options.allProcesses = true;
    auto sampler = StackSampler::start(options, everyone, nullptr);
    if (!sampler.ok())
        GTEST_SKIP() << "CANNOT SAMPLE THE WHOLE MACHINE: " << sampler.status().message();
    Target later(Target::Begin::kRunning, "200");
    const auto laterPid = static_cast<uint32_t>(later.pid());
    later.wait();
    ASSERT_TRUE(sampler.value()->stop().ok());
    EXPECT_GT(everyone.byPid[static_cast<uint32_t>(target.pid())], 20u);
    EXPECT_GT(everyone.byPid[laterPid], 20u);
    EXPECT_EQ(everyone.inKernel, 0u) << "user stacks only";

    Recording kernel;
    options.allProcesses = false;
    options.pid = 0;
    auto second = StackSampler::start(options, kernel, &kernel);
    ASSERT_TRUE(second.ok()) << second.status().message();
    Target execs(Target::Begin::kRunning, "300", "exec");
    ASSERT_TRUE(kernel.waitForSamples(5)) << "the target's thread clock is a system call";
    execs.wait();
    ASSERT_TRUE(second.value()->stop().ok());
    EXPECT_EQ(kernel.inKernel, kernel.samples);
    EXPECT_GT(kernel.kernelAddresses, 0u);
}

TEST(StackSampler, NothingOfProcessesIsLostOrToldTwiceWhileRingsChange)
{
    StackSamplerOptions options = optionsFor(::getpid());
    options.intervalNs = 60'000'000'000; // the rings are for records of processes
    auto events = EventSet::open(options, &kProcessors);
    if (!events.ok())
        GTEST_SKIP() << "CANNOT SAMPLE ON PROCESSORS HERE: " << events.status().message();
    ASSERT_TRUE(events.value().enable().ok());
    std::map<uint32_t, int> forks; // of our children
    uint64_t lost = 0;
    const auto onRecord = [&](const perf_event_header& header, std::span<const std::byte> payload) {
        ByteCursor cursor(payload);
        const auto pid = cursor.little<uint32_t>();
        const auto parent = cursor.little<uint32_t>();
        if (header.type == PERF_RECORD_FORK && parent == static_cast<uint32_t>(::getpid()) && pid != parent)
            ++forks[pid];
        lost += header.type == PERF_RECORD_LOST;
    };
    std::atomic<bool> isDone{false};
    std::vector<pid_t> children;
    std::thread forking([&] {
        while (!isDone || children.size() < 100) {
            const pid_t child = ::fork();
            if (child == 0)
                ::_exit(0);
            ASSERT_GT(child, 0);
            ::waitpid(child, nullptr, 0);
            children.push_back(child);
        }
    });
    const size_t first = events.value().ringBytes();
    for (uint32_t i = 1; i <= 4; ++i) {
        EXPECT_TRUE(events.value().renew(i % 2 ? 2048 : 8192, first << std::min(i, 3u), onRecord).ok());
    }
    isDone = true;
    forking.join();
    events.value().drain(onRecord, [] { ADD_FAILURE(); });
    EXPECT_EQ(events.value().ringBytes(), first << 3);
    EXPECT_EQ(lost, 0u);
    size_t toldOnce = 0;
    for (const pid_t child : children)
        toldOnce += forks[static_cast<uint32_t>(child)] == 1;
    EXPECT_EQ(toldOnce, children.size());
}

TEST(StackSampler, RefusalsSayWhy)
{
    Recording sink;
    pid_t gone = ::fork();
    if (gone == 0)
        ::_exit(0);
    ::waitpid(gone, nullptr, 0);
    auto started = StackSampler::start(optionsFor(gone), sink, nullptr);
    EXPECT_EQ(started.code(), Code::kNotFound) << started.status().message();
    StackSamplerOptions options = optionsFor(::getpid());
    options.intervalNs = 1;
    EXPECT_EQ(StackSampler::start(options, sink, nullptr).code(), Code::kInvalid);
}

/// Runs in a child that gave its privilege up: prints one line for each claim that does not hold.
std::string claimsOfAnOrdinaryUser()
{
    std::string wrong;
    Recording recording;
    Target target(Target::Begin::kStopped, "500", "later-thread");
    StackSamplerOptions options = optionsFor(target.pid());
    options.kernelStacks = true;
    auto sampler = StackSampler::start(options, recording, nullptr);
    if (!sampler.ok())
        return "skip: " + sampler.status().message();
    target.resume();
    const FunctionMap functions = target.functions();
    if (target.wait() != 0)
        return "skip: the target is not executable for others";
    if (!sampler.value()->stop().ok())
        wrong += "stop failed\n";
    // An ordinary user's rings are small, so that some may be lost; they are told of.
    if (recording.samples < 50 || recording.samples + recording.lost < 250 || recording.byPid.size() != 1)
        wrong += "samples: " + std::to_string(recording.samples) + "\n";
    if (recording.share(functions, "hot_later") < 10 || recording.share(functions, "hot_60") < 20)
        wrong += "shares " + std::to_string(recording.share(functions, "hot_later")) + " "
            + std::to_string(recording.share(functions, "hot_60")) + "\n";
    if (recording.inKernel != 0 || !(recording.flags & stacks::SessionRecord::kUserModeOnly))
        wrong += "kernel mode\n";
    if (recording.problems.find("sudo sysctl kernel.perf_event_paranoid=1") == std::string::npos)
        wrong += "problem: " + recording.problems + "\n";
    auto others = StackSampler::start(optionsFor(1), recording, nullptr);
    if (others.code() != Code::kDenied)
        wrong += "process 1: " + others.status().message() + "\n";
    options.allProcesses = true;
    auto machine = StackSampler::start(options, recording, nullptr);
    if (machine.status().message().find("sudo sysctl kernel.perf_event_paranoid=0") == std::string::npos)
        wrong += "machine: " + machine.status().message() + "\n";
    return wrong;
}

TEST(StackSampler, AnOrdinaryUserSamplesOwnProcesses)
{
    if (::getuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    if (perf::kernelSetting("perf_event_paranoid", 2) != 2)
        GTEST_SKIP() << "needs kernel.perf_event_paranoid 2; run: sudo sysctl kernel.perf_event_paranoid=2";
    auto pipe = sys::makePipe().take();
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        constexpr uid_t kNobody = 65534;
        std::string text = "skip: cannot become nobody";
        // Dumpable again, as any program that user starts is: a target stopped before its exec shares that with us.
        if (::setgroups(0, nullptr) == 0 && ::setgid(kNobody) == 0 && ::setuid(kNobody) == 0
            && ::prctl(PR_SET_DUMPABLE, 1) == 0)
            text = claimsOfAnOrdinaryUser();
        (void)sys::writeFully(pipe.second.get(), text.data(), text.size());
        ::_exit(0);
    }
    pipe.second.reset();
    std::string text;
    char block[4096];
    for (;;) {
        const auto count = sys::readSome(pipe.first.get(), block, sizeof block);
        if (!count.ok() || count.value() == 0)
            break;
        text.append(block, count.value());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    if (text.starts_with("skip"))
        GTEST_SKIP() << text;
    EXPECT_EQ(text, "");
}

} // namespace
} // namespace vnt
