#include "rumbel/view/PageBuilder.h"

#include <algorithm>
#include <cstring>

#include "bundle/Instruments.h"
#include "rumbel/report/textLines.h"

namespace vnt::view {
namespace {

/// The layout of the page's data; the page refuses another.
constexpr int kPageVersion = 1;

} // namespace

uint32_t PageThreads::number(uint32_t pid, uint32_t tid, const std::string& name)
{
    const auto [found, isNew] = _numbers.try_emplace(uint64_t{pid} << 32 | tid, static_cast<uint32_t>(_names.size()));
    if (!isNew) {
        if (!name.empty() && _pids[found->second] == pid)
            _names[found->second] = pageText(name);
        return found->second;
    }
    if (_names.size() >= kMaxThreads) {
        _numbers.erase(found);
        return kMaxThreads - 1;
    }
    const bool isLast = _names.size() == kMaxThreads - 1;
    _pids.push_back(isLast ? 0 : pid);
    _tids.push_back(isLast ? 0 : tid);
    _names.push_back(isLast ? "[further threads]" : pageText(name));
    return found->second;
}

Json PageThreads::json(PageColumns& columns) const
{
    return {{"pid", columns.add(_pids)}, {"tid", columns.add(_tids)}, {"names", _names}};
}

void Facts::add(std::string_view label, std::string text, bool isLoss)
{
    Json fact{{"label", label}, {"text", std::move(text)}};
    if (isLoss)
        fact["loss"] = true;
    _list.push_back(std::move(fact));
}

void Facts::addCost(uint64_t cpuNs, uint64_t durationNs)
{
    add("Recorder", duration(cpuNs) + " of processor time, " + percent(cpuNs, durationNs) + " % of one processor");
}

void Facts::addMessages(const MessageTotals& messages, uint64_t missing, uint64_t damaged)
{
    if (messages.dropped + missing != 0)
        addLoss("Messages lost", grouped(std::max(messages.dropped, missing)), 1);
    if (damaged != 0)
        addLoss("Damaged messages", grouped(damaged), damaged);
}

PageBuilder::PageBuilder(const Bundle& bundle) : _bundle(bundle)
{
    Remarks ignored; // the parts open the archives again, and tell
    for (const std::string& identifier : bundle.instruments()) {
        const uint64_t start = InstrumentData::open(bundle.path(), identifier, ignored).startNs();
        if (start != 0 && (_originNs == 0 || start < _originNs))
            _originNs = start;
    }
    addHeader();
}

void PageBuilder::addHeader()
{
    const std::string& path = _bundle.path();
    _json["version"] = kPageVersion;
    _json["bundle"] = pageText(path.substr(path.rfind('/') + 1));
    _json["instruments"] = Json::array();
}

uint64_t PageBuilder::durationNs(const InstrumentData& data, uint64_t firstNs, uint64_t lastNs)
{
    if (data.startNs() != 0 && data.stopNs() > data.startNs())
        return data.stopNs() - data.startNs();
    return lastNs > firstNs ? lastNs - firstNs : 0;
}

void PageBuilder::cover(const InstrumentData& data, uint64_t firstNs, uint64_t lastNs)
{
    const bool isKnown = data.startNs() != 0 && data.stopNs() > data.startNs();
    const uint64_t from = isKnown ? data.startNs() : firstNs;
    const uint64_t until = isKnown ? std::max(data.stopNs(), std::min(lastNs, data.stopNs() * 2)) : lastNs;
    if (from == 0 && until == 0)
        return;
    _fromNs = std::min(_fromNs, std::max(from, _originNs));
    _untilNs = std::max(_untilNs, until);
}

void PageBuilder::addInstrument(const InstrumentData& data, const Facts& facts)
{
    Json entry{{"id", data.identifier()}};
    for (const InstrumentKind& kind : kInstrumentKinds) {
        if (kind.identifier == data.identifier())
            entry["name"] = kind.displayName;
    }
    if (data.pid())
        entry["pid"] = *data.pid();
    entry["start"] = data.startSeconds();
    entry["facts"] = facts.json();
    _json["instruments"].push_back(std::move(entry));
}

std::vector<std::byte> PageBuilder::finish()
{
    _json["fromNs"] = _fromNs == UINT64_MAX ? 0 : _fromNs - std::min(_originNs, _fromNs);
    _json["untilNs"] = _untilNs - std::min(_originNs, _untilNs);
    _json["functions"] = _functions.json(_columns);
    _json["threads"] = _threads.json(_columns);
    Json remarks = Json::array();
    for (const std::string& text : _bundle.remarks().texts())
        remarks.push_back(pageText(text));
    if (_bundle.remarks().omitted() != 0)
        remarks.push_back("and " + grouped(_bundle.remarks().omitted()) + " further remarks");
    _json["remarks"] = std::move(remarks);
    _json["columns"] = _columns.descriptions();

    const std::string text = _json.dump(-1, ' ', false, Json::error_handler_t::replace);
    const auto length = static_cast<uint32_t>(text.size());
    const size_t columnsAt = (sizeof length + text.size() + 7) / 8 * 8;
    std::vector<std::byte> bytes(columnsAt + _columns.bytes().size());
    std::memcpy(bytes.data(), &length, sizeof length);
    std::memcpy(bytes.data() + sizeof length, text.data(), text.size());
    if (!_columns.bytes().empty())
        std::memcpy(bytes.data() + columnsAt, _columns.bytes().data(), _columns.bytes().size());
    return bytes;
}

} // namespace vnt::view
