#pragma once

#include <poll.h>

#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "collectors/common/RingReader.h"
#include "collectors/common/drainInOrder.h"
#include "collectors/common/perf.h"
#include "collectors/stacks/FamilyFilter.h"
#include "collectors/stacks/SamplerPlan.h"
#include "platform/base/sys.h"

namespace vnt {

/// The kernel objects of one sampler: on each processor a ring and, placed on processors or on threads, the events
/// that write into it. Opened by the control thread, then drained by the reader thread.
class EventSet {
public:
    using OnRecord = std::function<void(const perf_event_header&, std::span<const std::byte>)>;

    /// Opens what `options` ask for, on processors if that is allowed, else on threads; `wanted` forces one of them.
    /// Sampling is off until enable(). Errors carry the advice of perf::explain().
    static Result<EventSet> open(const StackSamplerOptions& options, const Placement* wanted);

    Status enable();
    Status disable();
    /// With events on threads: opens those of threads that are not covered yet, until there are none. Records that
    /// arrive meanwhile go to `onRecord`. Call once after enable().
    Status followNewThreads(const OnRecord& onRecord);

    /// Passes on what the rings hold up to now, in the order of time. `onDead` is called once for a ring that became
    /// unreadable.
    template <typename OnEach, typename OnDead> void drain(OnEach&& onEach, OnDead&& onDead)
    {
        const uint64_t nowNs = sys::monotonicNs();
        const auto timeOf = [&](const RingReader::Record& record) { return timeInOrder(record, nowNs); };
        const auto onOne = [&](const perf_event_header& header, std::span<const std::byte> payload) {
            if (_retiring.empty() || !isDoubled(header, payload))
                onEach(header, payload);
        };
        std::vector<RingReader*> rings;
        for (const auto* processors : {&_formerProcessors, &_processors}) {
            for (const Processor& processor : *processors)
                rings.push_back(processor.ring.get());
        }
        drainInOrder(rings, nowNs, timeOf, onOne, onDead);
    }
    /// From now on samples bring so much of the stack, into rings of at least so many bytes if these can be had: opens
    /// events anew and then closes those before, without a sample lost or doubled. Records that arrive meanwhile go to
    /// `onRecord`. After an error the events are as before.
    Status renew(uint32_t dumpBytes, size_t ringBytes, const OnRecord& onRecord);
    /// For poll(2): readable when a quarter of a ring is full.
    void appendPollFds(std::vector<struct pollfd>& fds) const;

    /// Gives every kernel object back.
    void close();

    /// Identifiers of the events that sample running threads. Grows until followNewThreads() is done.
    [[nodiscard]] const std::unordered_set<uint64_t>& clockEvents() const { return _clockEvents; }
    /// The one process and its descendants, as they were when rings began to tell of those to come.
    [[nodiscard]] const std::vector<pid_t>& family() const { return _family; }
    [[nodiscard]] const KernelOffer& offer() const { return _offer; }
    /// Of one processor.
    [[nodiscard]] size_t ringBytes() const { return _processors.empty() ? 0 : _processors.front().ring->dataBytes(); }

private:
    struct Processor {
        int cpu = 0;
        UniqueFd ringEvent; ///< owns the ring, never ends
        uint64_t ringEventId = 0;
        std::unique_ptr<RingReader> ring;
    };
    using Events = std::vector<UniqueFd>; ///< one or two for each processor
    /// The events that sample, all with the same attributes.
    struct Generation {
        Events onProcessors;
        std::unordered_map<pid_t, Events> onThreads; ///< none for a thread that is covered by inheritance
        std::unordered_set<uint64_t> ids;
    };

    explicit EventSet(const StackSamplerOptions& options) : _options(options) { }
    Status tryOpen(Placement placement);
    Result<std::vector<Processor>> openRings(size_t bytes, size_t smallestBytes);
    Status openRing(Processor& processor, size_t bytes, bool& noMemory);
    bool openLargerRings(size_t bytes);
    Status openOnProcessors();
    Status openThread(pid_t tid, bool& gone);
    Status tryOpenThread(pid_t tid, Events& events);
    Status openEvents(const Processor& processor, pid_t tid, Events& events);
    Status openNewGeneration(const OnRecord& onRecord);
    uint64_t timeInOrder(const RingReader::Record& record, uint64_t nowNs) const;
    bool isDoubled(const perf_event_header& header, std::span<const std::byte> payload) const;
    Status openThreads(bool& any);
    Status explained(const Status& refusal, perf::Purpose purpose) const;
    template <typename Function> Status forEachSampling(Function function);

    StackSamplerOptions _options;
    KernelOffer _offer;
    std::vector<Processor> _processors;
    std::vector<Processor> _formerProcessors; ///< while others take over
    std::optional<FamilyFilter> _filter;
    std::vector<pid_t> _family;
    Generation _events;
    std::unordered_set<uint64_t> _clockEvents;
    /// While one generation follows another: identifiers of the old one's events, of the new one's rings if it has its
    /// own, and when it took over.
    std::unordered_set<uint64_t> _retiring;
    std::unordered_set<uint64_t> _newRings;
    uint64_t _tookOverNs = UINT64_MAX;
    bool _enabled = false;
};

/// The sampler with a forced placement, for comparing the two.
Result<std::unique_ptr<StackSampler>> startStackSampler(const StackSamplerOptions& options, RecordSink& sink,
                                                        ProcessObserver* observer, const Placement* wanted);

} // namespace vnt
