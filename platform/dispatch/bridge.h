#pragma once

#include <Vantora/Platform.h>

#include "platform/dispatch/SerialQueue.h"

namespace vnt {

/// An exported queue is a pointer to the SerialQueue; these are the only casts between the two. Ownership does not
/// change.
[[nodiscard]] inline SerialQueue* queueFromC(dispatch_queue_t queue) { return reinterpret_cast<SerialQueue*>(queue); }
[[nodiscard]] inline dispatch_queue_t queueToC(SerialQueue* queue) { return reinterpret_cast<dispatch_queue_t>(queue); }

} // namespace vnt
