#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace vnt {

struct KernelSymbol {
    uint64_t address = 0;
    std::string name; ///< with " [module]" when it is a module's
};

/// The symbols that cover `addresses`, ascending, each once. Empty where the kernel hides its addresses
/// (kernel.kptr_restrict). Reading them takes about 50 ms.
std::vector<KernelSymbol> kernelSymbolsFor(std::vector<uint64_t> addresses);

/// The same over a kallsyms text.
std::vector<KernelSymbol> kernelSymbolsIn(const std::string& kallsyms, std::vector<uint64_t> addresses);

} // namespace vnt
