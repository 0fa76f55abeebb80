#include "rumbel/view/LevelCurve.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace vnt::view {

void LevelCurve::add(uint64_t timeNs, uint64_t level)
{
    uint64_t slice = timeNs <= _originNs ? 0 : (timeNs - _originNs) >> _bits;
    if (!_points.empty() && slice <= _points.back().slice) { // a step back in time counts as none
        _points.back().last = level;
        _points.back().highest = std::max(_points.back().highest, level);
        return;
    }
    while (_points.size() >= kMaxPoints) {
        halve();
        slice = timeNs <= _originNs ? 0 : (timeNs - _originNs) >> _bits;
    }
    if (!_points.empty() && slice <= _points.back().slice)
        add(timeNs, level);
    else
        _points.push_back({slice, level, level});
}

void LevelCurve::halve()
{
    ++_bits;
    size_t kept = 0;
    for (const Point& point : _points) {
        const uint64_t slice = point.slice >> 1;
        if (kept > 0 && _points[kept - 1].slice == slice)
            _points[kept - 1] = {slice, point.last, std::max(_points[kept - 1].highest, point.highest)};
        else
            _points[kept++] = {slice, point.last, point.highest};
    }
    _points.resize(kept);
}

nlohmann::ordered_json LevelCurve::json(PageColumns& columns) const
{
    std::vector<uint64_t> slices;
    std::vector<uint64_t> last;
    std::vector<uint64_t> highest;
    for (const Point& point : _points) {
        slices.push_back(point.slice);
        last.push_back(point.last);
        highest.push_back(point.highest);
    }
    return {{"sliceNs", uint64_t{1} << _bits},
            {"slice", columns.addDifferences(slices)},
            {"last", columns.add(last)},
            {"highest", columns.add(highest)}};
}

} // namespace vnt::view
