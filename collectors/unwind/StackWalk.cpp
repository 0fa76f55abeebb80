#include "collectors/unwind/StackWalk.h"

#include <algorithm>

namespace vnt {
namespace {

constexpr uint64_t kLowestCode = 4096; // below it nothing is ever mapped (vm.mmap_min_addr)
constexpr size_t kMostTails = 4096; // of one process; a handful is usual

} // namespace

StackWalk::StackWalk(StackUnwinder& unwinder, const StackUnwinder::Sample& sample, std::vector<uint64_t>& frames)
    : _unwinder(unwinder),
      _sample(sample),
      _space(unwinder.spaces().of(sample.pid)),
      _frames(frames),
      _first(frames.size()),
      _machine(sample.is64Bit ? frames::kX86_64 : frames::kX86),
      _word(_machine.wordBytes),
      _registers(sample.registers),
      _dump(sample.registers.get(_machine.stackRegister).value_or(0), sample.stack.data(), sample.stack.size(),
            _machine.wordBytes),
      _left(unwinder.scratch())
{
    _left.clear();
}

bool StackWalk::push(uint64_t address)
{
    if (count() >= _sample.maxFrames)
        return false;
    _frames.push_back(address);
    return true;
}

StackUnwinder::Outcome StackWalk::run()
{
    const auto start = _registers.get(_machine.returnRegister);
    if (!start || !_registers.get(_machine.stackRegister))
        return {};
    push(*start);
    for (;;) {
        const uint64_t code = *_registers.get(_machine.returnRegister);
        const UnwindStep rule = _unwinder.ruleAt(_space, _called ? code - 1 : code);
        if (rule.kind == UnwindStep::kNoCode && count() > 1) {
            _frames.pop_back(); // it was no code address
            return {End::kBroken, _dump.reach()};
        }
        _left.push_back({keepsFramePointer(rule), _registers.get(_machine.frameRegister).value_or(0), _dump.reach()});
        const Step step = stepOut(rule);
        if (step == Step::kDone)
            return {End::kOutermost, learn()};
        if (step == Step::kFailed) {
            if (!_dump.wentBeyond())
                return {End::kBroken, _dump.reach()};
            const size_t reach = _dump.reach();
            return {finishByChain(rule), reach};
        }
        // Readers take an outer address for a return address, which belongs to the byte before it.
        if (!push(*_registers.get(_machine.returnRegister) + (_called ? 0 : 1)))
            return {End::kTooDeep, _dump.reach()};
    }
}

StackWalk::Step StackWalk::stepOut(const UnwindStep& rule)
{
    switch (rule.kind) {
    case UnwindStep::kOutermost:
        return Step::kDone;
    case UnwindStep::kUnknown:
        return stepByFramePointer();
    case UnwindStep::kGeneral:
        return stepGeneral(_unwinder.general(rule), rule.isSignalFrame);
    case UnwindStep::kNoCode: {
        // A call of what is no function: its caller's address was pushed, and that is all.
        const uint64_t canonical = *_registers.get(_machine.stackRegister) + _word;
        return leaveTo(canonical, _dump.read(canonical - _word), _registers.get(_machine.frameRegister));
    }
    default:
        break;
    }
    const bool fromStack = rule.kind == UnwindStep::kFromStackPointer;
    const auto base = _registers.get(fromStack ? _machine.stackRegister : _machine.frameRegister);
    const uint64_t canonical = base.value_or(0) + static_cast<uint64_t>(int64_t{rule.offset});
    auto frame = _registers.get(_machine.frameRegister);
    if (rule.savedFrame != UnwindStep::kNotSaved)
        frame = _dump.read(canonical + static_cast<uint64_t>(int64_t{rule.savedFrame}));
    return leaveTo(canonical, _dump.read(canonical - _word), frame);
}

/// The caller's registers. The stack grows down: an outer frame is never farther in.
StackWalk::Step StackWalk::leaveTo(uint64_t canonical, std::optional<uint64_t> code, std::optional<uint64_t> frame)
{
    if (!code || !frame || canonical <= *_registers.get(_machine.stackRegister))
        return Step::kFailed;
    if (*code < kLowestCode)
        return Step::kDone;
    _registers.known = 0; // what else the caller had in registers is not followed
    _registers.set(_machine.returnRegister, *code);
    _registers.set(_machine.stackRegister, canonical);
    _registers.set(_machine.frameRegister, *frame);
    _called = true;
    return Step::kOn;
}

StackWalk::Step StackWalk::stepByFramePointer()
{
    const uint64_t frame = _registers.get(_machine.frameRegister).value_or(0);
    if (frame == 0)
        return Step::kDone;
    return leaveTo(frame + 2 * _word, _dump.read(frame + _word), _dump.read(frame));
}

std::optional<uint64_t> StackWalk::valueOf(const frames::Place& place, uint64_t canonical, uint64_t same)
{
    using frames::Place;
    switch (place.kind) {
    case Place::kSame:
    case Place::kUndefined:
        return same;
    case Place::kSaved:
        return _dump.read(canonical + static_cast<uint64_t>(place.offset));
    case Place::kValue:
        return canonical + static_cast<uint64_t>(place.offset);
    case Place::kRegister:
        return _registers.get(static_cast<uint64_t>(place.offset));
    case Place::kValueByExpression:
        return evaluate(place.expression, place.expressionBytes, _registers, _dump, canonical);
    case Place::kSavedByExpression: {
        const auto where = evaluate(place.expression, place.expressionBytes, _registers, _dump, canonical);
        return where ? _dump.read(*where) : std::nullopt;
    }
    }
    return std::nullopt;
}

StackWalk::Step StackWalk::stepGeneral(const frames::Row& row, bool isSignalFrame)
{
    const frames::Place& at = row.canonical;
    std::optional<uint64_t> canonical;
    if (at.kind == frames::Place::kRegister) {
        if (const auto base = _registers.get(static_cast<uint64_t>(at.offset)))
            canonical = *base + static_cast<uint64_t>(row.canonicalOffset);
    } else if (at.kind == frames::Place::kValueByExpression) {
        canonical = evaluate(at.expression, at.expressionBytes, _registers, _dump, std::nullopt);
    }
    if (!canonical)
        return Step::kFailed;
    const auto code = valueOf(row.returnAddress, *canonical, 0);
    const auto frame = valueOf(row.frame, *canonical, _registers.get(_machine.frameRegister).value_or(0));
    const Step step = leaveTo(*canonical, code, frame);
    if (isSignalFrame)
        _called = false;
    return step;
}

bool StackWalk::keepsFramePointer(const UnwindStep& rule) const
{
    const auto twoWords = static_cast<int32_t>(2 * _word);
    return rule.kind == UnwindStep::kUnknown
        || (rule.kind == UnwindStep::kFromFramePointer && rule.offset == twoWords && rule.savedFrame == -twoWords);
}

std::optional<size_t> StackWalk::followedTo(uint64_t frame, size_t bytes)
{
    const uint64_t low = _sample.registers.get(_machine.stackRegister).value_or(0);
    uint64_t at = _sample.registers.get(_machine.frameRegister).value_or(0);
    size_t followed = 0;
    while (at < frame && at >= low && at - low + _word <= bytes && followed < _sample.chain.size()) {
        const auto next = _dump.read(at);
        if (!next || *next <= at)
            return std::nullopt;
        at = *next;
        ++followed;
    }
    if (at != frame)
        return std::nullopt;
    return followed;
}

/// The copy of the stack ends. The kernel's chain continues it where the frame at hand and all outer ones but those
/// around main keep frame pointers.
StackWalk::End StackWalk::finishByChain(const UnwindStep& rule)
{
    const auto frame = _registers.get(_machine.frameRegister);
    const auto followed = frame && keepsFramePointer(rule) ? followedTo(*frame, _sample.stack.size()) : std::nullopt;
    if (!followed || 1 + *followed >= _sample.chain.size())
        return End::kStackMissing;
    for (size_t i = 1 + *followed; i < _sample.chain.size(); ++i) {
        const uint64_t address = _sample.chain[i];
        if (address < kLowestCode)
            return End::kOutermost;
        if (!push(address))
            return End::kTooDeep;
        const UnwindStep outer = _unwinder.ruleAt(_space, address - 1);
        if (outer.kind == UnwindStep::kOutermost)
            return End::kOutermost;
        if (!keepsFramePointer(outer))
            return finishByTail(address);
    }
    return _sample.chain.size() >= _sample.maxFrames ? End::kTooDeep : End::kOutermost;
}

StackWalk::End StackWalk::finishByTail(uint64_t address)
{
    const auto tail = _space.tails.find(address);
    if (tail == _space.tails.end() || tail->second.isAmbiguous)
        return End::kStackMissing;
    for (size_t i = 0; i < tail->second.count; ++i) {
        if (!push(tail->second.frames[i]))
            return End::kTooDeep;
    }
    return End::kOutermost;
}

/// At the end of a whole walk: remembers its outermost frames, and tells how many bytes of the stack would have done.
size_t StackWalk::learn()
{
    const size_t frames = count();
    const size_t all = _dump.reach();
    // Frame `last` is the outermost that was left by its frame pointer.
    size_t last = frames;
    while (last > 0 && !_left[last - 1].byFramePointer)
        --last;
    if (last-- == 0 || frames - last > StackTail::kMost + 2)
        return all;
    if (last + 1 < frames) {
        StackTail tail;
        tail.count = static_cast<uint8_t>(frames - last - 2);
        std::copy_n(_frames.begin() + static_cast<std::ptrdiff_t>(_first + last + 2), tail.count, tail.frames);
        if (_space.tails.size() >= kMostTails)
            _space.tails.clear();
        const auto [known, isNew] = _space.tails.try_emplace(_frames[_first + last + 1], tail);
        if (!isNew
            && (known->second.count != tail.count
                || !std::equal(tail.frames, tail.frames + tail.count, known->second.frames)))
            known->second.isAmbiguous = true;
        if (known->second.isAmbiguous)
            return all;
    }
    size_t begin = last;
    while (begin > 0 && _left[begin - 1].byFramePointer)
        --begin;
    const size_t needed = _left[begin].reach;
    return followedTo(_left[begin].frame, needed) ? needed : all;
}

} // namespace vnt
