#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <vector>

#include "rumbel/view/PageColumns.h"

namespace vnt::view {

/// How high something stood over time: for each slice the last and the highest level. Slices double when they become
/// too many, so a curve of any length is some thousand points and no peak is lost. Adding costs a few ns. One thread.
class LevelCurve {
public:
    static constexpr size_t kMaxPoints = 4096;

    explicit LevelCurve(uint64_t originNs) : _originNs(originNs) { }
    void add(uint64_t timeNs, uint64_t level);
    [[nodiscard]] nlohmann::ordered_json json(PageColumns& columns) const;

private:
    static constexpr uint32_t kFinestBits = 16; ///< 65.5 us
    struct Point {
        uint64_t slice = 0;
        uint64_t last = 0;
        uint64_t highest = 0;
    };
    void halve();

    uint64_t _originNs = 0;
    uint32_t _bits = kFinestBits;
    std::vector<Point> _points; ///< ascending
};

} // namespace vnt::view
