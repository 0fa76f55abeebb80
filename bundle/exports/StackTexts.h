#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace vnt {

/// The texts of call paths, each made once while there is room: a recording has many more samples than paths. Bounded;
/// when it is full, all are forgotten. One thread.
class StackTexts {
public:
    explicit StackTexts(size_t maxBytes = kMaxBytes) : _maxBytes(maxBytes) { }
    static constexpr size_t kMaxBytes = size_t{32} << 20;

    /// The text of `stack`; `make(stack)` makes it. Valid until the next call.
    template <typename Make> const std::string& of(uint32_t stack, Make make)
    {
        const auto known = _texts.find(stack);
        if (known != _texts.end())
            return known->second;
        if (_bytes > _maxBytes) {
            _texts.clear();
            _bytes = 0;
        }
        const std::string& text = _texts[stack] = make(stack);
        _bytes += text.size() + kOverheadBytes;
        return text;
    }

private:
    static constexpr size_t kOverheadBytes = 64; // of an entry
    size_t _maxBytes;
    size_t _bytes = 0;
    std::unordered_map<uint32_t, std::string> _texts;
};

} // namespace vnt
