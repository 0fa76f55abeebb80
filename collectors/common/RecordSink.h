#pragma once

#include <cstdint>
#include <span>

#include "platform/base/Status.h"

namespace vnt {

/// Where a collector's finished batches go; implemented by the service that owns the collector. Any thread.
class RecordSink {
public:
    virtual ~RecordSink() = default;
    /// Hands over one message if there is room now. kTimedOut: no room; the collector drops the batch, counts what was
    /// in it and begins a new dictionary generation. kPeerGone: nobody will ever read it.
    virtual Status trySend(std::span<const std::byte> message) = 0;
    /// As above, but waits for room until the reader is gone. For the last batches at pause and stop.
    virtual Status send(std::span<const std::byte> message) = 0;
    /// Something went wrong outside any request; the text says what and what would help. The recording goes on.
    virtual void reportProblem(const std::string& text) = 0;
};

} // namespace vnt
