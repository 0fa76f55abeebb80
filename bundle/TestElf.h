#pragma once

#include <elf.h>

#include <cstring>
#include <string>
#include <vector>

namespace vnt::test {

/// Where the one code section of a test image is linked, and where it stands in the file.
inline constexpr uint64_t kTextAddress = 0x401000;
inline constexpr uint64_t kTextOffset = 0x1000;
inline constexpr uint64_t kTextSize = 0x1000;

struct TestSymbol {
    std::string name;
    uint64_t value = 0;
    uint64_t size = 0;
    unsigned type = STT_FUNC;
    unsigned binding = STB_GLOBAL;
    uint16_t section = 1; ///< 1: code, 2: not code
};

struct Elf64 {
    using Ehdr = Elf64_Ehdr;
    using Phdr = Elf64_Phdr;
    using Shdr = Elf64_Shdr;
    using Sym = Elf64_Sym;
    static constexpr unsigned char kClass = ELFCLASS64;
    static constexpr uint16_t kMachine = EM_X86_64;
};

struct Elf32 {
    using Ehdr = Elf32_Ehdr;
    using Phdr = Elf32_Phdr;
    using Shdr = Elf32_Shdr;
    using Sym = Elf32_Sym;
    static constexpr unsigned char kClass = ELFCLASS32;
    static constexpr uint16_t kMachine = EM_386;
};

/// A small ELF file: one code segment, a build-id note of the bytes of `buildId`, a full symbol table.
template <typename Format> std::string testElf(const std::vector<TestSymbol>& symbols, const std::string& buildId = {})
{
    std::string file(kTextOffset + kTextSize, '\0');
    const auto append = [&file](const void* data, size_t size) {
        const size_t at = file.size();
        file.append(static_cast<const char*>(data), size);
        return at;
    };
    std::string note;
    if (!buildId.empty()) {
        const Elf64_Nhdr header{4, static_cast<Elf64_Word>(buildId.size()), NT_GNU_BUILD_ID};
        note.append(reinterpret_cast<const char*>(&header), sizeof header).append("GNU", 4).append(buildId);
        note.resize((note.size() + 3) & ~size_t{3});
    }
    const size_t noteAt = append(note.data(), note.size());

    std::string names(1, '\0');
    std::vector<typename Format::Sym> table(1);
    for (const TestSymbol& symbol : symbols) {
        typename Format::Sym entry{};
        entry.st_name = static_cast<decltype(entry.st_name)>(names.size());
        entry.st_value = static_cast<decltype(entry.st_value)>(symbol.value);
        entry.st_size = static_cast<decltype(entry.st_size)>(symbol.size);
        entry.st_info = static_cast<unsigned char>(symbol.binding << 4 | symbol.type);
        entry.st_shndx = symbol.section;
        table.push_back(entry);
        names.append(symbol.name).push_back('\0');
    }
    const std::string sectionNames("\0.text\0.data\0.symtab\0.strtab\0.shstrtab\0", 40);
    const size_t tableAt = append(table.data(), table.size() * sizeof table[0]);
    const size_t namesAt = append(names.data(), names.size());
    const size_t sectionNamesAt = append(sectionNames.data(), sectionNames.size());

    typename Format::Shdr sections[6]{};
    const auto section = [&](size_t i, uint32_t name, uint32_t type, uint64_t flags, uint64_t address, uint64_t at,
                             uint64_t size) {
        sections[i].sh_name = name;
        sections[i].sh_type = type;
        sections[i].sh_flags = static_cast<decltype(sections[i].sh_flags)>(flags);
        sections[i].sh_addr = static_cast<decltype(sections[i].sh_addr)>(address);
        sections[i].sh_offset = static_cast<decltype(sections[i].sh_offset)>(at);
        sections[i].sh_size = static_cast<decltype(sections[i].sh_size)>(size);
    };
    section(1, 1, SHT_PROGBITS, SHF_ALLOC | SHF_EXECINSTR, kTextAddress, kTextOffset, kTextSize);
    section(2, 7, SHT_PROGBITS, SHF_ALLOC | SHF_WRITE, kTextAddress + kTextSize, kTextOffset, kTextSize);
    section(3, 13, SHT_SYMTAB, 0, 0, tableAt, table.size() * sizeof table[0]);
    section(4, 21, SHT_STRTAB, 0, 0, namesAt, names.size());
    section(5, 29, SHT_STRTAB, 0, 0, sectionNamesAt, sectionNames.size());
    sections[3].sh_link = 4;
    sections[3].sh_entsize = sizeof(typename Format::Sym);
    const size_t sectionsAt = append(sections, sizeof sections);

    typename Format::Phdr programs[2]{};
    programs[0].p_type = PT_LOAD;
    programs[0].p_flags = PF_R | PF_X;
    programs[0].p_offset = kTextOffset;
    programs[0].p_vaddr = kTextAddress;
    programs[0].p_filesz = programs[0].p_memsz = kTextSize;
    programs[1].p_type = PT_NOTE;
    programs[1].p_offset = static_cast<decltype(programs[1].p_offset)>(noteAt);
    programs[1].p_filesz = static_cast<decltype(programs[1].p_filesz)>(note.size());

    typename Format::Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = Format::kClass;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_DYN;
    header.e_machine = Format::kMachine;
    header.e_version = EV_CURRENT;
    header.e_ehsize = sizeof header;
    header.e_phoff = sizeof header;
    header.e_phentsize = sizeof programs[0];
    header.e_phnum = 2;
    header.e_shoff = static_cast<decltype(header.e_shoff)>(sectionsAt);
    header.e_shentsize = sizeof sections[0];
    header.e_shnum = 6;
    header.e_shstrndx = 5;
    std::memcpy(file.data(), &header, sizeof header);
    std::memcpy(file.data() + sizeof header, programs, sizeof programs);
    return file;
}

} // namespace vnt::test
