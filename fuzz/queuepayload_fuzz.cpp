#include "fuzz/fuzz.h"
#include "platform/messagequeue/frames.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto bytes = fuzz::bytesOf(data, size);
    const auto call = queue::decodeCall(bytes);
    if (call.ok())
        fuzz::require(call.value().arguments != nullptr);
    (void)queue::decodeAnswer(bytes).ok();
    (void)queue::decodeException(bytes).ok();
    return 0;
}
