#include "platform/messagequeue/SpoolFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/sendfile.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/messagequeue/MessageStream.h"

namespace vnt {
namespace {

constexpr size_t kLossMarkOffset = 16; // behind the file header
/// Most that one copy call is asked for; sendfile(2) stops a little below 2 GiB anyway.
constexpr size_t kCopyBytes = size_t{1} << 30;

/// A name that is safe in a directory, whatever the service is called.
std::string nameFor(const std::string& identifier)
{
    std::string name = identifier.substr(0, 100);
    for (char& c : name) {
        const bool plain =
            (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' || c == '-';
        c = plain ? c : '_';
    }
    return std::to_string(::getpid()) + "." + name + "." + sys::randomHex(4);
}

struct LossFrame {
    MessageStreamFrameHeader header;
    uint64_t count;
};
static_assert(sizeof(LossFrame) == 24);

LossFrame lossFrame(uint64_t count)
{
    return {messageStreamFrameHeader(std::as_bytes(std::span(&count, 1)), kMessageStreamDropped), count};
}

/// The process's umask, read without changing it: umask(2) could only set it, for every thread.
mode_t currentUmask()
{
    constexpr mode_t kUsual = 022;
    const auto status = sys::readFile("/proc/self/status", 65536); // proc(5), field "Umask"
    if (!status.ok())
        return kUsual;
    const size_t at = status.value().find("\nUmask:");
    return at == std::string::npos ? kUsual
                                   : static_cast<mode_t>(std::strtoul(status.value().c_str() + at + 7, nullptr, 8));
}

/// copy_file_range(2) where both files are of one kind, else sendfile(2).
ssize_t copySome(int from, int to, off_t& offset, bool& cloning)
{
    if (cloning) {
        off_t in = offset;
        off_t out = offset;
        const ssize_t copied = ::copy_file_range(from, &in, to, &out, kCopyBytes, 0);
        if (copied > 0)
            offset += copied;
        if (copied >= 0 || (errno != EXDEV && errno != EINVAL && errno != ENOSYS && errno != EOPNOTSUPP))
            return copied;
        cloning = false;
        if (::lseek(to, offset, SEEK_SET) < 0)
            return -1;
    }
    return ::sendfile(to, from, &offset, kCopyBytes);
}

} // namespace

Result<std::string> SpoolFile::directory()
{
    ASSIGN_OR_RETURN(const std::string state, stateDirectory());
    const std::string path = state + "/spool";
    RETURN_IF_ERROR(sys::makeDirectories(path, 0700));
    return path;
}

Result<SpoolFile> SpoolFile::create(const std::string& identifier)
{
    ASSIGN_OR_RETURN(const std::string parent, directory());
    const std::string name = parent + "/" + nameFor(identifier);
    const std::string unfinished = name + ".new";
    ASSIGN_OR_RETURN(UniqueFd fd, sys::openFile(unfinished, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW, 0600));
    SpoolFile file(std::move(fd), unfinished);
    if (::flock(file._file.get(), LOCK_EX | LOCK_NB) != 0)
        return Status::fromErrno(errno, "flock " + unfinished);
    const auto header = messageStreamFileHeader();
    const LossFrame mark = lossFrame(0);
    size_t written = 0;
    RETURN_IF_ERROR(file.writeAtEnd(header.data(), header.size(), written));
    RETURN_IF_ERROR(file.writeAtEnd(&mark, sizeof mark, written));
    // Only a locked file gets the name that a search for crashed recordings looks for.
    if (::rename(unfinished.c_str(), (name + ".spool").c_str()) != 0)
        return Status::fromErrno(errno, name);
    file._path = name + ".spool";
    return file;
}

SpoolFile::SpoolFile(SpoolFile&& other) noexcept
    : _file(std::move(other._file)),
      _path(std::exchange(other._path, {})),
      _sizeBytes(other._sizeBytes)
{
}

SpoolFile::~SpoolFile()
{
    if (!_path.empty())
        (void)::unlink(_path.c_str()); // gone already is fine
}

/// Writes at the end; on failure `written` bytes are there, which the caller keeps or cuts off.
Status SpoolFile::writeAtEnd(const void* data, size_t size, size_t& written)
{
    written = 0;
    while (written < size) {
        const ssize_t count = ::pwrite(_file.get(), static_cast<const std::byte*>(data) + written, size - written,
                                       static_cast<off_t>(_sizeBytes + written));
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            return Status::fromErrno(count < 0 ? errno : ENOSPC, "the spool cannot grow");
        written += static_cast<size_t>(count);
    }
    _sizeBytes += size;
    return {};
}

std::pair<uint64_t, Status> SpoolFile::append(std::span<const std::byte> frames)
{
    size_t written = 0;
    Status status = writeAtEnd(frames.data(), frames.size(), written);
    const bool all = status.ok();
    const size_t limit = all ? frames.size() : written;
    uint64_t count = 0;
    size_t whole = 0;
    while (whole < limit) {
        MessageStreamFrameHeader header; // ours: the caller made it from a checked frame
        if (limit - whole < sizeof header)
            break;
        std::memcpy(&header, frames.data() + whole, sizeof header);
        if (limit - whole < sizeof header + header.payloadBytes)
            break;
        whole += sizeof header + header.payloadBytes;
        ++count;
    }
    if (!all) {
        _sizeBytes += whole;
        (void)::ftruncate(_file.get(), static_cast<off_t>(_sizeBytes)); // else a reader sees a torn last frame
    }
    return {count, std::move(status)};
}

Status SpoolFile::appendDropped(uint64_t count)
{
    const LossFrame frame = lossFrame(count);
    return append(std::as_bytes(std::span(&frame, 1))).second;
}

void SpoolFile::setLossMark(uint64_t count)
{
    const LossFrame mark = lossFrame(count);
    (void)::pwrite(_file.get(), &mark, sizeof mark, kLossMarkOffset); // the count is also kept in memory
}

Status SpoolFile::moveTo(const std::string& path)
{
    if (::rename(_path.c_str(), path.c_str()) == 0) {
        (void)::fchmod(_file.get(), 0666 & ~currentUmask()); // only the owner could read it otherwise
        _path.clear();
        return {};
    }
    if (errno != EXDEV)
        return Status::fromErrno(errno, path);
    RETURN_IF_ERROR(copyTo(path));
    (void)::unlink(_path.c_str());
    _path.clear();
    return {};
}

Status SpoolFile::copyTo(const std::string& path) const
{
    const std::string temporary = path + "." + sys::randomHex(8);
    ASSIGN_OR_RETURN(const UniqueFd target, sys::openFile(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, 0666));
    Status status;
    bool cloning = true;
    for (off_t offset = 0; static_cast<uint64_t>(offset) < _sizeBytes && status.ok();) {
        const ssize_t copied = copySome(_file.get(), target.get(), offset, cloning);
        if (copied < 0 && errno != EINTR)
            status = Status::fromErrno(errno, path);
        else if (copied == 0)
            status = Status(Code::kCorrupt, path + ": the spool is shorter than what was written to it");
    }
    if (status.ok() && ::rename(temporary.c_str(), path.c_str()) != 0)
        status = Status::fromErrno(errno, path);
    if (!status.ok())
        (void)::unlink(temporary.c_str()); // the first failure is the one to report
    return status;
}

} // namespace vnt
