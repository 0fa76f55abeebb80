#pragma once

#include <map>
#include <string>
#include <string_view>

namespace vnt {

/// One kind of thing that a recording measured: functions by samples, sites by bytes, and the like.
struct MeasuredTable {
    std::string_view title; ///< "samples by function"
    std::string_view unit; ///< "samples"
    /// Recordings of different length are compared by the shares of their entries, not by the values themselves.
    bool byShare = false;
    double total = 0; ///< of all entries, or of what they are shares of
    std::map<std::string, double> entries;
};

} // namespace vnt
