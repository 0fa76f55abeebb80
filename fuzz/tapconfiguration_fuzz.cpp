#include "fuzz/fuzz.h"
#include "platform/foundation/PropertyList.h"
#include "platform/zelto/KxZelto.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto read = readPropertyList(fuzz::bytesOf(data, size));
    const auto* dictionary = read.ok() ? as<Dictionary>(read.value().get()) : nullptr;
    if (!dictionary)
        return 0;
    const auto configuration = KxZeltoTapConfig::decoded(*dictionary);
    if (configuration.ok())
        fuzz::require(KxZeltoTapConfig::decoded(*configuration.value()->encoded()).ok());
    return 0;
}
