#include "collectors/inject/BorrowedThread.h"

#include <signal.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <span>

namespace vnt {
namespace {

using Clock = TracedThread::Clock;

constexpr uint64_t kBelowStack = 256; // beyond the 128 bytes that functions use without moving the stack pointer
/// A function that waits for a lock this long is given up.
constexpr auto kCallDeadline = std::chrono::seconds(5);
/// One that does something else, a slow disk perhaps, is waited for longer.
constexpr auto kLongCallDeadline = std::chrono::seconds(20);
constexpr auto kStopDeadline = std::chrono::seconds(2);
constexpr uint64_t kTrapFlag = 0x100, kDirectionFlag = 0x400; // eflags
constexpr uint64_t kNoSystemCall = ~uint64_t{0};

constexpr uint64_t signalBit(int signal) { return uint64_t{1} << (signal - 1); }
/// What an instruction causes cannot wait; the kernel would kill the process.
constexpr uint64_t kFaults = signalBit(SIGSEGV) | signalBit(SIGBUS) | signalBit(SIGFPE) | signalBit(SIGILL)
    | signalBit(SIGTRAP) | signalBit(SIGSYS);

// <asm/unistd_32.h>
constexpr int kSignalReturn32 = 173, kFutex32 = 240, kFutexTime64 = 422;

bool isFault(int signal) { return signal > 0 && signal < 32 && (signalBit(signal) & kFaults) != 0; }

Status ended() { return Status(Code::kPeerGone, "the process has ended"); }

} // namespace

BorrowedThread::~BorrowedThread()
{
    if (_borrowed && !_goesOn)
        (void)giveBack(); // there is nobody left to tell
}

Status BorrowedThread::borrow()
{
    RETURN_IF_ERROR(_thread.readRegisters(_saved.registers));
    RETURN_IF_ERROR(_thread.readExtendedState(_saved.extendedState));
    RETURN_IF_ERROR(_thread.readSignalMask(_saved.signalMask));
    uint8_t next[2] = {};
    const uint8_t wide[] = {0x0f, 0x05}, narrow[] = {0xcd, 0x80}; // syscall, int $0x80
    (void)_process.read(_saved.registers.rip, next, sizeof next); // code that cannot be read is none of these
    _saved.isAtSystemCall = std::memcmp(next, is32Bit() ? narrow : wide, sizeof next) == 0;
    _saved.timedWait = timedWait();
    _scratch = (_saved.registers.rsp - kBelowStack - kScratchBytes) & ~uint64_t{63};
    _borrowed = true;
    return {};
}

/// The waits that the kernel takes up by restart_syscall(2) keep their arguments in the registers, but not their
/// number: that stands in the instruction that loaded it.
int BorrowedThread::timedWait() const
{
    constexpr int kWaits64[] = {7, 35, 202, 230}; // poll, nanosleep, futex, clock_nanosleep
    constexpr int kWaits32[] = {162, 168, 240, 267, 407, 422}; // the same, and two with 64-bit times
    constexpr size_t kBytesBefore = 32;
    constexpr uint64_t kPushedByVsyscall = 12; // three registers; then the address in the C library
    constexpr uint8_t kMoveToEax = 0xb8;
    uint64_t end = _saved.registers.rip;
    uint32_t narrow = 0;
    if (is32Bit() && _process.read(_saved.registers.rsp + kPushedByVsyscall, &narrow, sizeof narrow).ok())
        end = narrow;
    uint8_t bytes[kBytesBefore];
    if (!_process.read(end - sizeof bytes, bytes, sizeof bytes).ok())
        return -1;
    const std::span<const int> waits = is32Bit() ? std::span<const int>(kWaits32) : std::span<const int>(kWaits64);
    for (size_t at = sizeof bytes - 5; at > 0; --at) {
        int number = 0;
        std::memcpy(&number, bytes + at + 1, sizeof number);
        if (bytes[at] == kMoveToEax && std::find(waits.begin(), waits.end(), number) != waits.end())
            return number;
    }
    return -1;
}

/// Everything is in place for the function's first instruction.
Status BorrowedThread::begin(uint64_t function, const std::vector<uint64_t>& arguments)
{
    const SignalFrame frame = makeSignalFrame(_saved, _scratch, _code.begin, arguments);
    RETURN_IF_ERROR(_process.write(frame.address, frame.bytes.data(), frame.bytes.size()));
    user_regs_struct registers = _saved.registers;
    registers.rip = function;
    registers.rsp = frame.stackPointer;
    registers.rax = 0;
    registers.rbp = 0;
    registers.orig_rax = kNoSystemCall;
    registers.eflags &= ~(kTrapFlag | kDirectionFlag);
    unsigned long long* const places[] = {&registers.rdi, &registers.rsi, &registers.rdx};
    for (size_t i = 0; !is32Bit() && i < arguments.size() && i < 3; ++i)
        *places[i] = arguments[i];
    RETURN_IF_ERROR(_thread.writeRegisters(registers));
    _changed = true;
    return _thread.writeSignalMask(~kFaults); // only now: from here on the frame brings the old one back
}

Status BorrowedThread::call(uint64_t function, const std::vector<uint64_t>& arguments)
{
    RETURN_IF_ERROR(begin(function, arguments));
    const auto signalReturn = static_cast<uint64_t>(is32Bit() ? kSignalReturn32 : SYS_rt_sigreturn);
    Patience patience{Clock::now() + kCallDeadline};
    int signal = 0;
    for (;;) {
        const ThreadStop stop = patience.asking ? _thread.await(Clock::now() + kStopDeadline)
                                                : _thread.runToSystemCall(patience.deadline, signal);
        signal = 0;
        user_regs_struct registers{};
        switch (stop.kind) {
        case ThreadStop::Kind::kEnded:
            _borrowed = false;
            return ended();
        case ThreadStop::Kind::kRuns:
            RETURN_IF_ERROR(askToStop(patience));
            break;
        case ThreadStop::Kind::kSystemCall:
            patience.asking = false; // the stop that was asked for follows
            RETURN_IF_ERROR(_thread.readRegisters(registers));
            if (registers.rip == _code.end && registers.orig_rax == signalReturn)
                return finish();
            break;
        case ThreadStop::Kind::kSignal:
            if (isFault(stop.signal))
                return Status(Code::kSystem, "the call crashed with signal " + std::to_string(stop.signal));
            signal = stop.signal; // one that cannot be blocked
            patience.asking = false;
            break;
        case ThreadStop::Kind::kInterrupted:
            patience.asking = false;
            if (std::exchange(patience.late, false))
                RETURN_IF_ERROR(judgeLate(patience));
            break;
        default:
            patience.asking = false;
        }
    }
}

/// At the entry of rt_sigreturn(2): the call is skipped and stands ahead again. We give the thread back ourselves, as
/// that also takes up waits.
Status BorrowedThread::finish()
{
    user_regs_struct registers{};
    RETURN_IF_ERROR(_thread.readRegisters(registers));
    registers.orig_rax = kNoSystemCall;
    registers.rip = _code.begin;
    RETURN_IF_ERROR(_thread.writeRegisters(registers));
    const ThreadStop stop = _thread.runToSystemCall(Clock::now() + kCallDeadline);
    return stop.kind == ThreadStop::Kind::kSystemCall || stop.kind == ThreadStop::Kind::kInterrupted ? Status()
                                                                                                     : ended();
}

Status BorrowedThread::askToStop(Patience& patience)
{
    if (patience.asking) {
        _goesOn = true; // the kernel frees it when we end
        return Status(Code::kTimedOut, "the call hangs in the kernel; it goes on by itself");
    }
    patience.asking = patience.late = true;
    return _thread.askToStop();
}

/// The function takes long. In a wait for a lock it may be given up, as it holds none that others wait for with us; in
/// anything else it must come to its end.
Status BorrowedThread::judgeLate(Patience& patience)
{
    user_regs_struct registers{};
    RETURN_IF_ERROR(_thread.readRegisters(registers));
    const auto number = static_cast<int64_t>(registers.orig_rax);
    if (is32Bit() ? number == kFutex32 || number == kFutexTime64 : number == SYS_futex)
        return Status(Code::kTimedOut, "a lock that is needed was not free in time");
    if (std::exchange(patience.extended, true)) {
        _goesOn = true;
        _thread.release();
        return Status(Code::kTimedOut, "the call takes too long; it goes on by itself");
    }
    patience.deadline = Clock::now() + kLongCallDeadline;
    return {};
}

Status BorrowedThread::giveBack()
{
    if (_goesOn || !_borrowed)
        return {};
    _borrowed = false;
    if (_changed) {
        RETURN_IF_ERROR(_thread.writeExtendedState(_saved.extendedState));
        RETURN_IF_ERROR(_thread.writeSignalMask(_saved.signalMask));
        RETURN_IF_ERROR(_thread.writeRegisters(_saved.registers)); // last: until here the frame does it, too
        // Only on the way through the kernel's handling of signals is a wait taken up that our stop interrupted.
        RETURN_IF_ERROR(_thread.interruptAndContinue(Clock::now() + kStopDeadline));
    }
    _thread.release();
    return {};
}

} // namespace vnt
