#include "collectors/inject/SignalFrame.h"

#include <asm/sigcontext.h>
#include <errno.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace vnt {
namespace {

// The kernel's own restart codes, seen by tracers only (<linux/errno.h>).
constexpr int64_t kRestartSys = 512, kRestartNoInterrupt = 513, kRestartNoHand = 514, kRestartBlock = 516;
constexpr uint64_t kRestartCall64 = 219, kRestartCall32 = 0; // restart_syscall(2)
constexpr uint64_t kHasExtendedState = 1, kHasStackSegment = 2, kStrictStackSegment = 4; // UC_*, <asm/ucontext.h>
/// No such mode: the kernel leaves the thread's alternative stack as it is (sigaltstack(2) fails, which is ignored).
constexpr int32_t kNoAlternativeStack = 3;
constexpr size_t kFixedBytes = 512; // of the extended state: what fxsave stores (struct _fpstate_64)
constexpr size_t kSoftwareBytes = 464; // struct _fpx_sw_bytes within struct _fpstate, <asm/sigcontext.h>
constexpr size_t kSystemCallBytes = 2; // `syscall` and `int 0x80`
constexpr uint64_t kPrivateBytes = 512; // room for what follows the area of the processor's state

/// struct rt_sigframe of the kernel, 64 bit, as far as rt_sigreturn(2) reads it.
struct Frame64 {
    uint64_t returnAddress;
    uint64_t flags;
    uint64_t link;
    uint64_t stackAddress;
    int32_t stackMode;
    int32_t pad;
    uint64_t stackSize;
    sigcontext_64 context;
    uint64_t signalMask;
};
static_assert(sizeof(Frame64) == 8 + 40 + 256 + 8);

/// struct rt_sigframe_ia32. The called function's arguments stand where the signal's number and what follows would be.
struct Frame32 {
    uint32_t returnAddress;
    uint32_t arguments[3];
    uint8_t info[128];
    uint32_t flags;
    uint32_t link;
    uint32_t stackAddress;
    int32_t stackMode;
    uint32_t stackSize;
    sigcontext_32 context;
    uint32_t signalMask[2];
};
static_assert(sizeof(Frame32) == 16 + 128 + 20 + 88 + 8);

/// As the kernel would go on with it without a tracer's interruption; a sleep begins anew, as rt_sigreturn(2) makes the
/// kernel forget what restart_syscall(2) would go on with.
user_regs_struct restarted(const SavedThread& thread)
{
    user_regs_struct registers = thread.registers;
    const uint64_t again = thread.is32Bit ? kRestartCall32 : kRestartCall64;
    const auto answer = static_cast<int64_t>(static_cast<int32_t>(registers.rax));
    const bool isCall = static_cast<int64_t>(registers.orig_rax) >= 0;
    const int64_t number =
        isCall && registers.orig_rax != again ? static_cast<int64_t>(registers.orig_rax) : int64_t{thread.timedWait};
    if (thread.isAtSystemCall) { // the kernel has prepared it already
        if (registers.rax == again && number >= 0)
            registers.rax = static_cast<uint64_t>(number);
        return registers;
    }
    if (!isCall
        || (answer != -kRestartSys && answer != -kRestartNoInterrupt && answer != -kRestartNoHand
            && answer != -kRestartBlock))
        return registers;
    if (number < 0) {
        registers.rax = static_cast<uint64_t>(int64_t{-EINTR});
        return registers;
    }
    registers.rax = static_cast<uint64_t>(number);
    registers.rip -= kSystemCallBytes;
    return registers;
}

void fillContext(sigcontext_64& context, const user_regs_struct& registers)
{
    context.r8 = registers.r8;
    context.r9 = registers.r9;
    context.r10 = registers.r10;
    context.r11 = registers.r11;
    context.r12 = registers.r12;
    context.r13 = registers.r13;
    context.r14 = registers.r14;
    context.r15 = registers.r15;
    context.di = registers.rdi;
    context.si = registers.rsi;
    context.bp = registers.rbp;
    context.bx = registers.rbx;
    context.dx = registers.rdx;
    context.ax = registers.rax;
    context.cx = registers.rcx;
    context.sp = registers.rsp;
    context.ip = registers.rip;
    context.flags = registers.eflags;
    context.cs = static_cast<uint16_t>(registers.cs);
    context.ss = static_cast<uint16_t>(registers.ss);
}

void fillContext(sigcontext_32& context, const user_regs_struct& registers)
{
    context.gs = static_cast<uint16_t>(registers.gs);
    context.fs = static_cast<uint16_t>(registers.fs);
    context.es = static_cast<uint16_t>(registers.es);
    context.ds = static_cast<uint16_t>(registers.ds);
    context.di = static_cast<uint32_t>(registers.rdi);
    context.si = static_cast<uint32_t>(registers.rsi);
    context.bp = static_cast<uint32_t>(registers.rbp);
    context.sp = static_cast<uint32_t>(registers.rsp);
    context.bx = static_cast<uint32_t>(registers.rbx);
    context.dx = static_cast<uint32_t>(registers.rdx);
    context.cx = static_cast<uint32_t>(registers.rcx);
    context.ax = static_cast<uint32_t>(registers.rax);
    context.ip = static_cast<uint32_t>(registers.rip);
    context.cs = static_cast<uint16_t>(registers.cs);
    context.flags = static_cast<uint32_t>(registers.eflags);
    context.ss = static_cast<uint16_t>(registers.ss);
}

/// The processor's extended state as the kernel lays it onto a stack; `area` begins with it.
void layExtendedState(const std::vector<std::byte>& state, std::byte* area)
{
    std::memcpy(area, state.data(), state.size());
    if (state.size() > kSoftwareBytes + sizeof(_fpx_sw_bytes)) {
        uint64_t features = 0; // the regset has them where the frame has more (PTRACE_GETREGSET)
        std::memcpy(&features, area + kSoftwareBytes, sizeof features);
        _fpx_sw_bytes described{};
        described.magic1 = FP_XSTATE_MAGIC1;
        described.extended_size = static_cast<uint32_t>(state.size() + FP_XSTATE_MAGIC2_SIZE);
        described.xfeatures = features;
        described.xstate_size = static_cast<uint32_t>(state.size());
        std::memcpy(area + kSoftwareBytes, &described, sizeof described);
    }
    const uint32_t magic = FP_XSTATE_MAGIC2;
    std::memcpy(area + state.size(), &magic, sizeof magic);
}

/// What a 32-bit frame has in front of it: the older processors' form of the same (struct _fpstate_32,
/// <asm/sigcontext.h>).
struct OldFloatingPoint {
    uint32_t control, status, tags, instruction, codeSegment, operand, dataSegment;
    std::array<std::byte, 80> registers; ///< ten bytes each
    uint16_t oldStatus;
    uint16_t magic;
};
static_assert(sizeof(OldFloatingPoint) == 112);

OldFloatingPoint oldFloatingPoint(const std::vector<std::byte>& state)
{
    struct {
        uint16_t control, status;
        uint8_t used; ///< a bit for each register that holds something
        uint8_t reserved;
        uint16_t operation;
        uint32_t instruction, codeSegment, operand, dataSegment, vectorControl, vectorMask;
        std::array<std::array<std::byte, 16>, 8> registers;
    } fixed; // fxsave
    static_assert(sizeof fixed == 160);
    std::memcpy(&fixed, state.data(), sizeof fixed);
    constexpr uint32_t kUnused = 0xffff0000; // as the processor sets what has no meaning
    constexpr uint16_t kExtendedStateFollows = 0; // X86_FXSR_MAGIC
    OldFloatingPoint old{};
    old.control = kUnused | fixed.control;
    old.status = kUnused | fixed.status;
    old.tags = kUnused;
    for (unsigned i = 0; i < fixed.registers.size(); ++i) {
        if ((fixed.used & 1U << i) == 0)
            old.tags |= 3U << 2 * i; // empty; other tags the processor finds by itself
        std::memcpy(old.registers.data() + size_t{10} * i, fixed.registers[i].data(), 10);
    }
    old.instruction = fixed.instruction;
    old.codeSegment = (fixed.codeSegment & 0xffff) | uint32_t{fixed.operation} << 16;
    old.operand = fixed.operand;
    old.dataSegment = kUnused | fixed.dataSegment;
    old.oldStatus = fixed.status;
    old.magic = kExtendedStateFollows;
    return old;
}

SignalFrame makeFrame64(const SavedThread& thread, uint64_t top, uint64_t signalReturn)
{
    const std::vector<std::byte>& state = thread.extendedState;
    const uint64_t stateAt = (top - state.size() - kPrivateBytes) & ~uint64_t{63}; // xrstor needs it so
    const uint64_t frameAt = ((stateAt - sizeof(Frame64)) & ~uint64_t{15}) - 8; // as after a call instruction
    Frame64 frame{};
    frame.returnAddress = signalReturn;
    frame.flags = kHasExtendedState | kHasStackSegment | kStrictStackSegment;
    frame.stackMode = kNoAlternativeStack;
    fillContext(frame.context, restarted(thread));
    frame.context.fpstate = stateAt;
    frame.signalMask = thread.signalMask;

    SignalFrame made;
    made.address = made.stackPointer = frameAt;
    made.bytes.resize(stateAt - frameAt + state.size() + FP_XSTATE_MAGIC2_SIZE);
    std::memcpy(made.bytes.data(), &frame, sizeof frame);
    layExtendedState(state, made.bytes.data() + (stateAt - frameAt));
    return made;
}

SignalFrame makeFrame32(const SavedThread& thread, uint64_t top, uint64_t signalReturn,
                        const std::vector<uint64_t>& arguments)
{
    const std::vector<std::byte>& state = thread.extendedState;
    const uint64_t stateAt = (top - state.size() - kPrivateBytes) & ~uint64_t{63};
    const uint64_t oldAt = stateAt - sizeof(OldFloatingPoint);
    const uint64_t frameAt = ((oldAt - sizeof(Frame32)) & ~uint64_t{15}) - 4;
    Frame32 frame{};
    frame.returnAddress = static_cast<uint32_t>(signalReturn);
    for (size_t i = 0; i < std::min<size_t>(arguments.size(), 3); ++i)
        frame.arguments[i] = static_cast<uint32_t>(arguments[i]);
    frame.flags = kHasExtendedState;
    frame.stackMode = kNoAlternativeStack;
    fillContext(frame.context, restarted(thread));
    std::memcpy(frame.signalMask, &thread.signalMask, sizeof frame.signalMask);

    SignalFrame made;
    made.address = made.stackPointer = frameAt;
    made.bytes.resize(stateAt - frameAt + state.size() + FP_XSTATE_MAGIC2_SIZE);
    if (state.size() >= kFixedBytes) {
        frame.context.fpstate = static_cast<uint32_t>(oldAt);
        const OldFloatingPoint old = oldFloatingPoint(state);
        std::memcpy(made.bytes.data() + (oldAt - frameAt), &old, sizeof old);
        layExtendedState(state, made.bytes.data() + (stateAt - frameAt));
    }
    std::memcpy(made.bytes.data(), &frame, sizeof frame);
    return made;
}

} // namespace

SignalFrame makeSignalFrame(const SavedThread& thread, uint64_t top, uint64_t signalReturn,
                            const std::vector<uint64_t>& arguments)
{
    return thread.is32Bit ? makeFrame32(thread, top, signalReturn, arguments) : makeFrame64(thread, top, signalReturn);
}

} // namespace vnt
