#include "rumbel/report/StackReport.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "rumbel/report/CallTreeText.h"

namespace vnt {

namespace {

using Json = nlohmann::ordered_json;

double milliseconds(uint64_t ns) { return static_cast<double>(ns) / 1e6; }

Json functionsJson(const StackReport& report)
{
    const bool withBlocked = report.totals().blockedRecords != 0;
    Json functions = Json::array();
    for (const ProfileFunction& function : report.functions) {
        const Symbol& symbol = report.symbol(function.symbol);
        Json entry{{"name", symbol.function}, {"self", function.self.samples}, {"total", function.total.samples}};
        if (!symbol.module.empty())
            entry["module"] = symbol.module;
        if (!symbol.path.empty() && symbol.path != symbol.module)
            entry["file"] = symbol.path;
        if (symbol.line != 0) {
            entry["source"] = symbol.sourceFile;
            entry["line"] = symbol.line;
        }
        if (withBlocked) {
            entry["blocked_self_ms"] = milliseconds(function.self.blockedNs);
            entry["blocked_total_ms"] = milliseconds(function.total.blockedNs);
        }
        functions.push_back(std::move(entry));
    }
    return functions;
}

Json threadsJson(const StackReport& report)
{
    Json threads = Json::array();
    for (const ProfileThread& thread : report.recording.profile.threads()) {
        Json entry{{"pid", thread.pid}, {"tid", thread.tid}, {"name", thread.name}, {"samples", thread.samples}};
        if (thread.blockedNs != 0)
            entry["blocked_ms"] = milliseconds(thread.blockedNs);
        threads.push_back(std::move(entry));
    }
    return threads;
}

/// Flat, parents before children: nesting as deep as the stacks would break other programs' readers.
Json treeJson(const StackReport& report)
{
    const StackProfile& profile = report.recording.profile;
    const CallTreeOrder order(profile);
    Json nodes = Json::array();
    std::vector<std::pair<uint32_t, int64_t>> steps; // node, index of its parent in `nodes`; next one last
    const auto push = [&](uint32_t node, int64_t index) {
        const auto children = order.children(node);
        for (size_t i = children.size(); i-- > 0;)
            steps.emplace_back(children[i], index);
    };
    push(0, -1);
    while (!steps.empty()) {
        const auto [number, parent] = steps.back();
        steps.pop_back();
        const ProfileNode& node = profile.nodes()[number];
        push(number, static_cast<int64_t>(nodes.size()));
        nodes.push_back(Json{{"name", report.symbol(node.symbol).function},
                             {"parent", parent},
                             {"self", node.self.samples},
                             {"total", order.totals()[number].samples}});
    }
    return nodes;
}

} // namespace

void addStackJson(const StackReport& report, const ReportOptions& options, Json& json)
{
    const ProfileTotals& totals = report.totals();
    json["target"] = report.targetName();
    json["executable"] = report.targetExecutable();
    json["interval_us"] = report.intervalNs() / 1000;
    json["duration_ms"] = milliseconds(report.durationNs());
    json["samples"] = totals.all.samples;
    json["lost"] = totals.lost();
    json["throttled"] = totals.throttled();
    json["truncated"] = totals.truncated;
    json["events_lost"] = totals.lostByCause[static_cast<size_t>(stacks::LostCause::kEventsDropped)];
    json["messages"] = report.recording.messages;
    json["messages_lost"] = std::max(totals.missingMessages, report.recording.droppedMessages);
    json["messages_damaged"] = totals.damagedMessages;
    json["blocked_samples"] = totals.blockedRecords;
    json["blocked_ms"] = milliseconds(totals.all.blockedNs);
    json["recorder_cpu_ms"] = milliseconds(totals.recorderCpuNs);
    json["kernel_release"] = report.recording.symbolizer->kernelRelease();
    json["threads"] = threadsJson(report);
    json["functions"] = functionsJson(report);
    if (options.tree)
        json["tree"] = treeJson(report);
}

} // namespace vnt
