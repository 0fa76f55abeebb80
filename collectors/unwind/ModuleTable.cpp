#include "collectors/unwind/ModuleTable.h"

#include <sys/uio.h>
#include <unistd.h>

#include "collectors/common/codeMappings.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxVdsoBytes = 64u << 10; // two to four pages today
constexpr size_t kMaxModules = 65536;

} // namespace

ModuleTable::Number ModuleTable::open(pid_t pid, uint64_t start, uint64_t sizeBytes, const std::string& path)
{
    if (path == "[vdso]")
        return openVdso(pid, start, sizeBytes);
    if (!path.starts_with('/'))
        return kNone;
    auto file = procfs::openMapped(pid, start, sizeBytes, path);
    if (!file.ok() && !path.ends_with(" (deleted)")) // the process may have ended
        file = procfs::openMapped(::getpid(), 0, 0, path);
    const auto info = file.ok() ? sys::statFd(file.value().get()) : Result<struct stat>(file.status());
    if (!info.ok())
        return kNone;
    const struct stat& at = info.value();
    const Key key(at.st_dev, at.st_ino, at.st_mtim.tv_sec, at.st_mtim.tv_nsec);
    const auto known = _numbers.find(key);
    if (known != _numbers.end() && (known->second == kNone || _slots[known->second].frames))
        return known->second;
    return keep(key, ModuleFrames::read(file.value()));
}

ModuleTable::Number ModuleTable::keep(const Key& key, Result<ModuleFrames> read)
{
    if (!read.ok()) {
        if (_numbers.size() < kMaxModules)
            _numbers[key] = kNone;
        return kNone;
    }
    makeRoom(read.value().sizeBytes());
    auto frames = std::make_unique<ModuleFrames>(read.take());
    const auto known = _numbers.find(key);
    if (known == _numbers.end() && _slots.size() >= kMaxModules)
        return kNone;
    const Number number = known == _numbers.end() ? static_cast<Number>(_slots.size()) : known->second;
    if (number == _slots.size())
        _slots.emplace_back();
    _numbers[key] = number;
    _heldBytes += frames->sizeBytes();
    _slots[number] = {std::move(frames), ++_uses};
    return number;
}

/// Every process of one width has the same; its bytes are in no file.
ModuleTable::Number ModuleTable::openVdso(pid_t pid, uint64_t start, uint64_t sizeBytes)
{
    if (sizeBytes > kMaxVdsoBytes)
        return kNone;
    std::vector<char> image(static_cast<size_t>(sizeBytes));
    const iovec to{image.data(), image.size()};
    // process_vm_readv(2); the address is only ever used in the other process.
    const iovec from{reinterpret_cast<void*>(static_cast<uintptr_t>(start)), image.size()};
    if (::process_vm_readv(pid, &to, 1, &from, 1, 0) != static_cast<ssize_t>(image.size()))
        return kNone;
    const auto known = _vdsos.find(image);
    if (known != _vdsos.end())
        return known->second;
    constexpr size_t kMaxVdsos = 16; // one for each width; a program may have put anything in its place
    auto read = ModuleFrames::fromImage(image);
    if (!read.ok() || _vdsos.size() >= kMaxVdsos)
        return kNone;
    const auto number = static_cast<Number>(_slots.size());
    _heldBytes += read.value().sizeBytes();
    _slots.push_back({std::make_unique<ModuleFrames>(read.take()), UINT64_MAX}); // small: never makes room
    _vdsos.emplace(std::move(image), number);
    return number;
}

const ModuleFrames* ModuleTable::frames(Number module)
{
    Slot& slot = _slots[module];
    if (slot.lastUse != UINT64_MAX)
        slot.lastUse = ++_uses;
    return slot.frames.get();
}

void ModuleTable::makeRoom(size_t bytes)
{
    while (_heldBytes + bytes > kMaxBytes) {
        Slot* oldest = nullptr;
        for (Slot& slot : _slots) {
            if (slot.frames && slot.lastUse != UINT64_MAX && (!oldest || slot.lastUse < oldest->lastUse))
                oldest = &slot;
        }
        if (!oldest)
            return;
        _heldBytes -= oldest->frames->sizeBytes();
        oldest->frames.reset();
    }
}

} // namespace vnt
