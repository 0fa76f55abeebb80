#include "bundle/StoredSymbols.h"

#include <cstring>

#include "fuzz/fuzz.h"
#include "platform/messagequeue/MessageStream.h"

/// With a header that fits, so that what is behind it is reached.
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    (void)StoredSymbols::parse({reinterpret_cast<const char*>(data), size});
    std::string file(StoredSymbols::kMagic, sizeof StoredSymbols::kMagic);
    const uint32_t checksum = crc32c(fuzz::bytesOf(data, size));
    file.append(reinterpret_cast<const char*>(&StoredSymbols::kVersion), 4);
    file.append(reinterpret_cast<const char*>(&checksum), 4).append(reinterpret_cast<const char*>(data), size);
    const auto symbols = StoredSymbols::parse(std::move(file));
    const auto* part = symbols.ok() ? symbols.value()->module("", "", true) : nullptr;
    if (!part)
        return 0;
    for (const auto& address : part->addresses) {
        fuzz::require(address.function < part->functions.size());
        fuzz::require(address.firstLine + address.lineCount <= part->lines.size());
        fuzz::require(part->find(address.fileOffset, address.role) == &address);
    }
    for (const auto& line : part->lines)
        fuzz::require(line.function < part->functions.size());
    return 0;
}
