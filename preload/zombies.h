#pragma once

#include <stddef.h>

#include "records/HeapJournal.h"

/// Freed blocks that are kept for a while, filled with a pattern, when the target was launched so: who frees one again
/// or writes to it is found out.
namespace vnt::journal {

/// Gives the block back, later. A block that was given back already is reported, and stays.
void releaseLater(void* block, Function function, const void* frame);

} // namespace vnt::journal
