#include "bundle/Demangle.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

#include "bundle/RustDemangle.h"

namespace vnt {

namespace {

/// A name grows only through references to its earlier parts (S_, S1_, T_, …): with r of them the text is at most about
/// e^(r/e) times the name, so these two limits keep it below 64 MiB. Of 87,000 names in three large C++ libraries, 12
/// pass them.
constexpr size_t kMaxMangledBytes = 2048;
constexpr size_t kMaxReferences = 28;
/// A pack expansion repeats its pattern for every element: it weighs as much as several references.
constexpr size_t kReferencesOfPackExpansion = 4;

constexpr std::string_view kPltSuffix = "@plt";

bool growsWithinReason(std::string_view name)
{
    if (name.size() > kMaxMangledBytes)
        return false;
    size_t references = 0;
    for (size_t i = 0; i + 1 < name.size(); ++i) {
        if (name.substr(i, 2) == "Dp" || name.substr(i, 2) == "sp") {
            references += kReferencesOfPackExpansion;
        } else if (name[i] == 'S' || name[i] == 'T') {
            size_t end = i + 1;
            while (end < name.size()
                   && ((name[end] >= '0' && name[end] <= '9') || (name[end] >= 'A' && name[end] <= 'Z')))
                ++end;
            references += end < name.size() && name[end] == '_';
        }
    }
    return references <= kMaxReferences;
}

} // namespace

std::string demangled(std::string_view name)
{
    // The table's own "@plt" stays, the file's "@VERSION" goes.
    const bool isPlt = name.ends_with(kPltSuffix);
    const size_t version = name.find('@');
    std::string plain(name.substr(0, version == 0 ? name.size() : version));
    const auto suffix = isPlt ? kPltSuffix : std::string_view();
    if (plain.size() <= kMaxMangledBytes) {
        if (const auto rust = rustDemangled(plain))
            return *rust + std::string(suffix);
    }
    if (!plain.starts_with("_Z") || !growsWithinReason(plain))
        return plain.append(suffix);
    int status = 0;
    const std::unique_ptr<char, decltype(&std::free)> text(
        abi::__cxa_demangle(plain.c_str(), nullptr, nullptr, &status), &std::free);
    return (text && status == 0 ? std::string(text.get()) : plain).append(suffix);
}

} // namespace vnt
