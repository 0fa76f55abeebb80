#include "platform/foundation/hashing.h"

#include <bit>
#include <cstring>

#include "platform/base/sys.h"

namespace vnt {
namespace {

struct Key {
    uint64_t low;
    uint64_t high;
};

const Key& processKey() noexcept
{
    static const Key key = [] {
        Key made{};
        VNT_CHECK(sys::randomBytes(&made, sizeof made).ok());
        return made;
    }();
    return key;
}

struct SipState {
    uint64_t v0, v1, v2, v3;

    explicit SipState(const Key& key)
        : v0(key.low ^ 0x736f6d6570736575U),
          v1(key.high ^ 0x646f72616e646f6dU),
          v2(key.low ^ 0x6c7967656e657261U),
          v3(key.high ^ 0x7465646279746573U)
    {
    }

    void round()
    {
        v0 += v1;
        v1 = std::rotl(v1, 13) ^ v0;
        v0 = std::rotl(v0, 32);
        v2 += v3;
        v3 = std::rotl(v3, 16) ^ v2;
        v0 += v3;
        v3 = std::rotl(v3, 21) ^ v0;
        v2 += v1;
        v1 = std::rotl(v1, 17) ^ v2;
        v2 = std::rotl(v2, 32);
    }

    void word(uint64_t value)
    {
        v3 ^= value;
        round();
        v0 ^= value;
    }

    size_t finish()
    {
        v2 ^= 0xff;
        round();
        round();
        round();
        return static_cast<size_t>(v0 ^ v1 ^ v2 ^ v3);
    }
};

} // namespace

size_t hashBytes(std::string_view bytes) noexcept
{
    SipState state(processKey());
    const char* data = bytes.data();
    size_t left = bytes.size();
    for (; left >= 8; left -= 8, data += 8) {
        uint64_t word = 0;
        std::memcpy(&word, data, 8);
        state.word(word);
    }
    uint64_t last = static_cast<uint64_t>(bytes.size()) << 56;
    for (size_t i = 0; i < left; ++i)
        last |= static_cast<uint64_t>(static_cast<unsigned char>(data[i])) << (8 * i);
    state.word(last);
    return state.finish();
}

size_t hashValue(uint64_t value, uint8_t domain) noexcept
{
    SipState state(processKey());
    state.word(value);
    state.word(domain);
    return state.finish();
}

} // namespace vnt
