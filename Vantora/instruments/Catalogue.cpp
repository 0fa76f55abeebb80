#include "Vantora/instruments/Catalogue.h"

#include <iterator>
#include <mutex>

#include "Vantora/Vantora"
#include "platform/foundation/bridge.h"

namespace vnt {
namespace {

constexpr InstrumentKind kKinds[] = {
    {kStackSamplerID, "Stack Sampler", kZeltoTapService, false, true},
    {kKernelTracerID, "Kernel Tracer", kKdebugTapService, false, true},
    {kHeapRecorderID, "Heap Recorder", "quillon.server.services.objrecord", true, false},
    {kOrphanFinderID, "Orphan Finder", "quillon.server.services.remoteorphans", true, false},
    {kProcessCensusID, "Process Census", "quillon.server.services.activity", false, false},
};

} // namespace

const InstrumentKind* kindOf(const String& identifier)
{
    for (const InstrumentKind& kind : kKinds) {
        if (identifier == kind.identifier)
            return &kind;
    }
    return nullptr;
}

Ref<String> prettyName(const Ref<String>& identifier)
{
    const InstrumentKind* kind = identifier ? kindOf(*identifier) : nullptr;
    return kind ? String::create(kind->displayName) : identifier;
}

} // namespace vnt

extern "C" CFStringRef prettyInstrumentName(CFStringRef identifier)
{
    using namespace vnt;
    const auto* text = fromC<String>(identifier);
    const InstrumentKind* kind = text ? kindOf(*text) : nullptr;
    if (!kind)
        return identifier;
    // The caller does not own the name: one immortal string a kind.
    static String* names[std::size(kKinds)] = {};
    static std::once_flag once;
    std::call_once(once, [] {
        for (size_t i = 0; i < std::size(kKinds); ++i)
            names[i] = String::create(kKinds[i].displayName).leakRef();
    });
    return toC<CFStringRef>(names[kind - kKinds]);
}
