#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vnt {

/// The functions that a just-in-time compiler told of, by address: the text of a perf-PID.map as a look-up. Read from
/// untrusted data: lines of another shape are left out. Immutable once read.
class JitSymbols {
public:
    JitSymbols() = default;
    explicit JitSymbols(std::string_view text);

    struct Symbol {
        uint64_t start = 0;
        std::string_view name; ///< valid as long as this object
    };
    /// The function whose code holds `address`; of several that overlap, the one that was told of last.
    [[nodiscard]] std::optional<Symbol> find(uint64_t address) const;
    [[nodiscard]] bool empty() const { return _symbols.empty(); }

private:
    struct Piece {
        uint64_t start = 0;
        uint64_t end = 0;
        uint64_t symbolStart = 0;
        std::string name;
    };
    std::vector<Piece> _symbols; // ascending and apart
};

} // namespace vnt
