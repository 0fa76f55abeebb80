#include "collectors/unwind/StackUnwinder.h"

#include "collectors/unwind/StackWalk.h"

namespace vnt {
namespace {

constexpr size_t kCacheEntries = 1u << 16; // 2 MiB; a large program shows some 10,000 code addresses
constexpr size_t kMostGeneral = 1u << 14; // some 300 bytes each; a process has a few hundred at most

size_t slotOf(uint64_t address, uint64_t version)
{
    uint64_t mixed = (address ^ version << 40) * 0x9e3779b97f4a7c15U;
    mixed ^= mixed >> 32;
    return static_cast<size_t>(mixed) & (kCacheEntries - 1);
}

/// Copies an expression that `place` points to, so that it outlives its module.
void copyExpression(frames::Place& place, std::vector<uint8_t>& expressions, size_t& offset)
{
    offset = expressions.size();
    if (place.expression)
        expressions.insert(expressions.end(), place.expression, place.expression + place.expressionBytes);
}

} // namespace

StackUnwinder::Outcome StackUnwinder::unwind(const Sample& sample, std::vector<uint64_t>& frames)
{
    return StackWalk(*this, sample, frames).run();
}

UnwindStep StackUnwinder::ruleAt(AddressSpace& space, uint64_t address)
{
    if (_cache.empty())
        _cache.resize(kCacheEntries);
    const CacheEntry& entry = _cache[slotOf(address, space.version)];
    if (entry.address == address && entry.space == space.version)
        return entry.rule;
    const UnwindStep rule = findRule(space, address);
    _cache[slotOf(address, space.version)] = {address, space.version, rule}; // finding it may have changed the space
    return rule;
}

UnwindStep StackUnwinder::findRule(AddressSpace& space, uint64_t address)
{
    auto* mapping = space.find(address);
    if (!mapping && _spaces.refresh(space))
        mapping = space.find(address);
    if (!mapping)
        return {};
    UnwindStep unknown;
    unknown.kind = UnwindStep::kUnknown;
    const ModuleFrames* module = moduleOf(space.pid, *mapping);
    frames::Row row;
    bool isSignalFrame = false;
    if (!module || !module->rowAt(address + mapping->bias, row, isSignalFrame))
        return unknown;
    return compact(row, isSignalFrame, module->machine());
}

const ModuleFrames* StackUnwinder::moduleOf(pid_t pid, AddressSpace::Mapping& mapping)
{
    const ModuleFrames* module = _modules.frames(mapping.module);
    if (module || (mapping.opened && mapping.module == ModuleTable::kNone))
        return module;
    mapping.opened = true;
    mapping.module = _modules.open(pid, mapping.start, mapping.end - mapping.start, mapping.path);
    module = _modules.frames(mapping.module);
    if (!module)
        return nullptr;
    const auto linked = module->linkedAddress(mapping.fileOffset);
    if (!linked) {
        mapping.module = ModuleTable::kNone;
        return nullptr;
    }
    mapping.bias = *linked - mapping.start;
    return module;
}

UnwindStep StackUnwinder::compact(const frames::Row& row, bool isSignalFrame, const frames::Machine& machine)
{
    using Place = frames::Place;
    UnwindStep rule;
    rule.isSignalFrame = isSignalFrame;
    if (row.returnAddress.kind == Place::kUndefined) {
        rule.kind = UnwindStep::kOutermost;
        return rule;
    }
    const bool fromStack =
        row.canonical.kind == Place::kRegister && row.canonical.offset == int64_t{machine.stackRegister};
    const bool fromFrame =
        row.canonical.kind == Place::kRegister && row.canonical.offset == int64_t{machine.frameRegister};
    const bool saved = row.frame.kind == Place::kSaved;
    const bool kept = row.frame.kind == Place::kSame || row.frame.kind == Place::kUndefined;
    if ((!fromStack && !fromFrame) || (!saved && !kept) || row.returnAddress.kind != Place::kSaved
        || row.returnAddress.offset != -int64_t{machine.wordBytes} || row.canonicalOffset < 0
        || row.canonicalOffset > INT32_MAX
        || (saved && (row.frame.offset <= INT16_MIN || row.frame.offset > INT16_MAX)))
        return keepGeneral(row, isSignalFrame);
    rule.kind = fromStack ? UnwindStep::kFromStackPointer : UnwindStep::kFromFramePointer;
    rule.offset = static_cast<int32_t>(row.canonicalOffset);
    rule.savedFrame = saved ? static_cast<int16_t>(row.frame.offset) : UnwindStep::kNotSaved;
    return rule;
}

UnwindStep StackUnwinder::keepGeneral(const frames::Row& row, bool isSignalFrame)
{
    if (_general.size() >= kMostGeneral) {
        _general.clear();
        _cache.assign(kCacheEntries, {});
    }
    GeneralRule& kept = _general.emplace_back();
    kept.row = row;
    size_t offsets[3];
    frames::Place* const places[] = {&kept.row.canonical, &kept.row.frame, &kept.row.returnAddress};
    for (size_t i = 0; i < 3; ++i)
        copyExpression(*places[i], kept.expressions, offsets[i]);
    for (size_t i = 0; i < 3; ++i)
        places[i]->expression = places[i]->expression ? kept.expressions.data() + offsets[i] : nullptr;
    UnwindStep rule;
    rule.kind = UnwindStep::kGeneral;
    rule.isSignalFrame = isSignalFrame;
    rule.offset = static_cast<int32_t>(_general.size() - 1);
    return rule;
}

} // namespace vnt
