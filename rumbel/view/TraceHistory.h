#pragma once

#include <array>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/TraceReader.h"
#include "rumbel/view/CallTree.h"
#include "rumbel/view/PageBuilder.h"
#include "rumbel/view/TimeGrid.h"

namespace vnt::view {

/// What kernel events happened when: counts of every kind for each thread and slice of time, where threads left the
/// processor, and the events themselves as rows of a table. What begins and ends (a system call, a time off the
/// processor, an interrupt) is one row with a duration. Rows are bounded: when they become too many, every other one of
/// the shorter half goes, so the longest stay. Some 200 ns an event. One thread.
class TraceHistory {
public:
    static constexpr size_t kMaxRows = 60'000; ///< of a page

    TraceHistory(PageBuilder& page, PageSymbols& symbols);
    void add(const TraceEvent& event);
    /// Ends the reading.
    [[nodiscard]] Json finish();

private:
    enum Class : uint8_t {
        kCalls,
        kScheduling,
        kTasks,
        kFaults,
        kSignals,
        kLocks,
        kInterrupts,
        kNetwork,
        kStorage,
        kOther,
        kClasses
    };
    enum Value : size_t { kCount, kDurationNs, kValueCount };
    static constexpr size_t kMaxTypes = 4000; ///< further ones share one number

    struct Type {
        std::string name;
        Class kind = kOther;
        std::vector<std::string> values;
        uint32_t flags = 0;
        trace::EventKind event = trace::EventKind::kOther;
    };
    struct Row {
        uint64_t timeNs = 0;
        uint64_t durationNs = 0;
        uint32_t cpu = 0;
        uint32_t thread = 0;
        uint32_t type = 0;
        uint32_t node = 0;
        bool ended = false; ///< `result` is the returned value
        uint8_t valueCount = 0;
        int64_t result = 0;
        std::array<uint64_t, trace::kMaxValues> values{};
        std::string text;
    };
    /// What a pending beginning belongs to: a thread or a processor.
    struct SpanKey {
        trace::EventKind begin = trace::EventKind::kOther;
        uint32_t owner = 0;
        bool operator==(const SpanKey&) const = default;
    };
    struct SpanHash {
        size_t operator()(const SpanKey& key) const
        {
            return std::hash<uint64_t>()(uint64_t{key.owner} << 8 | static_cast<uint64_t>(key.begin));
        }
    };

    static Class classOf(trace::EventKind kind);
    uint32_t typeOf(const TraceEvent& event);
    uint32_t typeNamed(Type type);
    uint32_t nodeOf(const TraceEvent& event);
    Row rowOf(const TraceEvent& event);
    void begin(const TraceEvent& event, trace::EventKind kind, uint32_t owner);
    void end(const TraceEvent& event, trace::EventKind kind, uint32_t owner);
    void endOffProcessor(uint32_t tid, uint64_t timeNs);
    void keep(Row row);
    void thin();
    [[nodiscard]] std::string detail(const Row& row) const;
    [[nodiscard]] Json rowsJson();

    PageBuilder& _page;
    PageSymbols& _symbols;
    CallTree _tree;
    TimeGrid<kValueCount> _counts; ///< its nodes are types
    TimeGrid<kValueCount> _off; ///< its nodes are _tree's
    std::vector<Row> _rows;
    uint64_t _rowsSeen = 0;
    std::vector<Type> _types;
    std::map<std::string, uint32_t> _typeNumbers;
    std::unordered_map<SpanKey, Row, SpanHash> _pending;
    // Of the current definitions: the numbers of its types and stacks here.
    const trace::Definitions* _definitions = nullptr;
    std::vector<uint32_t> _knownTypes;
    std::unordered_map<uint64_t, uint32_t> _knownStacks; ///< by process and stack
    std::vector<uint64_t> _frames;
};

} // namespace vnt::view
