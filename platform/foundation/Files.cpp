#include "platform/foundation/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/sys.h"
#include "platform/foundation/PropertyList.h"

namespace vnt {
namespace {

constexpr size_t kMaxDefaultsBytes = size_t{4} << 20; // a list of user settings

std::string_view withoutTrailingSlashes(std::string_view path)
{
    while (path.size() > 1 && path.ends_with('/'))
        path.remove_suffix(1);
    return path;
}

/// $NAME/vantora when $NAME is an absolute path (the base directory rules ignore others), else ~/`fallback`/vantora.
std::string ownDirectory(const char* name, const char* fallback)
{
    const std::string base = sys::environmentOr(name, "");
    return (base.starts_with('/') ? base : homeDirectory() + "/" + fallback) + "/vantora";
}

} // namespace

std::string temporaryDirectory()
{
    const std::string directory = sys::environmentOr("TMPDIR", "/tmp");
    if (!directory.starts_with('/') || !isDirectory(directory))
        return "/tmp";
    return std::string(withoutTrailingSlashes(directory));
}

std::string homeDirectory()
{
    const std::string home = sys::environmentOr("HOME", "");
    if (home.starts_with('/'))
        return home;
    passwd entry{};
    passwd* found = nullptr;
    char buffer[4096];
    if (::getpwuid_r(::getuid(), &entry, buffer, sizeof buffer, &found) == 0 && found && found->pw_dir[0] == '/')
        return found->pw_dir;
    return "/";
}

std::string lastPathComponent(std::string_view path)
{
    path = withoutTrailingSlashes(path);
    const size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos || path.size() == 1 ? path : path.substr(slash + 1));
}

std::string withoutLastPathComponent(std::string_view path)
{
    path = withoutTrailingSlashes(path);
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos)
        return "";
    return std::string(withoutTrailingSlashes(path.substr(0, std::max<size_t>(slash, 1))));
}

std::string withoutPathExtension(std::string_view path)
{
    path = withoutTrailingSlashes(path);
    const size_t slash = path.rfind('/');
    const size_t name = slash == std::string_view::npos ? 0 : slash + 1;
    const size_t dot = path.rfind('.');
    if (dot == std::string_view::npos || dot <= name || dot + 1 == path.size())
        return std::string(path);
    return std::string(path.substr(0, dot));
}

bool fileExists(const std::string& path) { return sys::statFile(path).ok(); }

bool isDirectory(const std::string& path)
{
    const auto info = sys::statFile(path);
    return info.ok() && S_ISDIR(info.value().st_mode);
}

Ref<Error> createDirectory(const std::string& path)
{
    const Status status = path.empty() ? Status::fromErrno(ENOENT, "empty path") : sys::makeDirectories(path, 0777);
    return status.ok() ? nullptr : Error::fromErrno(status.errnoValue(), path);
}

Status createEmptyFile(const std::string& path)
{
    const auto info = sys::statLink(path);
    if (info.ok() && S_ISLNK(info.value().st_mode) && ::unlink(path.c_str()) != 0)
        return Status::fromErrno(errno, path);
    // O_NONBLOCK: opening a FIFO without a reader must fail, not wait.
    const auto fd = sys::openFile(path, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_NONBLOCK, 0666);
    RETURN_IF_ERROR(fd.status());
    const auto opened = sys::statFd(fd.value().get());
    RETURN_IF_ERROR(opened.status());
    if (!S_ISREG(opened.value().st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    return {};
}

Result<std::string> stateDirectory()
{
    const std::string path = ownDirectory("XDG_STATE_HOME", ".local/state");
    RETURN_IF_ERROR(sys::makeDirectories(withoutLastPathComponent(path), 0700));
    if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return Status::fromErrno(errno, path);
    ASSIGN_OR_RETURN(const struct stat info, sys::statLink(path));
    if (!S_ISDIR(info.st_mode) || info.st_uid != ::geteuid())
        return Status(Code::kDenied, path + ": not a directory of this user");
    if ((info.st_mode & 077) != 0 && ::chmod(path.c_str(), 0700) != 0)
        return Status::fromErrno(errno, path);
    return path;
}

bool userDefaultBool(std::string_view key)
{
    const auto text = sys::readFile(ownDirectory("XDG_CONFIG_HOME", ".config") + "/defaults.plist", kMaxDefaultsBytes);
    if (!text.ok())
        return false;
    const auto list = readPropertyList(std::as_bytes(std::span(text.value())));
    const Ref<Dictionary> defaults = list.ok() ? as<Dictionary>(list.value()) : nullptr;
    const Ref<Object> value = defaults ? defaults->get(key) : nullptr;
    if (const Ref<Number> number = as<Number>(value))
        return number->boolValue();
    // Settings written by hand are often texts.
    const Ref<String> string = as<String>(value);
    return string && (*string == "YES" || *string == "yes" || *string == "true" || *string == "1");
}

Ref<MutableDictionary> processEnvironment()
{
    Ref<MutableDictionary> environment = MutableDictionary::create();
    for (char** entry = ::environ; entry && *entry; ++entry) {
        const std::string_view text(*entry);
        const size_t equals = text.find('=', 1); // a name is not empty
        if (equals != std::string_view::npos)
            environment->set(text.substr(0, equals), String::create(text.substr(equals + 1)));
    }
    return environment;
}

std::string programName() { return ::program_invocation_short_name; }

} // namespace vnt
