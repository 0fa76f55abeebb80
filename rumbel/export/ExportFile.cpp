#include "rumbel/export/ExportFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "platform/base/sys.h"

namespace vnt {

namespace {

constexpr mode_t kMode = 0600; // what was recorded is its owner's

std::string directoryOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

} // namespace

Result<ExportFile> ExportFile::create(const std::string& path)
{
    const auto existing = sys::statFile(path);
    if (existing.ok() && !S_ISREG(existing.value().st_mode)) {
        ASSIGN_OR_RETURN(UniqueFd fd, sys::openFile(path, O_WRONLY | O_NOCTTY));
        return ExportFile(std::move(fd), path, Form::kInPlace, "");
    }
    std::string temporary = path + "." + sys::randomHex(8);
    // Without a name nothing is left behind, however the program ends. Not every file system can.
    auto nameless = sys::openFile(directoryOf(path), O_TMPFILE | O_WRONLY, kMode);
    if (nameless.ok())
        return ExportFile(nameless.take(), path, Form::kNameless, std::move(temporary));
    ASSIGN_OR_RETURN(UniqueFd fd, sys::openFile(temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW, kMode));
    return ExportFile(std::move(fd), path, Form::kNamed, std::move(temporary));
}

ExportFile::~ExportFile()
{
    if (_form == Form::kNamed)
        (void)::unlink(_temporary.c_str()); // nothing to do about a failure
}

Status ExportFile::keep()
{
    if (_form == Form::kInPlace)
        return {};
    if (_form == Form::kNameless) {
        const std::string self = "/proc/self/fd/" + std::to_string(_fd.get()); // as open(2) says of O_TMPFILE
        if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, _temporary.c_str(), AT_SYMLINK_FOLLOW) != 0)
            return Status::fromErrno(errno, _temporary);
        _form = Form::kNamed;
    }
    if (::rename(_temporary.c_str(), _path.c_str()) != 0)
        return Status::fromErrno(errno, _path);
    _form = Form::kInPlace;
    return {};
}

} // namespace vnt
