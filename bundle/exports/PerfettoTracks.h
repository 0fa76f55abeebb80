#pragma once

#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "bundle/exports/PerfettoSequence.h"

namespace vnt {

/// The tracks of a Perfetto trace, each described before its first use, and what stands on them. One thread.
class PerfettoTracks {
public:
    /// `sequence`: for the descriptions, which all bear the trace's first time. The references outlive this.
    PerfettoTracks(PerfettoSequence& sequence, ExportSource& source) : _sequence(sequence), _source(source) { }

    enum class Unit : uint32_t { kCount = 2, kBytes = 3, kPercent = 100, kPerSecond = 101, kBytesPerSecond = 102 };

    /// Each answers the track's number. A thread's or process's new name is told when it changed.
    uint64_t process(uint32_t pid, std::string_view name, std::string_view executable = {});
    uint64_t processNumber(uint32_t process);
    uint64_t thread(uint32_t thread);
    /// `kind`, below 256, tells the counters of a process (0: of the machine) apart.
    uint64_t counter(uint32_t pid, uint32_t kind, std::string_view name, Unit unit);
    /// A track of its own for what belongs to a process (0: to none); `kind` as above, apart from counters.
    uint64_t plain(uint32_t pid, uint32_t kind, std::string_view name);

private:
    void describe(const std::string& message);

    PerfettoSequence& _sequence;
    ExportSource& _source;
    std::unordered_map<uint32_t, std::string> _processes; ///< names told, by pid
    std::unordered_map<uint32_t, std::string> _threads; ///< names told, by number
    std::unordered_set<uint64_t> _others;
};

/// One TrackEvent being made.
class PerfettoEvent {
public:
    enum Type : uint32_t { kBegin = 1, kEnd = 2, kInstant = 3, kCounter = 4 };

    PerfettoEvent(PerfettoSequence& sequence, Type type, uint64_t track);
    PerfettoEvent& name(std::string_view name, std::string_view category);
    PerfettoEvent& stack(uint32_t stack); ///< 0: none
    PerfettoEvent& weight(double weight);
    PerfettoEvent& number(std::string_view name, uint64_t value);
    PerfettoEvent& signedNumber(std::string_view name, int64_t value);
    PerfettoEvent& pointer(std::string_view name, uint64_t value);
    PerfettoEvent& text(std::string_view name, std::string_view value);
    PerfettoEvent& value(int64_t value);
    PerfettoEvent& value(double value);
    void write(uint64_t timeNs);

private:
    PerfettoSequence& _sequence;
    std::string _text;
    protozero::pbf_writer _event{_text};
};

} // namespace vnt
