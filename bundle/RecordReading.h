#pragma once

#include <functional>

#include "bundle/Bundle.h"
#include "bundle/Record.h"

namespace vnt {

/// What a reading of records came to.
struct RecordTotals {
    MessageTotals messages;
    uint64_t records = 0; ///< delivered
    uint64_t unordered = 0; ///< of these: delivered behind a later one
    uint64_t orphans = 0; ///< left out: what they refer to is lost
    uint64_t missingMessages = 0;
    uint64_t damagedMessages = 0;
    bool isComplete = true; ///< false: the sink ended the reading
};

/// Where records go. A false answer ends the reading. The record's views are valid during the call.
using RecordSink = std::function<bool(const Record&)>;

/// Passes every record of an instrument to `sink` in the order of time. Memory is bounded whatever the recording's
/// length: processors are recorded one after the other, so some records wait for earlier ones (at most 64 MiB; what
/// comes later than that is delivered late and counted), and the tables of the recording's own format are kept. Never
/// fails: what cannot be read is missing and told in the bundle's remarks. Some 100 to 300 ns a record. An instrument
/// whose records this reader does not know gives none.
RecordTotals readRecords(const Bundle& bundle, const InstrumentData& data, const RecordSink& sink);

} // namespace vnt
