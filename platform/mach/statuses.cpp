#include <cstdio>

#include "platform/mach/mach.h"

namespace {

struct Text {
    kern_return_t status;
    const char* text;
};

constexpr Text kTexts[] = {
    {KERN_SUCCESS, "no error"},
    {KERN_INVALID_ADDRESS, "invalid address"},
    {KERN_PROTECTION_FAILURE, "others may have changed it"},
    {KERN_INVALID_ARGUMENT, "invalid argument"},
    {KERN_FAILURE, "operation failed"},
    {KERN_RESOURCE_SHORTAGE, "memory or descriptors ran out"},
    {KERN_NO_ACCESS, "access denied"},
    {KERN_NAME_EXISTS, "the name is taken"},
    {KERN_INVALID_NAME, "no such port name"},
    {KERN_INVALID_RIGHT, "the port name holds no such right"},
    {KERN_INVALID_VALUE, "invalid value"},
    {KERN_TERMINATED, "the process has ended, or executed another program"},
    {MACH_SEND_INVALID_DATA, "send: invalid data"},
    {MACH_SEND_INVALID_DEST, "send: invalid destination port"},
    {MACH_SEND_TIMED_OUT, "send: timed out"},
    {MACH_SEND_INVALID_RIGHT, "send: invalid port right"},
    {MACH_SEND_NO_BUFFER, "send: no memory or descriptors for the message"},
    {MACH_SEND_TOO_LARGE, "send: message too large"},
    {MACH_SEND_INVALID_TYPE, "send: invalid descriptor type"},
    {MACH_SEND_INVALID_HEADER, "send: invalid header"},
    {MACH_RCV_INVALID_NAME, "receive: no such receive right"},
    {MACH_RCV_TIMED_OUT, "receive: timed out"},
    {MACH_RCV_TOO_LARGE, "receive: message too large"},
    {MACH_RCV_INVALID_DATA, "receive: damaged message"},
    {MACH_RCV_PORT_DIED, "receive: port died"},
    {MACH_RCV_BODY_ERROR, "receive: part of the message was lost"},
    {MIG_TYPE_ERROR, "reply of a wrong shape"},
    {MIG_REPLY_MISMATCH, "reply to another request"},
    {MIG_SERVER_DIED, "the server died"},
    {BOOTSTRAP_NOT_PRIVILEGED, "permission denied"},
    {BOOTSTRAP_UNKNOWN_SERVICE, "unknown service name"},
    {BOOTSTRAP_NO_MEMORY, "out of memory"},
};

const char* textOf(kern_return_t status)
{
    for (const Text& entry : kTexts) {
        if (entry.status == status)
            return entry.text;
    }
    static thread_local char unknown[40];
    std::snprintf(unknown, sizeof unknown, "unknown error %#x", static_cast<unsigned>(status));
    return unknown;
}

} // namespace

extern "C" {

const char* mach_error_string(kern_return_t status) { return textOf(status); }
const char* bootstrap_strerror(kern_return_t status) { return textOf(status); }

} // extern "C"
