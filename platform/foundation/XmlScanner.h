#pragma once

#include <string>
#include <string_view>

#include "platform/base/Status.h"

namespace vnt::plist {

/// Splits XML into tags and text. Understands what property lists are written with: elements, attributes (skipped),
/// comments, processing instructions, CDATA and character references. A document type with declarations of its own is
/// refused, so entities beyond the five predefined ones cannot exist and nothing outside the text is ever looked at.
class XmlScanner {
public:
    explicit XmlScanner(std::string_view text) : _text(text) { }

    struct Tag {
        enum class Form { kOpen, kClose, kEmpty, kEnd };
        Form form = Form::kEnd; ///< kEnd: nothing but white space was left
        std::string_view name{};
        size_t offset = 0;
    };

    /// The next tag; only white space may stand before it.
    Result<Tag> nextTag();
    /// The text up to the closing tag `name`, which is consumed too. Other elements within are refused.
    Result<std::string> textUntilClose(std::string_view name);

    [[nodiscard]] size_t offset() const { return _offset; }

private:
    Status skipMarkup(std::string_view close);
    Status skipDocumentType();
    Result<Tag> readTag();
    Status appendReference(std::string& text);
    Status appendPlain(std::string& text);

    const std::string_view _text;
    size_t _offset = 0;
};

} // namespace vnt::plist
