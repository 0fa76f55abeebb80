#pragma once

#include <cstdint>
#include <vector>

#include "platform/messagequeue/KxMessageQueue.h"

namespace vnt {

/// Count and scale of a span of time, packed for the wire as one 64-bit value with the count in the low half. The tap
/// reads a sample interval as count / (scale * 1000) seconds (so a scale of 1000 means microseconds) and a window as
/// count nanosecond-scaled seconds: see windowNs() in the tap server's decoder.
struct KxZeltoTime {
    uint32_t count = 0;
    uint32_t scale = 0;
    [[nodiscard]] uint64_t packed() const { return static_cast<uint64_t>(scale) << 32 | count; }
    [[nodiscard]] static KxZeltoTime unpacked(uint64_t value)
    {
        return {static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 32)};
    }
};

/// Kernel event filter: codes of class (top byte), subclass, and 0xfffe.
class KxZeltoTrigger {
public:
    /// Array of uint32 numbers (an int32 stands for its low 32 bits) -> filter object. What is no number is left out.
    [[nodiscard]] static Ref<Array> createEventsFilterSetHelper(const Array& codes);
};

/// One trigger of a tap: what to record, of whom, how often. Built by one thread, then handed over.
class KxZeltoTriggerConfig final : public RefCounted {
public:
    struct Action {
        int32_t code = 0;
        std::vector<int32_t> arguments;
    };

    [[nodiscard]] static Ref<KxZeltoTriggerConfig> create();
    void setKind(int32_t kind) { _kind = kind; }
    void setIsAllProcesses(bool all) { _allProcesses = all; }
    void includePID(int32_t pid) { _pids.push_back(pid); }
    void setSampleInterval(KxZeltoTime interval) { _sampleInterval = interval; }
    void includeThreadState(uint32_t mask) { _threadStates.push_back(mask); }
    void addAction(int32_t code, std::initializer_list<int32_t> arguments = {})
    {
        _actions.push_back({code, arguments});
    }
    void addAction(int32_t code, std::vector<int32_t> arguments) { _actions.push_back({code, std::move(arguments)}); }
    void setKdebugFilter(Ref<Array> filter) { _filter = std::move(filter); }
    void setCallstackFrameDepth(int32_t depth) { _frameDepth = depth; }

    [[nodiscard]] int32_t kind() const { return _kind; }
    [[nodiscard]] bool isAllProcesses() const { return _allProcesses; }
    [[nodiscard]] const std::vector<int32_t>& pids() const { return _pids; }
    [[nodiscard]] KxZeltoTime sampleInterval() const { return _sampleInterval; }
    [[nodiscard]] const std::vector<uint32_t>& threadStates() const { return _threadStates; }
    [[nodiscard]] const std::vector<Action>& actions() const { return _actions; }
    [[nodiscard]] const Ref<Array>& kdebugFilter() const { return _filter; }
    [[nodiscard]] int32_t frameDepth() const { return _frameDepth; }

private:
    VNT_MAKE_REF_FRIEND;
    KxZeltoTriggerConfig() = default;
    int32_t _kind = 0;
    bool _allProcesses = false;
    std::vector<int32_t> _pids;
    KxZeltoTime _sampleInterval;
    std::vector<uint32_t> _threadStates;
    std::vector<Action> _actions;
    Ref<Array> _filter;
    int32_t _frameDepth = 0; // 0: the tap's own limit
};

class KxZeltoTapConfig final : public RefCounted {
public:
    [[nodiscard]] static Ref<KxZeltoTapConfig> create();
    void setBufferMode(int32_t mode) { _bufferMode = mode; }
    void setWindowSize(KxZeltoTime window) { _window = window; }
    void addTriggerConfig(Ref<KxZeltoTriggerConfig> trigger) { _triggers.push_back(std::move(trigger)); }

    [[nodiscard]] int32_t bufferMode() const { return _bufferMode; }
    [[nodiscard]] KxZeltoTime windowSize() const { return _window; }
    [[nodiscard]] const std::vector<Ref<KxZeltoTriggerConfig>>& triggers() const { return _triggers; }

    /// The configuration as the dictionary that travels.
    [[nodiscard]] Ref<Dictionary> encoded() const;
    /// Checks everything: types, counts, ranges, that each trigger names processes or all of them and not both, and
    /// that there is a trigger. What the codes mean is the tap's to check. Untrusted input. Errors: kInvalid, naming
    /// the entry.
    static Result<Ref<KxZeltoTapConfig>> decoded(const Dictionary& dictionary);

private:
    VNT_MAKE_REF_FRIEND;
    KxZeltoTapConfig() = default;
    int32_t _bufferMode = 0;
    KxZeltoTime _window;
    std::vector<Ref<KxZeltoTriggerConfig>> _triggers;
};

/// What the codes of a configuration mean to the tap.
inline constexpr int32_t kTapKindSampler = 1;
inline constexpr int32_t kTapKindTracer = 3;
inline constexpr int32_t kTapActionFinish = 0;
inline constexpr int32_t kTapActionStacks = 1; ///< two flags: user stacks, kernel stacks
inline constexpr int32_t kTapActionThread = 2;
inline constexpr int32_t kTapActionEvent = 3;
inline constexpr int32_t kTapBufferStream = 1;
inline constexpr int32_t kTapBufferWindow = 2;
inline constexpr uint32_t kTapThreadsAnyState = 0x10001;
inline constexpr uint32_t kTapThreadsOnProcessor = 0x400000;
inline constexpr uint32_t kTapThreadsRunning = 1;

/// Selectors of the tap services on the wire.
inline constexpr std::string_view kTapStart = "startTapWithConfiguration:";
inline constexpr std::string_view kTapPause = "pauseTap";
inline constexpr std::string_view kTapUnpause = "unpauseTap";
inline constexpr std::string_view kTapStop = "stopTap";

/// Drives a tap through its service queue. Start, pause, unpause and stop are synchronous, so when stop or pause
/// has returned all data of the tap is in the spool; a failure of any of them reaches the service's delegate as an
/// error, never the caller. Starting begins an empty stream.
class KxZeltoRemoteTap {
public:
    static void startOnServiceQueue(const Ref<KxServiceQueue>& queue, const KxZeltoTapConfig& configuration);
    static void pauseOnServiceQueue(const Ref<KxServiceQueue>& queue);
    static void unpauseOnServiceQueue(const Ref<KxServiceQueue>& queue);
    static void stopOnServiceQueue(const Ref<KxServiceQueue>& queue);
};

} // namespace vnt
