#include "services/quillon/ZeltoTapService.h"

#include <algorithm>

#include "services/quillon/Arguments.h"

namespace vnt {
namespace {

constexpr uint64_t kNsPerSecond = 1'000'000'000;
/// Below this the interrupts alone take all of a processor.
constexpr uint64_t kShortestIntervalNs = 10'000;

} // namespace

Result<StackSamplerOptions> stackSamplerOptions(const KxZeltoTapConfig& configuration)
{
    if (configuration.triggers().size() != 1)
        return Status(Code::kInvalid, "a sampling tap has exactly one trigger");
    const KxZeltoTriggerConfig& trigger = *configuration.triggers().front();
    if (trigger.kind() != kTapKindSampler)
        return Status(Code::kInvalid, "trigger kind " + std::to_string(trigger.kind()) + " is no sampler");
    if (!trigger.isAllProcesses() && trigger.pids().size() != 1)
        return Status(Code::kInvalid, "a sampling tap has one process or all");
    const KxZeltoTime interval = trigger.sampleInterval();
    if (interval.scale == 0 || interval.scale > kNsPerSecond)
        return Status(Code::kInvalid, "the sample interval has no scale");
    StackSamplerOptions options;
    options.allProcesses = trigger.isAllProcesses();
    options.pid = options.allProcesses ? 0 : trigger.pids().front();
    // The scale is what a millisecond holds: 1000 means microseconds.
    options.intervalNs = std::max(uint64_t{interval.count} * 1'000'000 / interval.scale, kShortestIntervalNs);
    options.userStacks = false;
    options.kernelStacks = false;
    for (const KxZeltoTriggerConfig::Action& action : trigger.actions()) {
        if (action.code != kTapActionStacks)
            continue;
        options.userStacks = !action.arguments.empty() && action.arguments[0] != 0;
        options.kernelStacks = action.arguments.size() > 1 && action.arguments[1] != 0;
    }
    for (const uint32_t states : trigger.threadStates())
        options.allThreadStates = options.allThreadStates || states == kTapThreadsAnyState;
    if (configuration.bufferMode() == kTapBufferWindow)
        options.windowNs = uint64_t{configuration.windowSize().count} * configuration.windowSize().scale;
    return options;
}

ZeltoTapService::ZeltoTapService(Ref<ServiceChannel> channel, SignatureStore& signatures, AccessGuard& guard,
                                 int traceFiles)
    : _channel(std::move(channel)),
      _signatures(signatures),
      _guard(guard),
      _traceFiles(traceFiles)
{
}

ZeltoTapService::~ZeltoTapService() = default;

Ref<Object> ZeltoTapService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector == kTapStart)
        start(*arguments);
    else if (selector == kTapPause)
        report(_sampler ? _sampler->pause() : Status());
    else if (selector == kTapUnpause)
        report(_sampler ? _sampler->unpause() : Status());
    else if (selector == kTapStop)
        stop();
    else
        throwUnknownSelector(selector);
    return nullptr;
}

void ZeltoTapService::start(const Array& arguments)
{
    const auto* dictionary = arguments.count() > 0 ? as<Dictionary>(arguments.at(0).get()) : nullptr;
    if (!dictionary)
        throw Exception("NSInvalidArgumentException", "a tap starts with a configuration");
    const auto configuration = KxZeltoTapConfig::decoded(*dictionary);
    if (!configuration.ok())
        throw Exception("NSInvalidArgumentException", configuration.status().message());
    auto options = stackSamplerOptions(*configuration.value());
    if (!options.ok())
        throw Exception("NSInvalidArgumentException", options.status().message());
    _guard.demand(options.value().allProcesses ? -1 : options.value().pid, AccessGuard::Reach::kAnalyse);
    options.value().traceFiles = _traceFiles;
    _sampler = nullptr; // a second start replaces the first tap
    if (!options.value().allProcesses)
        _signatures.keepFamilyOf(options.value().pid);
    auto sampler = StackSampler::start(options.value(), *this, &_signatures);
    if (sampler.ok())
        _sampler = sampler.take();
    else
        reportProblem(sampler.status().message());
}

void ZeltoTapService::stop()
{
    if (_sampler)
        report(_sampler->stop());
    _sampler = nullptr;
}

void ZeltoTapService::report(const Status& status)
{
    if (!status.ok())
        reportProblem(status.message());
}

void ZeltoTapService::reportProblem(const std::string& text)
{
    (void)_channel->sendException(
        Exception("VntTapError", "Stack Sampler: " + text)); // a client that is gone needs none
}

void ZeltoTapService::onClose() { _sampler = nullptr; }

} // namespace vnt
