#include "bundle/RustDemangle.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <utility>

namespace vnt {

namespace {

/// Real names nest a few dozen deep.
constexpr size_t kMaxDepth = 200;
/// Parts read for one name: back references can make a short one name the same parts again and again.
constexpr size_t kMaxSteps = 20'000;

bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f'); }

/// Legacy escapes: "$LT$", "$u7e$", ".." for "::".
std::string unescaped(std::string_view part)
{
    static constexpr struct {
        std::string_view code;
        char character;
    } kEscapes[] = {{"SP", '@'}, {"BP", '*'}, {"RF", '&'}, {"LT", '<'},
                    {"GT", '>'}, {"LP", '('}, {"RP", ')'}, {"C", ','}};
    std::string text;
    if (part.starts_with("_$"))
        part.remove_prefix(1);
    while (!part.empty()) {
        const size_t end = part.front() == '$' ? part.find('$', 1) : std::string_view::npos;
        if (part.starts_with("..")) {
            text += "::";
            part.remove_prefix(2);
            continue;
        }
        char character = 0;
        if (end != std::string_view::npos) {
            const std::string_view code = part.substr(1, end - 1);
            for (const auto& escape : kEscapes)
                character = escape.code == code ? escape.character : character;
            unsigned value = 0;
            if (code.starts_with("u")
                && std::from_chars(code.data() + 1, code.data() + code.size(), value, 16).ptr
                    == code.data() + code.size()
                && value >= 0x20 && value < 0x7f)
                character = static_cast<char>(value);
        }
        text += character != 0 ? character : part.front();
        part.remove_prefix(character != 0 ? end + 1 : 1);
    }
    return text;
}

std::optional<std::string> legacy(std::string_view name)
{
    name.remove_prefix(3); // _ZN
    std::string text;
    std::string_view last;
    while (!name.empty() && isDigit(name.front())) {
        size_t length = 0;
        const auto end = std::from_chars(name.data(), name.data() + name.size(), length).ptr;
        name.remove_prefix(static_cast<size_t>(end - name.data()));
        if (length == 0 || length > name.size())
            return std::nullopt;
        if (!last.empty())
            text += (text.empty() ? "" : "::") + unescaped(last);
        last = name.substr(0, length);
        name.remove_prefix(length);
    }
    const bool isHash = last.size() == 17 && last.front() == 'h' && std::all_of(last.begin() + 1, last.end(), isHex);
    // Behind the end may stand what the compiler added: ".llvm.123".
    if (!isHash || text.empty() || !name.starts_with("E") || (name.size() > 1 && name[1] != '.'))
        return std::nullopt;
    return text;
}

/// Reads one v0 name. After the first fault everything fails.
class V0 {
public:
    explicit V0(std::string_view text) : _text(text) { }

    std::optional<std::string> read()
    {
        path(/*inValue=*/true);
        if (_failed)
            return std::nullopt;
        return std::move(_out);
    }

private:
    char peek() const { return _at < _text.size() ? _text[_at] : '\0'; }
    bool take(char c)
    {
        if (_failed || peek() != c)
            return false;
        ++_at;
        return true;
    }
    char next()
    {
        if (_failed || _at >= _text.size()) {
            _failed = true;
            return '\0';
        }
        return _text[_at++];
    }
    void put(std::string_view text)
    {
        if (_isSilent)
            return;
        if (_out.size() + text.size() > kMaxRustText)
            _failed = true;
        else
            _out += text;
    }
    /// Digits in base 62, "_" ends them; "_" alone is 0, "0_" is 1.
    uint64_t base62()
    {
        if (take('_'))
            return 0;
        uint64_t value = 0;
        while (!_failed && !take('_')) {
            const char c = next();
            const int digit = isDigit(c) ? c - '0'
                : c >= 'a' && c <= 'z'   ? c - 'a' + 10
                : c >= 'A' && c <= 'Z'   ? c - 'A' + 36
                                         : -1;
            if (digit < 0 || value > UINT64_MAX / 62 - 1)
                _failed = true;
            else
                value = value * 62 + static_cast<uint64_t>(digit);
        }
        return value + 1;
    }
    uint64_t optional62(char tag) { return take(tag) ? base62() + 1 : 0; }
    std::string_view identifier()
    {
        optional62('s');
        const bool isPunycode = take('u');
        size_t length = 0;
        while (isDigit(peek()) && !_failed) {
            length = length * 10 + static_cast<size_t>(next() - '0');
            _failed = _failed || length > _text.size();
        }
        take('_');
        if (_failed || length > _text.size() - _at || isPunycode) { // names beyond ASCII stay as they are
            _failed = true;
            return {};
        }
        _at += length;
        return _text.substr(_at - length, length);
    }
    template <typename Part> void backReference(Part part)
    {
        const size_t here = _at - 1;
        const uint64_t target = base62();
        if (_failed || target >= here) { // only what stands before: no circles
            _failed = true;
            return;
        }
        const size_t behind = _at;
        _at = static_cast<size_t>(target);
        part();
        _at = behind;
    }
    /// False: too deep, too much, or failed before.
    bool enter()
    {
        _failed = _failed || ++_steps > kMaxSteps || _depth >= kMaxDepth;
        return !_failed;
    }

    void path(bool inValue)
    {
        if (!enter())
            return;
        ++_depth;
        switch (next()) {
        case 'C':
            put(identifier());
            break;
        case 'M':
            implementation(false);
            break;
        case 'X':
            implementation(true);
            break;
        case 'Y':
            put("<");
            type();
            put(" as ");
            path(false);
            put(">");
            break;
        case 'N':
            nested();
            break;
        case 'I':
            path(inValue);
            put(inValue ? "::<" : "<");
            list([this] { genericArgument(); });
            put(">");
            break;
        case 'B':
            backReference([&] { path(inValue); });
            break;
        default:
            _failed = true;
        }
        --_depth;
    }
    /// "<T>" or "<T as Trait>"; where the implementation stands is not shown.
    void implementation(bool ofTrait)
    {
        optional62('s');
        const bool before = std::exchange(_isSilent, true);
        path(false);
        _isSilent = before;
        put("<");
        type();
        if (ofTrait) {
            put(" as ");
            path(false);
        }
        put(">");
    }
    void nested()
    {
        const char space = next();
        path(true);
        const uint64_t number = optional62('s');
        const std::string_view name = identifier();
        if (space >= 'A' && space <= 'Z') { // closures, shims: numbered
            put("::{");
            put(space == 'C' ? "closure" : space == 'S' ? "shim" : std::string_view(&space, 1));
            if (!name.empty()) {
                put(":");
                put(name);
            }
            put("#" + std::to_string(number) + "}");
        } else if (!name.empty()) {
            put("::");
            put(name);
        }
    }
    template <typename Item> size_t list(Item item)
    {
        size_t count = 0;
        while (!_failed && !take('E')) {
            if (count++ != 0)
                put(", ");
            item();
        }
        return count;
    }
    void genericArgument()
    {
        if (take('L'))
            lifetime();
        else if (take('K'))
            constant();
        else
            type();
    }
    void lifetime()
    {
        base62();
        put("'_");
    }
    static std::string_view basicType(char tag)
    {
        static constexpr std::string_view kNames[] = {
            "i8",   "bool", "char", "f64", "str", "f32", "",    "u8", "isize", "usize", "",    "i32", "u32",
            "i128", "u128", "_",    "",    "",    "i16", "u16", "()", "...",   "",      "i64", "u64", "!"};
        return tag >= 'a' && tag <= 'z' ? kNames[tag - 'a'] : std::string_view();
    }
    void type()
    {
        if (!enter())
            return;
        ++_depth;
        const char tag = next();
        if (const std::string_view basic = basicType(tag); !basic.empty())
            put(basic);
        else if (tag == 'R' || tag == 'Q')
            reference(tag == 'R' ? "&" : "&mut ");
        else if (tag == 'P' || tag == 'O')
            reference(tag == 'P' ? "*const " : "*mut ");
        else if (tag == 'A' || tag == 'S')
            sequence(tag == 'A');
        else if (tag == 'T')
            tuple();
        else if (tag == 'F')
            function();
        else if (tag == 'D')
            dynamic();
        else if (tag == 'B')
            backReference([this] { type(); });
        else if (!_failed) {
            --_at;
            path(false);
        }
        --_depth;
    }
    void reference(std::string_view text)
    {
        put(text);
        optional62('L');
        type();
    }
    void sequence(bool isArray)
    {
        put("[");
        type();
        if (isArray) {
            put("; ");
            constant();
        }
        put("]");
    }
    void tuple()
    {
        put("(");
        if (list([this] { type(); }) == 1)
            put(",");
        put(")");
    }
    void function()
    {
        optional62('G');
        if (take('U'))
            put("unsafe ");
        if (take('K')) {
            put("extern \"");
            if (take('C'))
                put("C");
            else
                put(identifier());
            put("\" ");
        }
        put("fn(");
        list([this] { type(); });
        put(")");
        if (take('u'))
            return;
        put(" -> ");
        type();
    }
    void dynamic()
    {
        put("dyn ");
        optional62('G');
        size_t count = 0;
        while (!_failed && !take('E')) {
            if (count++ != 0)
                put(" + ");
            path(false);
            while (take('p')) {
                put("<");
                put(identifier());
                put(" = ");
                type();
                put(">");
            }
        }
        if (take('L'))
            base62();
    }
    void constant()
    {
        if (!enter())
            return;
        if (take('p'))
            return put("_");
        if (take('B'))
            return backReference([this] { constant(); });
        const char tag = next();
        const bool isNegative = take('n');
        std::string digits;
        while (!_failed && !take('_'))
            digits += next();
        uint64_t value = 0;
        const auto parsed = std::from_chars(digits.data(), digits.data() + digits.size(), value, 16);
        if (basicType(tag).empty() || parsed.ptr != digits.data() + digits.size())
            put("0x" + digits);
        else if (tag == 'b')
            put(value != 0 ? "true" : "false");
        else
            put((isNegative ? "-" : "") + std::to_string(value));
    }

    std::string_view _text; // behind "_R"
    size_t _at = 0;
    size_t _depth = 0;
    size_t _steps = 0;
    bool _failed = false;
    bool _isSilent = false;
    std::string _out;
};

} // namespace

std::optional<std::string> rustDemangled(std::string_view name)
{
    if (name.starts_with("_R") && name.size() > 2 && name[2] >= 'A' && name[2] <= 'Z')
        return V0(name.substr(2)).read();
    if (name.starts_with("_ZN"))
        return legacy(name);
    return std::nullopt;
}

} // namespace vnt
