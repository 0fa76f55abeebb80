#pragma once

#include "records/HeapJournal.h"

namespace vnt::journal {

struct Memory {
    Shared* shared = nullptr; ///< null: not to be recorded
    Ring* rings = nullptr;
    uint32_t ringCount = 0;
    uint32_t eventsMask = 0;
    uint32_t flags = 0;
};

/// Connects to the collector named in `environment` (getenv(3) does not work as early as this), greets it, and maps the
/// memory it gives. Waits for it two seconds at most. Raw system calls only; leaves no descriptor behind.
Memory askForMemory(char** environment);

/// Maps the memory that came with an answer, after a look at its size and seals; `shared` is null when it is unsound.
/// The descriptor stays the caller's.
Memory mapMemory(long fd, const Welcome& welcome);

} // namespace vnt::journal
