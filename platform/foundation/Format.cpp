#include "platform/foundation/Format.h"

#include "platform/base/Check.h"

namespace vnt {
namespace {

/// Length of the directive after its percent sign; 0 when it is none of ours.
size_t directiveLength(std::string_view rest)
{
    if (rest.starts_with("ld"))
        return 2;
    return rest.starts_with('@') || rest.starts_with('d') || rest.starts_with('s') ? 1 : 0;
}

} // namespace

FormatArgument::FormatArgument(const Object* object) : _text(object ? object->description() : "(null)") { }

std::string formatText(std::string_view format, std::initializer_list<FormatArgument> arguments)
{
    std::string result;
    auto argument = arguments.begin();
    for (size_t percent = format.find('%'); percent != std::string_view::npos; percent = format.find('%')) {
        result += format.substr(0, percent);
        format.remove_prefix(percent + 1);
        if (format.starts_with('%')) {
            result += '%';
            format.remove_prefix(1);
            continue;
        }
        const size_t length = directiveLength(format);
        VNT_CHECK(length != 0 && argument != arguments.end());
        result += (argument++)->text();
        format.remove_prefix(length);
    }
    VNT_CHECK(argument == arguments.end());
    return result += format;
}

} // namespace vnt
