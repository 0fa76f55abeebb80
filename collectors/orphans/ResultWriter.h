#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <unordered_map>

#include "collectors/common/RecordSink.h"
#include "collectors/orphans/OrphanSearch.h"
#include "records/OrphanRecordWriter.h"

namespace vnt::orphans {

/// Tells the results of one session's searches, and which leaks are new in each. One thread at a time.
class ResultWriter {
public:
    explicit ResultWriter(RecordSink& sink) : _sink(sink) { }

    /// Everything is with the sink when it returns. Errors: the sink's.
    Status write(const OrphanResult& result);
    Status writeNotSearched(uint64_t timeNs, pid_t pid, const std::string& reason);

private:
    uint32_t writtenStack(uint32_t stack, const HeapStacks& stacks);
    Status send();

    RecordSink& _sink;
    OrphanRecordWriter _writer;
    uint32_t _searches = 0;
    uint32_t _pidBefore = 0;
    std::unordered_map<uint64_t, uint64_t> _before; ///< leaks of the search before: address -> time of allocation
    std::map<std::pair<uint32_t, uint64_t>, uint32_t> _nodes; ///< caller's node and address -> node
    std::unordered_map<uint32_t, uint32_t> _stacks; ///< of the result at hand: number in its HeapStacks -> node
    uint32_t _cutNode = 0;
};

} // namespace vnt::orphans
