#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <unordered_map>
#include <vector>

namespace vnt {

/// Pairs the moments at which threads leave and take a processor into stretches of waiting. Moments come from several
/// rings, so they are put into order first: settle() uses those up to a time before which every ring was read.
/// One thread.
class WaitTracker {
public:
    /// A thread was off the processors from `beginNs` to `endNs`; `chain` is where it left, empty if that was not seen.
    struct Wait {
        uint32_t pid = 0;
        uint32_t tid = 0;
        uint64_t beginNs = 0;
        uint64_t endNs = 0;
        std::span<const uint64_t> chain;
    };
    using OnWait = std::function<void(const Wait&)>;

    /// Where a thread is that leaves its processor now: the same ring tells next that it left.
    void onStack(uint32_t tid, std::span<const uint64_t> chain);
    void onLeave(uint32_t pid, uint32_t tid, uint64_t timeNs);
    void onTake(uint32_t pid, uint32_t tid, uint64_t timeNs);
    void onBegin(uint32_t pid, uint32_t tid, uint64_t timeNs);
    void onExit(uint32_t pid, uint32_t tid, uint64_t timeNs);
    /// A thread that was seen on a processor is not one that waited since the beginning.
    void onRunning(uint32_t tid) { _threads[tid].seen = true; }

    /// Tells of the waits that ended up to `untilNs`. A thread whose first moment is taking a processor has waited
    /// since `beganNs`.
    void settle(uint64_t beganNs, uint64_t untilNs, const OnWait& onWait);
    /// As settle(), then of the waits that have not ended, as if they did; then everything is forgotten but the time up
    /// to which it was told. `expected` are threads of `pid` that live: one never seen has waited since `beganNs`.
    void finish(uint64_t beganNs, uint64_t untilNs, uint32_t pid, std::span<const uint32_t> expected,
                const OnWait& onWait);

private:
    enum class Kind { kLeave, kTake, kBegin, kExit };
    struct Moment {
        uint64_t timeNs = 0;
        uint32_t pid = 0;
        uint32_t tid = 0;
        Kind kind = Kind::kLeave;
        std::vector<uint64_t> chain;
    };
    struct Thread {
        uint64_t sinceNs = 0;
        uint32_t pid = 0;
        bool seen = false;
        bool waits = false;
        bool exited = false; ///< its last leaving comes after its exit record
        std::vector<uint64_t> chain;
    };
    void apply(Moment& moment, uint64_t beganNs, const OnWait& onWait);

    std::vector<Moment> _moments;
    std::unordered_map<uint32_t, std::vector<uint64_t>> _stacks; ///< by thread id, until it is told that it left
    std::unordered_map<uint32_t, Thread> _threads; ///< by thread id
    uint64_t _toldNs = 0; ///< up to when finish() told all
};

} // namespace vnt
