#include "collectors/common/TracepointFormat.h"

#include <algorithm>
#include <charconv>

namespace vnt {
namespace {

constexpr uint32_t kMaxRecordBytes = 64u << 10; // a perf record's size is 16 bits

std::string_view trimmed(std::string_view text)
{
    const size_t begin = text.find_first_not_of(" \t");
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

template <typename T> bool parseNumber(std::string_view text, T& value)
{
    text = trimmed(text);
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

/// What stands between `key` and the next semicolon.
bool partOf(std::string_view line, std::string_view key, std::string_view& part)
{
    const size_t at = line.find(key);
    const size_t end = at == std::string_view::npos ? at : line.find(';', at);
    if (end == std::string_view::npos)
        return false;
    part = line.substr(at + key.size(), end - at - key.size());
    return true;
}

/// "field:__data_loc char[] name;	offset:12;	size:4;	signed:0;"
bool parseField(std::string_view line, TracepointFormat::Field& field)
{
    std::string_view declaration, offset, size, isSigned;
    if (!partOf(line, "field:", declaration) || !partOf(line, "offset:", offset) || !partOf(line, "size:", size)
        || !parseNumber(offset, field.offset) || !parseNumber(size, field.sizeBytes))
        return false;
    if (partOf(line, "signed:", isSigned))
        field.isSigned = trimmed(isSigned) == "1";
    declaration = trimmed(declaration);
    constexpr std::string_view kLocated = "__data_loc ";
    if (declaration.starts_with(kLocated)) {
        field.isLocated = true;
        declaration.remove_prefix(kLocated.size());
    }
    std::string_view dimension;
    if (declaration.ends_with(']') && declaration.rfind('[') > declaration.rfind(' ')) {
        dimension = declaration.substr(declaration.rfind('['));
        declaration = declaration.substr(0, declaration.rfind('['));
    }
    const size_t nameAt = declaration.find_last_of(" *");
    if (nameAt == std::string_view::npos)
        return false;
    field.name = declaration.substr(nameAt + 1);
    field.type = trimmed(declaration.substr(0, nameAt + 1));
    field.type += dimension;
    return !field.name.empty() && field.offset <= kMaxRecordBytes && field.sizeBytes <= kMaxRecordBytes;
}

} // namespace

Result<TracepointFormat> TracepointFormat::parse(std::string_view text)
{
    TracepointFormat format;
    bool hasId = false;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = trimmed(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
        if (line.starts_with("name:"))
            format.name = trimmed(line.substr(5));
        else if (line.starts_with("ID:"))
            hasId = parseNumber(line.substr(3), format.id);
        else if (line.starts_with("print fmt:"))
            format.printFormat = trimmed(line.substr(10));
        if (!line.starts_with("field:"))
            continue;
        Field field;
        if (!parseField(line, field))
            return Status(Code::kInvalid, "event description: \"" + std::string(line) + "\" makes no sense");
        if (!field.name.starts_with("common_"))
            format.fields.push_back(std::move(field));
    }
    if (!hasId || format.name.empty())
        return Status(Code::kInvalid, "event description without a name or an ID");
    return format;
}

const TracepointFormat::Field* TracepointFormat::field(std::string_view wanted) const
{
    const auto found = std::find_if(fields.begin(), fields.end(), [&](const Field& f) { return f.name == wanted; });
    return found == fields.end() ? nullptr : &*found;
}

uint32_t TracepointFormat::recordBytes() const
{
    uint32_t bytes = 8; // struct trace_entry, which every record begins with
    for (const Field& field : fields)
        bytes = std::max(bytes, field.offset + field.sizeBytes);
    return bytes;
}

} // namespace vnt
