#include "fuzz/fuzz.h"
#include "platform/mach/MessageWire.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace vnt;
    const auto bytes = fuzz::bytesOf(data, size);
    Packet packet;
    packet.bytes.assign(bytes.begin(), bytes.end());
    const auto message = parseMessage(packet);
    if (!message.ok())
        return 0;
    const auto isWithin = [&](std::span<const std::byte> part) {
        return part.empty()
            || (part.data() >= packet.bytes.data()
                && part.data() + part.size() <= packet.bytes.data() + packet.bytes.size());
    };
    fuzz::require(isWithin(message.value().body));
    for (const auto memory : message.value().inlineMemory)
        fuzz::require(isWithin(memory));
    return 0;
}
