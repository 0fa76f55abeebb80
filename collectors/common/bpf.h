#pragma once

#include <linux/bpf.h>

#include <cstdint>
#include <span>
#include <string>

#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

/// bpf(2), one thin function per command.
namespace vnt::bpf {

struct MapShape {
    bpf_map_type type = BPF_MAP_TYPE_UNSPEC;
    uint32_t keyBytes = 0;
    uint32_t valueBytes = 0;
    uint32_t entries = 0; ///< of a ring buffer its size in bytes
    uint32_t flags = 0;
};
Result<UniqueFd> createMap(const MapShape& shape);
Status updateElement(int map, const void* key, const void* value);
Status deleteElement(int map, const void* key);
Status lookUpElement(int map, const void* key, void* value);

/// A refusal of the verifier carries the end of its log.
Result<UniqueFd> loadProgram(bpf_prog_type type, std::span<const bpf_insn> code);
/// How often the program was not run because another one was running on the same processor; 0 before Linux 5.12.
uint64_t missedRuns(int program);

} // namespace vnt::bpf
