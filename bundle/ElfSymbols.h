#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "bundle/ElfFile.h"

namespace vnt {

/// The functions of one ELF file as one sorted table of non-overlapping pieces: a look-up is one binary search (about
/// 100 ns among 50,000 symbols). Immutable once read; any thread may ask.
///
/// Taken: functions, indirect functions and sized untyped labels of executable sections, and the PLT's entries as
/// "name@plt". Of several names for one address the table keeps the most visible one, then the one with fewest
/// leading underscores, the shortest, the first by alphabet. Within nested functions the inner one owns its bytes. A
/// function without a size reaches to the next one or to the end of its section.
class ElfSymbols {
public:
    /// An empty table.
    ElfSymbols() = default;
    /// Reads the symbols of `file`; of `debugFile`, which belongs to it, when that has more. Whatever is damaged is
    /// left out.
    static ElfSymbols read(const ElfFile& file, const ElfFile* debugFile);

    struct Symbol {
        uint64_t start = 0; ///< linked address
        std::string_view name; ///< as in the file, mangled; valid as long as the table
    };
    /// The function that owns the byte at `linkedAddress`.
    [[nodiscard]] std::optional<Symbol> find(uint64_t linkedAddress) const;
    /// Number of functions.
    [[nodiscard]] size_t count() const { return _symbols.size(); }

private:
    struct Candidate;
    struct Builder;
    struct NamedStart {
        uint64_t start = 0;
        uint32_t nameOffset = 0;
        uint32_t nameSize = 0;
    };
    struct Piece {
        uint64_t end = 0;
        uint32_t symbol = 0;
    };
    [[nodiscard]] bool isBefore(const Candidate& a, const Candidate& b) const;
    void flatten(std::vector<Candidate>& candidates);
    void addPiece(uint64_t start, uint64_t end, uint32_t symbol);

    std::vector<uint64_t> _pieceStarts; // ascending; apart from _pieces so that the search touches few cache lines
    std::vector<Piece> _pieces;
    std::vector<NamedStart> _symbols;
    std::vector<char> _names;
};

} // namespace vnt
