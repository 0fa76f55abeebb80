#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/foundation/Files.h"

namespace vnt {

bool Vantora::saveToFile(const String* path)
{
    if (pid() != kAllProcessesPid && pid() < 0)
        return fail(sentences::kUnknownPid);
    if (!path)
        return fail(sentences::kNoSaveFile);
    SessionLock lock(_sessionLock);
    const Ref<String> bundlePath = String::create(path->str() + ".vnt");
    _savePath = bundlePath;
    if (const Ref<Error> error = createDirectory(bundlePath->str())) {
        fail(formatText(sentences::kUnableToWrite, {bundlePath, error->localizedDescription()}));
        lock.leaveLocked(); // on purpose: this thread goes on, others wait
        return false;
    }
    bool written = true;
    _workerQueue->sync([&] { written = writeDirtyInstruments(bundlePath); });
    return written;
}

/// One instrument's failure does not keep the others from being written.
bool Vantora::writeDirtyInstruments(const Ref<String>& bundlePath)
{
    VNT_ON_QUEUE(_workerQueue);
    if (!_instruments)
        return true;
    bool written = true;
    for (const Dictionary::Entry& entry : _instruments->entries()) {
        auto& instrument = static_cast<VntInstrument&>(*entry.second);
        if (!instrument.isDirty())
            continue;
        if (!instrument.writeToFile(*bundlePath))
            written = false;
        instrument.clearState(); // also after a failure: the data cannot be saved again
    }
    return written;
}

} // namespace vnt
