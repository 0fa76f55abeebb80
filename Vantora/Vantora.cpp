#include "Vantora/Vantora.h"

#include "Vantora/Errors.h"
#include "Vantora/instruments/VntInstrument.h"

namespace vnt {

Vantora* VntGlobal_CurrentSession = nullptr;

namespace {
int32_t VntGlobal_SessionCount = 0; // sessions are created from one thread
}

Vantora::Vantora(String* deviceID, const Dictionary* options, CFErrorRef* error)
    : _sessionNum(++VntGlobal_SessionCount),
      _deviceID(deviceID),
      _options(options ? MutableDictionary::copyOf(*options) : MutableDictionary::create()),
      _error(error),
      _errorThread(std::this_thread::get_id())
{
    _sessionLock = makeRef<RecursiveLock>();
    _workerQueue = SerialQueue::create(identifier());
}

Ref<Vantora> Vantora::initWithDevice(String* deviceID, const String* target, const Dictionary* options,
                                     CFErrorRef* error)
{
    auto session = makeRef<Vantora>(deviceID, options, error);
    bool ready = false;
    session->_workerQueue->sync([&] { ready = session->connectWithQuillonServer(); });
    if (ready)
        session->_workerQueue->sync([&] { ready = session->setupTarget(target); });
    return ready ? session : nullptr;
}

std::string Vantora::identifier() const { return formatText("Vantora%d", {_sessionNum}); }

void Vantora::updatedSymbolicatorNotificationReceived(const Object*)
{
    // Updates are accepted and dropped: the final signatures are asked for when the data is written.
}

WeakPtr<KxServiceQueueDelegate> Vantora::asDelegate() { return _weak.pointer<KxServiceQueueDelegate>(this); }

bool Vantora::performCallback(const std::string& selector, const Ref<Array>& arguments)
{
    const Object* argument = arguments->count() > 0 ? arguments->at(0).get() : nullptr;
    if (selector == "pidDiedCallback:") {
        pidDiedCallback(as<Number>(argument));
        return true;
    }
    if (selector == "updatedSymbolicatorNotificationReceived:") {
        updatedSymbolicatorNotificationReceived(argument);
        return true;
    }
    return false;
}

void Vantora::setError(Ref<Error> error)
{
    if (_error)
        *_error = toC<CFErrorRef>(error.leakRef());
}

bool Vantora::fail(std::string_view sentence)
{
    storeError(_error, sentence);
    return false;
}

VntInstrument* Vantora::instrument(const Object& identifier) const
{
    return _instruments ? static_cast<VntInstrument*>(_instruments->get(identifier).get()) : nullptr;
}

Vantora::~Vantora()
{
    _weak.clear();
    teardown();
}

void Vantora::teardown()
{
    if (!_sessionLock)
        return;
    // A queued block or a callback may drop the last reference after the public call has returned: the slot's
    // variable is gone then, and nobody waits for an error.
    if (std::this_thread::get_id() != _errorThread)
        _error = nullptr;
    SessionLock lock(_sessionLock);
    if (VntGlobal_CurrentSession == this)
        VntGlobal_CurrentSession = nullptr;
    releaseInstruments();
    _symbolicatorSignatures = nullptr;
    _launch = nullptr;
    _launchArgs = nullptr;
    _options = nullptr;
    _savePath = nullptr;
    disconnectFromQuillonServer();
    releaseCreationRights();
    _workerQueue = nullptr;
    _sessionLock = nullptr; // the scope's own reference unlocks it
}

void Vantora::releaseInstruments()
{
    if (!_instruments)
        return;
    // Those in the table report what they lose; those replaced in it go silently.
    std::vector<Ref<VntInstrument>> replaced;
    for (Ref<VntInstrument>& reference : _creationReferences) {
        if (instrument(*reference->ID()) != reference.get())
            replaced.push_back(std::move(reference));
    }
    _creationReferences.clear();
    _instruments = nullptr;
    CFErrorRef* slot = std::exchange(_error, nullptr);
    replaced.clear();
    _error = slot;
}

} // namespace vnt
