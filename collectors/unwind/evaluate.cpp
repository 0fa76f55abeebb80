#include "collectors/unwind/evaluate.h"

namespace vnt {
namespace {

class Machine {
public:
    Machine(const FrameRegisters& registers, StackDump& dump) : _registers(registers), _dump(dump) { }

    void push(uint64_t value)
    {
        if (_depth == kDepth)
            _failed = true;
        else
            _stack[_depth++] = _dump.wordBytes() == 8 ? value : value & UINT32_MAX;
    }
    uint64_t pop()
    {
        if (_depth == 0) {
            _failed = true;
            return 0;
        }
        return _stack[--_depth];
    }
    void step(frames::Cursor& cursor);
    [[nodiscard]] bool failed() const { return _failed; }

private:
    static constexpr size_t kDepth = 32; ///< signal frames need one, the PLT three

    bool constant(frames::Cursor& cursor, uint8_t operation);
    bool shuffle(uint8_t operation);
    void combine(uint8_t operation);
    void pushRegister(uint64_t number, int64_t offset)
    {
        const auto value = _registers.get(number);
        _failed = _failed || !value;
        push(value.value_or(0) + static_cast<uint64_t>(offset));
    }
    uint64_t pick(size_t index)
    {
        _failed = _failed || index >= _depth;
        return _failed ? 0 : _stack[_depth - 1 - index];
    }

    const FrameRegisters& _registers;
    StackDump& _dump;
    uint64_t _stack[kDepth];
    size_t _depth = 0;
    bool _failed = false;
};

void Machine::step(frames::Cursor& cursor)
{
    const auto operation = cursor.fixed<uint8_t>();
    if (operation >= 0x70 && operation <= 0x8f) { // DW_OP_breg0 to 31
        pushRegister(operation - 0x70u, cursor.sleb());
    } else if (operation == 0x92) { // DW_OP_bregx
        const uint64_t number = cursor.uleb();
        pushRegister(number, cursor.sleb());
    } else if (operation == 0x06) { // DW_OP_deref
        const auto value = _dump.read(pop());
        _failed = _failed || !value;
        push(value.value_or(0));
    } else if (operation == 0x23) { // DW_OP_plus_uconst
        push(pop() + cursor.uleb());
    } else if (!constant(cursor, operation) && !shuffle(operation)) {
        combine(operation);
    }
    _failed = _failed || cursor.failed;
}

bool Machine::constant(frames::Cursor& cursor, uint8_t operation)
{
    if (operation >= 0x30 && operation <= 0x4f) { // DW_OP_lit0 to 31
        push(operation - 0x30u);
        return true;
    }
    switch (operation) {
    case 0x08: // DW_OP_const1u
        push(cursor.fixed<uint8_t>());
        return true;
    case 0x09: // DW_OP_const1s
        push(static_cast<uint64_t>(int64_t{cursor.fixed<int8_t>()}));
        return true;
    case 0x0a: // DW_OP_const2u
        push(cursor.fixed<uint16_t>());
        return true;
    case 0x0b: // DW_OP_const2s
        push(static_cast<uint64_t>(int64_t{cursor.fixed<int16_t>()}));
        return true;
    case 0x0c: // DW_OP_const4u
        push(cursor.fixed<uint32_t>());
        return true;
    case 0x0d: // DW_OP_const4s
        push(static_cast<uint64_t>(int64_t{cursor.fixed<int32_t>()}));
        return true;
    case 0x0e: // DW_OP_const8u
    case 0x0f: // DW_OP_const8s
        push(cursor.fixed<uint64_t>());
        return true;
    case 0x10: // DW_OP_constu
        push(cursor.uleb());
        return true;
    case 0x11: // DW_OP_consts
        push(static_cast<uint64_t>(cursor.sleb()));
        return true;
    default:
        return false;
    }
}

bool Machine::shuffle(uint8_t operation)
{
    switch (operation) {
    case 0x12: // DW_OP_dup
        push(pick(0));
        return true;
    case 0x13: // DW_OP_drop
        (void)pop();
        return true;
    case 0x14: // DW_OP_over
        push(pick(1));
        return true;
    case 0x16: { // DW_OP_swap
        const uint64_t upper = pop();
        const uint64_t lower = pop();
        push(upper);
        push(lower);
        return true;
    }
    case 0x1f: // DW_OP_neg
        push(~pop() + 1);
        return true;
    case 0x20: // DW_OP_not
        push(~pop());
        return true;
    case 0x96: // DW_OP_nop
        return true;
    default:
        return false;
    }
}

void Machine::combine(uint8_t operation)
{
    const uint64_t right = pop();
    const uint64_t left = pop();
    const auto signedRight = static_cast<int64_t>(right);
    const auto signedLeft = static_cast<int64_t>(left);
    switch (operation) {
    case 0x1a: // DW_OP_and
        return push(left & right);
    case 0x1c: // DW_OP_minus
        return push(left - right);
    case 0x1e: // DW_OP_mul
        return push(left * right);
    case 0x21: // DW_OP_or
        return push(left | right);
    case 0x22: // DW_OP_plus
        return push(left + right);
    case 0x24: // DW_OP_shl
        return push(right < 64 ? left << right : 0);
    case 0x25: // DW_OP_shr
        return push(right < 64 ? left >> right : 0);
    case 0x27: // DW_OP_xor
        return push(left ^ right);
    case 0x29: // DW_OP_eq
        return push(left == right);
    case 0x2a: // DW_OP_ge
        return push(signedLeft >= signedRight);
    case 0x2b: // DW_OP_gt
        return push(signedLeft > signedRight);
    case 0x2c: // DW_OP_le
        return push(signedLeft <= signedRight);
    case 0x2d: // DW_OP_lt
        return push(signedLeft < signedRight);
    case 0x2e: // DW_OP_ne
        return push(left != right);
    default:
        _failed = true;
    }
}

} // namespace

std::optional<uint64_t> evaluate(const uint8_t* expression, size_t sizeBytes, const FrameRegisters& registers,
                                 StackDump& dump, std::optional<uint64_t> canonical)
{
    Machine machine(registers, dump);
    if (canonical)
        machine.push(*canonical);
    frames::Cursor cursor{expression, expression + sizeBytes};
    while (cursor.at < cursor.end && !machine.failed())
        machine.step(cursor);
    const uint64_t result = machine.pop();
    if (machine.failed())
        return std::nullopt;
    return result;
}

} // namespace vnt
