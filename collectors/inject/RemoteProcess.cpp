#include "collectors/inject/RemoteProcess.h"

#include <elf.h>
#include <sys/uio.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "collectors/inject/RemoteSymbols.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxMapsBytes = size_t{64} << 20; // 65,530 mappings (vm.max_map_count) of a long line each
constexpr std::string_view kRemoved = " (deleted)"; // proc(5)
constexpr size_t kCodePiece = size_t{1} << 20;

struct MapsLine {
    uint64_t begin = 0;
    uint64_t end = 0;
    uint64_t fileOffset = 0;
    bool executable = false;
    std::string_view path;
};

uint64_t hexadecimal(std::string_view& text, char behind)
{
    uint64_t value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    text.remove_prefix(std::min<size_t>(text.size(), static_cast<size_t>(parsed.ptr - text.data())));
    if (!text.empty() && text.front() == behind)
        text.remove_prefix(1);
    return value;
}

/// "begin-end rwxp offset device inode   path".
MapsLine parseLine(std::string_view text)
{
    MapsLine line;
    line.begin = hexadecimal(text, '-');
    line.end = hexadecimal(text, ' ');
    line.executable = text.size() > 2 && text[2] == 'x';
    text.remove_prefix(std::min<size_t>(text.size(), 5));
    line.fileOffset = hexadecimal(text, ' ');
    for (int column = 0; column < 2; ++column) // device and inode
        text.remove_prefix(std::min(text.size(), std::min(text.find(' '), text.size() - 1) + 1));
    text.remove_prefix(std::min(text.size(), text.find_first_not_of(' ')));
    line.path = text;
    return line;
}

Status errorOf(pid_t pid, const char* what)
{
    return Status::fromErrno(errno, std::string(what) + " the memory of process " + std::to_string(pid));
}

} // namespace

std::string_view RemoteModule::fileName() const
{
    std::string_view name = path;
    if (name.ends_with(kRemoved))
        name.remove_suffix(kRemoved.size());
    return name.substr(name.rfind('/') + 1);
}

Status RemoteProcess::refresh()
{
    ASSIGN_OR_RETURN(const std::string maps, sys::readFile("/proc/" + std::to_string(_pid) + "/maps", kMaxMapsBytes));
    _modules.clear();
    _mappings.clear();
    for (size_t at = 0; at < maps.size();) {
        const size_t end = std::min(maps.find('\n', at), maps.size());
        const MapsLine line = parseLine(std::string_view(maps).substr(at, end - at));
        at = end + 1;
        if (line.end <= line.begin)
            continue;
        _mappings.push_back({line.begin, line.end, line.path == "[stack]"});
        if (line.path.empty() || (line.path.front() != '/' && line.path != "[vdso]"))
            continue;
        if (line.fileOffset == 0
            && (_modules.empty() || _modules.back().path != line.path || _modules.back().end != line.begin)) {
            RemoteModule& module = _modules.emplace_back();
            module.path = line.path;
            module.base = line.begin;
        }
        if (_modules.empty() || _modules.back().path != line.path)
            continue;
        _modules.back().end = line.end;
        if (line.executable)
            _modules.back().code.push_back({line.begin, line.end});
    }
    std::erase_if(_modules, [](const RemoteModule& module) { return module.code.empty(); });
    for (RemoteModule& module : _modules) {
        unsigned char ident[EI_NIDENT] = {};
        if (read(module.base, ident, sizeof ident).ok())
            module.is32Bit = ident[EI_CLASS] == ELFCLASS32;
    }
    return _mappings.empty() ? Status(Code::kNotFound, "process " + std::to_string(_pid) + " has ended") : Status();
}

const RemoteModule* RemoteProcess::moduleAt(uint64_t address) const
{
    for (const RemoteModule& module : _modules) {
        for (const RemoteModule::Range& range : module.code) {
            if (address >= range.begin && address < range.end)
                return &module;
        }
    }
    return nullptr;
}

const RemoteProcess::Mapping* RemoteProcess::mappingAt(uint64_t address) const
{
    for (const Mapping& mapping : _mappings) {
        if (address >= mapping.begin && address < mapping.end)
            return &mapping;
    }
    return nullptr;
}

Status RemoteProcess::read(uint64_t address, void* to, size_t size) const
{
    iovec local{to, size};
    iovec remote{reinterpret_cast<void*>(address), size}; // never used as a pointer here
    const ssize_t count = ::process_vm_readv(_pid, &local, 1, &remote, 1, 0);
    if (count < 0)
        return errorOf(_pid, "reading");
    return static_cast<size_t>(count) == size ? Status() : Status(Code::kNotFound, "no such memory in the target");
}

Status RemoteProcess::write(uint64_t address, const void* from, size_t size) const
{
    iovec local{const_cast<void*>(from), size};
    iovec remote{reinterpret_cast<void*>(address), size};
    const ssize_t count = ::process_vm_writev(_pid, &local, 1, &remote, 1, 0);
    if (count < 0)
        return errorOf(_pid, "writing");
    return static_cast<size_t>(count) == size ? Status() : Status(Code::kNotFound, "no such memory in the target");
}

Result<uint64_t> RemoteProcess::function(const RemoteModule& module, std::string_view name) const
{
    return findRemoteFunction(*this, module, name);
}

uint64_t RemoteProcess::findCode(const RemoteModule& module, std::string_view bytes) const
{
    std::string piece;
    for (const RemoteModule::Range& range : module.code) {
        // Pieces overlap, so that nothing is missed between two.
        for (uint64_t at = range.begin; at < range.end; at += kCodePiece) {
            piece.resize(std::min<uint64_t>(range.end - at, kCodePiece + bytes.size()));
            if (!read(at, piece.data(), piece.size()).ok())
                break;
            if (const size_t found = piece.find(bytes); found != std::string::npos)
                return at + found;
        }
    }
    return 0;
}

} // namespace vnt
