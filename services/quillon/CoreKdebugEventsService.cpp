#include "services/quillon/CoreKdebugEventsService.h"

#include "collectors/kernel/EventDescriptions.h"
#include "services/quillon/Arguments.h"

namespace vnt {

Ref<Object> CoreKdebugEventsService::onCall(const std::string& selector, const Ref<Array>& /*arguments*/)
{
    if (selector != "getEventsAsXML")
        throwUnknownSelector(selector);
    const auto xml = describeEvents(_traceFiles);
    if (!xml.ok())
        throw Exception("VntTapError", "Kernel Tracer: " + xml.status().message());
    return String::create(xml.value());
}

} // namespace vnt
