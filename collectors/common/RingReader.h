#pragma once

#include <linux/perf_event.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <vector>

#include "platform/base/Mapping.h"
#include "platform/base/Status.h"

namespace vnt {

/// Reads records from one perf ring (perf_event_open(2), "MMAP layout"). Owned by a collector; one thread at a time.
class RingReader {
public:
    /// `mapping` is what perf::mapRing() gave, or memory laid out like it.
    static Result<RingReader> create(Mapping mapping);

    /// Passes every record that was complete at the call to `onRecord(const perf_event_header&, payload)`, oldest
    /// first; never blocks. Both are valid only during the call. Room is given back to the kernel in steps of a
    /// sixteenth of the ring. Errors: kCorrupt when a record's size is less than its header or passes what was written;
    /// the ring is then dead, and every later call says so again. Reads no further than position `until`, which a call
    /// of written() gave.
    template <typename OnRecord> Status drain(OnRecord&& onRecord, uint64_t until = UINT64_MAX);

    /// Position behind the last record that is complete now; grows without wrapping.
    [[nodiscard]] uint64_t written() const
    {
        // acquire; pairs with the kernel's barrier between the records and data_head
        return __atomic_load_n(&page().data_head, __ATOMIC_ACQUIRE);
    }

    [[nodiscard]] size_t dataBytes() const { return _mask + 1; }
    [[nodiscard]] bool dead() const { return _dead; }

private:
    RingReader(Mapping mapping, const std::byte* data, size_t dataBytes)
        : _mapping(std::move(mapping)),
          _data(data),
          _mask(dataBytes - 1)
    {
    }

    perf_event_mmap_page& page() const { return *static_cast<perf_event_mmap_page*>(_mapping.address()); }
    void copyOut(uint64_t offset, void* to, size_t size) const
    {
        const size_t begin = static_cast<size_t>(offset) & _mask;
        const size_t first = std::min(size, dataBytes() - begin);
        std::memcpy(to, _data + begin, first);
        std::memcpy(static_cast<std::byte*>(to) + first, _data, size - first);
    }

    Mapping _mapping;
    const std::byte* _data;
    size_t _mask; ///< the size is a power of two
    bool _dead = false;
    std::vector<uint64_t> _joined; ///< a record that passes the end of the ring, put together
};

template <typename OnRecord> Status RingReader::drain(OnRecord&& onRecord, uint64_t until)
{
    if (_dead)
        return Status(Code::kCorrupt, "perf ring is dead");
    uint64_t tail = page().data_tail; // only we write it
    const uint64_t head = std::min(written(), std::max(until, tail));
    uint64_t published = tail;
    while (tail != head) {
        perf_event_header header;
        if (head - tail < sizeof header || head - tail > dataBytes()) {
            _dead = true;
            return Status(Code::kCorrupt, "perf ring: positions contradict each other");
        }
        copyOut(tail, &header, sizeof header);
        if (header.size < sizeof header || header.size > head - tail) {
            _dead = true;
            return Status(Code::kCorrupt, "perf ring: record of " + std::to_string(header.size) + " bytes");
        }
        const size_t begin = static_cast<size_t>(tail) & _mask;
        const std::byte* record = _data + begin;
        if (begin + header.size > dataBytes()) {
            _joined.resize((header.size + 7u) / 8u);
            copyOut(tail, _joined.data(), header.size);
            record = reinterpret_cast<const std::byte*>(_joined.data());
        }
        onRecord(header, std::span(record + sizeof header, header.size - sizeof header));
        tail += header.size;
        if (tail - published > dataBytes() / 16) {
            __atomic_store_n(&page().data_tail, tail, __ATOMIC_RELEASE); // release; our reads come before the reuse
            published = tail;
        }
    }
    __atomic_store_n(&page().data_tail, tail, __ATOMIC_RELEASE); // as above
    return {};
}

} // namespace vnt
