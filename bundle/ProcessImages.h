#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "bundle/JitSymbols.h"
#include "bundle/Modules.h"
#include "platform/foundation/Collections.h"

namespace vnt {

/// A span of time, [fromNs, untilNs), on the clock of the recording.
struct TimeSpan {
    uint64_t fromNs = 0;
    uint64_t untilNs = std::numeric_limits<uint64_t>::max();

    [[nodiscard]] bool contains(uint64_t timeNs) const { return timeNs >= fromNs && timeNs < untilNs; }
    bool operator==(const TimeSpan&) const = default;
    void narrow(const TimeSpan& other)
    {
        fromNs = fromNs > other.fromNs ? fromNs : other.fromNs;
        untilNs = untilNs < other.untilNs ? untilNs : other.untilNs;
    }
};

/// What was mapped where in one process, over time: its signature (records/Signature.h) as a look-up. Read from
/// untrusted data: entries of a wrong shape are left out. One thread.
class ProcessImages {
public:
    /// Registers the images' files in `modules`.
    static ProcessImages read(const Dictionary& signature, Modules& modules, Remarks& remarks);

    struct Location {
        bool known = false;
        uint32_t module = 0;
        uint64_t fileOffset = 0; ///< of the address, within the module's file
        // The mapping it stands in:
        uint64_t imageStart = 0;
        uint64_t imageBytes = 0;
        uint64_t imageOffset = 0; ///< of its first byte in the file
        TimeSpan valid; ///< how long this answer holds for the address
    };
    /// The newest mapping that covers `address` and is not younger than `timeNs`, within the process's program of that
    /// time. Costs a walk over the program's mappings: callers keep the answer while it is valid.
    [[nodiscard]] Location locate(uint64_t address, uint64_t timeNs) const;

    /// What a just-in-time compiler called its code.
    [[nodiscard]] const JitSymbols& jit() const { return _jit; }
    [[nodiscard]] const std::string& name() const { return _name; }
    [[nodiscard]] const std::string& executable() const { return _executable; }

private:
    struct Image {
        uint64_t start = 0;
        uint64_t size = 0;
        uint64_t fileOffset = 0;
        uint64_t timeNs = 0;
        uint32_t module = 0;
    };
    /// The time between two execs.
    struct Program {
        TimeSpan span;
        std::vector<Image> images; // oldest first
    };

    void addImage(const Dictionary& image, bool is64Bit, Modules& modules);

    std::vector<Program> _programs; // ascending, without gaps; never empty
    JitSymbols _jit;
    std::string _name;
    std::string _executable;
};

} // namespace vnt
