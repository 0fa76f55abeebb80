#include "bundle/StackProfileBuilder.h"

#include <algorithm>

namespace vnt {

namespace {

/// Some 100 bytes each with their index. Programs have thousands; only forged or endlessly changing stacks come here.
constexpr size_t kMaxNodes = 2u << 20;
/// Paths kept for the frame nodes of one generation; made again when needed.
constexpr size_t kMaxPaths = 1u << 20;
constexpr size_t kMaxThreads = 1u << 20;
/// x86 kernel addresses are the upper half of the address space.
constexpr uint64_t kFirstKernelAddress = uint64_t{1} << 63;

uint64_t pairKey(uint32_t high, uint32_t low) { return uint64_t{high} << 32 | low; }

} // namespace

void StackProfileBuilder::add(std::span<const std::byte> message)
{
    const Status status = _reader.read(message, *this);
    if (!status.ok()) {
        ++_profile._totals.damagedMessages;
        _remarks.add(status.message());
    }
}

StackProfile StackProfileBuilder::take() { return std::move(_profile); }

void StackProfileBuilder::onGeneration(uint32_t /*generation*/) { _paths.clear(); }

void StackProfileBuilder::onSession(const stacks::SessionRecord& session) { _profile._totals.session = session; }

void StackProfileBuilder::onSample(const stacks::SampleRecord& sample)
{
    if (!_options.span.contains(sample.timeNs))
        return;
    noteTime(sample.timeNs);
    const Path path = pathOf(sample.thread->pid, sample.stack, sample.timeNs);
    const uint32_t thread = threadIndex(*sample.thread);
    ProfileWeight weight;
    if (sample.blockedNs != 0) {
        weight.blockedNs = sample.blockedNs;
        ++_profile._totals.blockedRecords;
    } else {
        weight.samples = 1;
    }
    _profile._totals.truncated += path.isTruncated ? 1 : 0;
    _profile._totals.all += weight;
    _profile._threads[thread].samples += weight.samples;
    _profile._threads[thread].blockedNs += weight.blockedNs;
    _profile._nodes[path.node].self += weight;
    _profile._counts[pairKey(path.node, thread)] += weight;
    if (_onCounted)
        _onCounted(sample.timeNs, thread, path.node, weight);
}

void StackProfileBuilder::onOrphan(uint64_t timeNs)
{
    noteTime(timeNs);
    ++_profile._totals.orphans;
}

void StackProfileBuilder::onLost(uint64_t /*timeNs*/, stacks::LostCause cause, uint64_t newly, uint64_t /*total*/)
{
    _profile._totals.lostByCause[static_cast<size_t>(cause)] += newly;
}

void StackProfileBuilder::onFork(uint64_t /*timeNs*/, uint32_t parent, uint32_t child)
{
    _symbolizer.noteFork(parent, child);
}

void StackProfileBuilder::onCost(uint64_t /*timeNs*/, uint64_t cpuNs, uint64_t /*samples*/)
{
    _profile._totals.recorderCpuNs = std::max(_profile._totals.recorderCpuNs, cpuNs);
}

void StackProfileBuilder::onMissingMessages(uint64_t count) { _profile._totals.missingMessages += count; }

StackProfileBuilder::Frame StackProfileBuilder::callerOf(const Frame& frame) const
{
    const auto& node = _reader.node(frame.number);
    const uint32_t caller = node.caller;
    if (caller == 0)
        return {};
    // Where user code entered the kernel, its address is the interrupted instruction, not a return address.
    const bool entersKernel = node.address >= kFirstKernelAddress && _reader.node(caller).address < kFirstKernelAddress;
    return {caller, entersKernel ? FrameRole::kExact : FrameRole::kReturn};
}

uint64_t StackProfileBuilder::pathKey(uint32_t pid, const Frame& frame)
{
    static_assert(stacks::kMaxNodes < uint32_t{1} << 31);
    return pairKey(pid, frame.number << 1 | static_cast<uint32_t>(frame.role));
}

/// Walks from the innermost frame out to the first whose path is known, then makes the missing ones inward.
StackProfileBuilder::Path StackProfileBuilder::pathOf(uint32_t pid, uint32_t stack, uint64_t timeNs)
{
    Path path;
    if (stack == 0) {
        path.node = child(0, Symbolizer::kNoStack);
        return path;
    }
    _walk.clear();
    for (Frame frame{stack, FrameRole::kExact}; frame.number != 0; frame = callerOf(frame)) {
        const auto known = _paths.find(pathKey(pid, frame));
        if (known != _paths.end() && known->second.valid.contains(timeNs)) {
            path = known->second;
            break;
        }
        _walk.push_back(frame);
    }
    if (_paths.size() + _walk.size() > kMaxPaths)
        _paths.clear();
    for (auto frame = _walk.rbegin(); frame != _walk.rend(); ++frame) {
        extend(path, pid, frame->number, timeNs, frame->role);
        _paths[pathKey(pid, *frame)] = path;
    }
    return path;
}

void StackProfileBuilder::extend(Path& path, uint32_t pid, uint32_t frame, uint64_t timeNs, FrameRole role)
{
    const auto& node = _reader.node(frame);
    if (node.cut) {
        path.isTruncated = true;
        path.node = child(path.node, Symbolizer::kTruncated);
        return;
    }
    const Symbolizer::Resolved resolved = _symbolizer.resolve(pid, node.address, timeNs, role);
    switch (_options.detail) {
    case ReadingOptions::Detail::kFunction:
        path.node = child(path.node, resolved.symbol);
        break;
    case ReadingOptions::Detail::kModule: {
        const uint32_t label = _symbolizer.moduleLabel(resolved.symbol);
        if (path.node == 0 || _profile._nodes[path.node].symbol != label)
            path.node = child(path.node, label);
        break;
    }
    case ReadingOptions::Detail::kLine: {
        const auto frames = _symbolizer.frames(pid, node.address, timeNs, role);
        for (auto each = frames.rbegin(); each != frames.rend(); ++each)
            path.node = child(path.node, _symbolizer.lineLabel(*each));
        break;
    }
    }
    path.valid.narrow(resolved.valid);
}

uint32_t StackProfileBuilder::child(uint32_t parent, uint32_t symbol)
{
    const uint64_t key = pairKey(parent, symbol);
    const auto known = _children.find(key);
    if (known != _children.end())
        return known->second;
    if (_profile._nodes.size() >= kMaxNodes) {
        _remarks.add("too many different call paths: further ones are counted at their callers");
        return parent;
    }
    const auto number = static_cast<uint32_t>(_profile._nodes.size());
    _profile._nodes.push_back({parent, symbol, {}});
    _children.emplace(key, number);
    return number;
}

uint32_t StackProfileBuilder::threadIndex(const stacks::ThreadRecord& thread)
{
    const auto [position, isNew] =
        _threadIndexes.try_emplace(pairKey(thread.pid, thread.tid), static_cast<uint32_t>(_profile._threads.size()));
    if (isNew) {
        if (_profile._threads.size() >= kMaxThreads) {
            _threadIndexes.erase(position);
            _remarks.add("too many threads: further ones are counted as the last");
            return static_cast<uint32_t>(_profile._threads.size() - 1);
        }
        _profile._threads.push_back({thread.pid, thread.tid, thread.name, 0, 0});
    }
    ProfileThread& known = _profile._threads[position->second];
    if (known.name != thread.name)
        known.name = thread.name;
    return position->second;
}

void StackProfileBuilder::noteTime(uint64_t timeNs)
{
    ProfileTotals& totals = _profile._totals;
    if (totals.all.isZero() && totals.orphans == 0)
        totals.firstTimeNs = totals.lastTimeNs = timeNs;
    totals.firstTimeNs = std::min(totals.firstTimeNs, timeNs);
    totals.lastTimeNs = std::max(totals.lastTimeNs, timeNs);
}

} // namespace vnt
