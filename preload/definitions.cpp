#include "preload/definitions.h"

#include <elf.h>
#include <link.h>
#include <stdint.h>
#include <string.h>

#include "preload/real.h"
#include "preload/redirect.h"

namespace vnt {

namespace {

constexpr uint16_t kHiddenVersion = 0x8000; // of DT_VERSYM: not the default one

/// A module's dynamic symbols, with the hash table that every linker of today writes (DT_GNU_HASH).
struct Symbols {
    uintptr_t base;
    const ElfW(Sym) * table;
    const char* strings;
    const uint16_t* versions; ///< null: none
    const uint32_t* hash;
    bool stays;
};

struct Search {
    const char* name;
    uint32_t hash;
    bool skips; ///< this library has not come yet
    Definition result;
};

uint32_t gnuHash(const char* name)
{
    uint32_t hash = 5381;
    for (; *name; ++name)
        hash = hash * 33 + static_cast<unsigned char>(*name);
    return hash;
}

/// The loader has replaced addresses by where they came to be, except in the kernel's own module.
template <typename T> T* at(uintptr_t base, ElfW(Addr) address)
{
    return reinterpret_cast<T*>(address < base ? address + base : address);
}

bool readSymbols(const dl_phdr_info& info, Symbols& symbols)
{
    symbols = {};
    symbols.base = info.dlpi_addr;
    const ElfW(Dyn)* entry = nullptr;
    for (size_t i = 0; i < info.dlpi_phnum; ++i) {
        if (info.dlpi_phdr[i].p_type == PT_DYNAMIC)
            entry = reinterpret_cast<const ElfW(Dyn)*>(symbols.base + info.dlpi_phdr[i].p_vaddr);
    }
    for (; entry && entry->d_tag != DT_NULL; ++entry) {
        if (entry->d_tag == DT_SYMTAB)
            symbols.table = at<const ElfW(Sym)>(symbols.base, entry->d_un.d_ptr);
        else if (entry->d_tag == DT_STRTAB)
            symbols.strings = at<const char>(symbols.base, entry->d_un.d_ptr);
        else if (entry->d_tag == DT_VERSYM)
            symbols.versions = at<const uint16_t>(symbols.base, entry->d_un.d_ptr);
        else if (entry->d_tag == DT_GNU_HASH)
            symbols.hash = at<const uint32_t>(symbols.base, entry->d_un.d_ptr);
        else if (entry->d_tag == DT_FLAGS_1)
            symbols.stays = (entry->d_un.d_val & DF_1_NODELETE) != 0;
    }
    return symbols.table && symbols.strings && symbols.hash;
}

/// The hash table: counts of buckets, of symbols that are not in it, of words of the filter, the filter's shift; the
/// filter, the buckets, and for each symbol its hash, the lowest bit of which ends a bucket.
const ElfW(Sym) * lookUp(const Symbols& symbols, const Search& search)
{
    const uint32_t buckets = symbols.hash[0];
    const uint32_t firstSymbol = symbols.hash[1];
    const uint32_t filterWords = symbols.hash[2];
    const uint32_t shift = symbols.hash[3];
    if (buckets == 0 || filterWords == 0)
        return nullptr;
    constexpr uint32_t kBits = 8 * sizeof(ElfW(Addr));
    const auto* filter = reinterpret_cast<const ElfW(Addr)*>(symbols.hash + 4);
    const ElfW(Addr) word = filter[(search.hash / kBits) % filterWords];
    if ((word >> (search.hash % kBits) & word >> ((search.hash >> shift) % kBits) & 1) == 0)
        return nullptr;
    const auto* bucket = reinterpret_cast<const uint32_t*>(filter + filterWords);
    const uint32_t* chain = bucket + buckets;
    uint32_t number = bucket[search.hash % buckets];
    if (number < firstSymbol)
        return nullptr;
    for (;; ++number) {
        const uint32_t hash = chain[number - firstSymbol];
        const ElfW(Sym)& symbol = symbols.table[number];
        const bool isDefault = !symbols.versions || (symbols.versions[number] & kHiddenVersion) == 0;
        if ((hash | 1) == (search.hash | 1) && isDefault && symbol.st_shndx != SHN_UNDEF
            && (symbol.st_info & 0xf) == STT_FUNC && ::strcmp(symbols.strings + symbol.st_name, search.name) == 0)
            return &symbol;
        if ((hash & 1) != 0)
            return nullptr;
    }
}

int visit(dl_phdr_info* info, size_t, void* data)
{
    auto& search = *static_cast<Search*>(data);
    Symbols symbols;
    if (!readSymbols(*info, symbols))
        return 0;
    if (isOwnCode(symbols.table)) { // which lies between the library's first and last byte like its code
        search.skips = false;
        return 0;
    }
    const ElfW(Sym)* symbol = search.skips ? nullptr : lookUp(symbols, search);
    if (!symbol)
        return 0;
    search.result = {reinterpret_cast<void*>(symbols.base + symbol->st_value), info->dlpi_name, symbols.stays};
    return 1;
}

} // namespace

Definition findDefinition(const char* name)
{
    Search search{name, gnuHash(name), !isLate(), {}};
    ::dl_iterate_phdr(visit, &search);
    return search.result;
}

} // namespace vnt
