#include "rumbel/report/textLines.h"

#include <ctime>
#include <iomanip>
#include <ostream>

#include "bundle/Instruments.h"

namespace vnt {

void writeLine(std::ostream& out, std::string_view what, const std::string& text)
{
    out << "  " << std::left << std::setw(12) << what << text << "\n";
}

void writeHeading(const InstrumentData& data, std::ostream& out)
{
    for (const InstrumentKind& kind : kInstrumentKinds) {
        if (kind.identifier == data.identifier())
            out << kind.displayName << "\n";
    }
    if (data.startSeconds() != 0)
        writeLine(out, "Recorded", utcTime(data.startSeconds()));
}

std::string plural(uint64_t count, std::string_view one)
{
    return grouped(count) + " " + std::string(one) + (count == 1 ? "" : "s");
}

std::string utcTime(int64_t secondsSince1970)
{
    const auto seconds = static_cast<time_t>(secondsSince1970);
    struct tm parts { };
    char text[64];
    if (!::gmtime_r(&seconds, &parts) || std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return "an unknown time";
    return text;
}

} // namespace vnt
