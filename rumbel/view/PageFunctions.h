#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Symbolizer.h"
#include "rumbel/view/PageColumns.h"

namespace vnt::view {

/// The functions of a page. Each instrument has a symbolizer of its own; here the same function is one number whatever
/// instrument saw it. Names come from foreign files: they are made printable and cut. One thread.
class PageFunctions {
public:
    static constexpr size_t kMaxNameBytes = 512; ///< longer ones end in an ellipsis
    static constexpr size_t kMaxFunctions = 200'000; ///< further ones share one number

    uint32_t number(const Symbol& symbol);
    [[nodiscard]] size_t count() const { return _names.size(); }
    [[nodiscard]] const std::string& name(uint32_t number) const { return _names[number]; }
    [[nodiscard]] nlohmann::ordered_json json(PageColumns& columns) const;

private:
    uint32_t moduleNumber(const Symbol& symbol);

    std::unordered_map<std::string, uint32_t> _numbers; ///< by module number, kind and name
    std::vector<std::string> _names;
    std::vector<uint32_t> _modules; ///< of each function
    std::vector<uint32_t> _kinds;
    std::unordered_map<std::string, uint32_t> _moduleNumbers; ///< by path and name
    std::vector<std::string> _moduleNames;
    std::vector<std::string> _modulePaths;
};

/// One symbolizer's symbols as functions of the page; remembers what it was asked. Both outlive it.
class PageSymbols {
public:
    PageSymbols(Symbolizer& symbolizer, PageFunctions& functions) : _symbolizer(symbolizer), _functions(functions) { }

    [[nodiscard]] Symbolizer& symbolizer() const { return _symbolizer; }
    uint32_t function(uint32_t symbol);

private:
    static constexpr uint32_t kUnknown = ~0u;
    Symbolizer& _symbolizer;
    PageFunctions& _functions;
    std::vector<uint32_t> _known; ///< by symbol
};

/// Text of a recording for the page: printable, and at most `maxBytes` long.
[[nodiscard]] std::string pageText(std::string_view text, size_t maxBytes = PageFunctions::kMaxNameBytes);

} // namespace vnt::view
