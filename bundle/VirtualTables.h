#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "bundle/ElfFile.h"

namespace vnt {

/// The virtual tables of C++ classes in one ELF file, by the symbols that name them ("_ZTV..."). A program without its
/// symbol table names those only that it shares with libraries. Immutable once read; any thread may ask.
class VirtualTables {
public:
    /// Reads the symbols of `file`; of `debugFile`, which belongs to it, when that has more. Whatever is damaged is
    /// left out.
    static VirtualTables read(const ElfFile& file, const ElfFile* debugFile);

    /// Mangled name of the symbol that has the address within it; empty when there is none.
    [[nodiscard]] std::string_view find(uint64_t linkedAddress) const;
    [[nodiscard]] size_t count() const { return _tables.size(); }

private:
    struct Table {
        uint64_t start = 0;
        uint64_t size = 0;
        std::string name;
    };
    void addFrom(const ElfFile& file);

    std::vector<Table> _tables; // ascending
};

} // namespace vnt
