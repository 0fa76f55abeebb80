#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "collectors/unwind/ModuleFrames.h"

namespace vnt {

/// The call-frame information of the files that processes have mapped, each read once, when it is first needed, and
/// shared by all processes. At most kMaxBytes: what was used longest ago makes room, and is read again if it comes
/// back. One thread.
class ModuleTable {
public:
    static constexpr size_t kMaxBytes = size_t{192} << 20;
    using Number = uint32_t;
    static constexpr Number kNone = 0; ///< a module without call-frame information

    /// The module of the file that `pid` has mapped at `start` as `path`: the very file if it can be had, also when it
    /// was removed or lies in a container; else the one that has this name there. "[vdso]" is the kernel's.
    /// kNone when there is none, or it is not readable.
    Number open(pid_t pid, uint64_t start, uint64_t sizeBytes, const std::string& path);
    /// Null: it had to make room, and must be opened again.
    const ModuleFrames* frames(Number module);

    [[nodiscard]] size_t heldBytes() const { return _heldBytes; }

private:
    using Key = std::tuple<dev_t, ino_t, int64_t, int64_t>; ///< device, inode, time of the last change

    struct Slot {
        std::unique_ptr<ModuleFrames> frames;
        uint64_t lastUse = 0;
    };
    Number keep(const Key& key, Result<ModuleFrames> read);
    Number openVdso(pid_t pid, uint64_t start, uint64_t sizeBytes);
    void makeRoom(size_t bytes);

    std::map<Key, Number> _numbers;
    std::map<std::vector<char>, Number> _vdsos; ///< by their images: one for each width
    std::vector<Slot> _slots = std::vector<Slot>(1); ///< the first stands for kNone
    size_t _heldBytes = 0;
    uint64_t _uses = 0;
};

} // namespace vnt
