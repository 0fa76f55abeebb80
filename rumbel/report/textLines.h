#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>

#include "bundle/InstrumentData.h"
#include "rumbel/report/printable.h"

namespace vnt {

/// "  What        text": one line of a summary.
void writeLine(std::ostream& out, std::string_view what, const std::string& text);
/// The instrument's display name and when it was recorded.
void writeHeading(const InstrumentData& data, std::ostream& out);
/// "1 sample", "12,345 samples".
[[nodiscard]] std::string plural(uint64_t count, std::string_view one);
/// "2024-05-06 07:08:09 UTC".
[[nodiscard]] std::string utcTime(int64_t secondsSince1970);

} // namespace vnt
