#include "collectors/stacks/DumpSize.h"

#include <algorithm>
#include <iterator>

namespace vnt {
namespace {

constexpr uint64_t kBytesPerSecond = 100'000'000;
constexpr uint64_t kEnough = 32; // samples, to tell a need from chance
constexpr uint64_t kFewCut = 4; // of less than those: no chance either
constexpr uint64_t kMostToShrink = 1u << 20;
constexpr uint64_t kOftenCut = 100; // one stack of so many
constexpr uint64_t kRarelyCut = 200;

} // namespace

DumpSize::DumpSize(uint64_t intervalNs, size_t ringBytes) : _samplesToShrink(kEnough)
{
    while (_largest + 1 < kSizeCount && kSizes[_largest + 1] * uint64_t{1'000'000'000} / intervalNs <= kBytesPerSecond
           && kSizes[_largest + 1] <= ringBytes / 16)
        ++_largest;
    const auto* usual = std::find(kSizes, kSizes + kSizeCount, kUsual);
    _index = std::min(_largest, static_cast<size_t>(usual - kSizes));
}

void DumpSize::noteNeed(size_t neededBytes)
{
    const auto* size = std::lower_bound(kSizes, kSizes + kSizeCount, neededBytes);
    ++_needs[size - kSizes];
    ++_samples;
}

void DumpSize::noteCut(size_t dumpBytes)
{
    if (dumpBytes < bytes())
        return; // taken before the size grew
    ++_cut;
    ++_samples;
}

bool DumpSize::review()
{
    if (_samples < kEnough && _cut < kFewCut)
        return false;
    _isKnown = _isKnown || _samples >= kEnough;
    if (_cut * kOftenCut > _samples) {
        if (_index == _largest) {
            startOver();
            return false;
        }
        ++_index;
        _samplesToShrink = std::min(_samplesToShrink * 8, kMostToShrink);
        startOver();
        return true;
    }
    if (_samples < _samplesToShrink)
        return false;
    uint64_t tooShort = _cut + _needs[kSizeCount];
    size_t wanted = kSizeCount - 1;
    while (wanted > 0 && (tooShort + _needs[wanted]) * kRarelyCut <= _samples)
        tooShort += _needs[wanted--];
    startOver();
    if (wanted >= _index)
        return false;
    _index = wanted;
    return true;
}

void DumpSize::startOver()
{
    std::fill(std::begin(_needs), std::end(_needs), 0);
    _cut = _samples = 0;
}

} // namespace vnt
