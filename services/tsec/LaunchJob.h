#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "platform/base/Status.h"

namespace vnt {

/// The payload of setup_launch_daemon: a dictionary with exactly the strings "name" and "program".
struct LaunchJob {
    std::string name; ///< what is looked up
    std::string program; ///< absolute path

    /// kTooLarge, or kInvalid with what is wrong.
    static Result<LaunchJob> parse(std::span<const std::byte> payload);
};

} // namespace vnt
