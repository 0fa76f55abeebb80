#pragma once

#include <string>
#include <vector>

#include "bundle/RecordReading.h"

namespace vnt {

/// Puts records that come nearly ordered into the order of time: each waits until kWindowNs of later ones were seen. At
/// most kMaxBytes wait; past that the older half goes out. What comes behind that is delivered at once and counted. One
/// thread.
class RecordSorter {
public:
    /// Readers of rings come round several times a second.
    static constexpr uint64_t kWindowNs = 2'000'000'000;
    static constexpr size_t kMaxBytes = size_t{48} << 20;

    /// Both outlive this.
    RecordSorter(const RecordSink& sink, RecordTotals& totals) : _sink(sink), _totals(totals) { }

    /// Takes a copy. False: the sink has ended the reading.
    bool add(const Record& record);
    /// Delivers all that waits.
    void finish() { release(UINT64_MAX); }

private:
    /// A record whose views are offsets into _words, _texts and _values.
    struct Waiting {
        Record record;
        uint32_t stackAt = 0;
        uint32_t textAt = 0; // thread, name, text one behind the other
        uint32_t valuesAt = 0;
    };
    void release(uint64_t untilNs);
    void deliver(const Waiting& waiting);
    void compact(std::vector<Waiting> kept);
    [[nodiscard]] size_t waitingBytes() const;

    const RecordSink& _sink;
    RecordTotals& _totals;
    std::vector<Waiting> _waiting;
    std::vector<uint64_t> _words;
    std::string _texts;
    std::vector<Record::Value> _values; // their names are constants
    uint64_t _newestNs = 0;
    uint64_t _releasedNs = 0;
    uint64_t _deliveredNs = 0;
};

} // namespace vnt
