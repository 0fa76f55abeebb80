#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/Catalogue.h"
#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/PropertyList.h"

/// From the target string, and the tool's options, to a pid, all processes, the kernel or a program to launch.
namespace vnt {
namespace {

constexpr std::string_view kTargetAll = "-1";
constexpr std::string_view kTargetFromOptions = "-2";
constexpr std::string_view kTargetKernel = "0";
constexpr size_t kMaxInfoBytes = 16u << 20;

/// Leading decimal number of `text`, clamped to 32 bits; 0 when there is none.
int32_t leadingNumber(const String& text)
{
    const long long value = std::strtoll(text.utf8(), nullptr, 10);
    return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

struct NameMatches {
    Ref<MutableDictionary> exact = MutableDictionary::create(); // pid -> name
    Ref<MutableDictionary> partial = MutableDictionary::create();
};

NameMatches matchNames(const Array& processes, const std::string& hint)
{
    NameMatches matches;
    for (const Ref<Object>& item : processes.items()) {
        const auto* record = as<Dictionary>(item.get());
        const auto name = record ? record->get<String>("name") : nullptr;
        const auto pid = record ? record->get<Number>("pid") : nullptr;
        if (!name || !pid)
            continue;
        if (name->str() == hint)
            matches.exact->set(Ref<Object>(pid), Ref<Object>(name));
        else if (name->str().find(hint) != std::string::npos)
            matches.partial->set(Ref<Object>(pid), Ref<Object>(name));
    }
    return matches;
}

} // namespace

bool Vantora::setupTarget(const String* target)
{
    VNT_ON_QUEUE(_workerQueue);
    if (!target)
        return fail(sentences::kMissingTarget);
    if (*target != kTargetFromOptions)
        return setupTargetAttach(target);
    _rumbelCreated = true;
    if (const auto attach = _options->get<String>(option::kRumbelAttach))
        return setupTargetAttach(attach.get()) || lookupProcessNameFromHint(attach.get());
    if (const auto launch = _options->get<String>(option::kRumbelLaunch)) {
        _launch = launch;
        _launchArgs = _options->get<Array>(option::kRumbelLaunchArgs);
        if (!_launchArgs)
            _launchArgs = Array::create();
        setTargetName(withoutPathExtension(lastPathComponent(launch->str())));
        return true;
    }
    return fail(sentences::kUndeterminedProcess);
}

bool Vantora::setupTargetAttach(const String* target)
{
    if (!target)
        return fail(sentences::kMissingTarget);
    if (*target == kTargetAll) {
        _pid.store(kAllProcessesPid, std::memory_order_relaxed);
        _allProfiling = true;
        return true;
    }
    if (*target == kTargetKernel)
        _pid.store(kKernelPid, std::memory_order_relaxed);
    else if (const int32_t number = leadingNumber(*target))
        _pid.store(number, std::memory_order_relaxed);
    if (pid() == RqInvalidPidIdentifier)
        return false;
    const Ref<String> shown = String::create(target->str());
    if (pid() < 0)
        return fail(formatText(sentences::kInvalidTargetPid, {shown}));
    const auto running = as<Number>(_deviceInfoService->dispatch("isRunningPid:", {Number::withInt(pid())}));
    if (!running || !running->boolValue())
        return fail(formatText(sentences::kNoCurrentProcess, {shown}));
    _selfProfiling = pid() == ::getpid();
    return true;
}

bool Vantora::lookupProcessNameFromHint(const String* hint)
{
    if (!hint || hint->empty())
        return fail(formatText(sentences::kNoProcessNamed, {hint}));
    const auto processes = as<Array>(_deviceInfoService->dispatch("runningProcesses"));
    const NameMatches matches = matchNames(processes ? *processes : *Array::create(), hint->str());
    const auto& exact = matches.exact->entries();
    const auto& partial = matches.partial->entries();
    const auto choose = [&](const Dictionary::Entry& match) {
        _pid.store(as<Number>(match.first.get())->intValue(), std::memory_order_relaxed);
        return true;
    };
    if (exact.size() == 1)
        return choose(exact.front());
    if (exact.size() > 1) {
        std::string text = formatText(sentences::kMultipleNamed, {hint});
        for (const Dictionary::Entry& match : exact)
            text += formatText(" %@", {match.first});
        return fail(text);
    }
    if (partial.empty())
        return fail(formatText(sentences::kNoProcessNamed, {hint}));
    if (partial.size() == 1) {
        const Dictionary::Entry& match = partial.front();
        printStatus(formatText(sentences::kFoundFromPartialName, {match.first, match.second, hint}));
        return choose(match);
    }
    std::string text = formatText(sentences::kMultipleSimilar, {hint});
    for (const Dictionary::Entry& match : partial)
        text += formatText(" [%@ %@]", {match.second, match.first});
    return fail(text);
}

Ref<String> Vantora::targetName()
{
    if (auto* name = _targetName.load(std::memory_order_acquire))
        return Ref<String>(name);
    SessionLock lock(_sessionLock);
    std::string name = "allprocs";
    if (!_allProfiling) {
        Ref<String> answer;
        _workerQueue->sync(
            [&] { answer = as<String>(_deviceInfoService->dispatch("execnameForPid:", {Number::withInt(pid())})); });
        name = answer ? answer->str() : pid() == kKernelPid ? "mach_kernel" : "UNKNOWN";
    }
    if (!_targetName.load(std::memory_order_relaxed)) // another thread may have waited for the same lock
        setTargetName(name);
    return Ref<String>(_targetName.load(std::memory_order_relaxed));
}

void Vantora::setTargetName(const std::string& name)
{
    _targetName.store(String::create(name).leakRef(), std::memory_order_release); // pairs with targetName()'s acquire
}

Ref<String> Vantora::bundleIDForPath(const String& path)
{
    const std::string parent = withoutLastPathComponent(path.str());
    for (const std::string& candidate : {path.str() + "/Info.plist", path.str() + "/Contents/Info.plist",
                                         parent + "/Info.plist", parent + "/Contents/Info.plist"}) {
        if (!fileExists(candidate))
            continue;
        const auto text = sys::readFile(candidate, kMaxInfoBytes);
        if (!text.ok())
            break;
        const auto info = readPropertyList(std::as_bytes(std::span(text.value())));
        const auto* dictionary = info.ok() ? as<Dictionary>(info.value().get()) : nullptr;
        const auto identifier = dictionary ? dictionary->get<String>("CFBundleIdentifier") : nullptr;
        if (identifier)
            return identifier;
        break;
    }
    return String::create("");
}

} // namespace vnt
