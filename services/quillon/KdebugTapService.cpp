#include "services/quillon/KdebugTapService.h"

#include "services/quillon/Arguments.h"

namespace vnt {

Result<KernelTracerOptions> kernelTracerOptions(const KxZeltoTapConfig& configuration)
{
    if (configuration.triggers().size() != 1)
        return Status(Code::kInvalid, "a tracing tap has exactly one trigger");
    const KxZeltoTriggerConfig& trigger = *configuration.triggers().front();
    if (trigger.kind() != kTapKindTracer)
        return Status(Code::kInvalid, "trigger kind " + std::to_string(trigger.kind()) + " is no tracer");
    if (!trigger.isAllProcesses() && trigger.pids().size() != 1)
        return Status(Code::kInvalid, "a tracing tap has one process or all");
    KernelTracerOptions options;
    options.allProcesses = trigger.isAllProcesses();
    options.pid = options.allProcesses ? 0 : trigger.pids().front();
    options.userStacks = false;
    options.kernelStacks = false;
    for (const KxZeltoTriggerConfig::Action& action : trigger.actions()) {
        if (action.code != kTapActionStacks)
            continue;
        options.userStacks = !action.arguments.empty() && action.arguments[0] != 0;
        options.kernelStacks = action.arguments.size() > 1 && action.arguments[1] != 0;
    }
    if (!trigger.kdebugFilter())
        return Status(Code::kInvalid, "a tracing tap has a filter of event classes");
    for (size_t i = 0; i < trigger.kdebugFilter()->count(); ++i) {
        const auto* code = as<Number>(trigger.kdebugFilter()->at(i).get());
        if (!code)
            return Status(Code::kInvalid, "the filter of event classes holds something that is no number");
        options.classes.push_back(static_cast<uint32_t>(code->int64Value()));
    }
    if (trigger.frameDepth() > 0)
        options.maxFrames = static_cast<uint32_t>(trigger.frameDepth());
    if (configuration.bufferMode() == kTapBufferWindow)
        options.windowNs = uint64_t{configuration.windowSize().count} * configuration.windowSize().scale;
    return options;
}

KdebugTapService::KdebugTapService(Ref<ServiceChannel> channel, SignatureStore& signatures, AccessGuard& guard,
                                   int traceFiles)
    : _channel(std::move(channel)),
      _signatures(signatures),
      _guard(guard),
      _traceFiles(traceFiles)
{
}

KdebugTapService::~KdebugTapService() = default;

Ref<Object> KdebugTapService::onCall(const std::string& selector, const Ref<Array>& arguments)
{
    if (selector == kTapStart)
        start(*arguments);
    else if (selector == kTapPause)
        report(_tracer ? _tracer->pause() : Status());
    else if (selector == kTapUnpause)
        report(_tracer ? _tracer->unpause() : Status());
    else if (selector == kTapStop)
        stop();
    else
        throwUnknownSelector(selector);
    return nullptr;
}

void KdebugTapService::start(const Array& arguments)
{
    const auto* dictionary = arguments.count() > 0 ? as<Dictionary>(arguments.at(0).get()) : nullptr;
    if (!dictionary)
        throw Exception("NSInvalidArgumentException", "a tap starts with a configuration");
    const auto configuration = KxZeltoTapConfig::decoded(*dictionary);
    if (!configuration.ok())
        throw Exception("NSInvalidArgumentException", configuration.status().message());
    auto options = kernelTracerOptions(*configuration.value());
    if (!options.ok())
        throw Exception("NSInvalidArgumentException", options.status().message());
    // Kernel events show kernel addresses, and follow children that become another user's: with privilege they are the
    // whole machine's affair. Without, the kernel itself refuses.
    if (_traceFiles >= 0)
        _guard.demand(-1, AccessGuard::Reach::kAnalyse);
    options.value().traceFiles = _traceFiles;
    _tracer = nullptr; // a second start replaces the first tap
    if (!options.value().allProcesses)
        _signatures.keepFamilyOf(options.value().pid);
    auto tracer = KernelTracer::start(options.value(), *this, &_signatures);
    if (tracer.ok())
        _tracer = tracer.take();
    else
        reportProblem(tracer.status().message());
}

void KdebugTapService::stop()
{
    // Records nothing more; its kernel objects go with the connection, for which the client does not wait.
    if (_tracer)
        report(_tracer->stop());
}

void KdebugTapService::report(const Status& status)
{
    if (!status.ok())
        reportProblem(status.message());
}

void KdebugTapService::reportProblem(const std::string& text)
{
    (void)_channel->sendException(
        Exception("VntTapError", "Kernel Tracer: " + text)); // a client that is gone needs none
}

void KdebugTapService::onClose() { _tracer = nullptr; }

} // namespace vnt
