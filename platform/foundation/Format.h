#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <string_view>

#include "platform/foundation/Error.h"

namespace vnt {

/// One argument of formatText(). Objects and strings serve %@ (a null object shows as "(null)"), C strings %s
/// and %@, int32 %d, int64 %ld.
class FormatArgument {
public:
    FormatArgument(const Object* object);
    template <typename T>
    FormatArgument(const Ref<T>& object) : FormatArgument(static_cast<const Object*>(object.get()))
    {
    }
    FormatArgument(const Exception& exception) : _text(exception.reason()) { }
    FormatArgument(const char* text) : _text(text ? text : "(null)") { }
    FormatArgument(const std::string& text) : _text(text) { }
    FormatArgument(std::string_view text) : _text(text) { }
    FormatArgument(int value) : _text(std::to_string(value)) { }
    FormatArgument(long value) : _text(std::to_string(value)) { }

    [[nodiscard]] const std::string& text() const { return _text; }

private:
    std::string _text;
};

/// Replaces %@, %d, %s and %ld by the arguments in order; "%%" is a percent sign. The numbers of directives and
/// arguments must agree: anything else is our own mistake and stops the process.
[[nodiscard]] std::string formatText(std::string_view format, std::initializer_list<FormatArgument> arguments);

} // namespace vnt
