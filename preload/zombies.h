#pragma once

#include <stddef.h>

#include "records/HeapJournal.h"

/// Freed blocks that are kept for a while, filled with a pattern, when the target was launched so: who frees one again
/// or writes to it is found out.
namespace vnt::journal {

/// Gives the block back, later. A block that was given back already is reported, and stays.
void releaseLater(void* block, Function function, const void* frame);

/// The kept block that an object lies in which somebody is about to use, or null: it is alive, or was freed long ago.
/// Reads the object's first word.
const void* keptBlockOf(const void* object);

} // namespace vnt::journal
