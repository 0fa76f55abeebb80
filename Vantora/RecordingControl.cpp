#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/Catalogue.h"
#include "Vantora/instruments/VntInstrument.h"

namespace vnt {

bool Vantora::addInstrument(const Ref<String>& instrument, const Ref<Dictionary>& options,
                            VantoraErrorCallback errorCallback)
{
    if (pid() == RqInvalidPidIdentifier && !_launch)
        return fail(sentences::kTargetSpecifiedIncorrectly);
    SessionLock lock(_sessionLock);
    if (!_instruments)
        _instruments = MutableDictionary::create();
    if (*instrument == kOrphanFinderID && !_instruments->get(kHeapRecorderID)) {
        // The leak search needs the journal of an allocation recorder that counts references.
        auto recorderOptions = options ? MutableDictionary::copyOf(*options) : MutableDictionary::create();
        recorderOptions->set(option::kReferenceCounting, Number::withBool(true));
        if (!addInstrument(String::create(kHeapRecorderID), recorderOptions, errorCallback))
            return false;
    }
    auto added = VntInstrument::initWithID(instrument, options.get(), this, errorCallback);
    if (!added)
        return false;
    _instruments->set(Ref<Object>(instrument), Ref<Object>(added));
    _creationReferences.push_back(std::move(added));
    return !_error || !*_error;
}

bool Vantora::selectInstruments(const Array* identifiers, const char* missing, std::vector<Ref<String>>& selected)
{
    if (!identifiers) {
        for (const Dictionary::Entry& entry : _instruments->entries())
            selected.push_back(as<String>(entry.first));
        return true;
    }
    for (const Ref<Object>& identifier : identifiers->items()) {
        auto text = as<String>(identifier);
        if (!text || !_instruments->get(*text))
            return fail(formatText(missing, {text ? prettyName(text) : Ref<String>()}));
        selected.push_back(std::move(text));
    }
    return true;
}

bool Vantora::startRecording(const Array* instrumentIDs)
{
    SessionLock lock(_sessionLock);
    if (!_instruments || _instruments->count() == 0)
        return fail(sentences::kStartWithoutInstruments);
    std::vector<Ref<String>> selected;
    if (!selectInstruments(instrumentIDs, sentences::kCannotStartUnadded, selected))
        return false;
    bool started = false;
    _workerQueue->sync([&] { started = runStartBlock(selected); });
    return started;
}

/// A failure leaves what was done as it is: a launched process stays, an attached one stays attached.
bool Vantora::runStartBlock(const std::vector<Ref<String>>& identifiers)
{
    VNT_ON_QUEUE(_workerQueue);
    bool launchedNow = false;
    if (!_alreadyLaunched) {
        const auto list = Array::create({identifiers.begin(), identifiers.end()});
        if (!bindTarget(*list, launchedNow) || !gatherSignatures() || !observeTarget())
            return false;
        _alreadyLaunched = true;
    }
    if (pid() < 0 && pid() != kAllProcessesPid)
        return fail(formatText(sentences::kInvalidProcessAtStart, {pid()}));
    const bool holdTarget = !_selfProfiling && !_allProfiling;
    if (!launchedNow && holdTarget)
        askProcessControl("suspendPid:"); // a target launched just now has not run yet
    for (const Ref<String>& identifier : identifiers) {
        if (!instrument(*identifier)->start())
            return false;
    }
    if (holdTarget)
        askProcessControl("resumePid:");
    return true;
}

bool Vantora::bindTarget(const Array& identifiers, bool& launchedNow)
{
    if (_allProfiling)
        return true;
    if (!_launch)
        return attachTarget(identifiers);
    if (!_rumbelCreated)
        return fail(sentences::kTargetSpecifiedIncorrectly);
    _pid.store(launchTarget(identifiers), std::memory_order_relaxed);
    if (pid() == RqInvalidPidIdentifier) {
        const auto* earlier = _error ? fromC<Error>(*_error) : nullptr;
        if (earlier)
            return fail(formatText(sentences::kLaunchFailedDueTo, {_launch, earlier->localizedDescription()}));
        return fail(formatText(sentences::kLaunchFailed, {_launch}));
    }
    launchedNow = true;
    return true;
}

bool Vantora::gatherSignatures()
{
    const auto method = String::create("updatedSymbolicatorNotificationReceived:");
    _symbolicatorSignatures = getCurrentSymbolicatorSignatures(pid(), method.get());
    if (!_symbolicatorSignatures || _symbolicatorSignatures->count() == 0)
        return fail(sentences::kNoSymbolicators);
    return true;
}

bool Vantora::observeTarget()
{
    if (!_rumbelCreated || _allProfiling || _selfProfiling || pid() == kKernelPid)
        return true;
    try {
        askProcessControl("startObservingPid:");
    } catch (const Exception& exception) {
        return fail(exception.reason());
    }
    return true;
}

void Vantora::askProcessControl(std::string_view selector)
{
    _processControlService->dispatch(selector, {Number::withLong(pid())});
}

bool Vantora::stopRecording(const Array* instrumentIDs)
{
    SessionLock lock(_sessionLock);
    if (!_instruments || _instruments->count() == 0)
        return fail(sentences::kStopWithoutInstruments);
    std::vector<Ref<String>> selected;
    if (!selectInstruments(instrumentIDs, sentences::kCannotStopUnadded, selected))
        return false;
    bool stopped = true;
    _workerQueue->sync([&] {
        for (const Ref<String>& identifier : selected) {
            stopped = instrument(*identifier)->stop();
            if (!stopped)
                return;
        }
    });
    return stopped;
}

bool Vantora::endRecording()
{
    SessionLock lock(_sessionLock);
    bool ended = true;
    _workerQueue->sync([&] {
        if (!_instruments)
            return;
        for (const Dictionary::Entry& entry : _instruments->entries()) {
            ended = static_cast<VntInstrument&>(*entry.second).end();
            if (!ended)
                return;
        }
    });
    return ended;
}

} // namespace vnt
