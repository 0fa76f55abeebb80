#pragma once

#include <sys/types.h>

#include <cstdint>
#include <deque>
#include <string>
#include <unordered_map>
#include <vector>

#include "collectors/common/codeMappings.h"
#include "collectors/unwind/ModuleTable.h"

namespace vnt {

/// The outermost frames beyond one return address, as long as every stack that was walked to its end agreed: the start
/// of main or of a thread in the C library.
struct StackTail {
    static constexpr size_t kMost = 4;
    uint8_t count = 0;
    bool isAmbiguous = false;
    uint64_t frames[kMost] = {};
};

/// The executable mappings of one process, ascending and apart.
struct AddressSpace {
    struct Mapping {
        uint64_t start = 0;
        uint64_t end = 0;
        uint64_t fileOffset = 0;
        std::string path;
        bool opened = false;
        ModuleTable::Number module = ModuleTable::kNone; ///< once opened
        uint64_t bias = 0; ///< likewise; a linked address less the one in the process
    };
    pid_t pid = 0;
    uint64_t version = 0; ///< no other state of any space has the same
    uint64_t nextLookNs = 0; ///< not before this is /proc asked again
    bool ended = false;
    std::vector<Mapping> mappings;
    std::unordered_map<uint64_t, StackTail> tails; ///< what StackUnwinder learnt, by return address

    [[nodiscard]] Mapping* find(uint64_t address);
};

/// Which file is mapped where in each process, from what the kernel tells of mappings and, for processes older than
/// the recording, from /proc. One thread.
class AddressSpaces {
public:
    /// The process's space, read from /proc when it is new. Valid until the next call of any other method.
    AddressSpace& of(pid_t pid);
    /// An address was in none of the mappings: reads them again unless that was done a moment ago. True: they changed.
    bool refresh(AddressSpace& space);

    void onMapping(pid_t pid, uint64_t start, uint64_t sizeBytes, uint64_t fileOffset, const std::string& path);
    void onExec(pid_t pid);
    void onFork(pid_t parent, pid_t child);
    void onExit(pid_t pid);

private:
    AddressSpace& create(pid_t pid);

    std::unordered_map<pid_t, AddressSpace> _spaces;
    std::deque<pid_t> _ended; ///< oldest first; rings of other processors may still hold samples of them
    uint64_t _lastVersion = 0;
    AddressSpace* _latest = nullptr; ///< into _spaces; most often the next one as well
};

} // namespace vnt
