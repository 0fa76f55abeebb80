#include <cstdlib>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/VntInstrument.h"

namespace vnt {
namespace {

[[noreturn]] void quit(int status) { std::exit(status); }

[[noreturn]] void quitAlreadyReleased()
{
    printError(sentences::kAlreadyReleased);
    quit(EXIT_FAILURE);
}

} // namespace

/// Runs on any thread: the client's, a tool's signal thread, or the delivery thread of the process-control service. It
/// holds the session lock until the process is gone, so no other operation comes in between.
void Vantora::asyncStopSaveAndQuit(bool targetEnded)
{
    const Ref<Vantora> protector(this); // the caller's reference is given up below
    const Ref<RecursiveLock> sessionLock = _sessionLock;
    if (!sessionLock)
        quitAlreadyReleased();
    sessionLock->lock();
    CFErrorRef recorded = nullptr;
    setErrorAddress(&recorded);
    if (targetEnded) {
        printStatus(sentences::kTargetEnded);
        try {
            if (_processControlService)
                askProcessControl("stopObservingPid:");
        } catch (const Exception&) {
            // A server that is gone observes nobody.
        }
        _targetDied.store(true, std::memory_order_relaxed);
    } else {
        printStatus(sentences::kInterrupted);
    }
    if (!_instruments)
        quitAlreadyReleased();
    bool saved = false;
    try {
        saved = stopEndAndSave();
    } catch (const Exception& exception) {
        fail(exception.reason());
    }
    if (!saved)
        quitAfterFailure(recorded);
    teardown();
    release();
    quit(EXIT_SUCCESS);
}

/// True also when there is nothing to save.
bool Vantora::stopEndAndSave()
{
    for (const Dictionary::Entry& entry : _instruments->entries()) {
        if (!static_cast<VntInstrument&>(*entry.second).isRecording())
            continue;
        if (!stopRecording(nullptr))
            return false;
        break;
    }
    bool dirty = false;
    for (const Dictionary::Entry& entry : _instruments->entries())
        dirty = dirty || static_cast<VntInstrument&>(*entry.second).isDirty();
    if (!dirty)
        return true;
    if (!endRecording() || !saveToFile(Ref<String>(_savePath).get()))
        return false;
    printStatus(formatText(sentences::kSessionSaved, {_savePath}));
    return true;
}

void Vantora::quitAfterFailure(CFErrorRef recorded)
{
    // Taken before the teardown, which may record an error of its own.
    const auto* error = fromC<Error>(recorded);
    const std::string description = error ? error->localizedDescription()->str() : "unknown error";
    teardown();
    release();
    printError(formatText(sentences::kSavingFailed, {description}));
    quit(EXIT_FAILURE);
}

} // namespace vnt
