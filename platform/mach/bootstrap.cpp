#include <unistd.h>

#include "platform/mach/NameService.h"
#include "platform/mach/Namespace.h"
#include "platform/mach/PortTable.h"

using namespace vnt;

namespace {

kern_return_t statusOf(const Status& status)
{
    switch (status.code()) {
    case Code::kOk:
        return BOOTSTRAP_SUCCESS;
    case Code::kDenied:
        return BOOTSTRAP_NOT_PRIVILEGED;
    default:
        return BOOTSTRAP_UNKNOWN_SERVICE;
    }
}

kern_return_t lookUp(Namespace which, const char* name, bool shared, mach_port_t* port) noexcept
{
    if (!name || !port)
        return KERN_INVALID_ARGUMENT;
    try {
        if (shared) {
            auto right = lookUpShared(which, name);
            if (!right.ok())
                return right.code() == Code::kTooLarge ? kern_return_t{BOOTSTRAP_NO_MEMORY} : statusOf(right.status());
            *port = right.value();
            return BOOTSTRAP_SUCCESS;
        }
        auto connection = connectToService(which, name);
        if (!connection.ok())
            return statusOf(connection.status());
        auto right = PortTable::shared().insertSend(connection.take());
        if (!right.ok())
            return BOOTSTRAP_NO_MEMORY;
        *port = right.take();
        return BOOTSTRAP_SUCCESS;
    } catch (...) {
        return BOOTSTRAP_NO_MEMORY;
    }
}

bool isNameService(mach_port_t port)
{
    return port == PortTable::kBootstrapDefault || port == PortTable::kBootstrapUser
        || port == PortTable::kBootstrapSystem;
}

} // namespace

extern "C" {

void vnt_use_system_namespace(void) { useSystemNamespace(); }

mach_port_t bootstrap_port = PortTable::kBootstrapDefault;

kern_return_t bootstrap_look_up(mach_port_t bootstrap, const char* name, mach_port_t* port)
{
    return bootstrap_look_up2(bootstrap, name, port, 0, 0);
}

kern_return_t bootstrap_look_up2(mach_port_t bootstrap, const char* name, mach_port_t* port, int instancePid,
                                 uint64_t flags)
{
    if (!isNameService(bootstrap))
        return MACH_SEND_INVALID_DEST;
    if (instancePid != 0 || (flags & ~uint64_t{BOOTSTRAP_PRIVILEGED_SERVER}) != 0)
        return KERN_INVALID_ARGUMENT;
    Namespace which = bootstrap == PortTable::kBootstrapUser ? Namespace::kUser
        : bootstrap == PortTable::kBootstrapSystem           ? Namespace::kSystem
        : ::geteuid() == 0                                   ? Namespace::kSystem
                                                             : Namespace::kUser;
    const bool privileged = (flags & BOOTSTRAP_PRIVILEGED_SERVER) != 0;
    if (privileged)
        which = Namespace::kSystem;
    return lookUp(which, name, /*shared=*/privileged, port);
}

} // extern "C"
