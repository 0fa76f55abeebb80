#include "rumbel/view/PageColumns.h"

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vnt::view {
namespace {

size_t widthFor(uint64_t largest)
{
    return largest <= UINT8_MAX ? 1 : largest <= UINT16_MAX ? 2 : largest <= UINT32_MAX ? 4 : sizeof(double);
}

template <typename Wide> void store(std::byte* place, uint64_t value)
{
    const auto narrow = static_cast<Wide>(value);
    std::memcpy(place, &narrow, sizeof narrow);
}

} // namespace

uint32_t PageColumns::append(std::span<const uint64_t> values, bool differences)
{
    const uint64_t largest = values.empty() ? 0 : *std::max_element(values.begin(), values.end());
    const size_t width = widthFor(largest);
    // Aligned as typed arrays want it.
    _bytes.resize((_bytes.size() + sizeof(double) - 1) / sizeof(double) * sizeof(double));
    const size_t offset = _bytes.size();
    _bytes.resize(offset + width * values.size());
    std::byte* place = _bytes.data() + offset;
    for (const uint64_t value : values) {
        switch (width) {
        case 1:
            store<uint8_t>(place, value);
            break;
        case 2:
            store<uint16_t>(place, value);
            break;
        case 4:
            store<uint32_t>(place, value);
            break;
        default:
            store<double>(place, value);
        }
        place += width;
    }
    _descriptions.push_back({offset, width, values.size(), differences});
    return static_cast<uint32_t>(_descriptions.size() - 1);
}

uint32_t PageColumns::add(std::span<const uint64_t> values) { return append(values, false); }

uint32_t PageColumns::add(std::span<const uint32_t> values)
{
    return append(std::vector<uint64_t>(values.begin(), values.end()), false);
}

uint32_t PageColumns::addDifferences(std::span<const uint64_t> values)
{
    std::vector<uint64_t> coded;
    coded.reserve(values.size());
    uint64_t last = 0;
    for (const uint64_t value : values) {
        const auto difference = static_cast<int64_t>(value - last);
        coded.push_back(static_cast<uint64_t>(difference) << 1 ^ static_cast<uint64_t>(difference >> 63)); // zigzag
        last = value;
    }
    return append(coded, true);
}

nlohmann::ordered_json PageColumns::descriptions() const
{
    auto list = nlohmann::ordered_json::array();
    for (const Description& column : _descriptions)
        list.push_back({column.offset, column.width, column.count, column.differences ? 1 : 0});
    return list;
}

} // namespace vnt::view
