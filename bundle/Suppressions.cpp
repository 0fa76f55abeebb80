#include "bundle/Suppressions.h"

#include <algorithm>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr size_t kMaxFileBytes = size_t{4} << 20;
constexpr std::string_view kPrefix = "leak:";

std::string_view trimmed(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t\r");
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

} // namespace

Result<Suppressions> Suppressions::parse(std::string_view text)
{
    Suppressions result;
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = trimmed(text.substr(at, end - at));
        at = end + 1;
        ++number;
        if (line.empty() || line.front() == '#')
            continue;
        const std::string_view pattern = line.starts_with(kPrefix) ? trimmed(line.substr(kPrefix.size())) : "";
        if (pattern.empty())
            return Status(Code::kInvalid,
                          "line " + std::to_string(number) + ": not \"leak:PATTERN\": " + std::string(line));
        result._patterns.emplace_back(pattern);
    }
    return result;
}

Result<Suppressions> Suppressions::read(const std::string& path)
{
    ASSIGN_OR_RETURN(const std::string text, sys::readFile(path, kMaxFileBytes));
    auto parsed = parse(text);
    if (!parsed.ok())
        return Status(parsed.code(), path + ", " + parsed.status().message());
    return parsed;
}

/// Each part between two stars at its first place behind the one before; time is at most pattern times name.
bool Suppressions::matches(std::string_view pattern, std::string_view name)
{
    const bool fromStart = pattern.starts_with('^');
    const bool toEnd = pattern.ends_with('$');
    pattern.remove_prefix(fromStart ? 1 : 0);
    pattern.remove_suffix(toEnd && !pattern.empty() ? 1 : 0);
    size_t at = 0;
    bool first = true;
    while (true) {
        const size_t star = pattern.find('*');
        const std::string_view part = pattern.substr(0, star);
        const bool isLast = star == std::string_view::npos;
        size_t found = name.find(part, at);
        if (first && fromStart)
            found = name.starts_with(part) ? 0 : std::string_view::npos;
        else if (isLast && toEnd && name.size() >= at + part.size() && name.ends_with(part))
            found = name.size() - part.size();
        if (found == std::string_view::npos || (isLast && toEnd && found + part.size() != name.size()))
            return false;
        if (isLast)
            return true;
        at = found + part.size();
        pattern.remove_prefix(star + 1);
        first = false;
    }
}

bool Suppressions::matches(const Symbol& frame) const
{
    return std::any_of(_patterns.begin(), _patterns.end(), [&frame](const std::string& pattern) {
        return matches(pattern, frame.function) || matches(pattern, frame.module) || matches(pattern, frame.path);
    });
}

} // namespace vnt
