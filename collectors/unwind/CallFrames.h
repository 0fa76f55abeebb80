#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

/// Reads call-frame information: .eh_frame as the Linux Standard Base ("Exception Frames") and DWARF ("Call Frame
/// Information") describe it. Free-standing, without memory of its own: what is injected into other programs includes
/// it as well. Nothing outside the given range is read, whatever stands in it.
namespace vnt::frames {

/// DWARF's numbers of the registers that matter (System V ABI).
struct Machine {
    uint8_t wordBytes;
    uint8_t stackRegister;
    uint8_t frameRegister;
    uint8_t returnRegister;
};
inline constexpr Machine kX86_64{8, 7, 6, 16};
inline constexpr Machine kX86{4, 4, 5, 8};

/// A range of bytes being read. `failed` once something was unknown or missing; every further read gives 0 then.
struct Cursor {
    const uint8_t* at = nullptr;
    const uint8_t* end = nullptr;
    uint64_t bias = 0; ///< a byte's address in the program, less its address here
    bool failed = false;

    [[nodiscard]] size_t remaining() const { return static_cast<size_t>(end - at); }
    [[nodiscard]] uint64_t place() const { return reinterpret_cast<uintptr_t>(at) + bias; }

    template <typename T> T fixed()
    {
        T value{};
        if (remaining() < sizeof(T)) {
            failed = true;
            at = end;
            return value;
        }
        ::memcpy(&value, at, sizeof value);
        at += sizeof value;
        return value;
    }
    uint64_t uleb()
    {
        uint64_t value = 0;
        for (unsigned shift = 0; shift < 64; shift += 7) {
            const auto byte = fixed<uint8_t>();
            value |= static_cast<uint64_t>(byte & 0x7f) << shift;
            if ((byte & 0x80) == 0)
                return value;
        }
        failed = true;
        return 0;
    }
    int64_t sleb()
    {
        uint64_t value = 0;
        unsigned shift = 0;
        uint8_t byte = 0;
        do {
            byte = fixed<uint8_t>();
            value |= static_cast<uint64_t>(byte & 0x7f) << shift;
            shift += 7;
        } while ((byte & 0x80) != 0 && shift < 64 && !failed);
        if (shift < 64 && (byte & 0x40) != 0)
            value |= ~uint64_t{0} << shift;
        return static_cast<int64_t>(value);
    }
    void skip(uint64_t bytes)
    {
        failed = failed || bytes > remaining();
        at = failed ? end : at + bytes;
    }
    /// A word of the program.
    uint64_t word(const Machine& machine) { return machine.wordBytes == 8 ? fixed<uint64_t>() : fixed<uint32_t>(); }
    /// A pointer in DW_EH_PE_* encoding: absolute or relative to its own place.
    uint64_t pointer(uint8_t encoding, const Machine& machine)
    {
        const uint64_t from = place();
        uint64_t value = 0;
        switch (encoding & 0x0f) {
        case 0x00: // DW_EH_PE_absptr
            value = word(machine);
            break;
        case 0x02: // DW_EH_PE_udata2
            value = fixed<uint16_t>();
            break;
        case 0x03: // DW_EH_PE_udata4
            value = fixed<uint32_t>();
            break;
        case 0x0a: // DW_EH_PE_sdata2
            value = static_cast<uint64_t>(int64_t{fixed<int16_t>()});
            break;
        case 0x0b: // DW_EH_PE_sdata4
            value = static_cast<uint64_t>(int64_t{fixed<int32_t>()});
            break;
        case 0x04: // DW_EH_PE_udata8
        case 0x0c: // DW_EH_PE_sdata8
            value = fixed<uint64_t>();
            break;
        default:
            failed = true;
        }
        if ((encoding & 0x70) == 0x10) // DW_EH_PE_pcrel
            value += from;
        else
            failed = failed || (encoding & 0x70) != 0;
        return machine.wordBytes == 8 ? value : value & UINT32_MAX;
    }
};

/// What entries of one kind have in common.
struct Cie {
    uint64_t codeAlign = 1;
    int64_t dataAlign = 1;
    uint8_t pointerEncoding = 0;
    bool augmented = false; ///< entries have a length of augmentation data
    bool isSignalFrame = false; ///< the caller was interrupted, it did not call
    Cursor program;
};

/// The entry of a piece of code.
struct Fde {
    uint64_t begin = 0; ///< address in the program
    uint64_t size = 0;
    Cie cie;
    Cursor program;
};

/// Where a register's value of the caller is.
struct Place {
    enum Kind : uint8_t {
        kSame, ///< not changed
        kSaved, ///< at the canonical address plus `offset`
        kValue, ///< the canonical address plus `offset`
        kRegister, ///< in register `offset`
        kSavedByExpression, ///< at the address that `expression` computes
        kValueByExpression, ///< what `expression` computes
        kUndefined,
    };
    Kind kind = kSame;
    int64_t offset = 0;
    const uint8_t* expression = nullptr;
    size_t expressionBytes = 0;
};

/// The rules that hold at one address, of the registers that lead to the caller.
struct Row {
    Place canonical{Place::kUndefined}; ///< the canonical address: kRegister plus canonicalOffset, or an expression
    int64_t canonicalOffset = 0;
    Place frame; ///< the frame pointer
    Place returnAddress;
};

/// An entry at `entry`, or a failed cursor where there is none; `at` is behind its length, `end` where the next begins.
inline Cursor entryAt(const uint8_t* entry, const uint8_t* limit, uint64_t bias)
{
    Cursor cursor{entry, limit, bias};
    const auto length = cursor.fixed<uint32_t>();
    // A terminator, the 64-bit format, which nobody uses here, or a lie.
    if (cursor.failed || length == 0 || length >= 0xfffffff0u || length > cursor.remaining())
        return {entry, entry, bias, true};
    cursor.end = cursor.at + length;
    return cursor;
}

inline bool readAugmentation(const char* letters, Cursor data, const Machine& machine, Cie& cie)
{
    for (; *letters; ++letters) {
        if (*letters == 'R')
            cie.pointerEncoding = data.fixed<uint8_t>();
        else if (*letters == 'L')
            (void)data.fixed<uint8_t>();
        else if (*letters == 'P')
            (void)data.pointer(data.fixed<uint8_t>() & 0x7f, machine);
        else if (*letters == 'S')
            cie.isSignalFrame = true;
        else
            return false;
    }
    return !data.failed;
}

inline bool readCie(Cursor cursor, const Machine& machine, Cie& cie)
{
    if (cursor.failed || cursor.fixed<uint32_t>() != 0)
        return false;
    const auto version = cursor.fixed<uint8_t>();
    const char* augmentation = reinterpret_cast<const char*>(cursor.at);
    while (!cursor.failed && cursor.fixed<uint8_t>() != 0) { }
    if (cursor.failed || (version != 1 && version != 3))
        return false;
    cie.codeAlign = cursor.uleb();
    cie.dataAlign = cursor.sleb();
    const uint64_t returnRegister = version == 1 ? cursor.fixed<uint8_t>() : cursor.uleb();
    if (returnRegister != machine.returnRegister)
        return false;
    if (*augmentation == 'z') {
        cie.augmented = true;
        const uint64_t length = cursor.uleb();
        Cursor data = cursor;
        cursor.skip(length);
        data.end = cursor.at;
        if (cursor.failed || !readAugmentation(augmentation + 1, data, machine, cie))
            return false;
    } else if (*augmentation != 0) {
        return false;
    }
    cie.program = cursor;
    return !cursor.failed;
}

/// The place of the CIE that the entry at `cursor` belongs to, or null: it is a CIE itself, or damaged. Advances the
/// cursor behind it.
inline const uint8_t* cieOf(Cursor& cursor, const uint8_t* section)
{
    const uint8_t* from = cursor.at;
    const auto back = cursor.fixed<uint32_t>();
    return cursor.failed || back == 0 || back > static_cast<size_t>(from - section) ? nullptr : from - back;
}

/// Reads the rest of an entry behind cieOf().
inline bool readFde(Cursor cursor, const Machine& machine, const Cie& cie, Fde& fde)
{
    fde.cie = cie;
    fde.begin = cursor.pointer(cie.pointerEncoding, machine);
    fde.size = cursor.pointer(cie.pointerEncoding & 0x0f, machine);
    if (cie.augmented)
        cursor.skip(cursor.uleb());
    fde.program = cursor;
    return !cursor.failed;
}

/// Runs the instructions of an entry as far as one address.
class Program {
public:
    Program(const Fde& fde, const Machine& machine, uint64_t address)
        : _fde(fde),
          _machine(machine),
          _location(fde.begin),
          _address(address)
    {
    }
    /// False: it holds something that is not understood.
    bool run(Row& row)
    {
        if (!run(_fde.cie.program))
            return false;
        _initial = _row;
        const bool known = run(_fde.program);
        row = _row;
        return known;
    }

private:
    static constexpr int kDepth = 8; ///< of remembered rows; compilers need two

    bool run(Cursor cursor)
    {
        while (cursor.at < cursor.end && !cursor.failed) {
            if (!step(cursor, cursor.fixed<uint8_t>()))
                return false;
            if (_location > _address)
                return true;
        }
        return !cursor.failed;
    }
    void advance(uint64_t delta) { _location += delta * _fde.cie.codeAlign; }
    Place* placeOf(Row& row, uint64_t number) const
    {
        return number == _machine.frameRegister ? &row.frame
            : number == _machine.returnRegister ? &row.returnAddress
                                                : nullptr;
    }
    void set(uint64_t number, Place::Kind kind, int64_t offset)
    {
        if (Place* place = placeOf(_row, number))
            *place = {kind, offset, nullptr, 0};
    }
    void setExpression(uint64_t number, Place::Kind kind, Cursor& cursor)
    {
        const Place place = expressionAt(cursor, kind);
        if (Place* known = placeOf(_row, number))
            *known = place;
    }
    static Place expressionAt(Cursor& cursor, Place::Kind kind)
    {
        const uint64_t size = cursor.uleb();
        const uint8_t* begin = cursor.at;
        cursor.skip(size);
        return {kind, 0, begin, cursor.failed ? 0 : static_cast<size_t>(size)};
    }
    void restore(uint64_t number)
    {
        if (Place* place = placeOf(_row, number))
            *place = *placeOf(_initial, number);
    }
    int64_t scaled(int64_t factored) const
    {
        // Unsigned, so that a damaged factor wraps.
        return static_cast<int64_t>(static_cast<uint64_t>(factored) * static_cast<uint64_t>(_fde.cie.dataAlign));
    }
    void defineCanonical(uint64_t number, int64_t offset)
    {
        _row.canonical = {Place::kRegister, static_cast<int64_t>(number), nullptr, 0};
        _row.canonicalOffset = offset;
    }

    bool step(Cursor& cursor, uint8_t operation);
    bool stepRare(Cursor& cursor, uint8_t operation);

    const Fde& _fde;
    const Machine& _machine;
    Row _row;
    Row _initial;
    Row _kept[kDepth];
    int _keptCount = 0;
    uint64_t _location;
    const uint64_t _address;
};

inline bool Program::step(Cursor& cursor, uint8_t operation)
{
    const uint8_t low = operation & 0x3f;
    switch (operation >> 6) {
    case 1: // DW_CFA_advance_loc
        advance(low);
        return true;
    case 2: // DW_CFA_offset
        set(low, Place::kSaved, scaled(static_cast<int64_t>(cursor.uleb())));
        return true;
    case 3: // DW_CFA_restore
        restore(low);
        return true;
    default:
        break;
    }
    switch (operation) {
    case 0x00: // DW_CFA_nop
        return true;
    case 0x02: // DW_CFA_advance_loc1
        advance(cursor.fixed<uint8_t>());
        return true;
    case 0x03: // DW_CFA_advance_loc2
        advance(cursor.fixed<uint16_t>());
        return true;
    case 0x04: // DW_CFA_advance_loc4
        advance(cursor.fixed<uint32_t>());
        return true;
    case 0x0a: // DW_CFA_remember_state
        if (_keptCount == kDepth)
            return false;
        _kept[_keptCount++] = _row;
        return true;
    case 0x0b: // DW_CFA_restore_state
        if (_keptCount == 0)
            return false;
        _row = _kept[--_keptCount];
        return true;
    case 0x0c: { // DW_CFA_def_cfa
        const uint64_t number = cursor.uleb();
        defineCanonical(number, static_cast<int64_t>(cursor.uleb()));
        return true;
    }
    case 0x0d: // DW_CFA_def_cfa_register
        defineCanonical(cursor.uleb(), _row.canonicalOffset);
        return true;
    case 0x0e: // DW_CFA_def_cfa_offset
        _row.canonicalOffset = static_cast<int64_t>(cursor.uleb());
        return true;
    default:
        return stepRare(cursor, operation);
    }
}

inline bool Program::stepRare(Cursor& cursor, uint8_t operation)
{
    if (operation == 0x01) { // DW_CFA_set_loc
        _location = cursor.pointer(_fde.cie.pointerEncoding, _machine);
        return true;
    }
    if (operation == 0x2e) { // DW_CFA_GNU_args_size
        (void)cursor.uleb();
        return true;
    }
    if (operation == 0x0f) { // DW_CFA_def_cfa_expression
        _row.canonical = expressionAt(cursor, Place::kValueByExpression);
        return true;
    }
    if (operation == 0x13) { // DW_CFA_def_cfa_offset_sf
        _row.canonicalOffset = scaled(cursor.sleb());
        return true;
    }
    const uint64_t number = cursor.uleb();
    switch (operation) {
    case 0x05: // DW_CFA_offset_extended
        set(number, Place::kSaved, scaled(static_cast<int64_t>(cursor.uleb())));
        return true;
    case 0x06: // DW_CFA_restore_extended
        restore(number);
        return true;
    case 0x07: // DW_CFA_undefined
        set(number, Place::kUndefined, 0);
        return true;
    case 0x08: // DW_CFA_same_value
        set(number, Place::kSame, 0);
        return true;
    case 0x09: // DW_CFA_register
        set(number, Place::kRegister, static_cast<int64_t>(cursor.uleb()));
        return true;
    case 0x10: // DW_CFA_expression
        setExpression(number, Place::kSavedByExpression, cursor);
        return true;
    case 0x11: // DW_CFA_offset_extended_sf
        set(number, Place::kSaved, scaled(cursor.sleb()));
        return true;
    case 0x12: // DW_CFA_def_cfa_sf
        defineCanonical(number, scaled(cursor.sleb()));
        return true;
    case 0x14: // DW_CFA_val_offset
        set(number, Place::kValue, scaled(static_cast<int64_t>(cursor.uleb())));
        return true;
    case 0x15: // DW_CFA_val_offset_sf
        set(number, Place::kValue, scaled(cursor.sleb()));
        return true;
    case 0x16: // DW_CFA_val_expression
        setExpression(number, Place::kValueByExpression, cursor);
        return true;
    default:
        return false;
    }
}

} // namespace vnt::frames
