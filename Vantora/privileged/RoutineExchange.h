#pragma once

#include "platform/mach/RoutineLayouts.h"

/// What the remote routines have in common: one request, its reply in the same memory, the checks of the reply.
namespace vnt {

/// Sends `message` to its remote port and receives the reply to the request `requestId`. On success the reply stands in
/// the memory, its header checked, its own reply right, which none of ours has, given back. Any other reply is
/// destroyed with all it brought. 0, mach_msg's statuses, MIG_SERVER_DIED, MIG_REPLY_MISMATCH.
kern_return_t exchangeRoutine(mach_msg_header_t* message, mach_msg_size_t sendBytes, mach_msg_size_t receiveLimit,
                              int32_t requestId);

/// Fills the header of a request: the service's port is copied, the reply right is the thread's.
void beginRoutine(mach_msg_header_t& header, mach_port_t service, int32_t requestId);

/// The descriptor of memory that stays the sender's.
OutOfLineDescriptor<NativeAddress> outOfLine(const void* data, uint32_t length);

/// A number of a reply in this process's byte order.
uint32_t inLocalOrder(uint32_t value, const NDR_record_t& ndr);
inline int32_t inLocalOrder(int32_t value, const NDR_record_t& ndr)
{
    return static_cast<int32_t>(inLocalOrder(static_cast<uint32_t>(value), ndr));
}

/// The reply of a routine whose success is simple: its return code, or MIG_TYPE_ERROR.
kern_return_t checkStatusReply(const StatusReply& reply);

/// The shape of the reply of a routine whose success carries one descriptor in `successBytes`: 0 for a success whose
/// descriptor remains to be checked, the return code of a failure, MIG_TYPE_ERROR.
kern_return_t checkDescriptorReply(const mach_msg_header_t& reply, size_t successBytes);

} // namespace vnt
