#include "platform/foundation/XmlScanner.h"

#include <charconv>

#include "platform/foundation/plist_codecs.h"
#include "platform/foundation/utf8.h"

namespace vnt::plist {
namespace {

constexpr std::string_view kWhiteSpace = " \t\r\n";
constexpr std::string_view kCdata = "<![CDATA[";
/// Longest character or entity reference, from '&' to ';' ("&#x0010FFFF;" and some zeros).
constexpr size_t kMaxReferenceBytes = 16;

/// XML 1.0, 2.2: what a document may hold.
bool isXmlCharacter(uint32_t c)
{
    return c == '\t' || c == '\n' || c == '\r' || (c >= 0x20 && c <= 0xd7ff) || (c >= 0xe000 && c <= 0xfffd)
        || (c >= 0x10000 && c <= 0x10ffff);
}

} // namespace

Status XmlScanner::skipMarkup(std::string_view close)
{
    const size_t end = _text.find(close, _offset);
    if (end == std::string_view::npos)
        return invalidAt(_offset, "markup without an end");
    _offset = end + close.size();
    return {};
}

Status XmlScanner::skipDocumentType()
{
    const size_t start = _offset;
    char quote = 0;
    for (; _offset < _text.size(); ++_offset) {
        const char c = _text[_offset];
        if (quote) {
            quote = c == quote ? '\0' : quote;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '[') {
            return invalidAt(_offset, "document type with declarations");
        } else if (c == '>') {
            ++_offset;
            return {};
        }
    }
    return invalidAt(start, "document type without an end");
}

Result<XmlScanner::Tag> XmlScanner::nextTag()
{
    for (;;) {
        _offset = std::min(_text.find_first_not_of(kWhiteSpace, _offset), _text.size());
        const std::string_view rest = _text.substr(_offset);
        if (rest.empty())
            return Tag{.offset = _offset};
        if (rest.starts_with("<!--"))
            RETURN_IF_ERROR(skipMarkup("-->"));
        else if (rest.starts_with("<?"))
            RETURN_IF_ERROR(skipMarkup("?>"));
        else if (rest.starts_with("<!DOCTYPE"))
            RETURN_IF_ERROR(skipDocumentType());
        else if (rest[0] == '<')
            return readTag();
        else
            return invalidAt(_offset, "text where an element is expected");
    }
}

Result<XmlScanner::Tag> XmlScanner::readTag()
{
    Tag tag{.form = Tag::Form::kOpen, .offset = _offset++};
    if (_offset < _text.size() && _text[_offset] == '/') {
        tag.form = Tag::Form::kClose;
        ++_offset;
    }
    const size_t nameEnd = std::min(_text.find_first_of(" \t\r\n/><", _offset), _text.size());
    tag.name = _text.substr(_offset, nameEnd - _offset);
    char quote = 0;
    for (_offset = nameEnd; _offset < _text.size(); ++_offset) {
        const char c = _text[_offset];
        if (quote) {
            quote = c == quote ? '\0' : quote;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '<') {
            break;
        } else if (c == '>') {
            if (_text[_offset - 1] == '/' && _offset > nameEnd) {
                if (tag.form == Tag::Form::kClose)
                    break;
                tag.form = Tag::Form::kEmpty;
            }
            ++_offset;
            return tag;
        }
    }
    return invalidAt(tag.offset, "broken tag");
}

Status XmlScanner::appendReference(std::string& text)
{
    const size_t end = _text.substr(_offset, kMaxReferenceBytes).find(';');
    if (end == std::string_view::npos)
        return invalidAt(_offset, "broken reference");
    std::string_view name = _text.substr(_offset + 1, end - 1);
    constexpr std::pair<std::string_view, char> kEntities[] = {
        {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto& [entity, character] : kEntities) {
        if (name == entity) {
            text.push_back(character);
            _offset += end + 1;
            return {};
        }
    }
    const bool hexadecimal = name.starts_with("#x");
    name.remove_prefix(std::min<size_t>(hexadecimal ? 2 : 1, name.size()));
    uint32_t codePoint = 0;
    const auto parsed = std::from_chars(name.data(), name.data() + name.size(), codePoint, hexadecimal ? 16 : 10);
    if (_text[_offset + 1] != '#' || parsed.ec != std::errc() || parsed.ptr != name.data() + name.size()
        || !isXmlCharacter(codePoint))
        return invalidAt(_offset, "unknown reference");
    appendUtf8(text, codePoint);
    _offset += end + 1;
    return {};
}

/// Up to the next markup or reference, with line ends made "\n" (XML 1.0, 2.11).
Status XmlScanner::appendPlain(std::string& text)
{
    const size_t end = std::min(_text.find_first_of("<&", _offset), _text.size());
    for (; _offset < end; ++_offset) {
        const char c = _text[_offset];
        if (static_cast<unsigned char>(c) < 0x20 && !isXmlCharacter(static_cast<unsigned char>(c)))
            return invalidAt(_offset, "control character");
        if (c != '\r')
            text.push_back(c);
        else if (_offset + 1 >= _text.size() || _text[_offset + 1] != '\n')
            text.push_back('\n');
    }
    return {};
}

Result<std::string> XmlScanner::textUntilClose(std::string_view name)
{
    std::string text;
    for (;;) {
        RETURN_IF_ERROR(appendPlain(text));
        const std::string_view rest = _text.substr(_offset);
        if (rest.empty())
            return invalidAt(_offset, "element without an end");
        if (rest[0] == '&') {
            RETURN_IF_ERROR(appendReference(text));
        } else if (rest.starts_with("<!--")) {
            RETURN_IF_ERROR(skipMarkup("-->"));
        } else if (rest.starts_with("<?")) {
            RETURN_IF_ERROR(skipMarkup("?>"));
        } else if (rest.starts_with(kCdata)) {
            const size_t start = _offset + kCdata.size();
            RETURN_IF_ERROR(skipMarkup("]]>"));
            text += _text.substr(start, _offset - 3 - start);
        } else {
            ASSIGN_OR_RETURN(const Tag tag, readTag());
            if (tag.form != Tag::Form::kClose || tag.name != name)
                return invalidAt(tag.offset, "<" + std::string(name) + "> holds another element or ends wrongly");
            return text;
        }
    }
}

} // namespace vnt::plist
