#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

struct Elf; // libelf.h
struct Elf_Scn;

namespace vnt {

/// Where the parts of an ELF file are linked to stand (its PT_LOAD program headers).
struct LoadMap {
    struct Segment {
        uint64_t offset = 0;
        uint64_t size = 0;
        uint64_t address = 0;
        bool executable = false;
    };
    std::vector<Segment> segments;

    /// The linked address of the byte at `fileOffset`; executable segments are asked first.
    [[nodiscard]] std::optional<uint64_t> linkedAddress(uint64_t fileOffset) const;
};

/// An ELF file of either width opened for reading. Nothing in it is trusted: offsets, counts and names are checked
/// where they are used. Read, not mapped: a file that a linker rewrites meanwhile must not kill the reader. One thread.
class ElfFile {
public:
    /// Errors: kInvalid when `path` is no regular file or no ELF file, else those of open(2). Never blocks on a
    /// device or a pipe.
    static Result<ElfFile> open(const std::string& path);
    /// An image in memory, such as a recorded vdso.
    static Result<ElfFile> fromImage(std::vector<std::byte> image);

    /// From the GNU build-id note, lower-case hexadecimal; empty when there is none.
    [[nodiscard]] const std::string& buildId() const { return _buildId; }
    [[nodiscard]] const LoadMap& loadMap() const { return _loadMap; }
    /// Name and checksum of the separate debug file that .gnu_debuglink names; the name is empty when there is none.
    struct DebugLink {
        std::string name;
        uint32_t crc = 0;
    };
    [[nodiscard]] DebugLink debugLink() const;
    /// It has source lines of its own.
    [[nodiscard]] bool hasDebugInformation() const { return sectionNamed(".debug_info") != nullptr; }
    [[nodiscard]] Elf* handle() const { return _elf.get(); }

private:
    struct EndElf {
        void operator()(Elf* elf) const;
    };
    ElfFile(UniqueFd fd, std::vector<std::byte> image, std::unique_ptr<Elf, EndElf> elf);
    static Result<ElfFile> from(UniqueFd fd, std::vector<std::byte> image, const std::string& what);
    /// Null when there is none.
    [[nodiscard]] Elf_Scn* sectionNamed(const char* name) const;
    void readSegments();
    void readBuildId();

    UniqueFd _fd;
    std::vector<std::byte> _image;
    std::unique_ptr<Elf, EndElf> _elf; // reads _fd or _image: destroyed before them
    LoadMap _loadMap;
    std::string _buildId;
};

} // namespace vnt
