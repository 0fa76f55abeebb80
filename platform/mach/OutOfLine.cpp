#include "platform/mach/OutOfLine.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <unordered_map>

#include "platform/base/Mutex.h"
#include "platform/base/sys.h"

namespace vnt {
namespace {

// TMPFS_MAGIC of <linux/magic.h>. Huge-page memory files are of another file system, and unmapping them by their
// byte size fails.
constexpr unsigned long kTmpfsMagic = 0x01021994;
constexpr int kNeededSeals = F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_WRITE;

struct Regions {
    Mutex mutex;
    std::unordered_map<const void*, Mapping> byAddress VNT_GUARDED_BY(mutex);
};

Regions& regions()
{
    static Regions& instance = *new Regions; // never destroyed: callers may give memory back during exit
    return instance;
}

} // namespace

Result<UniqueFd> makeSealedMemory(std::span<const std::byte> bytes)
{
    UniqueFd fd(::memfd_create("vantora-message", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    if (!fd)
        return Status::fromErrno(errno, "memfd_create");
    RETURN_IF_ERROR(sys::writeFully(fd.get(), bytes.data(), bytes.size()));
    if (::fcntl(fd.get(), F_ADD_SEALS, kNeededSeals | F_SEAL_SEAL) != 0)
        return Status::fromErrno(errno, "F_ADD_SEALS");
    return fd;
}

Result<Mapping> mapSealedMemory(int fd, size_t sizeBytes)
{
    const int seals = ::fcntl(fd, F_GET_SEALS);
    if (seals < 0 || (seals & kNeededSeals) != kNeededSeals)
        return Status(Code::kInvalid, "memory of a message is not sealed");
    struct statfs fileSystem { };
    if (::fstatfs(fd, &fileSystem) != 0 || static_cast<unsigned long>(fileSystem.f_type) != kTmpfsMagic)
        return Status(Code::kInvalid, "memory of a message is of an unknown kind");
    ASSIGN_OR_RETURN(const struct stat info, sys::statFd(fd));
    if (info.st_size < 0 || static_cast<uint64_t>(info.st_size) != sizeBytes || sizeBytes == 0)
        return Status(Code::kInvalid, "memory of a message has another size than announced");
    return Mapping::create(sizeBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0);
}

Result<Mapping> mapCopy(std::span<const std::byte> bytes)
{
    if (bytes.empty())
        return Mapping();
    ASSIGN_OR_RETURN(Mapping mapping,
                     Mapping::create(bytes.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    std::memcpy(mapping.address(), bytes.data(), bytes.size());
    return mapping;
}

std::span<std::byte> publishRegion(Mapping mapping)
{
    const std::span<std::byte> memory(static_cast<std::byte*>(mapping.address()), mapping.size());
    if (mapping.valid()) {
        MutexLock lock(regions().mutex);
        regions().byAddress[memory.data()] = std::move(mapping);
    }
    return memory;
}

bool releaseRegion(const void* address)
{
    Mapping released; // declared before the lock: unmapped after it is given up
    MutexLock lock(regions().mutex);
    const auto found = regions().byAddress.find(address);
    if (found == regions().byAddress.end())
        return false;
    released = std::move(found->second);
    regions().byAddress.erase(found);
    return true;
}

size_t regionSize(const void* address)
{
    MutexLock lock(regions().mutex);
    const auto found = regions().byAddress.find(address);
    return found == regions().byAddress.end() ? 0 : found->second.size();
}

} // namespace vnt
