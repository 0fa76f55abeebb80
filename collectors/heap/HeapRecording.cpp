#include "collectors/heap/HeapRecording.h"

#include <thread>

namespace vnt {
namespace {

constexpr size_t kBatchBytes = size_t{64} << 10;
/// From this size on the definitions alone are too much to be carried on: the sender waits for room.
constexpr size_t kLargestBatchBytes = size_t{1} << 20;
/// A reader that makes no room for this long loses the batch. Meanwhile the target's rings fill, half a second's worth
/// of them at worst, and its threads wait a tenth of a second at most.
constexpr int kTriesForRoom = 100;
constexpr auto kTryInterval = std::chrono::milliseconds(1);
constexpr size_t kMaxZombies = 1u << 20;
constexpr uint32_t kNotMoving = LiveBlocks::kNone;
constexpr uint32_t kUnknownMoving = LiveBlocks::kNone - 1; ///< a block that was not known moves

heap::Fault faultOf(const JournalEvent& event)
{
    if (event.kind == journal::kCountOfFreed)
        return heap::changeOf(event.counting) < 0 ? heap::Fault::kReleased : heap::Fault::kRetained;
    return event.kind == journal::kDamaged ? heap::Fault::kWritten : heap::Fault::kSecondFree;
}

} // namespace

HeapRecording::HeapRecording(uint32_t eventsMask, const TimeScale& scale, RecordSink& sink)
    : _scale(scale),
      _sink(sink),
      _writer({eventsMask, 0}),
      _moving(journal::kRings, kNotMoving)
{
}

void HeapRecording::onEvent(const JournalEvent& event)
{
    const uint64_t timeNs = _scale.toNs(event.ticks);
    switch (event.kind) {
    case journal::kAllocate:
        allocate(event, timeNs);
        break;
    case journal::kFree:
        free(event, timeNs);
        break;
    case journal::kReallocBegin:
        beginRealloc(event, timeNs);
        break;
    case journal::kFreeKept:
        keepZombie(event, timeNs);
        break;
    case journal::kSecondFree:
    case journal::kDamaged:
    case journal::kCountOfFreed:
        recordFault(event, timeNs);
        break;
    case journal::kCount:
        recordCount(event, timeNs);
        break;
    default:
        endRealloc(event, timeNs);
    }
    if (_writer.sizeBytes() >= kBatchBytes && _collecting)
        flush(/*all=*/false, /*cpuNs=*/0);
}

void HeapRecording::allocate(const JournalEvent& event, uint64_t timeNs)
{
    const uint32_t old = _blocks.find(event.address);
    if (old != LiveBlocks::kNone) { // its free was lost
        dropSlot(old);
        _blocks.remove(old);
    }
    LiveBlock block;
    block.address = event.address;
    block.sizeBytes = event.sizeBytes;
    block.timeNs = timeNs;
    block.stack = event.stack;
    block.function = event.function;
    block.recorded = _collecting;
    const uint32_t slot = _blocks.add(block);
    if (slot == LiveBlocks::kNone || !_collecting)
        return;
    if (event.stack == 0 && _stacks.isFull())
        noteLost(heap::LostCause::kNoNode, _lost[static_cast<size_t>(heap::LostCause::kNoNode)] + 1);
    _writer.addAllocate(timeNs, event.function, slot, _stacks.written(event.stack, _writer), event.sizeBytes,
                        event.address);
}

void HeapRecording::free(const JournalEvent& event, uint64_t timeNs)
{
    const uint32_t slot = _blocks.find(event.address);
    if (slot != LiveBlocks::kNone) {
        recordFree(timeNs, event.function, slot);
        _blocks.remove(slot);
    } else if (_collecting) {
        _writer.addFreeUnknown(timeNs, event.function, event.address);
    }
}

void HeapRecording::keepZombie(const JournalEvent& event, uint64_t timeNs)
{
    const uint32_t slot = _blocks.find(event.address);
    if (_zombies.size() >= kMaxZombies)
        _zombies.clear(); // addresses seldom used again; the journal keeps a small part of so many
    _zombies[event.address] = {slot != LiveBlocks::kNone ? _blocks.block(slot).stack : 0, event.stack};
    free(event, timeNs);
}

void HeapRecording::recordFault(const JournalEvent& event, uint64_t timeNs)
{
    if (!_collecting)
        return;
    const auto found = _zombies.find(event.address);
    const Zombie zombie = found == _zombies.end() ? Zombie{} : found->second;
    heap::FaultRecord fault;
    fault.fault = faultOf(event);
    fault.address = event.address;
    fault.byte = event.sizeBytes;
    fault.allocateStack = _stacks.written(zombie.allocateStack, _writer);
    fault.freeStack = _stacks.written(zombie.freeStack, _writer);
    fault.faultStack = _stacks.written(event.stack, _writer);
    _writer.addFault(timeNs, fault);
}

void HeapRecording::recordCount(const JournalEvent& event, uint64_t timeNs)
{
    if (!_collecting)
        return;
    heap::CountRecord count;
    count.counting = event.counting;
    count.thread = event.thread;
    count.stack = _stacks.written(event.stack, _writer);
    count.before = event.sizeBytes;
    count.object = event.address;
    _writer.addCount(timeNs, count);
}

void HeapRecording::recordClasses(uint64_t timeNs, const ClassLook& look)
{
    if (!_collecting)
        return;
    _writer.addClassLook(timeNs, look.blocks, look.bytes);
    for (const heap::ClassRecord& found : look.classes)
        _writer.addClass(timeNs, found);
}

void HeapRecording::recordFree(uint64_t timeNs, heap::Function function, uint32_t slot)
{
    const LiveBlock& block = _blocks.block(slot);
    if (!_collecting)
        dropSlot(slot);
    else if (block.recorded)
        _writer.addFree(timeNs, function, slot);
    else
        _writer.addFreeUnknown(timeNs, function, block.address);
}

/// The block is gone without a free in the recording.
void HeapRecording::dropSlot(uint32_t slot)
{
    if (!_blocks.block(slot).recorded)
        return;
    if (_collecting)
        _writer.addFreedOutside(_writer.lastTimeNs(), slot);
    else
        _freedOutside.push_back(slot);
}

void HeapRecording::beginRealloc(const JournalEvent& event, uint64_t timeNs)
{
    uint32_t& moving = _moving[event.ring];
    if (moving < kUnknownMoving) { // the end of the one before was lost
        recordFree(timeNs, heap::Function::kRealloc, moving);
        _blocks.remove(moving);
    }
    moving = _blocks.find(event.address);
    if (moving != LiveBlocks::kNone)
        _blocks.detach(moving);
    else
        moving = kUnknownMoving;
}

std::vector<uint64_t> HeapRecording::reallocating() const
{
    std::vector<uint64_t> addresses;
    for (const uint32_t moving : _moving) {
        if (moving != kNotMoving)
            addresses.push_back(moving == kUnknownMoving ? 0 : _blocks.block(moving).address);
    }
    return addresses;
}

void HeapRecording::endRealloc(const JournalEvent& event, uint64_t timeNs)
{
    const uint32_t moving = std::exchange(_moving[event.ring], kNotMoving);
    if (event.address == 0) { // it failed, and the old block lives
        if (moving < kUnknownMoving && _blocks.find(_blocks.block(moving).address) == LiveBlocks::kNone)
            _blocks.attach(moving);
        return;
    }
    if (moving < kUnknownMoving) {
        recordFree(timeNs, heap::Function::kRealloc, moving);
        _blocks.remove(moving);
    } else if (moving == kUnknownMoving && _collecting) {
        _writer.addFreeUnknown(timeNs, heap::Function::kRealloc, 0);
    }
    allocate(event, timeNs);
}

void HeapRecording::beginProgram(uint64_t timeNs, const heap::TargetRecord& target)
{
    _blocks.clear();
    _freedOutside.clear();
    _zombies.clear();
    _stacks.beginProgram();
    _moving.assign(journal::kRings, kNotMoving);
    _hasTarget = true;
    _target = target;
    _targetTimeNs = timeNs;
    _targetPending = !_collecting;
    if (_collecting)
        _writer.addTarget(timeNs, target);
}

void HeapRecording::endProgram(uint64_t timeNs, uint32_t pid)
{
    if (_collecting)
        _writer.addExit(timeNs, pid);
}

void HeapRecording::noteLost(heap::LostCause cause, uint64_t total)
{
    uint64_t& known = _lost[static_cast<size_t>(cause)];
    if (total <= known)
        return;
    known = total;
    _lossesChanged = true;
}

void HeapRecording::startCollection(uint64_t timeNs)
{
    if (_collecting)
        return;
    _collecting = true;
    if (std::exchange(_targetPending, false))
        _writer.addTarget(timeNs, _target);
    for (const uint32_t slot : std::exchange(_freedOutside, {}))
        _writer.addFreedOutside(timeNs, slot);
}

Status HeapRecording::stopCollection(uint64_t timeNs, uint64_t cpuNs)
{
    if (!_collecting)
        return {};
    if (!_hasTarget)
        _writer.addNoTarget(timeNs);
    writeLosses(timeNs);
    _writer.addCost(timeNs, cpuNs);
    const Status status = _sink.send(_writer.message());
    status.ok() ? _writer.messageSent() : _writer.messageDropped();
    _collecting = false;
    return status;
}

void HeapRecording::writeLosses(uint64_t timeNs)
{
    _lossesChanged = false;
    for (size_t i = 0; i < heap::kLostCauses; ++i) {
        if (_lost[i] != 0)
            _writer.addLost(timeNs, static_cast<heap::LostCause>(i), _lost[i]);
    }
}

void HeapRecording::flush(bool all, uint64_t cpuNs)
{
    if (!_collecting || (_writer.empty() && !_lossesChanged) || (!all && _writer.sizeBytes() < kBatchBytes))
        return;
    if (_lossesChanged)
        writeLosses(_writer.lastTimeNs());
    if (cpuNs != 0)
        _writer.addCost(_writer.lastTimeNs(), cpuNs);
    const auto message = _writer.message();
    Status status = message.size() > kLargestBatchBytes ? _sink.send(message) : _sink.trySend(message);
    for (int i = 0; status.code() == Code::kTimedOut && i < kTriesForRoom; ++i) {
        std::this_thread::sleep_for(kTryInterval);
        status = _sink.trySend(message);
    }
    if (status.ok()) {
        _writer.messageSent();
        return;
    }
    _peerGone = status.code() == Code::kPeerGone;
    const uint64_t events = _writer.pendingEvents();
    _writer.messageDropped();
    if (events != 0)
        noteLost(heap::LostCause::kBatchDropped, _lost[static_cast<size_t>(heap::LostCause::kBatchDropped)] + events);
}

} // namespace vnt
