#include "collectors/common/RingReader.h"

#include <unistd.h>

namespace vnt {

Result<RingReader> RingReader::create(Mapping mapping)
{
    const auto pageBytes = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    if (mapping.size() <= pageBytes)
        return Status(Code::kInvalid, "perf ring: no data pages");
    const size_t dataBytes = mapping.size() - pageBytes;
    if ((dataBytes & (dataBytes - 1)) != 0)
        return Status(Code::kInvalid, "perf ring: size is not a power of two");
    const std::byte* data = mapping.bytes().data() + pageBytes;
    return RingReader(std::move(mapping), data, dataBytes);
}

} // namespace vnt
