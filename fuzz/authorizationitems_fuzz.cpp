#include "fuzz/fuzz.h"
#include "platform/authorization/AuthorizationWire.h"
#include "platform/base/ByteCursor.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    ByteCursor cursor(fuzz::bytesOf(data, size));
    const auto items = readItems(cursor);
    fuzz::require(items.size() <= kMaxAuthorizationItems);
    return 0;
}
