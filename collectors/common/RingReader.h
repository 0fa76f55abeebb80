#pragma once

#include <linux/perf_event.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string>
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

    struct Record {
        perf_event_header header{};
        std::span<const std::byte> payload;
    };
    /// drain() in its parts, for who reads several rings at once: of the records that are complete at beginRound(),
    /// front() is the oldest that was not taken. It is null behind the last one, and when the ring turned out dead.
    void beginRound(uint64_t until = UINT64_MAX);
    const Record* front();
    void take();
    void endRound();

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

    bool readFront();
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
    // Of the round: positions of the next record, up to which it reads, and up to which room was given back.
    uint64_t _tail = 0;
    uint64_t _head = 0;
    uint64_t _published = 0;
    Record _front;
    bool _hasFront = false;
    std::string _fault;
};

template <typename OnRecord> Status RingReader::drain(OnRecord&& onRecord, uint64_t until)
{
    beginRound(until);
    while (const Record* record = front()) {
        onRecord(record->header, record->payload);
        take();
    }
    endRound();
    return _dead ? Status(Code::kCorrupt, "perf ring: " + _fault) : Status();
}

inline void RingReader::beginRound(uint64_t until)
{
    _tail = _published = page().data_tail; // only we write it
    _head = _dead ? _tail : std::min(written(), std::max(until, _tail));
    _hasFront = false;
}

inline const RingReader::Record* RingReader::front()
{
    return _hasFront || (_tail != _head && readFront()) ? &_front : nullptr;
}

inline void RingReader::take()
{
    _tail += _front.header.size;
    _hasFront = false;
    if (_tail - _published > dataBytes() / 16)
        endRound();
}

inline void RingReader::endRound()
{
    if (_dead)
        return; // it stays as it is
    __atomic_store_n(&page().data_tail, _tail, __ATOMIC_RELEASE); // release; our reads come before the reuse
    _published = _tail;
}

} // namespace vnt
