#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "rumbel/view/TraceHistory.h"

namespace vnt::view {

using trace::EventKind;

namespace {

/// The kernel's error numbers in a returned value: -4095 to -1 (linux/err.h).
constexpr int64_t kLeastError = -4095;

constexpr const char* kClassNames[] = {"System calls", "Scheduling", "Processes and threads",
                                       "Page faults",  "Signals",    "Kernel locks",
                                       "Interrupts",   "Network",    "Storage",
                                       "Other"};

std::string valueText(uint64_t value, bool isAddress)
{
    char text[32];
    const auto number = static_cast<int64_t>(value);
    // Flags and pointers read best in hexadecimal; what is small is a count, a descriptor or an error.
    if (isAddress || number > INT32_MAX || number < INT32_MIN)
        std::snprintf(text, sizeof text, "0x%" PRIx64, value);
    else
        std::snprintf(text, sizeof text, "%" PRId64, number);
    return text;
}

std::string resultText(int64_t result)
{
    if (result >= kLeastError && result < 0) {
        const char* name = ::strerrorname_np(static_cast<int>(-result));
        return name ? name : std::to_string(result);
    }
    return valueText(static_cast<uint64_t>(result), false);
}

/// Why a thread left the processor, by the state it went with (sched(7) bits as tracepoints show them).
std::string leavingText(uint64_t state)
{
    constexpr uint64_t kInterruptible = 1;
    constexpr uint64_t kUninterruptible = 2;
    constexpr uint64_t kStopped = 4;
    constexpr uint64_t kTraced = 8;
    constexpr uint64_t kEnded = 0x10 | 0x20;
    if (state & kUninterruptible)
        return "waits, uninterruptible";
    if (state & kInterruptible)
        return "waits";
    if (state & (kStopped | kTraced))
        return "stopped";
    return state & kEnded ? "ended" : "pushed aside";
}

} // namespace

std::string TraceHistory::detail(const Row& row) const
{
    const Type& type = _types[row.type];
    std::string text = pageText(row.text);
    if (type.event == EventKind::kSwitch)
        return leavingText(row.values[0]);
    if (type.event == EventKind::kSignalGenerate || type.event == EventKind::kSignalDeliver) {
        const char* name = row.values[0] < NSIG ? ::sigabbrev_np(static_cast<int>(row.values[0])) : nullptr;
        text = name ? std::string("SIG") + name : text;
    }
    for (size_t i = 0; i < row.valueCount; ++i) {
        if (!text.empty())
            text += type.event == EventKind::kCallEnter ? ", " : "  ";
        const std::string name = i < type.values.size() ? type.values[i] : std::to_string(i);
        text += name + "=" + valueText(row.values[i], (type.flags & trace::TypeRecord::kAddresses) != 0);
    }
    if (row.ended && type.event == EventKind::kCallEnter)
        text = "(" + text + ") = " + resultText(row.result);
    return text;
}

Json TraceHistory::rowsJson()
{
    thin();
    std::sort(_rows.begin(), _rows.end(), [](const Row& a, const Row& b) { return a.timeNs < b.timeNs; });
    std::vector<uint64_t> times;
    std::vector<uint64_t> durations;
    std::vector<uint32_t> cpus, threads, types, nodes, details;
    std::vector<std::string> texts;
    std::unordered_map<std::string, uint32_t> textNumbers;
    for (const Row& row : _rows) {
        times.push_back(row.timeNs - std::min(_page.originNs(), row.timeNs));
        // 0: an instant, or something without its end; else one more than the duration
        durations.push_back(row.ended ? row.durationNs + 1 : 0);
        cpus.push_back(row.cpu);
        threads.push_back(row.thread);
        types.push_back(row.type);
        nodes.push_back(row.node);
        std::string text = detail(row);
        const auto [found, isNew] = textNumbers.try_emplace(text, static_cast<uint32_t>(texts.size()));
        if (isNew)
            texts.push_back(std::move(text));
        details.push_back(found->second);
    }
    PageColumns& columns = _page.columns();
    return {{"time", columns.addDifferences(times)}, {"duration", columns.add(durations)}, {"cpu", columns.add(cpus)},
            {"thread", columns.add(threads)},        {"type", columns.add(types)},         {"node", columns.add(nodes)},
            {"detail", columns.add(details)},        {"texts", std::move(texts)},          {"seen", _rowsSeen}};
}

Json TraceHistory::finish()
{
    for (auto& [key, row] : _pending)
        keep(std::move(row));
    _pending.clear();
    std::vector<uint64_t> weights = _off.weights(_tree.count());
    for (const Row& row : _rows)
        ++weights[row.node]; // what the table shows keeps its stack while there is room
    const std::vector<uint32_t> numbers = _tree.prune(weights);
    _off.renumberNodes(numbers);
    for (Row& row : _rows)
        row.node = numbers[row.node];
    Json types = Json::array();
    for (const Type& type : _types)
        types.push_back({{"name", type.event == EventKind::kSwitch ? "off processor" : type.name},
                         {"class", static_cast<uint32_t>(type.kind)}});
    PageColumns& columns = _page.columns();
    return {{"classes", kClassNames},      {"types", std::move(types)}, {"counts", _counts.json(columns)},
            {"tree", _tree.json(columns)}, {"off", _off.json(columns)}, {"rows", rowsJson()}};
}

} // namespace vnt::view
