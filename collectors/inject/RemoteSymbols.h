#pragma once

#include <cstdint>
#include <string_view>

#include "collectors/inject/RemoteProcess.h"

namespace vnt {

/// Address of an exported function or variable, by the module's own dynamic symbol table and hash table as they are
/// mapped, so that removed files and files of other mount namespaces are no matter. A handful of small reads.
Result<uint64_t> findRemoteFunction(const RemoteProcess& process, const RemoteModule& module, std::string_view name);

} // namespace vnt
