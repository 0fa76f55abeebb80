#pragma once

#include "platform/messagequeue/MessageQueueServer.h"

namespace vnt {

/// "quillon.server.services.capabilities": the version of each service, which is that of the records it sends.
class CapabilitiesService final : public MessageQueueService {
public:
    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;
};

} // namespace vnt
