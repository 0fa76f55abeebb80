#pragma once

#include <cstdint>

#include "Vantora/Vantora"
#include "Vantora/Vantora.h"
#include "Vantora/instruments/Catalogue.h"
#include "Vantora/instruments/VntService.h"
#include "platform/foundation/KeyedArchive.h"
#include "platform/zelto/KxZelto.h"

namespace vnt {

/// One instrument of a session: its effective options, its service channel, its nesting start count and whether it
/// holds unsaved data. Has no lock of its own: the session calls start, stop, end and writeToFile on its worker queue,
/// one at a time. Failures go through the session's error slot; false is the result then.
class VntInstrument final : public Object {
public:
    /// Null after recording why: an unknown identifier, or all processes where one target is needed. Opens the service,
    /// so the caller must not be on the worker queue.
    static Ref<VntInstrument> initWithID(Ref<String> identifier, const Dictionary* options, Vantora* session,
                                         VantoraErrorCallback errorCallback);

    bool start();
    bool stop();
    /// Recording is over and data is about to be saved.
    bool end();
    /// Writes the data file and the message stream into the bundle directory; an instrument without data writes nothing
    /// and succeeds.
    bool writeToFile(const String& bundlePath);
    /// Back to never started; keeps identifier, options and service.
    void clearState();
    /// The signatures to archive; null when the target is invalid.
    [[nodiscard]] Ref<Dictionary> finalSymbolicatorSignatures();
    /// The tap's configuration from the effective options and the session's target, which must be valid.
    [[nodiscard]] Ref<KxZeltoTapConfig> tapConfiguration(const String& identifier);

    [[nodiscard]] const Ref<String>& ID() const { return _ID; }
    [[nodiscard]] Vantora* session() const { return _parentSession; }
    [[nodiscard]] const Ref<KxServiceQueue>& service() const { return _service->service(); }
    void setService(Ref<VntService> service) { _service = std::move(service); }
    [[nodiscard]] const Ref<Number>& version() const { return _service->serviceVersion(); }
    [[nodiscard]] const Ref<Dictionary>& options() const { return _options; }
    [[nodiscard]] const Ref<String>& kdebugEventXML() const { return _kdebugEventXML; }
    [[nodiscard]] bool isRecording() const { return _startCount.load(std::memory_order_relaxed) > 0; }
    [[nodiscard]] bool isDirty() const { return _dirty.load(std::memory_order_relaxed); }

private:
    VNT_MAKE_REF_FRIEND;
    VntInstrument(Ref<String> identifier, Vantora* session);
    ~VntInstrument() override;

    [[nodiscard]] Ref<Dictionary> configure(const Dictionary* options);
    void configureStackSampler(MutableDictionary& effective);
    void configureFromSession(MutableDictionary& effective, std::initializer_list<std::string_view> keys);
    void configureProcessCensus(MutableDictionary& effective);
    void loadEventDescriptions();
    void fetchEventDescriptions();

    /// True when a start time was already recorded: the recording resumes.
    bool recordStartTime();
    void recordStopTime();
    bool startKind(bool resume);
    bool stopKind();
    bool findLeaks();
    bool fail(std::string_view sentence) { return _parentSession->fail(sentence); }
    void sendOneWay(std::string_view selector, std::initializer_list<Ref<Object>> arguments = {});
    [[nodiscard]] bool is(std::string_view identifier) const { return *_ID == identifier; }
    [[nodiscard]] uint32_t low32(std::string_view key) const;
    [[nodiscard]] const char* dirtyWord() const { return isDirty() ? "dirty" : "not dirty"; }

    [[nodiscard]] Ref<Dictionary> deviceTemplate();
    bool archiveKindKeys(KeyedArchiver& archiver);
    void archiveCommonKeys(KeyedArchiver& archiver, const Dictionary& signatures, const Dictionary& device,
                           uint64_t messageCount);

    const Ref<String> _ID;
    Ref<VntService> _service;
    Ref<Dictionary> _options;
    double _startTime_secSince1970 = 0; // 0: not started since the last clearState()
    double _stopTime_secSince1970 = 0;
    uint64_t _startTime_Mach = 0;
    uint64_t _stopTime_Mach = 0;
    uint32_t _machTimeBaseNumer = 0;
    uint32_t _machTimeBaseDenom = 0;
    Ref<String> _kdebugEventXML;
    // Written on the worker queue, read without it by the session's queries; relaxed, nothing hangs on the order.
    std::atomic<int32_t> _startCount{0};
    std::atomic<bool> _dirty{false};
    Vantora* const _parentSession; // not owned: the session outlives its instruments
};

} // namespace vnt
