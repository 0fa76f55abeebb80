#include "Vantora/privileged/RoutineExchange.h"

#include <cstring>

namespace vnt {

// Byte of an NDR record that says in which order integers stand.
static_assert(offsetof(NDR_record_t, int_rep) == 4);

kern_return_t exchangeRoutine(mach_msg_header_t* message, mach_msg_size_t sendBytes, mach_msg_size_t receiveLimit,
                              int32_t requestId)
{
    const mach_port_t replyPort = message->msgh_local_port;
    const mach_msg_return_t status = mach_msg(message, MACH_SEND_MSG | MACH_RCV_MSG, sendBytes, receiveLimit, replyPort,
                                              /*timeoutMs=*/0, MACH_PORT_NULL);
    if (status != KERN_SUCCESS) {
        // After these three nothing was sent, so no late reply can reach the port: it is kept.
        if (status == MACH_SEND_INVALID_DATA || status == MACH_SEND_INVALID_DEST || status == MACH_SEND_INVALID_HEADER)
            mig_put_reply_port(replyPort);
        else
            mig_dealloc_reply_port(replyPort);
        return status;
    }
    kern_return_t verdict = KERN_SUCCESS;
    if (message->msgh_id != requestId + kReplyIdDistance)
        verdict = message->msgh_id == MACH_NOTIFY_SEND_ONCE ? MIG_SERVER_DIED : MIG_REPLY_MISMATCH;
    if (verdict != KERN_SUCCESS) {
        mach_msg_destroy(message);
    } else if (message->msgh_remote_port != MACH_PORT_NULL) {
        (void)mach_port_deallocate(mach_task_self(), message->msgh_remote_port);
        message->msgh_remote_port = MACH_PORT_NULL;
    }
    return verdict;
}

void beginRoutine(mach_msg_header_t& header, mach_port_t service, int32_t requestId)
{
    header.msgh_bits = kRoutineRequestBits;
    header.msgh_remote_port = service;
    header.msgh_local_port = mig_get_reply_port();
    header.msgh_id = requestId;
}

OutOfLineDescriptor<NativeAddress> outOfLine(const void* data, uint32_t length)
{
    OutOfLineDescriptor<NativeAddress> descriptor{};
    descriptor.address = reinterpret_cast<NativeAddress>(data);
    descriptor.flags = outOfLineFlags(/*deallocate=*/false);
    descriptor.size = length;
    return descriptor;
}

uint32_t inLocalOrder(uint32_t value, const NDR_record_t& ndr)
{
    return ndr.int_rep == NDR_record.int_rep ? value : __builtin_bswap32(value);
}

kern_return_t checkStatusReply(const StatusReply& reply)
{
    if ((reply.header.msgh_bits & MACH_MSGH_BITS_COMPLEX) != 0 || reply.header.msgh_size != sizeof reply)
        return MIG_TYPE_ERROR;
    return inLocalOrder(reply.returnCode, reply.ndr);
}

kern_return_t checkDescriptorReply(const mach_msg_header_t& reply, size_t successBytes)
{
    if ((reply.msgh_bits & MACH_MSGH_BITS_COMPLEX) != 0) {
        mach_msg_body_t body{};
        std::memcpy(&body, &reply + 1, sizeof body); // every complex message has one
        return body.msgh_descriptor_count == 1 && reply.msgh_size == successBytes ? kern_return_t{KERN_SUCCESS}
                                                                                  : kern_return_t{MIG_TYPE_ERROR};
    }
    StatusReply simple{};
    if (reply.msgh_size != sizeof simple)
        return MIG_TYPE_ERROR;
    std::memcpy(&simple, &reply, sizeof simple);
    // Success without what it should bring is none.
    return simple.returnCode != KERN_SUCCESS ? inLocalOrder(simple.returnCode, simple.ndr)
                                             : kern_return_t{MIG_TYPE_ERROR};
}

} // namespace vnt
