#include "collectors/heap/ClassLook.h"

#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>
#include <unordered_map>

#include "collectors/heap/ModuleSpans.h"

namespace vnt {
namespace {

/// Beginnings so close together are read in one go: a page taken apart costs more than a page copied.
constexpr uint64_t kNear = 1024;
constexpr uint64_t kMaxPieceBytes = uint64_t{64} << 10;
constexpr uint64_t kUserSpaceEnd = uint64_t{1} << 47; // x86

struct Beginning {
    uint64_t address = 0;
    uint64_t sizeBytes = 0;
    uint64_t words[2] = {};
    bool isArray = false;
};

/// Reads pieces of a process's memory. One thread.
class Memory {
public:
    explicit Memory(pid_t pid) : _pid(pid) { }

    /// 0: nothing there can be read. EPERM and ESRCH are kept as error().
    size_t read(uint64_t address, size_t size, std::vector<std::byte>& bytes)
    {
        bytes.resize(size);
        struct iovec local = {bytes.data(), size};
        struct iovec remote = {reinterpret_cast<void*>(address), size}; // only ever used in the other process
        const ssize_t read = ::process_vm_readv(_pid, &local, 1, &remote, 1, 0);
        if (read < 0 && (errno == EPERM || errno == ESRCH))
            _error = errno;
        bytes.resize(read < 0 ? 0 : static_cast<size_t>(read));
        return bytes.size();
    }
    [[nodiscard]] int error() const { return _error; }

private:
    const pid_t _pid;
    int _error = 0;
};

std::vector<Beginning> beginningsOf(const LiveBlocks& blocks, size_t wordBytes)
{
    std::vector<Beginning> beginnings;
    blocks.forEachSlot([&](const LiveBlock& block) {
        if (!block.recorded || block.sizeBytes < wordBytes || block.address % wordBytes != 0
            || block.address >= kUserSpaceEnd)
            return;
        Beginning& beginning = beginnings.emplace_back();
        beginning.address = block.address;
        beginning.sizeBytes = block.sizeBytes;
        beginning.isArray = block.function == heap::Function::kOperatorArray && block.sizeBytes >= 2 * wordBytes;
    });
    std::sort(beginnings.begin(), beginnings.end(),
              [](const Beginning& a, const Beginning& b) { return a.address < b.address; });
    return beginnings;
}

void takeWords(Beginning& beginning, std::span<const std::byte> bytes, uint64_t offset, size_t wordBytes)
{
    for (size_t i = 0; i < (beginning.isArray ? 2u : 1u); ++i, offset += wordBytes) {
        if (offset + wordBytes <= bytes.size())
            std::memcpy(&beginning.words[i], bytes.data() + offset, wordBytes); // little-endian, as we are
    }
}

/// Fills in the words; those that cannot be read stay 0.
void readWords(std::vector<Beginning>& beginnings, size_t wordBytes, Memory& memory)
{
    std::vector<std::byte> bytes;
    for (size_t first = 0; first < beginnings.size() && memory.error() == 0;) {
        const uint64_t start = beginnings[first].address;
        uint64_t end = start + 2 * wordBytes;
        size_t behind = first + 1;
        while (behind < beginnings.size() && beginnings[behind].address - end < kNear
               && beginnings[behind].address - start < kMaxPieceBytes)
            end = beginnings[behind++].address + 2 * wordBytes;
        // The second word of the last one may be beyond what is mapped: then the answer is short.
        memory.read(start, end - start, bytes);
        for (; first < behind; ++first)
            takeWords(beginnings[first], bytes, beginnings[first].address - start, wordBytes);
    }
}

} // namespace

Result<ClassLook> lookAtClasses(pid_t pid, bool is32Bit, const LiveBlocks& blocks)
{
    ASSIGN_OR_RETURN(const ModuleSpans modules, ModuleSpans::read(pid));
    const size_t wordBytes = is32Bit ? 4 : 8;
    std::vector<Beginning> beginnings = beginningsOf(blocks, wordBytes);
    Memory memory(pid);
    readWords(beginnings, wordBytes, memory);
    if (memory.error() != 0)
        return Status::fromErrno(memory.error(), "process_vm_readv");
    ClassLook look;
    std::unordered_map<uint64_t, heap::ClassRecord> byTable;
    blocks.forEachSlot([&look](const LiveBlock& block) {
        look.blocks += block.recorded;
        look.bytes += block.recorded ? block.sizeBytes : 0;
    });
    for (const Beginning& beginning : beginnings) {
        for (const uint64_t word : beginning.words) {
            const uint64_t code = word == 0 ? 0 : modules.codeOf(word);
            if (code == 0 || (byTable.size() >= ClassLook::kMaxClasses && byTable.count(word) == 0))
                continue;
            heap::ClassRecord& found = byTable[word];
            found.table = word;
            found.code = code;
            ++found.blocks;
            found.bytes += beginning.sizeBytes;
            break;
        }
    }
    for (const auto& [table, found] : byTable)
        look.classes.push_back(found);
    std::sort(look.classes.begin(), look.classes.end(),
              [](const auto& a, const auto& b) { return a.bytes != b.bytes ? a.bytes > b.bytes : a.table < b.table; });
    return look;
}

} // namespace vnt
