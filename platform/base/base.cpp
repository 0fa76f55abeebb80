#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "platform/base/Check.h"
#include "platform/base/Status.h"
#include "platform/base/UniqueFd.h"

namespace vnt {

void checkFailed(const char* file, int line, const char* message) noexcept
{
    std::fprintf(stderr, "%s:%d: %s\n", file, line, message);
    std::abort();
}

namespace {

Code codeOf(int errnoValue)
{
    switch (errnoValue) {
    case ENOENT:
    case ESRCH:
        return Code::kNotFound;
    case EACCES:
    case EPERM:
        return Code::kDenied;
    case EPIPE:
    case ECONNRESET:
    case ECONNREFUSED:
        return Code::kPeerGone;
    case EEXIST:
    case EADDRINUSE:
        return Code::kExists;
    case ETIMEDOUT:
        return Code::kTimedOut;
    case EINVAL:
        return Code::kInvalid;
    default:
        return Code::kSystem;
    }
}

} // namespace

Status Status::fromErrno(int errnoValue, const std::string& what)
{
    char text[128];
    const char* described = ::strerror_r(errnoValue, text, sizeof text);
    return Status(codeOf(errnoValue), what + ": " + described, errnoValue);
}

void UniqueFd::reset() noexcept
{
    if (_fd < 0)
        return;
    // close(2) is never repeated on EINTR: Linux has already released the descriptor.
    const int result = ::close(std::exchange(_fd, -1));
    VNT_CHECK(result == 0 || errno != EBADF);
}

} // namespace vnt
