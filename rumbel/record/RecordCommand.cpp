#include <semaphore.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <thread>

#include <Vantora/Ports.h>
#include <Vantora/Vantora>

#include "records/OrphanRecords.h"
#include "rumbel/record/Cf.h"
#include "rumbel/record/LaunchedProgram.h"
#include "rumbel/record/OutputPlace.h"
#include "rumbel/record/RecordOptions.h"
#include "rumbel/recover/RecordingNote.h"
#include "rumbel/terminal/ProgressLine.h"

namespace vnt::rumbel {
namespace {

constexpr int kExitFailure = 1;
constexpr int kExitInterruptedTwice = 130; // 128 + SIGINT
constexpr uint32_t kCensusRateUnitMs = 100;
constexpr uint64_t kNsPerSecond = 1'000'000'000;
constexpr uint64_t kNsPerMs = 1'000'000;
constexpr int32_t kAllProcesses = -3; // as VantoraGetDeviceTarget says it
constexpr uint32_t kIntervalUs = 1000;
constexpr uint32_t kAllStatesIntervalUs = 10'000; // below, the library warns

// What the end of the process needs, from whichever thread the library ends it.
std::atomic<int> problems{0};
std::atomic<bool> interrupted{false};
sem_t connectionLost; // posted when nothing more will come from the server
bool passStatus = false;
char savePath[4096];
// Made once and never destroyed: the process may end on any thread.
std::atomic<RecordingNote*> note{nullptr};
std::atomic<terminal::ProgressLine*> progress{nullptr};

void removeProgress()
{
    if (terminal::ProgressLine* line = progress.load())
        line->remove();
}

void showProgress(const std::string& text)
{
    removeProgress();
    progress.store(new terminal::ProgressLine("rumbel: " + text));
}

std::string bundleName() { return std::filesystem::path(savePath).filename().string() + ".vnt"; }

void reportProblem(CFStringRef, CFErrorRef error)
{
    const std::string description = cf::text(cf::description(error).get());
    problems.fetch_add(1);
    std::fprintf(stderr, "rumbel: %s\n", description.c_str());
    if (description.starts_with("the connection to the server is gone"))
        ::sem_post(&connectionLost);
}

/// Runs inside exit(): the library may end the process itself, after the target's death or an interrupt.
void atEnd(int status, void*)
{
    removeProgress();
    if (RecordingNote* left = note.load())
        left->remove();
    if (interrupted.load())
        launched::interrupt();
    const int programStatus = launched::finish();
    int final = status;
    if (status == 0 && savePath[0] && removeIfEmpty(savePath)) {
        std::fprintf(stderr, "rumbel: nothing was recorded%s\n",
                     problems.load() > 0 ? "; the reasons stand above" : "");
        final = kExitFailure;
    }
    if (final == 0 && savePath[0] && isIncomplete(savePath)) {
        std::fprintf(stderr, "rumbel: the bundle could not be written whole; is the disk full?\n");
        final = kExitFailure;
    }
    if (final == 0 && passStatus && programStatus > 0)
        final = programStatus;
    if (final == status)
        return;
    std::fflush(nullptr);
    ::_exit(final); // the status cannot be changed any other way from here
}

uint64_t monotonicNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * kNsPerSecond + static_cast<uint64_t>(now.tv_nsec);
}

sigset_t interruptSignals()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        ::sigaddset(&signals, number);
    return signals;
}

/// The first interrupt stops and saves on a thread of its own; a second one leaves at once.
void watchInterrupts(VantoraSession session)
{
    std::thread([session] {
        const sigset_t signals = interruptSignals();
        int number = 0;
        (void)::sigwait(&signals, &number);
        interrupted.store(true);
        showProgress("saving " + bundleName());
        std::thread([session] { VantoraAsyncStopAndSave(session); }).detach();
        (void)::sigwait(&signals, &number);
        removeProgress();
        std::fprintf(stderr, "rumbel: interrupted again; what is not saved yet, rumbel recover finds\n");
        ::_exit(kExitInterruptedTwice);
    }).detach();
}

std::string targetLabel(const RecordOptions& options)
{
    if (options.pid)
        return "pid" + std::to_string(*options.pid);
    std::string label = !options.command.empty() ? options.command.front() : options.name;
    label = label.substr(label.rfind('/') + 1);
    return options.allProcesses ? "all" : label;
}

cf::Owned<CFMutableDictionaryRef> sessionOptions(const RecordOptions& options, const std::string& program)
{
    auto dictionary = cf::newDictionary();
    // Some instruments take their options from the session alone.
    cf::set(dictionary, "quillon.vnt.option.windowlimit", cf::number(options.windowSec));
    const uint32_t censusRate = options.censusIntervalMs / kCensusRateUnitMs;
    cf::set(dictionary, "quillon.vnt.option.processcensussamplinginterval", cf::number(censusRate));
    cf::set(dictionary, "quillon.vnt.option.providebacktraces",
            cf::Owned<CFBooleanRef>(VntBoolean(!options.noBacktraces)));
    cf::set(dictionary, "quillon.vnt.option.includecontext", cf::Owned<CFBooleanRef>(VntBoolean(options.contents)));
    if (options.contents)
        ::setenv(orphans::kContentsVariable, "1", /*overwrite=*/1); // for the search at the program's exit
    if (options.zombies)
        cf::set(dictionary, "quillon.vnt.option.enablezombies", cf::Owned<CFBooleanRef>(VntBoolean(true)));
    if (options.referenceCounts)
        cf::set(dictionary, "quillon.vnt.option.referencecounting", cf::Owned<CFBooleanRef>(VntBoolean(true)));
    if (options.classNames)
        cf::set(dictionary, "quillon.vnt.option.identifycpp", cf::Owned<CFBooleanRef>(VntBoolean(true)));
    if (options.allProcesses)
        cf::set(dictionary, "quillon.vnt.option.rumbelattach", cf::string("-1"));
    else if (options.pid)
        cf::set(dictionary, "quillon.vnt.option.rumbelattach", cf::string(std::to_string(*options.pid)));
    else if (!options.name.empty())
        cf::set(dictionary, "quillon.vnt.option.rumbelattach", cf::string(options.name));
    else {
        cf::set(dictionary, "quillon.vnt.option.rumbellaunch", cf::string(program));
        auto arguments = cf::newArray();
        for (size_t i = 1; i < options.command.size(); ++i)
            cf::append(arguments, cf::string(options.command[i]));
        cf::set(dictionary, "quillon.vnt.option.rumbellaunchargs", arguments);
    }
    return dictionary;
}

int32_t stackOptions(const RecordOptions& options)
{
    int32_t stacks = Vantora_Option_StackSamplerOptions_CollectUserStacks;
    if (options.stacks == "kernel")
        stacks = Vantora_Option_StackSamplerOptions_CollectKernelStacks;
    else if (options.stacks == "both")
        stacks = Vantora_Option_StackSamplerOptions_CollectUserAndKernelStacks;
    if (options.allStates)
        stacks |= Vantora_Option_StackSamplerOptions_AllThreadStates;
    return stacks;
}

uint32_t intervalUs(const RecordOptions& options)
{
    return options.intervalUs.value_or(options.allStates ? kAllStatesIntervalUs : kIntervalUs);
}

cf::Owned<CFMutableDictionaryRef> instrumentOptions(const RecordOptions& options)
{
    auto dictionary = cf::newDictionary();
    cf::set(dictionary, "quillon.vnt.option.samplinginterval", cf::number(intervalUs(options)));
    cf::set(dictionary, "quillon.vnt.option.stacksampleroptions", cf::number(stackOptions(options)));
    return dictionary;
}

int fail(CFErrorRef error)
{
    const cf::Owned<CFErrorRef> owned(error);
    std::fprintf(stderr, "rumbel: %s\n",
                 error ? cf::text(cf::description(error).get()).c_str() : "the target is no process identifier");
    return kExitFailure;
}

/// The server tells why it could not attach before it tells that it could not; the reason comes on a thread of its own.
void waitForReason(CFErrorRef error)
{
    const bool comes = error && cf::text(cf::description(error).get()).find("unable to attach") != std::string::npos;
    for (int i = 0; comes && i < 1000 && problems.load() == 0; ++i)
        ::usleep(1000);
}

pid_t targetPid(VantoraSession session)
{
    const cf::Owned<CFStringRef> text(VantoraGetDeviceTarget(session));
    return std::atoi(cf::text(text.get()).c_str());
}

/// The library keeps one reference more than it needs, for good; apart, so that the leak checker's list can name it.
[[gnu::noinline]] void setSaveFile(VantoraSession session, const std::string& path)
{
    VantoraSetSaveFile(session, cf::string(path).get());
}

std::string identifierOf(const std::string& name)
{
    return name.find('.') == std::string::npos ? "quillon.vnt." + name : name;
}

bool addInstruments(VantoraSession session, const RecordOptions& options, CFErrorRef* error)
{
    const auto instrument = instrumentOptions(options);
    for (const std::string& name : options.instruments) {
        if (!VantoraAddInstrument(session, cf::string(identifierOf(name)).get(), instrument.get(), reportProblem,
                                  error))
            return false;
    }
    return true;
}

/// Waits until the server is gone, which is true, or the clock says `untilNs`.
bool serverGoesBefore(uint64_t untilNs)
{
    const timespec deadline{static_cast<time_t>(untilNs / kNsPerSecond), static_cast<long>(untilNs % kNsPerSecond)};
    int result = 0;
    do {
        result = ::sem_clockwait(&connectionLost, CLOCK_MONOTONIC, &deadline);
    } while (result != 0 && errno == EINTR);
    return result == 0;
}

/// Returns after `seconds` (0: not for that reason) or when the server is gone; the target's end and an interrupt end
/// the process. False: the server is gone.
bool recordFor(double seconds, bool allProcesses)
{
    // A program loads its libraries as it begins; one that runs loads few. Reading all processes costs more.
    constexpr uint64_t kRefreshMs[] = {100, 500, 2'000, 10'000, 30'000};
    const uint64_t laterMs = allProcesses ? 600'000 : 60'000;
    const uint64_t start = monotonicNs();
    const uint64_t end = seconds > 0 ? start + static_cast<uint64_t>(seconds * 1e9) : UINT64_MAX;
    for (size_t i = allProcesses ? 3 : 0;; ++i) {
        const uint64_t afterMs = i < std::size(kRefreshMs) ? kRefreshMs[i] : laterMs * (i + 1 - std::size(kRefreshMs));
        const uint64_t next = start + std::max<uint64_t>(afterMs, 1) * kNsPerMs;
        if (serverGoesBefore(std::min(next, end)))
            return false;
        if (next >= end)
            return true;
        note.load()->refresh();
    }
}

/// Ends the process without a second pass through exit(): the library may be in it on another thread.
[[noreturn]] void leave(int status)
{
    std::fflush(nullptr);
    atEnd(status, nullptr);
    std::fflush(nullptr);
    ::_exit(status);
}

int stopAndSave(VantoraSession session, const std::string& path)
{
    showProgress("saving " + bundleName());
    CFErrorRef error = nullptr;
    bool saved = VantoraStop(session, nullptr, &error);
    if (!saved)
        fail(error);
    error = nullptr;
    if (!VantoraSave(session, cf::string(path).get(), &error)) {
        saved = false;
        fail(error);
    }
    removeProgress();
    if (saved && !removeIfEmpty(path))
        std::printf("rumbel: Session saved at %s.vnt\n", path.c_str());
    VantoraDispose(session, nullptr);
    // The kill of a launched target may still be on its way: the session goes when it is done.
    for (int i = 0; i < 2000 && VantoraGetCurrent(); ++i)
        ::usleep(1000);
    return saved ? 0 : kExitFailure;
}

/// What the session will write into the archives, for the case that it never comes to that.
void takeNote(VantoraSession session, const RecordOptions& options)
{
    NotedRecording recording;
    recording.output = std::filesystem::absolute(savePath).string();
    for (const std::string& name : options.instruments)
        recording.instruments.push_back(identifierOf(name));
    recording.target = options.allProcesses ? kAllProcesses : targetPid(session);
    recording.intervalUs = intervalUs(options);
    recording.windowSec = options.windowSec;
    recording.stackOptions = stackOptions(options);
    recording.censusRate = options.censusIntervalMs / kCensusRateUnitMs;
    recording.zombies = options.zombies;
    recording.referenceCounts = options.referenceCounts;
    recording.classNames = options.classNames;
    recording.leakContents = options.contents;
    recording.leakBacktraces = !options.noBacktraces;
    note.store(new RecordingNote(std::move(recording)));
    note.load()->refresh();
}

std::string locateProgram(const RecordOptions& options)
{
    if (options.command.empty())
        return {};
    std::string program = findProgram(options.command.front());
    if (program.empty())
        std::fprintf(stderr, "rumbel: %s: %s\n", options.command.front().c_str(), std::strerror(errno));
    return program;
}

} // namespace

int runRecord(const RecordOptions& options)
{
    const std::string program = locateProgram(options);
    if (!options.command.empty() && program.empty())
        return kExitFailure;
    const OutputPlace place = prepareOutput(options.output, targetLabel(options));
    if (!place.error.empty()) {
        std::fprintf(stderr, "rumbel: cannot save there: %s\n", place.error.c_str());
        return kExitFailure;
    }
    passStatus = options.passStatus;
    ::sem_init(&connectionLost, /*pshared=*/0, /*value=*/0);

    // Before any thread: every thread inherits it, and only the watcher takes these signals.
    const sigset_t signals = interruptSignals();
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    if (options.system)
        vnt_use_system_namespace();
    CFErrorRef error = nullptr;
    const auto dictionary = sessionOptions(options, program);
    VantoraSession session = VantoraCreate(nullptr, cf::string("-2").get(), dictionary.get(), &error);
    if (!session)
        return fail(error);
    setSaveFile(session, place.path);
    if (!addInstruments(session, options, &error)) {
        VantoraDispose(session, nullptr);
        return fail(error);
    }
    std::snprintf(savePath, sizeof savePath, "%s", place.path.c_str());
    ::on_exit(atEnd, nullptr);
    watchInterrupts(session);
    const bool started = VantoraStart(session, nullptr, &error);
    const bool launches = !options.command.empty();
    if (launches && targetPid(session) > 0)
        launched::adopt(targetPid(session));
    if (!started) {
        launched::killNow();
        savePath[0] = '\0';
        waitForReason(error);
        const int status = fail(error);
        VantoraDispose(session, nullptr);
        leave(status);
    }
    takeNote(session, options);
    if (!launches) // a program that was launched may be using the terminal
        showProgress("recording " + targetLabel(options) + "; Ctrl-C stops and saves");
    if (!recordFor(options.durationSec, options.allProcesses))
        launched::killNow(); // the server, which would end it, cannot
    leave(stopAndSave(session, place.path));
}

} // namespace vnt::rumbel
