#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "collectors/unwind/CallFrames.h"
#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

struct Elf; // libelf.h

namespace vnt {

/// The call-frame information of one ELF file of either width: its .eh_frame and a sorted index of what belongs to
/// which address. Costs 16 bytes for each function beside the section itself; a library with 40,000 functions is read
/// in some milliseconds. The file is not trusted, and not mapped: one that is rewritten meanwhile must not kill us.
/// Immutable once read.
class ModuleFrames {
public:
    /// Errors: kInvalid for what is no ELF file of this machine or has no call-frame information.
    static Result<ModuleFrames> read(const UniqueFd& file);
    /// An image in memory, such as the vdso.
    static Result<ModuleFrames> fromImage(std::vector<char> image);

    /// The rules at `address`, which is one as the file was linked. False: there are none, or none that are understood.
    /// About half a microsecond: callers keep the answer. `row` points into this object.
    bool rowAt(uint64_t address, frames::Row& row, bool& isSignalFrame) const;
    /// The linked address of the byte at `fileOffset` of an executable segment.
    [[nodiscard]] std::optional<uint64_t> linkedAddress(uint64_t fileOffset) const;

    [[nodiscard]] const frames::Machine& machine() const { return *_machine; }
    [[nodiscard]] size_t sizeBytes() const { return _section.size() + _index.size() * sizeof(Entry); }
    [[nodiscard]] size_t functionCount() const { return _index.size(); }

private:
    struct Entry {
        uint64_t begin = 0;
        uint32_t sizeBytes = 0;
        uint32_t place = 0; ///< in the section
    };
    struct Segment {
        uint64_t offset = 0;
        uint64_t sizeBytes = 0;
        uint64_t address = 0;
    };

    static Result<ModuleFrames> read(Elf* elf);
    void readSegments(Elf* elf);
    bool copySection(Elf* elf);
    void makeIndex();
    [[nodiscard]] uint64_t bias() const { return _sectionAddress - reinterpret_cast<uintptr_t>(_section.data()); }

    const frames::Machine* _machine = &frames::kX86_64;
    std::vector<Segment> _segments; ///< executable ones
    std::vector<uint8_t> _section;
    uint64_t _sectionAddress = 0;
    std::vector<Entry> _index; ///< ascending
};

} // namespace vnt
