#include "collectors/inject/RemoteSymbols.h"

#include <elf.h>

#include <vector>

namespace vnt {
namespace {

constexpr uint16_t kMaxProgramHeaders = 64;
constexpr size_t kMaxDynamic = 512;
constexpr uint32_t kLongestChain = 4096;
constexpr size_t kMaxName = 64; // of those that are looked for

struct Elf64 {
    using Header = Elf64_Ehdr;
    using Segment = Elf64_Phdr;
    using Dynamic = Elf64_Dyn;
    using Symbol = Elf64_Sym;
    using Word = uint64_t;
};
struct Elf32 {
    using Header = Elf32_Ehdr;
    using Segment = Elf32_Phdr;
    using Dynamic = Elf32_Dyn;
    using Symbol = Elf32_Sym;
    using Word = uint32_t;
};

struct Tables {
    uint64_t bias = 0;
    uint64_t symbols = 0;
    uint64_t strings = 0;
    uint64_t hash = 0;
};

Status damaged(const RemoteModule& module)
{
    return Status(Code::kCorrupt, "the symbol table of " + module.path + " makes no sense");
}

Status missing(const RemoteModule& module, std::string_view name)
{
    return Status(Code::kNotFound, module.path + " has no function " + std::string(name));
}

template <typename Elf> Result<Tables> findTables(const RemoteProcess& process, const RemoteModule& module)
{
    typename Elf::Header header;
    RETURN_IF_ERROR(process.read(module.base, &header, sizeof header));
    if (header.e_phentsize != sizeof(typename Elf::Segment) || header.e_phnum > kMaxProgramHeaders)
        return damaged(module);
    std::vector<typename Elf::Segment> segments(header.e_phnum);
    RETURN_IF_ERROR(process.read(module.base + header.e_phoff, segments.data(), segments.size() * sizeof(segments[0])));
    Tables tables;
    uint64_t dynamic = 0;
    bool hasLoad = false;
    for (const auto& segment : segments) {
        if (segment.p_type == PT_LOAD && !hasLoad) {
            hasLoad = true;
            tables.bias = module.base - (segment.p_vaddr & ~typename Elf::Word{0xfff});
        }
        if (segment.p_type == PT_DYNAMIC)
            dynamic = segment.p_vaddr;
    }
    if (dynamic == 0 || !hasLoad)
        return damaged(module);
    for (size_t i = 0; i < kMaxDynamic; ++i) {
        typename Elf::Dynamic entry;
        RETURN_IF_ERROR(process.read(tables.bias + dynamic + i * sizeof entry, &entry, sizeof entry));
        if (entry.d_tag == DT_NULL)
            break;
        // The loader replaces addresses by where they came to be; the kernel's own module keeps them.
        const uint64_t value = entry.d_un.d_ptr;
        const uint64_t address = value < module.base ? value + tables.bias : value;
        if (entry.d_tag == DT_SYMTAB)
            tables.symbols = address;
        else if (entry.d_tag == DT_STRTAB)
            tables.strings = address;
        else if (entry.d_tag == DT_GNU_HASH)
            tables.hash = address;
    }
    if (tables.symbols == 0 || tables.strings == 0 || tables.hash == 0)
        return damaged(module);
    return tables;
}

uint32_t gnuHash(std::string_view name)
{
    uint32_t hash = 5381;
    for (const char c : name)
        hash = hash * 33 + static_cast<unsigned char>(c);
    return hash;
}

template <typename Elf>
Result<uint64_t> find(const RemoteProcess& process, const RemoteModule& module, std::string_view name)
{
    ASSIGN_OR_RETURN(const Tables tables, findTables<Elf>(process, module));
    struct {
        uint32_t buckets;
        uint32_t firstSymbol;
        uint32_t bloomWords;
        uint32_t bloomShift;
    } head; // DT_GNU_HASH: then the Bloom filter, the buckets, the chains
    RETURN_IF_ERROR(process.read(tables.hash, &head, sizeof head));
    if (head.buckets == 0)
        return missing(module, name);
    const uint64_t buckets = tables.hash + sizeof head + uint64_t{head.bloomWords} * sizeof(typename Elf::Word);
    const uint64_t chains = buckets + uint64_t{head.buckets} * 4;
    const uint32_t hash = gnuHash(name);
    uint32_t number = 0;
    RETURN_IF_ERROR(process.read(buckets + uint64_t{hash % head.buckets} * 4, &number, sizeof number));
    if (number < head.firstSymbol)
        return missing(module, name);
    for (uint32_t i = 0; i < kLongestChain; ++i, ++number) {
        uint32_t chained = 0;
        RETURN_IF_ERROR(process.read(chains + uint64_t{number - head.firstSymbol} * 4, &chained, sizeof chained));
        if ((chained | 1) == (hash | 1)) {
            typename Elf::Symbol symbol;
            RETURN_IF_ERROR(process.read(tables.symbols + uint64_t{number} * sizeof symbol, &symbol, sizeof symbol));
            char text[kMaxName + 1] = {};
            const bool known = process.read(tables.strings + symbol.st_name, text, name.size() + 1).ok();
            const auto type = ELF64_ST_TYPE(symbol.st_info);
            if (known && name == text && symbol.st_shndx != SHN_UNDEF && (type == STT_FUNC || type == STT_OBJECT))
                return tables.bias + symbol.st_value;
        }
        if (chained & 1)
            break; // the chain's end
    }
    return missing(module, name);
}

} // namespace

Result<uint64_t> findRemoteFunction(const RemoteProcess& process, const RemoteModule& module, std::string_view name)
{
    if (name.size() > kMaxName)
        return missing(module, name);
    return module.is32Bit ? find<Elf32>(process, module, name) : find<Elf64>(process, module, name);
}

} // namespace vnt
