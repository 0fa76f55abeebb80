#pragma once

#include <string>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// Where names live. A name is a listening socket `<directory>/<name>`; beside it stands `<name>.lock`, whose flock(2)
/// decides who may make, replace or remove it.
namespace vnt {

enum class Namespace {
    kUser, ///< one per user; services run as that user
    kSystem ///< one per machine; services run as root
};

/// What `bootstrap_port` stands for from now on. Call before any other thread uses ports.
void useNamespace(Namespace choice);
inline void useSystemNamespace() { useNamespace(Namespace::kSystem); }
/// What `bootstrap_port` stands for: what useNamespace() chose, else the system's for root and the user's for others.
[[nodiscard]] Namespace currentNamespace();

/// The directory of a namespace, checked: not a symbolic link, of the right owner, writable by nobody else. The user's
/// is made when missing, the system's only by root.
///   user:   $XDG_RUNTIME_DIR/vantora, /run/user/<uid>/vantora or ~/.cache/vantora/run: the first that is possible
///   system: /run/vantora
/// both followed by the protocol version. $VANTORA_BOOTSTRAP_DIR and $VANTORA_SYSTEM_BOOTSTRAP_DIR stand in for them,
/// but not in secure execution. Errors: kDenied (wrong owner or mode, symbolic link), kNotFound, kTooLarge.
Result<std::string> namespaceDirectory(Namespace which);

/// Letters, digits, '.', '-' and '_', not beginning with a dot, at most 64 bytes, not ending in ".lock".
[[nodiscard]] bool isServiceName(const std::string& name);

/// Holder of one name's lock until destroyed.
class NameLock {
public:
    enum class Wait { kNo, kYes };
    /// kTimedOut when another process keeps it (after some seconds with Wait::kYes).
    static Result<NameLock> take(const std::string& directory, const std::string& name, Wait wait);

private:
    explicit NameLock(UniqueFd fd) : _fd(std::move(fd)) { }
    UniqueFd _fd;
};

} // namespace vnt
