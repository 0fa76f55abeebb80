#pragma once

#include <algorithm>
#include <optional>
#include <span>
#include <vector>

#include "collectors/common/RingReader.h"

namespace vnt {

/// Passes on what several rings hold, in the order of time over all of them: what a thread did on one processor comes
/// before what it did later on another. `timeOf(record)` is when a record was written; 0 stands for right after the one
/// before it. Those later than `untilNs` stay for the next call: take the time before, so that nothing earlier can come
/// after. `onRecord` and `onDead` as for RingReader::drain(); `onDead` once for each ring that turned out unreadable.
template <typename TimeOf, typename OnRecord, typename OnDead>
void drainInOrder(std::span<RingReader* const> rings, uint64_t untilNs, TimeOf&& timeOf, OnRecord&& onRecord,
                  OnDead&& onDead)
{
    struct Head {
        uint64_t timeNs = 0;
        RingReader* ring = nullptr;
    };
    const auto isLater = [](const Head& a, const Head& b) { return a.timeNs > b.timeNs; };
    // When the ring's next record was written, never before the one that went before it.
    const auto next = [&](const Head& head) -> std::optional<uint64_t> {
        const RingReader::Record* const record = head.ring->front();
        if (!record) {
            if (head.ring->dead())
                onDead();
            return std::nullopt;
        }
        const uint64_t timeNs = std::max(head.timeNs, timeOf(*record));
        return timeNs <= untilNs ? std::optional(timeNs) : std::nullopt;
    };
    std::vector<Head> heads;
    for (RingReader* const ring : rings) {
        if (ring->dead())
            continue;
        ring->beginRound();
        if (const auto timeNs = next({0, ring}))
            heads.push_back({*timeNs, ring});
    }
    std::make_heap(heads.begin(), heads.end(), isLater);
    while (!heads.empty()) {
        std::pop_heap(heads.begin(), heads.end(), isLater);
        Head head = heads.back();
        heads.pop_back();
        const uint64_t othersNs = heads.empty() ? UINT64_MAX : heads.front().timeNs;
        std::optional<uint64_t> timeNs = head.timeNs;
        while (timeNs && *timeNs <= othersNs) {
            const RingReader::Record& record = *head.ring->front();
            onRecord(record.header, record.payload);
            head.ring->take();
            head.timeNs = *timeNs;
            timeNs = next(head);
        }
        if (timeNs) {
            heads.push_back({*timeNs, head.ring});
            std::push_heap(heads.begin(), heads.end(), isLater);
        }
    }
    for (RingReader* const ring : rings) {
        if (!ring->dead())
            ring->endRound();
    }
}

} // namespace vnt
