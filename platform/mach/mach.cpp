#include "platform/mach/mach.h"

#include <chrono>
#include <cstdint>
#include <new>

#include "platform/base/sys.h"
#include "platform/mach/MessageTransfer.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

using namespace vnt;

namespace {

/// Nothing thrown leaves a C function; what can be thrown below here is a lack of memory.
template <typename Body> kern_return_t guarded(Body body) noexcept
{
    try {
        return body();
    } catch (...) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

Deadline deadlineFor(mach_msg_option_t option, int flag, mach_msg_timeout_t timeoutMs)
{
    if ((option & flag) == 0)
        return std::nullopt;
    return std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
}

} // namespace

extern "C" {

mach_msg_return_t mach_msg(mach_msg_header_t* message, mach_msg_option_t option, mach_msg_size_t sendSize,
                           mach_msg_size_t receiveLimit, mach_port_name_t receiveName, mach_msg_timeout_t timeoutMs,
                           mach_port_name_t)
{
    return guarded([&]() -> mach_msg_return_t {
        if ((option & MACH_SEND_MSG) != 0) {
            const mach_msg_return_t status =
                sendMessage(message, sendSize, deadlineFor(option, MACH_SEND_TIMEOUT, timeoutMs));
            if (status != KERN_SUCCESS)
                return status;
        }
        if ((option & MACH_RCV_MSG) == 0)
            return KERN_SUCCESS;
        return receiveMessage(message, receiveLimit, receiveName, deadlineFor(option, MACH_RCV_TIMEOUT, timeoutMs));
    });
}

mach_port_t mach_task_self(void) { return PortTable::kTaskSelf; }

kern_return_t mach_port_allocate(mach_port_t task, mach_port_right_t right, mach_port_name_t* name)
{
    return guarded([&]() -> kern_return_t {
        if (task != PortTable::kTaskSelf || !name || right != MACH_PORT_RIGHT_RECEIVE)
            return KERN_INVALID_ARGUMENT;
        auto port = Port::createReceive();
        if (!port.ok())
            return KERN_RESOURCE_SHORTAGE;
        *name = PortTable::shared().insertReceive(port.take());
        return KERN_SUCCESS;
    });
}

kern_return_t mach_port_deallocate(mach_port_t task, mach_port_name_t name)
{
    return guarded([&]() -> kern_return_t {
        return task == PortTable::kTaskSelf ? PortTable::shared().deallocate(name) : KERN_INVALID_ARGUMENT;
    });
}

kern_return_t mach_port_mod_refs(mach_port_t task, mach_port_name_t name, mach_port_right_t right,
                                 mach_port_delta_t delta)
{
    return guarded([&]() -> kern_return_t {
        return task == PortTable::kTaskSelf ? PortTable::shared().modifyReferences(name, right, delta)
                                            : KERN_INVALID_ARGUMENT;
    });
}

kern_return_t vm_deallocate(mach_port_t task, vm_address_t address, vm_size_t size)
{
    return guarded([&]() -> kern_return_t {
        if (task != PortTable::kTaskSelf)
            return KERN_INVALID_ARGUMENT;
        if (address == 0 && size == 0)
            return KERN_SUCCESS;
        return releaseRegion(reinterpret_cast<const void*>(address)) ? KERN_SUCCESS : KERN_INVALID_ADDRESS;
    });
}

uint64_t mach_absolute_time(void) { return sys::monotonicNs(); }

kern_return_t mach_timebase_info(mach_timebase_info_data_t* info)
{
    if (!info)
        return KERN_INVALID_ARGUMENT;
    *info = {1, 1};
    return KERN_SUCCESS;
}

} // extern "C"
