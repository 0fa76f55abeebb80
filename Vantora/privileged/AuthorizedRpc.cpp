#include "Vantora/privileged/AuthorizedRpc.h"

#include <Vantora/TaskDaemon.h>

#include <cstdio>

#include "Vantora/privileged/Rights.h"
#include "platform/mach/mach.h"

namespace vnt {
namespace {

constexpr const char* kDaemonName = "quillon.tfp";

AuthorizationRef obtainReference(int kind)
{
    switch (kind) {
    case kTaskPortAuthorization:
        return AzlCreateTFPAuthorization();
    case kSystemBootstrapAuthorization:
        return AzlCreateLaunchSystemBootstrapAuthorization();
    case kBasicAuthorization:
        return AzlObtainBasicAuthorization();
    default:
        return nullptr;
    }
}

kern_return_t callDaemon(const char* authorization, uint32_t length, const AuthorizedBody& body)
{
    mach_port_t daemon = MACH_PORT_NULL;
    const kern_return_t found =
        bootstrap_look_up2(bootstrap_port, kDaemonName, &daemon, /*instancePid=*/0, BOOTSTRAP_PRIVILEGED_SERVER);
    if (found == KERN_SUCCESS)
        return body(authorization, length, daemon);
    std::fprintf(stderr, "Vantora: KxTSecD bootstrap failure: %s\n", bootstrap_strerror(found));
    return found;
}

/// Nothing thrown leaves a C function; what can be thrown below here is a lack of memory.
template <typename Body> kern_return_t guarded(Body body) noexcept
{
    try {
        return body();
    } catch (...) {
        return KERN_RESOURCE_SHORTAGE;
    }
}

} // namespace

kern_return_t make_authorized_rpc(int kind, const AuthorizedBody& body)
{
    // As an unsigned number, so that a negative kind is past the last one too.
    if (static_cast<unsigned>(kind) > static_cast<unsigned>(kBasicAuthorization))
        return KERN_INVALID_ARGUMENT;
    AuthorizationExternalForm form{};
    AuthorizationRef reference = obtainReference(kind);
    if (!reference)
        return callDaemon(form.bytes, 0, body);
    kern_return_t status = KERN_NO_ACCESS;
    if (AuthorizationMakeExternalForm(reference, &form) == errAuthorizationSuccess)
        status = callDaemon(form.bytes, sizeof form.bytes, body);
    // Its rights are kept, so that a shared credential obtained here serves the next request.
    AuthorizationFree(reference, kAuthorizationFlagDefaults);
    return status;
}

} // namespace vnt

using namespace vnt;

extern "C" {

kern_return_t authorized_task_for_pid(int pid, mach_port_t* task)
{
    if (task_for_pid(mach_task_self(), pid, task) == KERN_SUCCESS)
        return KERN_SUCCESS;
    return guarded([&] {
        return make_authorized_rpc(kTaskPortAuthorization,
                                   [&](const char* authorization, uint32_t length, mach_port_t daemon) {
                                       return attach_access(daemon, authorization, length, pid, task);
                                   });
    });
}

kern_return_t setup_system_bootstrap_daemon(const void* payload, uint32_t length)
{
    return guarded([&] {
        return make_authorized_rpc(kSystemBootstrapAuthorization,
                                   [&](const char* authorization, uint32_t authorizationLength, mach_port_t daemon) {
                                       return setup_launch_daemon(daemon, authorization, authorizationLength, payload,
                                                                  length);
                                   });
    });
}

} // extern "C"
