#pragma once

#include <Vantora/Ports.h>

#include <functional>

/// One place obtains the authorization for a request to the task-port daemon and looks the daemon up.
namespace vnt {

/// How the reference is obtained that goes with a request.
enum AuthorizationKind : int {
    kNoAuthorization = 0,
    kTaskPortAuthorization = 1, ///< AzlCreateTFPAuthorization
    kSystemBootstrapAuthorization = 2, ///< AzlCreateLaunchSystemBootstrapAuthorization
    kBasicAuthorization = 3, ///< AzlObtainBasicAuthorization
};

/// The request itself: authorization data (null without), its length (32 or 0), the daemon's port.
using AuthorizedBody = std::function<kern_return_t(const char* authorization, uint32_t length, mach_port_t daemon)>;

/// Runs `body` on the calling thread. A user who refuses the authorization does not end it: the request goes without,
/// and the daemon decides. The daemon's right is not given back; look-ups share it. KERN_INVALID_ARGUMENT for an
/// unknown kind, KERN_NO_ACCESS when the reference has no external form, the look-up's status after one line on
/// standard error, else what `body` returned.
kern_return_t make_authorized_rpc(int kind, const AuthorizedBody& body);

} // namespace vnt
