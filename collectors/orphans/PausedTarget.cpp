#include "collectors/orphans/PausedTarget.h"

#include <elf.h>
#include <sched.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "platform/base/sys.h"

namespace vnt::orphans {
namespace {

/// Threads may keep appearing while others are stopped; each round stops all that are there.
constexpr int kMaxRounds = 64;
/// A thread in an uninterruptible wait cannot stop; it will before it runs user code again. Most such waits are for a
/// lock of the kernel's and short; one for a child of vfork(2) may last. All of them together.
constexpr uint64_t kWaitingDeadlineNs = 300'000'000;
/// One that only waits for a processor stops when it gets one, however busy the machine is.
constexpr uint64_t kRunnableDeadlineNs = 2'000'000'000;
constexpr int kYieldsBeforeSleep = 200;
constexpr size_t kMaxStatusBytes = 16384; // /proc/PID/status
/// The registers of a 32-bit thread as a 64-bit tracer gets them: 17 words (asm/user_32.h, user_regs_struct).
constexpr size_t kRegisters32 = 17;
constexpr size_t kStackPointer32 = 15;
constexpr size_t kGs32 = 10;
constexpr size_t kMaxExtendedBytes = 16384; // XSAVE area; 11 KiB with the largest known features

long traceThread(int request, pid_t tid, void* address, void* data)
{
    return ::ptrace(static_cast<__ptrace_request>(request), tid, address, data);
}

std::string threadFile(pid_t pid, pid_t tid, const char* name)
{
    return "/proc/" + std::to_string(pid) + "/task/" + std::to_string(tid) + "/" + name;
}

/// Value of a line "name:\tNUMBER" of /proc/PID/status; 0 when there is none.
pid_t statusNumber(const std::string& status, const char* name)
{
    const size_t at = status.find(std::string("\n") + name + ":");
    return at == std::string::npos ? 0 : std::atoi(status.c_str() + at + std::strlen(name) + 2);
}

/// The letter of the state in /proc/PID/status; 0 when there is none.
char stateOf(const std::string& status)
{
    const size_t at = status.find("\nState:\t");
    return at == std::string::npos ? '\0' : status[at + 8];
}

/// Why a thread that exists could not be traced; ok when it has ended after all.
Status explainRefusal(pid_t pid, pid_t tid, int error)
{
    const auto status = sys::readFile(threadFile(pid, tid, "status"), kMaxStatusBytes);
    if (!status.ok() || stateOf(status.value()) == 'Z' || stateOf(status.value()) == 'X')
        return {};
    const std::string process = "process " + std::to_string(pid);
    if (const pid_t tracer = statusNumber(status.value(), "TracerPid"); tracer != 0)
        return Status(Code::kDenied,
                      process + " is traced by process " + std::to_string(tracer)
                          + " (a debugger, perhaps), and only one can at a time");
    const Status refused = Status::fromErrno(error, "the kernel refuses to hold " + process + " still");
    return Status(refused.code(),
                  refused.message()
                      + "; it runs with another user's privilege, or kernel.yama.ptrace_scope forbids it");
}

/// Words of `count` bytes at `bytes`, in the target's width.
void appendWords(const std::byte* bytes, size_t count, bool is32Bit, std::vector<uint64_t>& words)
{
    const size_t width = is32Bit ? 4 : 8;
    for (size_t at = 0; at + width <= count; at += width) {
        uint64_t word = 0;
        std::memcpy(&word, bytes + at, width);
        words.push_back(word);
    }
}

/// Base of the thread-local storage that a 32-bit thread's %gs selects.
uint64_t threadPointer32(pid_t tid, uint32_t gs)
{
    struct { // struct user_desc, asm/ldt.h
        uint32_t entry, base, limit, flags;
    } descriptor{};
    constexpr int kGetThreadArea = 25; // PTRACE_GET_THREAD_AREA, asm/ptrace-abi.h
    const auto entry = reinterpret_cast<void*>(static_cast<uintptr_t>(gs >> 3));
    return traceThread(kGetThreadArea, tid, entry, &descriptor) == 0 ? descriptor.base : 0;
}

bool readRegisters(PausedThread& thread)
{
    alignas(8) std::byte general[sizeof(user_regs_struct)] = {};
    iovec part{general, sizeof general};
    if (traceThread(PTRACE_GETREGSET, thread.tid, reinterpret_cast<void*>(NT_PRSTATUS), &part) != 0)
        return false;
    thread.is32Bit = part.iov_len == kRegisters32 * 4;
    if (thread.is32Bit) {
        std::array<uint32_t, kRegisters32> registers{};
        std::memcpy(registers.data(), general, sizeof registers);
        thread.stackPointer = registers[kStackPointer32];
        thread.threadPointer = threadPointer32(thread.tid, registers[kGs32]);
    } else {
        user_regs_struct registers{};
        std::memcpy(&registers, general, sizeof registers);
        thread.stackPointer = registers.rsp;
        thread.threadPointer = registers.fs_base;
    }
    appendWords(general, part.iov_len, thread.is32Bit, thread.words);
    alignas(8) static thread_local std::byte extended[kMaxExtendedBytes];
    part = {extended, sizeof extended};
    if (traceThread(PTRACE_GETREGSET, thread.tid, reinterpret_cast<void*>(NT_X86_XSTATE), &part) == 0)
        appendWords(extended, part.iov_len, thread.is32Bit, thread.words);
    return true;
}

/// Of a thread that would not stop, what /proc/PID/task/TID/syscall says: number, six arguments, stack pointer, place.
void readFromSystemCall(pid_t pid, PausedThread& thread)
{
    const auto text = sys::readFile(threadFile(pid, thread.tid, "syscall"), 512);
    if (!text.ok())
        return;
    const char* at = text.value().c_str();
    char* end = nullptr;
    (void)std::strtoll(at, &end, 10);
    for (;;) {
        at = end;
        const uint64_t word = std::strtoull(at, &end, 16);
        if (end == at)
            break;
        thread.words.push_back(word);
    }
    if (thread.words.size() >= 2)
        thread.stackPointer = thread.words[thread.words.size() - 2];
}

} // namespace

Result<std::unique_ptr<PausedTarget>> PausedTarget::pause(pid_t pid)
{
    std::unique_ptr<PausedTarget> target(new PausedTarget(pid));
    target->_begunNs = sys::monotonicNs();
    RETURN_IF_ERROR(target->seizeAll());
    for (const Held& held : target->_held) {
        if (held.ended)
            continue;
        PausedThread& thread = target->_threads.emplace_back();
        thread.tid = held.tid;
        thread.hasRegisters = held.stopped && readRegisters(thread);
        if (!thread.hasRegisters)
            readFromSystemCall(pid, thread);
    }
    if (target->_threads.empty())
        return Status(Code::kNotFound, "process " + std::to_string(pid) + " has ended");
    return target;
}

PausedTarget::~PausedTarget() { resume(); }

Status PausedTarget::seizeAll()
{
    for (int round = 0; round < kMaxRounds; ++round) {
        const size_t first = _held.size();
        size_t added = 0;
        RETURN_IF_ERROR(seizeNewThreads(added));
        if (added == 0)
            return {};
        awaitStops(first);
    }
    return {};
}

Status PausedTarget::seizeNewThreads(size_t& added)
{
    const auto names = sys::listDirectory("/proc/" + std::to_string(_pid) + "/task");
    if (!names.ok())
        return Status(Code::kNotFound, "process " + std::to_string(_pid) + " has ended");
    for (const std::string& name : names.value()) {
        pid_t tid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), tid).ec != std::errc()
            || std::any_of(_held.begin(), _held.end(), [tid](const Held& held) { return held.tid == tid; }))
            continue;
        if (traceThread(PTRACE_SEIZE, tid, nullptr, nullptr) != 0) {
            if (errno != ESRCH) // else it ended meanwhile
                RETURN_IF_ERROR(explainRefusal(_pid, tid, errno));
            continue;
        }
        (void)traceThread(PTRACE_INTERRUPT, tid, nullptr, nullptr); // fails only when it has ended
        _held.push_back({tid});
        ++added;
    }
    return {};
}

/// Waits until the threads from `first` on have stopped or ended, or the deadline has passed.
void PausedTarget::awaitStops(size_t first)
{
    const uint64_t begunNs = sys::monotonicNs();
    const auto mayStillStop = [&](pid_t tid) {
        const uint64_t waitedNs = sys::monotonicNs() - begunNs;
        if (waitedNs < kWaitingDeadlineNs)
            return true;
        const auto state = sys::readFile(threadFile(_pid, tid, "status"), kMaxStatusBytes);
        return waitedNs < kRunnableDeadlineNs && state.ok() && stateOf(state.value()) != 'D';
    };
    int yields = 0;
    for (size_t i = first; i < _held.size();) {
        Held& held = _held[i];
        int status = 0;
        const pid_t reported = ::waitpid(held.tid, &status, __WALL | WNOHANG);
        if (reported == held.tid && WIFSTOPPED(status)) {
            held.stopped = true;
            held.signal = (status >> 16) == PTRACE_EVENT_STOP ? 0 : WSTOPSIG(status);
        } else if (reported != 0 && (reported > 0 || errno != EINTR)) {
            held.ended = true;
        } else if (mayStillStop(held.tid)) {
            if (++yields < kYieldsBeforeSleep)
                ::sched_yield();
            else
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            continue;
        }
        ++i;
    }
}

void PausedTarget::resume()
{
    for (const Held& held : _held) {
        // One that did not stop in time cannot be let go of before it does: the end of this thread does it.
        if (held.stopped)
            (void)traceThread(PTRACE_DETACH, held.tid, nullptr,
                              reinterpret_cast<void*>(static_cast<uintptr_t>(held.signal)));
    }
    if (!_held.empty())
        _pauseNs = sys::monotonicNs() - _begunNs;
    _held.clear();
}

} // namespace vnt::orphans
