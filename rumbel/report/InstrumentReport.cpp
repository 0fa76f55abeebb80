#include "rumbel/report/InstrumentReport.h"

#include <nlohmann/json.hpp>

#include "bundle/Instruments.h"
#include "rumbel/report/CensusReport.h"
#include "rumbel/report/HeapReport.h"
#include "rumbel/report/OrphanReport.h"
#include "rumbel/report/StackReport.h"
#include "rumbel/report/TraceReport.h"
#include "rumbel/report/textLines.h"

namespace vnt {
namespace {

/// A kind whose records this tool does not break down.
class PlainReport final : public InstrumentReport {
public:
    explicit PlainReport(InstrumentData data) : _data(std::move(data)) { }
    [[nodiscard]] const InstrumentData& data() const override { return _data; }
    [[nodiscard]] bool isEmpty() const override { return !_data.hasArchive(); }
    void writeText(const ReportOptions&, std::ostream& out) const override
    {
        writeHeading(_data, out);
        writeLine(out, "Messages", grouped(_data.messageCount()));
    }
    void addJson(const ReportOptions&, nlohmann::ordered_json& json) const override
    {
        json["messages"] = _data.messageCount();
    }

private:
    const InstrumentData _data;
};

/// The room for a new instrument: its identifier and the function that reads it.
constexpr struct {
    std::string_view identifier;
    std::unique_ptr<InstrumentReport> (*read)(const Bundle& bundle, const ReadingOptions& options);
} kReaders[] = {
    {kStackSamplerId, readStackReport},  {kKernelTracerId, readTraceReport},   {kHeapRecorderId, readHeapReport},
    {kOrphanFinderId, readOrphanReport}, {kProcessCensusId, readCensusReport},
};

} // namespace

std::unique_ptr<InstrumentReport> readInstrument(const Bundle& bundle, const std::string& identifier,
                                                 const ReadingOptions& options)
{
    for (const auto& reader : kReaders) {
        if (reader.identifier == identifier)
            return reader.read(bundle, options);
    }
    return std::make_unique<PlainReport>(bundle.instrument(identifier));
}

} // namespace vnt
