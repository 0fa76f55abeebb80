#include "collectors/inject/Injection.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <map>
#include <optional>
#include <thread>

#include "collectors/inject/SafePoint.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

using Clock = TracedThread::Clock;

constexpr auto kStopDeadline = std::chrono::milliseconds(200);
/// How often a thread that runs is looked at; one that does nothing but allocate is outside in one of ten looks.
constexpr int kLooksAtThread = 40;
constexpr uint64_t kStackBytesLookedAt = 256 << 10;
constexpr auto kBetweenRounds = std::chrono::milliseconds(3);
constexpr auto kStartUp = std::chrono::seconds(2); // a program that has just begun has not loaded everything
constexpr uint64_t kCode32 = 0x23; // selector of 32-bit code, __USER32_CS

constexpr std::string_view kReturn64("\x48\xc7\xc0\x0f\x00\x00\x00\x0f\x05", 9); // mov $15, %rax; syscall
constexpr std::string_view kReturn32("\xb8\xad\x00\x00\x00\xcd\x80", 7); // mov $173, %eax; int $0x80
constexpr std::string_view kSystemCall64("\x0f\x05", 2), kSystemCall32("\xcd\x80", 2);

bool isLibc(std::string_view name)
{
    return name == "libc.so.6" || (name.starts_with("libc-2.") && name.ends_with(".so"));
}

bool isPartOfLibc(std::string_view name)
{
    return isLibc(name) || name.starts_with("libpthread") || name.starts_with("libdl");
}

bool isLoader(std::string_view name)
{
    return name.starts_with("ld-linux") || name.starts_with("ld-2.") || name == "ld.so";
}

/// One attempt to get hold of a thread of one process. Lives on the tracing thread.
class Search {
public:
    Search(pid_t pid, const InjectionOptions& options) : _pid(pid), _options(options), _process(pid) { }

    Status run(const std::function<Status(BorrowedThread&)>& work);

private:
    Status look();
    Status findLibc();
    void findSignalReturns();
    void classify();
    [[nodiscard]] std::vector<pid_t> candidates() const;
    std::optional<Status> tryThread(pid_t tid, const std::function<Status(BorrowedThread&)>& work);
    Status refusal(const Status& status) const;
    bool reachSafePoint(TracedThread& thread);
    bool isSafe(TracedThread& thread, user_regs_struct& registers);
    bool lookAgain(TracedThread& thread);
    void mendWait(TracedThread& thread, user_regs_struct& registers) const;
    std::vector<uint64_t> stackOf(const user_regs_struct& registers) const;
    CodeOwner ownerOf(uint64_t address) const;

    const pid_t _pid;
    const InjectionOptions& _options;
    RemoteProcess _process;
    SignalReturn _code;
    std::vector<uint64_t> _signalReturns; ///< of handlers: the same, and the kernel's own for 32-bit programs
    bool _is32Bit = false;
    std::map<uint64_t, CodeOwner> _owners; ///< by the module's base; absent: the program's own
    const char* _why = "it has no thread";
};

std::string subject(pid_t pid) { return "process " + std::to_string(pid); }

Status Search::findLibc()
{
    RETURN_IF_ERROR(_process.refresh());
    for (const RemoteModule& module : _process.modules()) {
        if (!isLibc(module.fileName()))
            continue;
        _is32Bit = module.is32Bit;
        const std::string_view bytes = _is32Bit ? kReturn32 : kReturn64;
        _code.begin = _process.findCode(module, bytes);
        _code.end = _code.begin + bytes.size();
        if (_code.begin != 0) {
            findSignalReturns();
            return {};
        }
    }
    return Status(Code::kUnsupported, subject(_pid) + " does not use the GNU C library");
}

void Search::findSignalReturns()
{
    _signalReturns = {_code.begin};
    for (const RemoteModule& module : _process.modules()) {
        if (module.path != "[vdso]")
            continue;
        for (const char* name : {"__kernel_sigreturn", "__kernel_rt_sigreturn"}) { // vdso(7)
            if (const auto address = _process.function(module, name); address.ok())
                _signalReturns.push_back(address.value());
        }
    }
}

Status Search::look()
{
    RETURN_IF_ERROR(whyUnreachable(_pid));
    const auto deadline = Clock::now() + kStartUp;
    Status found = findLibc();
    while (found.code() == Code::kUnsupported && Clock::now() < deadline) {
        std::this_thread::sleep_for(kBetweenRounds);
        found = findLibc();
    }
    if (found.code() == Code::kDenied)
        return refusal(found);
    return found;
}

void Search::classify()
{
    _owners.clear();
    for (const RemoteModule& module : _process.modules()) {
        const std::string_view name = module.fileName();
        if (isPartOfLibc(name))
            _owners[module.base] = CodeOwner::kLibc;
        else if (module.path == "[vdso]")
            _owners[module.base] = CodeOwner::kKernel;
        else if (isLoader(name) || (_options.isGuarded && _options.isGuarded(name))
                 || _process.function(module, "malloc").ok())
            _owners[module.base] = CodeOwner::kGuarded;
    }
}

CodeOwner Search::ownerOf(uint64_t address) const
{
    const RemoteModule* module = _process.moduleAt(address);
    const auto found = module ? _owners.find(module->base) : _owners.end();
    return found == _owners.end() ? CodeOwner::kProgram : found->second;
}

/// Threads in long waits first (/proc/PID/task/TID/syscall, proc(5)): they are where they will be met.
std::vector<pid_t> Search::candidates() const
{
    const std::string directory = "/proc/" + std::to_string(_pid) + "/task";
    const auto names = sys::listDirectory(directory);
    std::vector<std::pair<int, pid_t>> ranked;
    for (const std::string& name : names.ok() ? names.value() : std::vector<std::string>()) {
        pid_t tid = 0;
        std::from_chars(name.data(), name.data() + name.size(), tid);
        const auto text = sys::readFile(directory + "/" + name + "/syscall", 512);
        int number = -1;
        unsigned long first = 0, second = 0;
        const bool waits =
            text.ok() && std::sscanf(text.value().c_str(), "%d 0x%lx 0x%lx", &number, &first, &second) == 3;
        ranked.emplace_back(waits && isPatientWait(_is32Bit, number, second) ? 0 : waits ? 2 : 1, tid);
    }
    std::stable_sort(ranked.begin(), ranked.end());
    std::vector<pid_t> tids;
    for (const auto& [rank, tid] : ranked)
        tids.push_back(tid);
    return tids;
}

Status Search::refusal(const Status& status) const
{
    if (status.code() != Code::kDenied)
        return status;
    std::string text = subject(_pid) + " may not be traced (" + status.message() + ")";
    const auto scope = sys::readFile("/proc/sys/kernel/yama/ptrace_scope", 16);
    if (scope.ok() && scope.value().front() != '0')
        text += scope.value().front() == '3'
            ? "; this machine forbids tracing until it is started anew (kernel.yama.ptrace_scope 3)"
            : "; what allows it: sudo sysctl kernel.yama.ptrace_scope=0";
    return Status(Code::kDenied, text);
}

/// Empty when the thread is not on a stack that the C library or the kernel made for it (a coroutine's lies among other
/// data), or when that has no room for what is to be called.
std::vector<uint64_t> Search::stackOf(const user_regs_struct& registers) const
{
    const uint64_t pointer = registers.rsp;
    const RemoteProcess::Mapping* mapping = _process.mappingAt(pointer);
    if (!mapping)
        return {};
    const uint64_t control = _is32Bit ? registers.gs_base : registers.fs_base; // at the upper end of a thread's stack
    const bool own = mapping->isMainStack || (control >= pointer && control < mapping->end);
    const uint64_t room = pointer - mapping->begin;
    if (!own || room < (mapping->isMainStack ? BorrowedThread::kRoomWritten : BorrowedThread::kRoom))
        return {};
    const uint64_t end = std::min(mapping->end, pointer + kStackBytesLookedAt);
    const size_t width = _is32Bit ? 4 : 8;
    std::vector<uint64_t> words((end - pointer) / width);
    if (!_is32Bit)
        return _process.read(pointer, words.data(), words.size() * width).ok() ? words : std::vector<uint64_t>();
    std::vector<uint32_t> narrow(words.size());
    if (!_process.read(pointer, narrow.data(), narrow.size() * width).ok())
        return {};
    std::copy(narrow.begin(), narrow.end(), words.begin());
    return words;
}

bool Search::isSafe(TracedThread& thread, user_regs_struct& registers)
{
    if ((registers.cs == kCode32) != _is32Bit) {
        _why = "its code is of another width than its C library";
        return false;
    }
    StoppedThread stopped;
    stopped.is32Bit = _is32Bit;
    stopped.instruction = registers.rip;
    stopped.systemCall = static_cast<int64_t>(registers.orig_rax);
    stopped.secondArgument = _is32Bit ? registers.rcx : registers.rsi;
    stopped.signalReturns = _signalReturns;
    stopped.inRestartableSequence = thread.inRestartableSequence();
    const std::vector<uint64_t> stack = stackOf(registers);
    stopped.stack = stack;
    const char* why = stack.empty() ? "its stack has no room or is not its own"
                                    : whyUnsafe(stopped, [this](uint64_t address) { return ownerOf(address); });
    if (why)
        _why = why;
    return why == nullptr;
}

/// Certain waits fail with EINTR when a thread is stopped: they are begun anew, as others are by the kernel.
void Search::mendWait(TracedThread& thread, user_regs_struct& registers) const
{
    const auto number = static_cast<int64_t>(registers.orig_rax);
    if (number < 0 || static_cast<int32_t>(registers.rax) != -EINTR || !isBrokenByStop(_is32Bit, number))
        return;
    char bytes[2] = {};
    const std::string_view wanted = _is32Bit ? kSystemCall32 : kSystemCall64;
    if (!_process.read(registers.rip - sizeof bytes, bytes, sizeof bytes).ok()
        || std::string_view(bytes, sizeof bytes) != wanted)
        return;
    registers.rip -= sizeof bytes;
    registers.rax = static_cast<uint64_t>(number);
    registers.orig_rax = ~uint64_t{0};
    (void)thread.writeRegisters(registers); // a thread that is gone needs it no more
}

/// Lets the thread go on for moments of different length until it is met elsewhere.
bool Search::lookAgain(TracedThread& thread)
{
    for (int i = 0; i < kLooksAtThread; ++i) {
        if (!thread.runFor(std::chrono::microseconds(1 + i * 7 % 50), Clock::now() + kStopDeadline).ok())
            return false;
        user_regs_struct registers{};
        if (!thread.readRegisters(registers).ok())
            return false;
        const bool safe = isSafe(thread, registers);
        mendWait(thread, registers);
        if (safe)
            return true;
    }
    return false;
}

bool Search::reachSafePoint(TracedThread& thread)
{
    user_regs_struct registers{};
    if (!thread.readRegisters(registers).ok())
        return false;
    const bool safe = isSafe(thread, registers);
    mendWait(thread, registers);
    const bool waits = static_cast<int64_t>(registers.orig_rax) >= 0;
    return safe || (!waits && lookAgain(thread));
}

/// Nothing: another thread may do.
std::optional<Status> Search::tryThread(pid_t tid, const std::function<Status(BorrowedThread&)>& work)
{
    TracedThread thread(tid);
    if (const Status seized = thread.seize(); !seized.ok())
        return seized.code() == Code::kDenied ? std::optional(refusal(seized)) : std::nullopt;
    const Status stopped = thread.interrupt(Clock::now() + kStopDeadline);
    if (!stopped.ok()) {
        _why = stopped.code() == Code::kDenied ? "it is stopped" : "a thread does not stop";
        return std::nullopt;
    }
    if (!reachSafePoint(thread))
        return std::nullopt;
    BorrowedThread borrowed(_process, thread, _code, _is32Bit);
    const Status ready = borrowed.borrow();
    const Status done = ready.ok() ? work(borrowed) : ready;
    const Status back = borrowed.giveBack();
    return done.ok() && back.code() != Code::kDenied ? back : done;
}

Status Search::run(const std::function<Status(BorrowedThread&)>& work)
{
    RETURN_IF_ERROR(look());
    const auto deadline = Clock::now() + _options.patience;
    do {
        RETURN_IF_ERROR(_process.refresh());
        classify();
        for (const pid_t tid : candidates()) {
            if (auto result = tryThread(tid, work))
                return *result;
            if (Clock::now() > deadline)
                break;
        }
        RETURN_IF_ERROR(whyUnreachable(_pid));
        std::this_thread::sleep_for(kBetweenRounds);
    } while (Clock::now() < deadline);
    return Status(Code::kTimedOut,
                  subject(_pid) + " has no thread at which a library can be loaded safely now (" + _why + ")");
}

} // namespace

Status injectInto(pid_t pid, const InjectionOptions& options, const std::function<Status(BorrowedThread&)>& work)
{
    Status status;
    const sys::SignalBlock block;
    // Tracing belongs to one thread, and what it could not give back is freed by its end.
    std::thread tracer([&] { status = Search(pid, options).run(work); });
    tracer.join();
    return status;
}

} // namespace vnt
