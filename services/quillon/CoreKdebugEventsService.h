#pragma once

#include "platform/messagequeue/MessageQueueServer.h"

namespace vnt {

/// "quillon.server.services.corekdebugevents": what the kernel's events are. Where they cannot be read the call raises
/// with the reason.
class CoreKdebugEventsService final : public MessageQueueService {
public:
    /// `traceFiles`: of openTraceFiles(); outlives the connection.
    explicit CoreKdebugEventsService(int traceFiles) : _traceFiles(traceFiles) { }

    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;

private:
    const int _traceFiles;
};

} // namespace vnt
