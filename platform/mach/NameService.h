#pragma once

#include "platform/mach/Namespace.h"

/// Looking names up and taking them.
namespace vnt {

/// The service's first packet on every connection. It tells a client that its connection was taken by a living server
/// rather than left in the queue of one that is going.
struct ServiceGreeting {
    static constexpr uint32_t kMagic = 0x47524756; // "VGRG"
    static constexpr uint16_t kVersion = 1;
    enum : uint16_t { kAccepted = 0, kRefused = 1, kBusy = 2 };
    uint32_t magic = kMagic;
    uint16_t version = kVersion;
    uint16_t status = kAccepted;
};
static_assert(sizeof(ServiceGreeting) == 8);

/// A connection to the service of that name, greeted and checked: the peer runs as the caller (user's namespace) or as
/// root (system's). A name with a known program and no listener is started; several starters start it once. Waits at
/// most some seconds. The connection's SO_PEERCRED tells the service's user; its pid may be that of whoever started the
/// service. Any thread.
/// Errors: kNotFound (no listener and no program), kDenied (the directory or the peer is not to be trusted, or the
/// service refuses this user), kTimedOut, kPeerGone (the service ends before it greets), kSystem.
Result<UniqueFd> connectToService(Namespace which, const std::string& name);

/// The send right of a look-up that many calls make and none gives back: while the connection of an earlier one lives,
/// its right with one more reference, so that a process has one connection to the service however often it asks. A
/// connection whose service is gone is closed and made anew. Errors as connectToService(), kTooLarge past the limits of
/// the port table. Any thread.
Result<uint32_t> lookUpShared(Namespace which, const std::string& name);

/// Takes a name for a service that was not started by connectToService(). kExists when it has a living listener.
Result<UniqueFd> bindServiceName(Namespace which, const std::string& name);

/// Program of a name that is started on demand. A built-in name's is searched in $VANTORA_PROGRAM_DIR alone when that
/// is set (ignored in secure execution); else beside this library or program, in ../bin from there, where the services
/// lie from there as the installation was laid out, then where it was configured to be. In the system's namespace a
/// name may also have a job file (JobFiles.h). kNotFound when the name has none or none is installed; kDenied for a job
/// that is not to be trusted.
Result<std::string> programForService(Namespace which, const std::string& name);

/// True for the names of our own services, which no job may take.
[[nodiscard]] bool isBuiltInServiceName(const std::string& name);

} // namespace vnt
