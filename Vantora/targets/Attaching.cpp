#include <mutex>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/VntInstrument.h"

namespace vnt {
namespace {

constexpr uint32_t kRetainReleaseAutoEvents = 0x3000F008;
constexpr uint32_t kMallocReallocFreeEvents = 0x000D0800;
constexpr uint32_t kZombieEvents = 0x00200000;
constexpr uint32_t kCppClassNames = 0x00100000;
constexpr uint32_t kAllEvents = kRetainReleaseAutoEvents | kMallocReallocFreeEvents | kZombieEvents;
static_assert(kAllEvents == 0x302DF808);

uint32_t eventMask(bool recordReferenceCounts, bool identifyCpp)
{
    uint32_t mask = recordReferenceCounts ? kAllEvents : kMallocReallocFreeEvents;
    if (identifyCpp)
        mask |= kCppClassNames;
    return mask | kZombieEvents; // always asked for; the environment decides whether a target keeps zombies
}

bool flag(const Dictionary& options, std::string_view key)
{
    const auto value = options.get<Number>(key);
    return value && value->boolValue();
}

} // namespace

Ref<Number> Vantora::heapEventMask(const VntInstrument& heapRecorder) const
{
    const Dictionary& options = *heapRecorder.options();
    const uint32_t mask = eventMask(flag(options, option::kReferenceCounting), flag(options, option::kIdentifyCpp));
    return Number::withInt(static_cast<int32_t>(mask));
}

bool Vantora::attachTarget(const Array& identifiers)
{
    if (pid() < 0 && pid() != kAllProcessesPid)
        return fail(formatText(sentences::kCannotAttachToInvalid, {pid()}));
    const auto heapRecorderID = String::create(kHeapRecorderID);
    if (!identifiers.contains(*heapRecorderID))
        return true; // no other instrument has to reach into the target
    const VntInstrument& heapRecorder = *instrument(*heapRecorderID);
    const auto attached = as<Number>(heapRecorder.service()->dispatch(
        "attachToPid:eventsMask:", {Number::withLong(pid()), heapEventMask(heapRecorder)}));
    if (attached && attached->boolValue())
        return true;
    return fail(formatText(sentences::kHeapRecorderCannotAttach, {pid()}));
}

} // namespace vnt

extern "C" {

uint32_t retainReleaseAutoEventsMask(void) { return vnt::kRetainReleaseAutoEvents; }
uint32_t mallocReallocFreeEventsMask(void) { return vnt::kMallocReallocFreeEvents; }
uint32_t zombieEventsMask(void) { return vnt::kZombieEvents; }
uint32_t cppClassNamesMask(void) { return vnt::kCppClassNames; }
uint32_t allEventsMask(void) { return vnt::kAllEvents; }

CFNumberRef heapRecorderEventMask(bool recordReferenceCounts, bool identifyCpp)
{
    // The caller does not own the number: four immortal ones.
    static vnt::Number* masks[4] = {};
    static std::once_flag once;
    std::call_once(once, [] {
        for (unsigned i = 0; i < 4; ++i)
            masks[i] = vnt::Number::withInt(static_cast<int32_t>(vnt::eventMask(i & 1, i & 2))).leakRef();
    });
    return vnt::toC<CFNumberRef>(masks[(recordReferenceCounts ? 1 : 0) + (identifyCpp ? 2 : 0)]);
}
}
