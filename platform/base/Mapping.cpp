#include "platform/base/Mapping.h"

#include <fcntl.h>
#include <sys/mman.h>

#include <cerrno>
#include <string>

#include "platform/base/sys.h"

namespace vnt {

Mapping::~Mapping()
{
    if (_address)
        VNT_CHECK(::munmap(_address, _size) == 0);
}

Result<Mapping> Mapping::ofFile(const std::string& path)
{
    ASSIGN_OR_RETURN(UniqueFd fd, sys::openFile(path, O_RDONLY));
    ASSIGN_OR_RETURN(struct stat info, sys::statFd(fd.get()));
    if (!S_ISREG(info.st_mode))
        return Status(Code::kInvalid, path + ": not a regular file");
    if (info.st_size == 0)
        return Mapping();
    if (static_cast<uint64_t>(info.st_size) > SIZE_MAX)
        return Status(Code::kTooLarge, path + ": too large to map");
    return create(static_cast<size_t>(info.st_size), PROT_READ, MAP_PRIVATE, fd.get(), 0);
}

Result<Mapping> Mapping::create(size_t sizeBytes, int protection, int flags, int fd, off_t offset)
{
    void* address = ::mmap(nullptr, sizeBytes, protection, flags, fd, offset);
    if (address == MAP_FAILED)
        return Status::fromErrno(errno, "mmap of " + std::to_string(sizeBytes) + " bytes");
    return Mapping(address, sizeBytes);
}

} // namespace vnt
