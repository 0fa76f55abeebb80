#pragma once

#include <cstdint>

namespace vnt {

/// Turns the journal's clock into CLOCK_MONOTONIC: the processors' time-stamp counter where it runs evenly on all of
/// them, else that clock itself. Between two calls of advance() time is a straight line, so nothing drifts. One thread.
class TimeScale {
public:
    TimeScale();

    [[nodiscard]] bool usesTsc() const { return _usesTsc; }
    /// Reads both clocks. The present moment, in ticks.
    uint64_t advance();
    /// Of a moment before the last advance(); a later one is taken for it.
    [[nodiscard]] uint64_t toNs(uint64_t ticks) const
    {
        if (!_usesTsc || ticks >= _ticks)
            return ticks >= _ticks ? _ns : ticks;
        const double before = static_cast<double>(_ticks - ticks) * _nsPerTick;
        return before < static_cast<double>(_ns) ? _ns - static_cast<uint64_t>(before) : 0;
    }
    [[nodiscard]] uint64_t ticksOf(uint64_t ns) const
    {
        return _usesTsc ? static_cast<uint64_t>(static_cast<double>(ns) / _nsPerTick) : ns;
    }

private:
    bool _usesTsc;
    uint64_t _ticks = 0;
    uint64_t _ns = 0;
    double _nsPerTick = 1;
};

} // namespace vnt
