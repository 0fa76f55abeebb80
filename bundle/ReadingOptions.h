#pragma once

#include <cstdint>

#include "bundle/ProcessImages.h"

namespace vnt {

/// What a recording is reduced to.
struct ReadingOptions {
    /// What a frame of a stack is counted as.
    enum class Detail : uint8_t {
        kFunction,
        kModule, ///< neighbouring frames of one module are one
        kLine, ///< a line of source code; inlined functions have frames of their own
    };
    Detail detail = Detail::kFunction;
    TimeSpan
        span; ///< what happened outside is left out; losses and the recorder's cost are those of the whole recording
};

} // namespace vnt
