#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vnt {

/// The readable form of a Rust symbol name, of either mangling: "_R…" (v0, without crate hashes), and "_ZN…17h…E"
/// (legacy, without its hash). Empty for every other name and for one that is malformed. The answer has kMaxRustText
/// bytes at most; work is bounded for hostile names, too. Any thread.
[[nodiscard]] std::optional<std::string> rustDemangled(std::string_view name);

inline constexpr size_t kMaxRustText = 64u << 10;

} // namespace vnt
