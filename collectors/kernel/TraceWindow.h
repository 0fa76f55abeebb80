#pragma once

#include <deque>
#include <vector>

#include "collectors/common/RecordSink.h"
#include "records/TraceRecords.h"

namespace vnt {

/// Keeps the latest messages of a recording instead of passing them on, and sends what lies in the window when asked:
/// a flight recorder. Stands between the assembler and the sink; owned by the tracer, used on its reader thread.
///
/// Messages go out as they were kept, with the window's beginning written into them: readers leave out events before
/// it. Whole generations are forgotten when they are older than the window, so the assembler must begin a new one
/// whenever wantsGeneration() says so. Memory: the events of one and a quarter windows, kMaxBytes at most; what that
/// limit pushes out is counted as lost.
class TraceWindow final : public RecordSink {
public:
    static constexpr size_t kMaxBytes = size_t{256} << 20; ///< some 25 million events

    TraceWindow(uint64_t windowNs, RecordSink& sink, size_t maxBytes = kMaxBytes)
        : _windowNs(windowNs),
          _maxBytes(maxBytes),
          _sink(sink)
    {
    }

    Status trySend(std::span<const std::byte> message) override;
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { _sink.reportProblem(text); }

    [[nodiscard]] bool wantsGeneration(uint64_t nowNs) const;
    /// Sends the window that ends at `nowNs`, waiting for room, and forgets everything. The assembler must begin a
    /// generation afterwards.
    Status flush(uint64_t nowNs);
    /// Events inside the window that the limit pushed out since the last call.
    uint64_t takePushedOut() { return std::exchange(_pushedOut, 0); }
    [[nodiscard]] size_t heldBytes() const { return _heldBytes; }

private:
    struct Held {
        std::vector<std::byte> message;
        uint32_t generation = 0;
        uint64_t receivedNs = 0; ///< not before any event in it
    };
    void forgetOldestGeneration(uint64_t windowBeginNs);

    const uint64_t _windowNs;
    const size_t _maxBytes;
    RecordSink& _sink; // outlives the tracer
    std::deque<Held> _held;
    size_t _heldBytes = 0;
    uint64_t _pushedOut = 0;
    uint32_t _sequence = 0;
};

} // namespace vnt
