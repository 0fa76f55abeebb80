#pragma once

#include <sys/types.h>

#include "platform/authorization/Authorization.h"
#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"
#include "platform/mach/Namespace.h"

namespace vnt {

/// Whom a worker serves; handed from the creation port to the new process.
struct WorkerIdentity {
    pid_t clientPid = 0;
    uid_t clientUid = 0;
    Namespace which = Namespace::kUser; ///< whose server it is, and whose authority it asks
    AuthorizationExternalForm form{}; ///< what the client presented; asked about again with each privileged request
};

/// One session's server: accepts a single connection of the client's uid on `listener`, removes the socket at
/// `directory`, gives up what privileges the session does not need, serves until the client goes. Errors: kTimedOut
/// when nobody connects within half a minute, kDenied for a peer of another uid.
Status runWorker(UniqueFd listener, const std::string& directory, const WorkerIdentity& identity);

/// Arguments that make the program a worker: "--worker", directory, client pid, client uid, "user" or "system". The
/// client's form is no argument, since everybody can read those: it is the content of a pipe.
inline constexpr char kWorkerArgument[] = "--worker";
inline constexpr int kWorkerSocket = 3; ///< descriptor: the listening socket
inline constexpr int kWorkerForm = 4; ///< descriptor: the pipe
/// Parses them; -1 when they are not a worker's.
int workerMain(int argc, char** argv);

} // namespace vnt
