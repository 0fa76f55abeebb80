#include "rumbel/report/ReportOptions.h"

#include <charconv>
#include <cmath>

#include "bundle/Instruments.h"

namespace vnt {

Result<uint64_t> parseTimeNs(const std::string& text)
{
    static constexpr struct {
        std::string_view unit;
        double ns;
    } kUnits[] = {{"", 1e9}, {"s", 1e9}, {"ms", 1e6}, {"us", 1e3}, {"ns", 1}, {"m", 60e9}, {"min", 60e9}};
    constexpr double kMostNs = 9e18; // 285 years
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, std::chars_format::fixed);
    const std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    for (const auto& known : kUnits) {
        if (error == std::errc() && unit == known.unit && value >= 0 && value * known.ns < kMostNs)
            return static_cast<uint64_t>(std::llround(value * known.ns));
    }
    return Status(Code::kInvalid, text + ": not a time; write seconds, or for example 200ms");
}

Result<ReportOptions::By> parseBy(const std::string& text)
{
    static constexpr struct {
        std::string_view name;
        ReportOptions::By by;
    } kNames[] = {{"thread", ReportOptions::By::kThread},
                  {"module", ReportOptions::By::kModule},
                  {"function", ReportOptions::By::kFunction},
                  {"line", ReportOptions::By::kLine}};
    for (const auto& known : kNames) {
        if (known.name == text)
            return known.by;
    }
    return Status(Code::kInvalid, text + ": not one of thread, module, function, line");
}

std::string instrumentIdentifier(const std::string& name)
{
    constexpr std::string_view kPrefix = "quillon.vnt.";
    for (const InstrumentKind& kind : kInstrumentKinds) {
        if (kind.identifier == name || kind.identifier.substr(kPrefix.size()) == name)
            return std::string(kind.identifier);
    }
    return {};
}

} // namespace vnt
