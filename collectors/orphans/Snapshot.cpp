#include "collectors/orphans/Snapshot.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <thread>

#include "platform/base/sys.h"

namespace vnt::orphans {
namespace {

/// A reallocation takes microseconds: the target is let go and stopped again rather than judged within one.
constexpr int kTries = 4;
constexpr auto kBetweenTries = std::chrono::microseconds(500);
constexpr uint64_t kPageBytes = 4096;
constexpr uint64_t kSpareBytes = uint64_t{2} << 20; // for what the target allocates until it stands still
constexpr uint64_t kAssumedFreeBytes = uint64_t{1} << 30; // where /proc/meminfo does not tell
constexpr std::string_view kJournalMapping = "/memfd:vantora-heap";

/// A line "name:   NUMBER kB" of /proc/meminfo, in bytes.
uint64_t availableBytes()
{
    const auto text = sys::readFile("/proc/meminfo", 16384);
    const size_t at = text.ok() ? text.value().find("MemAvailable:") : std::string::npos;
    return at == std::string::npos ? kAssumedFreeBytes
                                   : std::strtoull(text.value().c_str() + at + 13, nullptr, 10) * 1024;
}

/// Anonymous memory that the process has now (proc(5), statm: size, resident, shared).
uint64_t anonymousBytes(pid_t pid)
{
    const auto text = sys::readFile("/proc/" + std::to_string(pid) + "/statm", 256);
    if (!text.ok())
        return 0;
    char* at = nullptr;
    (void)std::strtoull(text.value().c_str(), &at, 10);
    const uint64_t resident = std::strtoull(at, &at, 10);
    const uint64_t shared = std::strtoull(at, &at, 10);
    return (resident - std::min(resident, shared)) * kPageBytes;
}

/// One taking of a snapshot; all of it on one thread, which ends afterwards.
class Taker {
public:
    Taker(HeapView& heap, const SnapshotOptions& options, const std::function<void(Snapshot&)>& onWindow)
        : _heap(heap),
          _options(options),
          _onWindow(onWindow),
          _limitBytes(options.limitBytes != 0 ? options.limitBytes : availableBytes() / 2)
    {
    }

    Status take();
    std::unique_ptr<Snapshot> result() { return std::move(_snapshot); }

private:
    Status holdStill();
    Status readMemory();
    void copyBlocks();
    void letGo();

    HeapView& _heap;
    const SnapshotOptions _options;
    const std::function<void(Snapshot&)>& _onWindow;
    const uint64_t _limitBytes;
    std::unique_ptr<Snapshot> _snapshot = std::make_unique<Snapshot>();
    std::unique_ptr<PausedTarget> _paused;
};

Status Taker::take()
{
    _snapshot->pid = _heap.pid();
    _snapshot->name = _heap.name();
    _snapshot->is32Bit = _heap.is32Bit();
    const uint64_t expected = anonymousBytes(_heap.pid());
    if (!_options.atExit && expected + kSpareBytes <= _limitBytes)
        _snapshot->image.prepare(expected + expected / 32 + kSpareBytes);
    RETURN_IF_ERROR(holdStill());
    RETURN_IF_ERROR(readMemory());
    _snapshot->threads = _paused->threads();
    if (_snapshot->isWindow()) {
        copyBlocks();
        _onWindow(*_snapshot);
        letGo();
    } else {
        letGo();
        copyBlocks();
    }
    return {};
}

Status Taker::holdStill()
{
    for (int i = 1;; ++i) {
        ASSIGN_OR_RETURN(_paused, PausedTarget::pause(_heap.pid()));
        _heap.drainStopped();
        _snapshot->reallocating = _heap.reallocating();
        if (_snapshot->reallocating.empty() || i == kTries)
            break;
        letGo();
        std::this_thread::sleep_for(kBetweenTries);
    }
    _snapshot->timeNs = sys::monotonicNs();
    _snapshot->lostEvents = _heap.lostEvents();
    _snapshot->hasUnknownBlocks = !_heap.knowsAllBlocks() || _snapshot->lostEvents != 0;
    return {};
}

Status Taker::readMemory()
{
    const std::string process = "process " + std::to_string(_heap.pid());
    ASSIGN_OR_RETURN(_snapshot->maps, readMaps(_heap.pid()));
    // The number may be another process's by now, or the same process another program.
    if (std::none_of(_snapshot->maps.begin(), _snapshot->maps.end(),
                     [](const MapEntry& entry) { return entry.path.starts_with(kJournalMapping); }))
        return Status(Code::kNotFound, process + " has ended, or runs another program without the journal");
    std::vector<Range> ranges;
    for (const MapEntry& entry : _snapshot->maps) {
        if (entry.canHoldPointers())
            ranges.push_back(entry.range);
    }
    RETURN_IF_ERROR(_snapshot->image.capture(_heap.pid(), ranges, _limitBytes));
    const auto after = readMaps(_heap.pid());
    if (!after.ok() || after.value().empty())
        return Status(Code::kNotFound, process + " was killed while it was looked into");
    return {};
}

void Taker::copyBlocks()
{
    _snapshot->blocks.reserve(_heap.blocks().count());
    _heap.blocks().forEachSlot([this](const LiveBlock& block) { _snapshot->blocks.push_back(block); });
    _snapshot->stacks = _heap.stacks();
}

void Taker::letGo()
{
    _paused->resume();
    _snapshot->pauseNs += _paused->pauseNs();
}

} // namespace

Result<std::unique_ptr<Snapshot>> takeSnapshot(HeapView& heap, const SnapshotOptions& options,
                                               const std::function<void(Snapshot&)>& onWindow)
{
    std::unique_ptr<Snapshot> snapshot;
    Status status;
    {
        const sys::SignalBlock block;
        std::thread([&] {
            Taker taker(heap, options, onWindow);
            status = taker.take();
            snapshot = taker.result();
        }).join();
    }
    RETURN_IF_ERROR(status);
    return snapshot;
}

} // namespace vnt::orphans
