#include "collectors/stacks/StackWindow.h"

#include <algorithm>
#include <tuple>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kBatchBytes = 48u << 10;
constexpr uint32_t kGenerations = 4; // in a window: what is kept beyond it is at most a quarter

} // namespace

/// Looks through messages that are about to go: losses they report are kept, samples inside the window are counted.
class StackWindow::Forgetting : public stacks::StackRecordHandler {
public:
    Forgetting(StackWindow& window, uint64_t beginNs) : _window(window), _beginNs(beginNs) { }
    void onSample(const stacks::SampleRecord& sample) override { _inside += sample.timeNs >= _beginNs; }
    void onLost(uint64_t, stacks::LostCause cause, uint64_t, uint64_t total) override
    {
        uint64_t& kept = _window._lost[static_cast<size_t>(cause)];
        kept = std::max(kept, total);
    }
    [[nodiscard]] uint64_t inside() const { return _inside; }

private:
    StackWindow& _window;
    const uint64_t _beginNs;
    uint64_t _inside = 0;
};

/// Writes again what lies inside the window, with numbers of its own.
class StackWindow::Resending : public stacks::StackRecordHandler {
public:
    Resending(StackWindow& window, const stacks::StackRecordReader& reader, uint64_t beginNs)
        : _window(window),
          _reader(reader),
          _beginNs(beginNs)
    {
    }

    void onSample(const stacks::SampleRecord& sample) override
    {
        if (sample.timeNs < _beginNs || !status.ok())
            return;
        const bool whole = _reader.frames(sample.stack, _frames);
        if (!_window._interner.roomFor(_frames.size()) || _threads.size() >= stacks::kMaxThreads)
            beginGeneration();
        const uint32_t thread = numberOf(*sample.thread);
        const auto maxFrames = whole ? UINT32_MAX : static_cast<uint32_t>(_frames.size());
        const uint32_t stack = _window._interner.intern(_frames, maxFrames, _window._writer);
        if (sample.blockedNs)
            _window._writer.addBlocked(sample.timeNs, thread, stack, sample.blockedNs);
        else
            _window._writer.addSample(sample.timeNs, thread, stack);
        sendWhenLarge(kBatchBytes);
    }
    void onExec(uint64_t timeNs, uint32_t pid, std::string_view name) override
    {
        _window._writer.addExec(timeNs, pid, name);
    }
    void onFork(uint64_t timeNs, uint32_t parent, uint32_t child) override
    {
        _window._writer.addFork(timeNs, parent, child);
    }
    void onExit(uint64_t timeNs, uint32_t pid) override { _window._writer.addExit(timeNs, pid); }
    void onLost(uint64_t, stacks::LostCause cause, uint64_t, uint64_t total) override
    {
        uint64_t& kept = _window._lost[static_cast<size_t>(cause)];
        kept = std::max(kept, total);
    }
    void onCost(uint64_t, uint64_t cpuNs, uint64_t) override { _costNs = cpuNs; }

    void finish(uint64_t nowNs)
    {
        for (size_t i = 0; i < stacks::kLostCauses; ++i) {
            if (_window._lost[i] != 0)
                _window._writer.addLost(nowNs, static_cast<stacks::LostCause>(i), _window._lost[i]);
        }
        _window._writer.addCost(nowNs, _costNs);
        sendWhenLarge(0);
    }

    Status status;

private:
    uint32_t numberOf(const stacks::ThreadRecord& thread)
    {
        const auto [entry, isNew] = _threads.try_emplace(std::tuple(thread.tid, thread.pid, thread.flags, thread.name),
                                                         static_cast<uint32_t>(_threads.size()));
        if (isNew)
            _window._writer.addThread(entry->second, thread);
        return entry->second;
    }
    void beginGeneration()
    {
        sendWhenLarge(0);
        _window._writer.beginGeneration();
        _window._interner.clear();
        _threads.clear();
    }
    void sendWhenLarge(size_t bytes)
    {
        if (_window._writer.empty() || _window._writer.sizeBytes() < bytes)
            return;
        if (status.ok())
            status = _window._sink.send(_window._writer.message());
        _window._writer.messageSent();
    }

    StackWindow& _window;
    const stacks::StackRecordReader& _reader;
    const uint64_t _beginNs;
    std::vector<uint64_t> _frames;
    std::map<std::tuple<uint32_t, uint32_t, uint32_t, std::string>, uint32_t> _threads;
    uint64_t _costNs = 0;
};

StackWindow::StackWindow(const stacks::SessionRecord& session, RecordSink& sink)
    : _windowNs(session.windowNs),
      _sink(sink),
      _writer(session)
{
}

Status StackWindow::trySend(std::span<const std::byte> message)
{
    const uint64_t nowNs = sys::monotonicNs();
    const uint64_t beginNs = nowNs - std::min(nowNs, _windowNs);
    ByteCursor cursor(message);
    cursor.little<uint64_t>(); // magic, version, flags
    _held.push_back({{message.begin(), message.end()}, cursor.little<uint32_t>(), nowNs});
    _heldBytes += message.size();
    while (_held.front().generation != _held.back().generation) {
        const auto newest = std::find_if(_held.rbegin(), _held.rend(), [this](const Held& held) {
            return held.generation == _held.front().generation;
        });
        if (newest->receivedNs >= beginNs && _heldBytes <= kMaxBytes)
            break;
        forgetOldestGeneration(beginNs);
    }
    return {};
}

void StackWindow::forgetOldestGeneration(uint64_t windowBeginNs)
{
    stacks::StackRecordReader reader;
    Forgetting forgetting(*this, windowBeginNs);
    const uint32_t generation = _held.front().generation;
    while (!_held.empty() && _held.front().generation == generation) {
        VNT_CHECK(reader.read(_held.front().message, forgetting).ok()); // we wrote it
        _heldBytes -= _held.front().message.size();
        _held.pop_front();
    }
    _lost[static_cast<size_t>(stacks::LostCause::kWindowFull)] += forgetting.inside();
}

bool StackWindow::wantsGeneration(uint64_t nowNs) const
{
    if (_held.empty())
        return false;
    size_t bytes = 0;
    uint64_t sinceNs = nowNs;
    for (auto held = _held.rbegin(); held != _held.rend() && held->generation == _held.back().generation; ++held) {
        bytes += held->message.size();
        sinceNs = held->receivedNs;
    }
    return bytes > kMaxBytes / kGenerations || nowNs - sinceNs > _windowNs / kGenerations;
}

Status StackWindow::flush(uint64_t nowNs)
{
    stacks::StackRecordReader reader;
    const uint64_t beginNs = nowNs - std::min(nowNs, _windowNs);
    Resending resending(*this, reader, beginNs);
    for (const Held& held : _held)
        VNT_CHECK(reader.read(held.message, resending).ok()); // we wrote it
    resending.finish(nowNs);
    _held.clear();
    _heldBytes = 0;
    _interner.clear();
    _writer.beginGeneration();
    return resending.status;
}

} // namespace vnt
