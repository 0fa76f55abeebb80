#pragma once

#include <linux/bpf.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace vnt {

/// Puts a BPF program together, instruction by instruction (bpf(2), linux/bpf.h). Jumps go forward to labels. A small
/// program written by hand needs neither a compiler nor a loader where this is built or run.
class BpfCode {
public:
    using Label = size_t;

    Label newLabel()
    {
        _labels.push_back(SIZE_MAX);
        return _labels.size() - 1;
    }
    void place(Label label) { _labels[label] = _code.size(); }

    void move(unsigned to, unsigned from) { emit(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0); }
    void set(unsigned to, int32_t value) { emit(BPF_ALU64 | BPF_MOV | BPF_K, to, 0, 0, value); }
    void add(unsigned to, int32_t value) { emit(BPF_ALU64 | BPF_ADD | BPF_K, to, 0, 0, value); }
    void addRegister(unsigned to, unsigned from) { emit(BPF_ALU64 | BPF_ADD | BPF_X, to, from, 0, 0); }
    void mask(unsigned to, int32_t value) { emit(BPF_ALU64 | BPF_AND | BPF_K, to, 0, 0, value); }
    void shiftRight(unsigned to, int32_t bits) { emit(BPF_ALU64 | BPF_RSH | BPF_K, to, 0, 0, bits); }
    void shiftLeft(unsigned to, int32_t bits) { emit(BPF_ALU64 | BPF_LSH | BPF_K, to, 0, 0, bits); }
    void shiftRightSigned(unsigned to, int32_t bits) { emit(BPF_ALU64 | BPF_ARSH | BPF_K, to, 0, 0, bits); }

    /// `sizeBytes` 1, 2, 4 or 8, zero-extended.
    void load(unsigned to, unsigned base, int offset, unsigned sizeBytes)
    {
        emit(BPF_LDX | BPF_MEM | width(sizeBytes), to, base, offset, 0);
    }
    void store(unsigned base, int offset, unsigned from, unsigned sizeBytes)
    {
        emit(BPF_STX | BPF_MEM | width(sizeBytes), base, from, offset, 0);
    }
    void storeValue(unsigned base, int offset, int32_t value, unsigned sizeBytes)
    {
        emit(BPF_ST | BPF_MEM | width(sizeBytes), base, 0, offset, value);
    }
    /// Adds register `from` to the 64 bits at `base` + `offset`, atomically.
    void addTo(unsigned base, int offset, unsigned from)
    {
        emit(BPF_STX | BPF_ATOMIC | BPF_DW, base, from, offset, BPF_ADD);
    }
    void loadMap(unsigned to, int mapFd) { wide(to, BPF_PSEUDO_MAP_FD, mapFd); }
    /// The address of an array map's first value.
    void loadMapValue(unsigned to, int mapFd) { wide(to, BPF_PSEUDO_MAP_VALUE, mapFd); }

    void call(int32_t helper) { emit(BPF_JMP | BPF_CALL, 0, 0, 0, helper); }
    void jump(Label to) { jumpWith(BPF_JMP | BPF_JA, 0, 0, to); }
    void jumpIfEqual(unsigned left, int32_t right, Label to) { jumpWith(BPF_JMP | BPF_JEQ | BPF_K, left, right, to); }
    void jumpIfNot(unsigned left, int32_t right, Label to) { jumpWith(BPF_JMP | BPF_JNE | BPF_K, left, right, to); }
    void jumpIfAtLeastSigned(unsigned left, int32_t right, Label to)
    {
        jumpWith(BPF_JMP | BPF_JSGE | BPF_K, left, right, to);
    }
    void exit() { emit(BPF_JMP | BPF_EXIT, 0, 0, 0, 0); }

    /// The finished program; every label that was jumped to has been placed.
    std::vector<bpf_insn> take();

private:
    struct Jump {
        size_t at;
        Label to;
    };
    static unsigned width(unsigned sizeBytes)
    {
        return sizeBytes == 1 ? BPF_B : sizeBytes == 2 ? BPF_H : sizeBytes == 4 ? BPF_W : BPF_DW;
    }
    void emit(unsigned code, unsigned to, unsigned from, int offset, int32_t immediate);
    void jumpWith(unsigned code, unsigned left, int32_t right, Label to)
    {
        _jumps.push_back({_code.size(), to});
        emit(code, left, 0, 0, right);
    }
    void wide(unsigned to, unsigned kind, int32_t value)
    {
        emit(BPF_LD | BPF_DW | BPF_IMM, to, kind, 0, value);
        emit(0, 0, 0, 0, 0);
    }

    std::vector<bpf_insn> _code;
    std::vector<size_t> _labels;
    std::vector<Jump> _jumps;
};

} // namespace vnt
