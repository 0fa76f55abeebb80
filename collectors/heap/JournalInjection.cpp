#include "collectors/heap/JournalInjection.h"

#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "collectors/heap/JournalFile.h"
#include "collectors/inject/Injection.h"
#include "platform/base/sys.h"
#include "records/HeapJournal.h"

namespace vnt {
namespace {

constexpr std::string_view kLibrary = "libVntHeapJournal.so";
/// More than two beats of a collector that lives (journal::Shared::beat).
constexpr std::chrono::milliseconds kDeadAfter{700};
constexpr int kTriesForStraying = 20;
constexpr std::chrono::milliseconds kBetweenTries{25};
constexpr int32_t kLargestErrno = 1000; // journal::AttachError lies below its negative
constexpr uint64_t kThreadLocalBytes = 64 << 10; // of which errno is somewhere

InjectionOptions injectionOptions()
{
    InjectionOptions options;
    options.isGuarded = [](std::string_view name) { return name.find(kLibrary) != std::string_view::npos; };
    return options;
}

const RemoteModule* findJournal(const RemoteProcess& process)
{
    for (const RemoteModule& module : process.modules()) {
        if (module.fileName().find(kLibrary) != std::string_view::npos)
            return &module;
    }
    return nullptr;
}

std::string subject(BorrowedThread& thread) { return "process " + std::to_string(thread.process().pid()); }

Result<const RemoteModule*> libcOf(const RemoteProcess& process)
{
    for (const RemoteModule& module : process.modules()) {
        if (process.function(module, "dlopen").ok() || process.function(module, "__libc_dlopen_mode").ok())
            return &module;
    }
    return Status(Code::kUnsupported, "process " + std::to_string(process.pid()) + " has no dlopen function");
}

/// Calls dlopen(3), or what stands for it in older C libraries.
Status callLoader(BorrowedThread& thread, const std::string& path, uint64_t mode)
{
    constexpr uint64_t kInternalMode = 0x80000000; // __RTLD_DLOPEN, that __libc_dlopen_mode expects
    RemoteProcess& process = thread.process();
    ASSIGN_OR_RETURN(const RemoteModule* libc, libcOf(process));
    auto function = process.function(*libc, "dlopen");
    if (!function.ok()) {
        function = process.function(*libc, "__libc_dlopen_mode");
        mode |= kInternalMode;
    }
    RETURN_IF_ERROR(function.status());
    RETURN_IF_ERROR(process.write(thread.scratch(), path.c_str(), path.size() + 1));
    RETURN_IF_ERROR(thread.call(function.value(), {thread.scratch(), mode}));
    return process.refresh();
}

Status load(BorrowedThread& thread, const std::string& directory)
{
    if (const RemoteModule* journal = findJournal(thread.process())) {
        uint32_t ready = 0;
        const auto place = thread.process().function(*journal, "vntJournalReady");
        if (place.ok() && thread.process().read(place.value(), &ready, sizeof ready).ok() && ready == 1)
            return {};
        // Another thread loads it still, for a recorder that was killed: the loader lets us in when it is done.
        std::string path = journal->path;
        path.resize(path.rfind('/') + 1);
        path += kLibrary;
        return path.size() < BorrowedThread::kScratchBytes ? callLoader(thread, path, RTLD_NOW | RTLD_NOLOAD)
                                                           : Status();
    }
    ASSIGN_OR_RETURN(const JournalFile file, JournalFile::bring(thread, directory));
    const Status loaded = callLoader(thread, file.path(), RTLD_NOW | RTLD_LOCAL);
    file.takeAway(thread);
    RETURN_IF_ERROR(loaded);
    if (findJournal(thread.process()))
        return {};
    return Status(Code::kSystem,
                  subject(thread) + " cannot load the journal: its loader refused " + file.path()
                      + " (it may not be allowed to read it, or has no thread-local memory left)");
}

/// The thread's errno, which loading a library may change. Where it is the journal says later: so all that it may be in
/// is kept, which on this processor lies below the thread's control block.
class SavedErrno {
public:
    explicit SavedErrno(BorrowedThread& thread) : _thread(thread)
    {
        const user_regs_struct& registers = thread.saved().registers;
        const uint64_t control = thread.is32Bit() ? registers.gs_base : registers.fs_base;
        const RemoteProcess::Mapping* mapping = thread.process().mappingAt(control - 1);
        if (!mapping)
            return;
        _begin = std::max(mapping->begin, control - kThreadLocalBytes);
        _bytes.resize(control - _begin);
        if (!thread.process().read(_begin, _bytes.data(), _bytes.size()).ok())
            _bytes.clear();
    }
    void restore(uint64_t place)
    {
        if (place < _begin || place - _begin > _bytes.size() || _bytes.size() - (place - _begin) < sizeof(int))
            return;
        (void)_thread.process().write(place, _bytes.data() + (place - _begin), sizeof(int)); // gone is fine
    }

private:
    BorrowedThread& _thread;
    uint64_t _begin = 0;
    std::vector<std::byte> _bytes;
};

/// The thread was taken out of its call, which so will not end: what it had begun must not keep others waiting.
void endWorkOf(const RemoteProcess& process, uint64_t request)
{
    journal::AttachRequest left{};
    uint32_t worker = 0;
    if (!process.read(request, &left, sizeof left).ok() || left.answered != 0 || left.workPlace == 0
        || !process.read(left.workPlace, &worker, sizeof worker).ok() || worker != left.worker)
        return;
    worker = 0;
    (void)process.write(left.workPlace, &worker, sizeof worker); // gone is fine
}

Status callJournal(BorrowedThread& thread, const char* function, journal::AttachRequest& request)
{
    RemoteProcess& process = thread.process();
    const RemoteModule* library = findJournal(process);
    const auto address = library ? process.function(*library, function)
                                 : Result<uint64_t>(Status(Code::kNotFound, "the journal is not loaded"));
    if (!address.ok())
        return Status(Code::kUnsupported, subject(thread) + " has another version of the journal loaded");
    request.answered = 0;
    request.workPlace = 0;
    RETURN_IF_ERROR(process.write(thread.scratch(), &request, sizeof request));
    const Status called = thread.call(address.value(), {thread.scratch()});
    if (!called.ok() && !thread.goesOn())
        endWorkOf(process, thread.scratch());
    RETURN_IF_ERROR(called);
    RETURN_IF_ERROR(process.read(thread.scratch(), &request, sizeof request));
    return request.answered == 1 ? Status() : Status(Code::kCorrupt, "the journal gave no answer");
}

std::string reasonOf(int32_t result)
{
    switch (result) {
    case journal::kJournalForeign:
        return "has another version of the journal loaded";
    case journal::kJournalBusy:
        return "is being recorded by another session";
    case journal::kJournalNothing:
        return "calls no allocator that can be redirected: its own is linked into it";
    case journal::kJournalStraying:
        return "has a thread that stands still within a record; try again";
    case journal::kJournalAtWork:
        return "has not finished what an earlier recorder began; try again";
    default:
        return "cannot map the journal's memory";
    }
}

Result<std::unique_ptr<JournalReader>> takeMemory(BorrowedThread& thread, int descriptor)
{
    const pid_t pid = thread.process().pid();
    ASSIGN_OR_RETURN(const UniqueFd process, sys::openPidFd(pid));
    UniqueFd memory(static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), descriptor, 0)));
    if (!memory)
        return Status::fromErrno(errno, "taking a descriptor of " + subject(thread));
    return JournalReader::adopt(pid, std::move(memory));
}

Code codeOf(int32_t result)
{
    switch (result) {
    case journal::kJournalBusy:
        return Code::kExists;
    case journal::kJournalStraying:
    case journal::kJournalAtWork:
        return Code::kCancelled;
    default:
        return Code::kUnsupported;
    }
}

/// A thread within a record, or at work for another, is soon out of it, once it is given a processor.
Status untilNobodyStrays(const std::function<Status()>& attempt)
{
    Status status = attempt();
    for (int i = 0; i < kTriesForStraying && status.code() == Code::kCancelled; ++i) {
        std::this_thread::sleep_for(kBetweenTries);
        status = attempt();
    }
    return status;
}

/// The target makes the descriptor, we size and seal it: no socket, no name, nothing that a namespace could hide.
Result<std::unique_ptr<JournalReader>> makeMemory(BorrowedThread& thread, journal::AttachRequest& request)
{
    RETURN_IF_ERROR(callJournal(thread, "vntJournalMemory", request));
    if (request.result < -kLargestErrno)
        return Status(codeOf(request.result), subject(thread) + " " + reasonOf(request.result));
    if (request.result < 0)
        return Status::fromErrno(-request.result, subject(thread) + " cannot make memory");
    request.descriptor = request.result;
    auto reader = takeMemory(thread, request.descriptor);
    if (!reader.ok()) { // what is called to attach closes the descriptor, whatever else it does
        request.magic = 0;
        (void)callJournal(thread, "vntJournalAttach", request);
    }
    return reader;
}

Status attachOn(BorrowedThread& thread, const std::string& directory, journal::AttachRequest& request,
                JournalAttachment& attachment)
{
    SavedErrno saved(thread);
    RETURN_IF_ERROR(load(thread, directory));
    ASSIGN_OR_RETURN(attachment.reader, makeMemory(thread, request));
    saved.restore(request.errorPlace); // the journal itself leaves it alone
    attachment.timeNs = sys::monotonicNs();
    RETURN_IF_ERROR(callJournal(thread, "vntJournalAttach", request));
    if (request.result < 0)
        return Status(codeOf(request.result), subject(thread) + " " + reasonOf(request.result));
    attachment.is32Bit = thread.is32Bit();
    attachment.redirected = request.redirected;
    attachment.refused = request.refused;
    attachment.reader->closeMemoryFd();
    return {};
}

Status callInside(pid_t pid, const char* function)
{
    return injectInto(pid, injectionOptions(), [&](BorrowedThread& thread) -> Status {
        journal::AttachRequest request{};
        RETURN_IF_ERROR(callJournal(thread, function, request));
        return request.result < 0 ? Status(codeOf(request.result), subject(thread) + " " + reasonOf(request.result))
                                  : Status();
    });
}

} // namespace

Result<JournalAttachment> JournalInjection::attach(pid_t pid) const
{
    JournalAttachment attachment;
    journal::AttachRequest request{};
    const auto attempt = [&] {
        request.magic = journal::kMagic;
        request.version = journal::kVersion;
        request.eventsMask = _options.eventsMask;
        return injectInto(pid, injectionOptions(), [&](BorrowedThread& thread) {
            return attachOn(thread, _options.directory, request, attachment);
        });
    };
    request.flags = _options.flags;
    Status status = untilNobodyStrays(attempt);
    if (status.code() == Code::kExists) {
        // A collector that was killed left it so; one that lives has moved on when we look again.
        request.deadBeat = request.beat;
        request.flags |= journal::kTakeOver;
        std::this_thread::sleep_for(kDeadAfter);
        status = untilNobodyStrays(attempt);
    }
    RETURN_IF_ERROR(status);
    return attachment;
}

Status JournalInjection::detach(pid_t pid)
{
    return untilNobodyStrays([pid] { return callInside(pid, "vntJournalDetach"); });
}

} // namespace vnt
