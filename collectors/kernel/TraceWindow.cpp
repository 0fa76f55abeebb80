#include "collectors/kernel/TraceWindow.h"

#include <algorithm>

#include "platform/base/sys.h"
#include "records/TraceRecordWriter.h"

namespace vnt {
namespace {

constexpr size_t kGenerations = 4; // in a window: what is kept beyond it is at most a quarter

} // namespace

Status TraceWindow::trySend(std::span<const std::byte> message)
{
    const uint64_t nowNs = sys::monotonicNs();
    const uint64_t beginNs = nowNs - std::min(nowNs, _windowNs);
    _held.push_back({{message.begin(), message.end()}, trace::generationOf(message), nowNs});
    _heldBytes += message.size();
    while (_held.front().generation != _held.back().generation) {
        const auto newest = std::find_if(_held.rbegin(), _held.rend(), [this](const Held& held) {
            return held.generation == _held.front().generation;
        });
        if (newest->receivedNs >= beginNs && _heldBytes <= _maxBytes)
            break;
        forgetOldestGeneration(beginNs);
    }
    return {};
}

void TraceWindow::forgetOldestGeneration(uint64_t windowBeginNs)
{
    const uint32_t generation = _held.front().generation;
    while (!_held.empty() && _held.front().generation == generation) {
        if (_held.front().receivedNs >= windowBeginNs)
            _pushedOut += trace::eventsIn(_held.front().message);
        _heldBytes -= _held.front().message.size();
        _held.pop_front();
    }
}

bool TraceWindow::wantsGeneration(uint64_t nowNs) const
{
    if (_held.empty())
        return false;
    size_t bytes = 0;
    uint64_t sinceNs = nowNs;
    for (auto held = _held.rbegin(); held != _held.rend() && held->generation == _held.back().generation; ++held) {
        bytes += held->message.size();
        sinceNs = held->receivedNs;
    }
    return bytes > _maxBytes / kGenerations || nowNs - sinceNs > _windowNs / kGenerations;
}

Status TraceWindow::flush(uint64_t nowNs)
{
    const uint64_t beginNs = nowNs - std::min(nowNs, _windowNs);
    Status status;
    for (Held& held : _held) {
        trace::redateMessage(held.message, _sequence, beginNs);
        status = _sink.send(held.message);
        if (!status.ok())
            break;
        ++_sequence;
    }
    _held.clear();
    _heldBytes = 0;
    return status;
}

} // namespace vnt
