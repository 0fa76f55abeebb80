#include "platform/messagequeue/Spool.h"

#include <fcntl.h>
#include <sys/file.h>

#include <charconv>
#include <string_view>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr std::string_view kSpoolSuffix = ".spool";
constexpr size_t kRandomPartBytes = 1 + 8; // ".xxxxxxxx" between identifier and suffix

/// "<pid>.<identifier>.<8 hex digits>.spool"
std::optional<RecoverableSpool> parsedName(std::string_view name)
{
    RecoverableSpool spool;
    const size_t dot = name.find('.');
    if (!name.ends_with(kSpoolSuffix) || dot == std::string_view::npos
        || name.size() < dot + 1 + kRandomPartBytes + kSpoolSuffix.size())
        return std::nullopt;
    const auto number = std::from_chars(name.data(), name.data() + dot, spool.pid);
    if (number.ec != std::errc() || number.ptr != name.data() + dot)
        return std::nullopt;
    spool.identifier = name.substr(dot + 1, name.size() - dot - 1 - kRandomPartBytes - kSpoolSuffix.size());
    return spool;
}

} // namespace

Status Spool::ensureFile()
{
    if (_stream.file)
        return {};
    ASSIGN_OR_RETURN(SpoolFile file, SpoolFile::create(_identifier));
    _stream.file.emplace(std::move(file));
    return {};
}

void Spool::drop(uint64_t count)
{
    _dropped += count;
    _stream.unrecordedDrops += count;
    if (_stream.file)
        _stream.file->setLossMark(_stream.unrecordedDrops);
}

std::string Spool::append(std::span<const std::byte> frames, uint64_t count)
{
    MutexLock lock(_lock);
    if (_closed)
        return {};
    const bool wasWhole = _dropped == 0;
    Status status = ensureFile();
    if (status.ok() && _stream.unrecordedDrops > 0) {
        status = _stream.file->appendDropped(_stream.unrecordedDrops);
        if (status.ok()) {
            _stream.unrecordedDrops = 0;
            _stream.file->setLossMark(0);
        }
    }
    uint64_t written = 0;
    if (status.ok())
        std::tie(written, status) = _stream.file->append(frames);
    _stream.messages += written;
    if (written == count)
        return {};
    drop(count - written);
    return wasWhole ? status.message() : std::string();
}

uint64_t Spool::messageCount() const
{
    MutexLock lock(_lock);
    return _stream.messages;
}

uint64_t Spool::droppedCount() const
{
    MutexLock lock(_lock);
    return _dropped;
}

Result<uint64_t> Spool::archiveTo(const std::string& path)
{
    Stream taken;
    {
        MutexLock lock(_lock);
        std::swap(taken.messages, _stream.messages);
        std::swap(taken.unrecordedDrops, _stream.unrecordedDrops);
        if (_stream.file)
            taken.file.emplace(std::move(*_stream.file));
        _stream.file.reset();
    }
    if (!taken.file)
        return uint64_t{0};
    if (taken.unrecordedDrops > 0 && taken.file->appendDropped(taken.unrecordedDrops).ok()) {
        taken.unrecordedDrops = 0;
        taken.file->setLossMark(0);
    }
    // Without the lock: a copy may take seconds, and the reader must go on.
    const Status status = taken.file->moveTo(path);
    if (status.ok())
        return taken.messages;
    MutexLock lock(_lock);
    if (_stream.file || _closed) {
        taken.file->keep();
    } else {
        _stream.file.emplace(std::move(*taken.file));
        _stream.messages += taken.messages;
        _stream.unrecordedDrops += taken.unrecordedDrops;
    }
    return status;
}

void Spool::discard()
{
    MutexLock lock(_lock);
    _stream.file.reset();
    _stream.messages = 0;
    _stream.unrecordedDrops = 0;
    _dropped = 0;
}

void Spool::close()
{
    discard();
    MutexLock lock(_lock);
    _closed = true;
    _stream.file.reset();
}

std::vector<RecoverableSpool> recoverableSpools()
{
    std::vector<RecoverableSpool> found;
    const auto directory = SpoolFile::directory();
    if (!directory.ok())
        return found;
    const auto names = sys::listDirectory(directory.value());
    if (!names.ok())
        return found;
    for (const std::string& name : names.value()) {
        auto spool = parsedName(name);
        if (!spool)
            continue;
        spool->path = directory.value() + "/" + name;
        const auto file = sys::openFile(spool->path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
        if (!file.ok() || ::flock(file.value().get(), LOCK_EX | LOCK_NB) != 0)
            continue; // another process's live recording, or removed meanwhile
        const auto info = sys::statFd(file.value().get());
        if (!info.ok() || !S_ISREG(info.value().st_mode))
            continue;
        spool->sizeBytes = static_cast<uint64_t>(info.value().st_size);
        found.push_back(std::move(*spool));
    }
    return found;
}

} // namespace vnt
