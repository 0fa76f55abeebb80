#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "platform/base/Status.h"

namespace vnt::view {

/// The page of viewer/ with `data` in it, deflated: one file that needs nothing else and no network.
Result<std::string> pageWith(std::span<const std::byte> data);

} // namespace vnt::view
