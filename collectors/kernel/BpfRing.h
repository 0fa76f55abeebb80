#pragma once

#include <linux/bpf.h>

#include <span>

#include "platform/base/Mapping.h"
#include "platform/base/Status.h"

namespace vnt {

/// Reads a BPF ring buffer (BPF_MAP_TYPE_RINGBUF, Documentation/bpf/ringbuf.rst in the kernel). One thread at a time.
class BpfRing {
public:
    /// `map` stays open as long as this; `dataBytes` is the size it was made with.
    static Result<BpfRing> create(int map, size_t dataBytes);
    /// Over memory laid out like a ring buffer's two mappings: the reader's page, and the writer's page followed by the
    /// data, which stands there twice in a row.
    static Result<BpfRing> over(Mapping readerPage, Mapping writerPages, size_t dataBytes);

    /// Passes every record that was complete at the call to `onRecord(span)`, oldest first; never blocks. The span is
    /// valid only during the call. Errors: kCorrupt for positions or lengths that contradict each other; the ring is
    /// then dead, and every later call says so again.
    template <typename OnRecord> Status drain(OnRecord&& onRecord);
    [[nodiscard]] bool dead() const { return _dead; }

private:
    BpfRing(Mapping readerPage, Mapping writerPages, size_t dataBytes, size_t pageBytes)
        : _readerPage(std::move(readerPage)),
          _writerPages(std::move(writerPages)),
          _data(static_cast<std::byte*>(_writerPages.address()) + pageBytes),
          _bytes(dataBytes)
    {
    }
    Status die(const char* why)
    {
        _dead = true;
        return Status(Code::kCorrupt, std::string("event ring: ") + why);
    }

    Mapping _readerPage;
    Mapping _writerPages;
    std::byte* _data;
    size_t _bytes; ///< a power of two
    bool _dead = false;
};

template <typename OnRecord> Status BpfRing::drain(OnRecord&& onRecord)
{
    if (_dead)
        return die("it is dead");
    auto* const consumer = static_cast<uint64_t*>(_readerPage.address());
    uint64_t tail = *consumer; // only we write it
    // acquire; pairs with the kernel's release of the writers' position
    const uint64_t head = __atomic_load_n(static_cast<uint64_t*>(_writerPages.address()), __ATOMIC_ACQUIRE);
    if (head - tail > _bytes)
        return die("positions contradict each other");
    uint64_t published = tail;
    while (tail != head) {
        std::byte* const at = _data + (tail & (_bytes - 1));
        // acquire; pairs with the kernel's release when the record is complete
        const uint32_t word = __atomic_load_n(reinterpret_cast<uint32_t*>(at), __ATOMIC_ACQUIRE);
        if (word & BPF_RINGBUF_BUSY_BIT)
            break; // being written; what stands behind it waits for it
        const uint64_t length = word & ~uint32_t{BPF_RINGBUF_BUSY_BIT | BPF_RINGBUF_DISCARD_BIT};
        const uint64_t whole = (length + BPF_RINGBUF_HDR_SZ + 7) / 8 * 8;
        if (whole > head - tail)
            return die("a record passes what was written");
        if ((word & BPF_RINGBUF_DISCARD_BIT) == 0)
            onRecord(std::span<const std::byte>(at + BPF_RINGBUF_HDR_SZ, length));
        tail += whole;
        if (tail - published > _bytes / 16) {
            __atomic_store_n(consumer, tail, __ATOMIC_RELEASE); // release; our reads come before the reuse
            published = tail;
        }
    }
    __atomic_store_n(consumer, tail, __ATOMIC_RELEASE); // as above
    return {};
}

} // namespace vnt
