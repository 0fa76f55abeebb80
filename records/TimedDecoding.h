#pragma once

#include "platform/base/ByteCursor.h"

namespace vnt {

/// What the readers of records have in common while they are in a message: where they are, and the time of the record
/// before, to which the next one's is a difference.
struct TimedDecoding {
    ByteCursor cursor;
    uint64_t timeNs = 0;

    uint64_t nextTime()
    {
        timeNs += static_cast<uint64_t>(cursor.signedVarint());
        return timeNs;
    }
    /// A varint that must fit 32 bits.
    uint32_t number()
    {
        const uint64_t value = cursor.varint();
        if (value > UINT32_MAX)
            cursor.fail();
        return static_cast<uint32_t>(value);
    }
};

} // namespace vnt
