#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "bundle/Symbolizer.h"
#include "platform/base/Status.h"

namespace vnt {

/// Leaks that are known and not to be told: lines "leak:PATTERN", '#' begins a comment. A pattern is looked for
/// anywhere in the names of the functions and modules of a leak's stack; '*' stands for anything, '^' at its beginning
/// and '$' at its end tie it to the name's.
class Suppressions {
public:
    /// Errors: kInvalid with the number of the line that makes no sense.
    static Result<Suppressions> parse(std::string_view text);
    /// Errors: as parse(), and those of reading; the message names the file.
    static Result<Suppressions> read(const std::string& path);

    [[nodiscard]] bool empty() const { return _patterns.empty(); }
    [[nodiscard]] bool matches(const Symbol& frame) const;

private:
    [[nodiscard]] static bool matches(std::string_view pattern, std::string_view name);

    std::vector<std::string> _patterns;
};

} // namespace vnt
