#include <fcntl.h>
#include <unistd.h>

#include "Vantora/Errors.h"
#include "Vantora/Sentences.h"
#include "Vantora/instruments/VntInstrument.h"
#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/utf8.h"

/// The kernel tap's configuration, and the kernel event descriptions that go with a trace.
namespace vnt {
namespace {

constexpr uint32_t kIntervalScale = 1000;
constexpr uint32_t kWindowScale = 1000000000;
constexpr int32_t kWindowedTracerFrameDepth = 50;

// Trace class, subclass, all codes: in the order the filter is given.
constexpr uint32_t kTracerEvents[] = {
    0x0140fffe, 0x0700fffe, 0x010cfffe, 0x0160fffe, 0x010afffe, 0x0106fffe, 0x010dfffe, 0x0110fffe,
    0x0120fffe, 0x0131fffe, 0x0105fffe, 0x0401fffe, 0x040cfffe, 0x040dfffe, 0xff00fffe, 0x0130fffe,
};

constexpr size_t kMaxEventDescriptionBytes = 64u << 20;

std::string eventCachePath() { return temporaryDirectory() + "/kdebug_events.cache.xml"; }

/// Only a regular file of the user's own, reached through no symbolic link, is believed.
Ref<String> readEventCache()
{
    auto file = sys::openFile(eventCachePath(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!file.ok())
        return nullptr;
    const auto info = sys::statFd(file.value().get());
    if (!info.ok() || !S_ISREG(info.value().st_mode) || info.value().st_uid != ::geteuid()
        || static_cast<uint64_t>(info.value().st_size) > kMaxEventDescriptionBytes)
        return nullptr;
    std::string text(static_cast<size_t>(info.value().st_size), '\0');
    if (text.empty() || !sys::readFully(file.value().get(), text.data(), text.size()).ok() || !isUtf8(text))
        return nullptr;
    return String::create(text);
}

} // namespace

Ref<KxZeltoTapConfig> VntInstrument::tapConfiguration(const String& identifier)
{
    auto trigger = KxZeltoTriggerConfig::create();
    const bool sampler = identifier == kStackSamplerID;
    const bool tracer = identifier == kKernelTracerID;
    if (sampler)
        trigger->setKind(kTapKindSampler);
    else if (tracer)
        trigger->setKind(kTapKindTracer);
    if (_parentSession->pid() == kAllProcessesPid) {
        trigger->setIsAllProcesses(true);
    } else {
        if (_parentSession->pid() == RqInvalidPidIdentifier)
            assertionFailed(sentences::kNoValidTarget, "-[VntInstrument tapConfiguration:]");
        trigger->includePID(_parentSession->pid());
    }
    if (sampler) {
        trigger->setSampleInterval({low32(option::kSamplingInterval), kIntervalScale});
        const uint32_t word = low32(option::kStackSamplerOptions);
        if (word & 4) {
            trigger->includeThreadState(kTapThreadsAnyState);
        } else {
            trigger->includeThreadState(kTapThreadsOnProcessor);
            trigger->includeThreadState(kTapThreadsRunning);
        }
        const uint32_t stacks = word & 3;
        trigger->addAction(kTapActionStacks, {stacks != 1, stacks == 1 || stacks == 2});
    }
    if (tracer) {
        auto codes = MutableArray::create();
        for (const uint32_t code : kTracerEvents)
            codes->append(Number::withUint64(code));
        trigger->setKdebugFilter(KxZeltoTrigger::createEventsFilterSetHelper(*codes));
        trigger->addAction(kTapActionEvent);
        trigger->addAction(kTapActionStacks, {true, true});
    }
    trigger->addAction(kTapActionThread);
    trigger->addAction(kTapActionFinish);

    auto tap = KxZeltoTapConfig::create();
    if (const uint32_t window = low32(option::kWindowLimit)) {
        tap->setBufferMode(kTapBufferWindow);
        tap->setWindowSize({window, kWindowScale});
        if (tracer)
            trigger->setCallstackFrameDepth(kWindowedTracerFrameDepth); // only then, on purpose
    } else {
        tap->setBufferMode(kTapBufferStream);
    }
    tap->addTriggerConfig(std::move(trigger));
    return tap;
}

/// From the cache, or from a service that is opened now and asked at the end.
void VntInstrument::loadEventDescriptions()
{
    _kdebugEventXML = readEventCache();
    if (_kdebugEventXML)
        return;
    auto events = _parentSession->messageQueue()->createServiceForIdentifier(*String::create(kKdebugEventsServiceName));
    _parentSession->setKdebugEventsService(events);
    events->setDelegate(_parentSession->asDelegate());
}

void VntInstrument::fetchEventDescriptions()
{
    const auto& events = _parentSession->kdebugEventsService();
    if (_kdebugEventXML || !events)
        return;
    try {
        _kdebugEventXML = as<String>(events->dispatch("getEventsAsXML", TimeoutBehavior::kGiveUpAfterDefault));
    } catch (const Exception&) {
        return; // no answer is no descriptions: the data is saved without
    }
    if (_kdebugEventXML && _kdebugEventXML->empty())
        _kdebugEventXML = nullptr;
    if (!_kdebugEventXML)
        return;
    const std::string& text = _kdebugEventXML->str();
    // Without the cache the next recording asks the server again.
    (void)sys::writeFileAtomically(eventCachePath(), std::as_bytes(std::span(text)), 0600);
}

} // namespace vnt
