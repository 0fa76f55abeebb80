#include "rumbel/record/OutputPlace.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>

namespace vnt::rumbel {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kExtension = ".vnt";
constexpr uint64_t kLeastFreeBytes = 16u << 20; // a few seconds of everything

std::string defaultName(const std::string& target)
{
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    ::localtime_r(&now, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    return (target.empty() ? std::string("recording") : target) + "-" + stamp;
}

bool looksLikeBundle(const fs::path& path)
{
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(path, error)) {
        if (!entry.path().filename().string().starts_with("quillon.vnt."))
            return false;
    }
    return !error;
}

/// Makes a file and removes it again: the only answer that counts quotas, read-only mounts and access lists.
std::string tryWriting(const fs::path& directory)
{
    std::string name = (directory / ".rumbel-XXXXXX").string();
    const int fd = ::mkstemp(name.data());
    if (fd < 0)
        return directory.string() + ": " + std::strerror(errno);
    ::close(fd);
    ::unlink(name.c_str());
    struct statvfs room { };
    if (::statvfs(directory.c_str(), &room) == 0 && uint64_t{room.f_bavail} * room.f_frsize < kLeastFreeBytes)
        return directory.string() + ": no space left on device";
    return {};
}

} // namespace

OutputPlace prepareOutput(const std::string& output, const std::string& target)
{
    OutputPlace place;
    place.path = output.empty() ? defaultName(target) : output;
    while (place.path.size() > 1 && place.path.back() == '/')
        place.path.pop_back();
    if (place.path.size() > kExtension.size() && place.path.ends_with(kExtension))
        place.path.resize(place.path.size() - kExtension.size());
    const fs::path bundle(place.path + std::string(kExtension));
    const fs::path directory = bundle.has_parent_path() ? bundle.parent_path() : fs::path(".");
    std::error_code error;
    fs::create_directories(directory, error);
    if (error) {
        place.error = directory.string() + ": " + error.message();
        return place;
    }
    place.error = tryWriting(directory);
    if (!place.error.empty() || !fs::exists(fs::symlink_status(bundle, error)))
        return place;
    if (!fs::is_directory(bundle, error) || !looksLikeBundle(bundle)) {
        place.error = bundle.string() + ": exists and is no bundle";
        return place;
    }
    const fs::path old = bundle.string() + ".old";
    if (fs::is_directory(old, error) && looksLikeBundle(old))
        fs::remove_all(old, error);
    fs::rename(bundle, old, error);
    if (error)
        place.error = bundle.string() + ": " + error.message();
    return place;
}

bool isIncomplete(const std::string& path)
{
    constexpr std::string_view kStreamExtension = ".messagequeue";
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(path + std::string(kExtension), error)) {
        const std::string stream = entry.path().string();
        if (!stream.ends_with(kStreamExtension))
            continue;
        const auto size = fs::file_size(stream.substr(0, stream.size() - kStreamExtension.size()), error);
        if (error || size == 0)
            return true;
    }
    return false;
}

bool removeIfEmpty(const std::string& path)
{
    std::error_code error;
    const fs::path bundle(path + std::string(kExtension));
    if (!fs::is_directory(bundle, error))
        return true;
    if (!fs::is_empty(bundle, error))
        return false;
    fs::remove(bundle, error);
    return true;
}

} // namespace vnt::rumbel
