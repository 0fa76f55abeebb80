#include "collectors/common/RingReader.h"

#include <unistd.h>

namespace vnt {

Result<RingReader> RingReader::create(Mapping mapping)
{
    const auto pageBytes = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    if (mapping.size() <= pageBytes)
        return Status(Code::kInvalid, "perf ring: no data pages");
    const size_t dataBytes = mapping.size() - pageBytes;
    if ((dataBytes & (dataBytes - 1)) != 0)
        return Status(Code::kInvalid, "perf ring: size is not a power of two");
    const std::byte* data = mapping.bytes().data() + pageBytes;
    return RingReader(std::move(mapping), data, dataBytes);
}

bool RingReader::readFront()
{
    perf_event_header& header = _front.header;
    if (_head - _tail < sizeof header || _head - _tail > dataBytes()) {
        _dead = true;
        _fault = "positions contradict each other";
    } else {
        copyOut(_tail, &header, sizeof header);
        if (header.size < sizeof header || header.size > _head - _tail) {
            _dead = true;
            _fault = "record of " + std::to_string(header.size) + " bytes";
        }
    }
    if (_dead) {
        _head = _tail;
        return false;
    }
    const size_t begin = static_cast<size_t>(_tail) & _mask;
    const std::byte* record = _data + begin;
    if (begin + header.size > dataBytes()) {
        _joined.resize((header.size + 7u) / 8u);
        copyOut(_tail, _joined.data(), header.size);
        record = reinterpret_cast<const std::byte*>(_joined.data());
    }
    _front.payload = std::span(record + sizeof header, header.size - sizeof header);
    _hasFront = true;
    return true;
}

} // namespace vnt
