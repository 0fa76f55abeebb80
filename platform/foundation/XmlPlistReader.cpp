#include <charconv>

#include "platform/foundation/XmlScanner.h"
#include "platform/foundation/base64.h"
#include "platform/foundation/civil_time.h"
#include "platform/foundation/plist_codecs.h"

namespace vnt::plist {
namespace {

using Tag = XmlScanner::Tag;

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

/// Optional sign, decimal or 0x-hexadecimal digits. XML does not tell a width: the narrowest kind is taken.
Ref<Number> integerOf(std::string_view text)
{
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+'))
        text.remove_prefix(1);
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    if (hexadecimal)
        text.remove_prefix(2);
    uint64_t value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value, hexadecimal ? 16 : 10);
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size())
        return nullptr;
    if (negative) {
        if (value > uint64_t{1} << 63)
            return nullptr;
        const auto whole = static_cast<int64_t>(-value);
        return whole >= INT32_MIN ? Number::withInt(static_cast<int32_t>(whole)) : Number::withInt64(whole);
    }
    if (value <= INT32_MAX)
        return Number::withInt(static_cast<int32_t>(value));
    return value <= INT64_MAX ? Number::withInt64(static_cast<int64_t>(value)) : Number::withUint64(value);
}

Ref<Number> realOf(std::string_view text)
{
    if (text.starts_with('+') && !text.starts_with("+-"))
        text.remove_prefix(1);
    double value = 0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
    // Beyond the range of a double is an error here: it must not silently become another number.
    if (parsed.ec != std::errc() || parsed.ptr != text.data() + text.size())
        return nullptr;
    return Number::withDouble(value);
}

/// Decodes one document with a stack of open collections.
class XmlReader {
public:
    XmlReader(std::string_view text, const PropertyListLimits& limits) : _scanner(text), _limits(limits) { }

    Result<Ref<Object>> read()
    {
        ASSIGN_OR_RETURN(const Tag root, _scanner.nextTag());
        if (root.form != Tag::Form::kOpen || root.name != "plist")
            return invalidAt(root.offset, "neither a binary property list nor XML with a plist element");
        while (!_closed) {
            ASSIGN_OR_RETURN(const Tag tag, _scanner.nextTag());
            RETURN_IF_ERROR(tag.form == Tag::Form::kClose ? close(tag) : element(tag));
        }
        ASSIGN_OR_RETURN(const Tag end, _scanner.nextTag());
        if (end.form != Tag::Form::kEnd)
            return invalidAt(end.offset, "something follows the plist element");
        return _root;
    }

private:
    struct OpenCollection {
        bool isDictionary;
        size_t offset;
        Ref<Object> key; // of the value to come
        std::vector<Ref<Object>> items;
        std::vector<Dictionary::Entry> entries;
    };

    Status element(const Tag& tag)
    {
        if (tag.form == Tag::Form::kEnd)
            return invalidAt(tag.offset, "the plist element does not end");
        if (++_objects > _limits.maxObjects)
            return Status(Code::kTooLarge,
                          "property list: more than " + std::to_string(_limits.maxObjects) + " objects");
        if (tag.name == "array" || tag.name == "dict")
            return open(tag);
        if (tag.name == "key")
            return readKey(tag);
        Ref<Object> value;
        if (tag.name == "true" || tag.name == "false") {
            if (tag.form == Tag::Form::kOpen)
                RETURN_IF_ERROR(_scanner.textUntilClose(tag.name).status());
            value = Number::withBool(tag.name == "true");
        } else {
            ASSIGN_OR_RETURN(const std::string text, textOf(tag));
            value = valueOf(tag.name, text);
        }
        if (!value)
            return invalidAt(tag.offset, "<" + std::string(tag.name.substr(0, 40)) + "> is unknown or has bad content");
        return add(tag.offset, std::move(value));
    }

    Result<std::string> textOf(const Tag& tag)
    {
        if (tag.form == Tag::Form::kEmpty)
            return std::string();
        return _scanner.textUntilClose(tag.name);
    }

    static Ref<Object> valueOf(std::string_view element, const std::string& text)
    {
        if (element == "string")
            return String::create(text);
        if (element == "integer")
            return integerOf(trimmed(text));
        if (element == "real")
            return realOf(trimmed(text));
        if (element == "date") {
            const auto seconds = parseIso8601(trimmed(text));
            return seconds ? Date::withSecondsSince2001(*seconds) : nullptr;
        }
        if (element == "data") {
            auto bytes = base64Decoded(text);
            return bytes ? Data::adopting(std::move(*bytes)) : nullptr;
        }
        return nullptr;
    }

    Status open(const Tag& tag)
    {
        if (_open.size() >= _limits.maxDepth)
            return Status(Code::kTooLarge,
                          "property list: nested deeper than " + std::to_string(_limits.maxDepth) + " levels");
        _open.push_back(
            {.isDictionary = tag.name == "dict", .offset = tag.offset, .key = {}, .items = {}, .entries = {}});
        return tag.form == Tag::Form::kEmpty ? closeCollection() : Status();
    }

    Status readKey(const Tag& tag)
    {
        if (_open.empty() || !_open.back().isDictionary || _open.back().key)
            return invalidAt(tag.offset, "key where a value is expected");
        ASSIGN_OR_RETURN(const std::string text, textOf(tag));
        _open.back().key = String::create(text);
        return {};
    }

    Status add(size_t offset, Ref<Object> value)
    {
        if (_open.empty()) {
            if (_root)
                return invalidAt(offset, "a second value in the plist element");
            _root = std::move(value);
            return {};
        }
        OpenCollection& top = _open.back();
        if (!top.isDictionary) {
            top.items.push_back(std::move(value));
            return {};
        }
        if (!top.key)
            return invalidAt(offset, "value without a key");
        top.entries.emplace_back(std::move(top.key), std::move(value));
        top.key = nullptr;
        return {};
    }

    Status close(const Tag& tag)
    {
        if (_open.empty()) {
            if (tag.name != "plist" || !_root)
                return invalidAt(tag.offset, "the plist element is empty or ends wrongly");
            _closed = true;
            return {};
        }
        if (tag.name != (_open.back().isDictionary ? "dict" : "array"))
            return invalidAt(tag.offset, "wrong closing tag");
        return closeCollection();
    }

    Status closeCollection()
    {
        OpenCollection top = std::move(_open.back());
        _open.pop_back();
        if (top.key)
            return invalidAt(top.offset, "key without a value");
        Ref<Object> object;
        if (top.isDictionary)
            object = Dictionary::create(top.entries);
        else
            object = Array::create(std::move(top.items));
        return add(top.offset, std::move(object));
    }

    XmlScanner _scanner;
    const PropertyListLimits& _limits;
    size_t _objects = 0;
    bool _closed = false;
    Ref<Object> _root;
    std::vector<OpenCollection> _open;
};

} // namespace

Result<Ref<Object>> readXml(std::string_view text, const PropertyListLimits& limits)
{
    constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
    if (text.starts_with(kByteOrderMark))
        text.remove_prefix(kByteOrderMark.size());
    return XmlReader(text, limits).read();
}

} // namespace vnt::plist
