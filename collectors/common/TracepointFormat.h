#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/Status.h"

namespace vnt {

/// Layout of one event's records, as the running kernel describes it in events/SYSTEM/NAME/format. It differs between
/// kernels, so it is always read and never assumed.
struct TracepointFormat {
    struct Field {
        std::string name;
        std::string type; ///< as declared, "char[16]" for an array
        uint32_t offset = 0;
        uint32_t sizeBytes = 0;
        bool isSigned = false;
        bool isLocated = false; ///< __data_loc: offset (low half) and length of the content, which follows the record
    };
    std::string name;
    uint32_t id = 0; ///< perf_event_attr::config of the tracepoint
    std::vector<Field> fields; ///< without those that every event has (common_...)
    std::string printFormat;

    /// Errors: kInvalid for a text that is no description, or one whose fields pass 64 KiB.
    static Result<TracepointFormat> parse(std::string_view text);
    /// Null when there is none.
    [[nodiscard]] const Field* field(std::string_view name) const;
    /// Bytes of a record up to the last field's end.
    [[nodiscard]] uint32_t recordBytes() const;
};

} // namespace vnt
