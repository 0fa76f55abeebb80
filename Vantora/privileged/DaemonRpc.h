#pragma once

#include <Vantora/Rights.h>

#include <cstdint>

#include "platform/mach/mach.h"

namespace vnt {

/// create_server() for the library itself, with the size of the caller's buffer: an address that does not fit with its
/// NUL is refused with KERN_RESOURCE_SHORTAGE.
kern_return_t createServer(mach_port_t server, const char* authorization, uint32_t length, const char* name,
                           char* address, uint32_t addressBytes);

} // namespace vnt
