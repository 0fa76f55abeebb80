#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace vnt {

/// One thing that may or may not be recorded here, by this user, now.
struct Finding {
    std::string instrument; ///< short name
    std::string what;
    bool possible = false;
    std::string reason; ///< why not, and the command that would allow it; empty when possible
};

/// Tries each of them against the running kernel: nothing is changed, nothing is recorded. Some milliseconds.
[[nodiscard]] std::vector<Finding> examineMachine();

/// `rumbel doctor`: what this machine and user can record. 0 when everything that belongs to the user can be, else 1.
int runDoctor(bool json, std::ostream& out);

/// `rumbel list [instruments|processes]`: what can be recorded, or whom. 0, or 1 when processes cannot be listed.
int runList(const std::string& what, bool json, std::ostream& out);

} // namespace vnt
