#pragma once

#include <functional>
#include <span>

#include "bundle/ReadingOptions.h"
#include "bundle/StackProfile.h"
#include "records/StackRecordReader.h"

namespace vnt {

/// Reads the stack sampler's messages into a StackProfile. A sample of a known stack costs two hash look-ups; a new
/// frame node one symbol look-up. Untrusted input: what is damaged is counted and told. One thread.
class StackProfileBuilder final : private stacks::StackRecordHandler {
public:
    /// Both references outlive this.
    StackProfileBuilder(Symbolizer& symbolizer, Remarks& remarks, const ReadingOptions& options = {})
        : _symbolizer(symbolizer),
          _remarks(remarks),
          _options(options)
    {
    }

    /// Is told every sample as it is counted: when, and by their numbers in the finished profile its thread and its
    /// place in the call tree.
    using OnCounted = std::function<void(uint64_t timeNs, uint32_t thread, uint32_t node, const ProfileWeight& weight)>;
    void observe(OnCounted onCounted) { _onCounted = std::move(onCounted); }

    /// The next message of the recording.
    void add(std::span<const std::byte> message);
    /// The finished profile; nothing may be added afterwards.
    StackProfile take();

private:
    /// Where a stack stands in the call tree, and how long that holds.
    struct Path {
        uint32_t node = 0;
        bool isTruncated = false;
        TimeSpan valid;
    };
    /// A frame node in one role; also the key of the paths that end there.
    struct Frame {
        uint32_t number = 0;
        FrameRole role = FrameRole::kExact;
    };

    void onGeneration(uint32_t generation) override;
    void onSession(const stacks::SessionRecord& session) override;
    void onSample(const stacks::SampleRecord& sample) override;
    void onOrphan(uint64_t timeNs) override;
    void onLost(uint64_t timeNs, stacks::LostCause cause, uint64_t newly, uint64_t total) override;
    void onFork(uint64_t timeNs, uint32_t parent, uint32_t child) override;
    void onCost(uint64_t timeNs, uint64_t cpuNs, uint64_t samples) override;
    void onMissingMessages(uint64_t count) override;

    Path pathOf(uint32_t pid, uint32_t stack, uint64_t timeNs);
    void extend(Path& path, uint32_t pid, uint32_t frame, uint64_t timeNs, FrameRole role);
    [[nodiscard]] Frame callerOf(const Frame& frame) const;
    [[nodiscard]] static uint64_t pathKey(uint32_t pid, const Frame& frame);
    uint32_t child(uint32_t parent, uint32_t symbol);
    uint32_t threadIndex(const stacks::ThreadRecord& thread);
    void noteTime(uint64_t timeNs);

    Symbolizer& _symbolizer;
    Remarks& _remarks;
    const ReadingOptions _options;
    stacks::StackRecordReader _reader;
    StackProfile _profile;
    std::unordered_map<uint64_t, uint32_t> _children; // parent << 32 | symbol -> node
    std::unordered_map<uint64_t, uint32_t> _threadIndexes; // pid << 32 | tid
    std::unordered_map<uint64_t, Path> _paths; // of this generation's frame nodes, by pathKey()
    OnCounted _onCounted; ///< may be empty
    std::vector<Frame> _walk; // frames of one stack without a path yet; kept for its memory
};

} // namespace vnt
