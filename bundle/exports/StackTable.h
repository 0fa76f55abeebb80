#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "bundle/Remarks.h"
#include "bundle/exports/StringTable.h"

namespace vnt {

inline constexpr uint32_t kNoModule = ~0u;

/// A piece of a file with code, where the first process that used it had it mapped.
struct ExportModule {
    uint32_t path = 0; ///< these are texts
    uint32_t name = 0;
    std::string buildId; ///< lower-case hexadecimal; may be empty
    uint64_t start = 0; ///< address in the process
    uint64_t sizeBytes = 0;
    uint64_t fileOffset = 0;
    int64_t loadBias = 0; ///< linked address less the offset in the file
    bool isKernel = false;
    bool hasNames = false; ///< at least one address in it has a function's name
    bool hasLines = false; ///< likewise a source line
    bool hasInlined = false;
};

struct ExportFunction {
    uint32_t name = 0; ///< "module+0x12f0" for code without a name
    uint32_t module = kNoModule;
    bool isKernel = false;
    bool isPlaceholder = false; ///< stands for frames that are not known: "[truncated]" and the like
};

/// A function and the place in it.
struct ExportLine {
    uint32_t function = 0;
    uint32_t file = 0; ///< a text; 0: not known
    uint32_t line = 0; ///< 0: not known
};

/// One code address with the function it belongs to, and the calls that were inlined there.
struct ExportLocation {
    uint32_t module = kNoModule;
    uint32_t firstLine = 0; ///< into StackTable::line(); the innermost inlined function first, the real one last
    uint32_t lineCount = 0;
    bool isKernel = false;
    uint64_t address = 0; ///< as linked; return addresses are moved into the call before them
    uint64_t fileOffset = 0;
};

/// A call path: its caller's path and one location more. Path 0 is the empty one.
struct ExportStack {
    uint32_t caller = 0; ///< a smaller number
    uint32_t location = 0;
};

/// Everything that stacks are made of, each once, numbered in the order it first came: the same recording gives the
/// same numbers. Some 60 bytes for a location and for a call path; kMaxStacks paths at most, further ones end at their
/// callers. Memory does not grow with the length of a recording. One thread.
class StackTable {
public:
    static constexpr size_t kMaxStacks = 2u << 20;

    explicit StackTable(Remarks& remarks, size_t maxStacks = kMaxStacks);

    // Functions that stand for something else; the locations and functions of these numbers always exist.
    static constexpr uint32_t kUnknown = 0;
    static constexpr uint32_t kTruncated = 1;

    uint32_t addModule(ExportModule module);
    uint32_t addFunction(const ExportFunction& function);
    /// `lines` as of ExportLocation; not empty.
    uint32_t addLocation(ExportLocation location, const std::vector<ExportLine>& lines);
    uint32_t addStack(uint32_t caller, uint32_t location);

    [[nodiscard]] StringTable& strings() { return _strings; }
    [[nodiscard]] const StringTable& strings() const { return _strings; }
    [[nodiscard]] const std::string& text(uint32_t number) const { return _strings.at(number); }
    [[nodiscard]] const std::vector<ExportModule>& modules() const { return _modules; }
    [[nodiscard]] const std::vector<ExportFunction>& functions() const { return _functions; }
    [[nodiscard]] const std::vector<ExportLocation>& locations() const { return _locations; }
    [[nodiscard]] const std::vector<ExportStack>& stacks() const { return _stacks; }
    [[nodiscard]] const ExportLine& line(uint32_t number) const { return _lines[number]; }
    [[nodiscard]] const std::string& nameOf(const ExportLine& line) const
    {
        return _strings.at(_functions[line.function].name);
    }

    /// Replaces `locations` by those of the path, outermost first.
    void pathOf(uint32_t stack, std::vector<uint32_t>& locations) const;
    [[nodiscard]] bool isKernel(uint32_t stack) const
    {
        return stack != 0 && _locations[_stacks[stack].location].isKernel;
    }

private:
    Remarks& _remarks;
    size_t _maxStacks;
    StringTable _strings;
    std::vector<ExportModule> _modules;
    std::vector<ExportFunction> _functions;
    std::vector<ExportLine> _lines;
    std::vector<ExportLocation> _locations;
    std::vector<ExportStack> _stacks{1};
    std::unordered_map<std::string, uint32_t> _moduleNumbers; // path, build id, offset, size
    std::unordered_map<uint64_t, uint32_t> _functionNumbers; // name << 32 | module
    std::unordered_multimap<uint64_t, uint32_t> _locationNumbers; // by hash of module, address and functions
    std::unordered_map<uint64_t, uint32_t> _stackNumbers; // caller << 32 | location
};

} // namespace vnt
