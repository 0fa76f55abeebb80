#include <sys/stat.h>

#include <filesystem>

#include "platform/base/sys.h"
#include "platform/foundation/Files.h"
#include "platform/foundation/PropertyList.h"
#include "platform/process/SuspendedStart.h"

namespace vnt {
namespace {

constexpr size_t kMaxInfoBytes = size_t{16} << 20;

/// The executable's name, or empty. A name that leads out of the bundle is none.
std::string executableNamedBy(const std::string& infoPath)
{
    const auto text = sys::readFile(infoPath, kMaxInfoBytes);
    if (!text.ok())
        return {};
    const auto list = readPropertyList(std::as_bytes(std::span(text.value())));
    const Ref<Dictionary> info = list.ok() ? as<Dictionary>(list.value()) : nullptr;
    const Ref<String> name = info ? info->get<String>("CFBundleExecutable") : nullptr;
    if (!name || name->str().find_first_of(std::string_view("/\0", 2)) != std::string::npos || *name == "."
        || *name == "..")
        return {};
    return name->str();
}

bool isRegularFile(const std::string& path)
{
    const auto info = sys::statFile(path);
    return info.ok() && S_ISREG(info.value().st_mode);
}

} // namespace

Result<std::string> bundleExecutablePath(const std::string& bundlePath)
{
    std::error_code error;
    const std::string root = std::filesystem::absolute(bundlePath, error).lexically_normal().string();
    if (bundlePath.empty() || error)
        return Status(Code::kNotFound, bundlePath + ": no such bundle");
    const std::string base = root.ends_with('/') ? root : root + "/";
    for (const char* info : {"Contents/Info.plist", "Info.plist"}) {
        const std::string name = executableNamedBy(base + info);
        if (name.empty())
            continue;
        for (const char* folder : {"Contents/MacOS/", "MacOS/", ""}) {
            std::string path = base + folder + name;
            if (isRegularFile(path))
                return path;
        }
    }
    return Status(Code::kNotFound, bundlePath + ": no Info.plist that names an executable of the bundle");
}

} // namespace vnt
