#pragma once

#include <functional>

#include "bundle/Bundle.h"
#include "bundle/StoredSymbolsWriter.h"

namespace vnt {

/// Names every address that occurs in the records of a bundle and adds it to `writer`, with its source lines. Reads all
/// of the bundle; a stack is looked at once. `progress` is told the instrument's identifier before each; may be empty.
void collectSymbols(Bundle& bundle, StoredSymbolsWriter& writer,
                    const std::function<void(const std::string& identifier)>& progress);

} // namespace vnt
