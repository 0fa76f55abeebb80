#include "bundle/KernelSymbols.h"

#include <algorithm>

#include "records/Signature.h"

namespace vnt {

namespace {
/// Only the symbols that were hit are recorded, so the nearest one below an address may be a stranger. No kernel
/// function is this large.
constexpr uint64_t kMaxFunctionBytes = 1u << 20;
} // namespace

/// `text` is "name", or "name [module]" for code of a loadable module.
KernelSymbols::Entry KernelSymbols::entryOf(uint64_t start, const std::string& text)
{
    const size_t blank = text.find(" [");
    if (blank == std::string::npos || !text.ends_with(']'))
        return {start, text, kKernelName};
    return {start, text.substr(0, blank), text.substr(blank + 1)};
}

KernelSymbols KernelSymbols::read(const Dictionary& signature, Remarks& remarks)
{
    KernelSymbols kernel;
    if (const auto release = signature.get<String>(signature::kKernelRelease))
        kernel._release = release->str();
    const auto symbols = signature.get<Array>(signature::kKernelSymbols);
    if (!symbols)
        return kernel;
    bool damaged = symbols->count() % 2 != 0;
    for (size_t i = 0; i + 1 < symbols->count(); i += 2) {
        const auto address = as<Number>(symbols->at(i));
        const auto name = as<String>(symbols->at(i + 1));
        if (address && name)
            kernel._entries.push_back(entryOf(address->uint64Value(), name->str()));
        else
            damaged = true;
    }
    if (damaged)
        remarks.add("the recorded kernel symbols are damaged");
    std::stable_sort(kernel._entries.begin(), kernel._entries.end(),
                     [](const Entry& a, const Entry& b) { return a.start < b.start; });
    return kernel;
}

std::optional<KernelSymbols::Symbol> KernelSymbols::find(uint64_t address) const
{
    auto next = std::upper_bound(_entries.begin(), _entries.end(), address,
                                 [](uint64_t value, const Entry& entry) { return value < entry.start; });
    if (next == _entries.begin())
        return std::nullopt;
    --next;
    if (address - next->start >= kMaxFunctionBytes)
        return std::nullopt;
    return Symbol{next->start, &next->name, &next->module};
}

} // namespace vnt
