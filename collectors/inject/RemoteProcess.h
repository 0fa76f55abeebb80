#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Status.h"

namespace vnt {

/// One loaded file of a process: its mappings, as /proc/PID/maps shows them (proc(5)).
struct RemoteModule {
    struct Range {
        uint64_t begin = 0;
        uint64_t end = 0;
    };
    std::string path; ///< as the kernel shows it; "[vdso]" for the kernel's own
    uint64_t base = 0; ///< where the file's beginning is mapped
    uint64_t end = 0;
    std::vector<Range> code; ///< executable
    bool is32Bit = false;

    /// The last component, without what the kernel adds to a file that was removed.
    [[nodiscard]] std::string_view fileName() const;
};

/// A process seen from outside: its memory, and what is loaded where at one moment. What the memory holds is untrusted:
/// nothing in it can make a look-up read without bounds.
class RemoteProcess {
public:
    explicit RemoteProcess(pid_t pid) : _pid(pid) { }

    /// Looks at the mappings anew. Errors: kNotFound when the process is gone, kDenied.
    Status refresh();

    [[nodiscard]] pid_t pid() const { return _pid; }
    [[nodiscard]] const std::vector<RemoteModule>& modules() const { return _modules; }
    /// The module whose code holds the address, or null.
    [[nodiscard]] const RemoteModule* moduleAt(uint64_t address) const;
    struct Mapping {
        uint64_t begin = 0;
        uint64_t end = 0;
        bool isMainStack = false; ///< the kernel's, which grows downwards by itself
    };
    /// The mapping that holds the address, or null.
    [[nodiscard]] const Mapping* mappingAt(uint64_t address) const;

    /// process_vm_readv(2) and process_vm_writev(2); all or an error.
    Status read(uint64_t address, void* to, size_t size) const;
    Status write(uint64_t address, const void* from, size_t size) const;

    /// Address of a function or a variable that the module exports. Errors: kNotFound; kCorrupt when its tables make no
    /// sense.
    Result<uint64_t> function(const RemoteModule& module, std::string_view name) const;
    /// Where these bytes stand in the module's code; 0 when they do not.
    [[nodiscard]] uint64_t findCode(const RemoteModule& module, std::string_view bytes) const;

private:
    const pid_t _pid;
    std::vector<RemoteModule> _modules; ///< by ascending base
    std::vector<Mapping> _mappings;
};

} // namespace vnt
