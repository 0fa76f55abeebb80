#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "bundle/FrameRole.h"
#include "bundle/KernelSymbols.h"
#include "bundle/Modules.h"
#include "bundle/ProcessImages.h"
#include "bundle/Remarks.h"
#include "bundle/StoredSymbolsWriter.h"
#include "bundle/SymbolSources.h"

namespace vnt {

/// A function that stands in recorded stacks, or what takes its place.
struct Symbol {
    enum class Kind : uint8_t {
        kFunction,
        kUnknown, ///< code without a name
        kTruncated, ///< the outer frames of a stack that was cut when it was recorded
        kNoStack, ///< a sample that could not be given a stack
    };
    std::string function; ///< readable name; "[unknown] in libx.so" and the like for the other kinds
    std::string module; ///< short name; "[kernel]" for the kernel; empty when unknown
    std::string path; ///< of the module
    Kind kind = Kind::kFunction;
    bool isKernel = false;
    std::string sourceFile = {}; ///< of labels for lines; else empty
    uint32_t line = 0;
    uint64_t start = 0; ///< linked address of its first byte; 0 where that is not known, and for inlined functions
};

/// One place in source code that an address stands for.
struct SourceFrame {
    uint32_t symbol = 0; ///< of the function, whether it has code of its own or was inlined
    std::string_view file; ///< as the compiler knew it; empty when unknown
    uint32_t line = 0; ///< 0: unknown
    bool inlined = false; ///< part of the next frame's machine code
};

/// Turns recorded addresses into functions, by the signatures of a bundle and the ELF files of this machine. Each
/// function is one number, named once. Memory grows with the functions hit, not with the recording. One thread.
class Symbolizer {
public:
    /// `signatures`: pid number -> signature dictionary (records/Signature.h); null when missing. What cannot be used
    /// is told to `remarks`, which outlives this. Bundle::symbolizer() makes one for an instrument.
    Symbolizer(const Dictionary* signatures, Remarks& remarks, SymbolSources sources = {});
    Symbolizer(const Symbolizer&) = delete; // its modules refer to its sources
    Symbolizer& operator=(const Symbolizer&) = delete;

    struct Resolved {
        uint32_t symbol = 0;
        TimeSpan valid; ///< for this address of this process
    };
    /// Cost: one hash look-up when the address was seen before, else a look-up in the module (about 1 us, and some
    /// milliseconds for a module's first).
    Resolved resolve(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role);

    /// The calls that were inlined at an address and the function whose code it is: innermost first; the last is the
    /// real function, the symbol that resolve() gives. Never empty. Valid until the Symbolizer dies. Empty file when
    /// unknown. Cost: one hash look-up when the address was seen before, else some 20 us in the module's debug
    /// information, and for a large module's first some 50 ms. Some 100 bytes are kept for each address.
    std::span<const SourceFrame> frames(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role);

    /// A symbol that stands for all functions of `symbol`'s module; `symbol` itself where it has none.
    uint32_t moduleLabel(uint32_t symbol);
    /// A symbol that stands for one line of a function, named "file.cpp:12 in function()"; the function where the line
    /// is not known.
    uint32_t lineLabel(const SourceFrame& frame);

    /// The C++ class whose virtual table is at the address `table`, in the module whose code begins at `code`. Empty:
    /// there is none that its file names. Valid until the Symbolizer dies. Cost: a hash look-up when it was seen
    /// before.
    std::string_view className(uint32_t pid, uint64_t table, uint64_t code, uint64_t timeNs);

    /// A child without a signature of its own runs what its parent ran.
    void noteFork(uint32_t parent, uint32_t child);

    [[nodiscard]] const Symbol& symbol(uint32_t number) const { return _symbols[number]; }
    [[nodiscard]] size_t symbolCount() const { return _symbols.size(); }
    // Symbols that stand for missing frames, by their kinds' names.
    static constexpr uint32_t kTruncated = 0;
    static constexpr uint32_t kNoStack = 1;

    /// Where an address is, whatever its name.
    struct Place {
        bool isKernel = false; ///< then nothing else is known
        bool isKnown = false; ///< in a module
        uint32_t module = 0;
        uint64_t fileOffset = 0; ///< of return addresses the byte before
        uint64_t linkedAddress = 0; ///< in the module as linked; the offset where its file cannot be read
        uint64_t imageStart = 0; ///< of the mapping
        uint64_t imageBytes = 0;
        uint64_t imageOffset = 0; ///< of its first byte in the file
    };
    /// Costs a walk over the process's mappings: for callers that remember the answer while resolve()'s is valid.
    [[nodiscard]] Place place(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role);
    /// A module that place() named.
    [[nodiscard]] const Module& module(uint32_t number) const { return _modules.module(number); }

    [[nodiscard]] const ProcessImages* process(uint32_t pid) const;
    [[nodiscard]] const std::string& kernelRelease() const { return _kernel.release(); }

private:
    struct AddressKey {
        uint32_t pid = 0;
        FrameRole role = FrameRole::kExact;
        uint64_t address = 0;
        bool operator==(const AddressKey&) const = default;
    };
    struct AddressHash {
        size_t operator()(const AddressKey& key) const;
    };
    struct SymbolKey {
        uint32_t owner = 0; // module number, or one of the owners below
        uint64_t start = 0;
        bool operator==(const SymbolKey&) const = default;
    };
    struct SymbolHash {
        size_t operator()(const SymbolKey& key) const;
    };

    /// Source frames of an address, and how long they hold for it.
    struct SeenFrames {
        std::span<const SourceFrame> frames; // in _chains or _plain
        TimeSpan valid;
    };

    void readSignatures(const Dictionary& signatures);
    void readSignature(int64_t pid, const Dictionary& signature);
    void readChildren(const Dictionary& signature);
    uint32_t jitSymbol(uint32_t pid, const JitSymbols::Symbol& found);
    Resolved resolveNew(uint32_t pid, uint64_t address, uint64_t timeNs, FrameRole role);
    std::span<const SourceFrame> chainOf(uint32_t module, uint64_t fileOffset, FrameRole role, uint32_t symbol);
    std::vector<SourceFrame> chainOfFile(uint32_t module, uint64_t fileOffset, uint32_t symbol);
    std::vector<SourceFrame> storedChain(uint32_t module, uint64_t fileOffset, FrameRole role);
    std::span<const SourceFrame> plainFrame(uint32_t symbol);
    uint32_t inlinedSymbol(uint32_t module, std::string_view function);
    uint32_t kernelSymbol(uint64_t address);
    uint32_t moduleSymbol(uint32_t number, uint64_t fileOffset, FrameRole role);
    std::optional<uint32_t> symbolOfFile(uint32_t number, uint64_t fileOffset, FrameRole role);
    uint32_t storedSymbol(uint32_t number, const StoredSymbols::Function& function);
    void collect(uint32_t number, uint64_t fileOffset, FrameRole role, uint32_t symbol);
    [[nodiscard]] StoredSymbolsWriter::Function functionOf(uint32_t symbol, bool isInlined) const;
    std::string classOfFile(uint32_t number, uint64_t codeOffset, uint64_t behindCode);
    uint32_t unmapped(uint64_t address);
    uint32_t intern(const SymbolKey& key, Symbol symbol);

    Remarks& _remarks;
    const SymbolSources _sources;
    Modules _modules;
    KernelSymbols _kernel;
    std::unordered_map<uint32_t, std::shared_ptr<const ProcessImages>> _processes; // children share their parent's
    std::unordered_map<AddressKey, Resolved, AddressHash> _seen;
    std::unordered_map<SymbolKey, uint32_t, SymbolHash> _numbers;
    std::vector<Symbol> _symbols;
    // Source frames; what is in these stays, so spans and views of it hold.
    std::unordered_map<AddressKey, SeenFrames, AddressHash> _seenFrames;
    std::unordered_map<SymbolKey, std::vector<SourceFrame>, SymbolHash>
        _chains; // by module, offset in the file and role
    std::unordered_map<uint32_t, SourceFrame> _plain; // by symbol: nothing is known but the function
    std::unordered_map<std::string, uint32_t> _inlined; // module number and function name
    std::unordered_set<std::string> _files;
    std::unordered_map<std::string, uint32_t> _labels; // by module path, or symbol, line and file
    std::unordered_map<SymbolKey, std::string, SymbolHash> _classes; // by module and place of the virtual table
    size_t _unmapped = 0;
};

} // namespace vnt
