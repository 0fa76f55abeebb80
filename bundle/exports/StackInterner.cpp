#include "bundle/exports/StackInterner.h"

#include <cinttypes>
#include <cstdio>

namespace vnt {

namespace {

/// Kept answers; made again when needed. Programs have thousands of stacks and some 100,000 addresses.
constexpr size_t kMaxKnown = 1u << 20;
/// x86 kernel addresses are the upper half of the address space.
constexpr uint64_t kFirstKernelAddress = uint64_t{1} << 63;
/// Where the kernel's own code is linked on x86 (Documentation/arch/x86/x86_64/mm.rst). Offsets from there instead of
/// addresses: programs that read exports hold numbers of 53 bits.
constexpr uint64_t kKernelTextStart = 0xffffffff80000000;

} // namespace

uint32_t StackInterner::remember(uint64_t key, const Known& known)
{
    if (_known.size() >= kMaxKnown)
        _known.clear();
    _known[key] = known;
    return known.stack;
}

StackInterner::Known StackInterner::intern(uint32_t pid, uint64_t timeNs, Innermost innermost, bool isWhole)
{
    Known known;
    if (!isWhole)
        known.stack = _table.addStack(0, StackTable::kTruncated);
    for (size_t i = _addresses.size(); i-- > 0;) {
        // Where user code entered the kernel, its address is the interrupted instruction, not a return address.
        const bool isExact = i == 0 ? innermost == Innermost::kExact
                                    : _addresses[i] < kFirstKernelAddress && _addresses[i - 1] >= kFirstKernelAddress;
        const KnownLocation found =
            locate(pid, _addresses[i], timeNs, isExact ? FrameRole::kExact : FrameRole::kReturn);
        known.stack = _table.addStack(known.stack, found.location);
        known.valid.narrow(found.valid);
    }
    if (known.stack == 0)
        known.stack = _table.addStack(0, StackTable::kUnknown);
    return known;
}

StackInterner::KnownLocation StackInterner::locate(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    const uint64_t owner = address >= kFirstKernelAddress ? 0 : pid;
    const AddressKey key{address, owner << 1 | static_cast<uint64_t>(role)};
    const auto found = _locations.find(key);
    if (found != _locations.end() && found->second.valid.contains(timeNs))
        return found->second;
    KnownLocation known;
    known.valid = _symbolizer.resolve(pid, address, timeNs, role).valid;
    known.location = newLocation(pid, address, timeNs, role);
    if (_locations.size() >= kMaxKnown)
        _locations.clear();
    _locations[key] = known;
    return known;
}

uint32_t StackInterner::newLocation(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role)
{
    const Symbolizer::Place place = _symbolizer.place(pid, address, timeNs, role);
    ExportLocation location;
    location.isKernel = place.isKernel;
    if (place.isKernel) {
        const uint64_t at = address - (role == FrameRole::kReturn ? 1 : 0);
        location.fileOffset = location.address = at >= kKernelTextStart ? at - kKernelTextStart : 0;
        location.module = moduleOf(place);
    } else if (place.isKnown) {
        location.fileOffset = place.fileOffset;
        location.address = place.linkedAddress;
        location.module = moduleOf(place);
    }
    std::vector<ExportLine> lines;
    for (const SourceFrame& frame : _symbolizer.frames(pid, address, timeNs, role))
        lines.push_back({functionOf(frame.symbol, location), _table.strings().add(frame.file), frame.line});
    return _table.addLocation(location, lines);
}

uint32_t StackInterner::functionOf(uint32_t number, const ExportLocation& location)
{
    const Symbol& symbol = _symbolizer.symbol(number);
    if (symbol.kind == Symbol::Kind::kTruncated)
        return StackTable::kTruncated;
    if (symbol.kind == Symbol::Kind::kNoStack || location.module == kNoModule)
        return StackTable::kUnknown;
    ExportFunction function;
    function.module = location.module;
    function.isKernel = location.isKernel;
    if (symbol.kind == Symbol::Kind::kFunction && !symbol.function.empty()) {
        function.name = _table.strings().add(symbol.function);
    } else {
        char offset[24];
        std::snprintf(offset, sizeof offset, "+0x%" PRIx64, location.address);
        function.isPlaceholder = true;
        function.name = _table.strings().add(symbol.module + offset);
    }
    return _table.addFunction(function);
}

uint32_t StackInterner::moduleOf(const Symbolizer::Place& place)
{
    ExportModule module;
    if (place.isKernel) {
        module.path = module.name = _table.strings().add("[kernel.kallsyms]");
        module.start = kKernelTextStart;
        module.sizeBytes = ~kKernelTextStart;
        module.isKernel = true;
        return _table.addModule(std::move(module));
    }
    const Module& file = _symbolizer.module(place.module);
    module.path = _table.strings().add(file.path);
    module.name = _table.strings().add(file.name);
    module.buildId = file.buildId;
    module.start = place.imageStart;
    module.sizeBytes = place.imageBytes;
    module.fileOffset = place.imageOffset;
    module.loadBias = static_cast<int64_t>(place.linkedAddress - place.fileOffset);
    return _table.addModule(std::move(module));
}

} // namespace vnt
