#pragma once

#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "bundle/TraceReader.h"

namespace vnt {

/// What a kernel event is on a time line: the beginning or end of a span, or an instant.
struct KernelSpanEnd {
    enum class Kind : uint8_t { kInstant, kBegin, kEnd };
    Kind kind = Kind::kInstant;
    uint32_t group = 0; ///< a begin's end has the same one
};
[[nodiscard]] KernelSpanEnd kernelSpanOf(trace::EventKind kind);
/// "system call", "scheduling", …
[[nodiscard]] std::string_view kernelCategoryOf(trace::EventKind kind);
/// What to call the event: a system call by its own name, an interrupt by its text, others by their tracepoint.
[[nodiscard]] std::string_view kernelEventName(const TraceEvent& event);

/// Makes spans of the events of each thread that nest, whatever was lost: a begin whose end is missing ends with what
/// is around it, an end without a begin is an instant. One thread.
template <typename Open> class KernelSpans {
public:
    static constexpr size_t kMaxDepth = 32; ///< deeper ones are instants; in damaged recordings only

    /// The spans of a thread, the innermost last.
    struct Span {
        uint32_t group = 0;
        Open open;
    };
    std::vector<Span>& of(uint32_t thread) { return _threads[thread]; }
    /// How many spans of the thread a new one of `group` ends: system calls do not nest.
    [[nodiscard]] static size_t keptBy(const std::vector<Span>& spans, uint32_t group)
    {
        for (size_t i = 0; i < spans.size(); ++i) {
            if (spans[i].group == group)
                return i;
        }
        return spans.size();
    }
    [[nodiscard]] const std::unordered_map<uint32_t, std::vector<Span>>& all() const { return _threads; }

private:
    std::unordered_map<uint32_t, std::vector<Span>> _threads;
};

} // namespace vnt
