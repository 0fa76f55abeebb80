#include "bundle/VirtualTables.h"

#include <gelf.h>

#include <algorithm>
#include <cstring>

namespace vnt {
namespace {

constexpr std::string_view kPrefix = "_ZTV"; // of the C++ ABI for Itanium, which g++ and clang follow
// Larger ones exist only in forged files.
constexpr size_t kMaxTables = 1u << 20;
constexpr size_t kMaxSymbols = 16u << 20;
constexpr size_t kMaxNameBytes = 64u << 10;
constexpr uint64_t kMaxTableBytes = uint64_t{1} << 30; ///< of a symbol table, and of a virtual one

} // namespace

void VirtualTables::addFrom(const ElfFile& file)
{
    Elf_Scn* section = nullptr;
    while ((section = elf_nextscn(file.handle(), section)) != nullptr) {
        GElf_Shdr header{};
        if (!gelf_getshdr(section, &header) || (header.sh_type != SHT_SYMTAB && header.sh_type != SHT_DYNSYM)
            || header.sh_entsize == 0 || header.sh_size > kMaxTableBytes)
            continue;
        Elf_Data* data = elf_getdata(section, nullptr);
        const auto count = static_cast<size_t>(std::min<uint64_t>(header.sh_size / header.sh_entsize, kMaxSymbols));
        for (size_t i = 0; data && i < count && _tables.size() < kMaxTables; ++i) {
            GElf_Sym symbol{};
            if (!gelf_getsym(data, static_cast<int>(i), &symbol))
                break;
            const char* name = GELF_ST_TYPE(symbol.st_info) == STT_OBJECT && symbol.st_shndx != SHN_UNDEF
                ? elf_strptr(file.handle(), header.sh_link, symbol.st_name)
                : nullptr;
            if (name && symbol.st_size != 0 && symbol.st_size < kMaxTableBytes
                && std::strncmp(name, kPrefix.data(), kPrefix.size()) == 0)
                _tables.push_back({symbol.st_value, symbol.st_size, std::string(name, ::strnlen(name, kMaxNameBytes))});
        }
    }
}

VirtualTables VirtualTables::read(const ElfFile& file, const ElfFile* debugFile)
{
    VirtualTables tables;
    tables.addFrom(file);
    if (debugFile)
        tables.addFrom(*debugFile);
    // Most stand in both of a file's tables. A name's version is the linker's affair.
    std::vector<Table>& all = tables._tables;
    std::sort(all.begin(), all.end(),
              [](const Table& a, const Table& b) { return a.start != b.start ? a.start < b.start : a.name < b.name; });
    all.erase(std::unique(all.begin(), all.end(), [](const Table& a, const Table& b) { return a.start == b.start; }),
              all.end());
    return tables;
}

std::string_view VirtualTables::find(uint64_t linkedAddress) const
{
    const auto next = std::upper_bound(_tables.begin(), _tables.end(), linkedAddress,
                                       [](uint64_t address, const Table& table) { return address < table.start; });
    if (next == _tables.begin() || linkedAddress - (next - 1)->start >= (next - 1)->size)
        return {};
    return (next - 1)->name;
}

} // namespace vnt
