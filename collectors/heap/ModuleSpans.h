#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include "platform/base/Status.h"

namespace vnt {

/// Where a process's modules lie, code and data: what a pointer that a block begins with points into. A value; any
/// thread.
class ModuleSpans {
public:
    /// Of the mappings as they are now. Errors: kNotFound when the process has ended.
    static Result<ModuleSpans> read(pid_t pid);
    /// `maps`: a text as of /proc/PID/maps.
    static ModuleSpans parse(std::string_view maps);

    /// Start of the code of the module whose constant data the address is in, 0 when it is in none. Virtual tables are
    /// constant; where the loader copied one into a program, they are in the memory right behind its data.
    [[nodiscard]] uint64_t codeOf(uint64_t address) const;

private:
    struct Span {
        uint64_t begin = 0;
        uint64_t end = 0;
        uint64_t code = 0;
    };
    std::vector<Span> _spans; // ascending
};

} // namespace vnt
