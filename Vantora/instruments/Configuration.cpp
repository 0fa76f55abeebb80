#include <cstdio>

#include "Vantora/Sentences.h"
#include "Vantora/instruments/VntInstrument.h"

/// Effective options of an instrument, by kind.
namespace vnt {
namespace {

constexpr uint32_t kAllThreadStates = 4; // flag in the stack sampler's options word
constexpr uint32_t kRecommendedIntervalUs = 40;
constexpr uint32_t kRecommendedIntervalAllStatesUs = 10000;

uint32_t low32Of(const Dictionary& dictionary, std::string_view key)
{
    const auto number = dictionary.get<Number>(key);
    return number ? static_cast<uint32_t>(number->uint64Value()) : 0;
}

} // namespace

Ref<Dictionary> VntInstrument::configure(const Dictionary* options)
{
    auto effective = MutableDictionary::create();
    if (_parentSession->options())
        effective->merge(*_parentSession->options());
    if (options)
        effective->merge(*options);
    if (is(kStackSamplerID))
        configureStackSampler(*effective);
    else if (is(kKernelTracerID))
        loadEventDescriptions();
    else if (is(kHeapRecorderID))
        configureFromSession(*effective, {option::kEnableZombies, option::kReferenceCounting, option::kIdentifyCpp});
    else if (is(kOrphanFinderID))
        configureFromSession(*effective, {option::kIncludeContext, option::kProvideBacktraces});
    else if (is(kProcessCensusID))
        configureProcessCensus(*effective);
    return effective;
}

void VntInstrument::configureStackSampler(MutableDictionary& effective)
{
    const uint32_t word = low32Of(effective, option::kStackSamplerOptions);
    effective.set(option::kStackSamplerOptions, Number::withUint64(word));
    const uint32_t recommendedUs = (word & kAllThreadStates) ? kRecommendedIntervalAllStatesUs : kRecommendedIntervalUs;
    uint32_t intervalUs = recommendedUs;
    if (effective.get<Number>(option::kSamplingInterval)) {
        intervalUs = low32Of(effective, option::kSamplingInterval);
        if (intervalUs < recommendedUs)
            std::fprintf(stderr, sentences::kShortInterval, static_cast<int>(recommendedUs));
    }
    effective.set(option::kSamplingInterval, Number::withUint64(intervalUs));
    effective.set(option::kWindowLimit, Number::withUint64(low32Of(effective, option::kWindowLimit)));
    effective.set(option::kOutputRate, Number::withInt64(0));
}

/// Only the session's value counts: one given for the instrument alone is not honoured.
void VntInstrument::configureFromSession(MutableDictionary& effective, std::initializer_list<std::string_view> keys)
{
    for (const std::string_view key : keys) {
        const auto& session = _parentSession->options();
        const auto value = session ? session->get<Number>(key) : nullptr;
        effective.set(key, Number::withBool(value && value->boolValue()));
    }
}

void VntInstrument::configureProcessCensus(MutableDictionary& effective)
{
    constexpr int32_t kDefaultInterval = 10;
    const auto& session = _parentSession->options();
    auto value = session ? session->get<Number>(option::kCensusInterval) : nullptr;
    if (!value)
        value = Number::withInt(kDefaultInterval);
    else if (value->uint64Value() == 0)
        value = Number::withInt(1);
    effective.set(option::kCensusInterval, value);
    sendOneWay("setSamplingRate:", {value});
}

} // namespace vnt
