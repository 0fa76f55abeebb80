#include "collectors/kernel/SystemCalls.h"

#include <string_view>

#include "collectors/common/TraceFs.h"
#include "collectors/common/TracepointFormat.h"

namespace vnt {
namespace {

struct Name {
    uint32_t number;
    const char* name;
};

// Made from <asm/unistd_64.h> and <asm/unistd_32.h> when the build is configured.
constexpr Name kNames64[] = {
#include "collectors/kernel/system_calls_64.inc"
};
constexpr Name kNames32[] = {
#include "collectors/kernel/system_calls_32.inc"
};

constexpr uint32_t kLimit = 1024;

template <size_t N> consteval bool fits(const Name (&names)[N])
{
    for (const Name& name : names) {
        if (name.number >= kLimit)
            return false;
    }
    return true;
}
static_assert(fits(kNames64) && fits(kNames32));

/// Some descriptions stand under the name of the kernel's function.
struct Alias {
    std::string_view call;
    const char* description;
};
constexpr Alias kAliases[] = {
    {"stat", "newstat"},   {"fstat", "newfstat"},      {"lstat", "newlstat"},
    {"uname", "newuname"}, {"sendfile", "sendfile64"}, {"umount2", "umount"},
    {"_llseek", "llseek"}, {"_newselect", "select"},   {"newfstatat", "newfstatat"},
};

} // namespace

uint32_t systemCallLimit() { return kLimit; }

const char* systemCallName(uint32_t number, bool is32Bit)
{
    const auto find = [number](const auto& names) -> const char* {
        for (const Name& name : names) {
            if (name.number == number)
                return name.name;
        }
        return "";
    };
    return is32Bit ? find(kNames32) : find(kNames64);
}

std::vector<std::string> systemCallArguments(const TraceFs& files, uint32_t number, bool is32Bit)
{
    std::vector<std::string> names;
    std::string call = systemCallName(number, is32Bit);
    for (const Alias& alias : kAliases) {
        if (call == alias.call)
            call = alias.description;
    }
    const auto text = files.read("events/syscalls/sys_enter_" + call + "/format");
    const auto format = text.ok() ? TracepointFormat::parse(text.value())
                                  : Result<TracepointFormat>(Status(Code::kNotFound, "no description"));
    if (call.empty() || !format.ok()) {
        for (const char* name : {"arg0", "arg1", "arg2", "arg3", "arg4", "arg5"})
            names.emplace_back(name);
        return names;
    }
    for (const TracepointFormat::Field& field : format.value().fields) {
        // __data_loc fields are copies of what arguments point to.
        if (field.name != "__syscall_nr" && field.name != "nr" && !field.isLocated && names.size() < 6)
            names.push_back(field.name);
    }
    return names;
}

} // namespace vnt
