#include "services/quillon/CapabilitiesService.h"

#include "records/CensusRecords.h"
#include "records/HeapRecords.h"
#include "records/OrphanRecords.h"
#include "records/StackRecords.h"
#include "records/TraceRecords.h"
#include "services/quillon/Arguments.h"

namespace vnt {
namespace {

struct Capability {
    std::string_view service;
    int32_t version;
};

/// A service that this server lacks has no version.
constexpr Capability kCapabilities[] = {
    {"quillon.server.services.zeltotap", stacks::kVersion},
    {"quillon.server.services.kdebugtap", trace::kVersion},
    {"quillon.server.services.corekdebugevents", 1},
    {"quillon.server.services.objrecord", heap::kVersion},
    {"quillon.server.services.remoteorphans", orphans::kVersion},
    {"quillon.server.services.activity", census::kVersion},
    {"quillon.server.services.processcontrol", 1},
    {"quillon.server.services.deviceinfo", 1},
};

} // namespace

Ref<Object> CapabilitiesService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector != "versionForCapability:")
        throwUnknownSelector(selector);
    const auto* name = arguments->count() > 0 ? as<String>(arguments->at(0).get()) : nullptr;
    if (!name)
        throw Exception("NSInvalidArgumentException", "a capability is named by a string");
    for (const Capability& capability : kCapabilities) {
        if (*name == capability.service)
            return Number::withInt(capability.version);
    }
    return nullptr;
}

} // namespace vnt
