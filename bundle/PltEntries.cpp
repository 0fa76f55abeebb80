#include "bundle/PltEntries.h"

#include <gelf.h>

#include <cstring>
#include <unordered_map>

namespace vnt {

namespace {

/// Large programs import some ten thousand functions.
constexpr size_t kMaxEntries = 1u << 20;
constexpr uint64_t kMaxSectionBytes = 64u << 20;
constexpr size_t kMaxNameBytes = 64u << 10;

/// Slot of the global offset table -> name of what the dynamic linker puts there.
using Slots = std::unordered_map<uint64_t, std::string>;

/// One relocation of either form; gelf has a call for each.
bool relocationAt(Elf_Data* data, bool withAddend, size_t index, uint64_t& offset, uint64_t& info)
{
    GElf_Rela rela{};
    GElf_Rel rel{};
    if (withAddend ? !gelf_getrela(data, static_cast<int>(index), &rela)
                   : !gelf_getrel(data, static_cast<int>(index), &rel))
        return false;
    offset = withAddend ? rela.r_offset : rel.r_offset;
    info = withAddend ? rela.r_info : rel.r_info;
    return true;
}

bool fillsSlot(GElf_Half machine, uint64_t type)
{
    return machine == EM_X86_64 ? type == R_X86_64_JUMP_SLOT || type == R_X86_64_GLOB_DAT
                                : type == R_386_JMP_SLOT || type == R_386_GLOB_DAT;
}

void readSlots(Elf* elf, GElf_Half machine, Elf_Scn* section, const GElf_Shdr& header, Slots& slots)
{
    Elf_Scn* symbolSection = elf_getscn(elf, header.sh_link);
    GElf_Shdr symbolHeader{};
    if (!symbolSection || !gelf_getshdr(symbolSection, &symbolHeader) || header.sh_entsize == 0
        || header.sh_size > kMaxSectionBytes)
        return;
    Elf_Data* relocations = elf_getdata(section, nullptr);
    Elf_Data* symbols = elf_getdata(symbolSection, nullptr);
    if (!relocations || !symbols)
        return;
    for (size_t i = 0; i < header.sh_size / header.sh_entsize && slots.size() < kMaxEntries; ++i) {
        uint64_t offset = 0;
        uint64_t info = 0;
        if (!relocationAt(relocations, header.sh_type == SHT_RELA, i, offset, info))
            return;
        GElf_Sym symbol{};
        if (!fillsSlot(machine, GELF_R_TYPE(info))
            || !gelf_getsym(symbols, static_cast<int>(GELF_R_SYM(info)), &symbol))
            continue;
        const char* name = elf_strptr(elf, symbolHeader.sh_link, symbol.st_name);
        if (name && *name)
            slots.emplace(offset, std::string(name, ::strnlen(name, kMaxNameBytes)));
    }
}

/// The slot that the entry at `bytes` jumps through: jmp *slot (ff 25), on i386 also jmp *slot(%ebx) (ff a3), wherever
/// it stands behind endbr or bnd. 0 when there is no such jump.
uint64_t slotOfEntry(const unsigned char* bytes, size_t size, uint64_t address, bool is64Bit, uint64_t offsetTable)
{
    for (size_t i = 0; i + 6 <= size; ++i) {
        if (bytes[i] != 0xff || (bytes[i + 1] != 0x25 && (is64Bit || bytes[i + 1] != 0xa3)))
            continue;
        int32_t displacement = 0;
        std::memcpy(&displacement, bytes + i + 2, sizeof displacement);
        if (is64Bit)
            return address + i + 6 + static_cast<uint64_t>(int64_t{displacement});
        const auto base = bytes[i + 1] == 0xa3 ? static_cast<uint32_t>(offsetTable) : 0;
        return static_cast<uint32_t>(base + static_cast<uint32_t>(displacement));
    }
    return 0;
}

void readEntries(Elf_Scn* section, const GElf_Shdr& header, bool is64Bit, uint64_t offsetTable, const Slots& slots,
                 std::vector<PltEntry>& entries)
{
    const Elf_Data* data = header.sh_size <= kMaxSectionBytes ? elf_rawdata(section, nullptr) : nullptr;
    if (!data || !data->d_buf)
        return;
    const size_t entrySize = header.sh_entsize == 8 ? 8 : 16;
    const auto* bytes = static_cast<const unsigned char*>(data->d_buf);
    for (size_t at = 0; at + entrySize <= data->d_size && entries.size() < kMaxEntries; at += entrySize) {
        const auto slot = slots.find(slotOfEntry(bytes + at, entrySize, header.sh_addr + at, is64Bit, offsetTable));
        if (slot != slots.end())
            entries.push_back({header.sh_addr + at, entrySize, slot->second});
    }
}

struct NamedSection {
    Elf_Scn* section = nullptr;
    GElf_Shdr header{};
};

} // namespace

std::vector<PltEntry> readPltEntries(const ElfFile& file)
{
    Elf* elf = file.handle();
    GElf_Ehdr ehdr{};
    size_t names = 0;
    std::vector<PltEntry> entries;
    if (!gelf_getehdr(elf, &ehdr) || (ehdr.e_machine != EM_X86_64 && ehdr.e_machine != EM_386)
        || elf_getshdrstrndx(elf, &names) != 0)
        return entries;
    Slots slots;
    std::vector<NamedSection> tables;
    uint64_t offsetTable = 0; // what %ebx holds in i386 position-independent code
    Elf_Scn* section = nullptr;
    while ((section = elf_nextscn(elf, section)) != nullptr) {
        GElf_Shdr header{};
        const char* text = gelf_getshdr(section, &header) ? elf_strptr(elf, names, header.sh_name) : nullptr;
        const std::string_view name = text ? std::string_view(text, ::strnlen(text, 64)) : std::string_view();
        if ((header.sh_type == SHT_RELA || header.sh_type == SHT_REL) && (header.sh_flags & SHF_ALLOC) != 0)
            readSlots(elf, ehdr.e_machine, section, header, slots);
        else if (header.sh_type == SHT_PROGBITS && (name == ".plt" || name == ".plt.sec" || name == ".plt.got"))
            tables.push_back({section, header});
        else if (name == ".got.plt" || (name == ".got" && offsetTable == 0))
            offsetTable = header.sh_addr;
    }
    for (const NamedSection& table : tables)
        readEntries(table.section, table.header, ehdr.e_machine == EM_X86_64, offsetTable, slots, entries);
    return entries;
}

} // namespace vnt
