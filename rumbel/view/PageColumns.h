#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <vector>

namespace vnt::view {

/// The page's numbers: columns in the narrowest width that holds them, one after the other. The page reads them as
/// typed arrays without a copy. One thread.
class PageColumns {
public:
    /// Adds a column and returns its number. Values past 2^53 lose their last digits there: the page counts in doubles.
    uint32_t add(std::span<const uint64_t> values);
    uint32_t add(std::span<const uint32_t> values);
    /// For values near each other, as times are: the page gets the differences and adds them up.
    uint32_t addDifferences(std::span<const uint64_t> values);

    /// For each column its offset, bytes of a value (1, 2, 4; 8: a double), count, and 1 for differences.
    [[nodiscard]] nlohmann::ordered_json descriptions() const;
    [[nodiscard]] const std::vector<std::byte>& bytes() const { return _bytes; }

private:
    struct Description {
        size_t offset = 0;
        size_t width = 0;
        size_t count = 0;
        bool differences = false;
    };
    uint32_t append(std::span<const uint64_t> values, bool differences);

    std::vector<std::byte> _bytes;
    std::vector<Description> _descriptions;
};

} // namespace vnt::view
