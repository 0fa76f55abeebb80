#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/UnitScopes.h"
#include "platform/base/Status.h"

struct Dwfl; // libdwfl.h
struct Dwfl_Module;

namespace vnt {

/// A place in source code, as debug information tells it.
struct LineFrame {
    std::string function; ///< readable name; empty when the debug information has none
    std::string file; ///< as the compiler knew it; empty when unknown
    int line = 0;
    bool isInlined = false; ///< part of the next frame's machine code
};

/// Source lines of one ELF file, from its own debug information or that of its separate debug file. Only opened when
/// lines are asked for: the first look-up in a large module takes some 50 ms, the first in a unit up to 20 ms, others
/// some 20 us; callers keep the answers. Nothing is fetched from anywhere. One thread.
class SourceLines {
public:
    /// `debugFile`: the separate debug file (findDebugFile()); empty when there is none. Errors: kNotFound when there
    /// is no debug information, kInvalid when the file is not usable.
    static Result<std::unique_ptr<SourceLines>> open(const std::string& path, const std::string& debugFile);
    ~SourceLines();
    SourceLines(const SourceLines&) = delete;
    SourceLines& operator=(const SourceLines&) = delete;

    /// The frames that the instruction at `linkedAddress` belongs to: the innermost inlined function first, the real
    /// one last. Empty when nothing is known. For a return address ask for the byte before it.
    [[nodiscard]] std::vector<LineFrame> find(uint64_t linkedAddress);

private:
    SourceLines() = default;

    std::string _debugFile; // found by the caller, asked for by libdwfl
    Dwfl* _dwfl = nullptr; // owned
    Dwfl_Module* _module = nullptr; // belongs to _dwfl
    std::unordered_map<uint64_t, UnitScopes> _units; // by offset; of those that were asked for
    uint64_t _bias = 0; // libdwfl's addresses less the linked ones
};

} // namespace vnt
