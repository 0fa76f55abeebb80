#include "collectors/unwind/ModuleFrames.h"

#include <elf.h>
#include <gelf.h>
#include <libelf.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <unordered_map>

namespace vnt {
namespace {

/// The largest browsers have some 20 MB.
constexpr size_t kMaxSectionBytes = 64u << 20;
constexpr size_t kMaxProgramHeaders = 4096; // a dozen are usual; the ELF header could claim 65,535
constexpr uint64_t kPageBytes = 4096; // segments are mapped in whole pages: a mapping may begin before its segment

struct EndElf {
    void operator()(Elf* elf) const { elf_end(elf); }
};
using ElfHandle = std::unique_ptr<Elf, EndElf>;

} // namespace

Result<ModuleFrames> ModuleFrames::read(const UniqueFd& file)
{
    elf_version(EV_CURRENT);
    const ElfHandle elf(elf_begin(file.get(), ELF_C_READ, nullptr));
    return read(elf.get());
}

Result<ModuleFrames> ModuleFrames::fromImage(std::vector<char> image)
{
    elf_version(EV_CURRENT);
    const ElfHandle elf(elf_memory(image.data(), image.size()));
    return read(elf.get());
}

Result<ModuleFrames> ModuleFrames::read(Elf* elf)
{
    GElf_Ehdr header{};
    if (!elf || elf_kind(elf) != ELF_K_ELF || !gelf_getehdr(elf, &header))
        return Status(Code::kInvalid, "not an ELF file");
    ModuleFrames module;
    if (header.e_machine == EM_386)
        module._machine = &frames::kX86;
    else if (header.e_machine != EM_X86_64 || header.e_ident[EI_CLASS] != ELFCLASS64)
        return Status(Code::kInvalid, "not an ELF file of this machine");
    module.readSegments(elf);
    if (!module.copySection(elf))
        return Status(Code::kInvalid, "no call-frame information");
    module.makeIndex();
    return module;
}

void ModuleFrames::readSegments(Elf* elf)
{
    size_t count = 0;
    if (elf_getphdrnum(elf, &count) != 0)
        return;
    for (size_t i = 0; i < count && i < kMaxProgramHeaders; ++i) {
        GElf_Phdr header{};
        if (gelf_getphdr(elf, static_cast<int>(i), &header) && header.p_type == PT_LOAD && (header.p_flags & PF_X))
            _segments.push_back({header.p_offset, header.p_filesz, header.p_vaddr});
    }
}

bool ModuleFrames::copySection(Elf* elf)
{
    size_t names = 0;
    if (elf_getshdrstrndx(elf, &names) != 0)
        return false;
    for (Elf_Scn* section = nullptr; (section = elf_nextscn(elf, section)) != nullptr;) {
        GElf_Shdr header{};
        if (!gelf_getshdr(section, &header) || header.sh_type == SHT_NOBITS || header.sh_size > kMaxSectionBytes)
            continue;
        const char* name = elf_strptr(elf, names, header.sh_name);
        if (!name || std::strcmp(name, ".eh_frame") != 0)
            continue;
        const Elf_Data* data = elf_rawdata(section, nullptr);
        if (!data || !data->d_buf)
            return false;
        const auto* bytes = static_cast<const uint8_t*>(data->d_buf);
        _section.assign(bytes, bytes + data->d_size);
        _sectionAddress = header.sh_addr;
        return true;
    }
    return false;
}

void ModuleFrames::makeIndex()
{
    const uint8_t* const begin = _section.data();
    const uint8_t* const end = begin + _section.size();
    std::unordered_map<const uint8_t*, frames::Cie> cies;
    for (const uint8_t* at = begin; at < end;) {
        frames::Cursor cursor = frames::entryAt(at, end, bias());
        if (cursor.failed) {
            uint32_t length = 0;
            if (end - at < 4)
                break;
            std::memcpy(&length, at, sizeof length);
            if (length != 0)
                break;
            at += 4; // a terminator between what several object files brought
            continue;
        }
        const uint8_t* const entry = at;
        at = cursor.end;
        const uint8_t* const cie = frames::cieOf(cursor, begin);
        if (!cie)
            continue;
        auto known = cies.find(cie);
        if (known == cies.end()) {
            frames::Cie read;
            if (!frames::readCie(frames::entryAt(cie, end, bias()), *_machine, read))
                read.codeAlign = 0; // marks one that is not understood
            known = cies.emplace(cie, read).first;
        }
        frames::Fde fde;
        if (known->second.codeAlign != 0 && frames::readFde(cursor, *_machine, known->second, fde) && fde.size != 0
            && fde.size <= UINT32_MAX)
            _index.push_back({fde.begin, static_cast<uint32_t>(fde.size), static_cast<uint32_t>(entry - begin)});
    }
    std::sort(_index.begin(), _index.end(), [](const Entry& a, const Entry& b) { return a.begin < b.begin; });
    _index.shrink_to_fit();
}

bool ModuleFrames::rowAt(uint64_t address, frames::Row& row, bool& isSignalFrame) const
{
    const auto next = std::upper_bound(_index.begin(), _index.end(), address,
                                       [](uint64_t wanted, const Entry& entry) { return wanted < entry.begin; });
    if (next == _index.begin() || address - (next - 1)->begin >= (next - 1)->sizeBytes)
        return false;
    const uint8_t* const begin = _section.data();
    const uint8_t* const end = begin + _section.size();
    frames::Cursor cursor = frames::entryAt(begin + (next - 1)->place, end, bias());
    const uint8_t* const place = frames::cieOf(cursor, begin);
    frames::Cie cie;
    frames::Fde fde;
    if (!place || !frames::readCie(frames::entryAt(place, end, bias()), *_machine, cie)
        || !frames::readFde(cursor, *_machine, cie, fde))
        return false;
    isSignalFrame = cie.isSignalFrame;
    return frames::Program(fde, *_machine, address).run(row);
}

std::optional<uint64_t> ModuleFrames::linkedAddress(uint64_t fileOffset) const
{
    for (const uint64_t slack : {uint64_t{0}, kPageBytes - 1}) {
        for (const Segment& segment : _segments) {
            const uint64_t first = segment.offset & ~slack;
            if (fileOffset >= first && fileOffset - first < segment.sizeBytes + (segment.offset - first))
                return segment.address + (fileOffset - segment.offset); // wraps to below the segment on purpose
        }
    }
    return std::nullopt;
}

} // namespace vnt
