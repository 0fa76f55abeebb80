#pragma once

#include <deque>
#include <map>
#include <vector>

#include "collectors/common/RecordSink.h"
#include "collectors/stacks/StackInterner.h"
#include "records/StackRecordReader.h"
#include "records/StackRecordWriter.h"

namespace vnt {

/// Keeps the latest messages of a recording instead of passing them on, and sends what lies in the window when asked:
/// a flight recorder. Stands between the assembler and the sink; owned by the sampler, used on its reader thread.
///
/// Whole generations are forgotten when they are older than the window, so the assembler must begin a new one whenever
/// wantsGeneration() says so. Memory: the samples' 6 to 9 bytes and their definitions for one and a quarter windows,
/// kMaxBytes at most; what that limit pushes out is counted as lost.
class StackWindow final : public RecordSink {
public:
    static constexpr size_t kMaxBytes = size_t{64} << 20;

    StackWindow(const stacks::SessionRecord& session, RecordSink& sink);

    Status trySend(std::span<const std::byte> message) override;
    Status send(std::span<const std::byte> message) override { return trySend(message); }
    void reportProblem(const std::string& text) override { _sink.reportProblem(text); }

    [[nodiscard]] bool wantsGeneration(uint64_t nowNs) const;
    /// Sends the samples of the window that ends at `nowNs`, waiting for room, and forgets everything. The assembler
    /// must begin a generation afterwards.
    Status flush(uint64_t nowNs);
    [[nodiscard]] size_t heldBytes() const { return _heldBytes; }

private:
    struct Held {
        std::vector<std::byte> message;
        uint32_t generation = 0;
        uint64_t receivedNs = 0; ///< not before any sample in it
    };
    class Forgetting;
    class Resending;

    void forgetOldestGeneration(uint64_t windowBeginNs);

    const uint64_t _windowNs;
    RecordSink& _sink; // outlives the sampler
    std::deque<Held> _held;
    size_t _heldBytes = 0;
    uint64_t _lost[stacks::kLostCauses] = {}; ///< totals told by what was forgotten, and what the limit pushed out
    stacks::StackRecordWriter _writer;
    StackInterner _interner;
};

} // namespace vnt
