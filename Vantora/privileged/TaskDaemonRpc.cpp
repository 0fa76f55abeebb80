#include <Vantora/TaskDaemon.h>

#include <algorithm>

#include "Vantora/privileged/RoutineExchange.h"
#include "platform/mach/OutOfLine.h"

using namespace vnt;

namespace {

// Room for the reply and a trailer, as clients of these routines have always offered it; a larger reply is refused by
// the receive itself.
constexpr mach_msg_size_t kAttachReceiveLimit = 48;
constexpr mach_msg_size_t kStatusReceiveLimit = 44;
constexpr mach_msg_size_t kDataReceiveLimit = sizeof(void*) == 8 ? 64 : 60;

/// A request and whatever may come back for it, in the same memory.
template <typename Request, typename Reply, size_t ReceiveLimit> union RoutineMessage {
    Request request;
    StatusReply status;
    Reply reply;
    char room[ReceiveLimit];
    static_assert(ReceiveLimit >= sizeof(Reply) && ReceiveLimit >= sizeof(StatusReply));
};

kern_return_t requestStatus(mach_msg_header_t& request, size_t requestBytes, const StatusReply& reply,
                            int32_t requestId)
{
    kern_return_t status =
        exchangeRoutine(&request, static_cast<mach_msg_size_t>(requestBytes), kStatusReceiveLimit, requestId);
    if (status != KERN_SUCCESS)
        return status;
    status = checkStatusReply(reply);
    mach_msg_destroy(&request); // nothing but when it was complex
    return status;
}

kern_return_t requestData(mach_port_t daemon, mach_port_t client, int32_t requestId, void** data, uint32_t* length)
{
    RoutineMessage<ClientHandleRequest, DataReply<NativeAddress>, kDataReceiveLimit> message{};
    beginRoutine(message.request.header, daemon, requestId);
    message.request.body.msgh_descriptor_count = 1;
    message.request.clientHandle = {client, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND)};
    kern_return_t status =
        exchangeRoutine(&message.request.header, sizeof message.request, kDataReceiveLimit, requestId);
    if (status != KERN_SUCCESS)
        return status;
    const DataReply<NativeAddress>& reply = message.reply;
    status = checkDescriptorReply(reply.header, sizeof reply);
    if (status == KERN_SUCCESS && descriptorType(reply.data.flags) != MACH_MSG_OOL_DESCRIPTOR)
        status = MIG_TYPE_ERROR;
    if (status == KERN_SUCCESS) {
        auto* const memory = reinterpret_cast<void*>(static_cast<uintptr_t>(reply.data.address));
        const uint32_t count = inLocalOrder(reply.dataCount, reply.ndr);
        // The count is what the caller will read: it must not pass the memory that came.
        if (count <= regionSize(memory)) {
            *data = memory;
            *length = count;
            return KERN_SUCCESS;
        }
        status = MIG_TYPE_ERROR;
    }
    mach_msg_destroy(&message.reply.header);
    return status;
}

} // namespace

extern "C" {

kern_return_t attach_access(mach_port_t daemon, const char* authorization, uint32_t length, int pid, mach_port_t* task)
{
    RoutineMessage<AttachAccessRequest<NativeAddress>, AttachAccessReply,
                   std::max<size_t>(kAttachReceiveLimit, sizeof(AttachAccessRequest<NativeAddress>))>
        message{};
    auto& request = message.request;
    beginRoutine(request.header, daemon, kAttachAccessId);
    request.body.msgh_descriptor_count = 1;
    request.authorization = outOfLine(authorization, length);
    request.ndr = NDR_record;
    request.authorizationCount = length;
    request.pid = pid;
    kern_return_t status = exchangeRoutine(&request.header, sizeof request, kAttachReceiveLimit, kAttachAccessId);
    if (status != KERN_SUCCESS)
        return status;
    const AttachAccessReply& reply = message.reply;
    status = checkDescriptorReply(reply.header, sizeof reply);
    if (status == KERN_SUCCESS
        && (descriptorType(reply.task.flags) != MACH_MSG_PORT_DESCRIPTOR
            || portDisposition(reply.task.flags) != MACH_MSG_TYPE_MOVE_SEND))
        status = MIG_TYPE_ERROR;
    if (status == KERN_SUCCESS)
        *task = reply.task.name;
    else
        mach_msg_destroy(&message.reply.header);
    return status;
}

kern_return_t setup_launch_daemon(mach_port_t daemon, const char* authorization, uint32_t length, const void* payload,
                                  uint32_t payloadLength)
{
    RoutineMessage<SetupLaunchDaemonRequest<NativeAddress>, StatusReply, kStatusReceiveLimit> message{};
    auto& request = message.request;
    beginRoutine(request.header, daemon, kSetupLaunchDaemonId);
    request.body.msgh_descriptor_count = 2;
    request.authorization = outOfLine(authorization, length);
    request.payload = outOfLine(payload, payloadLength);
    request.ndr = NDR_record;
    request.authorizationCount = length;
    request.payloadCount = payloadLength;
    return requestStatus(request.header, sizeof request, message.status, kSetupLaunchDaemonId);
}

kern_return_t watch_pids(mach_port_t daemon, const char* authorization, uint32_t length, mach_port_t client)
{
    RoutineMessage<WatchPidsRequest<NativeAddress>, StatusReply, kStatusReceiveLimit> message{};
    auto& request = message.request;
    beginRoutine(request.header, daemon, kWatchPidsId);
    request.body.msgh_descriptor_count = 2;
    request.authorization = outOfLine(authorization, length);
    request.clientHandle = {client, 0, portFlags(MACH_MSG_TYPE_MAKE_SEND)};
    request.ndr = NDR_record;
    request.authorizationCount = length;
    return requestStatus(request.header, sizeof request, message.status, kWatchPidsId);
}

kern_return_t get_symbolication_info(mach_port_t daemon, mach_port_t client, void** data, uint32_t* length)
{
    return requestData(daemon, client, kGetSymbolicationInfoId, data, length);
}

kern_return_t stop_watching_pids(mach_port_t daemon, mach_port_t client, void** data, uint32_t* length)
{
    return requestData(daemon, client, kStopWatchingPidsId, data, length);
}

} // extern "C"
