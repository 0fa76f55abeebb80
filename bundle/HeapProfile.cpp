#include "bundle/HeapProfile.h"

#include "bundle/HeapProfileBuilder.h"

namespace vnt {

HeapProfile readHeap(const Bundle& bundle, const InstrumentData& data, const ReadingOptions& options)
{
    Remarks& remarks = bundle.remarks();
    HeapProfile profile;
    profile.symbolizer = bundle.symbolizer(data);
    HeapProfileBuilder builder(*profile.symbolizer, remarks, options);
    const MessageTotals totals =
        bundle.forEachMessage(data, [&](std::span<const std::byte> message) { builder.add(message); });
    builder.finish(profile);
    profile.messages = totals.messages;
    profile.droppedMessages = totals.dropped;
    if (profile.totals.lostTarget)
        remarks.add(
            "the target went on as a program that did not load the heap's journal: what that one did is missing");
    if (profile.totals.noTarget)
        remarks.add("the program did not load the heap's journal: it is statically linked, runs with another user's "
                    "privilege, or never ran");
    else if (profile.totals.pid != 0 && data.pid() && *data.pid() != static_cast<int32_t>(profile.totals.pid))
        remarks.add("the heap is that of process " + std::to_string(profile.totals.pid)
                    + ", a child: the target itself did not load the journal");
    return profile;
}

} // namespace vnt
