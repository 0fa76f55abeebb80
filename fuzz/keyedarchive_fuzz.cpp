#include "fuzz/fuzz.h"
#include "platform/foundation/KeyedArchive.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto archive = KeyedUnarchiver::open(fuzz::bytesOf(data, size));
    if (!archive.ok())
        return 0;
    for (const char* key : {"quillon.vnt.data.pid", "quillon.vnt.data.signatures", "quillon.vnt.data.serveraddress"}) {
        (void)archive.value().decodeInt64(key);
        (void)archive.value().decodeBool(key);
        (void)archive.value().decodeObject(key);
    }
    return 0;
}
