#include "platform/foundation/Error.h"

#include <cstring>

namespace vnt {

Ref<Error> Error::create(Ref<String> domain, int64_t code, Ref<Dictionary> userInfo)
{
    return makeRef<Error>(domain ? std::move(domain) : String::create(""), code,
                          userInfo ? std::move(userInfo) : Dictionary::create());
}

Ref<Error> Error::fromErrno(int errnoValue, std::string_view message)
{
    char buffer[128];
    std::string text(message);
    if (!text.empty())
        text += ": ";
    text += ::strerror_r(errnoValue, buffer, sizeof buffer);
    return create(String::create("NSPOSIXErrorDomain"), errnoValue,
                  Dictionary::create({{String::create(kLocalizedDescriptionKey), String::create(text)}}));
}

Ref<String> Error::localizedDescription() const
{
    if (Ref<String> text = _userInfo->get<String>(kLocalizedDescriptionKey))
        return text;
    return String::create(_domain->str() + " error " + std::to_string(_code));
}

std::string Error::description() const
{
    return "Error Domain=" + _domain->str() + " Code=" + std::to_string(_code) + " \"" + localizedDescription()->str()
        + "\"";
}

} // namespace vnt
