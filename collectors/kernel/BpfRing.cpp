#include "collectors/kernel/BpfRing.h"

#include <sys/mman.h>
#include <unistd.h>

#include <bit>

namespace vnt {

Result<BpfRing> BpfRing::create(int map, size_t dataBytes)
{
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    ASSIGN_OR_RETURN(Mapping readerPage, Mapping::create(page, PROT_READ | PROT_WRITE, MAP_SHARED, map, 0));
    ASSIGN_OR_RETURN(Mapping writerPages,
                     Mapping::create(page + 2 * dataBytes, PROT_READ, MAP_SHARED, map, static_cast<off_t>(page)));
    return over(std::move(readerPage), std::move(writerPages), dataBytes);
}

Result<BpfRing> BpfRing::over(Mapping readerPage, Mapping writerPages, size_t dataBytes)
{
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    if (!std::has_single_bit(dataBytes) || readerPage.size() < page || writerPages.size() < page + 2 * dataBytes)
        return Status(Code::kInvalid, "event ring: sizes contradict each other");
    return BpfRing(std::move(readerPage), std::move(writerPages), dataBytes, page);
}

} // namespace vnt
