#include "collectors/heap/TimeScale.h"

#include <x86intrin.h>

#include <string>

#include "platform/base/sys.h"

namespace vnt {
namespace {

constexpr uint64_t kFirstSpanNs = 2'000'000;
/// Over shorter spans the reading itself would show.
constexpr uint64_t kShortestSpanNs = 50'000;

/// Two flags of /proc/cpuinfo: the counter runs at one rate, also in sleep states.
bool counterIsEven()
{
    const auto info = sys::readFile("/proc/cpuinfo", size_t{4} << 20);
    return info.ok() && info.value().find(" constant_tsc") != std::string::npos
        && info.value().find(" nonstop_tsc") != std::string::npos;
}

} // namespace

TimeScale::TimeScale() : _usesTsc(counterIsEven())
{
    if (!_usesTsc)
        return;
    const uint64_t ticks = __rdtsc();
    const uint64_t ns = sys::monotonicNs();
    uint64_t later = ns;
    while (later - ns < kFirstSpanNs)
        later = sys::monotonicNs();
    _ticks = __rdtsc();
    _ns = later;
    _nsPerTick = static_cast<double>(later - ns) / static_cast<double>(_ticks - ticks);
}

uint64_t TimeScale::advance()
{
    if (!_usesTsc)
        return _ticks = _ns = sys::monotonicNs();
    const uint64_t before = __rdtsc();
    const uint64_t ns = sys::monotonicNs();
    const uint64_t ticks = before + (__rdtsc() - before) / 2;
    if (ns - _ns >= kShortestSpanNs) {
        _nsPerTick = static_cast<double>(ns - _ns) / static_cast<double>(ticks - _ticks);
        _ticks = ticks;
        _ns = ns;
    }
    return ticks;
}

} // namespace vnt
