#include "platform/zelto/KxZelto.h"

namespace vnt {

Ref<Array> KxZeltoTrigger::createEventsFilterSetHelper(const Array& codes)
{
    auto filter = MutableArray::create();
    for (const Ref<Object>& item : codes.items()) {
        if (const auto* code = as<Number>(item.get()))
            filter->append(Number::withInt64(static_cast<uint32_t>(code->int64Value())));
    }
    return filter;
}

Ref<KxZeltoTriggerConfig> KxZeltoTriggerConfig::create() { return makeRef<KxZeltoTriggerConfig>(); }

Ref<KxZeltoTapConfig> KxZeltoTapConfig::create() { return makeRef<KxZeltoTapConfig>(); }

namespace {

/// Runs one synchronous call of a tap; its failure goes to the service's delegate.
template <typename Call> void reportingTo(KxServiceQueue& queue, Call call)
{
    try {
        call();
    } catch (const Exception& exception) {
        queue.reportException(exception);
    }
}

} // namespace

void KxZeltoRemoteTap::startOnServiceQueue(const Ref<KxServiceQueue>& queue, const KxZeltoTapConfig& configuration)
{
    queue->discardMessages();
    reportingTo(*queue, [&] { queue->dispatch(kTapStart, {configuration.encoded()}); });
}

void KxZeltoRemoteTap::pauseOnServiceQueue(const Ref<KxServiceQueue>& queue)
{
    reportingTo(*queue, [&] { queue->dispatch(kTapPause); });
}

void KxZeltoRemoteTap::unpauseOnServiceQueue(const Ref<KxServiceQueue>& queue)
{
    reportingTo(*queue, [&] { queue->dispatch(kTapUnpause); });
}

void KxZeltoRemoteTap::stopOnServiceQueue(const Ref<KxServiceQueue>& queue)
{
    reportingTo(*queue, [&] { queue->dispatch(kTapStop); });
}

} // namespace vnt
