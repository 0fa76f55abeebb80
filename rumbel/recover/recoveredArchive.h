#pragma once

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "rumbel/recover/RecordingNote.h"

namespace vnt::rumbel {

struct StreamFacts {
    uint64_t messages = 0;
    int64_t lastWrittenSeconds = 0; ///< since 1970
};

/// The archive that stands beside an instrument's message stream, as far as the note says what belongs in it. Without a
/// note only what the stream itself tells: a reader remarks on each key that is missing.
Result<std::vector<std::byte>> recoveredArchive(std::string_view identifier, const std::optional<NotedRecording>& note,
                                                const StreamFacts& stream);

} // namespace vnt::rumbel
