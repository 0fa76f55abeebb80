#pragma once

#include <iosfwd>
#include <string>

namespace vnt {

/// What `rumbel view` was asked for.
struct ViewOptions {
    std::string bundlePath;
    std::string output; ///< path of the page; empty: the bundle's with ".html" for ".vnt", in the working directory
    bool open = false; ///< also shows it in the desktop's browser
};

/// Writes the page and its path to `out`; what is missing or wrong to `err`. Returns the exit status: 0, or 1 when
/// there is no page. With `progress` a line on `err` tells what is being done.
int runView(const ViewOptions& options, std::ostream& out, std::ostream& err, bool progress);

} // namespace vnt
