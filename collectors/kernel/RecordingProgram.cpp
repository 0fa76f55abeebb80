#include "collectors/kernel/RecordingProgram.h"

#include <algorithm>
#include <cstddef>

#include "collectors/common/BpfCode.h"
#include "collectors/kernel/TracePlan.h"

namespace vnt {
namespace {

// Registers that calls leave alone.
constexpr unsigned kContext = BPF_REG_6;
constexpr unsigned kTask = BPF_REG_7; ///< process id << 32 | thread id
constexpr unsigned kRecord = BPF_REG_8;
constexpr unsigned kLength = BPF_REG_9;

constexpr int kKeyAt = -8; ///< on the program's stack
constexpr int kValueAt = -16;

bool isCall(const Tracepoint& tracepoint)
{
    return tracepoint.plan->kind == trace::EventKind::kCallEnter
        || tracepoint.plan->kind == trace::EventKind::kCallExit;
}

/// R0 is what the map of tasks holds for the thread id in the low half of `reg`.
void lookUpTask(BpfCode& code, unsigned reg, const ProgramMaps& maps)
{
    code.store(BPF_REG_10, kKeyAt, reg, 4);
    code.loadMap(BPF_REG_1, maps.tasks);
    code.move(BPF_REG_2, BPF_REG_10);
    code.add(BPF_REG_2, kKeyAt);
    code.call(BPF_FUNC_map_lookup_elem);
}

/// A field of the event into `to`; 0 for one that this kernel lacks.
void loadSlot(BpfCode& code, unsigned to, const ValueSlot& slot)
{
    if (slot.sizeBytes == 0) {
        code.set(to, 0);
        return;
    }
    code.load(to, kContext, static_cast<int>(slot.offset), slot.sizeBytes);
    if (!slot.isSigned || slot.sizeBytes == 8)
        return;
    const auto unused = static_cast<int32_t>(64 - slot.sizeBytes * 8);
    code.shiftLeft(to, unused);
    code.shiftRightSigned(to, unused);
}

class ProgramBuilder {
public:
    ProgramBuilder(const KernelTracerOptions& options, const Tracepoint& tracepoint, uint16_t index, uint32_t maxFrames,
                   const ProgramMaps& maps)
        : _options(options),
          _tracepoint(tracepoint),
          _index(index),
          _stackBytes(static_cast<int32_t>(8 * std::min<size_t>(maxFrames, kProgramFrames))),
          _maps(maps),
          _fixedBytes(
              static_cast<int32_t>(sizeof(ProgramRecord) + 8 * programWords(tracepoint) + programTextBytes(tracepoint)))
    {
    }

    std::vector<bpf_insn> build()
    {
        _code.move(kContext, BPF_REG_1);
        _code.loadMapValue(BPF_REG_1, _maps.enabled);
        _code.load(BPF_REG_1, BPF_REG_1, 0, 8);
        _code.jumpIfEqual(BPF_REG_1, 0, _out);
        _code.call(BPF_FUNC_get_current_pid_tgid);
        _code.move(kTask, BPF_REG_0);
        if (!_options.allProcesses)
            filter();
        if (wantsStacks(_options))
            writeWithStacks();
        else
            writeAlone();
        _code.place(_noRoom);
        _code.loadMapValue(BPF_REG_1, _maps.losses);
        _code.set(BPF_REG_2, 1);
        _code.addTo(BPF_REG_1, offsetof(ProgramLosses, lost), BPF_REG_2);
        _code.place(_out);
        _code.set(BPF_REG_0, 1); // other users of the tracepoint's perf events keep theirs
        _code.exit();
        return _code.take();
    }

private:
    void filter()
    {
        const auto wanted = _code.newLabel();
        lookUpTask(_code, kTask, _maps);
        _code.jumpIfNot(BPF_REG_0, 0, wanted);
        if (_tracepoint.about.sizeBytes == 4) {
            _code.load(BPF_REG_1, kContext, static_cast<int>(_tracepoint.about.offset), 4);
            lookUpTask(_code, BPF_REG_1, _maps);
            _code.jumpIfNot(BPF_REG_0, 0, wanted);
        }
        _code.jump(_out);
        _code.place(wanted);
    }

    void writeAlone()
    {
        _code.loadMap(BPF_REG_1, _maps.ring);
        _code.set(BPF_REG_2, _fixedBytes);
        _code.set(BPF_REG_3, 0);
        _code.call(BPF_FUNC_ringbuf_reserve);
        _code.jumpIfEqual(BPF_REG_0, 0, _noRoom);
        _code.move(kRecord, BPF_REG_0);
        writeFixed();
        _code.storeValue(kRecord, offsetof(ProgramRecord, kernelBytes), 0, 2);
        _code.storeValue(kRecord, offsetof(ProgramRecord, userBytes), 0, 2);
        _code.move(BPF_REG_1, kRecord);
        _code.set(BPF_REG_2, BPF_RB_NO_WAKEUP);
        _code.call(BPF_FUNC_ringbuf_submit);
        _code.jump(_out);
    }

    void writeWithStacks()
    {
        _code.storeValue(BPF_REG_10, kKeyAt, 0, 4);
        _code.loadMap(BPF_REG_1, _maps.scratch);
        _code.move(BPF_REG_2, BPF_REG_10);
        _code.add(BPF_REG_2, kKeyAt);
        _code.call(BPF_FUNC_map_lookup_elem);
        _code.jumpIfEqual(BPF_REG_0, 0, _noRoom);
        _code.move(kRecord, BPF_REG_0);
        writeFixed();
        _code.set(kLength, 0);
        writeStack(_options.kernelStacks, 0, offsetof(ProgramRecord, kernelBytes));
        writeStack(_options.userStacks, BPF_F_USER_STACK, offsetof(ProgramRecord, userBytes));
        _code.loadMap(BPF_REG_1, _maps.ring);
        _code.move(BPF_REG_2, kRecord);
        _code.move(BPF_REG_3, kLength);
        _code.add(BPF_REG_3, _fixedBytes);
        _code.set(BPF_REG_4, BPF_RB_NO_WAKEUP);
        _code.call(BPF_FUNC_ringbuf_output);
        _code.jumpIfEqual(BPF_REG_0, 0, _out);
    }

    /// Appends a stack behind what kLength counts, and stores its size.
    void writeStack(bool isWanted, int32_t flags, int sizeAt)
    {
        const auto isStack = _code.newLabel();
        _code.set(BPF_REG_0, 0);
        if (isWanted) {
            _code.move(BPF_REG_1, kContext);
            _code.move(BPF_REG_2, kRecord);
            _code.addRegister(BPF_REG_2, kLength);
            _code.add(BPF_REG_2, _fixedBytes);
            _code.set(BPF_REG_3, _stackBytes);
            _code.set(BPF_REG_4, flags);
            _code.call(BPF_FUNC_get_stack);
            _code.jumpIfAtLeastSigned(BPF_REG_0, 0, isStack);
            _code.set(BPF_REG_0, 0); // there is none, as in kernel threads
            _code.place(isStack);
        }
        _code.store(kRecord, sizeAt, BPF_REG_0, 2);
        _code.addRegister(kLength, BPF_REG_0);
    }

    void writeFixed()
    {
        _code.call(BPF_FUNC_ktime_get_ns);
        _code.store(kRecord, offsetof(ProgramRecord, timeNs), BPF_REG_0, 8);
        _code.store(kRecord, offsetof(ProgramRecord, tid), kTask, 4);
        _code.shiftRight(kTask, 32);
        _code.store(kRecord, offsetof(ProgramRecord, pid), kTask, 4);
        _code.call(BPF_FUNC_get_smp_processor_id);
        _code.store(kRecord, offsetof(ProgramRecord, cpu), BPF_REG_0, 2);
        _code.storeValue(kRecord, offsetof(ProgramRecord, tracepoint), _index, 2);
        int at = sizeof(ProgramRecord);
        const auto word = [&](const ValueSlot& slot) {
            loadSlot(_code, BPF_REG_1, slot);
            _code.store(kRecord, at, BPF_REG_1, 8);
            at += 8;
        };
        if (isCall(_tracepoint))
            word(_tracepoint.call);
        for (const ValueSlot& slot : _tracepoint.values)
            word(slot);
        writeText(at);
    }

    void writeText(int at)
    {
        if (programTextBytes(_tracepoint) == 0)
            return;
        const TracepointFormat::Field& field = *_tracepoint.format.field(_tracepoint.plan->text);
        _code.storeValue(kRecord, at, 0, 1); // should the text not be readable
        if (field.isLocated) {
            _code.load(BPF_REG_3, kContext, static_cast<int>(field.offset), 4);
            _code.mask(BPF_REG_3, 0xffff);
            _code.addRegister(BPF_REG_3, kContext);
        } else {
            _code.move(BPF_REG_3, kContext);
            _code.add(BPF_REG_3, static_cast<int32_t>(field.offset));
        }
        _code.move(BPF_REG_1, kRecord);
        _code.add(BPF_REG_1, at);
        _code.set(BPF_REG_2, static_cast<int32_t>(programTextBytes(_tracepoint)));
        _code.call(BPF_FUNC_probe_read_kernel_str);
    }

    const KernelTracerOptions& _options;
    const Tracepoint& _tracepoint;
    const uint16_t _index;
    const int32_t _stackBytes;
    const ProgramMaps& _maps;
    const int32_t _fixedBytes;
    BpfCode _code;
    const BpfCode::Label _out = _code.newLabel();
    const BpfCode::Label _noRoom = _code.newLabel();
};

} // namespace

size_t programWords(const Tracepoint& tracepoint) { return tracepoint.values.size() + (isCall(tracepoint) ? 1 : 0); }

size_t programTextBytes(const Tracepoint& tracepoint)
{
    const TracepointFormat::Field* field =
        tracepoint.plan->text ? tracepoint.format.field(tracepoint.plan->text) : nullptr;
    if (!field)
        return 0;
    return field->isLocated ? 128 : 16; // a path, or a task's name
}

std::vector<bpf_insn> recordingProgram(const KernelTracerOptions& options, const Tracepoint& tracepoint, uint16_t index,
                                       uint32_t maxFrames, const ProgramMaps& maps)
{
    static_assert(sizeof(ProgramRecord) + 8 * 7 + 128 + 2 * 8 * kProgramFrames <= kScratchBytes);
    return ProgramBuilder(options, tracepoint, index, maxFrames, maps).build();
}

std::vector<bpf_insn> forkProgram(const ValueSlot& child, const ProgramMaps& maps)
{
    BpfCode code;
    const auto out = code.newLabel();
    code.move(kContext, BPF_REG_1);
    code.call(BPF_FUNC_get_current_pid_tgid);
    lookUpTask(code, BPF_REG_0, maps);
    code.jumpIfEqual(BPF_REG_0, 0, out);
    loadSlot(code, BPF_REG_1, child);
    code.store(BPF_REG_10, kKeyAt, BPF_REG_1, 4);
    code.storeValue(BPF_REG_10, kValueAt, 1, 4);
    code.loadMap(BPF_REG_1, maps.tasks);
    code.move(BPF_REG_2, BPF_REG_10);
    code.add(BPF_REG_2, kKeyAt);
    code.move(BPF_REG_3, BPF_REG_10);
    code.add(BPF_REG_3, kValueAt);
    code.set(BPF_REG_4, BPF_ANY);
    code.call(BPF_FUNC_map_update_elem);
    code.jumpIfEqual(BPF_REG_0, 0, out);
    code.loadMapValue(BPF_REG_1, maps.losses);
    code.set(BPF_REG_2, 1);
    code.addTo(BPF_REG_1, offsetof(ProgramLosses, unfollowed), BPF_REG_2);
    code.place(out);
    code.set(BPF_REG_0, 1);
    code.exit();
    return code.take();
}

std::vector<bpf_insn> freeProgram(const ValueSlot& thread, const ProgramMaps& maps)
{
    BpfCode code;
    code.move(kContext, BPF_REG_1);
    loadSlot(code, BPF_REG_1, thread);
    code.store(BPF_REG_10, kKeyAt, BPF_REG_1, 4);
    code.loadMap(BPF_REG_1, maps.tasks);
    code.move(BPF_REG_2, BPF_REG_10);
    code.add(BPF_REG_2, kKeyAt);
    code.call(BPF_FUNC_map_delete_elem);
    code.set(BPF_REG_0, 1);
    code.exit();
    return code.take();
}

} // namespace vnt
