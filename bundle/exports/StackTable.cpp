#include "bundle/exports/StackTable.h"

#include <algorithm>

namespace vnt {

namespace {

uint64_t pairKey(uint32_t high, uint32_t low) { return uint64_t{high} << 32 | low; }

uint64_t mixed(uint64_t hash, uint64_t value)
{
    hash = (hash ^ value) * 0x9e3779b97f4a7c15ULL;
    return hash ^ hash >> 29;
}

} // namespace

StackTable::StackTable(Remarks& remarks, size_t maxStacks) : _remarks(remarks), _maxStacks(maxStacks)
{
    for (const char* name : {"[unknown]", "[truncated]"}) {
        ExportFunction function;
        function.name = _strings.add(name);
        function.isPlaceholder = true;
        const uint32_t number = addFunction(function);
        (void)addLocation({}, {{number, 0, 0}});
    }
}

uint32_t StackTable::addModule(ExportModule module)
{
    const std::string key = std::to_string(module.path) + " " + std::to_string(module.fileOffset) + " "
        + std::to_string(module.sizeBytes) + " " + module.buildId;
    const auto [known, isNew] = _moduleNumbers.try_emplace(key, static_cast<uint32_t>(_modules.size()));
    if (isNew)
        _modules.push_back(std::move(module));
    return known->second;
}

uint32_t StackTable::addFunction(const ExportFunction& function)
{
    const auto [known, isNew] =
        _functionNumbers.try_emplace(pairKey(function.name, function.module), static_cast<uint32_t>(_functions.size()));
    if (isNew)
        _functions.push_back(function);
    return known->second;
}

uint32_t StackTable::addLocation(ExportLocation location, const std::vector<ExportLine>& lines)
{
    uint64_t hash = mixed(mixed(0, location.module), location.fileOffset);
    for (const ExportLine& line : lines)
        hash = mixed(hash, line.function);
    const auto isSame = [&](const ExportLocation& other) {
        if (other.module != location.module || other.fileOffset != location.fileOffset
            || other.lineCount != lines.size())
            return false;
        return std::equal(
            lines.begin(), lines.end(), _lines.begin() + other.firstLine,
            [](const ExportLine& a, const ExportLine& b) { return a.function == b.function && a.line == b.line; });
    };
    const auto [from, to] = _locationNumbers.equal_range(hash);
    for (auto at = from; at != to; ++at) {
        if (isSame(_locations[at->second]))
            return at->second;
    }
    const auto number = static_cast<uint32_t>(_locations.size());
    location.firstLine = static_cast<uint32_t>(_lines.size());
    location.lineCount = static_cast<uint32_t>(lines.size());
    _lines.insert(_lines.end(), lines.begin(), lines.end());
    _locations.push_back(location);
    _locationNumbers.emplace(hash, number);
    if (location.module == kNoModule)
        return number;
    ExportModule& module = _modules[location.module];
    for (const ExportLine& line : lines) {
        module.hasNames = module.hasNames || !_functions[line.function].isPlaceholder;
        module.hasLines = module.hasLines || line.line != 0;
    }
    module.hasInlined = module.hasInlined || lines.size() > 1;
    return number;
}

uint32_t StackTable::addStack(uint32_t caller, uint32_t location)
{
    const uint64_t key = pairKey(caller, location);
    const auto known = _stackNumbers.find(key);
    if (known != _stackNumbers.end())
        return known->second;
    if (_stacks.size() >= _maxStacks) {
        _remarks.add("too many different call paths: further ones are counted at their callers");
        return caller;
    }
    const auto number = static_cast<uint32_t>(_stacks.size());
    _stacks.push_back({caller, location});
    _stackNumbers.emplace(key, number);
    return number;
}

void StackTable::pathOf(uint32_t stack, std::vector<uint32_t>& locations) const
{
    locations.clear();
    for (; stack != 0; stack = _stacks[stack].caller)
        locations.push_back(_stacks[stack].location);
    std::reverse(locations.begin(), locations.end());
}

} // namespace vnt
