#include <algorithm>
#include <filesystem>

#include "platform/foundation/Values.h"
#include "platform/foundation/hashing.h"

namespace vnt {
namespace {

bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Length of the scheme (RFC 3986, 3.1), 0 without one.
size_t schemeLength(std::string_view text)
{
    if (text.empty() || !isLetter(text[0]))
        return 0;
    size_t length = 1;
    while (length < text.size()
           && (isLetter(text[length]) || isDigit(text[length])
               || std::string_view("+-.").find(text[length]) != std::string_view::npos))
        ++length;
    return length < text.size() && text[length] == ':' ? length : 0;
}

int hexDigit(char c)
{
    if (isDigit(c))
        return c - '0';
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

std::string percentDecoded(std::string_view text)
{
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && hexDigit(text[i + 1]) >= 0 && hexDigit(text[i + 2]) >= 0) {
            result.push_back(static_cast<char>(hexDigit(text[i + 1]) * 16 + hexDigit(text[i + 2])));
            i += 2;
        } else {
            result.push_back(text[i]);
        }
    }
    return result;
}

std::string percentEncoded(std::string_view path)
{
    constexpr std::string_view kPlain = "-._~/!$&'()*+,=:@"; // pchar and '/' of RFC 3986, without ';'
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string result;
    for (const char c : path) {
        if (isLetter(c) || isDigit(c) || kPlain.find(c) != std::string_view::npos) {
            result.push_back(c);
        } else {
            const auto byte = static_cast<unsigned char>(c);
            result.append({'%', kDigits[byte >> 4], kDigits[byte & 15]});
        }
    }
    return result;
}

} // namespace

Ref<Url> Url::withString(std::string_view text)
{
    if (schemeLength(text) == 0)
        return nullptr;
    return makeRef<Url>(String::create(text));
}

Ref<Url> Url::withFilePath(std::string_view path)
{
    std::string absolute(path);
    if (path.empty() || path[0] != '/') {
        std::error_code error; // a current directory that is gone leaves the path as it is
        const auto joined = std::filesystem::absolute(std::filesystem::path(path), error);
        absolute = error ? "/" + absolute : joined.string();
    }
    return makeRef<Url>(String::create("file://" + percentEncoded(absolute)));
}

std::string Url::scheme() const { return str().substr(0, schemeLength(str())); }

std::string Url::path() const
{
    std::string_view rest(str());
    rest.remove_prefix(schemeLength(rest) + 1);
    if (rest.starts_with("//"))
        rest.remove_prefix(std::min(rest.find('/', 2), rest.size()));
    // A socket's address is a plain path: it has neither query nor fragment.
    if (scheme() != "unix")
        rest = rest.substr(0, rest.find_first_of("?#"));
    return percentDecoded(rest);
}

bool Url::isEqual(const Object& other) const
{
    const auto* url = as<Url>(&other);
    return url && url->str() == str();
}

size_t Url::hash() const { return hashBytes(str()); }

} // namespace vnt
