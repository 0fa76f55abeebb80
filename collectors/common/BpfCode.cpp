#include "collectors/common/BpfCode.h"

#include "platform/base/Check.h"

namespace vnt {

void BpfCode::emit(unsigned code, unsigned to, unsigned from, int offset, int32_t immediate)
{
    bpf_insn instruction{};
    instruction.code = static_cast<uint8_t>(code);
    instruction.dst_reg = static_cast<uint8_t>(to & 0xf);
    instruction.src_reg = static_cast<uint8_t>(from & 0xf);
    instruction.off = static_cast<int16_t>(offset);
    instruction.imm = immediate;
    _code.push_back(instruction);
}

std::vector<bpf_insn> BpfCode::take()
{
    for (const Jump& jump : _jumps) {
        VNT_CHECK(_labels[jump.to] != SIZE_MAX && _labels[jump.to] > jump.at);
        _code[jump.at].off = static_cast<int16_t>(_labels[jump.to] - jump.at - 1);
    }
    return std::move(_code);
}

} // namespace vnt
