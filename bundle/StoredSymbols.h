#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "bundle/FrameRole.h"
#include "platform/base/ByteCursor.h"
#include "platform/base/Status.h"

namespace vnt {

/// The symbols that `rumbel archive` keeps in a bundle: for each recorded address of a module its function and source
/// lines, so that the bundle reads the same where the module's file is missing. The format is in docs/bundle-format.md.
/// Untrusted: everything is checked when it is read. Memory: the file and some 40 bytes an address. Immutable; any
/// thread may ask.
class StoredSymbols {
public:
    /// Name of the file in a bundle.
    static constexpr std::string_view kFileName = "quillon.vnt.symbols";
    static constexpr char kMagic[8] = {'V', 'N', 'T', 'S', 'Y', 'M', 'B', '\n'};
    static constexpr uint32_t kVersion = 1;
    // A reader refuses what passes these; a writer leaves out what would.
    static constexpr size_t kMaxFileBytes = size_t{128} << 20;
    static constexpr size_t kMaxAddresses = 2u << 20; ///< twice what a symbolizer keeps
    static constexpr size_t kMaxNameBytes = 64u << 10; ///< longer names exist in forged files only
    static constexpr size_t kMaxInlined = 256; ///< deeper inlining likewise

    enum class FunctionKind : uint8_t { kFunction = 0, kUnknown = 1, kInlined = 2 };
    struct Function {
        std::string_view name; ///< readable
        FunctionKind kind = FunctionKind::kFunction;
        uint64_t start = 0; ///< linked address; of kFunction only
    };
    struct Line {
        uint32_t function = 0; ///< of the module's functions
        uint32_t line = 0;
        std::string_view file;
    };
    struct Address {
        uint64_t fileOffset = 0; ///< of the byte that was looked up: for a return address the one before it
        FrameRole role = FrameRole::kExact;
        uint32_t function = 0; ///< of the module's functions
        uint32_t firstLine = 0; ///< of the module's lines; innermost inlined function first
        uint32_t lineCount = 0; ///< 0: not known
    };
    /// What is stored of one file.
    struct ModulePart {
        std::string_view remark; ///< what its reader had to tell; empty: nothing
        std::vector<Function> functions;
        std::vector<Line> lines;
        std::vector<Address> addresses; ///< ascending by offset and role

        /// Null when nothing is stored for it.
        [[nodiscard]] const Address* find(uint64_t fileOffset, FrameRole role) const;
    };

    /// Errors: kInvalid when it is no such file, kUnsupported when written by a later version, kCorrupt when its
    /// checksum or anything in it is wrong.
    static Result<std::unique_ptr<const StoredSymbols>> parse(std::string content);
    /// Reads the file. Errors: also those of open(2), kTooLarge.
    static Result<std::unique_ptr<const StoredSymbols>> open(const std::string& path);

    /// Null when nothing is stored of it.
    [[nodiscard]] const ModulePart* module(std::string_view path, std::string_view buildId, bool is64Bit) const;

private:
    StoredSymbols() = default;
    bool read(ByteCursor cursor);
    bool readModule(ByteCursor& cursor);
    bool readFunctions(ByteCursor& cursor, ModulePart& part);
    bool readAddresses(ByteCursor& cursor, ModulePart& part);
    bool readLines(ByteCursor& cursor, ModulePart& part, Address& address);
    [[nodiscard]] std::string_view string(ByteCursor& cursor) const;

    std::string _content; // all views are into it
    std::vector<std::string_view> _strings;
    std::map<std::tuple<std::string_view, std::string_view, bool>, ModulePart> _modules;
    size_t _addressCount = 0;
};

} // namespace vnt
