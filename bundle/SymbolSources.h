#pragma once

#include <memory>

#include "bundle/StoredSymbols.h"

namespace vnt {

class DebugServer;
class StoredSymbolsWriter;

/// Where a symbolizer looks besides the files of this machine.
struct SymbolSources {
    std::shared_ptr<const StoredSymbols> stored; ///< asked first; null: the bundle has none
    DebugServer* server =
        nullptr; ///< asked for files that are not here; null: nothing is fetched. Outlives the symbolizer
    /// Not null: everything found is added here, and the files of this machine are asked before `stored`, so that they
    /// can complete it. Outlives the symbolizer.
    StoredSymbolsWriter* collector = nullptr;
};

} // namespace vnt
