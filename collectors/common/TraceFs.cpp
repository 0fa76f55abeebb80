#include "collectors/common/TraceFs.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr const char* kProbe = "events/header_page"; ///< a file that is always there
constexpr size_t kMaxFileBytes = 256u << 10; // a format file has one page, some have a few

Result<UniqueFd> openBelow(int root, const char* path, int flags)
{
    for (;;) {
        const int fd = ::openat(root, path, flags | O_CLOEXEC);
        if (fd >= 0)
            return UniqueFd(fd);
        if (errno != EINTR)
            return Status::fromErrno(errno, path);
    }
}

/// A mount of our own, attached nowhere (fsopen(2), fsmount(2)).
Result<UniqueFd> mountDetached()
{
    const UniqueFd context(::fsopen("tracefs", FSOPEN_CLOEXEC));
    if (!context)
        return Status::fromErrno(errno, "fsopen(tracefs)");
    if (::fsconfig(context.get(), FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0)
        return Status::fromErrno(errno, "fsconfig(tracefs)");
    UniqueFd mount(::fsmount(context.get(), FSMOUNT_CLOEXEC, MOUNT_ATTR_NOSUID | MOUNT_ATTR_NODEV | MOUNT_ATTR_NOEXEC));
    if (!mount)
        return Status::fromErrno(errno, "fsmount(tracefs)");
    return mount;
}

Status explained(const Status& refusal)
{
    if (refusal.code() == Code::kDenied)
        return Status(Code::kDenied,
                      "kernel events are for root only; run: sudo rumbel record -i kerneltracer ... ("
                          + refusal.message() + ")",
                      refusal.errnoValue());
    if (refusal.errnoValue() == ENODEV)
        return Status(Code::kUnsupported, "this kernel has no trace events (it was built without CONFIG_TRACING)");
    return Status(refusal.code(),
                  "the kernel's trace events cannot be read; run: sudo mount -t tracefs tracefs /sys/kernel/tracing ("
                      + refusal.message() + ")",
                  refusal.errnoValue());
}

Result<UniqueFd> openRoot()
{
    for (const char* place : {"/sys/kernel/tracing", "/sys/kernel/debug/tracing"}) {
        auto root = openBelow(AT_FDCWD, place, O_PATH | O_DIRECTORY);
        if (root.ok() && openBelow(root.value().get(), kProbe, O_RDONLY).ok())
            return root;
    }
    return mountDetached();
}

} // namespace

UniqueFd openTraceFiles()
{
    auto root = openRoot();
    return root.ok() ? root.take() : UniqueFd(); // who opens them later is told why
}

Result<TraceFs> TraceFs::open(int root)
{
    auto opened = root < 0 ? openRoot() : openBelow(root, ".", O_PATH | O_DIRECTORY);
    if (!opened.ok())
        return explained(opened.status());
    auto readable = openBelow(opened.value().get(), kProbe, O_RDONLY);
    if (!readable.ok())
        return explained(readable.status());
    return TraceFs(opened.take());
}

Result<std::string> TraceFs::read(const std::string& path) const
{
    ASSIGN_OR_RETURN(const UniqueFd fd, openBelow(_root.get(), path.c_str(), O_RDONLY));
    std::string text;
    char buffer[4096];
    for (;;) {
        ASSIGN_OR_RETURN(const size_t count, sys::readSome(fd.get(), buffer, sizeof buffer));
        if (count == 0)
            return text;
        if (text.size() + count > kMaxFileBytes)
            return Status(Code::kTooLarge, path + ": too large");
        text.append(buffer, count);
    }
}

} // namespace vnt
