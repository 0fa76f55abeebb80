#include "platform/foundation/Values.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "platform/foundation/civil_time.h"
#include "platform/foundation/hashing.h"
#include "platform/foundation/utf8.h"

namespace vnt {

Ref<String> String::create(std::string_view text)
{
    return makeRef<String>(isUtf8(text) ? std::string(text) : repairedUtf8(text));
}

bool String::isEqual(const Object& other) const
{
    const auto* string = as<String>(&other);
    return string && string->_text == _text;
}

size_t String::hash() const { return hashBytes(_text); }

Ref<Date> Date::withSecondsSince2001(double seconds) { return makeRef<Date>(seconds); }

bool Date::isEqual(const Object& other) const
{
    // An instant that is no number equals itself: keys must be found again.
    const auto* date = as<Date>(&other);
    return date && (date->_seconds == _seconds || (std::isnan(date->_seconds) && std::isnan(_seconds)));
}

size_t Date::hash() const { return std::isnan(_seconds) ? 0 : std::hash<double>()(_seconds); }

std::string Date::description() const
{
    std::string text = formatIso8601(_seconds);
    text[10] = ' ';
    text.replace(text.size() - 1, 1, " +0000");
    return text;
}

Ref<Data> Data::create(std::span<const std::byte> bytes)
{
    return adopting(std::vector<std::byte>(bytes.begin(), bytes.end()));
}

Ref<Data> Data::adopting(std::vector<std::byte> bytes)
{
    const std::span<const std::byte> view(bytes); // moving a vector keeps its storage
    return makeRef<Data>(std::move(bytes), view);
}

Ref<Data> Data::withoutCopy(std::span<const std::byte> bytes) { return makeRef<Data>(std::vector<std::byte>(), bytes); }

bool Data::isEqual(const Object& other) const
{
    const auto* data = as<Data>(&other);
    return data && data->_view.size() == _view.size()
        && (_view.empty() || std::memcmp(data->_view.data(), _view.data(), _view.size()) == 0);
}

size_t Data::hash() const { return hashBytes({reinterpret_cast<const char*>(_view.data()), _view.size()}); }

std::string Data::description() const
{
    constexpr size_t kShownBytes = 16;
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text = "{length = " + std::to_string(_view.size()) + ", bytes = 0x";
    for (const std::byte byte : _view.first(std::min(_view.size(), kShownBytes))) {
        text.push_back(kDigits[std::to_integer<unsigned>(byte) >> 4]);
        text.push_back(kDigits[std::to_integer<unsigned>(byte) & 15]);
    }
    return text + (_view.size() > kShownBytes ? "…}" : "}");
}

Ref<Null> Null::create()
{
    static Null* const kInstance = new Null; // never destroyed: nothing may run at exit
    return Ref<Null>(kInstance);
}

} // namespace vnt
