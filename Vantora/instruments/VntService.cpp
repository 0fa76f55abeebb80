#include "Vantora/instruments/VntService.h"

#include <unistd.h>

#include "Vantora/Errors.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/Catalogue.h"
#include "Vantora/instruments/VntInstrument.h"

namespace vnt {

VntService::VntService(Ref<String> serviceID, VntInstrument& parent, VantoraErrorCallback errorCallback)
    : _ID(std::move(serviceID)),
      _errorCallback(errorCallback),
      _parentInstrument(parent)
{
}

Ref<VntService> VntService::initWithID(Ref<String> serviceID, VntInstrument& parent, VantoraErrorCallback errorCallback)
{
    auto service = makeRef<VntService>(std::move(serviceID), parent, errorCallback);
    parent.session()->workerQueue()->sync([&] { service->registerService(); });
    return service;
}

VntService::~VntService()
{
    _weak.clear();
    disconnect();
}

void VntService::disconnect()
{
    if (!_service)
        return;
    _service->setDelegate({});
    _service->disconnect();
    _service->discardMessages();
}

void VntService::registerService()
{
    Vantora& session = *_parentInstrument.session();
    VNT_ON_QUEUE(session.workerQueue());
    _service = session.messageQueue()->createServiceForIdentifier(*_ID);
    _service->setDelegate(_weak.pointer<KxServiceQueueDelegate>(this));
    _serviceVersion = as<Number>(session.capabilitiesService()->dispatch("versionForCapability:", {_ID}));
    if (!usesTap())
        _service->returnToTarget(nullptr, nullptr, "enableServiceActionCompletedCallback");
}

bool VntService::usesTap() const { return *_ID == kZeltoTapService || *_ID == kKdebugTapService; }

void VntService::serviceActionCompleted(const Dictionary& status)
{
    const auto name = status.get<String>(kServiceComplete);
    if (name && name->isEqual(*_ID))
        setCompleted();
}

bool VntService::waitUntilComplete()
{
    constexpr useconds_t kPauseUs = 100'000;
    for (int remaining = 201;;) {
        if (_serviceComplete.load(std::memory_order_relaxed))
            return false;
        if (--remaining == 0)
            return true;
        ::usleep(kPauseUs);
    }
}

void VntService::reportError(std::string_view text)
{
    if (!_errorCallback)
        return;
    const auto error = makeError(text); // the callback borrows it
    _errorCallback(toC<CFStringRef>(_ID.get()), toC<CFErrorRef>(error.get()));
}

void VntService::serviceQueueErrorReading(KxServiceQueue&, const Ref<String>& description)
{
    reportError(description ? description->str() : std::string());
}

void VntService::serviceQueuePeerExceptionRaised(KxServiceQueue&, const Exception& exception)
{
    reportError(exception.reason());
}

bool VntService::performCallback(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector != "serviceActionCompleted:")
        return false;
    if (const auto* status = arguments->count() > 0 ? as<Dictionary>(arguments->at(0).get()) : nullptr)
        serviceActionCompleted(*status);
    return true;
}

} // namespace vnt
