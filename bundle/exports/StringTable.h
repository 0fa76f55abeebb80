#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "bundle/exports/utf8.h"

namespace vnt {

/// Texts by number, each once, in the order they first came; valid UTF-8. Number 0 is the empty text. One thread.
class StringTable {
public:
    StringTable() { (void)add(""); }
    StringTable(const StringTable&) = delete;
    StringTable& operator=(const StringTable&) = delete;

    uint32_t add(std::string_view text)
    {
        std::string valid = validUtf8(text);
        const auto known = _numbers.find(valid);
        if (known != _numbers.end())
            return known->second;
        const auto number = static_cast<uint32_t>(_texts.size());
        _texts.push_back(std::move(valid));
        _numbers.emplace(_texts.back(), number);
        return number;
    }
    [[nodiscard]] const std::string& at(uint32_t number) const { return _texts[number]; }
    [[nodiscard]] uint32_t count() const { return static_cast<uint32_t>(_texts.size()); }

private:
    std::deque<std::string> _texts; // a deque: the views into it stay
    std::unordered_map<std::string_view, uint32_t> _numbers;
};

} // namespace vnt
