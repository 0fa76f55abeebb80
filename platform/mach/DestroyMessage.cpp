#include <cstring>

#include "platform/mach/MessageLayout.h"
#include "platform/mach/OutOfLine.h"
#include "platform/mach/PortTable.h"

using namespace vnt;

namespace {

/// Gives back what one descriptor brought and returns its size, 0 when it does not fit into what is left.
size_t destroyDescriptor(const std::byte* at, size_t left)
{
    uint32_t flags = 0;
    if (left < kDescriptorFlagsOffset + sizeof flags)
        return 0;
    std::memcpy(&flags, at + kDescriptorFlagsOffset, sizeof flags);
    if (descriptorType(flags) == MACH_MSG_PORT_DESCRIPTOR) {
        PortDescriptor port{};
        std::memcpy(&port, at, sizeof port);
        (void)PortTable::shared().deallocate(port.name); // a null or dead name holds nothing
        return sizeof port;
    }
    OutOfLineDescriptor<NativeAddress> memory{};
    if (descriptorType(flags) != MACH_MSG_OOL_DESCRIPTOR || left < sizeof memory)
        return 0;
    std::memcpy(&memory, at, sizeof memory);
    (void)releaseRegion(reinterpret_cast<const void*>(static_cast<uintptr_t>(memory.address))); // none for no bytes
    return sizeof memory;
}

} // namespace

void mach_msg_destroy(mach_msg_header_t* message)
{
    try {
        if (message->msgh_remote_port != MACH_PORT_NULL)
            (void)PortTable::shared().deallocate(message->msgh_remote_port);
        message->msgh_remote_port = MACH_PORT_NULL;
        mach_msg_body_t body{};
        if ((message->msgh_bits & MACH_MSGH_BITS_COMPLEX) == 0
            || message->msgh_size < kMessageHeaderBytes + sizeof body)
            return;
        const auto* at = reinterpret_cast<const std::byte*>(message) + kMessageHeaderBytes;
        size_t left = message->msgh_size - kMessageHeaderBytes - sizeof body;
        std::memcpy(&body, at, sizeof body);
        at += sizeof body;
        for (uint32_t i = 0; i < body.msgh_descriptor_count; ++i) {
            const size_t size = destroyDescriptor(at, left);
            if (size == 0)
                return;
            at += size;
            left -= size;
        }
    } catch (...) { // no memory: what is left stays with this process until its end
    }
}
