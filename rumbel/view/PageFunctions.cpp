#include "rumbel/view/PageFunctions.h"

#include <nlohmann/json.hpp>

#include "rumbel/report/printable.h"

namespace vnt::view {

std::string pageText(std::string_view text, size_t maxBytes)
{
    // Cut first: a name of megabytes is not even looked at whole. One character has at most four bytes.
    const bool isLong = text.size() > maxBytes;
    std::string shown = printable(isLong ? text.substr(0, maxBytes) : text);
    if (shown.size() > maxBytes || isLong) {
        size_t end = shown.size() > maxBytes ? maxBytes : shown.size();
        while (end > 0 && end < shown.size() && (static_cast<uint8_t>(shown[end]) & 0xc0) == 0x80)
            --end;
        shown.resize(end);
        shown += "…";
    }
    return shown;
}

uint32_t PageFunctions::moduleNumber(const Symbol& symbol)
{
    const std::string path = pageText(symbol.path);
    const auto [found, isNew] =
        _moduleNumbers.try_emplace(path + '\n' + symbol.module, static_cast<uint32_t>(_moduleNames.size()));
    if (isNew) {
        _moduleNames.push_back(pageText(symbol.module));
        _modulePaths.push_back(path);
    }
    return found->second;
}

uint32_t PageFunctions::number(const Symbol& symbol)
{
    const uint32_t module = moduleNumber(symbol);
    // 0 to 3: the symbol's kind; 4 more in the kernel.
    const uint32_t kind = static_cast<uint32_t>(symbol.kind) + (symbol.isKernel ? 4 : 0);
    std::string name = pageText(symbol.function);
    std::string key = std::to_string(module) + ' ' + std::to_string(kind) + ' ' + name;
    const auto known = _numbers.find(key);
    if (known != _numbers.end())
        return known->second;
    if (_names.size() == kMaxFunctions - 1)
        name = "[further functions]";
    else if (_names.size() >= kMaxFunctions)
        return kMaxFunctions - 1;
    const auto number = static_cast<uint32_t>(_names.size());
    _names.push_back(std::move(name));
    _modules.push_back(module);
    _kinds.push_back(kind);
    _numbers.emplace(std::move(key), number);
    return number;
}

nlohmann::ordered_json PageFunctions::json(PageColumns& columns) const
{
    return {{"names", _names},
            {"module", columns.add(_modules)},
            {"kind", columns.add(_kinds)},
            {"moduleNames", _moduleNames},
            {"modulePaths", _modulePaths}};
}

uint32_t PageSymbols::function(uint32_t symbol)
{
    if (symbol >= _known.size())
        _known.resize(_symbolizer.symbolCount(), kUnknown);
    if (_known[symbol] == kUnknown)
        _known[symbol] = _functions.number(_symbolizer.symbol(symbol));
    return _known[symbol];
}

} // namespace vnt::view
