#include "Vantora/Errors.h"

#include <cstdio>
#include <cstdlib>

#include "Vantora/Sentences.h"
#include "Vantora/Vantora"

namespace vnt {

Ref<Error> makeError(std::string_view sentence)
{
    auto userInfo = Dictionary::create({{String::create(kLocalizedDescriptionKey), String::create(sentence)}});
    return Error::create(String::create(kErrorDomain), kErrorCode, std::move(userInfo));
}

void storeError(CFErrorRef* slot, std::string_view sentence)
{
    if (slot)
        *slot = toC<CFErrorRef>(makeError(sentence).leakRef());
}

int printStatus(const std::string& text) { return std::fprintf(stdout, sentences::kStatusFormat, text.c_str()); }

int printError(const std::string& text) { return std::fprintf(stdout, sentences::kErrorFormat, text.c_str()); }

void assertionFailed(const char* text, const char* function) noexcept
{
    std::fprintf(stderr, "Assertion failed: (%s), function %s.\n", text, function);
    std::abort();
}

} // namespace vnt

extern "C" {

CFErrorRef createError(CFStringRef message)
{
    const auto* text = vnt::fromC<vnt::String>(message);
    return vnt::toC<CFErrorRef>(vnt::makeError(text ? text->str() : std::string()).leakRef());
}

int printRumbelError(CFStringRef message)
{
    const auto* text = vnt::fromC<vnt::String>(message);
    return vnt::printError(text ? text->str() : "(null)");
}

int printRumbelStatus(CFStringRef message)
{
    const auto* text = vnt::fromC<vnt::String>(message);
    return vnt::printStatus(text ? text->str() : "(null)");
}
}
