#pragma once

#include "platform/mach/Namespace.h"

/// Both ends of starting a service: the look-up that starts it, the program that is started.
namespace vnt {

/// Executes `program` as a service: in a session of its own, not a child of this process (no zombie, no SIGCHLD),
/// directory /, null standard files, the listening socket as its only other descriptor, signals at their defaults,
/// without the variables that change how programs load. Returns once it is executing; about a millisecond.
/// Errors: what execve(2) said, as a Status.
Status startService(const std::string& program, Namespace which, int listener);

/// What a service program learns from its arguments: `--namespace=user|system`, `--socket=N` (a listening socket that
/// it inherited), or systemd's LISTEN_FDS (sd_listen_fds(3)); without a socket it binds its name itself. Calls
/// useNamespace(). Call first in main, while there is one thread.
struct ServiceArguments {
    Namespace which = Namespace::kUser;
    UniqueFd listener; ///< invalid: to be bound by name
    bool ownsName = true; ///< false: the socket file is systemd's and stays when the service leaves

    static Result<ServiceArguments> parse(int argc, char** argv);
};

} // namespace vnt
