#include "platform/foundation/civil_time.h"

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>

namespace vnt {
namespace {

using std::chrono::day;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr sys_days kEpoch = sys_days(year(2001) / 1 / 1);
constexpr int64_t kDaySec = 86'400;
constexpr int64_t kFirstSec = (sys_days(year(1) / 1 / 1) - kEpoch).count() * kDaySec;
constexpr int64_t kLastSec = (sys_days(year(9999) / 12 / 31) - kEpoch).count() * kDaySec + kDaySec - 1;

/// `count` decimal digits at `offset`, or -1.
int digits(std::string_view text, size_t offset, size_t count)
{
    int value = 0;
    for (size_t i = offset; i < offset + count; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return -1;
        value = value * 10 + (text[i] - '0');
    }
    return value;
}

} // namespace

std::string formatIso8601(double secondsSince2001)
{
    int64_t seconds = 0;
    if (secondsSince2001 >= static_cast<double>(kLastSec))
        seconds = kLastSec;
    else if (secondsSince2001 <= static_cast<double>(kFirstSec))
        seconds = kFirstSec;
    else if (!std::isnan(secondsSince2001))
        seconds = static_cast<int64_t>(std::floor(secondsSince2001));
    const int64_t days = (seconds - (seconds < 0 ? kDaySec - 1 : 0)) / kDaySec;
    const auto ofDay = static_cast<int>(seconds - days * kDaySec);
    const year_month_day date(kEpoch + std::chrono::days(days));
    char text[40];
    std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02dZ", static_cast<int>(date.year()),
                  static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()), ofDay / 3600, ofDay / 60 % 60,
                  ofDay % 60);
    return text;
}

std::optional<double> parseIso8601(std::string_view text)
{
    constexpr std::string_view kShape = "0000-00-00T00:00:00Z";
    if (text.size() != kShape.size())
        return {};
    for (size_t i = 0; i < kShape.size(); ++i) {
        if (kShape[i] != '0' && text[i] != kShape[i])
            return {};
    }
    const int fields[] = {digits(text, 0, 4),  digits(text, 5, 2),  digits(text, 8, 2),
                          digits(text, 11, 2), digits(text, 14, 2), digits(text, 17, 2)};
    for (const int field : fields) {
        if (field < 0)
            return {};
    }
    const year_month_day date =
        year(fields[0]) / month(static_cast<unsigned>(fields[1])) / day(static_cast<unsigned>(fields[2]));
    if (!date.ok() || fields[0] == 0 || fields[3] > 23 || fields[4] > 59 || fields[5] > 59)
        return {};
    const int64_t days = (sys_days(date) - kEpoch).count();
    return static_cast<double>(days * kDaySec + fields[3] * 3600 + fields[4] * 60 + fields[5]);
}

} // namespace vnt
