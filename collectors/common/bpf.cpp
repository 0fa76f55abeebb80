#include "collectors/common/bpf.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace vnt::bpf {
namespace {

/// The attributes are zeroed whole before: the kernel refuses stray bytes.
long command(int number, bpf_attr& attributes) { return ::syscall(SYS_bpf, number, &attributes, sizeof attributes); }

bpf_attr blank()
{
    bpf_attr attributes;
    std::memset(&attributes, 0, sizeof attributes);
    return attributes;
}

uint64_t address(const void* pointer) { return reinterpret_cast<uintptr_t>(pointer); }

} // namespace

Result<UniqueFd> createMap(const MapShape& shape)
{
    bpf_attr attributes = blank();
    attributes.map_type = shape.type;
    attributes.key_size = shape.keyBytes;
    attributes.value_size = shape.valueBytes;
    attributes.max_entries = shape.entries;
    attributes.map_flags = shape.flags;
    const long fd = command(BPF_MAP_CREATE, attributes);
    if (fd < 0)
        return Status::fromErrno(errno, "bpf(BPF_MAP_CREATE)");
    return UniqueFd(static_cast<int>(fd));
}

Status updateElement(int map, const void* key, const void* value)
{
    bpf_attr attributes = blank();
    attributes.map_fd = static_cast<uint32_t>(map);
    attributes.key = address(key);
    attributes.value = address(value);
    if (command(BPF_MAP_UPDATE_ELEM, attributes) != 0)
        return Status::fromErrno(errno, "bpf(BPF_MAP_UPDATE_ELEM)");
    return {};
}

Status deleteElement(int map, const void* key)
{
    bpf_attr attributes = blank();
    attributes.map_fd = static_cast<uint32_t>(map);
    attributes.key = address(key);
    if (command(BPF_MAP_DELETE_ELEM, attributes) != 0)
        return Status::fromErrno(errno, "bpf(BPF_MAP_DELETE_ELEM)");
    return {};
}

Status lookUpElement(int map, const void* key, void* value)
{
    bpf_attr attributes = blank();
    attributes.map_fd = static_cast<uint32_t>(map);
    attributes.key = address(key);
    attributes.value = address(value);
    if (command(BPF_MAP_LOOKUP_ELEM, attributes) != 0)
        return Status::fromErrno(errno, "bpf(BPF_MAP_LOOKUP_ELEM)");
    return {};
}

Result<UniqueFd> loadProgram(bpf_prog_type type, std::span<const bpf_insn> code)
{
    bpf_attr attributes = blank();
    attributes.prog_type = type;
    attributes.insns = address(code.data());
    attributes.insn_cnt = static_cast<uint32_t>(code.size());
    attributes.license = address("Dual MIT/GPL"); // the helpers that read stacks and the clock ask for one
    long fd = command(BPF_PROG_LOAD, attributes);
    if (fd >= 0)
        return UniqueFd(static_cast<int>(fd));
    const int error = errno;
    std::vector<char> log(64u << 10);
    attributes.log_buf = address(log.data());
    attributes.log_size = static_cast<uint32_t>(log.size());
    attributes.log_level = 1;
    fd = command(BPF_PROG_LOAD, attributes);
    if (fd >= 0)
        return UniqueFd(static_cast<int>(fd));
    std::string text(log.data(), ::strnlen(log.data(), log.size()));
    text = text.substr(text.size() - std::min<size_t>(text.size(), 400));
    return Status::fromErrno(error, "bpf(BPF_PROG_LOAD)" + (text.empty() ? text : " (" + text + ")"));
}

uint64_t missedRuns(int program)
{
    bpf_prog_info info;
    std::memset(&info, 0, sizeof info);
    bpf_attr attributes = blank();
    attributes.info.bpf_fd = static_cast<uint32_t>(program);
    attributes.info.info_len = sizeof info;
    attributes.info.info = address(&info);
    return command(BPF_OBJ_GET_INFO_BY_FD, attributes) == 0 ? info.recursion_misses : 0;
}

} // namespace vnt::bpf
