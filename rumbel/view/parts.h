#pragma once

#include "rumbel/view/PageBuilder.h"

/// What each instrument adds to a page. They read their part of the bundle once and in bounded memory, and never fail:
/// what cannot be read is missing and told in the bundle's remarks. True: something could be read.
namespace vnt::view {

bool addStacks(PageBuilder& page);
bool addHeap(PageBuilder& page);
bool addOrphans(PageBuilder& page);
bool addTrace(PageBuilder& page);
bool addCensus(PageBuilder& page);

} // namespace vnt::view
