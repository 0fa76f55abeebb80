#include "Vantora/instruments/VntInstrument.h"

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "platform/base/sys.h"
#include "platform/mach/mach.h"

namespace vnt {

VntInstrument::VntInstrument(Ref<String> identifier, Vantora* session)
    : _ID(std::move(identifier)),
      _parentSession(session)
{
}

Ref<VntInstrument> VntInstrument::initWithID(Ref<String> identifier, const Dictionary* options, Vantora* session,
                                             VantoraErrorCallback errorCallback)
{
    const InstrumentKind* kind = kindOf(*identifier);
    if (kind && kind->needsOneTarget && session->allProfiling()) {
        session->setError(makeError(formatText(sentences::kNoAllProcesses, {prettyName(identifier)})));
        return nullptr;
    }
    if (!kind) {
        session->setError(makeError(formatText(sentences::kUnknownInstrument, {identifier})));
        return nullptr;
    }
    auto instrument = makeRef<VntInstrument>(std::move(identifier), session);
    instrument->_service = VntService::initWithID(String::create(kind->serviceName), *instrument, errorCallback);
    instrument->_options = instrument->configure(options);
    return instrument;
}

VntInstrument::~VntInstrument()
{
    if (isRecording() || isDirty())
        fail(formatText(sentences::kDisposedUnsaved, {_ID, _startCount.load(std::memory_order_relaxed), dirtyWord()}));
    if (_service)
        _service->disconnect();
}

void VntInstrument::clearState()
{
    _startTime_secSince1970 = 0;
    _stopTime_secSince1970 = 0;
    _startTime_Mach = 0;
    _stopTime_Mach = 0;
    _machTimeBaseNumer = 0;
    _machTimeBaseDenom = 0;
    _startCount.store(0, std::memory_order_relaxed);
    _dirty.store(false, std::memory_order_relaxed);
}

void VntInstrument::sendOneWay(std::string_view selector, std::initializer_list<Ref<Object>> arguments)
{
    service()->returnToTarget(nullptr, nullptr, selector, arguments);
}

uint32_t VntInstrument::low32(std::string_view key) const
{
    const auto number = _options->get<Number>(key);
    return number ? static_cast<uint32_t>(number->uint64Value()) : 0;
}

bool VntInstrument::recordStartTime()
{
    if (_startTime_secSince1970 != 0.0)
        return true;
    _startTime_secSince1970 = sys::realtimeSec();
    _startTime_Mach = mach_absolute_time();
    mach_timebase_info_data_t timeBase{};
    mach_timebase_info(&timeBase);
    _machTimeBaseNumer = timeBase.numer;
    _machTimeBaseDenom = timeBase.denom;
    return false;
}

void VntInstrument::recordStopTime()
{
    _stopTime_Mach = mach_absolute_time();
    _stopTime_secSince1970 = sys::realtimeSec();
}

bool VntInstrument::start()
{
    const int32_t count = _startCount.load(std::memory_order_relaxed);
    if (count < 0)
        return fail(formatText(sentences::kInvalidStartCount, {_ID}));
    _startCount.store(count + 1, std::memory_order_relaxed);
    if (count > 0)
        return true; // nested: nothing is sent
    const bool resume = recordStartTime();
    // A refusal leaves the count at 1 and the start time recorded.
    if (!startKind(resume))
        return false;
    _dirty.store(true, std::memory_order_relaxed);
    return true;
}

bool VntInstrument::startKind(bool resume)
{
    if (is(kStackSamplerID) || is(kKernelTracerID)) {
        if (resume)
            KxZeltoRemoteTap::unpauseOnServiceQueue(service());
        else
            KxZeltoRemoteTap::startOnServiceQueue(service(), *tapConfiguration(*_ID));
        return true;
    }
    if (is(kHeapRecorderID)) {
        if (_parentSession->allProfiling())
            return fail(sentences::kHeapRecorderNoAllProcesses);
        sendOneWay("startCollection");
        return true;
    }
    if (is(kOrphanFinderID))
        return !_parentSession->allProfiling() || fail(sentences::kOrphanFinderNoAllProcesses); // the search is at stop
    if (is(kProcessCensusID)) {
        sendOneWay("startSampling");
        return true;
    }
    return fail(formatText(sentences::kUnknownNotStarted, {_ID}));
}

bool VntInstrument::stop()
{
    const int32_t count = _startCount.load(std::memory_order_relaxed);
    if (count < 1)
        return fail(formatText(sentences::kStoppedBeforeStarting, {_ID}));
    _startCount.store(count - 1, std::memory_order_relaxed);
    if (count > 1)
        return true; // nested: nothing is sent
    if (!stopKind())
        return false;
    recordStopTime();
    return true;
}

bool VntInstrument::stopKind()
{
    if (is(kStackSamplerID) || is(kKernelTracerID)) {
        KxZeltoRemoteTap::pauseOnServiceQueue(service()); // not stopped: a later start resumes the same tap
        return true;
    }
    if (is(kProcessCensusID)) {
        sendOneWay("stopSampling");
        return true;
    }
    if (is(kHeapRecorderID)) {
        if (_parentSession->allProfiling())
            return fail(sentences::kHeapRecorderNoAllProcesses);
        sendOneWay("stopCollection");
        return true;
    }
    if (is(kOrphanFinderID)) {
        if (_parentSession->allProfiling())
            return fail(sentences::kOrphanFinderNoAllProcesses);
        return _parentSession->targetDied() || findLeaks();
    }
    return fail(formatText(sentences::kUnknownNotStopped, {_ID}));
}

bool VntInstrument::findLeaks()
{
    try {
        service()->dispatch("requestLeaksForPid:context:provideBacktraces:",
                            {Number::withInt(_parentSession->pid()), _options->get(option::kIncludeContext),
                             _options->get(option::kProvideBacktraces)});
        return true;
    } catch (const Exception& exception) {
        return fail(formatText(sentences::kLeaksFailed, {exception}));
    }
}

bool VntInstrument::end()
{
    if (isRecording() || !isDirty())
        return fail(formatText(sentences::kNotSaved, {_ID, _startCount.load(std::memory_order_relaxed), dirtyWord()}));
    if (is(kStackSamplerID) || is(kKernelTracerID)) {
        KxZeltoRemoteTap::stopOnServiceQueue(service());
        _service->setCompleted(); // taps never report completion themselves
        if (is(kKernelTracerID))
            fetchEventDescriptions();
    } else if (is(kOrphanFinderID)) {
        sendOneWay("cancelAllRequests");
    }
    return true;
}

} // namespace vnt
