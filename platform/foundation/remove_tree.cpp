#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"

namespace vnt {
namespace {

/// Deeper trees than this are refused: each level holds a descriptor.
constexpr size_t kMaxLevels = 200;

/// Owner of an open directory stream (opendir(3)).
class Directory {
public:
    explicit Directory(DIR* stream) : _stream(stream) { }
    Directory(Directory&& other) noexcept : _stream(std::exchange(other._stream, nullptr)) { }
    Directory(const Directory&) = delete;
    ~Directory()
    {
        if (_stream)
            ::closedir(_stream);
    }

    /// Opens `name` below `parent`; a symbolic link is not followed.
    static Result<Directory> open(int parent, const std::string& name)
    {
        const int fd = ::openat(parent, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            return Status::fromErrno(errno, name);
        DIR* stream = ::fdopendir(fd);
        if (stream)
            return Directory(stream);
        const int error = errno;
        ::close(fd);
        return Status::fromErrno(error, name);
    }

    [[nodiscard]] int fd() const { return ::dirfd(_stream); }

    /// The next entry's name, empty at the end.
    [[nodiscard]] std::string next()
    {
        while (const dirent* entry = ::readdir(_stream)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..")
                return name;
        }
        return {};
    }

private:
    DIR* _stream;
};

struct Level {
    std::string name;
    Directory directory;
};

/// Removes `name` below `parent` when it is no directory; false when it is one.
Result<bool> removeFile(int parent, const std::string& name)
{
    if (::unlinkat(parent, name.c_str(), 0) == 0)
        return true;
    if (errno == EISDIR || errno == EPERM) // EPERM: unlink(2) of a directory on some file systems
        return false;
    return Status::fromErrno(errno, name);
}

} // namespace

Status removeTree(const std::string& path)
{
    ASSIGN_OR_RETURN(const bool wasFile, removeFile(AT_FDCWD, path));
    if (wasFile)
        return {};
    std::vector<Level> open;
    ASSIGN_OR_RETURN(Directory top, Directory::open(AT_FDCWD, path));
    open.push_back({path, std::move(top)});
    while (!open.empty()) {
        const int parent = open.back().directory.fd();
        const std::string name = open.back().directory.next();
        if (name.empty()) {
            const std::string done = open.back().name;
            open.pop_back();
            const int above = open.empty() ? AT_FDCWD : open.back().directory.fd();
            if (::unlinkat(above, done.c_str(), AT_REMOVEDIR) != 0)
                return Status::fromErrno(errno, path + ": " + done);
            continue;
        }
        ASSIGN_OR_RETURN(const bool removed, removeFile(parent, name));
        if (removed)
            continue;
        if (open.size() >= kMaxLevels)
            return Status(Code::kTooLarge, path + ": more than " + std::to_string(kMaxLevels) + " levels");
        ASSIGN_OR_RETURN(Directory below, Directory::open(parent, name));
        open.push_back({name, std::move(below)});
    }
    return {};
}

} // namespace vnt
