#pragma once

#include <sys/types.h>

#include <iosfwd>
#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace vnt::rumbel {

/// What the command line of `rumbel recover` asks for.
struct RecoverOptions {
    std::optional<pid_t> recorder; ///< which recording; none and not `all`: list them
    bool all = false;
    bool discard = false;
    std::string output; ///< with or without ".vnt"; empty: where it was going to be saved
    bool json = false;
};

void addRecover(CLI::App& tool, RecoverOptions& options);

/// Lists, recovers or discards crashed recordings. Results to `out`, everything else to `err`. 0, or 1 when one of them
/// could not be recovered or there is none with this number.
int runRecover(const RecoverOptions& options, std::ostream& out, std::ostream& err);

} // namespace vnt::rumbel
