#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <optional>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/foundation/Files.h"
#include "platform/process/SuspendedStart.h"

namespace vnt {
namespace {

constexpr std::string_view kInsertLibraries = "DYLD_INSERT_LIBRARIES";
constexpr std::string_view kOurInsertions[] = {"libheapjournal.dylib", "libobjinject.dylib",
                                               "libremoteobjinject.dylib"};

bool isOurInsertion(std::string_view path)
{
    const std::string name = lastPathComponent(path);
    for (const std::string_view ours : kOurInsertions) {
        if (name == ours)
            return true;
    }
    return false;
}

/// The colon-separated list without our own libraries, so that a profiled profiler does not journal twice.
std::string withoutOurInsertions(std::string_view list)
{
    std::string kept;
    bool first = true;
    for (size_t start = 0; start <= list.size();) {
        const size_t end = std::min(list.find(':', start), list.size());
        const std::string_view entry = list.substr(start, end - start);
        start = end + 1;
        if (isOurInsertion(entry))
            continue;
        if (!first)
            kept += ':';
        first = false;
        kept += entry;
    }
    return kept;
}

/// The launched child is ours to reap, by its pid alone. A host that waits for all its children may have taken it
/// already; one that hangs in the kernel is left to the end of this process.
void reap(pid_t pid)
{
    constexpr int kTries = 200;
    constexpr useconds_t kPauseUs = 10'000;
    for (int i = 0; i < kTries && TEMP_FAILURE_RETRY(::waitpid(pid, nullptr, WNOHANG)) == 0; ++i)
        ::usleep(kPauseUs);
}

} // namespace

int32_t Vantora::launchTarget(const Array& identifiers)
{
    if (_alreadyLaunched) {
        fail(sentences::kLaunchedTwice);
        return RqInvalidPidIdentifier;
    }
    auto environment = processEnvironment();
    const bool withHeapRecorder = identifiers.contains(*String::create(kHeapRecorderID));
    if (withHeapRecorder)
        prepareHeapRecorderEnvironment(environment);
    if (identifiers.contains(*String::create(kOrphanFinderID))) {
        if (!withHeapRecorder)
            environment->set("MallocStackLogging", Number::withInt(1));
        if (userDefaultBool("OrphanFinderInstrumentDisableAutoreleasePoolCacheInTarget"))
            environment->set("NSDisableAutoreleasePoolCache", String::create("YES"));
    }
    return launchSuspendedProcess(*_launch, *environment, *_launchArgs);
}

void Vantora::prepareHeapRecorderEnvironment(Ref<MutableDictionary>& environment)
{
    const VntInstrument& heapRecorder = *instrument(*String::create(kHeapRecorderID));
    environment->remove("MallocStackLogging");
    environment->remove("MallocStackLoggingNoCompact");
    if (const auto zombies = heapRecorder.options()->get<Number>(option::kEnableZombies)) {
        if (zombies->boolValue())
            environment->set("NSZombieEnabled", String::create("YES"));
        else
            environment->remove("NSZombieEnabled");
    }
    environment->set("HIPreventRefEncoding", String::create("1"));
    if (const auto inherited = environment->get<String>(kInsertLibraries))
        environment->set(kInsertLibraries, String::create(withoutOurInsertions(inherited->str())));
    const auto prepared = as<Dictionary>(heapRecorder.service()->dispatch("preparedEnvironmentForLaunch:eventsMask:",
                                                                          {environment, heapEventMask(heapRecorder)}));
    if (prepared)
        environment = MutableDictionary::copyOf(*prepared);
}

int32_t Vantora::launchSuspendedProcess(const String& path, MutableDictionary& environment, const Array& arguments)
{
    std::optional<std::string> executable = path.str();
    if (isDirectory(path.str())) {
        auto inBundle = bundleExecutablePath(path.str());
        executable = inBundle.ok() ? std::optional(inBundle.take()) : std::nullopt;
    }
    environment.set("USER", String::create("root"));
    if (executable) {
        SpawnRequest request;
        request.path = *executable;
        request.flags = kSpawnSetProcessGroup | kSpawnStartSuspended;
        request.arguments.push_back(*executable);
        for (const Ref<Object>& argument : arguments.items())
            request.arguments.push_back(argument->description());
        for (const Dictionary::Entry& entry : environment.entries())
            request.environment.push_back(entry.first->description() + "=" + entry.second->description());
        auto child = spawnProcess(request);
        if (child.ok())
            return child.value();
    }
    const Ref<String> shown = executable ? String::create(*executable) : nullptr;
    fail(formatText(sentences::kSpawnFailed, {shown}));
    return RqInvalidPidIdentifier;
}

void Vantora::killTargetIfLaunched()
{
    if (_allProfiling || _selfProfiling || pid() < 1)
        return;
    // The block holds the session: it may well be disposed of before its turn comes.
    _workerQueue->async([self = Ref<Vantora>(this)] {
        try {
            self->askProcessControl("stopObservingPid:");
            if (!self->_launch)
                return;
            self->askProcessControl("killPid:");
            reap(self->pid());
        } catch (const Exception&) {
            // The server is gone, and with it whoever could have been told.
        }
    });
}

void Vantora::pidDiedCallback(const Number* reported)
{
    if (_allProfiling || _selfProfiling || pid() < 0)
        return;
    if (!reported || !reported->isEqual(*Number::withLong(pid())))
        return;
    asyncStopSaveAndQuit(true);
    assertionFailed(sentences::kShouldNotReturn, "-[Vantora pidDiedCallback:]");
}

} // namespace vnt
