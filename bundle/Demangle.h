#pragma once

#include <string>
#include <string_view>

namespace vnt {

/// The readable form of a C++ or Rust symbol name; any other name comes back as it is, without its version ("malloc@@V"
/// gives "malloc"). Costs microseconds, so callers demangle only names that are shown. Names of hostile make (a few
/// hundred bytes can stand for gigabytes of text) come back mangled. Any thread.
[[nodiscard]] std::string demangled(std::string_view name);

} // namespace vnt
