#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vnt {

class TraceFs;

/// Names of system calls by number, as the system's headers had them when this was built. Empty for a later one.
[[nodiscard]] const char* systemCallName(uint32_t number, bool is32Bit);
/// The first number that has no name, of both kinds of code.
[[nodiscard]] uint32_t systemCallLimit();

/// Names of a call's arguments by the kernel's own description; for a call without one six of no meaning, because the
/// number of arguments is not known.
[[nodiscard]] std::vector<std::string> systemCallArguments(const TraceFs& files, uint32_t number, bool is32Bit);

} // namespace vnt
