#pragma once

#include <cstdint>
#include <set>
#include <vector>

#include "bundle/exports/ExportSource.h"
#include "bundle/exports/JsonWriter.h"

namespace vnt {

/// Categories of the file, in their order.
enum class FirefoxCategory : uint32_t { kOther, kUser, kKernel, kOffProcessor, kMemory };

/// The tables of a Firefox Profiler file that its threads share: stacks, frames, functions, libraries. One thread.
class FirefoxTables {
public:
    explicit FirefoxTables(ExportSource& source) : _source(source) { }

    /// The row of a path's innermost function; the same at any time, also before the table is written. Not for path 0.
    uint32_t rowOf(uint32_t stack);
    /// From here on the path also has a row with "[off-cpu]" as its innermost function.
    void noteWait(uint32_t stack) { _waits.insert(stack); }
    /// That row; only once all paths are known.
    [[nodiscard]] uint32_t waitRowOf(uint32_t stack) const;

    void writeLibraries(JsonWriter& json);
    /// The object "shared"; nothing may be interned afterwards.
    void writeShared(JsonWriter& json);

private:
    void writeStacks(JsonWriter& json);
    void writeFrames(JsonWriter& json);
    void writeFunctions(JsonWriter& json);
    void writeResources(JsonWriter& json);
    void findSources();
    [[nodiscard]] const StackTable& table() const { return _source.stacks(); }

    ExportSource& _source;
    std::vector<uint32_t> _rows{0}; ///< by path: the row behind its last one
    std::set<uint32_t> _waits; ///< paths that a thread waited at, in order
    std::vector<uint32_t> _sources; ///< texts
    std::vector<int64_t> _sourceOf; ///< by function, into _sources; -1: none
};

} // namespace vnt
