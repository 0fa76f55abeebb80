#pragma once

#include <unordered_map>

#include "bundle/TraceSummary.h"

namespace vnt {

/// Takes the events of one recording in the order of time. A system call costs one look-up, a switch three. One thread.
class TraceSummaryBuilder {
public:
    void add(const TraceEvent& event);
    TraceSummary take();

private:
    /// What is known of a thread between two events of it.
    struct State {
        size_t thread = SIZE_MAX; ///< into TraceSummary::threads; SIZE_MAX: not of the target so far
        uint64_t enteredNs = 0; ///< 0: not within a system call
        uint32_t call = 0;
        uint64_t leftNs = 0; ///< 0: running
        size_t offStack = SIZE_MAX;
        uint64_t wokenNs = 0; ///< 0: not woken since
        uint64_t lockedNs = 0; ///< 0: waits for no lock
    };
    struct Type { ///< of the current definitions
        uint64_t* count = nullptr;
        uint64_t* outsideCount = nullptr;
        size_t call = SIZE_MAX;
    };

    State& stateOf(uint32_t tid);
    TraceThread& threadOf(const stacks::ThreadRecord& record, State& state);
    Type& typeOf(const TraceEvent& event);
    size_t callNamed(const trace::TypeRecord& type);
    void onCall(const TraceEvent& event, const Type& type, State& state);
    void onSwitch(const TraceEvent& event, State& state);
    void onRunning(uint32_t tid, uint64_t timeNs);
    void onWakeup(const TraceEvent& event);
    size_t offStackOf(const TraceEvent& event);

    TraceSummary _summary;
    const trace::Definitions* _definitions = nullptr;
    std::vector<Type> _types;
    std::unordered_map<uint32_t, State> _states; ///< by tid
    std::map<std::string, size_t> _calls;
    std::unordered_map<uint64_t, size_t> _offStacks; ///< by hash of process and frames
    std::unordered_map<uint64_t, size_t> _offNumbers; ///< by process and stack number, of the current definitions
    std::vector<uint64_t> _frames;
};

} // namespace vnt
