#include "collectors/orphans/ResultWriter.h"

#include <algorithm>
#include <utility>

namespace vnt::orphans {
namespace {

constexpr size_t kBatchBytes = size_t{1} << 20; // below kMaxMessageBytes by more than a record and its stack need

} // namespace

uint32_t ResultWriter::writtenStack(uint32_t stack, const HeapStacks& stacks)
{
    if (stack == 0)
        return 0;
    const auto [known, added] = _stacks.emplace(stack, 0);
    if (!added)
        return known->second;
    std::vector<uint64_t> frames;
    const bool isCut = stacks.frames(stack, frames);
    if (_writer.nodeCount() + frames.size() + 1 > kMaxNodes)
        return 0;
    if (isCut && _cutNode == 0)
        _cutNode = _writer.addCutNode();
    uint32_t node = isCut ? _cutNode : 0;
    uint64_t callerAddress = 0;
    for (size_t i = frames.size(); i-- > 0;) {
        const auto [found, isNew] = _nodes.emplace(std::pair(node, frames[i]), 0);
        if (isNew)
            found->second = _writer.addNode(node, callerAddress, frames[i]);
        node = found->second;
        callerAddress = frames[i];
    }
    return known->second = node;
}

Status ResultWriter::send()
{
    const Status status = _sink.send(_writer.message());
    _writer.messageSent();
    return status;
}

Status ResultWriter::write(const OrphanResult& result)
{
    SearchRecord search = result.search;
    search.number = ++_searches;
    const bool sameProcess = std::exchange(_pidBefore, search.pid) == search.pid;
    const auto before = std::exchange(_before, {});
    _stacks.clear();
    _writer.addSearch(result.timeNs, search);
    for (const FoundLeak& leak : result.leaks) {
        LeakRecord record = leak.record;
        record.stack = writtenStack(leak.stack, result.stacks);
        const auto known = before.find(record.address);
        record.isNew = !sameProcess || known == before.end() || known->second != record.timeNs;
        _before.emplace(record.address, record.timeNs);
        _writer.addLeak(record);
        if (_writer.sizeBytes() >= kBatchBytes)
            RETURN_IF_ERROR(send());
    }
    _writer.addEnd({result.leaks.size(), search.leaks - result.leaks.size(), result.omittedBytes});
    return send();
}

Status ResultWriter::writeNotSearched(uint64_t timeNs, pid_t pid, const std::string& reason)
{
    _writer.addNotSearched({timeNs, static_cast<uint32_t>(pid), reason});
    return send();
}

} // namespace vnt::orphans
