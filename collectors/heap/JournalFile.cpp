#include "collectors/heap/JournalFile.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <span>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr std::string_view kLibrary = "libVntHeapJournal.so";
/// What the loader puts for $LIB, by width; each distribution has its own.
constexpr const char* kDirectories64[] = {"lib/x86_64-linux-gnu", "lib64"};
constexpr const char* kDirectories32[] = {"lib32", "lib/i386-linux-gnu", "lib"};
constexpr size_t kMaxLibraryBytes = size_t{16} << 20;
constexpr uint64_t kCloseOnExec = 1; // memfd_create(2)

std::string procOf(BorrowedThread& thread) { return "/proc/" + std::to_string(thread.process().pid()); }
std::string subject(BorrowedThread& thread) { return "process " + std::to_string(thread.process().pid()); }

Result<std::string> installedPath(BorrowedThread& thread, const std::string& directory)
{
    for (const char* place : thread.is32Bit() ? std::span<const char* const>(kDirectories32)
                                              : std::span<const char* const>(kDirectories64)) {
        std::string path = directory + "/" + place + "/" + std::string(kLibrary);
        if (!sys::statFile(path).ok())
            continue;
        if (path.size() >= BorrowedThread::kScratchBytes)
            return Status(Code::kTooLarge, "the path of the journal's library is too long");
        return path;
    }
    return Status(Code::kUnsupported,
                  subject(thread)
                      + (thread.is32Bit() ? " is a 32-bit program, and the journal for such is not installed"
                                          : " cannot be recorded: the journal is not installed"));
}

/// The same file stands under that path in the target's root directory and mount namespace.
bool isSeenBy(BorrowedThread& thread, const std::string& path)
{
    const auto here = sys::statFile(path);
    const auto there = sys::statFile(procOf(thread) + "/root" + path);
    return here.ok() && there.ok() && here.value().st_ino == there.value().st_ino
        && here.value().st_dev == there.value().st_dev;
}

/// A function of the target's C library.
Result<uint64_t> libcFunction(const RemoteProcess& process, std::string_view name)
{
    for (const RemoteModule& module : process.modules()) {
        if (module.fileName() == "libc.so.6" || module.fileName().starts_with("libc-2."))
            return process.function(module, name);
    }
    return Status(Code::kNotFound, "it has no C library");
}

/// The descriptor, and with it the memory, of that name that the target holds; -1: none.
int findMemory(BorrowedThread& thread, const std::string& name)
{
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(procOf(thread) + "/fd", error)) {
        const std::string number = entry.path().filename();
        int descriptor = -1;
        std::from_chars(number.data(), number.data() + number.size(), descriptor);
        if (std::filesystem::read_symlink(entry.path(), error) == "/memfd:" + name + " (deleted)")
            return descriptor;
    }
    return -1;
}

/// Makes it, by a function of the target, and fills it.
Result<int> makeMemory(BorrowedThread& thread, const std::string& path)
{
    ASSIGN_OR_RETURN(const std::string bytes, sys::readFile(path, kMaxLibraryBytes));
    ASSIGN_OR_RETURN(const uint64_t make, libcFunction(thread.process(), "memfd_create"));
    // Its name tells the journal from other modules, and this file from one that an earlier recorder could not finish.
    const std::string name = std::string(kLibrary) + "." + sys::randomHex(8);
    RETURN_IF_ERROR(thread.process().write(thread.scratch(), name.c_str(), name.size() + 1));
    RETURN_IF_ERROR(thread.call(make, {thread.scratch(), kCloseOnExec}));
    const int descriptor = findMemory(thread, name);
    ASSIGN_OR_RETURN(const UniqueFd process, sys::openPidFd(thread.process().pid()));
    const UniqueFd memory(static_cast<int>(::syscall(SYS_pidfd_getfd, process.get(), descriptor, 0)));
    if (!memory)
        return Status::fromErrno(errno, "taking a descriptor of " + subject(thread));
    RETURN_IF_ERROR(sys::writeFully(memory.get(), bytes.data(), bytes.size()));
    return descriptor;
}

} // namespace

Result<JournalFile> JournalFile::bring(BorrowedThread& thread, const std::string& directory)
{
    JournalFile file;
    ASSIGN_OR_RETURN(file._path, installedPath(thread, directory));
    if (isSeenBy(thread, file._path))
        return file;
    std::error_code error;
    const bool hasProc = std::filesystem::is_symlink(procOf(thread) + "/root/proc/self", error);
    const auto made =
        hasProc ? makeMemory(thread, file._path) : Result<int>(Status(Code::kUnsupported, "it has no /proc"));
    if (!made.ok() && thread.goesOn())
        return made.status();
    if (!made.ok())
        return Status(Code::kUnsupported,
                      subject(thread) + " does not see the journal's library (" + file._path
                          + "): it runs in another root directory or container, and cannot be handed it ("
                          + made.status().message() + ")");
    file._descriptor = made.value();
    file._path = "/proc/self/fd/" + std::to_string(file._descriptor);
    return file;
}

void JournalFile::takeAway(BorrowedThread& thread) const
{
    if (_descriptor < 0 || thread.goesOn())
        return;
    if (const auto close = libcFunction(thread.process(), "close"); close.ok())
        (void)thread.call(close.value(), {static_cast<uint64_t>(_descriptor)}); // gone is fine
}

} // namespace vnt
