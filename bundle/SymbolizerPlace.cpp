#include "bundle/Demangle.h"
#include "bundle/Symbolizer.h"

namespace vnt {

Symbolizer::Place Symbolizer::place(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    Place place;
    if (address >> 63 != 0) { // x86 kernel addresses are the upper half of the address space
        place.isKernel = true;
        return place;
    }
    const ProcessImages* images = process(pid);
    const uint64_t back = role == FrameRole::kReturn && address != 0 ? 1 : 0;
    const ProcessImages::Location location =
        images ? images->locate(address - back, timeNs) : ProcessImages::Location();
    if (!location.known)
        return place;
    place.isKnown = true;
    place.module = location.module;
    place.fileOffset = location.fileOffset;
    place.linkedAddress =
        _modules.loaded(location.module).loadMap.linkedAddress(location.fileOffset).value_or(location.fileOffset);
    place.imageStart = location.imageStart;
    place.imageBytes = location.imageBytes;
    place.imageOffset = location.imageOffset;
    return place;
}

namespace {

/// Stored symbols are found by the offset of their code in the file. Virtual tables, which are data, stand behind all
/// that a file can have, at their distance from its code.
constexpr uint64_t kTables = uint64_t{1} << 62;
constexpr size_t kMaxClasses = 1u << 20; ///< kept; a program of the largest kind has some 100,000
constexpr std::string_view kTableOf = "vtable for ";

} // namespace

std::string Symbolizer::classOfFile(uint32_t number, uint64_t codeOffset, uint64_t behindCode)
{
    const auto code = _modules.loaded(number).loadMap.linkedAddress(codeOffset);
    const VirtualTables* tables = code ? _modules.virtualTables(number) : nullptr;
    const std::string_view name = tables ? tables->find(*code + behindCode) : std::string_view();
    std::string readable = name.empty() ? std::string() : demangled(name);
    if (readable.starts_with(kTableOf))
        readable.erase(0, kTableOf.size());
    return readable;
}

std::string_view Symbolizer::className(uint32_t pid, uint64_t table, uint64_t code, uint64_t timeNs)
{
    const ProcessImages* images = process(pid);
    const ProcessImages::Location location = images ? images->locate(code, timeNs) : ProcessImages::Location();
    if (!location.known)
        return {};
    const uint64_t behindCode = table - code; // or before it: all wraps
    const uint64_t place = kTables | ((location.fileOffset + behindCode) & (kTables - 1));
    const SymbolKey key{location.module, place};
    if (const auto known = _classes.find(key); known != _classes.end())
        return known->second;
    if (_classes.size() >= kMaxClasses)
        return {};
    const Module& module = _modules.module(location.module);
    const StoredSymbols::Address* stored = module.stored ? module.stored->find(place, FrameRole::kExact) : nullptr;
    std::string name;
    if (!stored || _sources.collector)
        name = classOfFile(location.module, location.fileOffset, behindCode);
    if (stored && name.empty())
        name = module.stored->functions[stored->function].name;
    if (_sources.collector && !name.empty())
        _sources.collector->add({module.path, module.buildId, module.is64Bit}, place, FrameRole::kExact,
                                {name, StoredSymbols::FunctionKind::kFunction, place}, {});
    return _classes.emplace(key, std::move(name)).first->second;
}

} // namespace vnt
