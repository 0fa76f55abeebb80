// What processes have mapped, seen through /proc (proc(5)).

#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/base/sys.h"
#include "services/common/ProcFs.h"

namespace vnt::procfs {
namespace {

constexpr size_t kMaxPerfMapBytes = 16u << 20;
constexpr size_t kHeaderBytes = 4096; // notes stand right behind the program headers

std::string processPath(pid_t pid) { return "/proc/" + std::to_string(pid); }

/// The process's number in the innermost namespace it is in, and its user.
struct Identity {
    pid_t innerPid = 0;
    uid_t user = 0;
};
bool readIdentity(pid_t pid, Identity& identity)
{
    const auto status = sys::readFile(processPath(pid) + "/status", 65536);
    if (!status.ok())
        return false;
    const std::string& text = status.value();
    const size_t numbers = text.find("\nNSpid:");
    const size_t users = text.find("\nUid:");
    if (users == std::string::npos || std::sscanf(text.c_str() + users, "\nUid: %u", &identity.user) != 1)
        return false;
    identity.innerPid = pid;
    if (numbers == std::string::npos)
        return true;
    const size_t end = std::min(text.find('\n', numbers + 1), text.size());
    const size_t last = text.find_last_of(" \t", end - 1);
    return std::sscanf(text.c_str() + last, "%d", &identity.innerPid) == 1;
}

template <typename Header, typename Segment> std::string buildIdInHeader(const std::string& bytes)
{
    Header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    for (size_t i = 0; i < header.e_phnum; ++i) {
        Segment segment;
        const size_t at = static_cast<size_t>(header.e_phoff) + i * sizeof segment;
        if (header.e_phoff > bytes.size() || at + sizeof segment > bytes.size())
            break;
        std::memcpy(&segment, bytes.data() + at, sizeof segment);
        if (segment.p_type != PT_NOTE || segment.p_offset > bytes.size()
            || segment.p_filesz > bytes.size() - segment.p_offset)
            continue;
        const std::string id =
            buildIdInNotes(bytes.substr(static_cast<size_t>(segment.p_offset), static_cast<size_t>(segment.p_filesz)));
        if (!id.empty())
            return id;
    }
    return {};
}

} // namespace

std::string buildIdInMemory(pid_t pid, const std::string& path)
{
    const auto start = firstMappingOf(pid, path);
    if (!start.ok())
        return {};
    std::string bytes(kHeaderBytes, '\0');
    const iovec to{bytes.data(), bytes.size()};
    // process_vm_readv(2); the address is only ever used in the other process.
    const iovec from{reinterpret_cast<void*>(static_cast<uintptr_t>(start.value())), bytes.size()};
    if (::process_vm_readv(pid, &to, 1, &from, 1, 0) != static_cast<ssize_t>(bytes.size())
        || bytes.compare(0, SELFMAG, ELFMAG) != 0)
        return {};
    return bytes[EI_CLASS] == ELFCLASS64 ? buildIdInHeader<Elf64_Ehdr, Elf64_Phdr>(bytes)
                                         : buildIdInHeader<Elf32_Ehdr, Elf32_Phdr>(bytes);
}

std::string perfMapOf(pid_t pid)
{
    Identity identity;
    if (!readIdentity(pid, identity))
        return {};
    // No link is followed: it could name a file of anybody's, which we may be able to read.
    const auto file = sys::openFile(processPath(pid) + "/root/tmp/perf-" + std::to_string(identity.innerPid) + ".map",
                                    O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY);
    if (!file.ok())
        return {};
    const auto info = sys::statFd(file.value().get());
    if (!info.ok() || !S_ISREG(info.value().st_mode) || info.value().st_uid != identity.user)
        return {};
    std::string text(std::min<size_t>(static_cast<size_t>(info.value().st_size), kMaxPerfMapBytes), '\0');
    const auto read = sys::readSome(file.value().get(), text.data(), text.size());
    text.resize(read.ok() ? read.value() : 0);
    return text;
}

} // namespace vnt::procfs
