#pragma once

#include <sys/types.h>

#include "platform/base/Status.h"

namespace vnt {

/// For a worker that root's server started: becomes `client`, with its groups, and keeps only the capabilities that
/// recording other users' processes takes; for good. A client that is root stays root, with the same few. Nothing for a
/// worker that an ordinary user's server started. Errors leave the process half-way: it must end.
Status keepOnlyWhatRecordingTakes(uid_t client);

} // namespace vnt
