#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "bundle/Remarks.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// The module of the kernel's own code.
inline constexpr const char* kKernelName = "[kernel]";

/// The names of the kernel addresses that a recording holds, from the kernel's signature. Untrusted input.
class KernelSymbols {
public:
    KernelSymbols() = default;
    static KernelSymbols read(const Dictionary& signature, Remarks& remarks);

    struct Symbol {
        uint64_t start = 0;
        // Both valid as long as the table:
        const std::string* name = nullptr;
        const std::string* module = nullptr; ///< "[kernel]", or of a loadable module "[its name]"
    };
    [[nodiscard]] std::optional<Symbol> find(uint64_t address) const;
    [[nodiscard]] const std::string& release() const { return _release; }

private:
    struct Entry {
        uint64_t start = 0;
        std::string name;
        std::string module;
    };
    static Entry entryOf(uint64_t start, const std::string& text);

    std::vector<Entry> _entries; // ascending
    std::string _release;
};

} // namespace vnt
