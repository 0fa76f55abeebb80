#include <elf.h>
#include <unistd.h>

#include <charconv>
#include <string>

#include "collectors/inject/Injection.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxStatusBytes = 16384;
constexpr size_t kMaxAuxiliaryBytes = 8192;

std::string fieldOf(const std::string& status, std::string_view name)
{
    const std::string wanted = "\n" + std::string(name) + ":";
    size_t at = status.find(wanted);
    if (at == std::string::npos)
        return {};
    at = status.find_first_not_of(" \t", at + wanted.size());
    return at == std::string::npos ? std::string() : status.substr(at, status.find('\n', at) - at);
}

std::string subject(pid_t pid) { return "process " + std::to_string(pid); }

/// The auxiliary vector (getauxval(3)) names the dynamic loader's address; a static program has none.
template <typename Word> bool hasLoader(const std::string& vector)
{
    for (size_t at = 0; at + 2 * sizeof(Word) <= vector.size(); at += 2 * sizeof(Word)) {
        Word entry[2];
        vector.copy(reinterpret_cast<char*>(entry), sizeof entry, at);
        if (entry[0] == AT_BASE)
            return entry[1] != 0;
    }
    return false;
}

bool isDynamic(pid_t pid)
{
    const std::string directory = "/proc/" + std::to_string(pid);
    const auto vector = sys::readFile(directory + "/auxv", kMaxAuxiliaryBytes);
    if (!vector.ok())
        return true; // what forbids to look tells itself later
    unsigned char ident[EI_NIDENT] = {};
    auto file = sys::openFile(directory + "/exe", 0);
    const bool is32Bit =
        file.ok() && sys::readFully(file.value().get(), ident, sizeof ident).ok() && ident[EI_CLASS] == ELFCLASS32;
    return is32Bit ? hasLoader<uint32_t>(vector.value()) : hasLoader<uint64_t>(vector.value());
}

} // namespace

Status whyUnreachable(pid_t pid)
{
    if (pid <= 0)
        return Status(Code::kUnsupported, "only a single process can be attached to");
    if (pid == ::getpid())
        return Status(Code::kUnsupported, subject(pid) + " is the recorder itself");
    const auto text = sys::readFile("/proc/" + std::to_string(pid) + "/status", kMaxStatusBytes);
    if (!text.ok())
        return Status(Code::kNotFound, subject(pid) + " does not run");
    const std::string& status = text.value();
    const std::string state = fieldOf(status, "State");
    if (state.starts_with('Z') || state.starts_with('X'))
        return Status(Code::kNotFound, subject(pid) + " has ended");
    if (const std::string tracer = fieldOf(status, "TracerPid"); !tracer.empty() && tracer != "0")
        return Status(Code::kDenied,
                      subject(pid) + " is traced by process " + tracer + " already, for example by a debugger");
    if (state.starts_with('T') || state.starts_with('t'))
        return Status(Code::kDenied,
                      subject(pid) + " is stopped; let it go on first: kill -CONT " + std::to_string(pid));
    if (const std::string filter = fieldOf(status, "Seccomp"); !filter.empty() && filter != "0")
        return Status(
            Code::kUnsupported,
            subject(pid)
                + " runs behind a filter of system calls (seccomp), which could end it for what attaching calls");
    if (fieldOf(status, "x86_Thread_features").find("shstk") != std::string::npos)
        return Status(Code::kUnsupported, subject(pid) + " runs with a shadow stack, which forbids calls from outside");
    if (!isDynamic(pid))
        return Status(Code::kUnsupported, subject(pid) + " is statically linked: nothing can be loaded into it");
    return {};
}

} // namespace vnt
