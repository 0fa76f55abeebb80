#include "bundle/ElfFile.h"

#include <elf.h>
#include <fcntl.h>
#include <gelf.h>
#include <libelf.h>

#include <cstring>

#include "platform/base/sys.h"

namespace vnt {

namespace {

/// Executables have a dozen program headers; the ELF header could claim 65,535.
constexpr size_t kMaxProgramHeaders = 4096;
/// SHA-1 ids have 20 bytes; linkers allow any.
constexpr size_t kMaxBuildIdBytes = 64;
/// Notes take some hundred bytes; a header could claim the whole of a sparse file.
constexpr uint64_t kMaxNoteBytes = 1u << 20;
/// Segments are mapped in whole pages (mmap(2)), so a mapping may begin before its segment.
constexpr uint64_t kPageBytes = 4096;

std::string hexadecimal(const unsigned char* bytes, size_t size)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 15];
    }
    return text;
}

/// The build id among the notes of `data`, or empty.
std::string buildIdOfNotes(Elf_Data* data)
{
    if (!data || !data->d_buf)
        return {};
    GElf_Nhdr note{};
    size_t nameOffset = 0;
    size_t descriptorOffset = 0;
    size_t offset = 0;
    while (offset < data->d_size) {
        offset = gelf_getnote(data, offset, &note, &nameOffset, &descriptorOffset);
        if (offset == 0)
            return {};
        const auto* bytes = static_cast<const unsigned char*>(data->d_buf);
        if (note.n_type == NT_GNU_BUILD_ID && note.n_namesz == sizeof ELF_NOTE_GNU
            && std::memcmp(bytes + nameOffset, ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0
            && note.n_descsz <= kMaxBuildIdBytes)
            return hexadecimal(bytes + descriptorOffset, note.n_descsz);
    }
    return {};
}

} // namespace

void ElfFile::EndElf::operator()(Elf* elf) const { elf_end(elf); }

ElfFile::ElfFile(UniqueFd fd, std::vector<std::byte> image, std::unique_ptr<Elf, EndElf> elf)
    : _fd(std::move(fd)),
      _image(std::move(image)),
      _elf(std::move(elf))
{
    readSegments();
    readBuildId();
}

Result<ElfFile> ElfFile::open(const std::string& path)
{
    // O_NONBLOCK: a pipe or device that stands at the path must not hold us up before it is refused.
    ASSIGN_OR_RETURN(UniqueFd fd, sys::openFile(path, O_RDONLY | O_NONBLOCK | O_NOCTTY));
    ASSIGN_OR_RETURN(const struct stat status, sys::statFd(fd.get()));
    if (!S_ISREG(status.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    return from(std::move(fd), {}, path);
}

Result<ElfFile> ElfFile::fromImage(std::vector<std::byte> image)
{
    return from({}, std::move(image), "the recorded image");
}

Result<ElfFile> ElfFile::from(UniqueFd fd, std::vector<std::byte> image, const std::string& what)
{
    elf_version(EV_CURRENT);
    std::unique_ptr<Elf, EndElf> elf(fd ? elf_begin(fd.get(), ELF_C_READ, nullptr)
                                        : elf_memory(reinterpret_cast<char*>(image.data()), image.size()));
    if (!elf || elf_kind(elf.get()) != ELF_K_ELF)
        return Status(Code::kInvalid, what + ": not an ELF file");
    return ElfFile(std::move(fd), std::move(image), std::move(elf));
}

void ElfFile::readSegments()
{
    size_t count = 0;
    if (elf_getphdrnum(_elf.get(), &count) != 0)
        return;
    for (size_t i = 0; i < count && i < kMaxProgramHeaders; ++i) {
        GElf_Phdr header{};
        if (!gelf_getphdr(_elf.get(), static_cast<int>(i), &header))
            return;
        if (header.p_type == PT_LOAD)
            _loadMap.segments.push_back(
                {header.p_offset, header.p_filesz, header.p_vaddr, (header.p_flags & PF_X) != 0});
    }
}

void ElfFile::readBuildId()
{
    size_t count = 0;
    if (elf_getphdrnum(_elf.get(), &count) != 0)
        count = 0;
    for (size_t i = 0; i < count && i < kMaxProgramHeaders && _buildId.empty(); ++i) {
        GElf_Phdr header{};
        if (!gelf_getphdr(_elf.get(), static_cast<int>(i), &header))
            break;
        if (header.p_type == PT_NOTE && header.p_filesz > 0 && header.p_filesz <= kMaxNoteBytes)
            _buildId = buildIdOfNotes(
                elf_getdata_rawchunk(_elf.get(), static_cast<int64_t>(header.p_offset), header.p_filesz, ELF_T_NHDR));
    }
    // Separate debug files keep the note's section but not always its segment.
    Elf_Scn* section = nullptr;
    while (_buildId.empty() && (section = elf_nextscn(_elf.get(), section)) != nullptr) {
        GElf_Shdr header{};
        if (gelf_getshdr(section, &header) && header.sh_type == SHT_NOTE && header.sh_size <= kMaxNoteBytes)
            _buildId = buildIdOfNotes(elf_getdata(section, nullptr));
    }
}

std::optional<uint64_t> LoadMap::linkedAddress(uint64_t fileOffset) const
{
    for (const uint64_t slack : {uint64_t{0}, kPageBytes - 1}) {
        for (const bool executable : {true, false}) {
            for (const Segment& segment : segments) {
                const uint64_t first = segment.offset & ~slack;
                if (segment.executable == executable && fileOffset >= first
                    && fileOffset - first < segment.size + (segment.offset - first))
                    return segment.address + (fileOffset - segment.offset); // wraps to below the segment on purpose
            }
        }
    }
    return std::nullopt;
}

Elf_Scn* ElfFile::sectionNamed(const char* name) const
{
    size_t names = 0;
    if (elf_getshdrstrndx(_elf.get(), &names) != 0)
        return nullptr;
    Elf_Scn* section = nullptr;
    while ((section = elf_nextscn(_elf.get(), section)) != nullptr) {
        GElf_Shdr header{};
        if (!gelf_getshdr(section, &header))
            continue;
        const char* own = elf_strptr(_elf.get(), names, header.sh_name);
        if (own && std::strcmp(own, name) == 0)
            return section;
    }
    return nullptr;
}

ElfFile::DebugLink ElfFile::debugLink() const
{
    Elf_Scn* section = sectionNamed(".gnu_debuglink");
    const Elf_Data* data = section ? elf_rawdata(section, nullptr) : nullptr;
    if (!data || !data->d_buf)
        return {};
    // A name, padded with zeros to four bytes, and the CRC of the file.
    const auto* text = static_cast<const char*>(data->d_buf);
    const size_t length = ::strnlen(text, data->d_size);
    const size_t crcOffset = (length + 4) & ~size_t{3};
    if (length == 0 || crcOffset > data->d_size || data->d_size - crcOffset < 4)
        return {};
    DebugLink link{std::string(text, length), 0};
    std::memcpy(&link.crc, text + crcOffset, sizeof link.crc);
    return link;
}

} // namespace vnt
