#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "bundle/Bundle.h"
#include "records/TraceRecordReader.h"

namespace vnt {

/// One kernel event of a recording. Valid during the call that delivers it.
class TraceEvent {
public:
    [[nodiscard]] uint64_t timeNs() const { return _event.timeNs; } ///< CLOCK_MONOTONIC of the recorded machine
    [[nodiscard]] uint32_t cpu() const { return _event.cpu; }
    /// What was running; for an event about another thread not necessarily the target. See isOutside().
    [[nodiscard]] const stacks::ThreadRecord& thread() const { return _definitions.thread(_event.thread); }
    [[nodiscard]] const trace::TypeRecord& type() const { return _definitions.type(_event.type); }
    /// The same for events of one type as long as definitions() stays the same; below trace::kMaxTypes.
    [[nodiscard]] uint32_t typeNumber() const { return _event.type; }
    /// One for each name of type().values; what they mean stands at trace::EventKind.
    [[nodiscard]] std::span<const uint64_t> values() const { return _event.values; }
    /// The value's number, 0 when the event has fewer.
    [[nodiscard]] uint64_t value(size_t index) const { return index < _event.values.size() ? _event.values[index] : 0; }
    [[nodiscard]] std::string_view text() const { return _event.text; }
    /// Another thread did it; it is recorded because it is about one of the target's.
    [[nodiscard]] bool isOutside() const { return (thread().flags & trace::kOutsideTarget) != 0; }

    [[nodiscard]] bool hasStack() const { return _event.stack != 0; }
    /// Number of the stack as long as definitions() stays the same.
    [[nodiscard]] uint32_t stackNumber() const { return _event.stack; }
    /// Replaces `addresses` by the frames, innermost first; those in the kernel have the highest bit set. False: the
    /// outer ones are missing.
    bool stack(std::vector<uint64_t>& addresses) const { return _definitions.frames(_event.stack, addresses); }
    [[nodiscard]] const trace::SessionRecord& session() const { return _definitions.session(); }
    [[nodiscard]] const trace::Definitions& definitions() const { return _definitions; }

private:
    friend class TraceReader;
    TraceEvent(const trace::EventRecord& event, const trace::Definitions& definitions)
        : _event(event),
          _definitions(definitions)
    {
    }
    const trace::EventRecord& _event;
    const trace::Definitions& _definitions;
};

/// What a recording of kernel events says about itself.
struct TraceTotals {
    uint64_t events = 0; ///< delivered
    uint64_t lostByCause[trace::kLostCauses] = {};
    uint64_t orphans = 0; ///< events whose definitions were lost; not among the events
    uint64_t unordered = 0; ///< of the events: delivered behind a later one
    uint64_t recorderCpuNs = 0;
    uint64_t firstTimeNs = 0;
    uint64_t lastTimeNs = 0;
    uint64_t missingMessages = 0; ///< gaps in the sequence of messages
    uint64_t damagedMessages = 0;
    trace::SessionRecord session;

    /// Events that happened and are not in the recording. Without nested(), most of which were never the target's.
    [[nodiscard]] uint64_t lost() const;
    /// Events of any process that happened in an interrupt of the recording of another one, or because of it.
    [[nodiscard]] uint64_t nested() const { return lostByCause[static_cast<size_t>(trace::LostCause::kRecursion)]; }
};

/// Delivers the events of one recording in the order of time. Processors are recorded one after the other; events wait
/// here until the recording says that no earlier one is to come. Memory: what was recorded between two such marks, some
/// 100 bytes an event, kMaxWaiting at most; past that the older half goes out, and what then comes too late is counted.
/// Untrusted input: what is damaged is counted and told. An event costs some 150 ns. One thread.
class TraceReader {
public:
    static constexpr size_t kMaxWaiting = 2u << 20;

    using OnEvent = std::function<void(const TraceEvent&)>;
    using OnFork = std::function<void(uint64_t timeNs, uint32_t parent, uint32_t child)>;

    /// `onFork` is called when a record says so, before the child's first event; may be empty. `remarks` outlives this.
    TraceReader(OnEvent onEvent, OnFork onFork, Remarks& remarks);
    ~TraceReader();

    /// The next message of the recording.
    void add(std::span<const std::byte> message);
    /// Delivers what still waits; nothing may be added afterwards.
    TraceTotals finish();

private:
    class Handler;
    struct Waiting;

    void release(uint64_t untilNs);
    void deliver(const Waiting& waiting);

    OnEvent _onEvent;
    OnFork _onFork;
    Remarks& _remarks;
    trace::TraceRecordReader _reader;
    std::unique_ptr<Handler> _handler;
    std::vector<Waiting> _waiting;
    std::vector<uint64_t> _values; ///< of those that wait, by Waiting::valuesAt
    std::string _texts;
    std::deque<std::shared_ptr<const trace::Definitions>> _definitions; ///< of those that wait, oldest first
    uint32_t _forgottenDefinitions = 0; ///< the first of them has this number
    uint64_t _deliveredNs = 0;
    TraceTotals _totals;
};

/// Passes every event of a bundle's Kernel Tracer to `onEvent` in the order of time, in bounded memory. Never fails:
/// what cannot be read is missing and told in the bundle's remarks. Errors of the stream are in `messages`.
TraceTotals readTrace(const Bundle& bundle, const InstrumentData& data, const TraceReader::OnEvent& onEvent,
                      const TraceReader::OnFork& onFork, MessageTotals& messages);

} // namespace vnt
