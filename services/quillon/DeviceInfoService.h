#pragma once

#include "platform/messagequeue/MessageQueueServer.h"
#include "services/quillon/AccessGuard.h"
#include "services/quillon/SignatureStore.h"

namespace vnt {

/// "quillon.server.services.deviceinfo": facts about processes and about the machine.
class DeviceInfoService final : public MessageQueueService {
public:
    DeviceInfoService(SignatureStore& signatures, AccessGuard& guard) : _signatures(signatures), _guard(guard) { }
    Ref<Object> onCall(const std::string& selector, const Ref<Array>& arguments) override;

private:
    SignatureStore& _signatures; // the worker's; outlives the connection
    AccessGuard& _guard; // likewise
};

/// Processor, cores, memory: what does not change while the machine runs.
[[nodiscard]] Ref<Dictionary> hardwareInformation();
/// Kernel, distribution, host, clock.
[[nodiscard]] Ref<Dictionary> systemInformation();
/// Records with "name" and "pid".
[[nodiscard]] Ref<Array> runningProcesses();

} // namespace vnt
