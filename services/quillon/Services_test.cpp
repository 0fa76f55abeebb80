#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "platform/base/sys.h"
#include "records/Signature.h"
#include "services/common/ProcFs.h"
#include "services/quillon/CapabilitiesService.h"
#include "services/quillon/DeviceInfoService.h"
#include "services/quillon/KernelSymbols.h"
#include "services/quillon/ProcessControlService.h"
#include "services/quillon/ZeltoTapService.h"

namespace vnt {
namespace {

/// Keeps what a service sends.
class KeepingChannel final : public ServiceChannel {
public:
    Status trySendData(std::span<const std::byte>) override { return {}; }
    Status sendData(std::span<const std::byte>) override { return {}; }
    Status sendCallback(std::string_view selector, const Array& arguments) override
    {
        MutexLock guard(_lock);
        _sent.push_back(std::string(selector) + arguments.at(0)->description());
        _changed.notifyAll();
        return {};
    }
    Status sendException(const Exception& exception) override
    {
        MutexLock guard(_lock);
        _sent.push_back(exception.reason());
        _changed.notifyAll();
        return {};
    }
    std::string next()
    {
        MutexLock guard(_lock);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (_sent.empty() && _changed.waitUntil(guard, deadline)) { }
        if (_sent.empty())
            return "nothing within 30 s";
        std::string first = _sent.front();
        _sent.erase(_sent.begin());
        return first;
    }

private:
    Mutex _lock;
    Condition _changed;
    std::vector<std::string> _sent;
};

/// A child that only waits, ended with the object.
class Sleeper {
public:
    explicit Sleeper(const char* program = "/bin/sleep")
    {
        auto [readEnd, writeEnd] = sys::makePipe().take();
        _pid = ::fork();
        if (_pid == 0) {
            ::execl(program, program, "600", nullptr);
            ::_exit(127);
        }
        writeEnd.reset();
        char end;
        (void)sys::readSome(readEnd.get(), &end, 1); // end of file: the program has been executed
        // Once it sleeps with its libraries loaded, its mappings stay as they are.
        for (int i = 0; i < 30'000 && (state() != 'S' || !hasLoadedItsLibraries()); ++i)
            ::usleep(1000);
    }
    ~Sleeper()
    {
        ::kill(_pid, SIGKILL);
        ::waitpid(_pid, nullptr, 0);
    }
    [[nodiscard]] pid_t pid() const { return _pid; }
    [[nodiscard]] char state() const { return procfs::processStat(_pid).take().state; }
    char awaitState(std::string_view wanted) const
    {
        for (int i = 0; i < 30'000 && wanted.find(state()) == std::string_view::npos; ++i)
            ::usleep(1000);
        return state();
    }

private:
    [[nodiscard]] bool hasLoadedItsLibraries() const
    {
        const auto mappings = procfs::codeMappings(_pid);
        return mappings.ok() && std::any_of(mappings.value().begin(), mappings.value().end(), [](const auto& mapping) {
                   return mapping.path.find("/libc.so") != std::string::npos;
               });
    }

    pid_t _pid = -1;
};

Ref<Array> pidArguments(int64_t pid) { return Array::create({Number::withInt64(pid)}); }

TEST(KernelSymbols, CoverTheirAddressesOnce)
{
    const std::string text =
        "0000000000000000 A fixed\nffffffff81000000 T _stext\nffffffff81000000 t alias\n"
        "ffffffff81000100 T second\nffffffff81000180 d data\nffffffffc0000000 t inside\t[module]\nbroken\n";
    const auto symbols =
        kernelSymbolsIn(text, {0xffffffff81000150, 0xffffffff81000001, 0xffffffff81000101, 0xffffffffc0000010, 0x1000});
    ASSERT_EQ(symbols.size(), 3u);
    EXPECT_EQ(symbols[0].name, "_stext");
    EXPECT_EQ(symbols[1].name, "second");
    EXPECT_EQ(symbols[2].name, "inside [module]");
    EXPECT_TRUE(kernelSymbolsIn("", {1, 2}).empty());
}

TEST(ProcFs, ReadsBuildIdsFromNotesAndNothingElse)
{
    const auto note = [](uint32_t nameSize, uint32_t dataSize, uint32_t type, std::string rest) {
        std::string bytes(12, '\0');
        std::memcpy(bytes.data(), &nameSize, 4);
        std::memcpy(bytes.data() + 4, &dataSize, 4);
        std::memcpy(bytes.data() + 8, &type, 4);
        return bytes + rest;
    };
    const std::string gnu("GNU\0", 4);
    EXPECT_EQ(procfs::buildIdInNotes(note(4, 4, 1, gnu + "abcd") + note(4, 2, 3, gnu + "\x01\xfe\0\0")), "01fe");
    for (const std::string& hostile :
         {std::string(), std::string("GNU"), note(4, 0xffffffff, 3, gnu), note(0xfffffffd, 4, 3, gnu),
          note(4, 20, 3, gnu + "short"), note(4, 4, 3, std::string("XYZ\0", 4) + "abcd")})
        EXPECT_EQ(procfs::buildIdInNotes(hostile), "");
}

TEST(ProcFs, CompletesLongNames)
{
    const std::string program = sys::environmentOr("TMPDIR", "/tmp") + "/a-program-with-a-long-name";
    std::filesystem::copy_file("/bin/sleep", program, std::filesystem::copy_options::overwrite_existing);
    const Sleeper sleeper(program.c_str());
    EXPECT_EQ(procfs::executableName(sleeper.pid()).take(), "a-program-with-a-long-name");
    EXPECT_TRUE(procfs::isRunning(sleeper.pid()));
    EXPECT_TRUE(procfs::isRunning(0));
    EXPECT_FALSE(procfs::isRunning(-1));
    ::kill(sleeper.pid(), SIGKILL);
    EXPECT_EQ(sleeper.awaitState("Z"), 'Z');
    EXPECT_FALSE(procfs::isRunning(sleeper.pid())); // a zombie has ended
}

TEST(SignatureStore, FollowsAProcessBeyondItsEnd)
{
    SignatureStore store;
    pid_t pid = 0;
    size_t imagesAtStart = 0;
    const auto images = [&] { return as<Array>(as<Dictionary>(store.signatureOf(pid))->get(signature::kImages)); };
    {
        const Sleeper sleeper;
        pid = sleeper.pid();
        const auto first = as<Dictionary>(store.signatureOf(pid));
        ASSERT_TRUE(first);
        EXPECT_EQ(first->get<String>(signature::kName)->str(), "sleep");
        imagesAtStart = images()->count();
        ASSERT_GT(imagesAtStart, 2u);
        const auto* image = as<Dictionary>(images()->at(0).get());
        EXPECT_GE(image->get<String>(signature::kImageBuildId)->str().size(), 16u);
        EXPECT_EQ(store.signatureOf(pid).get(), store.signatureOf(pid).get()) << "unchanged ones are not made again";

        store.onMapping({77, pid, 0x5000, 0x1000, 0, "/opt/plugin.so", "abcd"});
        EXPECT_EQ(images()->count(), imagesAtStart + 1);
        const auto* plugin = as<Dictionary>(images()->at(imagesAtStart).get());
        EXPECT_EQ(plugin->get<Number>(signature::kImageTime)->uint64Value(), 77u);
        EXPECT_EQ(store.expiredSignatures()->count(), 0u);
    }
    EXPECT_EQ(images()->count(), imagesAtStart + 1);
    EXPECT_EQ(store.expiredSignatures()->count(), 1u);
    EXPECT_FALSE(store.signatureOf(1 << 22));
    EXPECT_FALSE(store.signatureOf(-7));
}

TEST(SignatureStore, KeepsBothSidesOfAnExec)
{
    SignatureStore store;
    const Sleeper sleeper;
    const auto images = [&] {
        return as<Array>(as<Dictionary>(store.signatureOf(sleeper.pid()))->get(signature::kImages));
    };
    const size_t before = images()->count();
    store.onExec(1000, sleeper.pid(), "other");
    store.onMapping({1001, sleeper.pid(), 0x400000, 0x1000, 0, "/bin/other", ""});
    const auto after = images();
    // The boundary, the new image, and then what the process really maps: all of it again.
    ASSERT_EQ(after->count(), before + 2 + before);
    EXPECT_EQ(as<Dictionary>(after->at(before).get())->get<Number>(signature::kImageExec)->uint64Value(), 1000u);
    EXPECT_EQ(as<Dictionary>(after->at(before + 1).get())->get<String>(signature::kImagePath)->str(), "/bin/other");
}

TEST(SignatureStore, ChildrenStandInTheirParentsSignature)
{
    SignatureStore store;
    const Sleeper parent;
    const Sleeper living; // a child as far as the store is told
    const auto children = [&] {
        const auto signature = as<Dictionary>(store.signatureOf(parent.pid()));
        std::map<int, const Dictionary*> byPid;
        const auto list = signature->get<Array>(signature::kChildren);
        for (const Ref<Object>& item : list ? list->items() : std::vector<Ref<Object>>()) {
            const auto* child = as<Dictionary>(item.get());
            byPid[child->get<Number>(signature::kPid)->intValue()] = child;
        }
        return byPid;
    };
    (void)store.signatureOf(parent.pid());
    store.onFork(1, parent.pid(), living.pid());
    EXPECT_TRUE(children().empty()) << "nobody recorded it yet";
    store.keepFamilyOf(parent.pid());
    constexpr pid_t kGone = 1 << 30; // no process: it has ended
    store.onFork(10, living.pid(), kGone);
    store.onExec(20, kGone, "brief");
    store.onMapping({21, kGone, 0x400000, 0x1000, 0, "/bin/brief", "abcd"});
    store.onExit(30, kGone);
    store.onFork(40, ::getpid(), kGone + 1); // another family's

    const auto found = children();
    ASSERT_EQ(found.size(), 2u);
    ASSERT_TRUE(found.count(kGone) && found.count(living.pid()));
    EXPECT_EQ(found.at(kGone)->get<String>(signature::kName)->str(), "brief");
    const auto images = found.at(kGone)->get<Array>(signature::kImages);
    const auto* last = as<Dictionary>(images->at(images->count() - 1).get());
    EXPECT_EQ(last->get<String>(signature::kImagePath)->str(), "/bin/brief");
    EXPECT_EQ(found.at(living.pid())->get<String>(signature::kName)->str(), "sleep");
    EXPECT_FALSE(as<Dictionary>(store.signatureOf(living.pid()))->get<Array>(signature::kChildren));
}

TEST(SignatureStore, RemovedFilesAndCompiledCodeKeepTheirNames)
{
    const std::string directory = sys::environmentOr("TMPDIR", "/tmp");
    const std::string program = directory + "/removed-program";
    std::filesystem::copy_file("/bin/sleep", program, std::filesystem::copy_options::overwrite_existing);
    const std::string wanted = procfs::buildIdOfFile(program);
    SignatureStore store;
    const Sleeper sleeper(program.c_str());
    std::filesystem::remove(program);
    EXPECT_EQ(procfs::buildIdInMemory(sleeper.pid(), program + " (deleted)"), wanted) << "without the file";
    const std::string map = "/tmp/perf-" + std::to_string(sleeper.pid()) + ".map";
    const std::string text = "7f0000000000 10 compiled\n";
    ASSERT_TRUE(sys::writeFileAtomically(map, std::as_bytes(std::span(text)), 0600).ok());
    const auto signature = as<Dictionary>(store.signatureOf(sleeper.pid()));
    std::filesystem::remove(map);
    ASSERT_TRUE(signature);
    const auto images = signature->get<Array>(signature::kImages);
    EXPECT_EQ(as<Dictionary>(images->at(0).get())->get<String>(signature::kImageBuildId)->str(), wanted);
    const auto kept = signature->get<Data>(signature::kPerfMap);
    ASSERT_TRUE(kept);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(kept->bytes().data()), kept->bytes().size()), text);

    // A link might lead to what the process itself could not read.
    std::filesystem::create_symlink("/etc/hostname", map);
    SignatureStore other;
    EXPECT_FALSE(as<Dictionary>(other.signatureOf(sleeper.pid()))->get<Data>(signature::kPerfMap));
    std::filesystem::remove(map);
}

TEST(SignatureStore, TheKernelHasOneToo)
{
    SignatureStore store;
    const auto kernel = as<Dictionary>(store.signatureOf(0));
    ASSERT_TRUE(kernel);
    EXPECT_TRUE(kernel->get<String>(signature::kKernelRelease));
    EXPECT_GT(kernel->get<Data>(signature::kVdso)->bytes().size(), 4096u);
}

TEST(ProcessControl, HoldsAndReleasesATarget)
{
    auto channel = makeRef<KeepingChannel>();
    const Sleeper sleeper;
    sleeper.awaitState("S");
    {
        AccessGuard guard(::geteuid(), {}); // the processes here are our own
        ProcessControlService service(channel, ::getpid(), guard);
        service.onCall("suspendPid:", pidArguments(sleeper.pid()));
        // Held by ptrace where that is allowed, by a signal elsewhere.
        EXPECT_NE(std::string("tT").find(sleeper.state()), std::string::npos) << sleeper.state();
        service.onCall("resumePid:", pidArguments(sleeper.pid()));
        EXPECT_EQ(sleeper.awaitState("S"), 'S');
        service.onCall("suspendPid:", pidArguments(sleeper.pid()));
    }
    EXPECT_EQ(sleeper.awaitState("S"), 'S') << "what a session suspended runs again when it closes";
}

/// A child that counts the queued signals it gets, and ends with status 1 when it has got `expected` of them.
pid_t signalCounter(int expected)
{
    auto [readEnd, writeEnd] = sys::makePipe().take();
    const pid_t pid = ::fork();
    if (pid == 0) {
        static volatile sig_atomic_t count = 0;
        struct sigaction action { };
        action.sa_handler = [](int) { count = count + 1; };
        ::sigaction(SIGRTMIN, &action, nullptr);
        (void)::write(writeEnd.get(), "r", 1);
        while (count < expected) { }
        ::_exit(1);
    }
    char ready = 0;
    (void)sys::readSome(readEnd.get(), &ready, 1);
    return pid;
}

TEST(ProcessControl, NoSignalIsLostWhileATargetIsHeld)
{
    auto channel = makeRef<KeepingChannel>();
    constexpr int kSignals = 200'000;
    const pid_t pid = signalCounter(kSignals);
    std::atomic<bool> sent{false};
    std::thread sender([&] {
        // Real-time signals queue up, so each one counts (signal(7)); a full queue is tried again.
        for (int i = 0; i < kSignals; ++i) {
            while (::sigqueue(pid, SIGRTMIN, {}) != 0 && errno == EAGAIN)
                ::usleep(100);
        }
        sent = true;
    });
    {
        AccessGuard guard(::geteuid(), {}); // the processes here are our own
        ProcessControlService service(channel, ::getpid(), guard);
        while (!sent) {
            service.onCall("suspendPid:", pidArguments(pid));
            service.onCall("resumePid:", pidArguments(pid));
        }
    }
    sender.join();
    int status = 0;
    pid_t ended = 0;
    for (int i = 0; i < 10'000 && (ended = ::waitpid(pid, &status, WNOHANG)) == 0; ++i)
        ::usleep(1000);
    EXPECT_TRUE(ended == pid && WIFEXITED(status) && WEXITSTATUS(status) == 1)
        << "a signal was lost: the child waits for it";
    if (ended == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, nullptr, 0);
    }
}

TEST(ProcessControl, LeavesAStoppedTargetStopped)
{
    auto channel = makeRef<KeepingChannel>();
    const Sleeper sleeper;
    ::kill(sleeper.pid(), SIGSTOP);
    ASSERT_EQ(sleeper.awaitState("T"), 'T');
    AccessGuard guard(::geteuid(), {}); // the processes here are our own
    ProcessControlService service(channel, ::getpid(), guard);
    service.onCall("suspendPid:", pidArguments(sleeper.pid()));
    service.onCall("resumePid:", pidArguments(sleeper.pid()));
    EXPECT_EQ(sleeper.state(), 'T');
    // Without a suspension of the session's own, resuming lets a launched program go.
    service.onCall("resumePid:", pidArguments(sleeper.pid()));
    EXPECT_EQ(sleeper.awaitState("S"), 'S');
}

TEST(ProcessControl, ReportsDeathsAndKills)
{
    auto channel = makeRef<KeepingChannel>();
    const Sleeper first;
    const Sleeper second;
    AccessGuard guard(::geteuid(), {}); // the processes here are our own
    ProcessControlService service(channel, ::getpid(), guard);
    service.onCall("startObservingPid:", pidArguments(first.pid()));
    service.onCall("startObservingPid:", pidArguments(second.pid()));
    service.onCall("stopObservingPid:", pidArguments(first.pid()));
    service.onCall("killPid:", pidArguments(first.pid()));
    service.onCall("killPid:", pidArguments(second.pid()));
    // A zombie counts as dead: nobody has waited for either. The unobserved one is not reported.
    EXPECT_EQ(channel->next(), "pidDiedCallback:" + std::to_string(second.pid()));
    EXPECT_EQ(first.awaitState("Z"), 'Z');
}

TEST(ProcessControl, RefusesNonsenseAndSparesTheUntouchable)
{
    auto channel = makeRef<KeepingChannel>();
    AccessGuard guard(::geteuid(), {}); // the processes here are our own
    ProcessControlService service(channel, ::getpid(), guard);
    for (const int64_t pid : {int64_t{0}, int64_t{-1}, int64_t{::getpid()}}) {
        EXPECT_NO_THROW(service.onCall("suspendPid:", pidArguments(pid)));
        EXPECT_NO_THROW(service.onCall("killPid:", pidArguments(pid)));
    }
    const struct {
        const char* selector;
        Ref<Array> arguments;
    } rows[] = {
        {"suspendPid:", Array::create()},
        {"suspendPid:", Array::create({String::create("1")})},
        {"suspendPid:", Array::create({Number::withBool(true)})},
        {"suspendPid:", pidArguments(int64_t{1} << 40)},
        {"startObservingPid:", pidArguments(1 << 22)},
        {"formatDisk:", pidArguments(1)},
    };
    for (const auto& row : rows)
        EXPECT_THROW(service.onCall(row.selector, row.arguments), Exception) << row.selector;
}

TEST(ZeltoTap, ConfigurationsBecomeSamplerOptions)
{
    const auto make = [](int32_t kind, KxZeltoTime interval, std::initializer_list<int32_t> stacks, bool all) {
        auto trigger = KxZeltoTriggerConfig::create();
        trigger->setKind(kind);
        trigger->setSampleInterval(interval);
        trigger->addAction(1, stacks);
        if (all)
            trigger->setIsAllProcesses(true);
        else
            trigger->includePID(42);
        auto tap = KxZeltoTapConfig::create();
        tap->addTriggerConfig(trigger);
        return tap;
    };
    auto options = stackSamplerOptions(*make(1, {250, 1000}, {1, 0}, false));
    ASSERT_TRUE(options.ok());
    EXPECT_EQ(options.value().intervalNs, 250'000u);
    EXPECT_EQ(options.value().pid, 42);
    EXPECT_TRUE(options.value().userStacks && !options.value().kernelStacks && !options.value().allThreadStates);
    options = stackSamplerOptions(*make(1, {0, 1000}, {1, 1}, true));
    ASSERT_TRUE(options.ok());
    EXPECT_EQ(options.value().intervalNs, 10'000u) << "never without a pause";
    EXPECT_TRUE(options.value().allProcesses && options.value().kernelStacks);
    EXPECT_FALSE(stackSamplerOptions(*make(3, {1, 1000}, {1, 0}, false)).ok());
    EXPECT_FALSE(stackSamplerOptions(*make(1, {1, 0}, {1, 0}, false)).ok());
    EXPECT_FALSE(stackSamplerOptions(*KxZeltoTapConfig::create()).ok());
}

TEST(DeviceInfo, DescribesTheMachine)
{
    SignatureStore store;
    AccessGuard guard(::geteuid(), {});
    DeviceInfoService service(store, guard);
    const auto ask = [&](const char* selector) { return service.onCall(selector, Array::create()); };
    const auto hardware = as<Dictionary>(ask("hardwareInformation"));
    EXPECT_GT(hardware->get<Number>("memoryBytes")->uint64Value(), 1u << 20);
    const int processors = hardware->get<Number>("numberOfProcessors")->intValue();
    EXPECT_LE(hardware->get<Number>("activeProcessors")->intValue(), processors);
    EXPECT_LE(hardware->get<Number>("physicalCores")->intValue(), processors);
    EXPECT_FALSE(hardware->get<String>("processorModel")->str().empty());
    const auto system = as<Dictionary>(ask("systemInformation"));
    EXPECT_EQ(system->get<String>("kernelName")->str(), "Linux");
    EXPECT_FALSE(system->get<String>("kernelRelease")->str().empty() || system->get<String>("hostName")->str().empty());
    // The difference of the clocks dates a recording's instants.
    const double now =
        static_cast<double>(sys::monotonicNs()) * 1e-9 + system->get<Number>("clockOffsetSec")->doubleValue();
    EXPECT_NEAR(now, sys::realtimeSec(), 60);
    bool found = false;
    const auto processes = as<Array>(ask("runningProcesses"));
    for (const Ref<Object>& record : processes->items())
        found = found || as<Dictionary>(record)->get<Number>("pid")->intValue() == ::getpid();
    EXPECT_TRUE(found);
    EXPECT_THROW(ask("nothing"), Exception);
    EXPECT_FALSE(CapabilitiesService().onCall("versionForCapability:", Array::create({String::create("quillon.no")})));
}

} // namespace
} // namespace vnt
