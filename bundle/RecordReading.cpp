#include "bundle/RecordReading.h"

#include "bundle/Instruments.h"
#include "bundle/recordSources.h"

namespace vnt {
namespace {

/// The room for a new instrument: its identifier and the function that reads its records.
constexpr struct {
    std::string_view identifier;
    RecordTotals (*read)(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);
} kSources[] = {
    {kStackSamplerId, readStackRecords},  {kKernelTracerId, readTraceRecords},   {kHeapRecorderId, readHeapRecords},
    {kOrphanFinderId, readOrphanRecords}, {kProcessCensusId, readCensusRecords},
};

} // namespace

RecordTotals readRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink)
{
    for (const auto& source : kSources) {
        if (source.identifier == data.identifier())
            return source.read(bundle, data, sink);
    }
    return {};
}

} // namespace vnt
